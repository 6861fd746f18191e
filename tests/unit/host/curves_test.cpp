// The curves of the "Geometry" peer, "CurveLagrange" and "CurveSpline", made through the
// global collection as the polynomial calibration makes them, against values worked out
// by hand from host/README.md (section "Curves").
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "tests/unit/TestText.h"

using namespace test_text;

namespace {

// Sums of a few terms of exactly representable values: rounding only.
constexpr double kRounding = 1e-12;

struct XY {
  double x, y;
};

SmartPtr<IPointsCollection> Samples(std::initializer_list<XY> list) {
  SmartPtr<IPointsCollection> points = CreateHostObject<IPointsCollection>(L"PointsCollection");
  for (const XY& s : list) points->AddPoint(s.x, s.y, 99);  // z is not read
  return points;
}

double At(ICurve* curve, double x) {
  double y = NAN;
  EXPECT_EQ(curve->Evaluate(x, &y), S_OK) << "at " << x;
  return y;
}

SmartPtr<ICurve> Fitted(const wchar_t* name, std::initializer_list<XY> samples, int order = 0) {
  SmartPtr<ICurve> curve = CreateHostObject<ICurve>(name);
  EXPECT_TRUE(curve);
  if (!curve) return curve;
  if (order) {
    EXPECT_EQ(QueryAs<ICurveSpline>(curve)->put_Order(order), S_OK);
  }
  EXPECT_EQ(QueryAs<IPolynomial>(curve)->Fit(Samples(samples)), S_OK);
  return curve;
}

// The content of the one element of an XML text, as an object receives it from a file.
SmartPtr<IDataStream> XmlContent(const std::wstring& document) {
  SmartPtr<IXMLStream> in = CreateHostObject<IXMLStream>(L"XMLStream");
  tagREFString tag{0, nullptr};
  SmartPtr<IUnknown> content;
  if (!in || in->Attach(const_cast<wchar_t*>(document.c_str()), document.size() * sizeof(wchar_t), 0) < 0 ||
      in->NextTag(&tag) < 0 || in->ReadElement(tag.m_Length, tag.m_Text, nullptr, content.Out(), 0) < 0)
    return SmartPtr<IDataStream>();
  return QueryAs<IDataStream>(content);
}

// The object saved into a new XML stream inside its own element, as text.
std::wstring XmlOf(IUnknown* object) {
  SmartPtr<IXMLStream> xml = CreateHostObject<IXMLStream>(L"XMLStreamEx");
  xml->Attach(nullptr, 0, 0);
  xml->BeginObject(object, 0, 0);
  EXPECT_EQ(QueryAs<IDataPersist>(object)->Save(xml, 0), S_OK);
  xml->CloseTag();
  return TextOf(xml);
}

// The object saved into a folder stream, then that stream's file image read back.
SmartPtr<IDataStream> FolderOf(IUnknown* object) {
  SmartPtr<IDataStream> out = CreateHostObject<IDataStream>(L"FolderStream");
  out->Open(nullptr, 1000, 1);
  EXPECT_EQ(QueryAs<IDataPersist>(object)->Save(out, 0), S_OK);
  void* data = nullptr;
  unsigned long size = 0;
  out->GetBuffer(&data, &size);
  static std::vector<char> image;
  image.assign(static_cast<char*>(data), static_cast<char*>(data) + size);
  SmartPtr<IDataStream> in = CreateHostObject<IDataStream>(L"FolderStream");
  EXPECT_EQ(in->Open(image.data(), static_cast<unsigned long>(image.size()), 0), S_OK);
  return in;
}

const double kProbes[] = {-7.25, -1, 0, 0.3, 0.5, 1, 1.5, 2, 2.75, 3, 11};

// ---------------------------------------------------------------- CurveLagrange

TEST(CurveLagrange, InterpolatesTheQuadraticThroughThreeSamplesAndExtrapolatesIt) {
  // (0, 1), (1, 3), (2, 7) given out of order: p(x) = x^2 + x + 1.
  SmartPtr<ICurve> p = Fitted(L"CurveLagrange", {{2, 7}, {0, 1}, {1, 3}});
  EXPECT_EQ(At(p, 0), 1) << "a sample's own x gives its y exactly";
  EXPECT_EQ(At(p, 2), 7);
  EXPECT_NEAR(At(p, 0.5), 1.75, kRounding);
  EXPECT_NEAR(At(p, 3), 13, kRounding);
  EXPECT_NEAR(At(p, -1), 1, kRounding);
  EXPECT_NEAR(At(p, 10), 111, 1e-10);
}

TEST(CurveLagrange, ReproducesACubicOnUnevenSamplesFarFromTheOrigin) {
  // y = (x - 1000)^3 - 2 (x - 1000): the interpolant of four samples is the cubic itself.
  const auto f = [](double x) { return (x - 1000) * (x - 1000) * (x - 1000) - 2 * (x - 1000); };
  SmartPtr<ICurve> p = Fitted(L"CurveLagrange", {{998, f(998)}, {999.5, f(999.5)}, {1001, f(1001)}, {1003, f(1003)}});
  for (double x : {997.0, 999.0, 1000.0, 1000.25, 1002.0, 1005.0}) EXPECT_NEAR(At(p, x), f(x), 1e-9) << x;
}

TEST(CurveLagrange, OneSampleIsAConstantAndDuplicatesAreMerged) {
  SmartPtr<ICurve> one = Fitted(L"CurveLagrange", {{4, -2.5}});
  for (double x : kProbes) EXPECT_EQ(At(one, x), -2.5);
  // x = 1 twice with y 2 and 4: one sample (1, 3); with (0, 1) the line 1 + 2x.
  SmartPtr<ICurve> line = Fitted(L"CurveLagrange", {{1, 2}, {0, 1}, {1, 4}});
  EXPECT_EQ(At(line, 1), 3);
  EXPECT_NEAR(At(line, 5), 11, kRounding) << "a line, not a parabola through three samples";
}

TEST(CurveLagrange, RefusesWhatItCannotFitAndKeepsItsSamples) {
  SmartPtr<ICurve> curve = CreateHostObject<ICurve>(L"CurveLagrange");
  double y = 42;
  EXPECT_EQ(curve->Evaluate(1, &y), E_FAIL) << "no samples yet";
  EXPECT_EQ(y, 42);
  EXPECT_EQ(curve->Evaluate(1, nullptr), E_POINTER);
  SmartPtr<IPolynomial> fit = QueryAs<IPolynomial>(curve);
  ASSERT_EQ(fit->Fit(Samples({{0, 1}, {1, 2}})), S_OK);
  EXPECT_EQ(fit->Fit(Samples({})), E_INVALIDARG);
  EXPECT_EQ(fit->Fit(Samples({{0, 1}, {NAN, 2}})), E_INVALIDARG);
  EXPECT_EQ(fit->Fit(Samples({{0, 1}, {1, INFINITY}})), E_INVALIDARG);
  EXPECT_EQ(fit->Fit(nullptr), E_POINTER);
  EXPECT_NEAR(At(curve, 3), 4, kRounding) << "the line through (0, 1), (1, 2) is still there";
  EXPECT_FALSE(QueryAs<ICurveSpline>(curve)) << "no spline order to set";
}

// ---------------------------------------------------------------- CurveSpline

TEST(CurveSpline, NaturalCubicThroughThreeSamples) {
  // (0, 0), (1, 1), (2, 0): M0 = M2 = 0 and 4 M1 = 6 (-1 - 1), so M1 = -3. At 0.5:
  // 0.5 + (0.125 - 0.5)(-3) / 6 = 0.6875. End slopes: 1 - (-3)/6 = 1.5 and -1.5, so the
  // straight continuations give S(-1) = -1.5 and S(3) = -1.5.
  SmartPtr<ICurve> s = Fitted(L"CurveSpline", {{2, 0}, {0, 0}, {1, 1}});
  int order = 0;
  EXPECT_EQ(QueryAs<ICurveSpline>(s)->get_Order(&order), S_OK);
  EXPECT_EQ(order, 2) << "the default";
  EXPECT_EQ(At(s, 0), 0);
  EXPECT_EQ(At(s, 1), 1);
  EXPECT_EQ(At(s, 2), 0);
  EXPECT_NEAR(At(s, 0.5), 0.6875, kRounding);
  EXPECT_NEAR(At(s, 1.5), 0.6875, kRounding);
  EXPECT_NEAR(At(s, -1), -1.5, kRounding);
  EXPECT_NEAR(At(s, 3), -1.5, kRounding);
}

TEST(CurveSpline, NaturalCubicThroughFourSamples) {
  // (0, 0), (1, 1), (2, 0), (3, 1): 4 M1 + M2 = -12, M1 + 4 M2 = 12, so M1 = -4, M2 = 4.
  // At 0.5: 0.5 + (0.125 - 0.5)(-4) / 6 = 0.75; at 1.5: 0.5 + (-0.375)(-4 + 4) / 6 = 0.5.
  // Start slope 1 - (-4)/6 = 5/3, so S(-3) = -5.
  SmartPtr<ICurve> s = Fitted(L"CurveSpline", {{0, 0}, {1, 1}, {2, 0}, {3, 1}});
  EXPECT_NEAR(At(s, 0.5), 0.75, kRounding);
  EXPECT_NEAR(At(s, 1.5), 0.5, kRounding);
  EXPECT_NEAR(At(s, 2.5), 0.25, kRounding);
  EXPECT_NEAR(At(s, -3), -5, kRounding);
  EXPECT_NEAR(At(s, 4), 1 + 5.0 / 3.0, kRounding);
}

TEST(CurveSpline, IsExactForAStraightLineAndTwoSamplesGiveTheLine) {
  SmartPtr<ICurve> line = Fitted(L"CurveSpline", {{-2, -3}, {0.5, 2}, {1, 3}, {4, 9}});
  for (double x : kProbes) EXPECT_NEAR(At(line, x), 2 * x + 1, kRounding) << x;
  SmartPtr<ICurve> two = Fitted(L"CurveSpline", {{1, 1}, {3, 5}});
  for (double x : kProbes) EXPECT_NEAR(At(two, x), 2 * x - 1, kRounding) << x;
}

TEST(CurveSpline, OrderOneIsTheBrokenLineAndOrderCanChangeAfterTheFit) {
  SmartPtr<ICurve> s = Fitted(L"CurveSpline", {{0, 0}, {1, 1}, {2, 0}}, 1);
  EXPECT_EQ(At(s, 0.5), 0.5);
  EXPECT_EQ(At(s, 1.25), 0.75);
  EXPECT_EQ(At(s, -1), -1) << "the first segment goes on";
  EXPECT_EQ(At(s, 4), -2) << "the last segment goes on";
  SmartPtr<ICurveSpline> spline = QueryAs<ICurveSpline>(s);
  ASSERT_EQ(spline->put_Order(2), S_OK);
  EXPECT_NEAR(At(s, 0.5), 0.6875, kRounding) << "the samples are kept, the curve rebuilt";
  EXPECT_EQ(spline->put_Order(3), E_INVALIDARG);
  EXPECT_EQ(spline->put_Order(0), E_INVALIDARG);
  int order = 0;
  spline->get_Order(&order);
  EXPECT_EQ(order, 2);
  EXPECT_EQ(spline->get_Order(nullptr), E_POINTER);
  EXPECT_EQ(spline->Reserved_ICS2(), E_NOTIMPL);
  double y = 0;
  EXPECT_EQ(spline->Evaluate(0.5, &y), S_OK) << "ICurveSpline's Evaluate is ICurve's";
  EXPECT_NEAR(y, 0.6875, kRounding);
}

TEST(CurveSpline, MergesDuplicatesAndRefusesFewerThanTwoSamples) {
  // x = 1 three times (y 0, 3, 6): one sample (1, 3); with (3, 7) the line 2x + 1.
  SmartPtr<ICurve> s = Fitted(L"CurveSpline", {{1, 0}, {3, 7}, {1, 3}, {1, 6}});
  EXPECT_EQ(At(s, 1), 3);
  EXPECT_NEAR(At(s, 2), 5, kRounding);
  SmartPtr<IPolynomial> fit = QueryAs<IPolynomial>(s);
  EXPECT_EQ(fit->Fit(Samples({{5, 5}})), E_INVALIDARG);
  EXPECT_EQ(fit->Fit(Samples({{5, 5}, {5, 6}})), E_INVALIDARG) << "one x: one sample";
  EXPECT_EQ(fit->Fit(Samples({})), E_INVALIDARG);
  EXPECT_EQ(fit->Fit(Samples({{0, 0}, {NAN, 1}})), E_INVALIDARG);
  EXPECT_NEAR(At(s, 2), 5, kRounding) << "refused fits leave the curve";
  SmartPtr<ICurve> empty = CreateHostObject<ICurve>(L"CurveSpline");
  double y = 42;
  EXPECT_EQ(empty->Evaluate(0, &y), E_FAIL);
  EXPECT_EQ(y, 42);
  EXPECT_TRUE(std::isnan(At(s, NAN))) << "no interval holds NaN";
}

// ---------------------------------------------------------------- stored forms

TEST(Curves, BothFormsGiveEveryBitBack) {
  const std::initializer_list<XY> samples = {{0.1, 1.0 / 3}, {-2.5, 7}, {1e-3, -4.25}, {12.75, 0.2}};
  for (const wchar_t* name : {L"CurveLagrange", L"CurveSpline"}) {
    SCOPED_TRACE(std::string(name, name + std::wcslen(name)));
    SmartPtr<ICurve> saved = Fitted(name, samples);
    if (SmartPtr<ICurveSpline> spline = QueryAs<ICurveSpline>(saved)) spline->put_Order(1);
    SmartPtr<ICurve> fromFolder = CreateHostObject<ICurve>(name), fromXml = CreateHostObject<ICurve>(name);
    ASSERT_EQ(QueryAs<IDataPersist>(fromFolder)->Load(FolderOf(saved), 0), S_OK);
    const std::wstring xml = XmlOf(saved);
    ASSERT_EQ(QueryAs<IDataPersist>(fromXml)->Load(XmlContent(xml), 0), S_OK);
    for (double x : kProbes) {
      EXPECT_EQ(At(fromFolder, x), At(saved, x)) << x;
      EXPECT_EQ(At(fromXml, x), At(saved, x)) << x;
    }
    EXPECT_EQ(XmlOf(fromXml), xml) << "written again, the same text";
    if (SmartPtr<ICurveSpline> spline = QueryAs<ICurveSpline>(fromXml)) {
      int order = 0;
      spline->get_Order(&order);
      EXPECT_EQ(order, 1);
    }
  }
}

TEST(Curves, LoadRefusesWhatItCannotReadAndKeepsTheCurve) {
  SmartPtr<ICurve> spline = Fitted(L"CurveSpline", {{0, 0}, {1, 2}});
  SmartPtr<ICurve> lagrange = Fitted(L"CurveLagrange", {{0, 0}, {1, 2}});
  SmartPtr<IDataPersist> s = QueryAs<IDataPersist>(spline), l = QueryAs<IDataPersist>(lagrange);
  for (const wchar_t* bad : {L"<C><Order>2</Order></C>", L"<C><Order>2</Order><Sample>1</Sample><Sample>2 3</Sample></C>",
                             L"<C><Order>2</Order><Sample>1 x</Sample><Sample>2 3</Sample></C>",
                             L"<C><Order>2</Order><Sample>1 nan</Sample><Sample>2 3</Sample></C>",
                             L"<C><Order>2</Order><Sample>1 2 3</Sample><Sample>2 3</Sample></C>"}) {
    EXPECT_EQ(s->Load(XmlContent(bad), 0), E_FAIL) << std::string(bad, bad + std::wcslen(bad));
    EXPECT_EQ(l->Load(XmlContent(bad), 0), E_FAIL) << std::string(bad, bad + std::wcslen(bad));
  }
  // The spline needs two samples and an order of 1 or 2 if one is stored; the Lagrange
  // curve one sample.
  EXPECT_EQ(s->Load(XmlContent(L"<C><Order>3</Order><Sample>1 1</Sample><Sample>2 3</Sample></C>"), 0), E_FAIL);
  EXPECT_EQ(s->Load(XmlContent(L"<C><Order>2</Order><Sample>1 1</Sample></C>"), 0), E_FAIL);
  EXPECT_EQ(At(spline, 3), 6) << "the curve is as it was";
  EXPECT_EQ(At(lagrange, 3), 6);
  EXPECT_EQ(l->Load(XmlContent(L"<C><Sample>1 5</Sample></C>"), 0), S_OK);
  EXPECT_EQ(At(lagrange, 3), 5);
  SmartPtr<IDataStream> empty = CreateHostObject<IDataStream>(L"FolderStream");
  EXPECT_EQ(s->Load(empty, 0), E_FAIL);
  SmartPtr<IDataStream> plain = CreateHostObject<IDataStream>(L"DataStream");
  EXPECT_EQ(s->Load(plain, 0), E_FAIL);
  EXPECT_EQ(s->Save(plain, 0), E_FAIL);
  EXPECT_EQ(s->Save(nullptr, 0), E_POINTER);
  // A folder whose sample block is not whole samples.
  SmartPtr<IFolderStream> folder = CreateHostObject<IFolderStream>(L"FolderStream");
  const double block[3] = {1, 2, 3};
  int order = 2;
  folder->WriteValue(Str(L"Order"), &order, FOLDER_INT32);
  folder->WriteData(Str(L"Samples"), block, 24, 0);
  EXPECT_EQ(s->Load(folder, 0), E_FAIL);
  EXPECT_EQ(At(spline, 3), 6);
  // Without a stored order the spline keeps its own: a Lagrange curve's samples load.
  QueryAs<ICurveSpline>(spline)->put_Order(1);
  EXPECT_EQ(s->Load(XmlContent(L"<C><Sample>0 0</Sample><Sample>1 1</Sample><Sample>2 0</Sample></C>"), 0), S_OK);
  EXPECT_EQ(At(spline, 0.5), 0.5) << "order 1 kept";
  EXPECT_EQ(s->Load(FolderOf(Fitted(L"CurveLagrange", {{0, 1}, {2, 5}})), 0), S_OK);
  EXPECT_EQ(At(spline, 3), 7);
}

}  // namespace
