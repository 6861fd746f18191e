// Fit and filter: acceptance, the cut, the two tests against the minimum count, the
// iteration limits and the parameter read under another name. Interfaces, references,
// parameters and bad input: the property suite.
#include <algorithm>
#include <numeric>

#include "tests/module/PropertySuite.h"

namespace {

const std::vector<P> kNone;

const property::ClassTraits kFitAndFilter{
    .name = L"CalibrationFitAndFilter",
    .routes = {{&IID_IObjectInfo}, {&IID_ICalibrationFitAndFilter}, {&IID_IFitAndFilter, &IID_ICalibrationFitAndFilter},
               {&IID_IParametricObject}, {&IID_IUIPropertyPageSpecify}},
    .prepare =
        [](IUnknown* o) {
          SmartPtr<ICalibrationFitAndFilter> f = QueryAs<ICalibrationFitAndFilter>(o);
          f->SetFitMethod(2, 7, 0.25);
          f->SetMinNbPoints(9);
        },
    // Written as "AllowableError", read as "MaxAllowableError": the value stays.
    .parametersNotReadBack = {L"AllowableError"},
    .fit =
        [](IUnknown* o, ISimpleCollection* s, ISimpleCollection* t) {
          SmartPtr<ISimpleCollection> keptA, keptB;
          return QueryAs<ICalibrationFitAndFilter>(o)->BestFit(NewCalibration(), s, t, keptA.Out(), keptB.Out());
        },
    // No residuals make a mean of 0, which the default allowable error accepts.
    .badFits = {{"empty sets are accepted", &kNone, &kNone, S_OK}, {"null collections are accepted", nullptr, nullptr, S_OK}},
};
ZELTRIM_PROPERTY_CLASS(kFitAndFilter);

// A filter of method 0 with these limits (a minimum count of 0 keeps the default, 4).
SmartPtr<ICalibrationFitAndFilter> NewFilter(int iterations, double allowable, int minimum = 0) {
  SmartPtr<ICalibrationFitAndFilter> f = LoadedModule::Get().Create<ICalibrationFitAndFilter>(L"CalibrationFitAndFilter");
  f->SetFitMethod(0, iterations, allowable);
  if (minimum) f->SetMinNbPoints(minimum);
  return f;
}

// What a filter run hands back.
struct Kept {
  HRESULT hr;
  SmartPtr<ISimpleCollection> a, b;
};
Kept Filtered(ICalibrationFitAndFilter* filter, ISimpleCollection* a, ISimpleCollection* b,
              SmartPtr<ICalibrationBestFit> calibration = NewCalibration()) {
  Kept kept;
  kept.hr = filter->BestFit(calibration, a, b, kept.a.Out(), kept.b.Out());
  return kept;
}

// Residuals of a best-fit calibration fitted to the pairs, in the order the filter sees them.
std::vector<double> Residuals(ISimpleCollection* a, ISimpleCollection* b) {
  SmartPtr<ICalibrationBestFit> c = NewCalibration();
  c->BestFit(a, b, 0);
  SmartPtr<ITransform> forward;
  c->GetForwardTransform(forward.Out());
  SmartPtr<IDblVector> vector;
  LoadedModule::Get().Create<ITransformResidualErrors>(L"TransformResidualErrors")->GetResidualErrorVector(forward, a, b,
                                                                                                          vector.Out());
  return Values(vector);
}

// Cube corners under an affine map, each x moved by about 0.5 with the parity of the
// corner: the affine fit cannot absorb that, so every residual lies near 0.5.
void ParityCube(std::vector<P>* source, std::vector<P>* target, const double (&moves)[8]) {
  for (int i = 0; i < 8; ++i) {
    const P p{(i & 1) * 10.0, (i >> 1 & 1) * 10.0, (i >> 2 & 1) * 10.0};
    const double sign = ((i & 1) + (i >> 1 & 1) + (i >> 2 & 1)) % 2 ? 1 : -1;
    source->push_back(p);
    target->push_back({2 * p.x + 1 + sign * moves[i], p.y - p.z + 3, 0.5 * p.z + p.x});
  }
}
constexpr double kUneven[8] = {0.5, 0.52, 0.47, 0.5, 0.55, 0.5, 0.45, 0.5};

TEST(CalibrationFitAndFilter, MeanEqualToTheAllowableErrorIsAcceptedWithTheSameCollections) {
  std::vector<P> source, target;
  ParityCube(&source, &target, kUneven);
  SmartPtr<ISimpleCollection> a = Points(source), b = Points(target);
  const std::vector<double> r = Residuals(a, b);
  const Kept kept = Filtered(NewFilter(10, std::accumulate(r.begin(), r.end(), 0.0) / r.size()), a, b);
  EXPECT_EQ(kept.hr, S_OK);
  EXPECT_EQ(kept.a.get(), a.get());
  EXPECT_EQ(kept.b.get(), b.get());
}

TEST(CalibrationFitAndFilter, ResidualExactlyAtTheCutIsDropped) {
  std::vector<P> source, target;
  ParityCube(&source, &target, kUneven);
  SmartPtr<ISimpleCollection> a = Points(source), b = Points(target);
  const std::vector<double> r = Residuals(a, b);
  std::vector<double> sorted = r;
  std::sort(sorted.begin(), sorted.end());
  // The allowable error is one of the residuals; above 0.9 x the largest it is the cut.
  const double allowable = sorted[3];
  ASSERT_GE(allowable, 0.9 * sorted.back());
  ASSERT_GT(std::accumulate(r.begin(), r.end(), 0.0) / r.size(), allowable);
  const long below = std::count_if(r.begin(), r.end(), [&](double v) { return v < allowable; });
  ASSERT_GE(below, 1);
  ASSERT_LT(below, 4);
  const Kept kept = Filtered(NewFilter(2, allowable, 1), a, b);  // one cut, then the last round
  EXPECT_EQ(Count(kept.a), below);
  EXPECT_EQ(Count(kept.b), below);
}

TEST(CalibrationFitAndFilter, DropsAGrossOutlierAndRefits) {
  std::vector<P> source, target;
  Grid(&source, &target);
  target[7].x += 60;
  SmartPtr<ICalibrationBestFit> c = NewCalibration();
  const Kept kept = Filtered(NewFilter(10, 0.01), Points(source), Points(target), c);
  ASSERT_EQ(kept.hr, S_OK);
  ASSERT_EQ(Count(kept.a), 19);
  EXPECT_EQ(Count(kept.b), 19);
  for (int i = 0; i < 19; ++i) {
    const P p = PointAt(kept.a, i);
    EXPECT_FALSE(p.x == source[7].x && p.y == source[7].y) << "the outlier survived";
  }
  EXPECT_LT(MeanError(c), 1e-6);  // the calibration holds the fit without the outlier
}

// Two tests against the minimum: >= on the count before the cut (no collections come
// back), < on the count after it (the unfiltered ones come back).
TEST(CalibrationFitAndFilter, AtTheMinimumBeforeTheCutNoCollectionsComeBack) {
  std::vector<P> source, target;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      source.push_back({i * 10.0, j * 10.0, 0});
      target.push_back(Homography(source.back()));
    }
  target[8].x += 60;
  SmartPtr<ICalibrationFitAndFilter> filter = NewFilter(10, 0.001, 9);
  SmartPtr<ISimpleCollection> untouched = Points({{1, 1, 1}});
  ISimpleCollection* outA = untouched.get();
  ISimpleCollection* outB = untouched.get();
  EXPECT_EQ(filter->BestFit(NewCalibration(), Points(source), Points(target), &outA, &outB), S_FALSE);
  EXPECT_EQ(outA, untouched.get());
  EXPECT_EQ(outB, untouched.get());
  // With 8 allowed the worst pair goes; 8 remain, which is not below 8, and fit exactly.
  filter->SetMinNbPoints(8);
  const Kept kept = Filtered(filter, Points(source), Points(target));
  EXPECT_EQ(kept.hr, S_OK);
  EXPECT_EQ(Count(kept.a), 8);
}

TEST(CalibrationFitAndFilter, ACutBelowTheMinimumHandsBackTheUnfilteredPairs) {
  // Every residual near 0.5: the cut at 0.9 x the largest takes all but a few.
  std::vector<P> source, target;
  ParityCube(&source, &target, {0.5, 0.5, 0.5, 0.5, 0.5, 0.5, 0.5, 0.5});
  SmartPtr<ISimpleCollection> a = Points(source), b = Points(target);
  const Kept kept = Filtered(NewFilter(10, 0.1, 4), a, b);
  EXPECT_EQ(kept.hr, S_FALSE);
  EXPECT_EQ(kept.a.get(), a.get());
  EXPECT_EQ(kept.b.get(), b.get());
}

TEST(CalibrationFitAndFilter, IterationLimitsOfZeroAndOneHandBackTheInputs) {
  std::vector<P> source, target;
  Grid(&source, &target);
  target[3].y -= 40;
  SmartPtr<ISimpleCollection> a = Points(source), b = Points(target);
  for (int iterations : {0, 1}) {
    SmartPtr<ICalibrationFitAndFilter> filter = NewFilter(iterations, 0.001);
    SmartPtr<ICalibrationBestFit> c = NewCalibration();
    SmartPtr<ISimpleCollection> keptA;
    EXPECT_EQ(filter->BestFit(c, a, b, keptA.Out(), nullptr), S_FALSE);  // a null out is allowed
    EXPECT_EQ(keptA.get(), a.get());
    if (iterations == 0)
      EXPECT_EQ(MeanError(c), 0.0);  // never fitted
    else
      EXPECT_GT(MeanError(c), 0.0);
    EXPECT_EQ(filter->BestFit(nullptr, a, b, nullptr, nullptr), E_FAIL);
    EXPECT_EQ(filter->BestFit(Points(kNone), a, b, nullptr, nullptr), E_FAIL);  // not a calibration
  }
}

TEST(CalibrationFitAndFilter, AllowableErrorIsReadUnderTheNameMaxAllowableError) {
  SmartPtr<ICalibrationFitAndFilter> filter = NewFilter(10, 5);
  QueryAs<IParametricObject>(filter)->SetParameters(ParameterList().Number(L"MaxAllowableError", 0.75).list);
  double allowable = 0;
  filter->GetFitMethod(nullptr, nullptr, &allowable);
  EXPECT_EQ(allowable, 0.75);
  EXPECT_EQ(Parameter(filter, L"AllowableError"), 0.75);
}

}  // namespace
