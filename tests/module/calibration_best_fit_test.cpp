// The best-fit calibration and the fit-and-filter loop through the loaded module, with
// their files in every form.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/module/ModuleFixture.h"

namespace {

constexpr double kExact = 1e-8;
constexpr double kSixDecimals = 5e-7;  // the XML matrix text keeps six decimals

struct P {
  double x, y, z;
};

SmartPtr<ISimpleCollection> Points(const std::vector<P>& points) {
  SmartPtr<IPointsCollection> c = LoadedModule::Get().CreateHost<IPointsCollection>(L"PointsCollection");
  for (const P& p : points) c->AddPoint(p.x, p.y, p.z);
  return SmartPtr<ISimpleCollection>(c.get());
}

P Homography(const P& p) {
  const double w = 0.0005 * p.x + 0.001 * p.y + 1;
  return {(2.0 * p.x + 0.1 * p.y + 30) / w, (-0.2 * p.x + 1.8 * p.y + 12) / w, 0};
}

// A 5 x 4 grid of target points and their images under the homography.
void Grid(std::vector<P>* source, std::vector<P>* target) {
  for (int i = 0; i < 5; ++i)
    for (int j = 0; j < 4; ++j) {
      source->push_back({i * 25.0, j * 20.0, 0});
      target->push_back(Homography(source->back()));
    }
}

SmartPtr<ICalibrationBestFit> NewCalibration() {
  return LoadedModule::Get().Create<ICalibrationBestFit>(L"CalibrationBestFit");
}

SmartPtr<ICalibrationBestFit> FittedCalibration(int method = 0) {
  std::vector<P> source, target;
  Grid(&source, &target);
  SmartPtr<ICalibrationBestFit> c = NewCalibration();
  EXPECT_EQ(c->BestFit(Points(source), Points(target), method), S_OK);
  return c;
}

std::vector<double> MatrixOf(ICalibrationBestFit* c, bool forward) {
  SmartPtr<ITransform> t;
  forward ? c->GetForwardTransform(t.Out()) : c->GetReverseTransform(t.Out());
  SmartPtr<IHomogeneousTransform> h = QueryAs<IHomogeneousTransform>(t);
  double* m = nullptr;
  h->GetMatrix(&m, nullptr, nullptr);
  return std::vector<double>(m, m + 16);
}

std::string TempPath(const std::string& name) {
  return "/tmp/zeltrim_test_" + std::to_string(getpid()) + "_" + name;
}

std::string ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

HRESULT SaveAs(IUnknown* object, const std::string& path) {
  SmartPtr<IFileArchive> archive = QueryAs<IFileArchive>(object);
  std::wstring wide(path.begin(), path.end());
  SmartPtr<ICreatableString> name = LoadedModule::Get().CreateHost<ICreatableString>(L"CreatableString");
  name->SetString(static_cast<int>(wide.size()), wide.c_str());
  archive->put_Filename(name);
  return archive->Save();
}

HRESULT LoadFrom(IUnknown* object, const std::string& path) {
  SmartPtr<IFileArchive> archive = QueryAs<IFileArchive>(object);
  std::wstring wide(path.begin(), path.end());
  SmartPtr<ICreatableString> name = LoadedModule::Get().CreateHost<ICreatableString>(L"CreatableString");
  name->SetString(static_cast<int>(wide.size()), wide.c_str());
  archive->put_Filename(name);
  return archive->Load();
}

std::wstring Text(IString* s) {
  const wchar_t* p = nullptr;
  int n = 0;
  if (!s || s->GetString(&p, &n) < 0 || !p) return L"";
  return std::wstring(p, n);
}

TEST(CalibrationBestFit, AnswersItsInterfacesAndCarriesItsDefaults) {
  SmartPtr<ICalibrationBestFit> c = NewCalibration();
  ASSERT_TRUE(c);
  EXPECT_EQ(static_cast<void*>(QueryAs<ICalibration>(c).get()), static_cast<void*>(c.get()));
  EXPECT_EQ(static_cast<void*>(QueryAs<IHomogeneousCalibration>(c).get()), static_cast<void*>(c.get()));
  EXPECT_TRUE(QueryAs<IFileArchive>(c));
  EXPECT_TRUE(QueryAs<IDataPersist>(c));
  EXPECT_TRUE(QueryAs<ITransformFitErrors>(c));
  EXPECT_FALSE(QueryAs<IParametricObject>(c));
  SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(c);
  ASSERT_TRUE(info);
  SmartPtr<IString> s;
  info->get_CALIBName(s.Out());
  EXPECT_EQ(Text(s), L"2D Camera");
  info->get_CALIBType(s.Out());
  EXPECT_EQ(Text(s), L"Best Fit");
  SmartPtr<IString> filter;
  QueryAs<IFileArchive>(c)->get_Filter(filter.Out(), 0);
  EXPECT_EQ(Text(filter), L"Matrix (*.csv)|*.csv|Cal (*.fCAL)|*.tCAL|All Files (*.*)|*.*||");
}

TEST(CalibrationBestFit, ConvertThenRevertComesBackThroughTwoIndependentFits) {
  SmartPtr<ICalibrationBestFit> c = FittedCalibration();
  double x = 33, y = 41, z = 0;
  ASSERT_EQ(c->Convert(&x, &y, &z), S_OK);
  const P expected = Homography({33, 41, 0});
  EXPECT_NEAR(x, expected.x, 1e-6);
  EXPECT_NEAR(y, expected.y, 1e-6);
  ASSERT_EQ(c->Revert(&x, &y, &z), S_OK);
  EXPECT_NEAR(x, 33, 1e-6);
  EXPECT_NEAR(y, 41, 1e-6);
  // The fit time is set by the fit.
  short year = 0;
  QueryAs<ICalibrationInfo>(c)->GetCalibrationTime(nullptr, nullptr, &year, nullptr, nullptr);
  EXPECT_GE(year, 2024);
}

TEST(CalibrationBestFit, FitWithoutPointsAnswersZeroAndLeavesNoErrors) {
  // A fit with no point sets still answers 0; failures show only in the errors.
  SmartPtr<ICalibrationBestFit> empty = NewCalibration();
  EXPECT_EQ(empty->BestFit(nullptr, nullptr, 0), S_OK);
  double mean = -1;
  EXPECT_EQ(QueryAs<ITransformFitErrors>(empty)->GetFitErrors(&mean, nullptr, nullptr), S_OK);
  EXPECT_EQ(mean, 0.0);
  SmartPtr<ITransform> t;
  EXPECT_EQ(empty->GetForwardTransform(nullptr), E_POINTER);
  EXPECT_EQ(empty->GetForwardTransform(t.Out()), S_OK);
}

TEST(CalibrationBestFit, CsvFileHoldsBothMatricesSplitByALoneCarriageReturn) {
  SmartPtr<ICalibrationBestFit> c = FittedCalibration();
  const std::string path = TempPath("matrix.CSV");  // the extension compares without case
  ASSERT_EQ(SaveAs(c, path), S_OK);
  std::string expected;
  auto lines = [&](const std::vector<double>& m) {
    for (int r = 0; r < 4; ++r) {
      char line[256];
      std::snprintf(line, sizeof(line), "%f,%f,%f,%f\r\n", m[4 * r], m[4 * r + 1], m[4 * r + 2], m[4 * r + 3]);
      expected += line;
    }
  };
  lines(MatrixOf(c, true));
  expected += "\r";
  lines(MatrixOf(c, false));
  std::string utf16 = "\xFF\xFE";
  for (char ch : expected) utf16 += std::string{ch, '\0'};
  EXPECT_EQ(ReadBytes(path), utf16);
  std::remove(path.c_str());
}

TEST(CalibrationBestFit, FolderFileKeepsBothMatricesExactly) {
  SmartPtr<ICalibrationBestFit> c = FittedCalibration();
  const std::string path = TempPath("cal.tCAL");
  ASSERT_EQ(SaveAs(c, path), S_OK);
  SmartPtr<ICalibrationBestFit> back = NewCalibration();
  ASSERT_EQ(LoadFrom(back, path), S_OK);
  EXPECT_EQ(MatrixOf(back, true), MatrixOf(c, true));
  EXPECT_EQ(MatrixOf(back, false), MatrixOf(c, false));
  std::remove(path.c_str());
}

TEST(CalibrationBestFit, XmlFileRestoresBothMatricesToSixDecimals) {
  SmartPtr<ICalibrationBestFit> c = FittedCalibration();
  const std::string path = TempPath("cal.xml");
  ASSERT_EQ(SaveAs(c, path), S_OK);
  const std::string bytes = ReadBytes(path);
  ASSERT_GT(bytes.size(), 2u);
  EXPECT_EQ(bytes.substr(0, 2), "\xFF\xFE");
  if (std::system("command -v xmllint >/dev/null 2>&1") == 0) {
    EXPECT_EQ(std::system(("xmllint --noout " + path + " 2>/dev/null").c_str()), 0);
  }
  SmartPtr<ICalibrationBestFit> back = NewCalibration();
  EXPECT_EQ(LoadFrom(back, path), S_OK);  // the archive reports success on this path
  const std::vector<double> a = MatrixOf(c, true), b = MatrixOf(back, true);
  const std::vector<double> ra = MatrixOf(c, false), rb = MatrixOf(back, false);
  for (int i = 0; i < 16; ++i) {
    EXPECT_NEAR(a[i], b[i], kSixDecimals);
    EXPECT_NEAR(ra[i], rb[i], kSixDecimals);
  }
  std::remove(path.c_str());
}

TEST(CalibrationBestFit, XmlLoadOfItsOwnStreamReportsFailureAfterRestoring) {
  LoadedModule& m = LoadedModule::Get();
  SmartPtr<ICalibrationBestFit> c = FittedCalibration();
  SmartPtr<IXMLStreamEx> out = m.CreateHost<IXMLStreamEx>(L"XMLStreamEx");
  out->Attach(nullptr, 0, 0);
  SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(c);
  out->BeginObject(persist, 0, 0);  // a document has one root element, as a file does
  ASSERT_EQ(persist->Save(out, 0), S_OK);
  out->CloseTag();
  void* text = nullptr;
  unsigned long bytes = 0;
  out->GetBuffer(&text, &bytes);
  SmartPtr<IXMLStream> in = m.CreateHost<IXMLStream>(L"XMLStream");
  ASSERT_EQ(in->Attach(text, bytes, 0), S_OK);
  SmartPtr<IUnknown> content;
  ASSERT_EQ(in->ReadElement(0, nullptr, nullptr, content.Out(), 0), S_OK);
  SmartPtr<ICalibrationBestFit> back = NewCalibration();
  EXPECT_EQ(QueryAs<IDataPersist>(back)->Load(QueryAs<IDataStream>(content), 0), E_FAIL);
  const std::vector<double> a = MatrixOf(c, true), b = MatrixOf(back, true);
  for (int i = 0; i < 16; ++i) EXPECT_NEAR(a[i], b[i], kSixDecimals);
  EXPECT_NE(b[0], 1.0);  // not the identity of a new object
}

TEST(CalibrationBestFit, UnknownExtensionsAndStreamsAreRefused) {
  SmartPtr<ICalibrationBestFit> c = FittedCalibration();
  EXPECT_EQ(SaveAs(c, TempPath("cal.dat")), E_FAIL);
  EXPECT_EQ(SaveAs(c, TempPath("noextension")), E_FAIL);
  SmartPtr<IDataPersist> persist = QueryAs<IDataPersist>(c);
  EXPECT_EQ(persist->Save(nullptr, 0), E_FAIL);
  EXPECT_EQ(persist->Load(nullptr, 0), E_FAIL);
  SmartPtr<IDataStream> plain = LoadedModule::Get().CreateHost<IDataStream>(L"DataStream");
  EXPECT_EQ(persist->Load(plain, 0), E_FAIL);
}

// ------------------------------------------------------------------ fit and filter

SmartPtr<ICalibrationFitAndFilter> NewFilter() {
  return LoadedModule::Get().Create<ICalibrationFitAndFilter>(L"CalibrationFitAndFilter");
}

int Count(ISimpleCollection* c) {
  int n = -1;
  if (c) c->get_Count(&n);
  return n;
}

TEST(CalibrationFitAndFilter, CleanSetIsAcceptedInTheFirstRound) {
  std::vector<P> source, target;
  Grid(&source, &target);
  SmartPtr<ISimpleCollection> a = Points(source), b = Points(target);
  SmartPtr<ICalibrationFitAndFilter> filter = NewFilter();
  SmartPtr<ICalibrationBestFit> c = NewCalibration();
  SmartPtr<ISimpleCollection> keptA, keptB;
  ASSERT_EQ(filter->BestFit(c, a, b, keptA.Out(), keptB.Out()), S_OK);
  EXPECT_EQ(keptA.get(), a.get());
  EXPECT_EQ(keptB.get(), b.get());
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
    SmartPtr<IUnknown> item;
    keptA->get_Item(i, item.Out());
    double x, y, z;
    QueryAs<IPoint>(item)->GetXYZ(&x, &y, &z);
    EXPECT_FALSE(x == source[7].x && y == source[7].y) << "the outlier survived";
  }
  double mean = -1;
  QueryAs<ITransformFitErrors>(c)->GetFitErrors(&mean, nullptr, nullptr);
  EXPECT_LT(mean, 1e-6);  // the calibration holds the fit without the outlier
}

TEST(CalibrationFitAndFilter, StopsBeforeGoingBelowTheMinimumCount) {
  // A 3 x 3 grid whose last target is far off.
  std::vector<P> source, target;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      source.push_back({i * 10.0, j * 10.0, 0});
      target.push_back(Homography(source.back()));
    }
  target[8].x += 60;
  SmartPtr<ICalibrationFitAndFilter> filter = NewFilter();
  filter->SetFitMethod(0, 10, 0.001);
  // The minimum reached before filtering: no collections come back.
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
  // Cube corners moved by an affine map plus +-0.5 in x by the parity of the corner: the
  // parity is orthogonal to every affine function, so the fit recovers the map and every
  // pair is left with the same residual 0.5. The cut at 0.9 x 0.5 takes all of them.
  std::vector<P> source, target;
  for (int i = 0; i < 2; ++i)
    for (int j = 0; j < 2; ++j)
      for (int k = 0; k < 2; ++k) {
        const P p{i * 10.0, j * 10.0, k * 10.0};
        const double parity = ((i + j + k) % 2) ? 0.5 : -0.5;
        source.push_back(p);
        target.push_back({2 * p.x + 1 + parity, p.y - p.z + 3, 0.5 * p.z + p.x});
      }
  SmartPtr<ISimpleCollection> a = Points(source), b = Points(target);
  SmartPtr<ICalibrationFitAndFilter> filter = NewFilter();
  filter->SetFitMethod(0, 10, 0.1);
  filter->SetMinNbPoints(4);
  SmartPtr<ISimpleCollection> keptA, keptB;
  EXPECT_EQ(filter->BestFit(NewCalibration(), a, b, keptA.Out(), keptB.Out()), S_FALSE);
  EXPECT_EQ(keptA.get(), a.get());
  EXPECT_EQ(keptB.get(), b.get());
}

TEST(CalibrationFitAndFilter, IterationLimitsOfZeroAndOne) {
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
  EXPECT_EQ(filter->BestFit(Points({}), a, b, nullptr, nullptr), E_FAIL);
}

TEST(CalibrationFitAndFilter, AllowableErrorIsSavedUnderOneNameAndReadUnderAnother) {
  LoadedModule& m = LoadedModule::Get();
  SmartPtr<ICalibrationFitAndFilter> filter = NewFilter();
  filter->SetFitMethod(2, 7, 0.25);
  filter->SetMinNbPoints(9);
  SmartPtr<IParametricObject> parametric = QueryAs<IParametricObject>(filter);
  ASSERT_TRUE(parametric);
  EXPECT_FALSE(QueryAs<IDataPersist>(filter));
  SmartPtr<INamedCollection> params;
  ASSERT_EQ(parametric->GetParameters(params.Out(), 0), S_OK);
  ASSERT_EQ(Count(params), 4);
  const wchar_t* names[] = {L"FitMethod", L"MaxIterations", L"MinNumberPoints", L"AllowableError"};
  for (int i = 0; i < 4; ++i) {
    SmartPtr<IString> name;
    params->get_ItemName(i, name.Out());
    EXPECT_EQ(Text(name), names[i]);
  }
  SmartPtr<ICalibrationFitAndFilter> other = NewFilter();
  ASSERT_EQ(QueryAs<IParametricObject>(other)->SetParameters(params), S_OK);
  int method = 0, iterations = 0;
  double allowable = 0;
  other->GetFitMethod(&method, &iterations, &allowable);
  EXPECT_EQ(method, 2);
  EXPECT_EQ(iterations, 7);
  EXPECT_EQ(allowable, 5.0);  // "AllowableError" is not the name read back

  SmartPtr<IParametersCreatable> renamed = m.CreateHost<IParametersCreatable>(L"ParametersCreatable");
  SmartPtr<IVariant> value = m.CreateHost<IVariant>(L"Variant");
  value->put_Double(0.75);
  SmartPtr<ICreatableString> key = m.CreateHost<ICreatableString>(L"CreatableString");
  key->SetString(17, L"MaxAllowableError");
  renamed->Add(key, value, nullptr, 0);
  QueryAs<IParametricObject>(other)->SetParameters(renamed);
  other->GetFitMethod(nullptr, nullptr, &allowable);
  EXPECT_EQ(allowable, 0.75);
}

}  // namespace
