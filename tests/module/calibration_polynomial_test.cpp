// The polynomial grid calibration through the loaded module: grids whose rows and columns
// the curves describe exactly, the lookup's strict and half-open bounds on grid lines, the
// behaviour outside the grid, the curve kind chosen by Order, the fit errors and bad fits,
// and its folder-stream form. Interfaces, files, references and pages: the property suite.
#include <cmath>
#include <functional>
#include <tuple>

#include "tests/module/PropertySuite.h"

namespace {

constexpr double kRounding = 1e-9;  // maps the curves describe exactly, values up to ~100

typedef std::function<P(const P&)> Map;

SmartPtr<ICalibrationPolynomial> NewPolynomial() {
  return LoadedModule::Get().Create<ICalibrationPolynomial>(L"CalibrationPolynomial");
}

// A grid of the given column and row positions, in row order (column i, row j at j * nx + i).
void GridOf(const std::vector<double>& xs, const std::vector<double>& ys, const Map& map, std::vector<P>* source,
            std::vector<P>* target) {
  for (double y : ys)
    for (double x : xs) {
      source->push_back({x, y, 0});
      target->push_back(map(source->back()));
    }
}

HRESULT FitGrid(ICalibrationPolynomial* c, const std::vector<double>& xs, const std::vector<double>& ys, const Map& map) {
  std::vector<P> source, target;
  GridOf(xs, ys, map, &source, &target);
  return c->Fit(Points(source), Points(target), static_cast<int>(xs.size()), static_cast<int>(ys.size()));
}

struct Errors {
  double lower = -1, upper = -1, sd = -1;
};
Errors ErrorsOf(IUnknown* c) {
  Errors e;
  QueryAs<ITransformFitErrors>(c)->GetFitErrors(&e.lower, &e.upper, &e.sd);
  return e;
}

// Triangular affine: x depends on both, y on y alone. Both curve sets describe it and its
// inverse exactly, so Revert undoes Convert inside the grid.
P Triangular(const P& p) { return {2 * p.x + 0.5 * p.y + 3, 1.5 * p.y - 1, 0}; }
P TriangularInverse(const P& t) {
  const double y = (t.y + 1) / 1.5;
  return {(t.x - 0.5 * y - 3) / 2, y, 0};
}
// The lines miss the suite's probes (1, 2), (-3, 0.5), (4, -1) and their images: on an
// inner line Convert would take the last curve.
const std::vector<double> kPrepareXs = {-6, -3.5, -0.5, 2.5, 6}, kPrepareYs = {-4, -1.5, 0, 1.5, 4};

void Prepare(IUnknown* object) {
  ASSERT_EQ(FitGrid(QueryAs<ICalibrationPolynomial>(object), kPrepareXs, kPrepareYs, Triangular), S_OK);
  SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(object);
  info->put_CALIBName(Str(L"Lens grid"));
  info->put_CALIBDescription(Str(L"bench & lamp"));
  info->put_CALIBUnits(2);
}

const std::vector<P> kNone, kFive(5, P{1, 1, 0}), kSix = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {0, 1, 0}, {1, 1, 0}, {2, 1, 0}},
                             kSame(6, P{2, 2, 0});

const property::ClassTraits kPolynomial{
    .name = L"CalibrationPolynomial",
    .routes = {{&IID_IObjectInfo}, {&IID_ICalibrationPolynomial},
               {&IID_ICalibrationDistortion, &IID_ICalibrationPolynomial}, {&IID_ICalibration, &IID_ICalibrationPolynomial},
               {&IID_IFileArchive}, {&IID_ICalibrationInfo}, {&IID_ITransformFitErrors}, {&IID_IUIPropertyPageSpecify},
               {&IID_IDataPersist}, {&IID_IParametricObject}},
    .prepare = Prepare,
    // The folder form only (XML: Save and Load give E_FAIL). The first fit error (the
    // lower one) is not stored and keeps a new object's 0.
    .forms = {{.xml = false, .extension = "tCalPoly", .lost = {"errors.mean"}}},
    .filter = L"Calibration (*.tCalPoly)|*.tCalPoly|All Files (*.*)|*.*||",
    .setParametersIgnored = true,
    .revertTolerance = kRounding,
    .fit = [](IUnknown* o, ISimpleCollection* s, ISimpleCollection* t) {
      return QueryAs<ICalibrationPolynomial>(o)->Fit(s, t, 3, 2);
    },
    .badFits = {{"null collections", nullptr, nullptr, E_INVALIDARG},
                {"empty sets", &kNone, &kNone, E_INVALIDARG},
                {"fewer points than the grid", &kFive, &kFive, E_INVALIDARG},
                {"a target shorter than the source", &kSix, &kFive, E_INVALIDARG},
                {"coincident points fit (each curve merges them into one sample)", &kSame, &kSix, S_OK}},
    .pages = {{L"", L"Zeltrim.CalibrationInfoPropPage", L""},
              {L"Fit Errors", L"UIPropPages.UIParametricObjectPropPage", L"CalibrationPolynomial"},
              {L"", L"UIPropPages.UIFileArchivePropPage", L""}},
};
ZELTRIM_PROPERTY_CLASS(kPolynomial);

// ---------------------------------------------------------------- exact grids

// Cubic along x, quadratic along y, each coordinate affine in the other: row curves of 5
// samples and column curves of 4 reproduce it, and the linear blend between them is exact.
P Polynomial(const P& p) {
  return {p.x + 0.002 * p.x * p.x - 0.0001 * p.x * p.x * p.x + 0.05 * p.y + 0.001 * p.x * p.y + 3,
          p.y - 0.003 * p.y * p.y + 0.02 * p.x + 0.0005 * p.x * p.y - 2, 0};
}
const std::vector<double> kUnevenXs = {0, 10, 25, 40, 50}, kUnevenYs = {0, 15, 30, 40};

TEST(CalibrationPolynomial, AnExactlyPolynomialGridConvertsToRoundingInsideTheGrid) {
  SmartPtr<ICalibrationPolynomial> c = NewPolynomial();
  ASSERT_EQ(FitGrid(c, kUnevenXs, kUnevenYs, Polynomial), S_OK);
  int order = 0;
  c->get_Order(&order);
  EXPECT_EQ(order, 5) << "the default: Lagrange curves";
  for (const P& p : {P{3, 2, 7}, P{13.5, 29, 0}, P{44.25, 39.5, 0}, P{26, 16, 0}, P{49.9, 0.1, 0}, P{0.1, 31, 0}}) {
    const P got = Converted(c, p);
    ExpectNear({got.x, got.y, 0}, Polynomial(p), kRounding);
    EXPECT_EQ(got.z, p.z) << "z is never touched";
  }
}

TEST(CalibrationPolynomial, RevertUndoesConvertForATriangularAffineGrid) {
  SmartPtr<ICalibrationPolynomial> c = NewPolynomial();
  ASSERT_EQ(FitGrid(c, kPrepareXs, kPrepareYs, Triangular), S_OK);
  for (const P& p : {P{1, 2, 0}, P{-5.5, -3.75, 0}, P{5.9, 3.9, 0}, P{0.01, -0.01, 0}, P{-3, 0.5, 0}}) {
    ExpectNear(Converted(c, p), Triangular(p), kRounding);
    ExpectNear(Reverted(c, Triangular(p)), p, kRounding);
    ExpectNear(Reverted(c, p), TriangularInverse(p), kRounding);
  }
}

// x = sx + 0.2 sy + 1, y = sy + 0.1 sx - 2 on columns 0, 10, 20, 30, 40 and rows 0, 10,
// 20: every column and row curve is a different straight line, so which one a point takes
// shows in its result.
P Sheared(const P& p) { return {p.x + 0.2 * p.y + 1, p.y + 0.1 * p.x - 2, 0}; }
const std::vector<double> kColumns = {0, 10, 20, 30, 40}, kRows = {0, 10, 20};

class ShearedGrid : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(FitGrid(c, kColumns, kRows, Sheared), S_OK); }
  SmartPtr<ICalibrationPolynomial> c = NewPolynomial();
};

TEST_F(ShearedGrid, PointsBetweenTheLinesAndOnTheLastColumnAndRowAreExact) {
  for (const P& p : {P{13, 7, 0}, P{40, 7, 0}, P{13, 20, 0}, P{40, 20, 0}, P{39.5, 0.5, 0}})
    ExpectNear(Converted(c, p), Sheared(p), kRounding);
}

TEST_F(ShearedGrid, ConvertOnAnInnerOrFirstLineTakesTheLastCurve) {
  // Both bounds of Convert's lookup are strict: x = 20 or x = 0 lies in no interval, so y
  // comes from the last column (x = 40): 7 + 4 - 2 = 9, where the map gives 7 or 5.
  for (double x : {20.0, 0.0}) {
    const P got = Converted(c, {x, 7, 0});
    EXPECT_NEAR(got.y, 9, kRounding) << x;
    EXPECT_NEAR(got.x, Sheared({x, 7, 0}).x, kRounding) << "the rows still blend";
  }
  // y = 10, an inner row: x from the last row (y = 20): 13 + 4 + 1 = 18.
  const P row = Converted(c, {13, 10, 0});
  EXPECT_NEAR(row.x, 18, kRounding);
  EXPECT_NEAR(row.y, Sheared({13, 10, 0}).y, kRounding);
  // A node: the last column and the last row.
  ExpectNear(Converted(c, {20, 10, 0}), {20 + 4 + 1, 10 + 4 - 2, 0}, kRounding);
}

TEST_F(ShearedGrid, RevertOnAnInnerLineTakesTheIntervalEndingThere) {
  // The reverse columns stand at the mean target x: 0.2 * 10 + 1 past each source column,
  // so 23 is column 2 exactly. Revert's lookup includes the upper end: the interval (1, 2)
  // with fraction 1, i.e. column 2's own curve, sy = ty - 0.1 * 20 + 2 = 9.
  const P inner = Reverted(c, {23, 9, 0});
  EXPECT_NEAR(inner.y, 9, kRounding);
  // x from the reverse rows (at target y 0, 10, 20), blended at 0.9: 23 - 0.2 * 9 - 1.
  EXPECT_NEAR(inner.x, 20.2, kRounding);
  // The first reverse column (3) is in no interval: the last column, 9 - 4 + 2 = 7.
  EXPECT_NEAR(Reverted(c, {3, 9, 0}).y, 7, kRounding);
}

TEST_F(ShearedGrid, OutsideTheGridTheFirstOrLastCurveAloneIsUsed) {
  // Left of the first column: lower = upper = 0, only column 0's curve: 7 + 0 - 2 = 5 (the
  // map would give 4.5). The rows are straight lines that extrapolate exactly.
  const P left = Converted(c, {-5, 7, 0});
  EXPECT_NEAR(left.y, 5, kRounding);
  EXPECT_NEAR(left.x, Sheared({-5, 7, 0}).x, kRounding);
  // Below the first row: only row 0's curve, 13 + 0 + 1 = 14; the columns extrapolate.
  const P below = Converted(c, {13, -5, 0});
  EXPECT_NEAR(below.x, 14, kRounding);
  EXPECT_NEAR(below.y, Sheared({13, -5, 0}).y, kRounding);
  // Above the last row and right of the last column: the last curves, 13 + 4 + 1 and
  // 7 + 4 - 2.
  EXPECT_NEAR(Converted(c, {13, 25, 0}).x, 18, kRounding);
  EXPECT_NEAR(Converted(c, {55, 7, 0}).y, 9, kRounding);
}

// ---------------------------------------------------------------- curve kinds

// Quadratic along each row and column, no coupling: Lagrange curves are exact, a broken
// line through the nodes is not.
P Bowed(const P& p) { return {p.x + 0.01 * p.x * p.x, p.y, 0}; }
const std::vector<double> kThree = {0, 10, 20};

TEST(CalibrationPolynomial, OrderPicksTheCurveKindAtTheNextFit) {
  // At x = 5: the parabola gives 5.25, the broken line between (0, 0) and (10, 11) 5.5.
  for (int order : {0, 3, 5, -1}) {
    SmartPtr<ICalibrationPolynomial> c = NewPolynomial();
    c->put_Order(order);
    ASSERT_EQ(FitGrid(c, kThree, kThree, Bowed), S_OK);
    EXPECT_NEAR(Converted(c, {5, 5, 0}).x, 5.25, kRounding) << "order " << order << ": Lagrange";
  }
  SmartPtr<ICalibrationPolynomial> c = NewPolynomial();
  c->put_Order(1);
  ASSERT_EQ(FitGrid(c, kThree, kThree, Bowed), S_OK);
  EXPECT_NEAR(Converted(c, {5, 5, 0}).x, 5.5, kRounding) << "order 1: the broken line";
  // Order 2, the natural spline through (0, 0), (10, 11), (20, 24): h = 10, M1 from
  // 40 M1 = 6 (1.3 - 1.1), so M1 = 0.03; at 5: 5.5 + (0.125 - 0.5) 0.03 * 100 / 6.
  c->put_Order(2);
  EXPECT_NEAR(Converted(c, {5, 5, 0}).x, 5.5, kRounding) << "put_Order builds nothing";
  int order = 0;
  c->get_Order(&order);
  EXPECT_EQ(order, 2);
  EXPECT_EQ(c->get_Order(nullptr), S_OK);
  ASSERT_EQ(FitGrid(c, kThree, kThree, Bowed), S_OK);
  EXPECT_NEAR(Converted(c, {5, 5, 0}).x, 5.5 - 0.375 * 0.03 * 100 / 6, kRounding) << "order 2 after the fit";
}

TEST(CalibrationPolynomial, SplinesOfBothOrdersAreExactForAnAffineGrid) {
  for (int order : {1, 2}) {
    SmartPtr<ICalibrationPolynomial> c = NewPolynomial();
    c->put_Order(order);
    ASSERT_EQ(FitGrid(c, kPrepareXs, kPrepareYs, Triangular), S_OK);
    const P p{1.7, -2.9, 0};
    ExpectNear(Converted(c, p), Triangular(p), kRounding);
    ExpectNear(Reverted(c, Triangular(p)), p, kRounding);
  }
}

// ---------------------------------------------------------------- fit

TEST(CalibrationPolynomial, ConvertOnANewObjectFailsAndLeavesThePoint) {
  SmartPtr<ICalibrationPolynomial> c = NewPolynomial();
  P p{3, 4, 5};
  EXPECT_EQ(c->Convert(&p.x, &p.y, &p.z), E_FAIL);
  EXPECT_EQ(c->Revert(&p.x, &p.y, &p.z), E_FAIL);
  ExpectNear(p, {3, 4, 5}, 0);
  const Errors e = ErrorsOf(c);
  EXPECT_EQ(e.lower + e.upper + e.sd, 0);
}

TEST(CalibrationPolynomial, GridSizesBelowSixPointsOrNotPositiveAreRefused) {
  std::vector<P> source, target;
  GridOf({0, 1, 2, 3, 4, 5}, {0, 1, 2, 3, 4}, Sheared, &source, &target);
  SmartPtr<ISimpleCollection> s = Points(source), t = Points(target);
  SmartPtr<ICalibrationPolynomial> c = NewPolynomial();
  EXPECT_EQ(c->Fit(s, t, 2, 3), S_OK) << "2 x 3 is six points";
  EXPECT_EQ(c->Fit(s, t, 1, 5), E_INVALIDARG) << "1 x 5 is below six";
  EXPECT_EQ(c->Fit(s, t, -2, -3), E_INVALIDARG) << "a positive product of negative sizes";
  EXPECT_EQ(c->Fit(s, t, 0, 30), E_INVALIDARG);
  EXPECT_EQ(c->Fit(s, t, 6, 6), E_INVALIDARG) << "36 points asked, 30 given";
  EXPECT_EQ(c->Fit(s, t, 6, 5), S_OK) << "all thirty";
  EXPECT_EQ(c->Fit(s, t, 1, 6), S_OK) << "one column of six: a constant per row";
  SmartPtr<ICreatableSimpleCollection> mixed = LoadedModule::Get().CreateHost<ICreatableSimpleCollection>(L"SimpleCollection");
  for (int i = 0; i < 6; ++i) mixed->Add(Str(L"not a point"));
  EXPECT_EQ(c->Fit(mixed, t, 3, 2), E_INVALIDARG) << "items that are no points";
}

TEST(CalibrationPolynomial, FitErrorsOfAMinimalGridWorkedByHand) {
  // 3 x 2 identity grid with node (0, 0) moved to (0.3, 0.4). Node (0, 0) lies on the first
  // column and row, so Convert takes the last column and row, which pass through the
  // unmoved nodes: it stays at (0, 0), 0.5 from its target. Every other node converts to
  // itself. Largest 0.5 (both outputs), deviation sqrt(0.25 / 5).
  std::vector<P> source, target;
  GridOf({0, 1, 2}, {0, 1}, [](const P& p) { return p; }, &source, &target);
  target[0] = {0.3, 0.4, 0};
  SmartPtr<ICalibrationPolynomial> c = NewPolynomial();
  ASSERT_EQ(c->Fit(Points(source), Points(target), 3, 2), S_OK);
  const Errors e = ErrorsOf(c);
  EXPECT_DOUBLE_EQ(e.lower, 0.5);
  EXPECT_DOUBLE_EQ(e.upper, 0.5);
  EXPECT_DOUBLE_EQ(e.sd, std::sqrt(0.05));
  EXPECT_DOUBLE_EQ(Parameter(c, L"MaxError"), 0.5);
  EXPECT_DOUBLE_EQ(Parameter(c, L"SDError"), std::sqrt(0.05));
  short year = 0;
  QueryAs<ICalibrationInfo>(c)->GetCalibrationTime(nullptr, nullptr, &year, nullptr, nullptr);
  EXPECT_GE(year, 2024) << "the fit stamps the time";
}

TEST(CalibrationPolynomial, ABadFitKeepsThePreviousModelWithZeroErrors) {
  std::vector<P> source, target;
  GridOf({0, 1, 2}, {0, 1}, [](const P& p) { return p; }, &source, &target);
  target[0] = {0.3, 0.4, 0};
  SmartPtr<ICalibrationPolynomial> c = NewPolynomial();
  ASSERT_EQ(c->Fit(Points(source), Points(target), 3, 2), S_OK);
  const P before = Converted(c, {0.5, 0.5, 0});
  ASSERT_GT(ErrorsOf(c).upper, 0);
  EXPECT_EQ(c->Fit(nullptr, Points(target), 3, 2), E_INVALIDARG);
  ExpectNear(Converted(c, {0.5, 0.5, 0}), before, 0);
  const Errors e = ErrorsOf(c);
  EXPECT_EQ(e.lower, 0);
  EXPECT_EQ(e.upper, 0);
  EXPECT_EQ(e.sd, 0);
  EXPECT_EQ(c->Fit(Points(source), Points(target), 1, 5), E_INVALIDARG);
  ExpectNear(Converted(c, {0.5, 0.5, 0}), before, 0);
  // Reset empties the grid.
  EXPECT_EQ(c->Reset(), S_OK);
  P p{0.5, 0.5, 0};
  EXPECT_EQ(c->Convert(&p.x, &p.y, &p.z), E_FAIL);
}

// ---------------------------------------------------------------- persistence

TEST(CalibrationPolynomial, AnOrderSetAfterTheFitTakesEffectAtTheNextLoad) {
  // Broken lines saved with Order 5: the load builds Lagrange curves and reads the stored
  // samples into them (5.25 at x = 5); Lagrange curves saved with Order 1 come back as
  // broken lines (5.5).
  const std::string path = TempPath("grid.tCalPoly");
  for (const auto& [fitted, saved, expected] : {std::tuple{1, 5, 5.25}, std::tuple{5, 1, 5.5}}) {
    SmartPtr<ICalibrationPolynomial> c = NewPolynomial();
    c->put_Order(fitted);
    ASSERT_EQ(FitGrid(c, kThree, kThree, Bowed), S_OK);
    c->put_Order(saved);
    EXPECT_NEAR(Converted(c, {5, 5, 0}).x, fitted == 1 ? 5.5 : 5.25, kRounding) << "not yet";
    ASSERT_EQ(Archive(c, path, true), S_OK);
    SmartPtr<ICalibrationPolynomial> loaded = NewPolynomial();
    ASSERT_EQ(Archive(loaded, path, false), S_OK);
    int order = 0;
    loaded->get_Order(&order);
    EXPECT_EQ(order, saved);
    EXPECT_NEAR(Converted(loaded, {5, 5, 0}).x, expected, kRounding) << "fitted with order " << fitted;
  }
  std::remove(path.c_str());
}

TEST(CalibrationPolynomial, XmlIsRefusedAndADamagedFolderLeavesTheModel) {
  SmartPtr<ICalibrationPolynomial> c = NewPolynomial();
  ASSERT_EQ(FitGrid(c, kColumns, kRows, Sheared), S_OK);
  SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(c);
  SmartPtr<IXMLStream> xml = LoadedModule::Get().CreateHost<IXMLStream>(L"XMLStreamEx");
  xml->Attach(nullptr, 0, 0);
  EXPECT_EQ(persist->Save(xml, 0), E_FAIL);
  EXPECT_EQ(Text(xml), L"") << "nothing written";
  EXPECT_EQ(persist->Load(xml, 0), E_FAIL);

  // A saved grid with pieces missing or sizes that cannot be: refused, nothing changes.
  SmartPtr<ICalibrationPolynomial> other = NewPolynomial();
  ASSERT_EQ(FitGrid(other, kThree, kThree, Bowed), S_OK);
  const P before = Converted(c, {13, 7, 0});
  const double upperBefore = ErrorsOf(c).upper;
  const std::vector<std::function<void(IFolderStream*)>> damages = {
      [](IFolderStream* f) { f->RemoveEntry(Str(L"CurveV2")); },
      [](IFolderStream* f) { f->RemoveEntry(Str(L"CurveRevertH3")); },
      [](IFolderStream* f) { f->RemoveEntry(Str(L"YPosRevert")); },
      [](IFolderStream* f) { f->RemoveEntry(Str(L"SDError")); },
      [](IFolderStream* f) { f->RemoveEntry(Str(L"Order")); },
      [](IFolderStream* f) { int n = 4; f->WriteData(Str(L"NbPointsX"), &n, 4, 0); },  // XPos holds 3
      [](IFolderStream* f) { int n = -3; f->WriteData(Str(L"NbPointsY"), &n, 4, 0); },
      [](IFolderStream* f) { int n = 1 << 20; f->WriteData(Str(L"NbPointsY"), &n, 4, 0); },
      [](IFolderStream* f) { double x[2] = {0, 1}; f->WriteData(Str(L"XPos"), x, 16, 0); },  // 2 of 3
  };
  for (size_t k = 0; k < damages.size(); ++k) {
    SmartPtr<IFolderStream> folder = LoadedModule::Get().CreateHost<IFolderStream>(L"FolderStream");
    ASSERT_EQ(QueryAs<IDataPersist>(other)->Save(folder, 0), S_OK);
    damages[k](folder);
    EXPECT_EQ(persist->Load(folder, 0), E_FAIL) << "damage " << k;
    ExpectNear(Converted(c, {13, 7, 0}), before, 0);
    EXPECT_EQ(ErrorsOf(c).upper, upperBefore) << "damage " << k;
  }
  SmartPtr<IFolderStream> whole = LoadedModule::Get().CreateHost<IFolderStream>(L"FolderStream");
  ASSERT_EQ(QueryAs<IDataPersist>(other)->Save(whole, 0), S_OK);
  EXPECT_EQ(persist->Load(whole, 0), S_OK);
  ExpectNear(Converted(c, {5, 5, 0}), Converted(other, {5, 5, 0}), 0);
}

}  // namespace
