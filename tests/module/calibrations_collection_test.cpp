// CalibrationsCollection: members named by their calibration info, the three slots, the
// two stream forms with their "Filename" key, and the lock under several threads.
#include <algorithm>
#include <cstdio>
#include <set>
#include <thread>

#include "tests/module/PropertySuite.h"

namespace {

using property::ClassTraits;

std::string Narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

SmartPtr<ICalibrationsCollection> NewCollection() {
  return LoadedModule::Get().Create<ICalibrationsCollection>(L"CalibrationsCollection");
}

SmartPtr<IUnknown> NewObject(const wchar_t* name) { return LoadedModule::Get().Create<IUnknown>(name); }

std::wstring NameAt(IParameters* c, int i) {
  SmartPtr<IString> name;
  c->get_ItemName(i, name.Out());
  return Text(name);
}

std::wstring CalibName(IUnknown* calibration) {
  SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(calibration);
  SmartPtr<IString> name;
  if (!info) return L"<no info>";
  info->get_CALIBName(name.Out());
  return Text(name);
}

std::wstring ObjectNameOf(IUnknown* object) {
  tagREFString name{0, nullptr};
  SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(object);
  if (!info || info->GetName(0, &name) < 0) return L"";
  return std::wstring(name.m_Text, name.m_Length);
}

SmartPtr<IUnknown> ItemAt(IParameters* c, int i) {
  SmartPtr<IUnknown> item;
  c->get_Item(i, item.Out());
  return item;
}

int IndexOf(IParameters* c, const wchar_t* name) {
  int index = -1;
  c->get_Index(Str(name), &index);
  return index;
}

// A fitted best-fit calibration, a camera and a hand-set linear calibration.
SmartPtr<IUnknown> FittedBestFit() {
  std::vector<P> source, target;
  Grid(&source, &target);
  SmartPtr<ICalibrationBestFit> fit = NewCalibration();
  fit->BestFit(Points(source), Points(target), 0);
  return SmartPtr<IUnknown>(fit.get());
}

// Members whose own forms carry everything, so that a collection file settles at once.
void AddStableMembers(IUnknown* object) {
  SmartPtr<IParameters> c = QueryAs<IParameters>(object);
  c->Add(Str(L"Floor"), NewObject(L"CameraLinearCalibration"), nullptr, 0);
  c->Add(Str(L"Wall"), NewObject(L"CameraLinearCalibration"), nullptr, 0);
}

void AddMembers(IUnknown* object) {
  SmartPtr<IParameters> c = QueryAs<IParameters>(object);
  c->Add(Str(L"Lens"), FittedBestFit(), nullptr, 0);
  c->Add(Str(L"Camera"), NewObject(L"Camera3DTrinsic"), nullptr, 0);
  c->Add(Str(L"Floor"), NewObject(L"CameraLinearCalibration"), nullptr, 0);
}

const ClassTraits kCollection{
    .name = L"CalibrationsCollection",
    .routes = {{&IID_IObjectInfo},
               {&IID_IDataPersist},
               {&IID_ICalibrationsCollection},
               {&IID_IFileArchive},
               {&IID_INamedCollection, &IID_ICalibrationsCollection},
               {&IID_ISimpleCollection, &IID_ICalibrationsCollection},
               {&IID_IParameters, &IID_ICalibrationsCollection},
               {&IID_IParametersCreatable, &IID_ICalibrationsCollection},
               {&IID_IUIPropertyPageSpecify}},
    .prepare = AddStableMembers,
    .forms = {{.xml = true, .extension = "xml"}, {.xml = false, .extension = "tcol"}},
    .pages = {{L"Calibratons", L"UIPropPages.NamedCollectionPropPage", L"Calibration"},
              {L"", L"UIFileArchivePropPage", L""}},
};
ZELTRIM_PROPERTY_CLASS(kCollection);

// The object's XML form inside its element, as a file holds it, ready to be read back.
SmartPtr<IDataStream> XmlImage(IUnknown* object, std::vector<char>* image) {
  HRESULT saved = E_FAIL;
  SmartPtr<IDataStream> in = property::SavedStream(object, {.xml = true, .extension = "xml"}, &saved, image);
  EXPECT_EQ(saved, S_OK);
  return in;
}

// ---------------------------------------------------------------- naming twist

TEST(CalibrationsCollection, AMemberWithCalibrationInfoIsNamedByIt) {
  SmartPtr<ICalibrationsCollection> c = NewCollection();
  SmartPtr<IUnknown> b = NewObject(L"CameraLinearCalibration"), a = NewObject(L"CalibrationBestFit");
  ASSERT_EQ(c->Add(Str(L"B"), b, nullptr, 0), S_OK);
  ASSERT_EQ(c->Add(Str(L"C"), a, nullptr, 0), S_OK);
  c->Add(Str(L"M"), Str(L"plain"), nullptr, 0);
  EXPECT_EQ(CalibName(b), L"B") << "Add names the calibration";
  EXPECT_EQ(NameAt(c, 1), L"C");

  QueryAs<ICalibrationInfo>(a)->put_CALIBName(Str(L"A"));
  EXPECT_EQ(NameAt(c, 1), L"A") << "the name is read from the calibration at once";
  EXPECT_EQ(IndexOf(c, L"A"), -1) << "the entry's own name stays stale until Sort";
  ASSERT_EQ(c->Sort(2), S_OK);
  EXPECT_EQ(NameAt(c, 0) + NameAt(c, 1) + NameAt(c, 2), L"ABM") << "ascending whatever the argument";
  EXPECT_EQ(IndexOf(c, L"A"), 0);

  // Rename of a calibration member renames the calibration only.
  ASSERT_EQ(c->Rename(1, Str(L"Z")), S_OK);
  EXPECT_EQ(CalibName(b), L"Z");
  EXPECT_EQ(IndexOf(c, L"B"), 1);
  c->Sort(0);
  EXPECT_EQ(NameAt(c, 2), L"Z");
  ASSERT_EQ(c->Rename(1, Str(L"N")), S_OK);
  EXPECT_EQ(IndexOf(c, L"N"), 1) << "a plain member's entry is renamed";
  EXPECT_EQ(c->Rename(3, Str(L"X")), E_INVALIDARG);
  EXPECT_EQ(c->Rename(-1, Str(L"X")), E_INVALIDARG);
}

TEST(CalibrationsCollection, AReplacementAndAVariantHeldCalibrationTakeTheirPlacesNames) {
  SmartPtr<ICalibrationsCollection> c = NewCollection();
  c->Add(Str(L"Old"), NewObject(L"CalibrationBestFit"), nullptr, 0);
  SmartPtr<IUnknown> replacement = NewObject(L"CameraLinearCalibration");
  QueryAs<ICalibrationInfo>(replacement)->put_CALIBName(Str(L"Other"));
  ASSERT_EQ(c->put_Item(0, replacement), S_OK);
  EXPECT_EQ(CalibName(replacement), L"Old");
  EXPECT_EQ(ItemAt(c, 0).get(), QueryAs<IUnknown>(replacement).get());
  EXPECT_EQ(c->put_Item(1, replacement), E_INVALIDARG);

  SmartPtr<IVariant> held = LoadedModule::Get().CreateHost<IVariant>(L"Variant");
  SmartPtr<IUnknown> inside = NewObject(L"CalibrationBestFit");
  held->put_Object(inside);
  c->Add(Str(L"Held"), held, nullptr, 0);
  EXPECT_EQ(CalibName(inside), L"Held") << "a variant's object counts as the member";
  EXPECT_EQ(NameAt(c, 1), L"Held");
}

// ---------------------------------------------------------------- slots

TEST(CalibrationsCollection, SlotsKeepTheirOwnReferences) {
  SmartPtr<ICalibrationsCollection> c = NewCollection();
  SmartPtr<ICalibration> got;
  EXPECT_EQ(GetCollectionSlot(c, SLOT_ACTIVE_LENS, got.Out()), E_FAIL) << "empty";
  EXPECT_EQ(GetCollectionSlot(c, SLOT_LOCATION, nullptr), E_INVALIDARG);

  SmartPtr<ICalibration> lens = LoadedModule::Get().Create<ICalibration>(L"CalibrationBestFit");
  SmartPtr<ICalibration> outsider = LoadedModule::Get().Create<ICalibration>(L"CameraLinearCalibration");
  c->Add(Str(L"Lens"), lens, nullptr, 0);
  ASSERT_EQ(PutCollectionSlot(c, SLOT_ACTIVE_LENS, lens), S_OK);
  ASSERT_EQ(PutCollectionSlot(c, SLOT_ACTIVE_ALIGNMENT, outsider), S_OK) << "no membership test";
  ICalibration* const lensPointer = lens.get();
  lens.Clear();
  ASSERT_EQ(c->Remove(0), S_OK);
  ASSERT_EQ(GetCollectionSlot(c, SLOT_ACTIVE_LENS, got.Out()), S_OK);
  EXPECT_EQ(got.get(), lensPointer) << "a removed member lives on in its slot";
  EXPECT_EQ(CalibName(got), L"Lens");
  EXPECT_EQ(RefCount(got), 2);
  EXPECT_EQ(GetCollectionSlot(c, SLOT_ACTIVE_ALIGNMENT, got.Out()), S_OK);
  EXPECT_EQ(got.get(), outsider.get());
  EXPECT_EQ(GetCollectionSlot(c, SLOT_LOCATION, got.Out()), E_FAIL) << "the slots are separate";

  SmartPtr<IDataStream> folder = LoadedModule::Get().CreateHost<IDataStream>(L"FolderStream");
  folder->Open(nullptr, 1000, 1);
  QueryAs<IDataPersist>(c)->Save(folder, 0);
  QueryAs<IDataPersist>(c)->Load(folder, 0);
  EXPECT_EQ(GetCollectionSlot(c, SLOT_ACTIVE_ALIGNMENT, got.Out()), S_OK) << "a load leaves the slots alone";
  ASSERT_EQ(PutCollectionSlot(c, SLOT_ACTIVE_ALIGNMENT, nullptr), S_OK);
  EXPECT_EQ(GetCollectionSlot(c, SLOT_ACTIVE_ALIGNMENT, got.Out()), E_FAIL);
  got.Clear();
  EXPECT_EQ(RefCount(outsider), 1) << "emptying a slot drops its reference";
}

// ---------------------------------------------------------------- forms

// Names, classes and what a member converts come back; the XML form keeps only members
// that are persistent objects, the folder form plain values too.
TEST(CalibrationsCollection, BothFormsCarryMembersOfSeveralClasses) {
  for (const char* extension : {"xml", "tcol"}) {
    SCOPED_TRACE(extension);
    const bool xml = extension[0] == 'x';
    SmartPtr<ICalibrationsCollection> saved = NewCollection(), loaded = NewCollection();
    AddMembers(saved);
    saved->Add(Str(L"Note"), Str(L"kept in folders"), nullptr, 0);
    loaded->Add(Str(L"Stale"), Str(L"replaced"), nullptr, 0);
    const std::string path = TempPath(std::string("collection.") + extension);
    ASSERT_EQ(Archive(saved, path, true), S_OK);
    ASSERT_EQ(Archive(loaded, path, false), S_OK);
    ASSERT_EQ(Count(loaded), xml ? 3 : 4);
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(NameAt(loaded, i), NameAt(saved, i));
      if (QueryAs<ICalibrationInfo>(ItemAt(loaded, i))) {
        EXPECT_EQ(CalibName(ItemAt(loaded, i)), NameAt(saved, i)) << "loaded members are named by their entries";
      }
      EXPECT_EQ(ObjectNameOf(ItemAt(loaded, i)), ObjectNameOf(ItemAt(saved, i)));
    }
    SmartPtr<ICalibration> before = QueryAs<ICalibration>(ItemAt(saved, 0)), after = QueryAs<ICalibration>(ItemAt(loaded, 0));
    ExpectNear(Converted(after, {33, 41, 0}), Converted(before, {33, 41, 0}), 1e-6);
    if (!xml) {
      EXPECT_EQ(NameAt(loaded, 3), L"Note");
      EXPECT_EQ(Text(QueryAs<IString>(ItemAt(loaded, 3))), L"kept in folders");
    }
    std::remove(path.c_str());
  }
}

TEST(CalibrationsCollection, FilenameIsStoredRelativeAndNeverStaysAMember) {
  const std::string root = TempPath("coll_install");
  const std::string ini = TempPath("coll_registry.ini");
  {
    std::ofstream out(ini);
    out << "[Workspace]\nInstallPath=" << root << "/bin\n";
  }
  setenv("ZELTRIM_REGISTRY", ini.c_str(), 1);
  const std::string file = root + "/data/station.tcol";
  const std::wstring wide(file.begin(), file.end());
  LoadedModule& m = LoadedModule::Get();
  for (bool xml : {false, true}) {
    SCOPED_TRACE(xml ? "xml" : "folder");
    SmartPtr<ICalibrationsCollection> saved = NewCollection(), loaded = NewCollection();
    QueryAs<IFileArchive>(saved)->put_Filename(Str(wide));
    AddMembers(saved);
    void* data = nullptr;
    unsigned long size = 0;
    std::vector<char> image;
    SmartPtr<IDataStream> in;
    if (xml) {
      in = XmlImage(saved, &image);
      const std::wstring text(reinterpret_cast<wchar_t*>(image.data()), image.size() / sizeof(wchar_t));
      EXPECT_NE(text.find(L"<Filename>..\\data/station.tcol</Filename>"), std::wstring::npos) << Narrow(text);
    } else {
      SmartPtr<IDataStream> out = m.CreateHost<IDataStream>(L"FolderStream");
      out->Open(nullptr, 1000, 1);
      ASSERT_EQ(QueryAs<IDataPersist>(saved)->Save(out, 0), S_OK);
      const std::wstring listing = Text(QueryAs<IString>(out));
      EXPECT_NE(listing.find(L"Filename: string = ..\\data/station.tcol"), std::wstring::npos) << Narrow(listing);
      out->GetBuffer(&data, &size);
      image.assign(static_cast<char*>(data), static_cast<char*>(data) + size);
      in = m.CreateHost<IDataStream>(L"FolderStream");
      ASSERT_EQ(in->Open(image.data(), static_cast<unsigned long>(image.size()), 0), S_OK);
    }
    ASSERT_TRUE(in);
    ASSERT_EQ(QueryAs<IDataPersist>(loaded)->Load(in, 0), S_OK);
    EXPECT_EQ(Count(loaded), 3);
    EXPECT_EQ(IndexOf(loaded, L"Filename"), -1);
    SmartPtr<IString> name;
    QueryAs<IFileArchive>(loaded)->get_Filename(name.Out());
    EXPECT_EQ(Text(name), wide) << "absolute again";
  }
  unsetenv("ZELTRIM_REGISTRY");
  std::remove(ini.c_str());

  // A member of that name in a stream, not in first place, goes too; without a key the
  // XML load leaves an empty file name.
  SmartPtr<ICalibrationsCollection> plain = NewCollection(), loaded = NewCollection();
  plain->Add(Str(L"Camera"), NewObject(L"Camera3DTrinsic"), nullptr, 0);
  plain->Add(Str(L"filename"), NewObject(L"CameraLinearCalibration"), nullptr, 0);
  std::vector<char> image;
  SmartPtr<IDataStream> in = XmlImage(plain, &image);
  ASSERT_TRUE(in);
  ASSERT_EQ(QueryAs<IDataPersist>(loaded)->Load(in, 0), S_OK);
  EXPECT_EQ(Count(loaded), 1);
  EXPECT_EQ(NameAt(loaded, 0), L"Camera");
  SmartPtr<IString> name;
  EXPECT_EQ(QueryAs<IFileArchive>(loaded)->get_Filename(name.Out()), S_OK);
  EXPECT_EQ(Text(name), L"");
}

TEST(CalibrationsCollection, PageListCarriesItsFlags) {
  SmartPtr<INamedCollection> pages;
  ASSERT_EQ(QueryAs<IUIPropertyPageSpecify>(NewCollection())->GetPages(0, pages.Out(), nullptr), S_OK);
  int flags[2] = {-1, -1};
  SmartPtr<IParameters> list = QueryAs<IParameters>(pages);
  list->get_ItemFlags(0, &flags[0]);
  list->get_ItemFlags(1, &flags[1]);
  EXPECT_EQ(flags[0], 495);
  EXPECT_EQ(flags[1], 0);
}

// ---------------------------------------------------------------- threads

// Writers add calibrations and plain members, one thread renames plain members, one sorts
// and reads names: nothing is lost, and the final order is sorted. (Calibration members
// are not renamed here: that route runs without the lock by contract.)
// Two writers add, one thread renames, one sorts and reads names, one looks members up by
// name. Plain names start with "a", calibration names with "z", so after every sort index
// 0 is a plain member; the renamer only renames index 0 (with fresh names that keep the
// prefix), which keeps it off the calibration route that Rename takes without the lock.
// Adds append, so they never move index 0. Run under ThreadSanitizer by its CI step.
TEST(CalibrationsCollection, AddsRenamesSortsAndReadsFromSeveralThreads) {
  constexpr int kPerWriter = 60, kRenames = 200;
  SmartPtr<ICalibrationsCollection> c = NewCollection();
  c->Add(Str(L"a_seed"), Str(L"plain"), nullptr, 0);
  // One of each class first: the creators they cache are filled without a lock, by design.
  c->Add(Str(L"z_seed"), NewObject(L"CalibrationBestFit"), nullptr, 0);
  c->Add(Str(L"z_seed2"), NewObject(L"CameraLinearCalibration"), nullptr, 0);
  std::vector<std::thread> threads;
  for (int w = 0; w < 2; ++w)
    threads.emplace_back([&, w] {
      for (int i = 0; i < kPerWriter; ++i) {
        const std::wstring tail = std::to_wstring(w) + L"_" + std::to_wstring(1000 + i);
        if (i % 2)
          c->Add(Str(L"z" + tail), NewObject(L"CameraLinearCalibration"), nullptr, 0);
        else
          c->Add(Str(L"a" + tail), Str(L"plain"), nullptr, 0);
      }
    });
  threads.emplace_back([&] {
    for (int i = 0; i < kRenames; ++i) EXPECT_EQ(c->Rename(0, Str(L"a_r" + std::to_wstring(i))), S_OK);
  });
  threads.emplace_back([&] {
    for (int i = 0; i < 40; ++i) {
      c->Sort(1);
      for (int k = 0; k < Count(c); ++k) EXPECT_FALSE(NameAt(c, k).empty());
    }
  });
  threads.emplace_back([&] {
    for (int i = 0; i < 200; ++i) EXPECT_GE(IndexOf(c, L"z_seed"), 0);
  });
  for (std::thread& t : threads) t.join();
  ASSERT_EQ(Count(c), 3 + 2 * kPerWriter);
  c->Sort(1);
  std::vector<std::wstring> names;
  for (int k = 0; k < Count(c); ++k) names.push_back(NameAt(c, k));
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  // Every rename replaced one plain name by a fresh one, so no name is doubled and the
  // calibrations kept theirs.
  EXPECT_EQ(std::set<std::wstring>(names.begin(), names.end()).size(), names.size());
  EXPECT_EQ(std::count_if(names.begin(), names.end(), [](const std::wstring& n) { return n[0] == L'z'; }),
            2 + kPerWriter);
}

}  // namespace
