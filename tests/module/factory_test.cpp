// The module's entry points as a host sees them: creator lookup by name, the creation
// protocol, and the global collection handed over by InitializeModule.
#include "tests/module/ModuleTestSupport.h"

namespace {

void* const kUntouched = reinterpret_cast<void*>(0x1234);

TEST(ModuleFactory, RefusesOtherCaseLengthOrEmptyNamesAndLeavesTheResultPlace) {
  LoadedModule& m = LoadedModule::Get();
  const tagREFString refused[] = {Ref(L"cameraLinearCalibration"), Ref(L"CAMERALINEARCALIBRATION"),
                                  Ref(L"CameraLinear"), Ref(L"CameraLinearCalibrationX"),
                                  Ref(L"NoSuchObject"), Ref(L""), {-1, L"CameraLinearCalibration"}};
  for (const tagREFString& name : refused) {
    void* creator = kUntouched;
    EXPECT_EQ(m.createFunction(name, &creator), E_FAIL) << "name " << name.m_Text << ", length " << name.m_Length;
    EXPECT_EQ(creator, kUntouched);
  }
  // The length decides, not a terminator: a longer text cut to the right length matches.
  void* creator = kUntouched;
  EXPECT_EQ(m.createFunction({23, L"CameraLinearCalibrationPlusMore"}, &creator), S_OK);
}

TEST(ModuleFactory, GivesACreatorForEachExactNameOfABuiltRowAndAnswersOtherRowsLikeUnknownNames) {
  int provided = 0;
  for (const wchar_t* name : kCreatableObjectNames) {
    void* creator = kUntouched;
    const HRESULT hr = LoadedModule::Get().createFunction(Ref(name), &creator);
    EXPECT_TRUE(hr == S_OK ? creator != kUntouched && creator != nullptr : hr == E_FAIL && creator == kUntouched)
        << "name " << name << ": " << hr;
    provided += hr == S_OK;
  }
  EXPECT_GE(provided, 1);
}

TEST(ModuleFactory, CreatorRefusesAnInterfaceTheClassLacks) {
  LoadedModule& m = LoadedModule::Get();
  void* creator = nullptr;
  ASSERT_EQ(m.createFunction(Ref(L"CameraLinearCalibration"), &creator), S_OK);
  IID iid = IID_ITransformBestFit;
  void* object = kUntouched;
  EXPECT_EQ(reinterpret_cast<CreatorFn>(creator)(nullptr, &iid, &object), E_NOINTERFACE);
  EXPECT_EQ(object, nullptr);
}

// A component collection that only counts its references.
class CountingCollection : public IComponentCollection {
 public:
  int refs = 1;
  HRESULT QueryInterface(const IID&, void** object) override {
    *object = nullptr;
    return E_NOINTERFACE;
  }
  int AddRef() override { return ++refs; }
  int Release() override { return --refs; }
  HRESULT get_Count(int*) override { return E_NOTIMPL; }
  HRESULT get_Item(int, IUnknown**) override { return E_NOTIMPL; }
  HRESULT get_Index(IString*, int*) override { return E_FAIL; }
  HRESULT Register(int, const wchar_t*, int, const wchar_t*) override { return E_NOTIMPL; }
  HRESULT Unregister(int, const wchar_t*) override { return E_NOTIMPL; }
  HRESULT get_ModuleOf(int, const wchar_t*, IString**) override { return E_NOTIMPL; }
  HRESULT RegisterInstance(int, const wchar_t*, IUnknown*) override { return E_NOTIMPL; }
  HRESULT Reserved_ICC4() override { return E_NOTIMPL; }
  HRESULT Reserved_ICC5() override { return E_NOTIMPL; }
  HRESULT Reserved_ICC6() override { return E_NOTIMPL; }
  HRESULT Reserved_ICC7() override { return E_NOTIMPL; }
  HRESULT Reserved_ICC8() override { return E_NOTIMPL; }
  HRESULT Reserved_ICC9() override { return E_NOTIMPL; }
  HRESULT CreateComponent(int, const wchar_t*, const IID*, void**) override { return E_FAIL; }
};

TEST(ModuleInitialize, HoldsOneReferenceAndSurvivesBeingHandedTheSameCollection) {
  LoadedModule& m = LoadedModule::Get();
  CountingCollection counting;
  EXPECT_EQ(m.initializeModule(nullptr, &counting), 0);
  EXPECT_EQ(counting.refs, 2);
  // The new reference is taken before the old one is dropped: never down to zero.
  EXPECT_EQ(m.initializeModule(nullptr, &counting), 0);
  EXPECT_EQ(counting.refs, 2);
  // Handing over another collection releases this one.
  EXPECT_EQ(m.initializeModule(nullptr, m.components), 0);
  EXPECT_EQ(counting.refs, 1);
}

}  // namespace
