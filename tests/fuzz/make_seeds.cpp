// Writes the fuzz targets' seed corpus from the module's own saves: every object, new, in
// each form fuzz_load reads (the selector byte first), and the same texts, narrowed to one
// byte a character, for the XML, folder, archive and text targets.
// Usage: fuzz_make_seeds OUTPUT_FOLDER   (absolute; it holds one folder per target)
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "frame/ModuleObjects.h"
#include "host/client/CalibrationFile.h"
#include "host/client/ModuleHost.h"

namespace {

#define ZELTRIM_SEED_NAME_(Name, ...) ZELTRIM_OBJECT_TEXT(Name),
const wchar_t* const kNames[] = {ZELTRIM_MODULE_OBJECTS(ZELTRIM_SEED_NAME_, ZELTRIM_SEED_NAME_)};
constexpr int kForms = 5;
const char* const kExtensions[] = {".xml", ".tCAL", ".csv"};

std::string g_Out;

void Put(const std::string& target, const std::string& file, char selector, const std::string& bytes) {
  if (bytes.empty()) return;
  mkdir((g_Out + "/" + target).c_str(), 0755);
  std::ofstream(g_Out + "/" + target + "/" + file, std::ios::binary) << selector << bytes;
}

std::string ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// 16-bit little-endian text after its mark, one byte a character.
std::string Narrow16(const std::string& b) {
  std::string out;
  for (size_t i = 2; i + 1 < b.size(); i += 2) out += b[i];
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 || argv[1][0] != '/') {
    std::fprintf(stderr, "usage: fuzz_make_seeds /ABSOLUTE/OUTPUT_FOLDER\n");
    return 2;
  }
  g_Out = argv[1];
  mkdir(g_Out.c_str(), 0755);
  ModuleHost host;
  if (!host.Load(ExecutableFolder())) {
    std::fprintf(stderr, "%s\n", host.Error().c_str());
    return 1;
  }
  const std::string scratch = "/tmp/zeltrim_seeds_" + std::to_string(getpid());
  for (int row = 0; row < static_cast<int>(sizeof(kNames) / sizeof(kNames[0])); ++row) {
    const std::wstring wide = kNames[row];
    const std::string name(wide.begin(), wide.end());
    SmartPtr<IUnknown> object = host.Create<IUnknown>(kNames[row]);
    if (!object) continue;
    SmartPtr<IFileArchive> archive = QueryAs<IFileArchive>(object);
    SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(object);
    for (int form = 0; form < 3 && (archive || persist); ++form) {
      const std::string path = scratch + kExtensions[form];
      if (archive) {
        archive->put_Filename(host.NewString(path));
        archive->Save();
      } else {  // the host's own streams save it
        client::SaveFile(host.Components(), object, path);
      }
      const std::string bytes = ReadBytes(path);
      std::remove(path.c_str());
      Put("fuzz_load", name + kExtensions[form], static_cast<char>(row * kForms + form), bytes);
      if (form == 0) {
        Put("fuzz_xml", name + ".xml", 'x', Narrow16(bytes));
        Put("fuzz_archive_load", name + ".xml", 1, bytes);
      } else if (form == 1) {
        Put("fuzz_folder", name + ".tCAL", 0, bytes);
        Put("fuzz_archive_load", name + ".tCAL", 0, bytes);
      } else {
        Put("fuzz_text", name + ".csv", 0, Narrow16(bytes));
      }
    }
    for (int form = 3; form < 5 && persist; ++form) {
      SmartPtr<IDataStream> stream = host.CreateHost<IDataStream>(form == 3 ? L"CSVStream" : L"DataStream");
      if (!stream || stream->Open(nullptr, 1000, 1) < 0) continue;
      persist->Save(stream, 0);
      void* buffer = nullptr;
      unsigned long size = 0;
      stream->GetBuffer(&buffer, &size);
      if (!buffer || !size) continue;
      const std::string bytes(static_cast<const char*>(buffer), size);
      Put("fuzz_load", name + (form == 3 ? ".csvstream" : ".datastream"), static_cast<char>(row * kForms + form), bytes);
      std::string narrow;  // 4-byte characters, one byte each
      for (size_t i = 0; i + 3 < bytes.size(); i += 4) narrow += bytes[i];
      Put("fuzz_text", name + (form == 3 ? ".csvstream" : ".datastream"), 0, narrow);
    }
  }
  return 0;
}
