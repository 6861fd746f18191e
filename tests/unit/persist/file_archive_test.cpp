// The file archive: byte helpers (reading with text recognition, writing, element
// search), names and state of the template, and whole files in both forms.
#include <gtest/gtest.h>

#include "tests/unit/persist/PersistTestSupport.h"

using namespace persist_test;

namespace {

struct Loaded {
  HRESULT hr = E_FAIL;
  std::wstring text;  // wide results
  std::string bytes;  // narrow results
  unsigned long size = 0;
};

Loaded Load(const std::string& path, short wide, int maxBytes = 0) {
  Loaded out;
  const std::wstring name = Wide(path);
  void* data = nullptr;
  out.hr = FileArchiveLoad(tagREFString{static_cast<int32_t>(name.size()), name.c_str()}, &data, &out.size, wide,
                           maxBytes);
  if (out.hr >= 0 && data) {
    if (wide) {
      // The terminator stands right after the text.
      out.text = static_cast<const wchar_t*>(data);
    } else {
      out.bytes.assign(static_cast<const char*>(data), out.size);
      EXPECT_EQ(static_cast<const char*>(data)[out.size], '\0');
    }
  }
  FileArchiveFree(data, wide);
  return out;
}

HRESULT Save(const std::string& path, const std::wstring& text, short wide, short append) {
  const std::wstring name = Wide(path);
  return FileArchiveSave(tagREFString{static_cast<int32_t>(name.size()), name.c_str()},
                         reinterpret_cast<unsigned char*>(const_cast<wchar_t*>(text.data())),
                         static_cast<unsigned long>(text.size() * sizeof(wchar_t)), wide, append);
}

HRESULT SaveBytes(const std::string& path, const std::string& bytes) {
  const std::wstring name = Wide(path);
  return FileArchiveSave(tagREFString{static_cast<int32_t>(name.size()), name.c_str()},
                         reinterpret_cast<unsigned char*>(const_cast<char*>(bytes.data())),
                         static_cast<unsigned long>(bytes.size()), 0, 0);
}

std::string Utf16(const std::wstring& text, bool mark) {
  std::string out = mark ? std::string("\xFF\xFE", 2) : std::string();
  for (wchar_t c : text) {
    out.push_back(static_cast<char>(c & 0xFF));
    out.push_back(static_cast<char>((c >> 8) & 0xFF));
  }
  return out;
}

struct Tagged {
  HRESULT hr;
  std::wstring attributes, value, rest;
};

Tagged Find(const std::wstring& text, const wchar_t* tag, short advance = 0) {
  CREFString view(text.c_str(), static_cast<int>(text.size()));
  CREFString tagView(tag, static_cast<int>(std::wcslen(tag)));
  CREFString attributes, value;
  Tagged out;
  out.hr = XMLGetTAGGED(view, tagView, attributes, value, advance);
  out.attributes = ViewText(attributes);
  out.value = ViewText(value);
  out.rest = ViewText(view);
  return out;
}

std::wstring NameOf(const wchar_t* filename, int withFolder, HRESULT expected = S_OK) {
  Probe probe;
  if (filename) probe->Archive()->put_Filename(Str(filename));
  probe->Archive()->Control(ARCHIVE_NAME_WITH_FOLDER, withFolder);
  IString* name = nullptr;
  EXPECT_EQ(probe->Archive()->get_Name(&name), expected);
  return Take(name);
}

}  // namespace

// ---------------------------------------------------------------- FileArchiveLoad

TEST(FileArchiveLoad, SixteenBitTextDropsItsFirstUnit) {
  ScratchFolder folder;
  Loaded marked = Load(folder.Write("marked.txt", Utf16(L"h\u00e9llo", true)), 1);
  EXPECT_EQ(marked.hr, S_OK);
  EXPECT_EQ(marked.text, L"h\u00e9llo");
  EXPECT_EQ(marked.size, 6ul);  // one more than the characters

  // Without a mark the first character is taken for one and lost.
  Loaded bare = Load(folder.Write("bare.txt", Utf16(L"hello", false)), 1);
  EXPECT_EQ(bare.hr, S_OK);
  EXPECT_EQ(bare.text, L"ello");
  EXPECT_EQ(bare.size, 5ul);

  // A big-endian mark is recognised, and the units are still read little-endian.
  Loaded big = Load(folder.Write("big.txt", std::string("\xFE\xFF\x00h", 4)), 1);
  EXPECT_EQ(big.hr, S_OK);
  EXPECT_EQ(big.text, std::wstring(1, static_cast<wchar_t>(0x6800)));

  // A mark further in, within the first nine bytes, also makes 16-bit text.
  Loaded late = Load(folder.Write("late.txt", std::string("abcdefg\xFF\xFE", 9)), 2);
  EXPECT_EQ(late.hr, S_OK);
  EXPECT_EQ(late.size, 4ul);
}

TEST(FileArchiveLoad, VeryShortFilesAreSixteenBit) {
  ScratchFolder folder;
  Loaded one = Load(folder.Write("one.txt", "A"), 2);
  EXPECT_EQ(one.hr, S_OK);
  EXPECT_EQ(one.size, 0ul);
  EXPECT_EQ(one.text, L"");
}

TEST(FileArchiveLoad, Utf8IsDecoded) {
  ScratchFolder folder;
  const std::string utf8 = "h\xC3\xA9llo \xE2\x82\xAC \xF0\x9F\x98\x80!";
  for (short wide : {1, 2}) {
    Loaded decoded = Load(folder.Write("utf8.txt", utf8), wide);
    EXPECT_EQ(decoded.hr, S_FALSE);
    EXPECT_EQ(decoded.text, L"h\u00e9llo \u20ac \U0001F600!");
    EXPECT_EQ(decoded.size, 10ul);
  }
}

TEST(FileArchiveLoad, InvalidUtf8WithWideTwoIsTakenByteForByte) {
  ScratchFolder folder;
  const std::string cases[] = {
      std::string("ab\xC0\xAF""cd", 6),          // overlong
      std::string("ab\xED\xA0\x80""cd", 7),      // surrogate
      std::string("ab\xF4\x90\x80\x80""c", 7),   // above 0x10FFFF
      std::string("ab\xF0\x9F\x98\x80", 6),      // a 4-byte form needs a fifth byte behind it
      std::string("ab\x80""cdefgh", 9),          // stray continuation byte
  };
  for (const std::string& bytes : cases) {
    Loaded raw = Load(folder.Write("bad.txt", bytes), 2);
    EXPECT_EQ(raw.hr, S_OK);
    EXPECT_EQ(raw.size, bytes.size());
    std::wstring expected;
    for (char c : bytes) expected.push_back(static_cast<wchar_t>(static_cast<unsigned char>(c)));
    EXPECT_EQ(raw.text, expected);
  }
  // With wide 1 there is no check: the lenient decoder runs.
  Loaded lenient = Load(folder.Write("bad1.txt", std::string("ab\xC0\xAF""cd", 6)), 1);
  EXPECT_EQ(lenient.hr, S_FALSE);
  EXPECT_EQ(lenient.text, L"ab/cd");
}

TEST(FileArchiveLoad, NarrowBytesAndLimit) {
  ScratchFolder folder;
  const std::string path = folder.Write("raw.bin", std::string("\x01\x00\x02xyz", 6));
  Loaded all = Load(path, 0);
  EXPECT_EQ(all.hr, S_OK);
  EXPECT_EQ(all.bytes, std::string("\x01\x00\x02xyz", 6));
  Loaded part = Load(path, 0, 4);
  EXPECT_EQ(part.hr, S_OK);
  EXPECT_EQ(part.bytes, std::string("\x01\x00\x02x", 4));
}

TEST(FileArchiveLoad, EmptyOrMissingFileFails) {
  ScratchFolder folder;
  EXPECT_EQ(Load(folder.Write("empty.txt", ""), 1).hr, E_FAIL);
  const std::string missing = folder.Path() + "/missing.txt";
  testing::internal::CaptureStderr();
  EXPECT_EQ(Load(missing, 1).hr, E_FAIL);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "file open err:\n" + missing + "\n");
  EXPECT_EQ(Load(folder.Path(), 0).hr, E_FAIL);  // a folder reads nothing
  void* data = nullptr;
  unsigned long size = 0;
  testing::internal::CaptureStderr();
  EXPECT_EQ(FileArchiveLoad(tagREFString{0, nullptr}, &data, &size, 1, 0), E_FAIL);
  testing::internal::GetCapturedStderr();
}

TEST(FileArchiveLoad, NamesGoToUtf8WithShiftedLimits) {
  ScratchFolder folder;
  folder.Write("\xC3\xA9t\xC3\xA9.txt", "plain");
  const std::wstring name = Wide(folder.Path()) + L"/\u00e9t\u00e9.txt";
  void* data = nullptr;
  unsigned long size = 0;
  ASSERT_EQ(FileArchiveLoad(tagREFString{static_cast<int32_t>(name.size()), name.c_str()}, &data, &size, 0, 0), S_OK);
  FileArchiveFree(data, 0);
  // U+07FF takes three bytes here, not two.
  folder.Write("\xE0\x9F\xBF", "x");
  const std::wstring odd = Wide(folder.Path()) + L"/\u07ff";
  ASSERT_EQ(FileArchiveLoad(tagREFString{static_cast<int32_t>(odd.size()), odd.c_str()}, &data, &size, 0, 0), S_OK);
  FileArchiveFree(data, 0);
}

// ---------------------------------------------------------------- FileArchiveSave

TEST(FileArchiveSave, WideTextGetsAMarkAndSixteenBitUnits) {
  ScratchFolder folder;
  const std::string path = folder.File("w.txt");
  EXPECT_EQ(Save(path, L"hi\U0001F600", 1, 0), S_OK);
  EXPECT_EQ(ReadBytes(path), std::string("\xFF\xFEh\0i\0\x00\xF6", 8));  // cut to 16 bits
  EXPECT_EQ(Save(path, L"!", 1, 1), S_OK);  // appending adds no mark
  EXPECT_EQ(ReadBytes(path), std::string("\xFF\xFEh\0i\0\x00\xF6!\0", 10));
}

TEST(FileArchiveSave, EmptyWideTextFailsAfterTheMark) {
  ScratchFolder folder;
  const std::string path = folder.File("empty.txt");
  EXPECT_EQ(Save(path, L"", 1, 0), E_FAIL);
  EXPECT_EQ(ReadBytes(path), std::string("\xFF\xFE", 2));
}

TEST(FileArchiveSave, NarrowBytesAsTheyAre) {
  ScratchFolder folder;
  const std::string path = folder.File("n.bin");
  EXPECT_EQ(SaveBytes(path, std::string("a\0b", 3)), S_OK);
  EXPECT_EQ(ReadBytes(path), std::string("a\0b", 3));
  EXPECT_EQ(SaveBytes(path, ""), E_FAIL);
  EXPECT_EQ(SaveBytes(folder.Path() + "/no/such/folder/x", "abc"), E_FAIL);
}

TEST(FileArchiveSave, WideRoundTrip) {
  ScratchFolder folder;
  const std::string path = folder.File("round.txt");
  const std::wstring text = L"<a>\u00e9\u4e2d</a>\r\n";
  ASSERT_EQ(Save(path, text, 1, 0), S_OK);
  Loaded back = Load(path, 1);
  EXPECT_EQ(back.hr, S_OK);
  EXPECT_EQ(back.text, text);
}

// ---------------------------------------------------------------- XMLGetTAGGED

TEST(XMLGetTagged, ValueAndAttributes) {
  Tagged t = Find(L"<r><a x=\"1\">v</a></r>", L"a");
  EXPECT_EQ(t.hr, S_OK);
  EXPECT_EQ(t.attributes, L" x=\"1\"");
  EXPECT_EQ(t.value, L"v");
  t = Find(L"<?xml version=\"1.0\"?>", L"?xml");
  EXPECT_EQ(t.hr, S_OK);
  EXPECT_EQ(t.attributes, L" version=\"1.0\"");
  t = Find(L"<a b>c</a>", L"a b>ignored");  // the name ends at a blank
  EXPECT_EQ(t.value, L"c");
}

TEST(XMLGetTagged, SelfClosingAndUnclosedElementsAreEmpty) {
  Tagged t = Find(L"<a/><b>1</b>", L"a");
  EXPECT_EQ(t.hr, S_OK);
  EXPECT_EQ(t.value, L"");
  EXPECT_EQ(t.attributes, L"");
  t = Find(L"<a>never closed", L"a", 1);
  EXPECT_EQ(t.hr, S_OK);
  EXPECT_EQ(t.value, L"");
  EXPECT_EQ(t.rest, L"never closed");  // moves on past the opening tag
}

TEST(XMLGetTagged, NotFound) {
  Tagged t = Find(L"<b>1</b>", L"a");
  EXPECT_EQ(t.hr, E_FAIL);
  EXPECT_EQ(t.value, L"<b>1</b>");
  EXPECT_EQ(Find(L"", L"a").hr, E_FAIL);
  EXPECT_EQ(Find(L"<a>1</a>", L"").hr, E_FAIL);
  EXPECT_EQ(Find(L"<a>1</a>", L">a").hr, E_FAIL);
}

TEST(XMLGetTagged, PlainSearchQuirks) {
  // The name is a prefix match, and a broken partial match is looked at again.
  EXPECT_EQ(Find(L"<DayName>x</DayName><Day>4</Day>", L"Day").value, L"x</DayName><Day>4");
  EXPECT_EQ(Find(L"<<a>v</a>", L"a").value, L"v");
  EXPECT_EQ(Find(L"<a>1<a>2</a>3</a>", L"a").value, L"1<a>2");
}

TEST(XMLGetTagged, AdvanceWalksTheElements) {
  std::wstring text = L"<v>1</v> <v>2</v><v>3</v>";
  CREFString view(text.c_str(), static_cast<int>(text.size()));
  CREFString tag(L"v", 1);
  std::wstring seen;
  for (int guard = 0; guard < 10; ++guard) {
    CREFString attributes, value;
    if (XMLGetTAGGED(view, tag, attributes, value, 1) != S_OK) break;
    seen += ViewText(value);
  }
  EXPECT_EQ(seen, L"123");
  EXPECT_EQ(view.m_Length, 0);
}

// ---------------------------------------------------------------- names and state

TEST(FileArchiveNames, ShortNameWithAndWithoutTheFolder) {
  EXPECT_EQ(NameOf(L"/data/cal/cam1.xml", 0), L"cam1");
  EXPECT_EQ(NameOf(L"/data/cal/cam1.xml", 1), L"cal/cam1");
  EXPECT_EQ(NameOf(L"/x.d/abc", 0), L"abc");
  EXPECT_EQ(NameOf(L"cam1.xml", 0), L"cam1");
  EXPECT_EQ(NameOf(L".hidden", 0), L".hidden");
  // With the folder flag and at most one '/', the first character falls away.
  EXPECT_EQ(NameOf(L"cam1.xml", 1), L"am1");
  EXPECT_EQ(NameOf(L"a/b.cal", 1), L"/b");
  EXPECT_EQ(NameOf(L"/b.cal", 1), L"b");
  EXPECT_EQ(NameOf(nullptr, 0, E_FAIL), L"<null>");
  EXPECT_EQ(NameOf(L"", 0, E_FAIL), L"<null>");
}

TEST(FileArchiveNames, FilenameAndFilter) {
  Probe probe;
  IFileArchive* archive = probe->Archive();
  IString* text = nullptr;
  EXPECT_EQ(archive->get_Filename(&text), E_FAIL);
  EXPECT_EQ(archive->get_Filter(&text, 0), E_FAIL);
  EXPECT_EQ(archive->get_Filter(nullptr, 0), E_FAIL);
  probe->SetFilter(L"Calibration (*.cal)|*.cal|All Files (*.*)|*.*||");
  ASSERT_EQ(archive->get_Filter(&text, 1), S_OK);
  EXPECT_EQ(Take(text), L"Calibration (*.cal)|*.cal|All Files (*.*)|*.*||");
  archive->put_Filename(Str(L"/a/b.xml"));
  ASSERT_EQ(archive->get_Filename(&text), S_OK);
  EXPECT_EQ(Take(text), L"/a/b.xml");
  EXPECT_EQ(archive->put_Filename(nullptr), S_OK);
  EXPECT_EQ(archive->get_Filename(&text), E_FAIL);
  EXPECT_EQ(archive->Unload(), E_NOTIMPL);
}

TEST(FileArchiveNames, DotSlashNamesStartAtTheInstallPath) {
  ScratchFolder folder;
  RegistryFile registry(folder, "[Workspace]\nInstallPath=/opt/x\n");
  for (const wchar_t* name : {L"./cal/a.xml", L".\\cal\\a.xml"}) {
    Probe probe;
    probe->Archive()->put_Filename(Str(name));
    IString* text = nullptr;
    probe->Archive()->get_Filename(&text);
    EXPECT_EQ(Take(text), L"/opt/x/cal/a.xml");
  }
  Probe probe;
  probe->Archive()->put_Filename(Str(L"./"));  // too short to rewrite
  IString* text = nullptr;
  probe->Archive()->get_Filename(&text);
  EXPECT_EQ(Take(text), L"./");
}

TEST(FileArchiveState, ControlAndInquireCodes) {
  Probe probe;
  IFileArchive* archive = probe->Archive();
  int value = 77;
  EXPECT_EQ(archive->Inquire(ARCHIVE_ENCODING, &value), E_INVALIDARG);  // default -1: no value
  EXPECT_EQ(value, 77);
  EXPECT_EQ(archive->Inquire(ARCHIVE_MODIFIED, &value), 0x40013);
  EXPECT_EQ(value, 0);
  EXPECT_EQ(archive->Inquire(ARCHIVE_CURRENT, &value), 0x40013);

  for (int code = 0; code <= 4; ++code) EXPECT_EQ(archive->Control(code, 10 + code), S_OK);
  const HRESULT results[] = {0x40013, 0x40013, S_OK, S_OK, 0x13};
  for (int code = 0; code <= 4; ++code) {
    value = -1;
    EXPECT_EQ(archive->Inquire(code, &value), results[code]) << code;
    EXPECT_EQ(value, 10 + code) << code;
  }
  EXPECT_EQ(archive->Control(5, 1), E_INVALIDARG);
  EXPECT_EQ(archive->Control(-1, 1), E_INVALIDARG);
  EXPECT_EQ(archive->Inquire(5, &value), E_INVALIDARG);
  EXPECT_EQ(archive->Inquire(0, nullptr), E_INVALIDARG);
}

TEST(FileArchiveState, NewNameMeansModifiedAndNotCurrent) {
  Probe probe;
  IFileArchive* archive = probe->Archive();
  int modified = -1, current = -1;
  archive->put_Filename(Str(L"/a/b.xml"));
  archive->Inquire(ARCHIVE_MODIFIED, &modified);
  EXPECT_EQ(modified, 1);
  archive->Control(ARCHIVE_CURRENT, 1);
  archive->put_Filename(Str(L"/A/B.XML"));  // the same name in other case
  archive->Inquire(ARCHIVE_CURRENT, &current);
  EXPECT_EQ(current, 1);
  archive->put_Filename(Str(L"/a/b.xmlx"));
  archive->Inquire(ARCHIVE_CURRENT, &current);
  EXPECT_EQ(current, 0);
}

TEST(FileArchiveState, ExtensionsThatChooseNoFormFail) {
  ScratchFolder folder;
  for (const char* name : {"a.csv", "a.cal", "cal", "a."}) {
    Probe probe;
    const std::string path = folder.File(name);
    probe->Archive()->put_Filename(Str(Wide(path).c_str()));
    EXPECT_EQ(probe->SaveFile(), E_FAIL) << name;
    EXPECT_EQ(ReadBytes(path), "<missing>") << name;
    int modified = 0;
    probe->Archive()->Inquire(ARCHIVE_MODIFIED, &modified);
    EXPECT_EQ(modified, 1);
    // A failed load still marks the object current and unmodified.
    EXPECT_EQ(probe->LoadFile(), E_FAIL) << name;
    int current = 0;
    probe->Archive()->Inquire(ARCHIVE_MODIFIED, &modified);
    probe->Archive()->Inquire(ARCHIVE_CURRENT, &current);
    EXPECT_EQ(modified, 0);
    EXPECT_EQ(current, 1);
  }
  Probe dot;  // the whole name is the extension, and '.' chooses nothing
  dot->Archive()->put_Filename(Str(L"."));
  EXPECT_EQ(dot->SaveFile(), E_FAIL);
  Probe unnamed;
  EXPECT_EQ(unnamed->SaveFile(), E_FAIL);
  EXPECT_EQ(unnamed->LoadFile(), E_FAIL);
}

// ---------------------------------------------------------------- whole files

namespace {

std::wstring FromUtf16(const std::string& bytes) {
  std::wstring text;
  for (size_t i = 0; i + 1 < bytes.size(); i += 2)
    text.push_back(static_cast<wchar_t>(static_cast<unsigned char>(bytes[i]) |
                                        (static_cast<unsigned char>(bytes[i + 1]) << 8)));
  return text;
}

const wchar_t kPrologue[] =
    L"<?xml version=\"1.0\"?>\r\n<?xml-stylesheet href=\"generic.xsl\" type=\"text/xsl\"?>\r\n";

void Describe(CPersistProbe* probe) {
  probe->Info()->put_CALIBName(Str(L"Left camera"));
  probe->Info()->put_CALIBType(Str(L"2D Cam"));
  probe->Info()->put_CALIBDescription(Str(L"desk & bench"));
  probe->Info()->put_CALIBUnits(2);
  probe->Time().Year = 2023;
  probe->Time().Month = 5;
  probe->Time().Day = 17;
}

std::wstring NameOf(CPersistProbe* probe) {
  IString* text = nullptr;
  probe->Info()->get_CALIBName(&text);
  return Take(text);
}

}  // namespace

TEST(FileArchiveXml, SaveWritesMarkPrologueAndTheObject) {
  ScratchFolder folder;
  const std::string path = folder.File("probe.XML");
  Probe probe;
  Describe(probe.p);
  probe->Archive()->put_Filename(Str(Wide(path).c_str()));
  EXPECT_EQ(probe->SaveFile(), S_OK);
  EXPECT_EQ(probe->m_Saves, 1);
  const std::string bytes = ReadBytes(path);
  ASSERT_GE(bytes.size(), 2u);
  EXPECT_EQ(bytes.substr(0, 2), std::string("\xFF\xFE", 2));
  const std::wstring text = FromUtf16(bytes.substr(2));
  EXPECT_EQ(text.rfind(kPrologue, 0), 0u);
  Tagged root = Find(text, L"PersistProbe");
  EXPECT_EQ(root.hr, S_OK);
  EXPECT_EQ(Find(root.value, L"CalibName").value, L"Left camera");
  EXPECT_EQ(Find(root.value, L"CalibDesc").value, L"desk &amp; bench");
  int modified = -1, current = -1;
  probe->Archive()->Inquire(ARCHIVE_MODIFIED, &modified);
  probe->Archive()->Inquire(ARCHIVE_CURRENT, &current);
  EXPECT_EQ(modified, 0);
  EXPECT_EQ(current, 1);
}

TEST(FileArchiveXml, LoadKeepsOnlyTheNameOfTheInfoBlock) {
  ScratchFolder folder;
  const std::wstring path = Wide(folder.File("probe.xcal"));
  Probe probe;
  Describe(probe.p);
  probe->Archive()->put_Filename(Str(path.c_str()));
  ASSERT_EQ(probe->SaveFile(), S_OK);

  Probe back;
  back->Archive()->put_Filename(Str(path.c_str()));
  EXPECT_EQ(back->LoadFile(), S_OK);
  EXPECT_EQ(back->m_Loads, 1);
  EXPECT_EQ(back->m_LastLoadOptions, PERSIST_REPLACE);
  EXPECT_EQ(NameOf(back.p), L"Left camera");
  IString* text = nullptr;
  EXPECT_EQ(back->Info()->get_CALIBDescription(&text), E_FAIL);
  back->Info()->get_CALIBType(&text);
  EXPECT_EQ(Take(text), L"Linear");
  EXPECT_EQ(back->Time().Year, 0);
}

TEST(FileArchiveXml, NameWithoutDotIsJudgedByItsFirstLetter) {
  const char* name = "xzeltrim_persist_probe_file";  // in the working folder
  Probe probe;
  probe->Archive()->put_Filename(Str(Wide(name).c_str()));
  EXPECT_EQ(probe->SaveFile(), S_OK);
  const std::string bytes = ReadBytes(name);
  std::remove(name);
  EXPECT_EQ(bytes.substr(0, 2), std::string("\xFF\xFE", 2));
}

TEST(FileArchiveXml, StylesheetAndEightBitForm) {
  ScratchFolder folder;
  const std::wstring path = Wide(folder.File("eight.xml"));
  Probe probe;
  Describe(probe.p);
  probe->Archive()->put_Filename(Str(path.c_str()));
  probe->Archive()->Control(ARCHIVE_ENCODING, 1);
  EXPECT_EQ(probe->SaveXML(Str(L"calib.xsl"), 0), S_OK);
  const std::string bytes = ReadBytes(std::string(path.begin(), path.end()));
  EXPECT_EQ(bytes.rfind("<?xml version=\"1.0\"?>\r\n<?xml-stylesheet href=\"calib.xsl\"", 0), 0u);

  Probe back;
  back->Archive()->put_Filename(Str(path.c_str()));
  EXPECT_EQ(back->LoadFile(), S_OK);
  EXPECT_EQ(NameOf(back.p), L"Left camera");
}

TEST(FileArchiveXml, OnePrologueLineOnlyPassesTheRoot) {
  ScratchFolder folder;
  const std::string path = folder.Write(
      "one.xml", Utf16(L"<?xml version=\"1.0\"?>\r\n<PersistProbe><CalibName>New</CalibName></PersistProbe>", true));
  Probe probe;
  probe->Archive()->put_Filename(Str(Wide(path).c_str()));
  EXPECT_EQ(probe->LoadFile(), S_OK);
  EXPECT_EQ(probe->m_Loads, 0);
  EXPECT_EQ(NameOf(probe.p), L"Calibration");
}

TEST(FileArchiveXml, BrokenFilesLoadNothing) {
  ScratchFolder folder;
  std::string junk;
  for (int i = 0; i < 300; ++i) junk.push_back(static_cast<char>((i * 97 + 13) & 0xFF));
  const std::string inputs[] = {junk, "<PersistProbe><CalibName>cut", Utf16(L"\uFEFF<a><<<>>", false)};
  for (const std::string& bytes : inputs) {
    const std::string path = folder.Write("broken.xml", bytes);
    Probe probe;
    probe->Archive()->put_Filename(Str(Wide(path).c_str()));
    EXPECT_GE(probe->LoadFile(), 0);
    EXPECT_EQ(NameOf(probe.p), L"Calibration");
  }
  Probe empty;
  empty->Archive()->put_Filename(Str(Wide(folder.Write("empty.xml", "")).c_str()));
  EXPECT_EQ(empty->LoadFile(), E_FAIL);
  Probe missing;
  missing->Archive()->put_Filename(Str(Wide(folder.Path() + "/missing.xml").c_str()));
  testing::internal::CaptureStderr();
  EXPECT_EQ(missing->LoadFile(), E_FAIL);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("file open err:"), std::string::npos);
}

TEST(FileArchiveFolder, RoundTripKeepsTheWholeInfoBlock) {
  ScratchFolder folder;
  const std::wstring path = Wide(folder.File("probe.tCAL"));
  Probe probe;
  Describe(probe.p);
  probe->Archive()->put_Filename(Str(path.c_str()));
  EXPECT_EQ(probe->SaveFile(), S_OK);
  EXPECT_GT(ReadBytes(std::string(path.begin(), path.end())).size(), 0u);

  Probe back;
  back->Archive()->put_Filename(Str(path.c_str()));
  EXPECT_EQ(back->LoadFile(), S_OK);
  EXPECT_EQ(back->m_Loads, 1);
  EXPECT_EQ(NameOf(back.p), L"Left camera");
  IString* text = nullptr;
  back->Info()->get_CALIBDescription(&text);
  EXPECT_EQ(Take(text), L"desk & bench");
  int units = 0;
  back->Info()->get_CALIBUnits(&units);
  EXPECT_EQ(units, 2);
  EXPECT_EQ(back->Time().Day, 17);
  back->Archive()->get_Filename(&text);
  EXPECT_EQ(Take(text), path);
}

TEST(FileArchiveFolder, DamagedFilesLeaveTheObjectAlone) {
  ScratchFolder folder;
  const std::string good = folder.File("good.tCAL");
  Probe probe;
  Describe(probe.p);
  probe->Archive()->put_Filename(Str(Wide(good).c_str()));
  ASSERT_EQ(probe->SaveFile(), S_OK);
  const std::string bytes = ReadBytes(good);
  ASSERT_GT(bytes.size(), 8u);
  std::string flipped = bytes;
  flipped[flipped.size() / 2] = static_cast<char>(flipped[flipped.size() / 2] ^ 0x5A);
  const std::string damaged[] = {bytes.substr(0, bytes.size() / 2), flipped, "not a folder stream"};
  for (const std::string& content : damaged) {
    const std::string path = folder.Write("bad.tCAL", content);
    Probe back;
    back->Archive()->put_Filename(Str(Wide(path).c_str()));
    EXPECT_LT(back->LoadFile(), 0);
    EXPECT_EQ(back->m_Loads, 0);
    EXPECT_EQ(NameOf(back.p), L"Calibration");
  }
}
