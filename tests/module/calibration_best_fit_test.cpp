// The best-fit calibration: two independent transform fits and its CSV form. Files,
// streams, interfaces, references and bad fits: the property suite.
#include "tests/module/PropertySuite.h"

namespace {

constexpr double kExactData = 1e-6;  // fits of exact data through the normal equations

// An affine map keeps the matrices well inside the six decimals of the XML form.
void Prepare(IUnknown* object) {
  std::vector<P> source, target;
  Grid(&source, &target, [](const P& p) { return P{2.0 * p.x + 0.1 * p.y + 3, -0.2 * p.x + 1.8 * p.y + 1.2, 0}; });
  QueryAs<ICalibrationBestFit>(object)->BestFit(Points(source), Points(target), 0);
  SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(object);
  info->put_CALIBName(Str(L"Left camera"));
  info->put_CALIBDescription(Str(L"desk & bench"));
  info->put_CALIBUnits(2);
}

const std::vector<P> kNone, kOne = {{1, 2, 0}}, kSame(5, P{2, 2, 0}), kSquare = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {2, 2, 0}};

const property::ClassTraits kBestFit{
    .name = L"CalibrationBestFit",
    .routes = {{&IID_IObjectInfo}, {&IID_ICalibrationBestFit}, {&IID_ICalibration, &IID_ICalibrationBestFit},
               {&IID_IHomogeneousCalibration, &IID_ICalibrationBestFit}, {&IID_IFileArchive}, {&IID_IDataPersist},
               {&IID_ICalibrationInfo}, {&IID_ITransformFitErrors}, {&IID_IUIPropertyPageSpecify}},
    .prepare = Prepare,
    // XML: matrices with six decimals, only the mean error, and of the info block only
    // the name comes back; its Load walks to the end of the tags and then reports E_FAIL.
    .forms = {{.xml = true, .extension = "xml", .load = E_FAIL, .tolerance = 1e-5,
               .lost = {"errors.max", "errors.sd", "info.description", "info.time", "info.units"}},
              {.xml = false, .extension = "tCAL"}},
    .filter = L"Matrix (*.csv)|*.csv|Cal (*.fCAL)|*.tCAL|All Files (*.*)|*.*||",
    .revertTolerance = 1e-9,
    .fit = [](IUnknown* o, ISimpleCollection* s, ISimpleCollection* t) {
      return QueryAs<ICalibrationBestFit>(o)->BestFit(s, t, 0);
    },
    // The fit answers 0 whatever its transforms said: failures show only in the errors.
    .badFits = {{"null collections report success", nullptr, nullptr, S_OK},
                {"empty sets report success", &kNone, &kNone, S_OK},
                {"coincident source points report success", &kSame, &kSquare, S_OK}},
};
ZELTRIM_PROPERTY_CLASS(kBestFit);

TEST(CalibrationBestFit, ConvertAndRevertFollowTwoIndependentFitsAndTheFitSetsTheTime) {
  std::vector<P> source, target;
  Grid(&source, &target);
  SmartPtr<ICalibrationBestFit> c = NewCalibration();
  ASSERT_EQ(c->BestFit(Points(source), Points(target), 0), S_OK);
  ExpectNear(Converted(c, {33, 41, 0}), Homography({33, 41, 0}), kExactData);
  ExpectNear(Reverted(c, Homography({33, 41, 0})), {33, 41, 0}, kExactData);
  short year = 0;
  QueryAs<ICalibrationInfo>(c)->GetCalibrationTime(nullptr, nullptr, &year, nullptr, nullptr);
  EXPECT_GE(year, 2024);
}

TEST(CalibrationBestFit, FitWithoutPointsLeavesZeroErrors) {
  SmartPtr<ICalibrationBestFit> empty = NewCalibration();
  EXPECT_EQ(empty->BestFit(nullptr, nullptr, 0), S_OK);
  double mean = -1, max = -1;
  QueryAs<ITransformFitErrors>(empty)->GetFitErrors(&mean, &max, nullptr);
  EXPECT_EQ(std::make_pair(mean, max), std::make_pair(0.0, 0.0));
}

// Forward matrix, a carriage return alone, reverse matrix; 16-bit text after the mark.
// The extension compares without case over the shorter length: ".CSV" and ".c" both.
TEST(CalibrationBestFit, CsvFileHoldsBothMatricesSplitByALoneCarriageReturn) {
  std::vector<P> source, target;
  Grid(&source, &target);
  SmartPtr<ICalibrationBestFit> c = NewCalibration();
  c->BestFit(Points(source), Points(target), 0);
  std::string expected;
  for (bool forward : {true, false}) {
    SmartPtr<ITransform> t;
    forward ? c->GetForwardTransform(t.Out()) : c->GetReverseTransform(t.Out());
    const std::vector<double> m = MatrixOf(t);
    for (int r = 0; r < 4; ++r) {
      char line[256];
      std::snprintf(line, sizeof(line), "%f,%f,%f,%f\r\n", m[4 * r], m[4 * r + 1], m[4 * r + 2], m[4 * r + 3]);
      expected += line;
    }
    if (forward) expected += "\r";
  }
  std::string utf16 = "\xFF\xFE";
  for (char ch : expected) utf16 += std::string{ch, '\0'};
  for (const char* name : {"matrix.CSV", "matrix.c"}) {
    const std::string path = TempPath(name);
    ASSERT_EQ(Archive(c, path, true), S_OK) << name;
    EXPECT_TRUE(ReadBytes(path) == utf16) << name;
    std::remove(path.c_str());
  }
}

}  // namespace
