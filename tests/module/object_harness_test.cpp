// One set of checks run over every object this build of the module creates: the name it
// reports, interface identity, reference counts back to zero, and a save and load in
// each file form for the objects that keep files.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tests/module/ModuleFixture.h"

namespace {


// Every interface a module object may answer.
const IID* const kInterfaces[] = {
    &IID_IObjectInfo,          &IID_IDataPersist,           &IID_IParametricObject,     &IID_IFileArchive,
    &IID_IUIPropertyPageSpecify, &IID_ICalibrationInfo,     &IID_ICalibration,          &IID_IHomogeneousCalibration,
    &IID_ICalibrationBestFit,  &IID_ICameraLinearCalibration, &IID_ITransform,          &IID_IHomogeneousTransform,
    &IID_ITransformBestFit,    &IID_ITransformFitErrors,    &IID_ITransformInterrogate, &IID_ITransformResidualErrors,
    &IID_ICalibrationFitAndFilter, &IID_IFitAndFilter,
};

std::vector<std::wstring> BuiltObjects() {
  std::vector<std::wstring> built;
  for (const wchar_t* name : kCreatableObjectNames) {
    void* creator = nullptr;
    if (LoadedModule::Get().createFunction(Ref(name), &creator) == S_OK) built.push_back(name);
  }
  return built;
}

SmartPtr<IUnknown> Create(const std::wstring& name) { return LoadedModule::Get().Create<IUnknown>(name.c_str()); }

TEST(EveryObject, ReportsItsTableNameWhenItHasObjectInfo) {
  for (const std::wstring& name : BuiltObjects()) {
    SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(Create(name));
    if (name == L"MultiViewGeometry") {
      EXPECT_FALSE(info);
      continue;
    }
    ASSERT_TRUE(info) << std::string(name.begin(), name.end());
    tagREFString reported{0, nullptr};
    ASSERT_EQ(info->GetName(3, &reported), S_OK);
    EXPECT_EQ(std::wstring(reported.m_Text, reported.m_Length), name);
  }
}

TEST(EveryObject, AnswersOneIdentityAndCountsBackToZero) {
  for (const std::wstring& name : BuiltObjects()) {
    const std::string label(name.begin(), name.end());
    SmartPtr<IUnknown> created = Create(name);
    ASSERT_TRUE(created) << label;
    IUnknown* object = created.Detach();
    SmartPtr<IUnknown> identity = QueryAs<IUnknown>(object);
    int answered = 0;
    for (const IID* iid : kInterfaces) {
      void* p = nullptr;
      const HRESULT hr = object->QueryInterface(*iid, &p);
      if (hr != S_OK) {
        EXPECT_EQ(hr, E_NOINTERFACE) << label;
        EXPECT_EQ(p, nullptr) << label;
        continue;
      }
      ++answered;
      IUnknown* route = static_cast<IUnknown*>(p);
      SmartPtr<IUnknown> back = QueryAs<IUnknown>(route);
      EXPECT_EQ(back.get(), identity.get()) << label << ": a route with another identity";
      route->Release();
    }
    EXPECT_GE(answered, 1) << label;
    identity.Clear();
    EXPECT_EQ(object->Release(), 0) << label << ": references left";
  }
}

TEST(EveryObject, ArchivedObjectsSurviveASaveAndLoadInEachForm) {
  LoadedModule& m = LoadedModule::Get();
  for (const std::wstring& name : BuiltObjects()) {
    const std::string label(name.begin(), name.end());
    SmartPtr<IUnknown> object = Create(name);
    SmartPtr<IFileArchive> archive = QueryAs<IFileArchive>(object);
    if (!archive || !QueryAs<IDataPersist>(object)) continue;
    for (const char* extension : {"xml", "tObj"}) {
      const std::string path = "/tmp/zeltrim_every_" + std::to_string(getpid()) + "_" + label + "." + extension;
      const std::wstring wide(path.begin(), path.end());
      SmartPtr<ICreatableString> file = m.CreateHost<ICreatableString>(L"CreatableString");
      file->SetString(static_cast<int>(wide.size()), wide.c_str());
      archive->put_Filename(file);
      EXPECT_GE(archive->Save(), 0) << label << " ." << extension;
      int modified = -1;
      archive->Inquire(0, &modified);
      EXPECT_EQ(modified, 0) << label;
      SmartPtr<IFileArchive> back = QueryAs<IFileArchive>(Create(name));
      back->put_Filename(file);
      EXPECT_GE(back->Load(), 0) << label << " ." << extension;
      std::remove(path.c_str());
    }
  }
}

}  // namespace
