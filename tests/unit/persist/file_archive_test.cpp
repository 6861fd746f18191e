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

tagREFString RefOfName(const std::wstring& name) { return tagREFString{static_cast<int32_t>(name.size()), name.c_str()}; }

Loaded Load(const std::wstring& name, short wide, int maxBytes = 0) {
  Loaded out;
  void* data = nullptr;
  out.hr = FileArchiveLoad(RefOfName(name), &data, &out.size, wide, maxBytes);
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
Loaded Load(const std::string& path, short wide, int maxBytes = 0) { return Load(Wide(path), wide, maxBytes); }

HRESULT Save(const std::string& path, const void* data, size_t bytes, short wide, short append = 0) {
  return FileArchiveSave(RefOfName(Wide(path)), static_cast<unsigned char*>(const_cast<void*>(data)),
                         static_cast<unsigned long>(bytes), wide, append);
}
HRESULT Save(const std::string& path, const std::wstring& text, short append = 0) {
  return Save(path, text.data(), text.size() * sizeof(wchar_t), 1, append);
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

std::wstring NameOf(const wchar_t* filename, int withFolder) {
  Probe probe;
  if (filename) probe->Archive()->put_Filename(Str(filename));
  probe->Archive()->Control(ARCHIVE_NAME_WITH_FOLDER, withFolder);
  IString* name = nullptr;
  const HRESULT hr = probe->Archive()->get_Name(&name);
  EXPECT_EQ(hr, name ? S_OK : E_FAIL);
  return Take(name);
}

int Inquired(IFileArchive* archive, int code) {
  int value = -99;
  archive->Inquire(code, &value);
  return value;
}

}  // namespace

// ---------------------------------------------------------------- FileArchiveLoad

TEST(FileArchiveLoad, SixteenBitTextDropsItsFirstUnitWhateverItHolds) {
  ScratchFolder folder;
  Loaded marked = Load(folder.Write("marked.txt", Utf16(L"h\u00e9llo", true)), 1);
  EXPECT_EQ(marked.hr, S_OK);
  EXPECT_EQ(marked.text, L"h\u00e9llo");
  EXPECT_EQ(marked.size, 6ul);  // one more than the characters
  // Zeros at the odd places make 16-bit text without a mark: the first character is lost.
  Loaded bare = Load(folder.Write("bare.txt", Utf16(L"hello", false)), 1);
  EXPECT_EQ(bare.text, L"ello");
  EXPECT_EQ(bare.size, 5ul);
  // A big-endian mark is recognised, and the units are still read little-endian.
  Loaded big = Load(folder.Write("big.txt", std::string("\xFE\xFF\x00h", 4)), 1);
  EXPECT_EQ(big.text, std::wstring(1, static_cast<wchar_t>(0x6800)));
  // A mark further in, within the first nine bytes, also makes 16-bit text.
  Loaded late = Load(folder.Write("late.txt", std::string("abcdefg\xFF\xFE", 9)), 2);
  EXPECT_EQ(late.hr, S_OK);
  EXPECT_EQ(late.size, 4ul);
  // So does a file of one byte.
  Loaded one = Load(folder.Write("one.txt", "A"), 2);
  EXPECT_EQ(one.hr, S_OK);
  EXPECT_EQ(one.size, 0ul);
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
  EXPECT_EQ(Load(path, 0, 4).bytes, std::string("\x01\x00\x02x", 4));
}

TEST(FileArchiveLoad, EmptyOrMissingFileFails) {
  ScratchFolder folder;
  EXPECT_EQ(Load(folder.Write("empty.txt", ""), 1).hr, E_FAIL);
  EXPECT_EQ(Load(folder.Path(), 0).hr, E_FAIL);  // a folder reads nothing
  const std::string missing = folder.Path() + "/missing.txt";
  testing::internal::CaptureStderr();
  EXPECT_EQ(Load(missing, 1).hr, E_FAIL);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "file open err:\n" + missing + "\n");
}

TEST(FileArchiveLoad, NamesGoToUtf8WithLimitsOneBelowTheUsualOnes) {
  ScratchFolder folder;
  folder.Write("\xC3\xA9t\xC3\xA9.txt", "plain");
  EXPECT_EQ(Load(Wide(folder.Path()) + L"/\u00e9t\u00e9.txt", 0).hr, S_OK);
  folder.Write("\xE0\x9F\xBF", "x");  // U+07FF takes three bytes here, not two
  EXPECT_EQ(Load(Wide(folder.Path()) + L"/\u07ff", 0).hr, S_OK);
}

// ---------------------------------------------------------------- FileArchiveSave

TEST(FileArchiveSave, WideTextGetsAMarkAndSixteenBitUnitsAndAnEmptyOneFailsAfterTheMark) {
  ScratchFolder folder;
  const std::string path = folder.File("w.txt");
  EXPECT_EQ(Save(path, L"hi\U0001F600"), S_OK);
  EXPECT_EQ(ReadBytes(path), std::string("\xFF\xFEh\0i\0\x00\xF6", 8));  // cut to 16 bits
  EXPECT_EQ(Save(path, L"!", 1), S_OK);  // appending adds no mark
  EXPECT_EQ(ReadBytes(path), std::string("\xFF\xFEh\0i\0\x00\xF6!\0", 10));
  EXPECT_EQ(Save(path, L"<a>\u00e9\u4e2d</a>\r\n"), S_OK);
  EXPECT_EQ(Load(path, 1).text, L"<a>\u00e9\u4e2d</a>\r\n");
  EXPECT_EQ(Save(path, L""), E_FAIL);  // an empty text fails after writing the mark
  EXPECT_EQ(ReadBytes(path), std::string("\xFF\xFE", 2));
}

TEST(FileArchiveSave, NarrowBytesAsTheyAre) {
  ScratchFolder folder;
  const std::string path = folder.File("n.bin");
  EXPECT_EQ(Save(path, "a\0b", 3, 0), S_OK);
  EXPECT_EQ(ReadBytes(path), std::string("a\0b", 3));
  EXPECT_EQ(Save(path, "", 0, 0), E_FAIL);
  EXPECT_EQ(Save(folder.Path() + "/no/such/folder/x", "abc", 3, 0), E_FAIL);
}

// ---------------------------------------------------------------- XMLGetTAGGED

TEST(XMLGetTagged, PlainSearchByPrefixWithoutAParser) {
  const struct {
    const wchar_t* text;
    const wchar_t* tag;
    HRESULT hr;
    const wchar_t* attributes;
    const wchar_t* value;
  } cases[] = {
      {L"<r><a x=\"1\">v</a></r>", L"a", S_OK, L" x=\"1\"", L"v"},
      {L"<?xml version=\"1.0\"?>", L"?xml", S_OK, L" version=\"1.0\"", L""},
      {L"<a b>c</a>", L"a b>ignored", S_OK, L" b", L"c"},  // the name ends at a blank
      {L"<a/><b>1</b>", L"a", S_OK, L"", L""},              // self-closing: empty
      {L"<DayName>x</DayName><Day>4</Day>", L"Day", S_OK, L"Name", L"x</DayName><Day>4"},  // a prefix
      {L"<<a>v</a>", L"a", S_OK, L"", L"v"},  // a broken partial match is looked at again
      {L"<a>1<a>2</a>3</a>", L"a", S_OK, L"", L"1<a>2"},
      {L"<b>1</b>", L"a", E_FAIL, L"", L"<b>1</b>"},  // not found: the value is the text
      {L"", L"a", E_FAIL, L"", L""},
      {L"<a>1</a>", L"", E_FAIL, L"", L"<a>1</a>"},
      {L"<a>1</a>", L">a", E_FAIL, L"", L"<a>1</a>"},
  };
  for (const auto& c : cases) {
    const Tagged t = Find(c.text, c.tag);
    EXPECT_EQ(t.hr, c.hr) << c.text;
    EXPECT_EQ(t.attributes, c.attributes) << c.text;
    EXPECT_EQ(t.value, c.value) << c.text;
  }
}

TEST(XMLGetTagged, AdvanceWalksTheElementsAndPassesAnUnclosedOpeningTag) {
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
  const Tagged unclosed = Find(L"<a>never closed", L"a", 1);
  EXPECT_EQ(unclosed.hr, S_OK);
  EXPECT_EQ(unclosed.value, L"");
  EXPECT_EQ(unclosed.rest, L"never closed");
}

// ---------------------------------------------------------------- names and state

TEST(FileArchiveNames, ShortNameWithTheFolderDropsAFirstCharacterWhenThereIsNoFolder) {
  EXPECT_EQ(NameOf(L"/data/cal/cam1.xml", 0), L"cam1");
  EXPECT_EQ(NameOf(L"/data/cal/cam1.xml", 1), L"cal/cam1");
  EXPECT_EQ(NameOf(L"/x.d/abc", 0), L"abc");
  EXPECT_EQ(NameOf(L"cam1.xml", 0), L"cam1");
  EXPECT_EQ(NameOf(L".hidden", 0), L".hidden");
  EXPECT_EQ(NameOf(L"cam1.xml", 1), L"am1");
  EXPECT_EQ(NameOf(L"a/b.cal", 1), L"/b");
  EXPECT_EQ(NameOf(L"/b.cal", 1), L"b");
  EXPECT_EQ(NameOf(nullptr, 0), L"<null>");
  EXPECT_EQ(NameOf(L"", 0), L"<null>");
}

TEST(FileArchiveNames, DotSlashNamesStartAtTheInstallPath) {
  ScratchFolder folder;
  RegistryFile registry(folder, "[Workspace]\nInstallPath=/opt/x\n");
  const wchar_t* const names[][2] = {
      {L"./cal/a.xml", L"/opt/x/cal/a.xml"}, {L".\\cal\\a.xml", L"/opt/x/cal/a.xml"}, {L"./", L"./"}};  // too short
  for (const auto& name : names) {
    Probe probe;
    probe->Archive()->put_Filename(Str(name[0]));
    IString* text = nullptr;
    probe->Archive()->get_Filename(&text);
    EXPECT_EQ(Take(text), name[1]);
  }
}

TEST(FileArchiveState, ControlAndInquireCodesWithTheirOddResults) {
  Probe probe;
  IFileArchive* archive = probe->Archive();
  int value = 77;
  EXPECT_EQ(archive->Inquire(ARCHIVE_ENCODING, &value), E_INVALIDARG);  // default -1: no value
  EXPECT_EQ(value, 77);
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

TEST(FileArchiveState, ANewNameMeansModifiedAndOnlyAnotherNameMeansNotCurrent) {
  Probe probe;
  IFileArchive* archive = probe->Archive();
  IString* none = nullptr;
  EXPECT_EQ(archive->get_Filename(&none), E_FAIL);
  archive->put_Filename(Str(L"/a/b.xml"));
  EXPECT_EQ(Inquired(archive, ARCHIVE_MODIFIED), 1);
  archive->Control(ARCHIVE_CURRENT, 1);
  archive->put_Filename(Str(L"/A/B.XML"));  // the same name in other case
  EXPECT_EQ(Inquired(archive, ARCHIVE_CURRENT), 1);
  archive->put_Filename(Str(L"/a/b.xmlx"));
  EXPECT_EQ(Inquired(archive, ARCHIVE_CURRENT), 0);
}

TEST(FileArchiveState, AFailedLoadStillMarksTheObjectCurrentAndUnmodified) {
  ScratchFolder folder;
  for (const char* name : {"a.csv", "cal", "a."}) {
    Probe probe;
    probe->Archive()->put_Filename(Str(Wide(folder.File(name)).c_str()));
    EXPECT_EQ(probe->LoadFile(), E_FAIL) << name;
    EXPECT_EQ(Inquired(probe->Archive(), ARCHIVE_MODIFIED), 0);
    EXPECT_EQ(Inquired(probe->Archive(), ARCHIVE_CURRENT), 1);
  }
  Probe unnamed;
  EXPECT_EQ(unnamed->SaveFile(), E_FAIL);
  EXPECT_EQ(unnamed->LoadFile(), E_FAIL);
}

// ---------------------------------------------------------------- whole files

namespace {

// A described probe saved to `path`.
void SaveDescribed(const std::string& path, int encoding = -1, IString* stylesheet = nullptr) {
  Probe probe;
  probe->Info()->put_CALIBName(Str(L"Left camera"));
  probe->Info()->put_CALIBType(Str(L"2D Cam"));
  probe->Info()->put_CALIBDescription(Str(L"desk & bench"));
  probe->Info()->put_CALIBUnits(2);
  probe->Time().Year = 2023;
  probe->Time().Month = 5;
  probe->Time().Day = 17;
  probe->Archive()->put_Filename(Str(Wide(path).c_str()));
  probe->Archive()->Control(ARCHIVE_ENCODING, encoding);
  EXPECT_EQ(stylesheet ? probe->SaveXML(stylesheet, 0) : probe->SaveFile(), S_OK);
}

}  // namespace

TEST(FileArchiveXml, SaveWritesMarkPrologueAndObjectAndLoadReplacesWithTheNameOnly) {
  ScratchFolder folder;
  const std::string path = folder.File("probe.xcal");
  SaveDescribed(path);
  const std::string bytes = ReadBytes(path);
  ASSERT_GE(bytes.size(), 2u);
  EXPECT_EQ(bytes.substr(0, 2), std::string("\xFF\xFE", 2));
  EXPECT_EQ(Flat(Load(path, 1).text),
            L"<?xml version=\"1.0\"?><?xml-stylesheet href=\"generic.xsl\" type=\"text/xsl\"?><PersistProbe>"
            L"<CalibName>Left camera</CalibName><CalibDesc>desk &amp; bench</CalibDesc><Time><DATETIME>"
            L"<WeekDay>0</WeekDay><Day>17</Day><Month>5</Month><Year>2023</Year><Hour>0</Hour><Minute>0</Minute>"
            L"<Second>0</Second></DATETIME></Time></PersistProbe>");
  Probe back;
  back->Archive()->put_Filename(Str(Wide(path).c_str()));
  EXPECT_EQ(back->LoadFile(), S_OK);
  EXPECT_EQ(back->m_Loads, 1);
  EXPECT_EQ(back->m_LastLoadOptions, PERSIST_REPLACE);
  EXPECT_EQ(back->Name(), L"Left camera");
  EXPECT_EQ(back->Time().Year, 0);
}

TEST(FileArchiveXml, ANameWithoutADotIsJudgedByItsFirstLetter) {
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
  const std::string path = folder.File("eight.xml");
  SaveDescribed(path, 1, Str(L"calib.xsl"));
  EXPECT_EQ(ReadBytes(path).rfind("<?xml version=\"1.0\"?>\r\n<?xml-stylesheet href=\"calib.xsl\"", 0), 0u);
  Probe back;
  back->Archive()->put_Filename(Str(Wide(path).c_str()));
  EXPECT_EQ(back->LoadFile(), S_OK);
  EXPECT_EQ(back->Name(), L"Left camera");
}

TEST(FileArchiveXml, OnePrologueLineOnlyPassesTheRoot) {
  ScratchFolder folder;
  const std::string path = folder.Write(
      "one.xml", Utf16(L"<?xml version=\"1.0\"?>\r\n<PersistProbe><CalibName>New</CalibName></PersistProbe>", true));
  Probe probe;
  probe->Archive()->put_Filename(Str(Wide(path).c_str()));
  EXPECT_EQ(probe->LoadFile(), S_OK);
  EXPECT_EQ(probe->m_Loads, 0);
  EXPECT_EQ(probe->Name(), L"Calibration");
}
