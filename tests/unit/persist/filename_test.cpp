// File name mapping through a registry file, and the relative and absolute forms.
#include <gtest/gtest.h>

#include "persist/FileName.h"
#include "tests/unit/persist/PersistTestSupport.h"

using namespace persist_test;

namespace {

const char kSettings[] =
    "# install and mappings\n"
    "[Workspace]\n"
    "InstallPath = /opt/x\n"
    "\n"
    "[Mappings]\n"
    "Empty=\n"
    "Data=/srv/data\n"
    "Win=C:\\cal\n";

class FileNameMapping : public ::testing::Test {
 protected:
  ScratchFolder m_Folder;
  RegistryFile m_Registry{m_Folder, kSettings};

  std::wstring Map(const wchar_t* name, short plain, HRESULT expected = S_OK) {
    IString* mapped = nullptr;
    EXPECT_EQ(FILENAMEMap(Str(name), &mapped, plain), expected) << name;
    return Take(mapped);
  }
  std::wstring Unmap(const wchar_t* name, HRESULT expected = S_OK) {
    IString* file = nullptr;
    EXPECT_EQ(FILENAMEUnmap(Str(name), &file), expected) << name;
    return Take(file);
  }
};

std::wstring Relative(const wchar_t* base, const wchar_t* file, HRESULT expected) {
  IString* relative = nullptr;
  SmartPtr<IString> fileString = Str(file);
  EXPECT_EQ(FILENAMECreateRelative(Str(base), fileString, &relative), expected);
  if (expected == S_FALSE) {
    EXPECT_EQ(relative, fileString.get());  // the same object
  }
  return Take(relative);
}

std::wstring Absolute(const wchar_t* base, const wchar_t* relative) {
  IString* absolute = nullptr;
  EXPECT_EQ(FILENAMECreateAbsolute(Str(base), Str(relative), &absolute), S_OK);
  return Take(absolute);
}

}  // namespace

TEST_F(FileNameMapping, NamesUnderTheInstallPathOrAMappingIgnoringCase) {
  IString* path = nullptr;
  EXPECT_EQ(FILENAMEGetInstallPath(&path), S_OK);
  EXPECT_EQ(Take(path), L"/opt/x");
  EXPECT_EQ(Map(L"/OPT/X/a.cal", 0), L"[InstallPath]/a.cal");
  EXPECT_EQ(Map(L"/OPT/X/a.cal", 1), L"a.cal");
  EXPECT_EQ(Map(L"/opt/x", 0), L"[InstallPath]");
  EXPECT_EQ(Map(L"/opt/x/", 1), L"[InstallPath]");
  EXPECT_EQ(Map(L"//opt/x/a.cal", 0), L"[InstallPath]/a.cal");  // "//" counts as "/"
  EXPECT_EQ(Map(L"/SRV/data/b.cal", 0), L"[Data]/b.cal");
  EXPECT_EQ(Map(L"C:\\CAL\\c.cal", 0), L"[Win]\\c.cal");
}

TEST_F(FileNameMapping, NoFolderBoundaryIsCheckedSoAFolderMapsUnderItsPrefix) {
  EXPECT_EQ(Map(L"/opt/xy/a.cal", 0), L"[InstallPath]y/a.cal");
}

TEST_F(FileNameMapping, NoMatchLeavesTheResultAlone) {
  IString* const sentinel = reinterpret_cast<IString*>(0x10);
  IString* mapped = sentinel;
  EXPECT_EQ(FILENAMEMap(Str(L"/home/u/a.cal"), &mapped, 0), E_FAIL);
  EXPECT_EQ(FILENAMEMap(nullptr, &mapped, 0), E_FAIL);
  EXPECT_EQ(mapped, sentinel);
}

TEST_F(FileNameMapping, UnmapTurnsBackslashesIntoSlashesAndRefusesWhatItCannotName) {
  EXPECT_EQ(Unmap(L"[installpath]\\sub\\a.cal"), L"/opt/x/sub/a.cal");
  EXPECT_EQ(Unmap(L"[data]/b.cal"), L"/srv/data/b.cal");
  EXPECT_EQ(Unmap(L"[Win]\\c.cal"), L"C:/cal/c.cal");
  for (const wchar_t* name : {L"[InstallPath/a.cal", L"[Nowhere]/a.cal", L"/opt/x/a.cal", L""})
    EXPECT_EQ(Unmap(name, E_FAIL), L"<null>");
  IString* file = nullptr;
  EXPECT_EQ(FILENAMEUnmap(nullptr, &file), E_FAIL);
}

TEST(FileNameRegistry, MissingSettingsGiveAnEmptyInstallPath) {
  ScratchFolder folder;
  RegistryFile registry(folder, "[Mappings]\nData=/srv\n");
  IString* path = nullptr;
  EXPECT_LT(FILENAMEGetInstallPath(&path), 0);
  EXPECT_EQ(Take(path), L"");
  IString* mapped = nullptr;
  EXPECT_EQ(FILENAMEMap(Str(L"/srv/a"), &mapped, 0), S_OK);
  EXPECT_EQ(Take(mapped), L"[Data]/a");
}

TEST(FileNameRegistry, WithoutMappingsNothingElseMaps) {
  ScratchFolder folder;
  RegistryFile registry(folder, "[Workspace]\nInstallPath=//opt/x\n[Mappings]\n");
  IString* mapped = nullptr;
  EXPECT_EQ(FILENAMEMap(Str(L"/opt/x/a"), &mapped, 0), S_OK);  // "//" in the path counts as "/"
  EXPECT_EQ(Take(mapped), L"[InstallPath]/a");
  mapped = nullptr;
  EXPECT_EQ(FILENAMEMap(Str(L"/srv/a"), &mapped, 0), E_FAIL);  // empty section
  EXPECT_EQ(mapped, nullptr);
}

TEST(FileNameRegistry, ValueBufferIsNeverOverrun) {
  ScratchFolder folder;
  RegistryFile registry(folder, "[Workspace]\nInstallPath=/" + std::string(300, 'p') + "\n");
  SmartPtr<IRegistryEx> reg = CreateHostObject<IRegistryEx>(L"Registry");
  ASSERT_TRUE(reg);
  wchar_t buffer[400];
  for (wchar_t& c : buffer) c = L'#';
  EXPECT_EQ(reg->GetValue(L"workspace", L"installpath", buffer), S_OK);
  EXPECT_EQ(std::wcslen(buffer), static_cast<size_t>(REGISTRY_VALUE_CHARS - 1));
  EXPECT_EQ(buffer[REGISTRY_VALUE_CHARS], L'#');
  EXPECT_EQ(reg->GetValue(L"Workspace", L"Missing", buffer), E_FAIL);
}

TEST(FileNameRegistry, SectionsAsNamedStrings) {
  ScratchFolder folder;
  RegistryFile registry(folder, "a=outside\n[Mappings]\n  One = /1 \n# Two=/2\nnot a setting\nThree=/3=x\nONE=/dup\n");
  SmartPtr<IRegistry> reg = CreateHostObject<IRegistry>(L"Registry");
  ASSERT_TRUE(reg);
  SmartPtr<INamedCollection> items;
  ASSERT_EQ(reg->GetSection(Str(L"mappings"), items.Out()), S_OK);
  int count = 0;
  items->get_Count(&count);
  std::wstring all;
  for (int i = 0; i < count; ++i) {
    IString* name = nullptr;
    SmartPtr<IUnknown> item;
    items->get_ItemName(i, &name);
    items->get_Item(i, item.Out());
    all += Take(name) + L"=" + StreamText(item) + L";";
  }
  EXPECT_EQ(all, L"One=/1;Three=/3=x;");  // trimmed, the first of two names in other case
  EXPECT_EQ(reg->GetSection(Str(L"Absent"), items.Out()), E_FAIL);
  IString* value = nullptr;
  EXPECT_EQ(reg->GetValue(Str(L"Mappings"), Str(L"Two"), &value), E_FAIL);
  EXPECT_EQ(value, nullptr);
}

TEST(FileNameRelative, ClimbsFromTheBaseFolderWithBackslashes) {
  EXPECT_EQ(Relative(L"/a/b/c", L"/A/B/d.txt", S_OK), L"..\\d.txt");
  EXPECT_EQ(Relative(L"/a/b/c/e", L"/a/b/d.txt", S_OK), L"..\\..\\d.txt");
  EXPECT_EQ(Relative(L"/a/b/c", L"/a/b/c/d/e.txt", S_OK), L"..\\c/d/e.txt");
}

TEST(FileNameRelative, TooLittleInCommonGivesTheFileItself) {
  EXPECT_EQ(Relative(L"/a/x", L"/a/y.txt", S_FALSE), L"/a/y.txt");  // one common folder
  EXPECT_EQ(Relative(L"/a/b", L"x/a/b", S_FALSE), L"x/a/b");         // nothing in common
  EXPECT_EQ(Relative(L"", L"/a/b", S_OK), L"/a/b");                  // an empty base: S_OK
  IString* relative = nullptr;
  EXPECT_EQ(FILENAMECreateRelative(Str(L"/a/b"), nullptr, &relative), S_OK);
  EXPECT_EQ(relative, nullptr);
}

TEST(FileNameAbsolute, UndoesTheRelativeForm) {
  EXPECT_EQ(Absolute(L"/a/b/c", L"..\\d.txt"), L"/a/b/d.txt");
  EXPECT_EQ(Absolute(L"/a/b/c/e", L"..\\..\\d.txt"), L"/a/b/d.txt");
  EXPECT_EQ(Absolute(L"/a/b", L"sub\\d.txt"), L"/a/b/sub/d.txt");
  for (const wchar_t* file : {L"/data/set/one/left.xml", L"/data/set/two/x/y.csv"}) {
    const wchar_t* base = L"/data/set/one/run";
    SmartPtr<IString> relative;
    ASSERT_EQ(FILENAMECreateRelative(Str(base), Str(file), relative.Out()), S_OK);
    IString* absolute = nullptr;
    ASSERT_EQ(FILENAMECreateAbsolute(Str(base), relative, &absolute), S_OK);
    EXPECT_EQ(Take(absolute), file);
  }
}

TEST(FileNameAbsolute, ShortBasesAreNotCut) {
  EXPECT_EQ(Absolute(L"ab", L"..\\x"), L"ab/x");      // no '/' to climb
  EXPECT_EQ(Absolute(L"/a/b", L"..\\x"), L"/a/b/x");  // cutting would leave 2 characters
}

TEST(FileNameAbsolute, NamesThatAreAlreadyWholeAreRepairedInPlace) {
  for (const wchar_t* name : {L"C:\\cal\\a.xml", L"/cal\\a.xml", L"a\\", L""}) {
    SmartPtr<IString> relative = Str(name);
    IString* absolute = nullptr;
    EXPECT_EQ(FILENAMECreateAbsolute(Str(L"/base/dir"), relative, &absolute), S_OK);
    EXPECT_EQ(absolute, relative.get());
    std::wstring expected = name;
    for (wchar_t& c : expected)
      if (c == L'\\') c = L'/';
    EXPECT_EQ(Take(absolute), expected);
  }
}
