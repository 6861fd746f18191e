// The "Geometry" peer, made through the global collection as the module makes it: the
// linear step chain, point collections, the homogeneous transform, the plane, the point
// vector and the fitted line, against values worked out by hand from host/README.md.
#include <gtest/gtest.h>

#include <cmath>
#include <ostream>
#include <vector>

#include "tests/unit/TestText.h"

using namespace test_text;

namespace {

constexpr double kExact = 0.0;
// Coordinates that pass through a few rotations by non-quarter angles.
constexpr double kRotationTolerance = 1e-12;
// Round trips through a chain of seven steps with scales around 0.5 .. 4.
constexpr double kRoundTripTolerance = 1e-9;

struct P3 {
  double x, y, z;
};
std::ostream& operator<<(std::ostream& out, const P3& p) { return out << '(' << p.x << ", " << p.y << ", " << p.z << ')'; }

::testing::AssertionResult Near(const P3& got, const P3& want, double tolerance) {
  if (std::fabs(got.x - want.x) <= tolerance && std::fabs(got.y - want.y) <= tolerance &&
      std::fabs(got.z - want.z) <= tolerance)
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << got << " is not within " << tolerance << " of " << want;
}

template <class T>
P3 Apply(T* transform, P3 p) {
  transform->Convert(&p.x, &p.y, &p.z);
  return p;
}

P3 Item(IPointsCollection* points, int index) {
  P3 p{NAN, NAN, NAN};
  SmartPtr<IUnknown> item;
  points->get_Item(index, item.Out());
  if (SmartPtr<IPoint> point = QueryAs<IPoint>(item)) point->GetXYZ(&p.x, &p.y, &p.z);
  return p;
}

SmartPtr<IPointsCollection> Points(std::initializer_list<P3> list) {
  SmartPtr<IPointsCollection> points = CreateHostObject<IPointsCollection>(L"PointsCollection");
  for (const P3& p : list) points->AddPoint(p.x, p.y, p.z);
  return points;
}

// ---------------------------------------------------------------- LinearTransform

typedef std::vector<std::vector<double>> Steps;  // each: kind, a, b, c

void Build(ILinearTransform* chain, const Steps& steps) {
  chain->Reset();
  for (const std::vector<double>& s : steps)
    chain->AddStep(static_cast<int>(s[0]), 0, s[1], s.size() > 2 ? s[2] : 0, s.size() > 3 ? s[3] : 0);
}

const double kRoot2 = std::sqrt(2.0), kRoot3 = std::sqrt(3.0);

const struct {
  const char* what;
  Steps steps;
  P3 in, out;
  double tolerance;
} kChains[] = {
    {"an empty chain leaves the point", {}, {1.5, -2, 3}, {1.5, -2, 3}, kExact},
    {"roll turns x toward y", {{STEP_ROLL, 90}}, {1, 2, 3}, {-2, 1, 3}, kExact},
    {"pitch turns y toward z", {{STEP_PITCH, 90}}, {1, 2, 3}, {1, -3, 2}, kExact},
    {"yaw turns z toward x", {{STEP_YAW, 90}}, {1, 2, 3}, {3, 2, -1}, kExact},
    {"roll 30 degrees", {{STEP_ROLL, 30}}, {2, 0, 5}, {kRoot3, 1, 5}, kRotationTolerance},
    {"pitch 60 degrees", {{STEP_PITCH, 60}}, {0, 2, 0}, {0, 1, kRoot3}, kRotationTolerance},
    {"yaw -45 degrees", {{STEP_YAW, -45}}, {0, 0, kRoot2}, {-1, 0, 1}, kRotationTolerance},
    {"roll 210 degrees", {{STEP_ROLL, 210}}, {2, 0, 5}, {-kRoot3, -1, 5}, kRotationTolerance},
    {"450 degrees is a quarter turn, exactly", {{STEP_ROLL, 450}}, {1, 0, 0}, {0, 1, 0}, kExact},
    {"-90 degrees turns back", {{STEP_ROLL, 450}, {STEP_ROLL, -90}}, {1, 0, 0}, {1, 0, 0}, kExact},
    {"translate then roll", {{STEP_TRANSLATE, 1, 2, 0}, {STEP_ROLL, 90}}, {1, 0, 0}, {-2, 2, 0}, kExact},
    {"roll then translate", {{STEP_ROLL, 90}, {STEP_TRANSLATE, 1, 2, 0}}, {1, 0, 0}, {1, 3, 0}, kExact},
    {"scale then translate", {{STEP_SCALE, 2, 3, 4}, {STEP_TRANSLATE, 1, 1, 1}}, {1, 1, 1}, {3, 4, 5}, kExact},
    {"translate then scale", {{STEP_TRANSLATE, 1, 1, 1}, {STEP_SCALE, 2, 3, 4}}, {1, 1, 1}, {4, 6, 8}, kExact},
    {"roll then pitch, about the fixed axes", {{STEP_ROLL, 90}, {STEP_PITCH, 90}}, {1, 0, 0}, {0, 0, 1}, kExact},
    {"pitch then roll", {{STEP_PITCH, 90}, {STEP_ROLL, 90}}, {1, 0, 0}, {0, 1, 0}, kExact},
};

TEST(LinearTransform, EachChainMapsItsHandWorkedPoint) {
  SmartPtr<ILinearTransform> chain = CreateHostObject<ILinearTransform>(L"LinearTransform");
  ASSERT_TRUE(chain);
  for (const auto& c : kChains) {
    Build(chain, c.steps);
    EXPECT_TRUE(Near(Apply(chain.get(), c.in), c.out, c.tolerance)) << c.what;
  }
}

// The two chains of a hand-set linear camera calibration: camera origin, camera roll,
// scale, translation, then roll, pitch, yaw; the reverse undoes them from the end.
struct LinearCamera {
  double originX, originY, cameraRoll, sx, sy, sz, tx, ty, tz, roll, pitch, yaw;
  Steps Forward() const {
    return {{STEP_TRANSLATE, -originX, -originY, 0}, {STEP_ROLL, cameraRoll}, {STEP_SCALE, sx, sy, sz},
            {STEP_TRANSLATE, tx, ty, tz}, {STEP_ROLL, roll}, {STEP_PITCH, pitch}, {STEP_YAW, yaw}};
  }
  Steps Reverse() const {
    return {{STEP_YAW, -yaw}, {STEP_PITCH, -pitch}, {STEP_ROLL, -roll}, {STEP_TRANSLATE, -tx, -ty, -tz},
            {STEP_SCALE, 1 / sx, 1 / sy, 1 / sz}, {STEP_ROLL, -cameraRoll}, {STEP_TRANSLATE, originX, originY, 0}};
  }
};

TEST(LinearTransform, CameraChainMapsAHandWorkedPointAndTheReverseRestoresIt) {
  SmartPtr<ILinearTransform> chain = CreateHostObject<ILinearTransform>(L"LinearTransform");
  SmartPtr<ILinearTransform> reverse = CreateHostObject<ILinearTransform>(L"LinearTransform");
  ASSERT_TRUE(chain && reverse);
  // Origin (10, 20), camera roll 90, scale (2, 2, 1), translate (1, 0, 0), pitch 90:
  // (11, 20, 0) -> (1, 0, 0) -> roll (0, 1, 0) -> scale (0, 2, 0) -> (1, 2, 0) -> pitch (1, 0, 2).
  const LinearCamera simple{10, 20, 90, 2, 2, 1, 1, 0, 0, 0, 90, 0};
  Build(chain, simple.Forward());
  EXPECT_TRUE(Near(Apply(chain.get(), {11, 20, 0}), {1, 0, 2}, kExact));
  Build(reverse, simple.Reverse());
  EXPECT_TRUE(Near(Apply(reverse.get(), {1, 0, 2}), {11, 20, 0}, kExact));
  // Every angle off the quarter turns, unequal scales: forward then reverse is identity.
  const LinearCamera general{3.5, -7.25, 12.5, 0.5, 4, 1.25, 100, -50, 3, 33, -17, 71};
  Build(chain, general.Forward());
  Build(reverse, general.Reverse());
  for (const P3& p : {P3{0, 0, 0}, P3{640, 480, 0}, P3{-12.5, 3.75, 8}})
    EXPECT_TRUE(Near(Apply(reverse.get(), Apply(chain.get(), p)), p, kRoundTripTolerance));
}

TEST(LinearTransform, RefusesUnknownKindsKeepsNonFiniteAnglesAndResets) {
  SmartPtr<ILinearTransform> chain = CreateHostObject<ILinearTransform>(L"LinearTransform");
  ASSERT_TRUE(chain);
  EXPECT_EQ(chain->AddStep(0, 0, 1, 1, 1), E_INVALIDARG);
  EXPECT_EQ(chain->AddStep(6, 1, 1, 1, 1), E_INVALIDARG);
  int count = -1;
  chain->get_StepCount(&count);
  EXPECT_EQ(count, 0);
  // A non-finite angle is kept and poisons the result instead of dropping the step.
  ASSERT_EQ(chain->AddStep(STEP_ROLL, 1, INFINITY, 0, 0), S_OK);
  EXPECT_TRUE(std::isnan(Apply(chain.get(), {1, 0, 0}).x));
  chain->get_StepCount(&count);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(chain->Reset(), S_OK);
  EXPECT_TRUE(Near(Apply(chain.get(), {1, 0, 0}), {1, 0, 0}, kExact));
}

// "LinearCalibration" keeps one chain: Convert runs it as LinearTransform does, Revert
// undoes it step by step from the end, which is the reverse chain built by hand.
TEST(LinearCalibration, ConvertsAsTheChainAndRevertsAsTheReverseChain) {
  SmartPtr<ILinearCalibration> calibration = CreateHostObject<ILinearCalibration>(L"LinearCalibration");
  SmartPtr<ILinearTransform> forward = CreateHostObject<ILinearTransform>(L"LinearTransform");
  SmartPtr<ILinearTransform> reverse = CreateHostObject<ILinearTransform>(L"LinearTransform");
  ASSERT_TRUE(calibration && forward && reverse);
  const LinearCamera general{3.5, -7.25, 12.5, 0.5, 4, 1.25, 100, -50, 3, 33, -17, 71};
  for (const std::vector<double>& s : general.Forward())
    calibration->AddStep(static_cast<int>(s[0]), 0, s[1], s.size() > 2 ? s[2] : 0, s.size() > 3 ? s[3] : 0);
  Build(forward, general.Forward());
  Build(reverse, general.Reverse());
  for (const P3& p : {P3{0, 0, 0}, P3{640, 480, 0}, P3{-12.5, 3.75, 8}}) {
    P3 q = p;
    ASSERT_EQ(calibration->Convert(&q.x, &q.y, &q.z), S_OK);
    EXPECT_TRUE(Near(q, Apply(forward.get(), p), kExact));
    ASSERT_EQ(calibration->Revert(&q.x, &q.y, &q.z), S_OK);
    EXPECT_TRUE(Near(q, Apply(reverse.get(), Apply(forward.get(), p)), kRoundTripTolerance));
  }
  // A zero scale has no inverse: the point stays and the result says so.
  calibration->Reset();
  calibration->AddStep(STEP_TRANSLATE, 0, 1, 2, 3);
  calibration->AddStep(STEP_SCALE, 1, 2, 0, 1);
  P3 p{5, 6, 7};
  EXPECT_EQ(calibration->Revert(&p.x, &p.y, &p.z), E_FAIL);
  EXPECT_TRUE(Near(p, {5, 6, 7}, kExact));
  int count = -1;
  calibration->get_StepCount(&count);
  EXPECT_EQ(count, 2);
}

// ---------------------------------------------------------------- PointsCollection

TEST(PointsCollection, AddSharesTheCallersPointAndRefusesOtherObjects) {
  SmartPtr<IPointsCollection> points = Points({{1, 2, 3}});
  SmartPtr<IPoint> point = CreateHostObject<IPoint>(L"Point");
  ASSERT_TRUE(points && point);
  ASSERT_EQ(points->Add(point), S_OK);
  point->SetXYZ(7, 8, 9);  // seen through the collection: shared, not copied
  EXPECT_TRUE(Near(Item(points, 0), {1, 2, 3}, kExact));
  EXPECT_TRUE(Near(Item(points, 1), {7, 8, 9}, kExact));
  SmartPtr<IUnknown> item;
  EXPECT_EQ(points->get_Item(2, item.Out()), E_INVALIDARG);
  EXPECT_EQ(points->get_Item(-1, item.Out()), E_INVALIDARG);
  SmartPtr<ILinearTransform> notAPoint = CreateHostObject<ILinearTransform>(L"LinearTransform");
  EXPECT_EQ(points->Add(notAPoint), E_INVALIDARG);
  int count = -1;
  points->get_Count(&count);
  EXPECT_EQ(count, 2);
}

// ---------------------------------------------------------------- HomogeneousTransform

TEST(HomogeneousTransform, ConvertsRowVectorsThroughTheLiveMatrix) {
  SmartPtr<IHomogeneousTransform> transform = CreateHostObject<IHomogeneousTransform>(L"HomogeneousTransform");
  ASSERT_TRUE(transform);
  double* m = nullptr;
  int rows = 0, columns = 0;
  ASSERT_EQ(transform->GetMatrix(&m, &rows, &columns), S_OK);
  EXPECT_EQ(std::make_pair(rows, columns), std::make_pair(4, 4));
  EXPECT_TRUE(Near(Apply(transform.get(), {1, -2, 3}), {1, -2, 3}, kExact)) << "the identity when created";
  m[12] = 5, m[13] = 6, m[14] = 7;  // translation in row 3
  EXPECT_TRUE(Near(Apply(transform.get(), {1, 2, 3}), {6, 8, 10}, kExact));
  // Row 0, column 1 = 2 feeds x into y; (0, 1, 0) keeps x (a column-vector reading would give x = 2).
  m[12] = m[13] = m[14] = 0;
  m[1] = 2;
  EXPECT_TRUE(Near(Apply(transform.get(), {1, 0, 0}), {1, 2, 0}, kExact));
  EXPECT_TRUE(Near(Apply(transform.get(), {0, 1, 0}), {0, 1, 0}, kExact));
  // Column 3 row 0 = 1: w = x + 1, so (1, 4, 6) -> (1, 6, 6) / 2; (-1, 4, 6) has w = 0, no image.
  m[1] = 0;
  m[3] = 1;
  EXPECT_TRUE(Near(Apply(transform.get(), {1, 4, 6}), {0.5, 2, 3}, kExact));
  double x = -1, y = 4, z = 6;
  EXPECT_EQ(transform->Convert(&x, &y, &z), E_FAIL);
  EXPECT_TRUE(Near({x, y, z}, {-1, 4, 6}, kExact));
}

TEST(HomogeneousTransform, MovesPointsAndCollectionsInPlace) {
  SmartPtr<IHomogeneousTransform> transform = CreateHostObject<IHomogeneousTransform>(L"HomogeneousTransform");
  SmartPtr<IPoint> single = CreateHostObject<IPoint>(L"Point");
  SmartPtr<IPointsCollection> points = Points({{1, 2, 3}, {-4, 0, 0}});
  ASSERT_TRUE(transform && single && points);
  double* m = nullptr;
  transform->GetMatrix(&m, nullptr, nullptr);
  m[12] = 10;  // x + 10
  single->SetXYZ(0, 1, 0);
  EXPECT_EQ(QueryAs<ITransformableObject>(points)->Transform(transform), S_OK);
  EXPECT_EQ(QueryAs<ITransformableObject>(single)->Transform(transform), S_OK);
  P3 p{};
  single->GetXYZ(&p.x, &p.y, &p.z);
  EXPECT_TRUE(Near(p, {10, 1, 0}, kExact));
  EXPECT_TRUE(Near(Item(points, 0), {11, 2, 3}, kExact));
  EXPECT_TRUE(Near(Item(points, 1), {6, 0, 0}, kExact));
}

// ---------------------------------------------------------------- HomogeneousCalibration

// The live matrix behind a calibration's forward or reverse transform (null if none).
double* LiveMatrix(IHomogeneousCalibration* calibration, bool forward) {
  SmartPtr<ITransform> t;
  if ((forward ? calibration->GetForwardTransform(t.Out()) : calibration->GetReverseTransform(t.Out())) != S_OK)
    return nullptr;
  SmartPtr<IHomogeneousTransform> h = QueryAs<IHomogeneousTransform>(t);
  double* m = nullptr;
  if (h) h->GetMatrix(&m, nullptr, nullptr);
  return m;
}

TEST(HomogeneousCalibration, ConvertsThroughTheForwardAndRevertsThroughTheReverseLiveMatrix) {
  SmartPtr<IHomogeneousCalibration> calibration =
      CreateHostObject<IHomogeneousCalibration>(L"HomogeneousCalibration");
  ASSERT_TRUE(calibration);
  double* forward = LiveMatrix(calibration, true);
  double* reverse = LiveMatrix(calibration, false);
  ASSERT_TRUE(forward && reverse);
  EXPECT_NE(forward, reverse);
  EXPECT_EQ(forward, LiveMatrix(calibration, true)) << "the same transform every time";
  P3 p{1, -2, 3};
  ASSERT_EQ(calibration->Convert(&p.x, &p.y, &p.z), S_OK);
  EXPECT_TRUE(Near(p, {1, -2, 3}, kExact)) << "both are the identity when created";
  ASSERT_EQ(calibration->Revert(&p.x, &p.y, &p.z), S_OK);
  EXPECT_TRUE(Near(p, {1, -2, 3}, kExact));
  // Forward: move by (5, 6, 7); reverse: double, which is no inverse of it: the two are
  // independent, each direction reads only its own matrix.
  forward[12] = 5, forward[13] = 6, forward[14] = 7;
  reverse[0] = reverse[5] = reverse[10] = 2;
  p = {1, 2, 3};
  ASSERT_EQ(calibration->Convert(&p.x, &p.y, &p.z), S_OK);
  EXPECT_TRUE(Near(p, {6, 8, 10}, kExact));
  ASSERT_EQ(calibration->Revert(&p.x, &p.y, &p.z), S_OK);
  EXPECT_TRUE(Near(p, {12, 16, 20}, kExact));
  // Through ICalibration, the same Convert.
  SmartPtr<ICalibration> plain = QueryAs<ICalibration>(calibration);
  ASSERT_TRUE(plain);
  EXPECT_TRUE(Near(Apply(plain.get(), {0, 0, 0}), {5, 6, 7}, kExact));
  // A fourth component of 0 has no image: E_FAIL and the point stays.
  reverse[3] = 1, reverse[15] = 0;
  p = {0, 4, 5};
  EXPECT_EQ(calibration->Revert(&p.x, &p.y, &p.z), E_FAIL);
  EXPECT_TRUE(Near(p, {0, 4, 5}, kExact));
}

TEST(HomogeneousCalibration, HandsOutCountedTransformsAndRefusesNullOutputs) {
  SmartPtr<IHomogeneousCalibration> calibration =
      CreateHostObject<IHomogeneousCalibration>(L"HomogeneousCalibration");
  ASSERT_TRUE(calibration);
  EXPECT_EQ(calibration->GetForwardTransform(nullptr), E_POINTER);
  EXPECT_EQ(calibration->GetReverseTransform(nullptr), E_POINTER);
  SmartPtr<ITransform> kept;
  ASSERT_EQ(calibration->GetReverseTransform(kept.Out()), S_OK);
  LiveMatrix(calibration, false)[12] = 1;
  calibration = SmartPtr<IHomogeneousCalibration>();
  // The transform outlives the calibration on its own reference.
  EXPECT_TRUE(Near(Apply(kept.get(), {1, 1, 1}), {2, 1, 1}, kExact));
}

// ---------------------------------------------------------------- Plane

std::vector<double> Coefficients(IPlane* plane) {
  std::vector<double> v(4, NAN);
  plane->GetCoefficients(&v[0], &v[1], &v[2], &v[3]);
  return v;
}

::testing::AssertionResult SameCoefficients(const std::vector<double>& got, const std::vector<double>& want) {
  for (size_t i = 0; i < 4; ++i)
    if (!::testing::internal::Double(got[i]).AlmostEquals(::testing::internal::Double(want[i])))
      return ::testing::AssertionFailure() << "coefficient " << i << " is " << got[i] << ", not " << want[i];
  return ::testing::AssertionSuccess();
}

TEST(Plane, NormalisesTheNormalAndScalesDAlike) {
  SmartPtr<IPlane> plane = CreateHostObject<IPlane>(L"Plane");
  ASSERT_TRUE(plane);
  EXPECT_EQ(Coefficients(plane), (std::vector<double>{0, 0, 1, 0})) << "Z = 0 when created";
  // (0, 3, 4) has length 5: (0, 0.6, 0.8), d = -10 / 5 = -2.
  ASSERT_EQ(plane->SetCoefficients(0, 3, 4, -10), S_OK);
  EXPECT_TRUE(SameCoefficients(Coefficients(plane), {0, 0.6, 0.8, -2}));
  // A normal too large to square: (3e300, 0, -4e300) -> (0.6, 0, -0.8), d = 5e300 / 5e300.
  ASSERT_EQ(plane->SetCoefficients(3e300, 0, -4e300, 5e300), S_OK);
  EXPECT_TRUE(SameCoefficients(Coefficients(plane), {0.6, 0, -0.8, 1}));
  // Refused: zero normal, non-finite values, a d that overflows; the plane stays.
  EXPECT_EQ(plane->SetCoefficients(0, 0, 0, 1), E_INVALIDARG);
  EXPECT_EQ(plane->SetCoefficients(NAN, 0, 1, 0), E_INVALIDARG);
  EXPECT_EQ(plane->SetCoefficients(0, 0, 1, INFINITY), E_INVALIDARG);
  EXPECT_EQ(plane->SetCoefficients(0, 0, 1e-300, 1e300), E_INVALIDARG);
  EXPECT_TRUE(SameCoefficients(Coefficients(plane), {0.6, 0, -0.8, 1}));
}

// The content of the one element of an XML text, as the module receives a part of a file.
SmartPtr<IDataStream> XmlContent(const std::wstring& document) {
  SmartPtr<IXMLStream> in = CreateHostObject<IXMLStream>(L"XMLStream");
  tagREFString tag{0, nullptr};
  SmartPtr<IUnknown> content;
  if (!in || in->Attach(const_cast<wchar_t*>(document.c_str()), document.size() * sizeof(wchar_t), 0) < 0 ||
      in->NextTag(&tag) < 0 || in->ReadElement(tag.m_Length, tag.m_Text, nullptr, content.Out(), 0) < 0)
    return SmartPtr<IDataStream>();
  return QueryAs<IDataStream>(content);
}

TEST(Plane, StreamFormsGiveEveryBitBack) {
  SmartPtr<IPlane> plane = CreateHostObject<IPlane>(L"Plane");
  SmartPtr<IPlane> folderCopy = CreateHostObject<IPlane>(L"Plane"), xmlCopy = CreateHostObject<IPlane>(L"Plane");
  SmartPtr<IDataStream> folder = CreateHostObject<IDataStream>(L"FolderStream");
  SmartPtr<IXMLStream> xml = CreateHostObject<IXMLStream>(L"XMLStreamEx");
  ASSERT_TRUE(plane && folderCopy && xmlCopy && folder && xml);
  ASSERT_EQ(plane->SetCoefficients(0.3, -0.7, 2.0, 5.5), S_OK);

  ASSERT_EQ(QueryAs<IDataPersist>(plane)->Save(folder, 0), S_OK);
  ASSERT_EQ(QueryAs<IDataPersist>(folderCopy)->Load(folder, 0), S_OK);
  EXPECT_EQ(Coefficients(folderCopy), Coefficients(plane));

  xml->Attach(nullptr, 0, 0);
  xml->OpenTag(Str(L"Plane"), 0, 0);
  ASSERT_EQ(QueryAs<IDataPersist>(plane)->Save(xml, 0), S_OK);
  xml->CloseTag();
  const std::wstring document = TextOf(xml);
  EXPECT_NE(document.find(L"<D>2.569981224337"), std::wstring::npos) << "d / |n| = 5.5 / sqrt(4.58), to all digits";
  ASSERT_EQ(QueryAs<IDataPersist>(xmlCopy)->Load(XmlContent(document), 0), S_OK);
  EXPECT_EQ(Coefficients(xmlCopy), Coefficients(plane));
}

TEST(Plane, LoadNormalisesAWrittenNormalAndRefusesWhatItCannotRead) {
  SmartPtr<IPlane> plane = CreateHostObject<IPlane>(L"Plane");
  ASSERT_TRUE(plane);
  SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(plane);
  ASSERT_EQ(persist->Load(XmlContent(L"<Plane><A>0</A><B> 3 </B><C>4</C><D>-10</D></Plane>"), 0), S_OK);
  EXPECT_TRUE(SameCoefficients(Coefficients(plane), {0, 0.6, 0.8, -2}));
  for (const wchar_t* bad : {L"<Plane><A>0</A><B>3</B><C>4</C></Plane>", L"<Plane><A>0</A><B>3</B><C>4x</C><D>1</D></Plane>",
                             L"<Plane><A>0</A><B>0</B><C>0</C><D>1</D></Plane>", L"<Plane><A>0</A><B>3</B><C>4</C><D>nan</D></Plane>",
                             L"<Plane><A>0</A><B>3</B><C>1e999</C><D>1</D></Plane>"}) {
    EXPECT_LT(persist->Load(XmlContent(bad), 0), 0) << std::string(bad, bad + std::wcslen(bad));
    EXPECT_TRUE(SameCoefficients(Coefficients(plane), {0, 0.6, 0.8, -2}));
  }
  SmartPtr<IDataStream> empty = CreateHostObject<IDataStream>(L"FolderStream");
  EXPECT_EQ(persist->Load(empty, 0), E_FAIL) << "a folder without the four values";
}

// ---------------------------------------------------------------- PointVector

TEST(PointVector, PointsAlongItsDirectionAndFollowsATransform) {
  SmartPtr<IPointVector> ray = CreateHostObject<IPointVector>(L"PointVector");
  SmartPtr<IHomogeneousTransform> transform = CreateHostObject<IHomogeneousTransform>(L"HomogeneousTransform");
  ASSERT_TRUE(ray && transform);
  P3 p{};
  ray->get_Direction(&p.x, &p.y, &p.z, 2.0);  // starts along +Z: 2 (0, 0, 1)
  EXPECT_TRUE(Near(p, {0, 0, 2}, kExact));
  ray->put_Origin(1, 2, 3);
  ray->put_Direction(0, 2, 0);
  ray->PointAt(&p.x, &p.y, &p.z, 1.5);  // (1, 2, 3) + 1.5 (0, 2, 0)
  EXPECT_TRUE(Near(p, {1, 5, 3}, kExact));
  // Roll 90 about Z as a row-vector matrix (rows are the images of x and y), then
  // translate by (10, 0, 0): origin (1, 2, 3) -> (-2, 1, 3) -> (8, 1, 3);
  // direction (0, 2, 0) -> (-2, 0, 0), untouched by the translation.
  double* m = nullptr;
  transform->GetMatrix(&m, nullptr, nullptr);
  m[0] = 0, m[1] = 1, m[4] = -1, m[5] = 0, m[12] = 10;
  SmartPtr<ITransformableObject> movable = QueryAs<ITransformableObject>(ray);
  EXPECT_EQ(movable->Transform(transform), S_OK);
  ray->get_Origin(&p.x, &p.y, &p.z);
  EXPECT_TRUE(Near(p, {8, 1, 3}, kExact));
  ray->get_Direction(&p.x, &p.y, &p.z, 1.0);
  EXPECT_TRUE(Near(p, {-2, 0, 0}, kExact));
  // A transform that has no image for the origin leaves the ray alone: w = x - 8 = 0.
  m[3] = 1, m[15] = -8;
  EXPECT_EQ(movable->Transform(transform), E_FAIL);
  ray->get_Origin(&p.x, &p.y, &p.z);
  EXPECT_TRUE(Near(p, {8, 1, 3}, kExact));
}

// ---------------------------------------------------------------- LineSegment

class LineSegmentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    line = CreateHostObject<ILineSegment>(L"LineSegment");
    fitting = QueryAs<IGeometricFitting>(line);
    ASSERT_TRUE(line && fitting);
  }
  ::testing::AssertionResult ResidualsAre(IPointsCollection* points, const std::vector<double>& want) {
    SmartPtr<IDblVector> got;
    int count = -1;
    if (fitting->GetResiduals(points, got.Out()) != S_OK || got->get_Count(&count) < 0 || count != static_cast<int>(want.size()))
      return ::testing::AssertionFailure() << "no residuals, or " << count;
    for (int i = 0; i < count; ++i) {
      double value = NAN;
      got->get_Item(i, &value);
      if (!(std::fabs(value - want[i]) <= kRotationTolerance))
        return ::testing::AssertionFailure() << "residual " << i << " is " << value << ", not " << want[i];
    }
    return ::testing::AssertionSuccess();
  }
  ::testing::AssertionResult EndsAre(const P3& start, const P3& end) {
    P3 a{}, b{};
    line->GetEnds(&a.x, &a.y, &a.z, &b.x, &b.y, &b.z);
    const ::testing::AssertionResult first = Near(a, start, kRotationTolerance);
    return first ? Near(b, end, kRotationTolerance) : first;
  }
  SmartPtr<ILineSegment> line;
  SmartPtr<IGeometricFitting> fitting;
};

TEST_F(LineSegmentTest, FitsAHorizontalBandWithSignedDistances) {
  // The corners of a 4 x 2 box centred on (2, 0), z 0 .. 3: the line is y = 0 running +x
  // (first point (0, 1) to last (4, -1)), so the distance is y itself; ends at x = 0 and 4
  // with the mean z.
  SmartPtr<IPointsCollection> box = Points({{0, 1, 0}, {0, -1, 1}, {4, 1, 2}, {4, -1, 3}});
  ASSERT_EQ(fitting->Fit(box), S_OK);
  EXPECT_TRUE(ResidualsAre(box, {1, -1, 1, -1}));
  EXPECT_TRUE(EndsAre({0, 0, 1.5}, {4, 0, 1.5}));
  // Other points against the same line: (7, 3) lies 3 above, (-1, -2.5) 2.5 below.
  EXPECT_TRUE(ResidualsAre(Points({{7, 3, 0}, {-1, -2.5, 0}}), {3, -2.5}));
}

TEST_F(LineSegmentTest, MinimisesPerpendicularNotVerticalDistances) {
  // The box corners (x, y) = (-2, -1), (-2, 1), (2, -1), (2, 1) turned by 45 degrees:
  // (x - y, x + y) / sqrt 2. The perpendicular fit is the turned x axis, direction
  // (1, 1) / sqrt 2, and the distances are the original y: -1, 1, -1, 1. A regression of
  // y on x would give slope Sxy / Sxx = 6 / 10 instead, and other distances.
  const double h = 1.0 / std::sqrt(2.0);
  SmartPtr<IPointsCollection> turned = Points({{-h, -3 * h, 0}, {-3 * h, -h, 0}, {3 * h, h, 0}, {h, 3 * h, 0}});
  ASSERT_EQ(fitting->Fit(turned), S_OK);
  EXPECT_TRUE(ResidualsAre(turned, {-1, 1, -1, 1}));
  // Ends: the outermost projections, x = -2 and 2 on the turned axis: -+(sqrt 2, sqrt 2).
  EXPECT_TRUE(EndsAre({-kRoot2, -kRoot2, 0}, {kRoot2, kRoot2, 0}));
  // The same points from last to first: the line runs the other way, and the signs flip.
  SmartPtr<IPointsCollection> reversed = Points({{h, 3 * h, 0}, {3 * h, h, 0}, {-3 * h, -h, 0}, {-h, -3 * h, 0}});
  ASSERT_EQ(fitting->Fit(reversed), S_OK);
  EXPECT_TRUE(ResidualsAre(reversed, {-1, 1, -1, 1}));
  EXPECT_TRUE(EndsAre({kRoot2, kRoot2, 0}, {-kRoot2, -kRoot2, 0}));
}

TEST_F(LineSegmentTest, SetEndsGivesTheLineAndBadInputIsRefused) {
  SmartPtr<IPointsCollection> one = Points({{1, 1, 0}});
  SmartPtr<IDblVector> none;
  EXPECT_EQ(fitting->GetResiduals(one, none.Out()), E_FAIL) << "no line yet";
  EXPECT_EQ(fitting->Fit(one), E_INVALIDARG);
  EXPECT_EQ(fitting->Fit(Points({{1, 1, 0}, {1, 1, 0}})), E_FAIL) << "points on one spot";
  EXPECT_EQ(line->SetEnds(2, 2, 0, 2, 2, 5), E_INVALIDARG) << "ends at one x, y";
  // Upward from (0, 0) to (0, 2): (1, 1) lies on the right, distance -1.
  ASSERT_EQ(line->SetEnds(0, 0, 0, 0, 2, 0), S_OK);
  EXPECT_TRUE(ResidualsAre(Points({{1, 1, 0}, {-3, 7, 0}}), {-1, 3}));
  EXPECT_EQ(fitting->Fit(Points({{100, 100, 0}})), E_INVALIDARG);
  EXPECT_TRUE(EndsAre({0, 0, 0}, {0, 2, 0})) << "a failed fit keeps the line";
}


// ---------------------------------------------------------------- GeometryCollection

TEST(GeometryCollection, IsANamedCollectionOfSharedGeometryUnderItsOwnName) {
  SmartPtr<IParametersCreatable> list = CreateHostObject<IParametersCreatable>(L"GeometryCollection");
  ASSERT_TRUE(list) << "the global collection makes it with IParametersCreatable";
  SmartPtr<IObjectInfo> info = QueryAs<IObjectInfo>(list);
  tagREFString name{0, nullptr};
  ASSERT_TRUE(info && info->GetName(0, &name) == S_OK);
  EXPECT_EQ(std::wstring(name.m_Text, name.m_Length), L"GeometryCollection");
  SmartPtr<IPoint> point = CreateHostObject<IPoint>(L"Point");
  SmartPtr<IPointVector> vector = CreateHostObject<IPointVector>(L"PointVector");
  SmartPtr<IString> first, second;
  first.Attach(ISLabel(L"Epipolar", 1, L'#', 1));
  second.Attach(ISLabel(L"CameraLocation", 2, L'#', 1));
  ASSERT_EQ(list->Add(first, point, nullptr, 0), S_OK);
  ASSERT_EQ(list->Add(second, vector, nullptr, 0), S_OK);
  point->SetXYZ(4, 5, 6);  // held by reference, not copied
  int index = -1;
  ASSERT_EQ(list->get_Index(second, &index), S_OK);
  EXPECT_EQ(index, 1);
  SmartPtr<IUnknown> item;
  ASSERT_EQ(list->get_Item(0, item.Out()), S_OK);
  P3 p{0, 0, 0};
  QueryAs<IPoint>(item)->GetXYZ(&p.x, &p.y, &p.z);
  EXPECT_TRUE(Near(p, {4, 5, 6}, kExact));
  EXPECT_EQ(list->RemoveAll(), S_OK);
  int count = -1;
  list->get_Count(&count);
  EXPECT_EQ(count, 0);
}

}  // namespace
