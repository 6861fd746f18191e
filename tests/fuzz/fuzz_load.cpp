// libFuzzer target: loading each of the module's objects from untrusted bytes in each
// form a user can hand in. The first byte picks the object (by its row in the module's
// object table, all eighteen) and the form:
//   0  an XML file (.xml), loaded through the object's IFileArchive, or, for an object
//      without one, through the host's checked load (client::LoadFile)
//   1  a folder stream file (.tCAL), likewise
//   2  a text file (.csv): the camera classes' text form; the others refuse it
//   3  a host "CSVStream" over the bytes, handed to the object's IDataPersist::Load
//   4  a host "DataStream" over the bytes, likewise
// The file forms also go through the host's own check (client::CheckFile). Whatever was
// loaded is then saved again in both file forms, so that a half-loaded object shows.
// Needs the fuzz build of the whole tree (Zeltrim.so and its peers in ./_binlinux beside
// the executable, which the target enters): corpus folders must be given as absolute paths.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "frame/ModuleObjects.h"
#include "host/client/CalibrationFile.h"
#include "host/client/ModuleHost.h"

namespace {

#define ZELTRIM_FUZZ_NAME_(Name, ...) ZELTRIM_OBJECT_TEXT(Name),
const wchar_t* const kNames[] = {ZELTRIM_MODULE_OBJECTS(ZELTRIM_FUZZ_NAME_, ZELTRIM_FUZZ_NAME_)};
constexpr int kNameCount = static_cast<int>(sizeof(kNames) / sizeof(kNames[0]));
constexpr int kForms = 5;
const char* const kExtensions[] = {".xml", ".tCAL", ".csv"};

ModuleHost* g_Host = nullptr;

std::string Scratch(const char* extension) {
  return "/tmp/zeltrim_fuzz_load_" + std::to_string(getpid()) + extension;
}

bool WriteFile(const std::string& path, const uint8_t* data, size_t size) {
  FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) return false;
  const bool ok = size == 0 || std::fwrite(data, 1, size, file) == size;
  return std::fclose(file) == 0 && ok;
}

HRESULT Archive(IUnknown* object, const std::string& path, bool save) {
  SmartPtr<IFileArchive> archive = QueryAs<IFileArchive>(object);
  if (!archive) {
    const client::FileReport report = save ? client::SaveFile(g_Host->Components(), object, path)
                                           : client::LoadFile(g_Host->Components(), object, path);
    if (!report.ok && report.problem.empty()) __builtin_trap();  // a refusal says why
    return report.ok ? S_OK : E_FAIL;
  }
  archive->put_Filename(g_Host->NewString(path));
  return save ? archive->Save() : archive->Load();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_Host = new ModuleHost;
  if (!g_Host->Load(ExecutableFolder())) {
    std::fprintf(stderr, "fuzz_load: %s\n", g_Host->Error().c_str());
    std::abort();
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 65536) return 0;
  const int pick = data[0] % (kNameCount * kForms);
  const wchar_t* name = kNames[pick / kForms];
  const int form = pick % kForms;
  void* p = nullptr;
  if (!g_Host->CreateRaw(name, IID_IUnknown, &p) || !p) __builtin_trap();  // every row is built
  SmartPtr<IUnknown> object;
  object.Attach(static_cast<IUnknown*>(p));

  if (form < 3) {
    const std::string path = Scratch(kExtensions[form]);
    if (!WriteFile(path, data + 1, size - 1)) return 0;
    const client::FileReport report = client::CheckFile(path, std::wstring());
    if (!report.ok && report.problem.empty()) __builtin_trap();  // a refusal says why
    Archive(object, path, false);
    std::remove(path.c_str());
  } else {
    SmartPtr<IDataStream> stream = g_Host->CreateHost<IDataStream>(form == 3 ? L"CSVStream" : L"DataStream");
    SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(object);
    if (!stream) __builtin_trap();
    if (persist && stream->Open(const_cast<uint8_t*>(data + 1), static_cast<unsigned long>(size - 1), 0) >= 0)
      persist->Load(stream, 0);
  }

  // Save what was loaded: every field it holds is written out.
  for (const char* extension : {".xml", ".tCAL"}) {
    const std::string path = Scratch(extension);
    Archive(object, path, true);
    std::remove(path.c_str());
  }
  return 0;
}
