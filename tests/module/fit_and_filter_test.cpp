// Fit and filter: acceptance, the cut, the two tests against the minimum count, the
// iteration limits and the parameter read under another name. Interfaces, references,
// parameters and bad input: the property suite.
#include <algorithm>

#include "tests/module/PropertySuite.h"

namespace {

SmartPtr<ICalibrationFitAndFilter> NewFilter() {
  return LoadedModule::Get().Create<ICalibrationFitAndFilter>(L"CalibrationFitAndFilter");
}

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

// Residuals of a best-fit calibration fitted to the pairs, in the order the filter sees them.
std::vector<double> Residuals(ISimpleCollection* a, ISimpleCollection* b) {
  SmartPtr<ICalibrationBestFit> c = NewCalibration();
  c->BestFit(a, b, 0);
  SmartPtr<ITransform> forward;
  c->GetForwardTransform(forward.Out());
  SmartPtr<IDblVector> vector;
  LoadedModule::Get().Create<ITransformResidualErrors>(L"TransformResidualErrors")->GetResidualErrorVector(forward, a, b,
                                                                                                          vector.Out());
  std::vector<double> values(static_cast<size_t>(Count(vector)));
  for (size_t i = 0; i < values.size(); ++i) vector->get_Item(static_cast<int>(i), &values[i]);
  return values;
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

TEST(CalibrationFitAndFilter, CleanSetIsAcceptedInTheFirstRound) {
  std::vector<P> source, target;
  Grid(&source, &target);
  SmartPtr<ISimpleCollection> a = Points(source), b = Points(target);
  SmartPtr<ISimpleCollection> keptA, keptB;
  ASSERT_EQ(NewFilter()->BestFit(NewCalibration(), a, b, keptA.Out(), keptB.Out()), S_OK);
  EXPECT_EQ(keptA.get(), a.get());
  EXPECT_EQ(keptB.get(), b.get());
}

TEST(CalibrationFitAndFilter, MeanEqualToTheAllowableErrorIsAccepted) {
  std::vector<P> source, target;
  ParityCube(&source, &target, {0.5, 0.52, 0.47, 0.5, 0.55, 0.5, 0.45, 0.5});
  SmartPtr<ISimpleCollection> a = Points(source), b = Points(target);
  double sum = 0;
  const std::vector<double> r = Residuals(a, b);
  for (double v : r) sum += v;
  SmartPtr<ICalibrationFitAndFilter> filter = NewFilter();
  filter->SetFitMethod(0, 10, sum / static_cast<double>(r.size()));
  SmartPtr<ISimpleCollection> keptA;
  EXPECT_EQ(filter->BestFit(NewCalibration(), a, b, keptA.Out(), nullptr), S_OK);
  EXPECT_EQ(keptA.get(), a.get());
}

TEST(CalibrationFitAndFilter, ResidualExactlyAtTheCutIsDropped) {
  std::vector<P> source, target;
  ParityCube(&source, &target, {0.5, 0.52, 0.47, 0.5, 0.55, 0.5, 0.45, 0.5});
  SmartPtr<ISimpleCollection> a = Points(source), b = Points(target);
  std::vector<double> r = Residuals(a, b);
  std::vector<double> sorted = r;
  std::sort(sorted.begin(), sorted.end());
  // The allowable error is one of the residuals; above 0.9 x the largest it is the cut.
  const double allowable = sorted[3];
  double sum = 0;
  for (double v : r) sum += v;
  ASSERT_GE(allowable, 0.9 * sorted.back());
  ASSERT_GT(sum / r.size(), allowable);
  const long below = std::count_if(r.begin(), r.end(), [&](double v) { return v < allowable; });
  ASSERT_GE(below, 1);
  ASSERT_LT(below, 4);
  SmartPtr<ICalibrationFitAndFilter> filter = NewFilter();
  filter->SetFitMethod(0, 2, allowable);  // one cut, then the last round
  filter->SetMinNbPoints(1);
  SmartPtr<ISimpleCollection> keptA, keptB;
  filter->BestFit(NewCalibration(), a, b, keptA.Out(), keptB.Out());
  EXPECT_EQ(Count(keptA), below);
  EXPECT_EQ(Count(keptB), below);
}

TEST(CalibrationFitAndFilter, DropsAGrossOutlierAndRefits) {
  std::vector<P> source, target;
  Grid(&source, &target);
  target[7].x += 60;
  SmartPtr<ICalibrationFitAndFilter> filter = NewFilter();
  filter->SetFitMethod(0, 10, 0.01);
  SmartPtr<ICalibrationBestFit> c = NewCalibration();
  SmartPtr<ISimpleCollection> keptA, keptB;
  ASSERT_EQ(filter->BestFit(c, Points(source), Points(target), keptA.Out(), keptB.Out()), S_OK);
  ASSERT_EQ(Count(keptA), 19);
  EXPECT_EQ(Count(keptB), 19);
  for (int i = 0; i < 19; ++i) {
    const P p = PointAt(keptA, i);
    EXPECT_FALSE(p.x == source[7].x && p.y == source[7].y) << "the outlier survived";
  }
  double mean = -1;
  QueryAs<ITransformFitErrors>(c)->GetFitErrors(&mean, nullptr, nullptr);
  EXPECT_LT(mean, 1e-6);  // the calibration holds the fit without the outlier
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
  SmartPtr<ICalibrationFitAndFilter> filter = NewFilter();
  filter->SetFitMethod(0, 10, 0.001);
  filter->SetMinNbPoints(9);
  SmartPtr<ISimpleCollection> untouched = Points({{1, 1, 1}});
  ISimpleCollection* outA = untouched.get();
  ISimpleCollection* outB = untouched.get();
  EXPECT_EQ(filter->BestFit(NewCalibration(), Points(source), Points(target), &outA, &outB), S_FALSE);
  EXPECT_EQ(outA, untouched.get());
  EXPECT_EQ(outB, untouched.get());
  // With 8 allowed the worst pair goes; 8 remain, which is not below 8, and fit exactly.
  filter->SetMinNbPoints(8);
  SmartPtr<ISimpleCollection> keptA, keptB;
  EXPECT_EQ(filter->BestFit(NewCalibration(), Points(source), Points(target), keptA.Out(), keptB.Out()), S_OK);
  EXPECT_EQ(Count(keptA), 8);
}

TEST(CalibrationFitAndFilter, ACutBelowTheMinimumHandsBackTheUnfilteredPairs) {
  // Every residual near 0.5: the cut at 0.9 x the largest takes all but a few.
  std::vector<P> source, target;
  ParityCube(&source, &target, {0.5, 0.5, 0.5, 0.5, 0.5, 0.5, 0.5, 0.5});
  SmartPtr<ISimpleCollection> a = Points(source), b = Points(target);
  SmartPtr<ICalibrationFitAndFilter> filter = NewFilter();
  filter->SetFitMethod(0, 10, 0.1);
  filter->SetMinNbPoints(4);
  SmartPtr<ISimpleCollection> keptA, keptB;
  EXPECT_EQ(filter->BestFit(NewCalibration(), a, b, keptA.Out(), keptB.Out()), S_FALSE);
  EXPECT_EQ(keptA.get(), a.get());
  EXPECT_EQ(keptB.get(), b.get());
}

TEST(CalibrationFitAndFilter, IterationLimitsOfZeroAndOneHandBackTheInputs) {
  std::vector<P> source, target;
  Grid(&source, &target);
  target[3].y -= 40;
  SmartPtr<ISimpleCollection> a = Points(source), b = Points(target);
  SmartPtr<ICalibrationFitAndFilter> filter = NewFilter();
  for (int iterations : {0, 1}) {
    filter->SetFitMethod(0, iterations, 0.001);
    SmartPtr<ICalibrationBestFit> c = NewCalibration();
    SmartPtr<ISimpleCollection> keptA;
    EXPECT_EQ(filter->BestFit(c, a, b, keptA.Out(), nullptr), S_FALSE);  // a null out is allowed
    EXPECT_EQ(keptA.get(), a.get());
    double mean = -1;
    QueryAs<ITransformFitErrors>(c)->GetFitErrors(&mean, nullptr, nullptr);
    if (iterations == 0)
      EXPECT_EQ(mean, 0.0);  // never fitted
    else
      EXPECT_GT(mean, 0.0);
  }
  EXPECT_EQ(filter->BestFit(nullptr, a, b, nullptr, nullptr), E_FAIL);
  EXPECT_EQ(filter->BestFit(Points(kNone), a, b, nullptr, nullptr), E_FAIL);  // not a calibration
}

TEST(CalibrationFitAndFilter, AllowableErrorIsReadUnderTheNameMaxAllowableError) {
  SmartPtr<ICalibrationFitAndFilter> filter = NewFilter();
  ParameterList renamed;
  renamed.Number(L"MaxAllowableError", 0.75).Number(L"MinNumberPoints", 6);
  QueryAs<IParametricObject>(filter)->SetParameters(renamed.list);
  double allowable = 0;
  filter->GetFitMethod(nullptr, nullptr, &allowable);
  EXPECT_EQ(allowable, 0.75);
  EXPECT_EQ(Parameter(filter, L"AllowableError"), 0.75);
  EXPECT_EQ(Parameter(filter, L"MinNumberPoints"), 6.0);
}

}  // namespace
