// The radial distortion model: straightening bent lines, its two inverses, the aspect
// run and its quirks, MaintainSize and the exported model functions. Streams, interfaces,
// references, parameters and pages: the property suite.
#include <dlfcn.h>

#include "tests/module/PropertySuite.h"
#include "tests/module/RadialLines.h"

namespace {

using radial_lines::Model;

constexpr double kStraight = 1e-6;    // pixels: residuals of exactly bent lines after the fit
constexpr double kRecovered = 1e-7;   // coefficients recovered from exact data
constexpr double kHandWorked = 1e-9;  // pixels, against values worked by hand

SmartPtr<ICalibrationDistortionRadial> NewRadial() {
  return LoadedModule::Get().Create<ICalibrationDistortionRadial>(L"CalibrationDistortionRadial");
}

// A collection of line sets, each a host points collection.
SmartPtr<ISimpleCollection> LineSets(const std::vector<std::vector<radial_lines::Pixel>>& lines) {
  SmartPtr<ICreatableSimpleCollection> sets =
      LoadedModule::Get().CreateHost<ICreatableSimpleCollection>(L"SimpleCollection");
  for (const auto& line : lines) {
    std::vector<P> points;
    for (const auto& p : line) points.push_back({p.x, p.y, 0});
    sets->Add(Points(points));
  }
  return SmartPtr<ISimpleCollection>(sets.get());
}

SmartPtr<ISimpleCollection> LinesOf(const Model& m, int lines = 10, int points = 20) {
  return LineSets(radial_lines::BentLines(m, lines, points));
}

struct Errors {
  double lower = NAN, upper = NAN, sd = NAN;
};
Errors ErrorsOf(IUnknown* c) {
  Errors e;
  QueryAs<ITransformFitErrors>(c)->GetFitErrors(&e.lower, &e.upper, &e.sd);
  return e;
}

void Set(IUnknown* c, std::initializer_list<std::pair<const wchar_t*, double>> values) {
  ParameterList list;
  for (const auto& [name, value] : values) list.Number(name, value);
  ASSERT_EQ(QueryAs<IParametricObject>(c)->SetParameters(list.list), S_OK);
}

void Prepare(IUnknown* object) {
  Model m;
  m.k1 = -0.12, m.k2 = 0.05;
  QueryAs<ICalibrationDistortionRadial>(object)->StraightLinesNeedtoBeStraight(LinesOf(m), 3);
  Set(object, {{L"x0", 0.52}, {L"y0", 0.47}, {L"s", 1.02}, {L"ImageWidth", 1280}, {L"ImageHeight", 960}});
  SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(object);
  info->put_CALIBName(Str(L"Wide lens"));
  info->put_CALIBDescription(Str(L"left <camera> & co"));
}

const std::vector<P> kSomePoints = {{1, 2, 0}, {3, 4, 0}, {5, 7, 0}};

const property::ClassTraits kRadial{
    .name = L"CalibrationDistortionRadial",
    .routes = {{&IID_IObjectInfo}, {&IID_IDataPersist}, {&IID_ICalibrationInfo},
               {&IID_ICalibration, &IID_ICalibrationDistortionRadial}, {&IID_ICalibrationDistortionRadial},
               {&IID_ICalibrationDistortion, &IID_ICalibrationDistortionRadial}, {&IID_ITransformBestFit},
               {&IID_ITransformFitErrors}, {&IID_IUIPropertyPageSpecify}, {&IID_IParametricObject}},
    .prepare = Prepare,
    // XML: both directions report E_FAIL after all the work, and "LowerError" is written
    // but not read back. Of the info block only the name comes back through XML.
    .forms = {{.xml = true, .extension = "xml", .save = E_FAIL, .load = E_FAIL, .tolerance = 1e-9,
               .lost = {"errors.mean", "info.description"}},
              {.xml = false, .extension = "tRad"}},
    .parametersNotReadBack = {L"SDError", L"MaxError"},
    .convertRevertIsNoRoundTrip = true,
    .fit = [](IUnknown* o, ISimpleCollection* s, ISimpleCollection* t) {
      return QueryAs<ITransformBestFit>(o)->BestFit(s, t, 3);
    },
    // The fit has no failure: missing or unusable sets leave nothing to straighten.
    .badFits = {{"no line sets", nullptr, nullptr, S_OK},
                {"points where line sets belong", &kSomePoints, nullptr, S_OK}},
    .pages = {{L"", L"UIPropPages.UIParametricObjectPropPage", L"CalibrationDistortionRadial"},
              {L"", L"Zeltrim.CalibrationInfoPropPage", L""}},
};
ZELTRIM_PROPERTY_CLASS(kRadial);

// ------------------------------------------------------------------ straightening

struct StraighteningCase {
  const char* label;
  int flags;
  Model truth;
};

class Straightening : public ::testing::TestWithParam<StraighteningCase> {};

TEST_P(Straightening, BentLinesComeBackStraightWithTheBendingModel) {
  const StraighteningCase& c = GetParam();
  SmartPtr<ISimpleCollection> lines = LinesOf(c.truth);
  SmartPtr<ICalibrationDistortionRadial> before = NewRadial(), fitted = NewRadial();
  ASSERT_EQ(before->StraightLinesNeedtoBeStraight(lines, RADIAL_MEASURE_ONLY), S_OK);
  EXPECT_GT(ErrorsOf(before).sd, 1.0) << "the bent lines are pixels away from straight";

  ASSERT_EQ(fitted->StraightLinesNeedtoBeStraight(lines, c.flags), S_OK);
  const Errors after = ErrorsOf(fitted);
  EXPECT_LT(after.sd, kStraight);
  EXPECT_LE(after.lower, 0);
  EXPECT_GE(after.upper, 0);
  EXPECT_LT(std::max(-after.lower, after.upper), 10 * kStraight);
  EXPECT_NEAR(Parameter(fitted, L"k1"), c.truth.k1, kRecovered);
  EXPECT_NEAR(Parameter(fitted, L"k2"), c.truth.k2, kRecovered);
  EXPECT_NEAR(Parameter(fitted, L"x0"), c.truth.x0, kRecovered);
  EXPECT_NEAR(Parameter(fitted, L"y0"), c.truth.y0, kRecovered);
  EXPECT_EQ(Parameter(fitted, L"k0"), 1.0) << "without bit 16 the constant term stays 1";
  EXPECT_EQ(Parameter(fitted, L"s"), 1.0);
  EXPECT_EQ(Parameter(fitted, L"MaxError"), after.upper);
}

Model Truth(double k1, double k2, double x0 = 0.5, double y0 = 0.5) {
  Model m;
  m.k1 = k1, m.k2 = k2, m.x0 = x0, m.y0 = y0;
  return m;
}

INSTANTIATE_TEST_SUITE_P(
    RadialDistortion, Straightening,
    testing::Values(StraighteningCase{"k1", RADIAL_FIT_K1, Truth(-0.18, 0)},
                    StraighteningCase{"k1k2", RADIAL_FIT_K1 | RADIAL_FIT_K2, Truth(-0.15, 0.07)},
                    StraighteningCase{"k1AndCentre", RADIAL_FIT_K1 | RADIAL_FIT_CENTRE, Truth(-0.2, 0, 0.53, 0.46)}),
    [](const testing::TestParamInfo<StraighteningCase>& info) { return info.param.label; });

TEST(RadialDistortion, MeasuringOnlyUsesThePresentCoefficientsAndKeepsThem) {
  const Model truth = Truth(-0.18, 0);
  SmartPtr<ICalibrationDistortionRadial> c = NewRadial();
  Set(c, {{L"k1", truth.k1}});
  ASSERT_EQ(c->StraightLinesNeedtoBeStraight(LinesOf(truth), RADIAL_MEASURE_ONLY), S_OK);
  EXPECT_LT(ErrorsOf(c).sd, kStraight);
  EXPECT_EQ(Parameter(c, L"k1"), truth.k1);
  // An empty set: errors 0, nothing else touched.
  ASSERT_EQ(c->StraightLinesNeedtoBeStraight(LineSets({}), RADIAL_MEASURE_ONLY), S_OK);
  const Errors e = ErrorsOf(c);
  EXPECT_EQ(e.lower, 0);
  EXPECT_EQ(e.upper, 0);
  EXPECT_EQ(e.sd, 0);
  EXPECT_EQ(Parameter(c, L"k1"), truth.k1);
}

// One set, (0, 0), (10, 1), (20, 0), measured with the identity model: the fitted line is
// y = 1/3, residuals -1/3, 2/3, -1/3. SD = sqrt((6/9 - (4/3)^2 / 3) / 2) = sqrt(1/27): the
// mean is taken of the absolute values.
TEST(RadialDistortion, StatisticsOfAKnownBendUseTheMeanOfAbsoluteValues) {
  SmartPtr<ICalibrationDistortionRadial> c = NewRadial();
  ASSERT_EQ(c->StraightLinesNeedtoBeStraight(LineSets({{{0, 0}, {10, 1}, {20, 0}}}), RADIAL_MEASURE_ONLY), S_OK);
  const Errors e = ErrorsOf(c);
  EXPECT_NEAR(e.lower, -1.0 / 3, kHandWorked);
  EXPECT_NEAR(e.upper, 2.0 / 3, kHandWorked);
  EXPECT_NEAR(e.sd, std::sqrt(1.0 / 27), kHandWorked);
}

TEST(RadialDistortion, AFitWithoutLinesResetsTheModelAndLeavesZeroErrors) {
  SmartPtr<ICalibrationDistortionRadial> c = NewRadial();
  Set(c, {{L"k0", 2}, {L"k1", 0.3}, {L"k4", 0.1}, {L"x0", 0.6}, {L"s", 1.1}, {L"ImageWidth", 640}});
  ASSERT_EQ(c->StraightLinesNeedtoBeStraight(LineSets({}), 0), S_OK);
  for (auto [name, value] : {std::pair{L"k0", 1.0}, {L"k1", 0.0}, {L"k4", 0.0}, {L"x0", 0.5}, {L"s", 1.0},
                             {L"ImageWidth", 640.0}, {L"SDError", 0.0}, {L"MaxError", 0.0}})
    EXPECT_EQ(Parameter(c, name), value) << std::string(name, name + std::wcslen(name));
}

// Bit 16 ties k0 to the other terms; the aspect run (bit 64) evaluates with mask 64
// alone, which puts k0 back to 1 after the main fit.
TEST(RadialDistortion, BalancedConstantTermHoldsUntilTheAspectRunResetsIt) {
  const Model truth = Truth(-0.18, 0);
  SmartPtr<ICalibrationDistortionRadial> balanced = NewRadial(), withAspect = NewRadial();
  ASSERT_EQ(balanced->StraightLinesNeedtoBeStraight(LinesOf(truth), RADIAL_FIT_K1 | RADIAL_K0_BALANCED), S_OK);
  const double k1 = Parameter(balanced, L"k1");
  EXPECT_LT(k1, -0.05);
  EXPECT_DOUBLE_EQ(Parameter(balanced, L"k0"), 1 - k1);
  ASSERT_EQ(withAspect->StraightLinesNeedtoBeStraight(LinesOf(truth),
                                                       RADIAL_FIT_K1 | RADIAL_K0_BALANCED | RADIAL_FIT_ASPECT),
            S_OK);
  EXPECT_EQ(Parameter(withAspect, L"k0"), 1.0);
}

// Lines bent by a lens and stretched in x: the aspect run after the k1 fit moves s
// toward the stretch and straightens them further.
TEST(RadialDistortion, AspectRunFollowsAStretchInX) {
  Model truth = Truth(-0.15, 0);
  truth.s = 1.04;
  SmartPtr<ICalibrationDistortionRadial> plain = NewRadial(), aspect = NewRadial();
  ASSERT_EQ(plain->StraightLinesNeedtoBeStraight(LinesOf(truth), RADIAL_FIT_K1), S_OK);
  ASSERT_EQ(aspect->StraightLinesNeedtoBeStraight(LinesOf(truth), RADIAL_FIT_K1 | RADIAL_FIT_ASPECT), S_OK);
  EXPECT_GT(Parameter(aspect, L"s"), 1.0);
  EXPECT_LT(ErrorsOf(aspect).sd, ErrorsOf(plain).sd);
}

// With bit 64 alone there is nothing for the first run to fit (it is refused); the
// aspect run still goes ahead. With no lens term, shrinking x straightens everything, so
// it runs off far past the accepted band, is refused, and s keeps its last trial.
TEST(RadialDistortion, AspectAloneRunsAndARefusedAspectKeepsItsLastTrial) {
  const Model truth = Truth(-0.18, 0);
  SmartPtr<ICalibrationDistortionRadial> c = NewRadial();
  Set(c, {{L"k1", 0.4}});
  ASSERT_EQ(c->StraightLinesNeedtoBeStraight(LinesOf(truth), RADIAL_FIT_ASPECT), S_OK);
  EXPECT_EQ(Parameter(c, L"k1"), 0.0);
  EXPECT_EQ(Parameter(c, L"k0"), 1.0);
  const double s = Parameter(c, L"s");
  EXPECT_GE(std::fabs(s) - 1, 0.25) << "refused, and not put back to 1";
  EXPECT_LT(ErrorsOf(c).sd, 1e-3) << "measured with that s";
}

// ------------------------------------------------------------------ conversions

// N = 1000, centre (0.5, 0.5): pixel (700, 500) is u = 0.2, v = 0.
TEST(RadialDistortion, ConvertAndFirstOrderRevertAgainstHandWorkedPoints) {
  SmartPtr<ICalibrationDistortionRadial> c = NewRadial();
  Set(c, {{L"k1", 0.1}});
  // f(0.2) = 1.02: Convert gives 0.204, Revert 0.2 / 1.02.
  ExpectNear(Converted(c, {700, 500, 9}), {704, 500, 9}, kHandWorked);
  ExpectNear(Reverted(c, {700, 500, 9}), {500 + 200 / 1.02, 500, 9}, kHandWorked);
  // The first-order inverse does not undo Convert: f is taken at the corrected radius.
  const P back = Reverted(c, {704, 500, 0});
  EXPECT_NEAR(back.x, 500 + 204 / 1.0204, kHandWorked);
  EXPECT_GT(std::fabs(back.x - 700), 0.05);
  // All four terms: f(0.2) = 1 + 0.1 * 0.2 + 0.5 * 0.008 + 0.25 * 0.0016 = 1.0244.
  Set(c, {{L"k3", 0.5}, {L"k4", 0.25}});
  ExpectNear(Converted(c, {700, 500, 0}), {704.88, 500, 0}, kHandWorked);
  Set(c, {{L"k3", 0}, {L"k4", 0}});
  // s divides u going in (Convert) and multiplies it in Revert; y is turned over.
  Set(c, {{L"k1", 0}, {L"s", 2}});
  ExpectNear(Converted(c, {700, 300, 0}), {600, 300, 0}, kHandWorked);
  ExpectNear(Reverted(c, {700, 300, 0}), {900, 300, 0}, kHandWorked);
}

// InverseMethod 0 solves r' = r + k2 r^3 in closed form, whatever the other terms.
TEST(RadialDistortion, ClosedFormRevertSolvesTheCubicAndRefusesANegativeDiscriminant) {
  SmartPtr<ICalibrationDistortionRadial> c = NewRadial();
  Set(c, {{L"InverseMethod", 0}, {L"k2", 0.5}, {L"k1", 0.3}});
  // (800, 100): u = 0.3, v = 0.4, R = 0.5. The root of r + 0.5 r^3 = 0.5, by bisection.
  double lo = 0, hi = 0.5;
  for (int i = 0; i < 200; ++i) {
    const double mid = 0.5 * (lo + hi);
    (mid + 0.5 * mid * mid * mid < 0.5 ? lo : hi) = mid;
  }
  const double g = lo / 0.5;
  // The exponent 0.333333333333 is short of a third: agreement to about 1e-11.
  ExpectNear(Reverted(c, {800, 100, 0}), {(0.3 * g + 0.5) * 1000, (1 - (0.4 * g + 0.5)) * 1000, 0}, 1e-6);

  // k2 = -1 at R = 0.3: d = 729 R^2 - 108 < 0.
  Set(c, {{L"k2", -1}});
  P p{800, 500, 0};
  EXPECT_EQ(c->Revert(&p.x, &p.y, &p.z), E_FAIL);
  ExpectNear(p, {800, 500, 0}, 0);
  // k2 = 0: the point stays, and that is a success.
  Set(c, {{L"k2", 0}});
  EXPECT_EQ(c->Revert(&p.x, &p.y, &p.z), S_OK);
  ExpectNear(p, {800, 500, 0}, 0);
}

TEST(RadialDistortion, ResetKeepsInverseMethodAndSizeAndFitIsNotImplemented) {
  SmartPtr<ICalibrationDistortionRadial> c = NewRadial();
  Set(c, {{L"InverseMethod", 0}, {L"ImageWidth", 640}, {L"ImageHeight", 480}, {L"k1", 0.2}, {L"y0", 0.4}});
  ASSERT_EQ(c->Reset(), S_OK);
  EXPECT_EQ(Parameter(c, L"InverseMethod"), 0);
  EXPECT_EQ(Parameter(c, L"ImageWidth"), 640);
  EXPECT_EQ(Parameter(c, L"ImageHeight"), 480);
  EXPECT_EQ(Parameter(c, L"k1"), 0);
  EXPECT_EQ(Parameter(c, L"y0"), 0.5);
  EXPECT_EQ(c->Fit(Points(kSomePoints), Points(kSomePoints), 3, 1), E_NOTIMPL);
  ASSERT_EQ(c->SetNormalizationImageSize(800, 600), S_OK);
  EXPECT_EQ(Parameter(c, L"ImageWidth"), 800);
  // N is the smaller side: 600. (700, 300): u = 7/6 - 0.5, v = 0.5 - 0.5.
  Set(c, {{L"k1", 1}});
  const double u = 700.0 / 600 - 0.5;
  EXPECT_NEAR(Converted(c, {700, 300, 0}).x, (u * (1 + u) + 0.5) * 600, kHandWorked);
}

// The correction maps the corrected picture's eight probe points back onto W x H: the
// extremes land on the borders.
TEST(RadialDistortion, MaintainSizeBringsTheCorrectedImageBackToItsSize) {
  SmartPtr<ICalibrationDistortionRadial> c = NewRadial();
  Set(c, {{L"k1", 0.15}, {L"k2", -0.05}, {L"x0", 0.55}, {L"ImageWidth", 1200}, {L"ImageHeight", 900}});
  SmartPtr<ILinearCalibration> size;
  ASSERT_EQ(c->MaintainSize(size.Out()), S_OK);
  ASSERT_TRUE(size);
  int steps = 0;
  size->get_StepCount(&steps);
  EXPECT_EQ(steps, 2);
  double minX = INFINITY, minY = INFINITY, maxX = -INFINITY, maxY = -INFINITY;
  for (double x : {0.0, 600.0, 1200.0})
    for (double y : {0.0, 450.0, 900.0}) {
      if (x == 600 && y == 450) continue;
      P p = Converted(c, {x, y, 0});
      ASSERT_EQ(size->Convert(&p.x, &p.y, &p.z), S_OK);
      minX = std::min(minX, p.x), maxX = std::max(maxX, p.x);
      minY = std::min(minY, p.y), maxY = std::max(maxY, p.y);
    }
  EXPECT_NEAR(minX, 0, 1e-9);
  EXPECT_NEAR(maxX, 1200, 1e-9);
  EXPECT_NEAR(minY, 0, 1e-9);
  EXPECT_NEAR(maxY, 900, 1e-9);
  EXPECT_EQ(c->MaintainSize(nullptr), S_OK);
}

// The stored element names are the file format: the centre is "cx", "cy" (its parameters
// are "x0", "y0"), and every value comes before the info block.
TEST(RadialDistortion, XmlFormHoldsItsElementsInOrder) {
  SmartPtr<ICalibrationDistortionRadial> c = NewRadial();
  SmartPtr<IXMLStreamEx> xml = LoadedModule::Get().CreateHost<IXMLStreamEx>(L"XMLStreamEx");
  xml->Attach(nullptr, 0, 0);
  EXPECT_EQ(QueryAs<IDataPersist>(c)->Save(xml, 0), E_FAIL) << "the XML form reports E_FAIL when complete";
  void* data = nullptr;
  unsigned long size = 0;
  xml->GetBuffer(&data, &size);
  const std::wstring text(static_cast<wchar_t*>(data), size / sizeof(wchar_t));
  size_t at = 0;
  for (const wchar_t* name : {L"<k0>", L"<k1>", L"<k2>", L"<k3>", L"<k4>", L"<cx>", L"<cy>", L"<s>", L"<ImageWidth>",
                              L"<ImageHeight>", L"<UpperError>", L"<LowerError>", L"<SDError>", L"<InverseMethod>",
                              L"<Info>"}) {
    const size_t found = text.find(name, at);
    EXPECT_NE(found, std::wstring::npos) << std::string(name, name + std::wcslen(name)) << " in order";
    if (found != std::wstring::npos) at = found;
  }
  EXPECT_NE(text.find(L"<ImageWidth>1000</ImageWidth>"), std::wstring::npos) << "integers as decimal text";
}

// ------------------------------------------------------------------ model functions

typedef void (*Evaluator)(const double*, int, const void*, double*, int*);

Evaluator Export(const char* name) {
  return reinterpret_cast<Evaluator>(dlsym(LoadedModule::Get().module, name));
}

// The exported functions take the object itself as their data: the pointer its
// IUnknown route hands out.
TEST(RadialDistortion, ExportedModelFunctionsWriteTheirParametersAndResiduals) {
  const Evaluator k1k2 = Export("CalibrationDistortionRadial_LevenbergMarquardt_Evaluatek1k2");
  const Evaluator aspect = Export("CalibrationDistortionRadial_LevenbergMarquardt_EvaluateAspect");
  const Evaluator centre = Export("CalibrationDistortionRadial_LevenbergMarquardt_EvaluateCenter");
  ASSERT_TRUE(k1k2 && aspect && centre);
  const Model truth = Truth(-0.18, 0);
  SmartPtr<ICalibrationDistortionRadial> c = NewRadial();
  SmartPtr<IUnknown> self = QueryAs<IUnknown>(c);
  // A fit with flags 1 leaves the mask 1 behind, and stores the 6 x 10 points.
  ASSERT_EQ(c->StraightLinesNeedtoBeStraight(LinesOf(truth, 6, 10), RADIAL_FIT_K1), S_OK);
  std::vector<double> fvec(60, NAN);
  int info = 0;
  const double bent[] = {0.0};
  k1k2(bent, 60, self.get(), fvec.data(), &info);
  EXPECT_EQ(Parameter(c, L"k1"), 0.0);
  double worst = 0;
  for (double r : fvec) worst = std::max(worst, std::fabs(r));
  EXPECT_GT(worst, 1e-3) << "normalised residuals of bent lines";
  EXPECT_LT(worst, 0.1);
  const double straight[] = {truth.k1};
  k1k2(straight, 60, self.get(), fvec.data(), &info);
  EXPECT_EQ(Parameter(c, L"k1"), truth.k1);
  for (double r : fvec) EXPECT_LT(std::fabs(r), kStraight / 1000);
  EXPECT_EQ(info, 0) << "the model functions never stop a run";

  const double stretch[] = {1.2};
  aspect(stretch, 60, self.get(), fvec.data(), &info);
  EXPECT_EQ(Parameter(c, L"s"), 1.2);
  EXPECT_EQ(Parameter(c, L"k1"), truth.k1) << "mask 64 leaves the coefficients";
  // The centre: a value outside 0 to 1 becomes 0.5, each by itself.
  const double outside[] = {1.5, 0.3};
  centre(outside, 60, self.get(), fvec.data(), &info);
  EXPECT_EQ(Parameter(c, L"x0"), 0.5);
  EXPECT_EQ(Parameter(c, L"y0"), 0.3);
  // Fewer places than points: only those are written.
  std::vector<double> few(5, NAN);
  few.push_back(-7);
  k1k2(straight, 5, self.get(), few.data(), &info);
  EXPECT_EQ(few[5], -7);
}

}  // namespace
