#include "host/client/CalibrationFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

#include "host/client/ModuleHost.h"
#include "host/streams/FolderCodec.h"
#include "host/streams/XMLText.h"

namespace client {
namespace {

// The module encodes a file name to UTF-8 in 256 bytes and uses at most 254 of them.
constexpr size_t kMaxModulePathBytes = 254;
// The module reads no larger file.
constexpr unsigned long long kMaxFileBytes = 256ull << 20;
// Folder stream header: magic, version, flags, payload length, checksum (host/README.md).
constexpr char kFolderMagic[4] = {'Z', 'T', 'F', 'S'};
constexpr unsigned kFolderVersion = 1;
// The entry beside the object in a folder stream file.
constexpr const wchar_t* kInfoEntry = L"Info";

typedef std::vector<uint8_t> Bytes;

FileReport Refused(const std::string& problem) {
  FileReport report;
  report.problem = problem;
  return report;
}

std::string Printf(const char* format, unsigned long long a, unsigned long long b = 0) {
  char buffer[160];
  std::snprintf(buffer, sizeof(buffer), format, a, b);
  return buffer;
}

// Object names in messages: printable ASCII, anything else as '?'.
std::string Narrow(const std::wstring& text) {
  std::string out;
  for (wchar_t c : text) out += (c >= 32 && c < 127) ? static_cast<char>(c) : '?';
  return out;
}

// Strict UTF-8 (no overlong forms, surrogates, values above U+10FFFF or cut sequences).
// On failure *out holds the characters before the first bad byte.
bool DecodeUtf8(const uint8_t* b, size_t n, std::wstring* out) {
  out->clear();
  size_t i = 0;
  while (i < n) {
    const uint8_t lead = b[i];
    size_t extra;
    uint32_t c, least;
    if (lead < 0x80) {
      out->push_back(static_cast<wchar_t>(lead));
      ++i;
      continue;
    } else if ((lead & 0xE0) == 0xC0) {
      extra = 1, c = lead & 0x1F, least = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      extra = 2, c = lead & 0x0F, least = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      extra = 3, c = lead & 0x07, least = 0x10000;
    } else {
      return false;
    }
    if (n - i <= extra) return false;
    for (size_t k = 1; k <= extra; ++k) {
      if ((b[i + k] & 0xC0) != 0x80) return false;
      c = (c << 6) | (b[i + k] & 0x3F);
    }
    if (c < least || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return false;
    out->push_back(static_cast<wchar_t>(c));
    i += extra + 1;
  }
  return true;
}

std::string Absolute(const std::string& path) {
  if (path.empty() || path[0] == '/') return path;
  char cwd[4096];
  return getcwd(cwd, sizeof(cwd)) ? std::string(cwd) + "/" + path : path;
}

// What keeps the module from opening exactly this path; empty when nothing does.
std::string ModulePathProblem(const std::string& path, std::wstring* wide) {
  if (path.empty()) return "no file name";
  if (!DecodeUtf8(reinterpret_cast<const uint8_t*>(path.data()), path.size(), wide))
    return "the path is not UTF-8 text, and the module opens files by UTF-8 names";
  for (wchar_t c : *wide)
    if (c == 0x7FF || c == 0xFFFF)
      return "the path holds U+07FF or U+FFFF, which the module encodes in a longer form, so it would open "
             "another file";
  if (path.size() > kMaxModulePathBytes)
    return Printf("the path is %llu bytes long and the module opens paths of at most %llu bytes", path.size(),
                  kMaxModulePathBytes);
  return std::string();
}

std::wstring ObjectNameOf(IUnknown* object) {
  SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(object);
  tagREFString name{0, nullptr};
  if (!info || info->GetName(0, &name) < 0 || !name.m_Text || name.m_Length <= 0) return std::wstring();
  return std::wstring(name.m_Text, static_cast<size_t>(name.m_Length));
}

// The module's test for 16-bit text (files of two bytes or more): a byte order mark in
// either order among the first nine bytes, or zeros at the odd places of the first eight (places
// past the end count as zero). It then drops the first unit, whatever it holds.
bool ModuleReadsSixteenBit(const Bytes& b) {
  const size_t n = b.size();
  for (size_t i = 0; i < 9 && i + 1 < n; ++i)
    if ((b[i] == 0xFE && b[i + 1] == 0xFF) || (b[i] == 0xFF && b[i + 1] == 0xFE)) return true;
  for (size_t i = 1; i < 8; i += 2)
    if (i < n && b[i] != 0) return false;
  return true;
}

// The text the module's XML load will see, or a problem.
std::string DecodeXMLFile(const Bytes& b, std::wstring* text) {
  const size_t n = b.size();
  if (n < 2) return "the file is too short to hold a document (1 byte)";
  if (b[0] == 0xFF && b[1] == 0xFE) {
    if (n % 2 != 0) return "truncated 16-bit text (an odd number of bytes)";
    text->clear();
    for (size_t i = 2; i < n; i += 2) text->push_back(static_cast<wchar_t>(b[i] | (b[i + 1] << 8)));
    size_t at = 0;
    if (!XMLJoinSurrogates(text, &at))
      return Printf("a character cut in half (a lone surrogate) at line %llu", XMLLineOf(*text, at));
    return std::string();
  }
  if (b[0] == 0xFE && b[1] == 0xFF)
    return "a big-endian byte order mark (the module reads 16-bit text little-endian only)";
  if (ModuleReadsSixteenBit(b)) return "a bad byte order mark (16-bit text must begin with the bytes FF FE)";
  if (!DecodeUtf8(b.data(), n, text))
    return Printf("invalid UTF-8 at line %llu", XMLLineOf(*text, text->size()));
  return std::string();
}

uint32_t U32At(const Bytes& b, size_t at) {
  return static_cast<uint32_t>(b[at]) | static_cast<uint32_t>(b[at + 1]) << 8 | static_cast<uint32_t>(b[at + 2]) << 16 |
         static_cast<uint32_t>(b[at + 3]) << 24;
}

// The folder stream's header is looked at here for a message that says what is wrong;
// the codec then reads the whole tree as the host's folder stream will.
std::string CheckFolder(const Bytes& b, std::wstring* objectName) {
  const size_t n = b.size();
  if (n < folder_codec::kHeaderBytes)
    return Printf("truncated folder stream (%llu bytes, less than its %llu-byte header)", n, folder_codec::kHeaderBytes);
  if (std::memcmp(b.data(), kFolderMagic, sizeof(kFolderMagic)) != 0)
    return "not a folder stream (it does not begin with ZTFS)";
  const unsigned version = b[4] | b[5] << 8, flags = b[6] | b[7] << 8;
  if (version != kFolderVersion)
    return Printf("a folder stream of version %llu; this host reads version %llu", version, kFolderVersion);
  if (flags != 0) return Printf("a folder stream with flags %llu; this host reads none", flags);
  const unsigned long long whole = folder_codec::kHeaderBytes + static_cast<unsigned long long>(U32At(b, 8));
  if (whole > n) return Printf("truncated folder stream (%llu of %llu bytes)", n, whole);
  if (whole < n) return Printf("%llu bytes after the end of the folder stream", n - whole);
  if (U32At(b, 12) != folder_codec::Crc32(b.data() + folder_codec::kHeaderBytes, n - folder_codec::kHeaderBytes))
    return "checksum mismatch";
  std::vector<folder_codec::Entry> entries;
  if (!folder_codec::Decode(b.data(), n, 0, &entries)) return "damaged folder stream (its entries do not read)";
  for (const folder_codec::Entry& entry : entries) {
    if (entry.name != kInfoEntry && entry.type == folder_codec::TYPE_OBJECT) {
      *objectName = entry.name;
      return std::string();
    }
  }
  return "the folder stream holds no object";
}

// Reads a regular file whole; a problem when it is not one, is empty or cannot be read.
std::string ReadWhole(const std::string& path, Bytes* bytes) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return std::string("cannot read it: ") + std::strerror(errno);
  if (S_ISDIR(info.st_mode)) return "it is a folder, not a file";
  if (!S_ISREG(info.st_mode)) return "it is not a regular file";
  if (info.st_size == 0) return "the file is empty";
  if (static_cast<unsigned long long>(info.st_size) > kMaxFileBytes)
    return "the file is larger than the 256 MiB the module reads";
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::string("cannot read it: ") + std::strerror(errno);
  bytes->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  if (in.bad() || bytes->empty()) return "cannot read it";
  return std::string();
}

SmartPtr<IString> PathString(IComponentCollection* components, const std::wstring& path) {
  SmartPtr<ICreatableString> text = HostObject<ICreatableString>(components, L"CreatableString");
  if (!text) return SmartPtr<IString>();
  text->SetString(static_cast<int>(path.size()), path.c_str());
  return SmartPtr<IString>(text.get());
}

std::string ResultText(HRESULT hr) { return Printf("result 0x%08llX", static_cast<uint32_t>(hr)); }

std::string FolderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// The two file forms written by the host itself, for objects that keep no files of their
// own (no IFileArchive) but save and load through IDataPersist: the same bytes the
// module's archive writes. XML: two prologue lines naming "generic.xsl", the object's
// element, 16-bit text after the mark FF FE. Folder stream: an "Info" entry holding a
// host "FileInfo", then the object under its name.
HRESULT SaveByStreams(IComponentCollection* components, IUnknown* object, const std::string& path) {
  SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(object);
  const std::wstring objectName = ObjectNameOf(object);
  if (!persist || objectName.empty()) return E_NOINTERFACE;
  if (FormOfPath(path) == FileForm::kFolder) {
    SmartPtr<IFolderStream> stream = HostObject<IFolderStream>(components, L"FolderStream");
    SmartPtr<IUnknown> info = HostObject<IUnknown>(components, L"FileInfo");
    SmartPtr<IString> infoKey = PathString(components, kInfoEntry), objectKey = PathString(components, objectName);
    SmartPtr<IFileArchive> file = QueryAs<IFileArchive>(stream);
    std::wstring wide;
    ModulePathProblem(path, &wide);
    SmartPtr<IString> name = PathString(components, wide);
    if (!file || !info || !infoKey || !objectKey || !name) return E_FAIL;
    stream->WriteObject(infoKey, info, 0);
    const HRESULT hr = stream->WriteObject(objectKey, object, 0);
    if (hr < 0) return hr;
    file->put_Filename(name);
    return file->Save();
  }
  SmartPtr<IXMLStreamEx> xml = HostObject<IXMLStreamEx>(components, L"XMLStreamEx");
  if (!xml) return E_FAIL;
  xml->Attach(nullptr, 0, 0);
  const std::wstring prologue =
      L"<?xml version=\"1.0\"?>\r\n<?xml-stylesheet href=\"generic.xsl\" type=\"text/xsl\"?>\r\n";
  xml->Write(prologue.data(), static_cast<unsigned long>(prologue.size() * sizeof(wchar_t)), 0);
  xml->BeginObject(object, 0, 0);
  // Some classes report E_FAIL after a complete XML save; the file is judged by CheckFile.
  persist->Save(xml, 0);
  xml->CloseTag();
  void* data = nullptr;
  unsigned long bytes = 0;
  if (xml->GetBuffer(&data, &bytes) < 0 || !data) return E_FAIL;
  std::string out = "\xFF\xFE";
  const wchar_t* text = static_cast<const wchar_t*>(data);
  for (unsigned long i = 0; i < bytes / sizeof(wchar_t); ++i) {
    const uint32_t c = static_cast<uint32_t>(text[i]);
    const auto unit = [&out](uint32_t u) { out += static_cast<char>(u & 0xFF), out += static_cast<char>(u >> 8); };
    if (c < 0x10000) {
      unit(c);
    } else {
      unit(0xD800 + ((c - 0x10000) >> 10));
      unit(0xDC00 + ((c - 0x10000) & 0x3FF));
    }
  }
  std::ofstream file(path, std::ios::binary);
  if (!file.write(out.data(), static_cast<std::streamsize>(out.size())) || !(file.close(), file)) return E_FAIL;
  return S_OK;
}

// Loads a file that CheckFile accepted into an object without IFileArchive.
HRESULT LoadByStreams(IComponentCollection* components, IUnknown* object, const std::string& path) {
  SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(object);
  if (!persist) return E_NOINTERFACE;
  if (FormOfPath(path) == FileForm::kFolder) {
    SmartPtr<IFolderStream> stream = HostObject<IFolderStream>(components, L"FolderStream");
    SmartPtr<IFileArchive> file = QueryAs<IFileArchive>(stream);
    std::wstring wide;
    ModulePathProblem(path, &wide);
    SmartPtr<IString> name = PathString(components, wide), objectKey = PathString(components, ObjectNameOf(object));
    if (!file || !name || !objectKey) return E_FAIL;
    file->put_Filename(name);
    HRESULT hr = file->Load();
    if (hr < 0) return hr;
    void* place = object;
    hr = stream->ReadObject(objectKey, &place, 0);
    if (place && place != object) static_cast<IUnknown*>(place)->Release();
    return hr;
  }
  Bytes bytes;
  std::wstring text;
  if (!ReadWhole(path, &bytes).empty() || !DecodeXMLFile(bytes, &text).empty()) return E_FAIL;
  SmartPtr<IXMLStream> xml = HostObject<IXMLStream>(components, L"XMLStream");
  if (!xml || xml->Attach(text.data(), static_cast<unsigned long>(text.size() * sizeof(wchar_t)), 0) < 0) return E_FAIL;
  tagREFString tag{0, nullptr};
  while (xml->NextTag(&tag) >= 0 && tag.m_Length > 0 && tag.m_Text && tag.m_Text[0] == L'?')
    xml->Seek(static_cast<long>(tag.m_Length * sizeof(wchar_t)), STREAM_CURRENT, 0);
  SmartPtr<IUnknown> content;
  tagREFString found{0, nullptr};
  if (!tag.m_Text || xml->ReadElement(tag.m_Length, tag.m_Text, &found, content.Out(), 0) < 0) return E_FAIL;
  SmartPtr<IDataStream> element = QueryAs<IDataStream>(content);
  if (!element) return E_FAIL;
  // Some classes report E_FAIL at the end of a complete XML load; the values are in.
  persist->Load(element, PERSIST_REPLACE);
  return S_OK;
}

}  // namespace

std::string SavePathProblem(const std::string& given) {
  const std::string path = Absolute(given);
  std::wstring wide;
  const std::string problem = ModulePathProblem(path, &wide);
  if (!problem.empty()) return problem;
  const std::string folder = FolderOf(path);
  struct stat info;
  if (stat(folder.c_str(), &info) != 0) return "the folder " + folder + " does not exist";
  if (!S_ISDIR(info.st_mode)) return folder + " is not a folder";
  if (access(folder.c_str(), W_OK | X_OK) != 0) return "the folder " + folder + " is not writable";
  if (stat(path.c_str(), &info) == 0) {
    if (S_ISDIR(info.st_mode)) return "it is a folder";
    if (!S_ISREG(info.st_mode)) return "it is not a regular file";
  }
  return std::string();
}

namespace {

// An existing file moved aside for a save, so that a save which writes nothing cannot
// pass for one that worked, and so that a failed save leaves the old file as it was.
class SetAside {
 public:
  explicit SetAside(const std::string& path) : m_Path(path) {
    struct stat info;
    if (lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return;  // none, or a link: in place
    const size_t slash = path.rfind('/');
    const std::string aside = path.substr(0, slash + 1) + "." + path.substr(slash + 1) + ".zeltrim-" +
                              std::to_string(static_cast<long>(getpid())) + ".old";
    if (std::rename(path.c_str(), aside.c_str()) == 0) {
      m_Aside = aside;
      m_Mode = info.st_mode & 07777;
    }
  }
  bool Active() const { return !m_Aside.empty(); }
  void Keep() {  // the save worked: the new file takes the old one's permissions
    if (!Active()) return;
    chmod(m_Path.c_str(), m_Mode);
    std::remove(m_Aside.c_str());
    m_Aside.clear();
  }
  // The save failed: the old file comes back, or the bad new one goes. Says which.
  std::string Undo(bool wroteNew) {
    if (Active()) {
      std::rename(m_Aside.c_str(), m_Path.c_str());
      m_Aside.clear();
      return "; the previous file was put back";
    }
    if (wroteNew) {
      std::remove(m_Path.c_str());
      return "; the file was removed";
    }
    return std::string();
  }
  ~SetAside() { Undo(false); }

 private:
  std::string m_Path, m_Aside;
  mode_t m_Mode = 0;
};

}  // namespace

FileForm FormOfPath(const std::string& path) {
  size_t start = 0;
  const size_t dot = path.rfind('.');
  if (dot != std::string::npos && dot > 0) start = dot + 1;
  if (start >= path.size()) return FileForm::kNone;
  const char first = static_cast<char>(std::tolower(static_cast<unsigned char>(path[start])));
  return first == 'x' ? FileForm::kXML : first == 't' ? FileForm::kFolder : FileForm::kNone;
}

FileReport CheckFile(const std::string& given, const std::wstring& expected) {
  const std::string path = Absolute(given);
  std::wstring wide;
  std::string problem = ModulePathProblem(path, &wide);
  if (!problem.empty()) return Refused(problem);
  const FileForm form = FormOfPath(path);
  if (form == FileForm::kNone)
    return Refused("its extension names no form the module loads (.x... for XML, .t... for a folder stream)");
  Bytes bytes;
  problem = ReadWhole(path, &bytes);
  if (!problem.empty()) return Refused(problem);

  const bool folderMark = bytes.size() >= sizeof(kFolderMagic) && std::memcmp(bytes.data(), kFolderMagic, 4) == 0;
  FileReport report;
  if (form == FileForm::kXML) {
    if (folderMark) return Refused("it holds a folder stream, but its extension names XML");
    std::wstring text;
    problem = DecodeXMLFile(bytes, &text);
    if (!problem.empty()) return Refused(problem);
    const XMLDocumentCheck check = XMLCheckDocument(text);
    if (!check.wellFormed)
      return Refused(Printf("not well-formed XML at line %llu: ", check.line) + check.problem);
    report.objectName = text.substr(check.root.nameStart, check.root.nameLength);
  } else {
    problem = CheckFolder(bytes, &report.objectName);
    if (!problem.empty()) return Refused(problem);
  }
  if (!expected.empty() && report.objectName != expected) {
    report.problem = "it holds a " + Narrow(report.objectName) + ", not a " + Narrow(expected);
    return report;
  }
  report.ok = true;
  return report;
}

FileReport LoadFile(IComponentCollection* components, IUnknown* object, const std::string& given) {
  const std::string path = Absolute(given);
  SmartPtr<IFileArchive> archive = QueryAs<IFileArchive>(object);
  if (!archive && !QueryAs<IDataPersist>(object)) return Refused("the object keeps no files");
  FileReport report = CheckFile(path, ObjectNameOf(object));
  if (!report.ok) return report;
  if (!archive) {
    const HRESULT hr = LoadByStreams(components, object, path);
    if (hr < 0) return Refused("the host could not load it (" + ResultText(hr) + ")");
    return report;
  }
  std::wstring wide;
  ModulePathProblem(path, &wide);
  SmartPtr<IString> name = PathString(components, wide);
  if (!name) return Refused("the host has no strings");
  archive->put_Filename(name);
  const HRESULT hr = archive->Load();
  if (hr < 0) return Refused("the module could not load it (" + ResultText(hr) + ")");
  return report;
}

FileReport SaveFile(IComponentCollection* components, IUnknown* object, const std::string& given) {
  const std::string path = Absolute(given);
  const std::string problem = SavePathProblem(path);
  if (!problem.empty()) return Refused(problem);
  std::wstring wide;
  ModulePathProblem(path, &wide);
  SmartPtr<IFileArchive> archive = QueryAs<IFileArchive>(object);
  SmartPtr<IString> name = PathString(components, wide);
  const bool byStreams = !archive && QueryAs<IDataPersist>(object);
  if (!archive && !byStreams) return Refused("the object keeps no files");
  if (!name) return Refused("the host has no strings");
  if (byStreams && FormOfPath(path) == FileForm::kNone)
    return Refused("the object saves no file of that extension (.x... for XML, .t... for a folder stream)");

  SetAside old(path);
  HRESULT hr = E_FAIL;
  if (byStreams) {
    hr = SaveByStreams(components, object, path);
  } else {
    archive->put_Filename(name);
    hr = archive->Save();
  }
  struct stat info;
  const bool wrote = stat(path.c_str(), &info) == 0;
  if (hr < 0) {
    const FileForm form = FormOfPath(path);
    const std::string why = form == FileForm::kNone ? "the object saves no file of that extension" : "the module could not save it";
    return Refused(why + " (" + ResultText(hr) + ")" + old.Undo(wrote));
  }
  if (!wrote) return Refused("the module wrote no file" + old.Undo(false));
  if (FormOfPath(path) == FileForm::kNone) {
    if (!S_ISREG(info.st_mode) || info.st_size == 0) return Refused("the module wrote an empty file" + old.Undo(true));
    old.Keep();
    FileReport report;
    report.ok = true;
    report.objectName = ObjectNameOf(object);
    return report;
  }
  FileReport report = CheckFile(path, ObjectNameOf(object));
  if (!report.ok) return Refused("the saved file does not read back: " + report.problem + old.Undo(true));
  old.Keep();
  return report;
}

}  // namespace client
