// `zeltrim collection FILE VERB ...`: a file of calibrations kept by name, through the
// module's "CalibrationsCollection" and its file archive, with its three active slots.
//
// The collection's file form holds the members only, so the slots live beside it in a
// small text file, FILE.active, that this command writes and reads itself: a line
// "lens NAME", "alignment NAME" or "location NAME" for each slot that is filled. Every run
// puts the named members back into the loaded collection's slots, and every change writes
// the file again from what the slots then hold, so a renamed member keeps its slot (the
// slot holds the calibration itself, which the rename names anew) and a removed one
// leaves it.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "host/client/CalibrationFile.h"
#include "tools/zeltrim/Commands.h"
#include "tools/zeltrim/HostText.h"

const char* const kCollectionHelp =
    "usage: zeltrim collection FILE list\n"
    "       zeltrim collection FILE show\n"
    "       zeltrim collection FILE add NAME CALIBRATION_FILE\n"
    "       zeltrim collection FILE remove NAME\n"
    "       zeltrim collection FILE rename OLD NEW\n"
    "       zeltrim collection FILE activate lens|alignment|location NAME\n"
    "Keeps calibrations by name in a collection file of the module (CalibrationsCollection):\n"
    ".xml (or .x...) is the XML form, .t... (e.g. .tcol) a folder stream.\n"
    "  list      one line per member: name, class, calibration type, calibration time\n"
    "  show      the members, then the active lens, alignment and location\n"
    "  add       loads any calibration or camera file zeltrim reads and adds it under\n"
    "            NAME (a calibration takes NAME as its own name); creates FILE when it is\n"
    "            missing. An XML collection refuses a CalibrationPolynomial and a\n"
    "            Camera3DTransform, whose XML forms do not load again.\n"
    "  remove    removes the member NAME\n"
    "  rename    gives the member OLD the name NEW\n"
    "  activate  puts the member NAME in the slot: lens, alignment or location (a member\n"
    "            that converts points: any calibration, not a camera)\n"
    "Names are compared as the module compares them: ASCII letters in either case match,\n"
    "so a NAME already present in another case is refused too. add and rename leave the\n"
    "members sorted by name (character order).\n"
    "The collection's file form does not hold the active slots: they are kept beside it in\n"
    "FILE.active, a text file with a line 'lens NAME', 'alignment NAME' or 'location NAME'\n"
    "for each filled slot. Keep it with FILE. Renaming a member carries its slots along,\n"
    "removing it empties them.\n";

namespace {

constexpr const char* kSideSuffix = ".active";
constexpr int kSlotCount = 3;

struct SlotKind {
  const char* word;   // in the command line and in FILE.active
  const char* title;  // in `show`
  int slot;           // CollectionSlot
};

const SlotKind kSlots[kSlotCount] = {
    {"lens", "active lens", SLOT_ACTIVE_LENS},
    {"alignment", "active alignment", SLOT_ACTIVE_ALIGNMENT},
    {"location", "location", SLOT_LOCATION},
};

int SlotIndex(const std::string& word) {
  for (int s = 0; s < kSlotCount; ++s)
    if (word == kSlots[s].word) return s;
  return -1;
}

// Names cross the command line and FILE.active as UTF-8, whatever the locale. A byte
// that is no UTF-8 stands for itself (Latin-1), so no name is lost on the way in.
std::wstring FromUtf8(const std::string& text) {
  std::wstring out;
  const size_t n = text.size();
  for (size_t i = 0; i < n;) {
    const unsigned char lead = static_cast<unsigned char>(text[i]);
    size_t extra = 0;
    unsigned long c = lead, least = 0;
    if (lead >= 0xC2 && lead < 0xE0)
      extra = 1, c = lead & 0x1F, least = 0x80;
    else if (lead >= 0xE0 && lead < 0xF0)
      extra = 2, c = lead & 0x0F, least = 0x800;
    else if (lead >= 0xF0 && lead < 0xF5)
      extra = 3, c = lead & 0x07, least = 0x10000;
    bool ok = extra > 0 && n - i > extra;
    for (size_t k = 1; ok && k <= extra; ++k) {
      const unsigned char next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80)
        ok = false;
      else
        c = (c << 6) | (next & 0x3F);
    }
    if (ok && (c < least || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF))) ok = false;
    out.push_back(static_cast<wchar_t>(ok ? c : lead));
    i += ok ? extra + 1 : 1;
  }
  return out;
}

std::string ToUtf8(const std::wstring& text) {
  std::string out;
  for (wchar_t w : text) {
    unsigned long c = static_cast<unsigned long>(w);
    if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) c = 0xFFFD;
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6)), out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12)), out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18)), out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F)), out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

// What keeps a text from naming a member; empty when nothing does. "Filename" is the key
// the collection's file form keeps for its own file name, and a load drops any member so
// named.
std::string NameProblem(const std::string& name) {
  if (name.empty()) return "a member name must not be empty";
  for (unsigned char c : name)
    if (c < 0x20 || c == 0x7F) return "a member name must not hold control characters";
  if (name.front() == ' ' || name.back() == ' ') return "a member name must not begin or end with a space";
  std::string lower;
  for (char c : name) lower += (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
  if (lower == "filename") return "the name Filename is kept for the collection's own file name";
  return std::string();
}

bool Exists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

// The loaded collection, its file and its slots.
class Collection {
 public:
  Collection(ModuleHost& host, const std::string& path) : m_Host(host), m_Path(path) {}

  // Loads FILE (a new, empty collection when it is missing and `create`), then, with
  // `slots`, fills the slots from FILE.active. 0, or the exit status after the message.
  int Open(bool create, bool slots = true) {
    m_Collection = m_Host.Create<ICalibrationsCollection>(L"CalibrationsCollection");
    if (!m_Collection) return Fail("the module has no CalibrationsCollection: " + m_Host.Error(), 1);
    m_Identity = QueryAs<IUnknown>(m_Collection);
    if (create && !Exists(m_Path)) {  // a side file left without its collection is not read
      const std::string problem = client::SavePathProblem(m_Path);
      return problem.empty() ? 0 : Fail("cannot create " + m_Path + ": " + problem);
    }
    const client::FileReport report = client::LoadFile(m_Host.Components(), m_Collection, m_Path);
    if (!report.ok) return Fail("cannot load " + m_Path + ": " + report.problem);
    return slots ? RestoreSlots() : 0;
  }

  int Count() {
    int count = 0;
    m_Collection->get_Count(&count);
    return count;
  }

  std::string NameAt(int index) {
    SmartPtr<IString> name;
    m_Collection->get_ItemName(index, name.Out());
    return ToUtf8(TextOf(name));
  }

  SmartPtr<IUnknown> ItemAt(int index) {
    SmartPtr<IUnknown> item;
    m_Collection->get_Item(index, item.Out());
    return item;
  }

  // The member's index by the module's name lookup, or -1.
  int Find(const std::string& name) {
    SmartPtr<IString> key = String(name);
    int index = -1;
    if (!key || m_Collection->get_Index(key, &index) < 0 || index < 0 || index >= Count()) return -1;
    return index;
  }

  SmartPtr<IString> String(const std::string& utf8) {
    SmartPtr<ICreatableString> s = m_Host.CreateHost<ICreatableString>(L"CreatableString");
    if (!s) return SmartPtr<IString>();
    const std::wstring wide = FromUtf8(utf8);
    s->SetString(static_cast<int>(wide.size()), wide.c_str());
    return SmartPtr<IString>(s.get());
  }

  ICalibrationsCollection* Members() { return m_Collection; }
  HRESULT PutSlot(int slot, ICalibration* calibration) { return PutCollectionSlot(m_Identity, kSlots[slot].slot, calibration); }

  SmartPtr<ICalibration> SlotContent(int slot) {
    SmartPtr<ICalibration> held;
    if (GetCollectionSlot(m_Identity, kSlots[slot].slot, held.Out()) < 0) held.Clear();
    return held;
  }

  // The name of what a slot holds, as the calibration itself reports it; empty for none.
  std::string SlotName(int slot) {
    SmartPtr<ICalibration> held = SlotContent(slot);
    SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(held);
    SmartPtr<IString> name;
    if (!info || info->get_CALIBName(name.Out()) < 0) return held ? "(unnamed)" : std::string();
    return ToUtf8(TextOf(name));
  }

  // Saves FILE, checks that the saved file holds every member by its name, then writes
  // FILE.active from the slots. A file that fails the check is replaced by the one before.
  int Save() {
    std::vector<std::string> names;
    for (int i = 0; i < Count(); ++i) names.push_back(NameAt(i));
    std::string before;
    const bool existed = ReadBytes(m_Path, &before);
    client::FileReport report = client::SaveFile(m_Host.Components(), m_Collection, m_Path);
    if (!report.ok) return Fail("cannot save " + m_Path + ": " + report.problem, 1);

    Collection check(m_Host, m_Path);
    std::string lost;
    if (check.Open(false, false) != 0) {
      lost = "it does not load again";
    } else {
      for (size_t i = 0; i < names.size() && lost.empty(); ++i)
        if (check.Find(names[i]) < 0) lost = "it lacks the member " + names[i] + " (" + ClassOf(Find(names[i])) + ")";
      if (lost.empty() && check.Count() != static_cast<int>(names.size())) lost = "it holds other members";
    }
    if (!lost.empty()) {
      if (existed) {
        std::ofstream out(m_Path, std::ios::binary | std::ios::trunc);
        out.write(before.data(), static_cast<std::streamsize>(before.size()));
      } else {
        std::remove(m_Path.c_str());
      }
      return Fail("cannot save " + m_Path + ": the saved file does not read back whole: " + lost +
                      (existed ? "; the previous file was put back" : "; the file was removed"),
                  1);
    }
    return WriteSideFile();
  }

  // FILE.active from what the slots hold; removed when every slot is empty.
  int WriteSideFile() {
    const std::string side = m_Path + kSideSuffix;
    std::string text;
    for (int s = 0; s < kSlotCount; ++s) {
      const std::string name = SlotName(s);
      if (!name.empty()) text += std::string(kSlots[s].word) + " " + name + "\n";
    }
    if (text.empty()) {
      if (std::remove(side.c_str()) != 0 && errno != ENOENT)
        return Fail("cannot remove " + side + ": " + std::strerror(errno), 1);
      return 0;
    }
    const std::string temporary = side + ".new";
    {
      std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
      out << "# active slots of the collection file beside this one, kept by zeltrim collection\n" << text;
      if (!out.flush()) return Fail("cannot write " + temporary, 1);
    }
    if (std::rename(temporary.c_str(), side.c_str()) != 0) {
      std::remove(temporary.c_str());
      return Fail("cannot write " + side + ": " + std::strerror(errno), 1);
    }
    return 0;
  }

  // The class of a member: its object name, "text" for a plain string, else "value".
  std::string ClassOf(int index) {
    SmartPtr<IUnknown> item = ItemAt(index);
    SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(item);
    tagREFString name{0, nullptr};
    if (info && info->GetName(0, &name) >= 0 && name.m_Text && name.m_Length > 0)
      return ToUtf8(std::wstring(name.m_Text, static_cast<size_t>(name.m_Length)));
    return QueryAs<IString>(item) ? "text" : "value";
  }

 private:
  static bool ReadBytes(const std::string& path, std::string* bytes) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    bytes->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
  }

  // Puts the members FILE.active names into the slots. A line that does not read stops
  // the command; a name that is no member (any more) is reported and leaves its slot empty.
  int RestoreSlots() {
    const std::string side = m_Path + kSideSuffix;
    std::ifstream in(side, std::ios::binary);
    if (!in) return 0;
    std::string line;
    bool seen[kSlotCount] = {false, false, false};
    for (int number = 1; std::getline(in, line); ++number) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (line.empty() || line[0] == '#') continue;
      const size_t space = line.find(' ');
      const std::string word = line.substr(0, space), name = space == std::string::npos ? "" : line.substr(space + 1);
      const std::string where = side + " line " + std::to_string(number) + ": ";
      const int slot = SlotIndex(word);
      if (slot < 0) return Fail(where + "unknown slot '" + word + "' (lens, alignment or location)");
      if (name.empty()) return Fail(where + "the slot " + word + " names no member");
      if (seen[slot]) return Fail(where + "the slot " + word + " is given twice");
      seen[slot] = true;
      const int index = Find(name);
      SmartPtr<ICalibration> calibration = QueryAs<ICalibration>(index < 0 ? nullptr : ItemAt(index).get());
      if (!calibration) {
        std::fprintf(stderr, "zeltrim: note: %s names %s for the slot %s, which is no calibration member; the slot stays empty\n",
                     side.c_str(), name.c_str(), word.c_str());
        continue;
      }
      PutSlot(slot, calibration);
    }
    return 0;
  }

  ModuleHost& m_Host;
  std::string m_Path;
  SmartPtr<ICalibrationsCollection> m_Collection;
  SmartPtr<IUnknown> m_Identity;
};

void PrintMembers(Collection& c) {
  struct Row {
    std::string name, object, type, time;
  };
  std::vector<Row> rows;
  for (int i = 0; i < c.Count(); ++i) {
    Row row{c.NameAt(i), c.ClassOf(i), "-", "-"};
    if (SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(c.ItemAt(i))) {
      SmartPtr<IString> type;
      if (info->get_CALIBType(type.Out()) >= 0 && !TextOf(type).empty()) row.type = ToUtf8(TextOf(type));
      short day = 0, month = 0, year = 0, hour = 0, minute = 0;
      info->GetCalibrationTime(&day, &month, &year, &hour, &minute);
      char when[64];
      std::snprintf(when, sizeof(when), "%04d-%02d-%02d %02d:%02d", year, month, day, hour, minute);
      row.time = year == 0 ? "never" : when;
    }
    rows.push_back(row);
  }
  if (rows.empty()) {
    std::printf("no members\n");
    return;
  }
  size_t width[3] = {4, 5, 4};  // "name", "class", "type"
  for (const Row& r : rows) {
    width[0] = std::max(width[0], r.name.size());
    width[1] = std::max(width[1], r.object.size());
    width[2] = std::max(width[2], r.type.size());
  }
  const auto print = [&width](const std::string& a, const std::string& b, const std::string& t, const std::string& d) {
    std::printf("%-*s  %-*s  %-*s  %s\n", static_cast<int>(width[0]), a.c_str(), static_cast<int>(width[1]), b.c_str(),
                static_cast<int>(width[2]), t.c_str(), d.c_str());
  };
  print("name", "class", "type", "calibrated");
  for (const Row& r : rows) print(r.name, r.object, r.type, r.time);
}

int Usage(const std::string& verb, const char* arguments) {
  return Fail(verb + " needs " + arguments + " (try zeltrim collection --help)");
}

}  // namespace

int RunCollection(CommandContext& context) {
  const std::vector<std::string>& a = context.args;
  if (a.size() < 2) return Fail("collection needs a FILE and a verb (try zeltrim collection --help)");
  const std::string path = AbsolutePath(a[0], context.startDir), verb = a[1];
  const size_t given = a.size() - 2;
  if (verb == "list" || verb == "show") {
    if (given != 0) return Usage(verb, "no further arguments");
  } else if (verb == "add") {
    if (given != 2) return Usage(verb, "a NAME and a CALIBRATION_FILE");
  } else if (verb == "remove") {
    if (given != 1) return Usage(verb, "a NAME");
  } else if (verb == "rename") {
    if (given != 2) return Usage(verb, "OLD and NEW names");
  } else if (verb == "activate") {
    if (given != 2) return Usage(verb, "a slot (lens, alignment or location) and a NAME");
    if (SlotIndex(a[2]) < 0) return Fail("unknown slot '" + a[2] + "' (lens, alignment or location)");
  } else {
    return Fail("unknown collection verb '" + verb + "' (list, show, add, remove, rename, activate)");
  }
  if (client::FormOfPath(path) == client::FileForm::kNone)
    return Fail("a collection FILE needs the extension .xml (XML) or .t... such as .tcol (folder stream): " + path);

  Collection c(*context.host, path);
  if (const int status = c.Open(verb == "add")) return status;

  if (verb == "list") {
    PrintMembers(c);
    return 0;
  }
  if (verb == "show") {
    std::printf("file: %s\nmembers: %d\n", path.c_str(), c.Count());
    PrintMembers(c);
    for (int s = 0; s < kSlotCount; ++s) {
      const std::string name = c.SlotName(s);
      std::printf("%s: %s\n", kSlots[s].title, name.empty() ? "(none)" : name.c_str());
    }
    return 0;
  }
  if (verb == "add") {
    const std::string name = a[2], file = AbsolutePath(a[3], context.startDir);
    std::string problem = NameProblem(name);
    if (!problem.empty()) return Fail(problem);
    if (c.Find(name) >= 0) return Fail("the collection already has a member " + c.NameAt(c.Find(name)));
    SmartPtr<IUnknown> object;
    std::wstring objectName;
    problem = LoadCalibrationFile(*context.host, file, &object, &objectName);
    if (!problem.empty()) return Fail("cannot load " + file + ": " + problem);
    if (objectName == L"CalibrationsCollection") return Fail(file + " is a collection itself, which is no member");
    // The XML form of these classes does not hold them: the collection would come back
    // with an empty or unreadable member.
    if (client::FormOfPath(path) == client::FileForm::kXML &&
        (objectName == L"CalibrationPolynomial" || objectName == L"Camera3DTransform"))
      return Fail("a " + ToUtf8(objectName) + " has no XML form that loads again; keep it in a .t... collection");
    const HRESULT hr = c.Members()->Add(c.String(name), object, nullptr, 0);
    if (hr < 0) return Fail("the collection did not take the member", 1);
    c.Members()->Sort(0);
    if (const int status = c.Save()) return status;
    std::printf("added %s (%s) to %s\n", name.c_str(), ToUtf8(objectName).c_str(), path.c_str());
    return 0;
  }

  const std::string name = a[verb == "activate" ? 3 : 2];
  const int index = c.Find(name);
  if (index < 0) return Fail("the collection has no member " + name);
  if (verb == "remove") {
    SmartPtr<IUnknown> removed = QueryAs<IUnknown>(c.ItemAt(index));
    for (int s = 0; s < kSlotCount; ++s)
      if (QueryAs<IUnknown>(c.SlotContent(s)).get() == removed.get() && removed)
        c.PutSlot(s, nullptr);
    const std::string shown = c.NameAt(index);
    if (c.Members()->Remove(index) < 0) return Fail("the collection did not remove " + shown, 1);
    if (const int status = c.Save()) return status;
    std::printf("removed %s from %s\n", shown.c_str(), path.c_str());
    return 0;
  }
  if (verb == "rename") {
    const std::string fresh = a[3];
    const std::string problem = NameProblem(fresh);
    if (!problem.empty()) return Fail(problem);
    const int other = c.Find(fresh);
    if (other >= 0 && other != index) return Fail("the collection already has a member " + c.NameAt(other));
    const std::string old = c.NameAt(index);
    const HRESULT hr = c.Members()->Rename(index, c.String(fresh));
    if (hr < 0) {
      char code[16];
      std::snprintf(code, sizeof(code), "0x%08X", static_cast<unsigned>(hr));
      return Fail("the module did not rename " + old + " (result " + code + ")", 1);
    }
    // A calibration member is renamed through its own name only; Sort brings the entry's
    // name (which name lookups compare) in line with it.
    c.Members()->Sort(0);
    if (const int status = c.Save()) return status;
    std::printf("renamed %s to %s in %s\n", old.c_str(), fresh.c_str(), path.c_str());
    return 0;
  }
  // activate
  const int slot = SlotIndex(a[2]);
  const std::string problem = NameProblem(c.NameAt(index));
  if (!problem.empty()) return Fail("FILE.active cannot keep this name: " + problem);
  SmartPtr<ICalibration> calibration = QueryAs<ICalibration>(c.ItemAt(index));
  if (!calibration)
    return Fail("the member " + c.NameAt(index) + " is a " + c.ClassOf(index) + ", which converts no points and fills no slot");
  c.PutSlot(slot, calibration);
  if (const int status = c.WriteSideFile()) return status;
  std::printf("%s: %s\n", kSlots[slot].title, c.SlotName(slot).c_str());
  return 0;
}
