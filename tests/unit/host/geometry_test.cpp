// The "Geometry" peer module, loaded through the dynamic loader as a host loads it:
// the linear step chain, points and point collections, the homogeneous transform, the
// plane, the point vector and the fitted line.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cwchar>
#include <string>
#include <vector>

#include "frame/Object.h"

namespace {

// Coordinates that pass through a few rotations by non-quarter angles.
constexpr double kRotationTolerance = 1e-12;
// Round trips through a chain of seven steps with scales around 0.5 .. 4.
constexpr double kRoundTripTolerance = 1e-9;

typedef HRESULT (*CreateFn)(tagREFString, void**);
typedef HRESULT (*CreatorFn)(void*, IID*, void**);

// Creates `name` from a peer module's creator and queries it for I; null on any failure.
IUnknown* CreateFromModule(void* module, const wchar_t* name, const IID& asked) {
  if (!module) return nullptr;
  auto create = reinterpret_cast<CreateFn>(dlsym(module, "CreateFunction"));
  if (!create) return nullptr;
  void* creator = nullptr;
  const tagREFString text{static_cast<int32_t>(std::wcslen(name)), name};
  if (create(text, &creator) != S_OK || !creator) return nullptr;
  IID iid = asked;
  void* object = nullptr;
  if (reinterpret_cast<CreatorFn>(creator)(nullptr, &iid, &object) != S_OK) return nullptr;
  return static_cast<IUnknown*>(object);
}

void* GeometryModule() {
  static void* handle = dlopen("./_binlinux/Geometry.so", RTLD_NOW);  // never unloaded
  return handle;
}

template <class I>
I* CreateGeometry(const wchar_t* name) {
  return static_cast<I*>(static_cast<void*>(CreateFromModule(GeometryModule(), name, I::Iid())));
}

// Hands Geometry the global component collection, as a host does, so that its objects
// can create objects of other modules ("DblBuffer"). False when a module is missing.
bool ConnectGeometryToHost() {
  void* collectionsEx = dlopen("./_binlinux/CollectionsEx.so", RTLD_NOW);
  IUnknown* global = CreateFromModule(collectionsEx, L"GlobalComponentCollection", IID_IComponentCollection);
  if (!global) return false;
  typedef HRESULT (*InitializeFn)(void*, IComponentCollection*);
  auto initialize = reinterpret_cast<InitializeFn>(dlsym(GeometryModule(), "InitializeModule"));
  const bool done = initialize && initialize(nullptr, static_cast<IComponentCollection*>(static_cast<void*>(global))) == S_OK;
  global->Release();
  return done;
}

template <class I>
I* Query(IUnknown* from) {
  void* p = nullptr;
  if (from->QueryInterface(I::Iid(), &p) != S_OK) return nullptr;
  return static_cast<I*>(p);
}

std::wstring ObjectName(IUnknown* object) {
  IObjectInfo* info = Query<IObjectInfo>(object);
  if (!info) return L"<no IObjectInfo>";
  tagREFString name{0, nullptr};
  info->GetName(0, &name);
  info->Release();
  return name.m_Text ? std::wstring(name.m_Text, static_cast<size_t>(name.m_Length)) : std::wstring();
}

struct Point3 {
  double x, y, z;
};

Point3 Apply(ILinearTransform* chain, Point3 p) {
  chain->Convert(&p.x, &p.y, &p.z);
  return p;
}

#define EXPECT_POINT_NEAR(p, ex, ey, ez, tol) \
  do {                                        \
    EXPECT_NEAR((p).x, (ex), (tol));          \
    EXPECT_NEAR((p).y, (ey), (tol));          \
    EXPECT_NEAR((p).z, (ez), (tol));          \
  } while (0)

#define EXPECT_POINT_EQ(p, ex, ey, ez) \
  do {                                 \
    EXPECT_EQ((p).x, (ex));            \
    EXPECT_EQ((p).y, (ey));            \
    EXPECT_EQ((p).z, (ez));            \
  } while (0)

// ---------------------------------------------------------------- LinearTransform

class LinearTransformTest : public ::testing::Test {
 protected:
  void SetUp() override {
    chain = CreateGeometry<ILinearTransform>(L"LinearTransform");
    ASSERT_NE(chain, nullptr);
  }
  void TearDown() override {
    if (chain) {
      EXPECT_EQ(chain->Release(), 0);
    }
  }
  ILinearTransform* chain = nullptr;
};

TEST_F(LinearTransformTest, AnswersItsInterfacesAndName) {
  ITransform* transform = Query<ITransform>(chain);
  ASSERT_NE(transform, nullptr);
  EXPECT_EQ(transform->Release(), 1);
  EXPECT_EQ(ObjectName(chain), L"LinearTransform");
  void* other = reinterpret_cast<void*>(1);
  EXPECT_EQ(chain->QueryInterface(IID_IPoint, &other), E_NOINTERFACE);
  EXPECT_EQ(other, nullptr);
}

TEST_F(LinearTransformTest, EmptyChainLeavesThePointAndResetEmptiesTheChain) {
  EXPECT_POINT_EQ(Apply(chain, {1.5, -2, 3}), 1.5, -2.0, 3.0);
  chain->AddStep(STEP_TRANSLATE, 0, 1, 1, 1);
  chain->AddStep(STEP_ROLL, 1, 90, 0, 0);
  int count = -1;
  ASSERT_EQ(chain->get_StepCount(&count), S_OK);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(chain->Reset(), S_OK);
  chain->get_StepCount(&count);
  EXPECT_EQ(count, 0);
  EXPECT_POINT_EQ(Apply(chain, {1.5, -2, 3}), 1.5, -2.0, 3.0);
}

TEST_F(LinearTransformTest, EachRotationAxisByAQuarterTurnIsExact) {
  // Roll about Z takes x toward y: (1, 2, 3) -> (-2, 1, 3).
  chain->AddStep(STEP_ROLL, 1, 90, 0, 0);
  EXPECT_POINT_EQ(Apply(chain, {1, 2, 3}), -2.0, 1.0, 3.0);
  // Pitch about X takes y toward z: (1, 2, 3) -> (1, -3, 2).
  chain->Reset();
  chain->AddStep(STEP_PITCH, 1, 90, 0, 0);
  EXPECT_POINT_EQ(Apply(chain, {1, 2, 3}), 1.0, -3.0, 2.0);
  // Yaw about Y takes z toward x: (1, 2, 3) -> (3, 2, -1).
  chain->Reset();
  chain->AddStep(STEP_YAW, 1, 90, 0, 0);
  EXPECT_POINT_EQ(Apply(chain, {1, 2, 3}), 3.0, 2.0, -1.0);
}

TEST_F(LinearTransformTest, AnglesAreDegreesCounterClockwisePositive) {
  // Roll 30: (2, 0, 5) -> (2 cos 30, 2 sin 30, 5) = (sqrt 3, 1, 5).
  chain->AddStep(STEP_ROLL, 1, 30, 0, 0);
  EXPECT_POINT_NEAR(Apply(chain, {2, 0, 5}), std::sqrt(3.0), 1.0, 5.0, kRotationTolerance);
  // Pitch 60: (0, 2, 0) -> (0, 2 cos 60, 2 sin 60) = (0, 1, sqrt 3).
  chain->Reset();
  chain->AddStep(STEP_PITCH, 1, 60, 0, 0);
  EXPECT_POINT_NEAR(Apply(chain, {0, 2, 0}), 0.0, 1.0, std::sqrt(3.0), kRotationTolerance);
  // Yaw -45: (0, 0, sqrt 2) -> x = sqrt 2 sin(-45) = -1, z = sqrt 2 cos(-45) = 1.
  chain->Reset();
  chain->AddStep(STEP_YAW, 1, -45, 0, 0);
  EXPECT_POINT_NEAR(Apply(chain, {0, 0, std::sqrt(2.0)}), -1.0, 0.0, 1.0, kRotationTolerance);
  // Whole turns: 450 is 90 and -90 turns clockwise, (1, 0, 0) -> (0, 1, 0) then back.
  chain->Reset();
  chain->AddStep(STEP_ROLL, 0, 450, 0, 0);
  EXPECT_POINT_EQ(Apply(chain, {1, 0, 0}), 0.0, 1.0, 0.0);
  chain->AddStep(STEP_ROLL, 1, -90, 0, 0);
  EXPECT_POINT_EQ(Apply(chain, {1, 0, 0}), 1.0, 0.0, 0.0);
}

TEST_F(LinearTransformTest, StepsApplyInTheOrderAdded) {
  // Translate (1, 2, 0) then roll 90: (1, 0, 0) -> (2, 2, 0) -> (-2, 2, 0).
  chain->AddStep(STEP_TRANSLATE, 0, 1, 2, 0);
  chain->AddStep(STEP_ROLL, 1, 90, 0, 0);
  EXPECT_POINT_EQ(Apply(chain, {1, 0, 0}), -2.0, 2.0, 0.0);
  // Roll 90 then translate: (1, 0, 0) -> (0, 1, 0) -> (1, 3, 0).
  chain->Reset();
  chain->AddStep(STEP_ROLL, 0, 90, 0, 0);
  chain->AddStep(STEP_TRANSLATE, 1, 1, 2, 0);
  EXPECT_POINT_EQ(Apply(chain, {1, 0, 0}), 1.0, 3.0, 0.0);
  // Scale (2, 3, 4) then translate (1, 1, 1): (1, 1, 1) -> (2, 3, 4) -> (3, 4, 5).
  chain->Reset();
  chain->AddStep(STEP_SCALE, 0, 2, 3, 4);
  chain->AddStep(STEP_TRANSLATE, 1, 1, 1, 1);
  EXPECT_POINT_EQ(Apply(chain, {1, 1, 1}), 3.0, 4.0, 5.0);
  // Translate then scale: (1, 1, 1) -> (2, 2, 2) -> (4, 6, 8).
  chain->Reset();
  chain->AddStep(STEP_TRANSLATE, 0, 1, 1, 1);
  chain->AddStep(STEP_SCALE, 1, 2, 3, 4);
  EXPECT_POINT_EQ(Apply(chain, {1, 1, 1}), 4.0, 6.0, 8.0);
  // Rotations act on the point as turned so far, about the fixed axes:
  // roll 90 then pitch 90: (1, 0, 0) -> (0, 1, 0) -> (0, 0, 1);
  chain->Reset();
  chain->AddStep(STEP_ROLL, 0, 90, 0, 0);
  chain->AddStep(STEP_PITCH, 1, 90, 0, 0);
  EXPECT_POINT_EQ(Apply(chain, {1, 0, 0}), 0.0, 0.0, 1.0);
  // pitch 90 then roll 90: (1, 0, 0) -> (1, 0, 0) -> (0, 1, 0).
  chain->Reset();
  chain->AddStep(STEP_PITCH, 0, 90, 0, 0);
  chain->AddStep(STEP_ROLL, 1, 90, 0, 0);
  EXPECT_POINT_EQ(Apply(chain, {1, 0, 0}), 0.0, 1.0, 0.0);
}

// The two chains of a hand-set linear camera calibration: camera origin, camera roll,
// scale, translation, then roll, pitch, yaw; the reverse undoes them from the end.
struct LinearCamera {
  double originX, originY, cameraRoll, sx, sy, sz, tx, ty, tz, roll, pitch, yaw;
  void Forward(ILinearTransform* t) const {
    t->Reset();
    t->AddStep(STEP_TRANSLATE, 0, -originX, -originY, 0);
    t->AddStep(STEP_ROLL, 0, cameraRoll, 0, 0);
    t->AddStep(STEP_SCALE, 0, sx, sy, sz);
    t->AddStep(STEP_TRANSLATE, 0, tx, ty, tz);
    t->AddStep(STEP_ROLL, 0, roll, 0, 0);
    t->AddStep(STEP_PITCH, 0, pitch, 0, 0);
    t->AddStep(STEP_YAW, 1, yaw, 0, 0);
  }
  void Reverse(ILinearTransform* t) const {
    t->Reset();
    t->AddStep(STEP_YAW, 0, -yaw, 0, 0);
    t->AddStep(STEP_PITCH, 0, -pitch, 0, 0);
    t->AddStep(STEP_ROLL, 0, -roll, 0, 0);
    t->AddStep(STEP_TRANSLATE, 0, -tx, -ty, -tz);
    t->AddStep(STEP_SCALE, 0, 1 / sx, 1 / sy, 1 / sz);
    t->AddStep(STEP_ROLL, 0, -cameraRoll, 0, 0);
    t->AddStep(STEP_TRANSLATE, 1, originX, originY, 0);
  }
};

TEST_F(LinearTransformTest, CameraChainMapsAHandWorkedPointAndTheReverseRestoresIt) {
  // Origin (10, 20), camera roll 90, scale (2, 2, 1), translate (1, 0, 0), pitch 90:
  // (11, 20, 0) -> (1, 0, 0) -> roll (0, 1, 0) -> scale (0, 2, 0) -> (1, 2, 0)
  //             -> pitch (1, 0, 2).
  const LinearCamera simple{10, 20, 90, 2, 2, 1, 1, 0, 0, 0, 90, 0};
  simple.Forward(chain);
  EXPECT_POINT_EQ(Apply(chain, {11, 20, 0}), 1.0, 0.0, 2.0);
  ILinearTransform* reverse = CreateGeometry<ILinearTransform>(L"LinearTransform");
  ASSERT_NE(reverse, nullptr);
  simple.Reverse(reverse);
  EXPECT_POINT_EQ(Apply(reverse, {1, 0, 2}), 11.0, 20.0, 0.0);

  // Every angle off the quarter turns, unequal scales: forward then reverse is identity.
  const LinearCamera general{3.5, -7.25, 12.5, 0.5, 4, 1.25, 100, -50, 3, 33, -17, 71};
  general.Forward(chain);
  general.Reverse(reverse);
  for (const Point3& p : {Point3{0, 0, 0}, Point3{640, 480, 0}, Point3{-12.5, 3.75, 8}}) {
    const Point3 back = Apply(reverse, Apply(chain, p));
    EXPECT_POINT_NEAR(back, p.x, p.y, p.z, kRoundTripTolerance);
  }
  EXPECT_EQ(reverse->Release(), 0);
}

TEST_F(LinearTransformTest, RefusesUnknownStepKindsAndNullPoints) {
  EXPECT_EQ(chain->AddStep(0, 0, 1, 1, 1), E_INVALIDARG);
  EXPECT_EQ(chain->AddStep(6, 1, 1, 1, 1), E_INVALIDARG);
  int count = -1;
  chain->get_StepCount(&count);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(chain->get_StepCount(nullptr), E_POINTER);
  double x = 1, y = 2;
  EXPECT_EQ(chain->Convert(&x, &y, nullptr), E_POINTER);
  EXPECT_EQ(x, 1.0);
  // A non-finite angle is kept and poisons the result instead of dropping the step.
  ASSERT_EQ(chain->AddStep(STEP_ROLL, 1, INFINITY, 0, 0), S_OK);
  const Point3 p = Apply(chain, {1, 0, 0});
  EXPECT_TRUE(std::isnan(p.x));
}

// ---------------------------------------------------------------- Point, PointsCollection

TEST(GeometryPoint, KeepsItsCoordinatesAndRefusesNullOutputs) {
  IPoint* point = CreateGeometry<IPoint>(L"Point");
  ASSERT_NE(point, nullptr);
  EXPECT_EQ(ObjectName(point), L"Point");
  double x = -1, y = -1, z = -1;
  ASSERT_EQ(point->GetXYZ(&x, &y, &z), S_OK);
  EXPECT_POINT_EQ((Point3{x, y, z}), 0.0, 0.0, 0.0);
  point->SetXYZ(1.5, -2.5, 1e300);
  point->GetXYZ(&x, &y, &z);
  EXPECT_POINT_EQ((Point3{x, y, z}), 1.5, -2.5, 1e300);
  EXPECT_EQ(point->GetXYZ(&x, nullptr, &z), E_POINTER);
  EXPECT_EQ(point->Release(), 0);
}

class GeometryPointsCollection : public ::testing::Test {
 protected:
  void SetUp() override {
    points = CreateGeometry<IPointsCollection>(L"PointsCollection");
    ASSERT_NE(points, nullptr);
  }
  void TearDown() override {
    if (points) {
      EXPECT_EQ(points->Release(), 0);
    }
  }
  Point3 Item(int index) {
    Point3 p{NAN, NAN, NAN};
    IUnknown* item = nullptr;
    if (points->get_Item(index, &item) != S_OK || !item) return p;
    IPoint* point = Query<IPoint>(item);
    item->Release();
    if (!point) return p;
    point->GetXYZ(&p.x, &p.y, &p.z);
    point->Release();
    return p;
  }
  int Count() {
    int count = -1;
    points->get_Count(&count);
    return count;
  }
  IPointsCollection* points = nullptr;
};

TEST_F(GeometryPointsCollection, AddPointAppendsNewPointsInOrder) {
  EXPECT_EQ(ObjectName(points), L"PointsCollection");
  EXPECT_EQ(Count(), 0);
  points->AddPoint(1, 2, 3);
  points->AddPoint(4, 5, 6);
  EXPECT_EQ(Count(), 2);
  EXPECT_POINT_EQ(Item(0), 1.0, 2.0, 3.0);
  EXPECT_POINT_EQ(Item(1), 4.0, 5.0, 6.0);
  // The same list through ISimpleCollection.
  ISimpleCollection* simple = Query<ISimpleCollection>(points);
  ASSERT_NE(simple, nullptr);
  int count = -1;
  simple->get_Count(&count);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(simple->Release(), 1);
  EXPECT_EQ(points->Clear(), S_OK);
  EXPECT_EQ(Count(), 0);
}

TEST_F(GeometryPointsCollection, AddSharesTheCallersPoint) {
  IPoint* point = CreateGeometry<IPoint>(L"Point");
  ASSERT_NE(point, nullptr);
  ASSERT_EQ(points->Add(point), S_OK);
  point->SetXYZ(7, 8, 9);  // seen through the collection: shared, not copied
  EXPECT_POINT_EQ(Item(0), 7.0, 8.0, 9.0);
  // Our reference and the collection's.
  EXPECT_EQ(point->AddRef(), 3);
  EXPECT_EQ(point->Release(), 2);
  points->Clear();
  EXPECT_EQ(point->Release(), 0);
}

TEST_F(GeometryPointsCollection, RefusesBadItemsIndicesAndOutputs) {
  ILinearTransform* notAPoint = CreateGeometry<ILinearTransform>(L"LinearTransform");
  ASSERT_NE(notAPoint, nullptr);
  EXPECT_EQ(points->Add(notAPoint), E_INVALIDARG);
  EXPECT_EQ(notAPoint->Release(), 0);  // no reference kept
  EXPECT_EQ(points->Add(nullptr), E_POINTER);
  EXPECT_EQ(Count(), 0);

  points->AddPoint(1, 1, 1);
  IUnknown* item = reinterpret_cast<IUnknown*>(1);
  EXPECT_EQ(points->get_Item(-1, &item), E_INVALIDARG);
  EXPECT_EQ(item, nullptr);
  EXPECT_EQ(points->get_Item(1, &item), E_INVALIDARG);
  EXPECT_EQ(points->get_Item(0, nullptr), E_POINTER);
  EXPECT_EQ(points->get_Count(nullptr), E_POINTER);
}

// ---------------------------------------------------------------- HomogeneousTransform

class GeometryHomogeneousTransform : public ::testing::Test {
 protected:
  void SetUp() override {
    transform = CreateGeometry<IHomogeneousTransform>(L"HomogeneousTransform");
    ASSERT_NE(transform, nullptr);
    int rows = 0, columns = 0;
    ASSERT_EQ(transform->GetMatrix(&m, &rows, &columns), S_OK);
    ASSERT_EQ(rows, 4);
    ASSERT_EQ(columns, 4);
  }
  void TearDown() override {
    if (transform) {
      EXPECT_EQ(transform->Release(), 0);
    }
  }
  Point3 Apply(Point3 p) {
    transform->Convert(&p.x, &p.y, &p.z);
    return p;
  }
  IHomogeneousTransform* transform = nullptr;
  double* m = nullptr;  // borrowed, row-major
};

TEST_F(GeometryHomogeneousTransform, StartsAsTheIdentity) {
  EXPECT_EQ(ObjectName(transform), L"HomogeneousTransform");
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) EXPECT_EQ(m[4 * r + c], r == c ? 1.0 : 0.0) << r << "," << c;
  EXPECT_POINT_EQ(Apply({1, -2, 3}), 1.0, -2.0, 3.0);
  ITransform* plain = Query<ITransform>(transform);
  ASSERT_NE(plain, nullptr);
  EXPECT_EQ(plain->Release(), 1);
}

TEST_F(GeometryHomogeneousTransform, ConvertsRowVectorsThroughTheLiveMatrix) {
  // Translation in row 3: (1, 2, 3) + (5, 6, 7) = (6, 8, 10).
  m[12] = 5, m[13] = 6, m[14] = 7;
  EXPECT_POINT_EQ(Apply({1, 2, 3}), 6.0, 8.0, 10.0);
  // Row 0, column 1 = 2 feeds x into y: (1, 0, 0) -> (1, 2, 0) + translation;
  // (0, 1, 0) keeps x (a column-vector reading would give x = 2).
  m[12] = m[13] = m[14] = 0;
  m[1] = 2;
  EXPECT_POINT_EQ(Apply({1, 0, 0}), 1.0, 2.0, 0.0);
  EXPECT_POINT_EQ(Apply({0, 1, 0}), 0.0, 1.0, 0.0);
  // The same pointer comes back: the matrix is live, not a copy.
  double* again = nullptr;
  transform->GetMatrix(&again, nullptr, nullptr);
  EXPECT_EQ(again, m);
}

TEST_F(GeometryHomogeneousTransform, DividesByTheFourthComponentAndRefusesZero) {
  // Column 3 row 0 = 1: w = x + 1. (1, 4, 6) -> w = 2 -> (0.5, 2, 3).
  m[3] = 1;
  EXPECT_POINT_EQ(Apply({1, 4, 6}), 0.5, 2.0, 3.0);
  // (-1, 4, 6): w = 0, no image; the point stays.
  double x = -1, y = 4, z = 6;
  EXPECT_EQ(transform->Convert(&x, &y, &z), E_FAIL);
  EXPECT_POINT_EQ((Point3{x, y, z}), -1.0, 4.0, 6.0);
  EXPECT_EQ(transform->Convert(&x, nullptr, &z), E_POINTER);
}

TEST_F(GeometryHomogeneousTransform, MovesPointsAndCollectionsInPlace) {
  m[12] = 10;  // x + 10
  IPointsCollection* points = CreateGeometry<IPointsCollection>(L"PointsCollection");
  IPoint* single = CreateGeometry<IPoint>(L"Point");
  ASSERT_NE(points, nullptr);
  ASSERT_NE(single, nullptr);
  points->AddPoint(1, 2, 3);
  points->AddPoint(-4, 0, 0);
  single->SetXYZ(0, 1, 0);

  ITransformableObject* movable = Query<ITransformableObject>(points);
  ASSERT_NE(movable, nullptr);
  EXPECT_EQ(movable->Transform(transform), S_OK);
  EXPECT_EQ(movable->Transform(nullptr), E_POINTER);
  EXPECT_EQ(movable->Release(), 1);
  ITransformableObject* movablePoint = Query<ITransformableObject>(single);
  ASSERT_NE(movablePoint, nullptr);
  EXPECT_EQ(movablePoint->Transform(transform), S_OK);
  EXPECT_EQ(movablePoint->Release(), 1);

  double x, y, z;
  single->GetXYZ(&x, &y, &z);
  EXPECT_POINT_EQ((Point3{x, y, z}), 10.0, 1.0, 0.0);
  IUnknown* item = nullptr;
  ASSERT_EQ(points->get_Item(1, &item), S_OK);
  IPoint* second = Query<IPoint>(item);
  item->Release();
  ASSERT_NE(second, nullptr);
  second->GetXYZ(&x, &y, &z);
  EXPECT_POINT_EQ((Point3{x, y, z}), 6.0, 0.0, 0.0);
  second->Release();
  EXPECT_EQ(points->Release(), 0);
  EXPECT_EQ(single->Release(), 0);
}

// ---------------------------------------------------------------- Plane, PointVector

TEST(GeometryPlane, NormalisesTheNormalAndScalesDAlike) {
  IPlane* plane = CreateGeometry<IPlane>(L"Plane");
  ASSERT_NE(plane, nullptr);
  EXPECT_EQ(ObjectName(plane), L"Plane");
  double a, b, c, d;
  plane->GetCoefficients(&a, &b, &c, &d);  // Z = 0
  EXPECT_EQ(a, 0.0);
  EXPECT_EQ(b, 0.0);
  EXPECT_EQ(c, 1.0);
  EXPECT_EQ(d, 0.0);
  // (0, 3, 4) has length 5: (0, 0.6, 0.8), d = -10 / 5 = -2.
  ASSERT_EQ(plane->SetCoefficients(0, 3, 4, -10), S_OK);
  plane->GetCoefficients(&a, &b, &c, &d);
  EXPECT_DOUBLE_EQ(a, 0.0);
  EXPECT_DOUBLE_EQ(b, 0.6);
  EXPECT_DOUBLE_EQ(c, 0.8);
  EXPECT_DOUBLE_EQ(d, -2.0);
  // A normal too large to square: (3e300, 0, -4e300) -> (0.6, 0, -0.8), d = 5e300 / 5e300.
  ASSERT_EQ(plane->SetCoefficients(3e300, 0, -4e300, 5e300), S_OK);
  plane->GetCoefficients(&a, &b, &c, &d);
  EXPECT_DOUBLE_EQ(a, 0.6);
  EXPECT_DOUBLE_EQ(c, -0.8);
  EXPECT_DOUBLE_EQ(d, 1.0);
  // Refused: zero normal, non-finite values, a d that overflows; the plane stays.
  EXPECT_EQ(plane->SetCoefficients(0, 0, 0, 1), E_INVALIDARG);
  EXPECT_EQ(plane->SetCoefficients(NAN, 0, 1, 0), E_INVALIDARG);
  EXPECT_EQ(plane->SetCoefficients(0, 0, 1, INFINITY), E_INVALIDARG);
  EXPECT_EQ(plane->SetCoefficients(0, 0, 1e-300, 1e300), E_INVALIDARG);
  plane->GetCoefficients(&a, &b, &c, &d);
  EXPECT_DOUBLE_EQ(a, 0.6);
  EXPECT_DOUBLE_EQ(d, 1.0);
  EXPECT_EQ(plane->GetCoefficients(&a, &b, nullptr, &d), E_POINTER);
  EXPECT_EQ(plane->Release(), 0);
}

// An object of any peer through the global collection (streams and strings for the
// plane's stream forms); null when it cannot be made.
template <class I>
SmartPtr<I> HostCreate(const wchar_t* name) {
  SmartPtr<I> result;
  void* collectionsEx = dlopen("./_binlinux/CollectionsEx.so", RTLD_NOW);
  SmartPtr<IComponentCollection> global;
  global.Attach(static_cast<IComponentCollection*>(
      static_cast<void*>(CreateFromModule(collectionsEx, L"GlobalComponentCollection", IID_IComponentCollection))));
  void* object = nullptr;
  if (global && global->CreateComponent(static_cast<int>(std::wcslen(name)), name, &I::Iid(), &object) == S_OK)
    result.Attach(static_cast<I*>(object));
  return result;
}

SmartPtr<IString> HostString(const wchar_t* text) {
  SmartPtr<ICreatableString> s = HostCreate<ICreatableString>(L"CreatableString");
  if (s) s->SetString(static_cast<int>(std::wcslen(text)), text);
  return SmartPtr<IString>(s.get());
}

std::vector<double> Coefficients(IPlane* plane) {
  std::vector<double> v(4, NAN);
  plane->GetCoefficients(&v[0], &v[1], &v[2], &v[3]);
  return v;
}

// The content of the one element of an XML text, as the module receives a part of a file.
SmartPtr<IDataStream> XmlContent(const std::wstring& document) {
  SmartPtr<IXMLStream> in = HostCreate<IXMLStream>(L"XMLStream");
  tagREFString tag{0, nullptr};
  SmartPtr<IUnknown> content;
  if (!in || in->Attach(const_cast<wchar_t*>(document.c_str()), document.size() * sizeof(wchar_t), 0) < 0 ||
      in->NextTag(&tag) < 0 || in->ReadElement(tag.m_Length, tag.m_Text, nullptr, content.Out(), 0) < 0)
    return SmartPtr<IDataStream>();
  return QueryAs<IDataStream>(content);
}

TEST(GeometryPlane, StreamFormsGiveEveryBitBack) {
  ASSERT_TRUE(ConnectGeometryToHost());
  SmartPtr<IPlane> plane, folderCopy, xmlCopy;
  plane.Attach(CreateGeometry<IPlane>(L"Plane"));
  folderCopy.Attach(CreateGeometry<IPlane>(L"Plane"));
  xmlCopy.Attach(CreateGeometry<IPlane>(L"Plane"));
  ASSERT_TRUE(plane && folderCopy && xmlCopy);
  ASSERT_EQ(plane->SetCoefficients(0.3, -0.7, 2.0, 5.5), S_OK);

  SmartPtr<IDataStream> folder = HostCreate<IDataStream>(L"FolderStream");
  ASSERT_TRUE(folder);
  folder->Open(nullptr, 1000, 1);
  ASSERT_EQ(QueryAs<IDataPersist>(plane)->Save(folder, 0), S_OK);
  ASSERT_EQ(QueryAs<IDataPersist>(folderCopy)->Load(folder, 0), S_OK);
  EXPECT_EQ(Coefficients(folderCopy), Coefficients(plane));

  SmartPtr<IXMLStream> xml = HostCreate<IXMLStream>(L"XMLStreamEx");
  ASSERT_TRUE(xml);
  xml->Attach(nullptr, 0, 0);
  xml->OpenTag(HostString(L"Plane"), 0, 0);
  ASSERT_EQ(QueryAs<IDataPersist>(plane)->Save(xml, 0), S_OK);
  xml->CloseTag();
  const wchar_t* text = nullptr;
  int length = 0;
  QueryAs<IString>(xml)->GetString(&text, &length);
  const std::wstring document(text, static_cast<size_t>(length));
  EXPECT_NE(document.find(L"<D>2.569981224337"), std::wstring::npos) << "d / |n| = 5.5 / sqrt(4.58), to all digits";
  SmartPtr<IDataStream> content = XmlContent(document);
  ASSERT_TRUE(content);
  ASSERT_EQ(QueryAs<IDataPersist>(xmlCopy)->Load(content, 0), S_OK);
  EXPECT_EQ(Coefficients(xmlCopy), Coefficients(plane));
}

TEST(GeometryPlane, LoadNormalisesAWrittenNormalAndRefusesWhatItCannotRead) {
  ASSERT_TRUE(ConnectGeometryToHost());
  SmartPtr<IPlane> plane;
  plane.Attach(CreateGeometry<IPlane>(L"Plane"));
  ASSERT_TRUE(plane);
  SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(plane);
  // (0, 3, 4) has length 5.
  ASSERT_EQ(persist->Load(XmlContent(L"<Plane><A>0</A><B> 3 </B><C>4</C><D>-10</D></Plane>"), 0), S_OK);
  const std::vector<double> expected = {0.0, 0.6, 0.8, -2.0};
  for (int i = 0; i < 4; ++i) EXPECT_DOUBLE_EQ(Coefficients(plane)[i], expected[i]);
  const std::vector<double> kept = Coefficients(plane);
  for (const wchar_t* bad : {L"<Plane><A>0</A><B>3</B><C>4</C></Plane>", L"<Plane><A>0</A><B>3</B><C>4x</C><D>1</D></Plane>",
                             L"<Plane><A>0</A><B>0</B><C>0</C><D>1</D></Plane>", L"<Plane><A>0</A><B>3</B><C>4</C><D>nan</D></Plane>",
                             L"<Plane><A>0</A><B>3</B><C>1e999</C><D>1</D></Plane>"}) {
    EXPECT_LT(persist->Load(XmlContent(bad), 0), 0) << std::string(bad, bad + std::wcslen(bad));
    EXPECT_EQ(Coefficients(plane), kept);
  }
  SmartPtr<IDataStream> empty = HostCreate<IDataStream>(L"FolderStream");
  empty->Open(nullptr, 1000, 1);
  EXPECT_EQ(persist->Load(empty, 0), E_FAIL) << "a folder without the four values";
  SmartPtr<IDataStream> plain = HostCreate<IDataStream>(L"DataStream");
  plain->Open(nullptr, 1000, 1);
  EXPECT_EQ(persist->Save(plain, 0), E_FAIL);
  EXPECT_EQ(persist->Load(plain, 0), E_FAIL);
  EXPECT_EQ(persist->Save(nullptr, 0), E_POINTER);
  EXPECT_EQ(Coefficients(plane), kept);
}

TEST(GeometryPointVector, PointsAlongItsDirectionAndFollowsATransform) {
  IPointVector* ray = CreateGeometry<IPointVector>(L"PointVector");
  ASSERT_NE(ray, nullptr);
  EXPECT_EQ(ObjectName(ray), L"PointVector");
  double x, y, z;
  ray->get_Direction(&x, &y, &z, 2.0);  // starts along +Z: 2 (0, 0, 1)
  EXPECT_POINT_EQ((Point3{x, y, z}), 0.0, 0.0, 2.0);
  ray->put_Origin(1, 2, 3);
  ray->put_Direction(0, 2, 0);
  // (1, 2, 3) + 1.5 (0, 2, 0) = (1, 5, 3).
  ray->PointAt(&x, &y, &z, 1.5);
  EXPECT_POINT_EQ((Point3{x, y, z}), 1.0, 5.0, 3.0);

  // Roll 90 about Z as a row-vector matrix (rows are the images of x and y), then
  // translate by (10, 0, 0): origin (1, 2, 3) -> (-2, 1, 3) -> (8, 1, 3);
  // direction (0, 2, 0) -> (-2, 0, 0), untouched by the translation.
  IHomogeneousTransform* transform = CreateGeometry<IHomogeneousTransform>(L"HomogeneousTransform");
  ASSERT_NE(transform, nullptr);
  double* m = nullptr;
  transform->GetMatrix(&m, nullptr, nullptr);
  m[0] = 0, m[1] = 1, m[4] = -1, m[5] = 0, m[12] = 10;
  ITransformableObject* movable = Query<ITransformableObject>(ray);
  ASSERT_NE(movable, nullptr);
  EXPECT_EQ(movable->Transform(transform), S_OK);
  ray->get_Origin(&x, &y, &z);
  EXPECT_POINT_EQ((Point3{x, y, z}), 8.0, 1.0, 3.0);
  ray->get_Direction(&x, &y, &z, 1.0);
  EXPECT_POINT_EQ((Point3{x, y, z}), -2.0, 0.0, 0.0);
  // A transform that has no image for the origin leaves the ray alone: w = x - 8 = 0.
  m[3] = 1, m[15] = -8;
  EXPECT_EQ(movable->Transform(transform), E_FAIL);
  ray->get_Origin(&x, &y, &z);
  EXPECT_POINT_EQ((Point3{x, y, z}), 8.0, 1.0, 3.0);
  EXPECT_EQ(ray->PointAt(&x, nullptr, &z, 1.0), E_POINTER);
  EXPECT_EQ(movable->Release(), 1);
  EXPECT_EQ(transform->Release(), 0);
  EXPECT_EQ(ray->Release(), 0);
}

// ---------------------------------------------------------------- LineSegment

class GeometryLineSegment : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(ConnectGeometryToHost());
    line = CreateGeometry<ILineSegment>(L"LineSegment");
    ASSERT_NE(line, nullptr);
    fitting = Query<IGeometricFitting>(line);
    ASSERT_NE(fitting, nullptr);
    points = CreateGeometry<IPointsCollection>(L"PointsCollection");
    ASSERT_NE(points, nullptr);
  }
  void TearDown() override {
    if (points) {
      EXPECT_EQ(points->Release(), 0);
    }
    if (fitting) fitting->Release();
    if (line) {
      EXPECT_EQ(line->Release(), 0);
    }
  }
  void Add(std::initializer_list<Point3> list) {
    for (const Point3& p : list) points->AddPoint(p.x, p.y, p.z);
  }
  // The residuals of the current points, or an empty list when they cannot be had.
  std::vector<double> Residuals() {
    std::vector<double> values;
    IDblVector* vector = nullptr;
    if (fitting->GetResiduals(points, &vector) != S_OK || !vector) return values;
    int count = 0;
    vector->get_Count(&count);
    for (int i = 0; i < count; ++i) {
      double v = NAN;
      vector->get_Item(i, &v);
      values.push_back(v);
    }
    EXPECT_EQ(vector->Release(), 0);
    return values;
  }
  Point3 Start() {
    Point3 a{}, b{};
    line->GetEnds(&a.x, &a.y, &a.z, &b.x, &b.y, &b.z);
    return a;
  }
  Point3 End() {
    Point3 a{}, b{};
    line->GetEnds(&a.x, &a.y, &a.z, &b.x, &b.y, &b.z);
    return b;
  }
  ILineSegment* line = nullptr;
  IGeometricFitting* fitting = nullptr;
  IPointsCollection* points = nullptr;
};

TEST_F(GeometryLineSegment, FitsAHorizontalBandWithSignedDistances) {
  EXPECT_EQ(ObjectName(line), L"LineSegment");
  // The corners of a 4 x 2 box centred on (2, 0): the line is y = 0, running +x (first
  // point (0, 1) to last (4, -1)), so the distance is y itself; ends at x = 0 and 4.
  Add({{0, 1, 0}, {0, -1, 0}, {4, 1, 0}, {4, -1, 0}});
  ASSERT_EQ(fitting->Fit(points), S_OK);
  const std::vector<double> r = Residuals();
  ASSERT_EQ(r.size(), 4u);
  EXPECT_NEAR(r[0], 1.0, kRotationTolerance);
  EXPECT_NEAR(r[1], -1.0, kRotationTolerance);
  EXPECT_NEAR(r[2], 1.0, kRotationTolerance);
  EXPECT_NEAR(r[3], -1.0, kRotationTolerance);
  EXPECT_POINT_NEAR(Start(), 0.0, 0.0, 0.0, kRotationTolerance);
  EXPECT_POINT_NEAR(End(), 4.0, 0.0, 0.0, kRotationTolerance);
  // Other points against the same line: (7, 3) lies 3 above, (-1, -2.5) 2.5 below.
  points->Clear();
  Add({{7, 3, 0}, {-1, -2.5, 0}});
  const std::vector<double> other = Residuals();
  ASSERT_EQ(other.size(), 2u);
  EXPECT_NEAR(other[0], 3.0, kRotationTolerance);
  EXPECT_NEAR(other[1], -2.5, kRotationTolerance);
}

TEST_F(GeometryLineSegment, MinimisesPerpendicularNotVerticalDistances) {
  // The box corners (x, y) = (-2, -1), (-2, 1), (2, -1), (2, 1) turned by 45 degrees:
  // (x - y, x + y) / sqrt 2. The perpendicular fit is the turned x axis, direction
  // (1, 1) / sqrt 2, and the distances are the original y: -1, 1, -1, 1. A regression of
  // y on x would give slope Sxy / Sxx = 6 / 10 instead, and other distances.
  const double h = 1.0 / std::sqrt(2.0);
  Add({{-h, -3 * h, 0}, {-3 * h, -h, 0}, {3 * h, h, 0}, {h, 3 * h, 0}});
  ASSERT_EQ(fitting->Fit(points), S_OK);
  std::vector<double> r = Residuals();
  ASSERT_EQ(r.size(), 4u);
  EXPECT_NEAR(r[0], -1.0, kRotationTolerance);
  EXPECT_NEAR(r[1], 1.0, kRotationTolerance);
  EXPECT_NEAR(r[2], -1.0, kRotationTolerance);
  EXPECT_NEAR(r[3], 1.0, kRotationTolerance);
  // Ends: the outermost projections, x = -2 and 2 on the turned axis: -+(sqrt 2, sqrt 2).
  EXPECT_POINT_NEAR(Start(), -std::sqrt(2.0), -std::sqrt(2.0), 0.0, kRotationTolerance);
  EXPECT_POINT_NEAR(End(), std::sqrt(2.0), std::sqrt(2.0), 0.0, kRotationTolerance);

  // The same points from last to first: the line runs the other way, and the signs flip.
  points->Clear();
  Add({{h, 3 * h, 0}, {3 * h, h, 0}, {-3 * h, -h, 0}, {-h, -3 * h, 0}});
  ASSERT_EQ(fitting->Fit(points), S_OK);
  r = Residuals();
  ASSERT_EQ(r.size(), 4u);
  EXPECT_NEAR(r[0], -1.0, kRotationTolerance);  // original y = 1, now on the right
  EXPECT_NEAR(r[3], 1.0, kRotationTolerance);   // original y = -1
}

TEST_F(GeometryLineSegment, SetEndsGivesTheLineAndBadInputIsRefused) {
  // Before any line: no residuals.
  Add({{1, 1, 0}});
  IDblVector* vector = reinterpret_cast<IDblVector*>(1);
  EXPECT_EQ(fitting->GetResiduals(points, &vector), E_FAIL);
  EXPECT_EQ(vector, nullptr);
  // One point, or points on one spot, fit no line.
  EXPECT_EQ(fitting->Fit(points), E_INVALIDARG);
  Add({{1, 1, 0}});
  EXPECT_EQ(fitting->Fit(points), E_FAIL);
  EXPECT_EQ(fitting->Fit(nullptr), E_POINTER);
  EXPECT_EQ(line->SetEnds(2, 2, 0, 2, 2, 5), E_INVALIDARG);  // same x, y
  // Upward from (0, 0) to (0, 2): (1, 1) lies on the right, distance -1.
  ASSERT_EQ(line->SetEnds(0, 0, 0, 0, 2, 0), S_OK);
  points->Clear();
  Add({{1, 1, 0}, {-3, 7, 0}});
  const std::vector<double> r = Residuals();
  ASSERT_EQ(r.size(), 2u);
  EXPECT_NEAR(r[0], -1.0, kRotationTolerance);
  EXPECT_NEAR(r[1], 3.0, kRotationTolerance);
  // A failed fit keeps the line: one point is too few.
  points->Clear();
  Add({{100, 100, 0}});
  EXPECT_EQ(fitting->Fit(points), E_INVALIDARG);
  EXPECT_POINT_EQ(End(), 0.0, 2.0, 0.0);
  EXPECT_EQ(fitting->GetResiduals(points, nullptr), E_POINTER);
}

}  // namespace
