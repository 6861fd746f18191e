// The fisheye mapping: Reset's clamps and its two mended centres, Revert in both branches
// against hand-worked rays, the parameter defaults. Streams, interfaces, references, pages
// and the stub fit: the property suite.
#include "tests/module/PropertySuite.h"

namespace {

constexpr double kRounding = 1e-9;  // pixels; the rays go through tan and atan2
constexpr double kPi = 3.14159265358979323846;

SmartPtr<ICalibrationFisheye> NewFisheye() {
  return LoadedModule::Get().Create<ICalibrationFisheye>(L"CalibrationFisheye");
}

// Named numbers for SetParameters; naming one again replaces its value.
struct Settings {
  std::vector<std::pair<std::wstring, std::pair<bool, double>>> items;  // name, (integer, value)
  Settings& Set(const wchar_t* name, bool integer, double value) {
    for (auto& item : items)
      if (item.first == name) return item.second = {integer, value}, *this;
    items.push_back({name, {integer, value}});
    return *this;
  }
  Settings& Number(const wchar_t* name, double value) { return Set(name, false, value); }
  Settings& Integer(const wchar_t* name, int value) { return Set(name, true, value); }
  SmartPtr<IParametersCreatable> Collection() const {
    ParameterList list;
    for (const auto& [name, value] : items)
      list.Add(name.c_str(), [&](IVariant* v) {
        value.first ? v->put_Integer(static_cast<int>(value.second)) : v->put_Double(value.second);
      });
    return list.list;
  }
};

SmartPtr<ICalibrationFisheye> Configured(const Settings& settings) {
  SmartPtr<ICalibrationFisheye> f = NewFisheye();
  EXPECT_EQ(QueryAs<IParametricObject>(f)->SetParameters(settings.Collection()), S_OK);
  return f;
}

// A 90 degree perspective view: t = tan 45 = 1, so on a 1000 x 700 image the plane spans
// x in [-1, 1] and z in [-0.7, 0.7] at distance 1. The fisheye ellipse has unequal radii
// so that a swap of the two shows.
Settings Square90() {
  Settings s;
  s.Number(L"PerspectiveFOV", 90).Integer(L"PerspectiveImageWidth", 1000).Integer(L"PerspectiveImageHeight", 700);
  s.Number(L"FisheyeCenterX", 1000).Number(L"FisheyeCenterY", 800);
  s.Number(L"FisheyeRadiusX", 400).Number(L"FisheyeRadiusY", 300);
  return s;
}

// Where a ray (X, Y, Z) lands: the bearing of (X, Z) scaled by r, about the centre.
P Landing(double X, double Y, double Z, double r) {
  (void)Y;
  const double rho = std::hypot(X, Z);
  return {1000 + r * 400 * X / rho, 800 + r * 300 * Z / rho, 0};
}

void Prepare(IUnknown* object) {
  Settings s;
  s.Number(L"FisheyeFOV", 190).Number(L"FisheyeCenterX", 812.5).Number(L"FisheyeCenterY", 640);
  s.Number(L"FisheyeRadiusX", 700).Number(L"FisheyeRadiusY", 650);
  s.Integer(L"FisheyeImageWidth", 1600).Integer(L"FisheyeImageHeight", 1300).Integer(L"fUseKorrection", 1);
  s.Number(L"k1", 0.9).Number(L"k2", -0.05).Number(L"k3", 0.01).Number(L"k4", 0.002);
  s.Integer(L"PerspectiveImageWidth", 640).Integer(L"PerspectiveImageHeight", 480).Number(L"PerspectiveFOV", 120);
  QueryAs<IParametricObject>(object)->SetParameters(s.Collection());
  SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(object);
  info->put_CALIBName(Str(L"Roof <camera> & lens"));
  info->put_CALIBDescription(Str(L"hand-set"));
  info->put_CALIBUnits(2);
}

const std::vector<P> kSquare = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}};

const property::ClassTraits kFisheye{
    .name = L"CalibrationFisheye",
    .routes = {{&IID_IObjectInfo}, {&IID_IDataPersist}, {&IID_ICalibrationInfo},
               {&IID_ICalibration, &IID_ICalibrationFisheye}, {&IID_ICalibrationFisheye}, {&IID_ITransformBestFit},
               {&IID_ITransformFitErrors}, {&IID_IUIPropertyPageSpecify}, {&IID_IParametricObject}},
    .prepare = Prepare,
    // XML: the parameters as text, and of the info block the name alone comes back; its
    // Save reports E_FAIL after writing everything. The folder stream carries it all.
    .forms = {{.xml = true, .extension = "xml", .save = E_FAIL, .lost = {"info.description", "info.units"}},
              {.xml = false, .extension = "tFish"}},
    .convertRevertIsNoRoundTrip = true,
    .fitErrorsResult = E_FAIL,
    .fit = [](IUnknown* o, ISimpleCollection* s, ISimpleCollection* t) {
      return QueryAs<ITransformBestFit>(o)->BestFit(s, t, 0);
    },
    .badFits = {{"no points are refused", nullptr, nullptr, E_FAIL},
                {"good points are refused too: nothing is fitted", &kSquare, &kSquare, E_FAIL}},
    .pages = {{L"", L"UIPropPages.UIParametricObjectPropPage", L"CalibrationFisheye"},
              {L"", L"Zeltrim.CalibrationInfoPropPage", L""}},
};
ZELTRIM_PROPERTY_CLASS(kFisheye);

TEST(CalibrationFisheye, ResetEvensTheSizesAndClampsTheFieldsOfView) {
  Settings s;
  s.Integer(L"PerspectiveImageWidth", 1001).Integer(L"PerspectiveImageHeight", 1);
  s.Number(L"PerspectiveFOV", 175).Number(L"FisheyeFOV", 400);
  SmartPtr<ICalibrationFisheye> f = Configured(s);
  EXPECT_EQ(Parameter(f, L"PerspectiveImageWidth"), 1000);
  EXPECT_EQ(Parameter(f, L"PerspectiveImageHeight"), 600) << "1 rounds to 0, which becomes 600";
  EXPECT_EQ(Parameter(f, L"PerspectiveFOV"), 170);
  EXPECT_EQ(Parameter(f, L"FisheyeFOV"), 360);

  Settings small;
  small.Integer(L"PerspectiveImageWidth", 1).Integer(L"PerspectiveImageHeight", -3);
  SmartPtr<ICalibrationFisheye> g = Configured(small);
  EXPECT_EQ(Parameter(g, L"PerspectiveImageWidth"), 800);
  EXPECT_EQ(Parameter(g, L"PerspectiveImageHeight"), 600) << "-3 rounds toward zero to -2";
  Settings inside;
  inside.Number(L"PerspectiveFOV", 170).Number(L"FisheyeFOV", 360).Integer(L"PerspectiveImageHeight", 3);
  SmartPtr<ICalibrationFisheye> h = Configured(inside);
  EXPECT_EQ(Parameter(h, L"PerspectiveFOV"), 170);
  EXPECT_EQ(Parameter(h, L"FisheyeFOV"), 360);
  EXPECT_EQ(Parameter(h, L"PerspectiveImageHeight"), 2);
}

// A radius of 0 or less mends a centre, never the radius: X's centre becomes half the
// fisheye width, Y's centre takes X's centre.
TEST(CalibrationFisheye, ResetMendsCentresWhereTheRadiiAreBad) {
  Settings s;
  s.Integer(L"FisheyeImageWidth", 1601).Integer(L"FisheyeImageHeight", 999);
  s.Number(L"FisheyeCenterX", 300).Number(L"FisheyeCenterY", 111);
  s.Number(L"FisheyeRadiusX", 0).Number(L"FisheyeRadiusY", -5);
  SmartPtr<ICalibrationFisheye> f = Configured(s);
  EXPECT_EQ(Parameter(f, L"FisheyeCenterX"), 800) << "1601 / 2 in integers";
  EXPECT_EQ(Parameter(f, L"FisheyeRadiusX"), 0);
  EXPECT_EQ(Parameter(f, L"FisheyeCenterY"), 800);
  EXPECT_EQ(Parameter(f, L"FisheyeRadiusY"), -5);

  Settings centres;  // centres of 0 or less take half the fisheye size
  centres.Integer(L"FisheyeImageWidth", 1601).Integer(L"FisheyeImageHeight", 999);
  centres.Number(L"FisheyeCenterX", -1).Number(L"FisheyeCenterY", 0);
  centres.Number(L"FisheyeRadiusX", 10).Number(L"FisheyeRadiusY", 10);
  SmartPtr<ICalibrationFisheye> g = Configured(centres);
  EXPECT_EQ(Parameter(g, L"FisheyeCenterX"), 800);
  EXPECT_EQ(Parameter(g, L"FisheyeCenterY"), 499);
}

TEST(CalibrationFisheye, RadiiWithoutTheirNamesTakeTheCentre) {
  Settings fov;
  fov.Number(L"FisheyeFOV", 170);
  SmartPtr<ICalibrationFisheye> f = Configured(fov);  // a new object's centre is (500, 250)
  EXPECT_EQ(Parameter(f, L"FisheyeRadiusX"), 500);
  EXPECT_EQ(Parameter(f, L"FisheyeRadiusY"), 250);
  EXPECT_EQ(Parameter(f, L"FisheyeFOV"), 170);
  Settings centre;  // the centre read just before is the default
  centre.Number(L"FisheyeCenterX", 321).Number(L"FisheyeRadiusY", 77);
  SmartPtr<ICalibrationFisheye> g = Configured(centre);
  EXPECT_EQ(Parameter(g, L"FisheyeRadiusX"), 321);
  EXPECT_EQ(Parameter(g, L"FisheyeRadiusY"), 77);
}

TEST(CalibrationFisheye, PerspectiveFieldOfViewLosesItsFraction) {
  Settings s = Square90();
  s.Number(L"PerspectiveFOV", 90.7);
  SmartPtr<ICalibrationFisheye> f = Configured(s);
  EXPECT_EQ(Parameter(f, L"PerspectiveFOV"), 90);
  // The map is the one of 90 degrees: the right edge of the centre row is 45 degrees off.
  ExpectNear(Reverted(f, {1000, 349, 0}), Landing(1, 1, 0, 0.5), kRounding);
}

TEST(CalibrationFisheye, ParametersAreListedInTheirOrderAndTypes) {
  const std::pair<const wchar_t*, short> expected[] = {
      {L"FisheyeFOV", VARIANT_DOUBLE},         {L"FisheyeCenterX", VARIANT_DOUBLE},
      {L"FisheyeCenterY", VARIANT_DOUBLE},     {L"FisheyeRadiusX", VARIANT_DOUBLE},
      {L"FisheyeRadiusY", VARIANT_DOUBLE},     {L"FisheyeImageWidth", VARIANT_INTEGER},
      {L"FisheyeImageHeight", VARIANT_INTEGER}, {L"fUseKorrection", VARIANT_INTEGER},
      {L"k1", VARIANT_DOUBLE},                 {L"k2", VARIANT_DOUBLE},
      {L"k3", VARIANT_DOUBLE},                 {L"k4", VARIANT_DOUBLE},
      {L"PerspectiveImageWidth", VARIANT_INTEGER}, {L"PerspectiveImageHeight", VARIANT_INTEGER},
      {L"PerspectiveFOV", VARIANT_DOUBLE}};
  SmartPtr<INamedCollection> params;
  ASSERT_EQ(QueryAs<IParametricObject>(NewFisheye())->GetParameters(params.Out(), 0), S_OK);
  SmartPtr<IParameters> list = QueryAs<IParameters>(params);
  ASSERT_EQ(Count(list), 15);
  for (int i = 0; i < 15; ++i) {
    SmartPtr<IString> name;
    SmartPtr<IVariant> value;
    SmartPtr<IUnknown> descriptor;
    int flags = -1;
    list->Iterate(i, name.Out(), value.Out(), descriptor.Out(), &flags);
    EXPECT_EQ(Text(name), expected[i].first) << i;
    EXPECT_EQ(value->get_Type(), expected[i].second) << i;
    EXPECT_FALSE(descriptor) << i;
    EXPECT_EQ(flags, 0) << i;
  }
  // A new object's defaults.
  const double defaults[] = {180, 500, 250, 350, 350, 5000, 5000, 0, 1, 0, 0, 0, 1000, 700, 100};
  for (int i = 0; i < 15; ++i) EXPECT_EQ(Parameter(NewFisheye(), expected[i].first), defaults[i]) << i;
}

TEST(CalibrationFisheye, ConvertLeavesThePointAndRevertLeavesZAndNullPlaces) {
  SmartPtr<ICalibrationFisheye> f = NewFisheye();
  ExpectNear(Converted(f, {12.5, -3, 7}), {12.5, -3, 7}, 0);
  Settings s = Square90();
  SmartPtr<ICalibrationFisheye> g = Configured(s);
  EXPECT_EQ(Converted(g, {12.5, -3, 7}).z, 7);
  EXPECT_EQ(Reverted(g, {12.5, -3, 7}).z, 7);
  double x = 500, y = 349;
  EXPECT_EQ(g->Revert(&x, &y, nullptr), S_OK);
  EXPECT_EQ(std::make_pair(x, y), std::make_pair(1000.0, 800.0));
  EXPECT_EQ(g->Revert(nullptr, &y, nullptr), S_OK);
  EXPECT_EQ(g->Revert(&x, nullptr, nullptr), S_OK);
  EXPECT_EQ(x, 1000.0);
}

// Before any Reset the derived fields are zero: every ray is (0, 0, 0), theta is 0 and the
// linear branch divides it by a zero half field.
TEST(CalibrationFisheye, RevertOnANewObjectIsNotANumber) {
  SmartPtr<ICalibrationFisheye> f = NewFisheye();
  double x = 500, y = 349, z = 0;
  EXPECT_EQ(f->Revert(&x, &y, &z), S_OK);
  EXPECT_TRUE(std::isnan(x) && std::isnan(y)) << x << ", " << y;
}

// The image point (W / 2, H / 2 - 1) has a = b = 0.5: the ray along the axis, theta = 0.
TEST(CalibrationFisheye, RayOnTheAxisLandsOnTheCentre) {
  Settings s = Square90();
  SmartPtr<ICalibrationFisheye> f = Configured(s);
  ExpectNear(Reverted(f, {500, 349, 0}), {1000, 800, 0}, kRounding);
  s.Integer(L"fUseKorrection", 1);
  SmartPtr<ICalibrationFisheye> g = Configured(s);
  ExpectNear(Reverted(g, {500, 349, 0}), {1000, 800, 0}, kRounding);
}

// Linear branch over a 180 degree lens: r = theta / 90 degrees.
TEST(CalibrationFisheye, LinearBranchTakesTheAngleOverTheHalfField) {
  Settings s = Square90();
  SmartPtr<ICalibrationFisheye> f = Configured(s);
  // x = W: a = 1, X = 1; the ray (1, 1, 0) is 45 degrees off, bearing 0.
  ExpectNear(Reverted(f, {1000, 349, 0}), {1200, 800, 0}, kRounding);
  ExpectNear(Reverted(f, {0, 349, 0}), {800, 800, 0}, kRounding);
  // y = -1: b = 1, Z = -0.7, straight down in the virtual image; up in the fisheye picture.
  const double down = std::atan(0.7) / (kPi / 2);
  ExpectNear(Reverted(f, {500, -1, 0}), {1000, 800 - 300 * down, 0}, kRounding);
  // The last row's left end: the corner ray (-1, 1, 0.7).
  const double corner = std::atan(std::sqrt(1.49)) / (kPi / 2);
  ExpectNear(Reverted(f, {0, 699, 0}), Landing(-1, 1, 0.7, corner), kRounding);
  // A 120 degree lens: 45 degrees is 3/4 of its half field.
  s.Number(L"FisheyeFOV", 120);
  ExpectNear(Reverted(Configured(s), {1000, 349, 0}), {1000 + 400 * 0.75, 800, 0}, kRounding);
}

// Polynomial branch: r = k1 theta + k2 theta^2 + k3 theta^3 + k4 theta^4, theta in radians.
TEST(CalibrationFisheye, PolynomialBranchTakesTheLensPolynomial) {
  Settings s = Square90();
  s.Integer(L"fUseKorrection", 1).Number(L"k1", 1.5).Number(L"k2", 0.25).Number(L"k3", -0.125).Number(L"k4", 0.0625);
  SmartPtr<ICalibrationFisheye> f = Configured(s);
  const auto r = [](double theta) {
    return 1.5 * theta + 0.25 * theta * theta - 0.125 * theta * theta * theta + 0.0625 * std::pow(theta, 4);
  };
  ExpectNear(Reverted(f, {1000, 349, 0}), Landing(1, 1, 0, r(kPi / 4)), kRounding);
  ExpectNear(Reverted(f, {500, -1, 0}), Landing(0, 1, -0.7, r(std::atan(0.7))), kRounding);
  ExpectNear(Reverted(f, {0, 699, 0}), Landing(-1, 1, 0.7, r(std::atan(std::sqrt(1.49)))), kRounding);
}

// Beyond the lens's half field the polynomial's radius is pushed tenfold; the linear
// branch has no such guard.
TEST(CalibrationFisheye, RaysBeyondTheHalfFieldArePushedTenfoldInThePolynomialBranch) {
  Settings s = Square90();
  s.Integer(L"fUseKorrection", 1).Number(L"FisheyeFOV", 80);  // half field 40 degrees
  SmartPtr<ICalibrationFisheye> f = Configured(s);
  const double theta = kPi / 4;                  // 45 degrees: beyond
  ExpectNear(Reverted(f, {1000, 349, 0}), Landing(1, 1, 0, 10 * theta), kRounding);
  const double inside = std::atan(0.7);          // about 35 degrees: inside
  ExpectNear(Reverted(f, {500, -1, 0}), Landing(0, 1, -0.7, inside), kRounding);
  s.Integer(L"fUseKorrection", 0);
  ExpectNear(Reverted(Configured(s), {1000, 349, 0}), Landing(1, 1, 0, 45.0 / 40.0), kRounding);
}

}  // namespace
