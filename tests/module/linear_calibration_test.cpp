// The linear camera calibration driven through its interfaces from a loaded module.
#include <cmath>

#include "tests/module/ModuleFixture.h"

namespace {

constexpr double kRoundTrip = 1e-9;

SmartPtr<ICameraLinearCalibration> NewLinear() {
  return LoadedModule::Get().Create<ICameraLinearCalibration>(L"CameraLinearCalibration");
}

// Sets every number of the chain to something that is not an identity.
void SetAll(ICameraLinearCalibration* c) {
  c->SetCameraOrigin(320, 240);
  c->SetCameraRoll(7.5);
  c->SetScale(0.05, -0.04, 2.0);
  c->SetOrigin(100, -50, 3);
  c->SetRoll(30);
  c->SetPitch(-12);
  c->SetYaw(4);
}

TEST(LinearCalibration, AnswersItsInterfacesInOrderAndNothingElse) {
  SmartPtr<ICameraLinearCalibration> c = NewLinear();
  ASSERT_TRUE(c);
  SmartPtr<ICalibration> calibration = QueryAs<ICalibration>(c);
  ASSERT_TRUE(calibration);
  // ICalibration is the route of the main interface: the same pointer.
  EXPECT_EQ(static_cast<void*>(calibration.get()), static_cast<void*>(c.get()));
  EXPECT_TRUE(QueryAs<IObjectInfo>(c));
  SmartPtr<IUnknown> a = QueryAs<IUnknown>(c);
  SmartPtr<IUnknown> b = QueryAs<IUnknown>(calibration);
  EXPECT_EQ(a.get(), b.get());
  for (const IID* other : {&IID_ITransform, &IID_ITransformBestFit, &IID_ITransformFitErrors,
                           &IID_ICalibrationBestFit, &IID_IHomogeneousTransform}) {
    void* p = reinterpret_cast<void*>(0x1);
    EXPECT_EQ(c->QueryInterface(*other, &p), E_NOINTERFACE);
    EXPECT_EQ(p, nullptr);
  }
}

TEST(LinearCalibration, ReferencesCountBackToZero) {
  SmartPtr<ICameraLinearCalibration> held = NewLinear();
  ASSERT_TRUE(held);
  ICameraLinearCalibration* c = held.Detach();
  EXPECT_EQ(c->AddRef(), 2);
  SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(c);
  EXPECT_EQ(RefCount(c), 3);  // every interface shares one count
  info.Clear();
  EXPECT_EQ(c->Release(), 1);
  EXPECT_EQ(c->Release(), 0);
}

TEST(LinearCalibration, GetNameIgnoresItsIntegerAndNeedsNoState) {
  SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(NewLinear());
  ASSERT_TRUE(info);
  for (int any : {0, 1, -7, 1 << 30}) {
    tagREFString name{0, nullptr};
    ASSERT_EQ(info->GetName(any, &name), S_OK);
    EXPECT_EQ(std::wstring(name.m_Text, name.m_Length), L"CameraLinearCalibration");
  }
}

TEST(LinearCalibration, ZeroScalesAreStoredAsOne) {
  SmartPtr<ICameraLinearCalibration> c = NewLinear();
  ASSERT_EQ(c->SetScale(0, 2, 0), S_OK);
  double x = -1, y = -1, z = -1;
  c->GetScale(&x, &y, &z);
  EXPECT_EQ(x, 1.0);
  EXPECT_EQ(y, 2.0);
  EXPECT_EQ(z, 1.0);
}

TEST(LinearCalibration, AccessorsKeepWhatIsSet) {
  SmartPtr<ICameraLinearCalibration> c = NewLinear();
  SetAll(c);
  double a = 0, b = 0, d = 0;
  c->GetOrigin(&a, &b, &d);
  EXPECT_EQ(a, 100);
  EXPECT_EQ(b, -50);
  EXPECT_EQ(d, 3);
  c->GetCameraOrigin(&a, &b);
  EXPECT_EQ(a, 320);
  EXPECT_EQ(b, 240);
  c->GetRoll(&a);
  EXPECT_EQ(a, 30);
  c->GetPitch(&a);
  EXPECT_EQ(a, -12);
  c->GetYaw(&a);
  EXPECT_EQ(a, 4);
  c->GetCameraRoll(&a);
  EXPECT_EQ(a, 7.5);
  EXPECT_EQ(c->GetCameraRoll(nullptr), S_OK);
}

TEST(LinearCalibration, NewObjectLeavesPointsAsTheEmptyChainDoes) {
  SmartPtr<ICameraLinearCalibration> c = NewLinear();
  double x = 1.5, y = -2.5, z = 3.5;
  ASSERT_EQ(c->Convert(&x, &y, &z), S_OK);
  EXPECT_EQ(x, 1.5);
  EXPECT_EQ(y, -2.5);
  EXPECT_EQ(z, 3.5);
  ASSERT_EQ(c->Revert(&x, &y, &z), S_OK);
  EXPECT_EQ(x, 1.5);
}

TEST(LinearCalibration, RevertUndoesConvert) {
  SmartPtr<ICameraLinearCalibration> c = NewLinear();
  SetAll(c);
  for (const double* p : {(const double[3]){0, 0, 0}, (const double[3]){640, 480, 0}, (const double[3]){-3, 17, 9}}) {
    double x = p[0], y = p[1], z = p[2];
    ASSERT_EQ(c->Convert(&x, &y, &z), S_OK);
    EXPECT_GT(std::fabs(x - p[0]) + std::fabs(y - p[1]), 1e-3);  // the chain did something
    ASSERT_EQ(c->Revert(&x, &y, &z), S_OK);
    EXPECT_NEAR(x, p[0], kRoundTrip);
    EXPECT_NEAR(y, p[1], kRoundTrip);
    EXPECT_NEAR(z, p[2], kRoundTrip);
  }
}

// The forward chain is: camera origin, camera roll, scale, translation, roll, pitch,
// yaw. A host transform built step by step in that order must agree exactly.
TEST(LinearCalibration, ForwardChainRunsInItsStatedOrder) {
  LoadedModule& m = LoadedModule::Get();
  SmartPtr<ICameraLinearCalibration> c = NewLinear();
  SetAll(c);
  SmartPtr<ILinearTransform> expected = m.CreateHost<ILinearTransform>(L"LinearTransform");
  ASSERT_TRUE(expected);
  expected->AddStep(STEP_TRANSLATE, 0, -320, -240, 0);
  expected->AddStep(STEP_ROLL, 0, 7.5, 0, 0);
  expected->AddStep(STEP_SCALE, 0, 0.05, -0.04, 2.0);
  expected->AddStep(STEP_TRANSLATE, 0, 100, -50, 3);
  expected->AddStep(STEP_ROLL, 0, 30, 0, 0);
  expected->AddStep(STEP_PITCH, 0, -12, 0, 0);
  expected->AddStep(STEP_YAW, 1, 4, 0, 0);
  double x = 411, y = 97, z = 1;
  double ex = x, ey = y, ez = z;
  ASSERT_EQ(c->Convert(&x, &y, &z), S_OK);
  ASSERT_EQ(expected->Convert(&ex, &ey, &ez), S_OK);
  EXPECT_EQ(x, ex);
  EXPECT_EQ(y, ey);
  EXPECT_EQ(z, ez);

  // The translation comes before the rotations: moving it changes the result by the
  // rotated offset, not by the offset itself.
  c->SetOrigin(101, -50, 3);
  double x2 = 411, y2 = 97, z2 = 1;
  c->Convert(&x2, &y2, &z2);
  EXPECT_GT(std::fabs(std::fabs(x2 - x) - 1.0), 1e-3);
}

}  // namespace
