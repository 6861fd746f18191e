#include "camera/CameraTextFile.h"

#include <cwchar>

#include "frame/StringRefs.h"

CameraFileForm CameraFileFormOf(IString* filename) {
  CREFString name = ViewOf(filename);
  CREFString extension;
  if (name.GetLineRight(&extension, L'.', false, true, false) < 0) return CAMERA_FILE_TEXT;
  if (extension.CompareI(RefOf(L"x"), 0) >= 0) return CAMERA_FILE_XML;
  if (extension.CompareI(RefOf(L"t"), 0) >= 0) return CAMERA_FILE_FOLDER;
  return CAMERA_FILE_TEXT;
}

void CameraWriteTriples(IDataStream* stream, const double* values) {
  if (!stream || !values) return;
  for (int line = 0; line < 4; ++line) {
    // The module's formatting buffer of 256 characters: a line of values too wide for it
    // (above about 1e70) is left out.
    wchar_t text[256];
    const double* v = values + 3 * line;
    const int n = _swprintf(text, 256, L"%.8f,%.8f,%.8f\r\n", v[0], v[1], v[2]);
    if (n > 0) stream->Write(text, n * 4, 0);
  }
}

HRESULT CameraTextFileSave(IString* filename, IDataPersist* object) {
  SmartPtr<IDataStream> stream;
  stream.Attach(BASEObject::CreateDataStream());
  if (!stream || !object) return E_FAIL;
  stream->Open(nullptr, 1000, 1);
  object->Save(stream, 0);
  void* text = nullptr;
  unsigned long bytes = 0;
  stream->GetBuffer(&text, &bytes);
  return FileArchiveSave(ViewOf(filename), static_cast<unsigned char*>(text), bytes, 1, 0);
}

HRESULT CameraTextFileLoad(IString* filename, IDataPersist* object, int sizeFactor) {
  if (!object) return E_FAIL;
  void* text = nullptr;
  unsigned long characters = 0;
  if (FileArchiveLoad(ViewOf(filename), &text, &characters, 1, 0) < 0) return E_FAIL;
  HRESULT hr = E_FAIL;
  {
    SmartPtr<IDataStream> stream;
    stream.Attach(BASEObject::CreateDataStream());
    if (stream) {
      // The buffer holds the characters at 4 bytes each; a larger factor would read past it.
      const unsigned long factor = sizeFactor < 0 ? 0 : sizeFactor > 4 ? 4 : static_cast<unsigned long>(sizeFactor);
      stream->Open(text, characters * factor, 0);
      hr = object->Load(stream, 0);
    }
  }
  FileArchiveFree(text, 1);
  return hr;
}
