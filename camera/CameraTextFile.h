// The file entries Save() and Load() shared by the camera classes. The first letter of
// the file extension picks the form: 'x' XML and 't' folder stream through the archive
// base; any other extension, and any archive route that fails, the class's text form.
//
// The text form goes through a host "DataStream": the class writes wide text into it
// (4 bytes a character) with its own Save(stream, 0), and the file receives the mark
// 0xFEFF and then every character cut to 16 bits. Reading back opens a "DataStream" over
// the file's text with a size of the character count times a factor the class chooses
// (it differs between the classes on purpose), and hands it to the class's Load(stream, 0).
#pragma once

#include "frame/Object.h"
#include "persist/FileArchiveImpl.h"

enum CameraFileForm { CAMERA_FILE_XML, CAMERA_FILE_FOLDER, CAMERA_FILE_TEXT };

// The form of a file name: the text after the last '.', compared without case with "x"
// and "t" over the shorter length. No '.', or nothing after it, is the text form.
CameraFileForm CameraFileFormOf(IString* filename);

// Writes twelve doubles to `stream` as the camera text forms show them: four lines
// "%.8f,%.8f,%.8f\r\n", three consecutive values a line (a 3 x 4 matrix held by columns
// gives one column a line), wide characters at 4 bytes each.
void CameraWriteTriples(IDataStream* stream, const double* values);

// Writes `object`'s text form to `filename`. E_FAIL when the host has no "DataStream",
// the file cannot be opened or nothing could be written.
HRESULT CameraTextFileSave(IString* filename, IDataPersist* object);

// Reads `filename` whole as text and returns `object`->Load of a "DataStream" opened over
// it with the character count times `sizeFactor` as its size (a factor above 4 is held to
// 4, the size of the text held). E_FAIL when the file cannot be read or there is no stream.
HRESULT CameraTextFileLoad(IString* filename, IDataPersist* object, int sizeFactor);

// The archive part of IFileArchive::Save() of a camera class T (an IFileArchiveImpl<T,
// IFileArchive>): XML or folder stream by the extension of `filename`; a non-negative
// result there marks the archive saved and current and gives S_OK. E_FAIL for the text
// form, or when the archive route fails: the class then writes its text form.
template <class T>
HRESULT CameraArchiveSaveStream(IFileArchiveImpl<T, IFileArchive>* archive, IString* filename) {
  HRESULT hr = E_FAIL;
  switch (CameraFileFormOf(filename)) {
    case CAMERA_FILE_XML: hr = archive->SaveXML(nullptr, 0); break;
    case CAMERA_FILE_FOLDER: hr = archive->SaveFolderStream(); break;
    case CAMERA_FILE_TEXT: break;
  }
  if (hr < 0) return E_FAIL;
  archive->Control(ARCHIVE_MODIFIED, 0);
  archive->Control(ARCHIVE_CURRENT, 1);
  return S_OK;
}

// IFileArchive::Save() of a camera class T: the archive part, else the text form, whose
// result is returned as it stands.
template <class T>
HRESULT CameraArchiveSave(IFileArchiveImpl<T, IFileArchive>* archive, IDataPersist* object) {
  SmartPtr<IString> filename;
  archive->get_Filename(filename.Out());
  if (CameraArchiveSaveStream(archive, filename.get()) >= 0) return S_OK;
  return CameraTextFileSave(filename, object);
}

// IFileArchive::Load() of a camera class T: the archive base's Load first (S_OK when it
// is not negative), else the text route with the class's size factor.
template <class T>
HRESULT CameraArchiveLoad(IFileArchiveImpl<T, IFileArchive>* archive, IDataPersist* object, int sizeFactor) {
  if (archive->IFileArchiveImpl<T, IFileArchive>::Load() >= 0) return S_OK;
  SmartPtr<IString> filename;
  archive->get_Filename(filename.Out());
  return CameraTextFileLoad(filename, object, sizeFactor);
}
