// The linear camera as a full calibration: named parameters, units, pages, and its files.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/module/ModuleFixture.h"

namespace {

constexpr double kTextDigits = 1e-9;  // numbers in XML text keep at most nine decimals

SmartPtr<IString> Str(const wchar_t* text) {
  SmartPtr<ICreatableString> s = LoadedModule::Get().CreateHost<ICreatableString>(L"CreatableString");
  s->SetString(static_cast<int>(std::wcslen(text)), text);
  return SmartPtr<IString>(s.get());
}

std::wstring Text(IString* s) {
  const wchar_t* p = nullptr;
  int n = 0;
  if (!s || s->GetString(&p, &n) < 0 || !p) return L"";
  return std::wstring(p, n);
}

SmartPtr<ICameraLinearCalibration> NewLinear() {
  return LoadedModule::Get().Create<ICameraLinearCalibration>(L"CameraLinearCalibration");
}

double Parameter(IUnknown* object, const wchar_t* name) {
  SmartPtr<INamedCollection> params;
  QueryAs<IParametricObject>(object)->GetParameters(params.Out(), 0);
  int index = -1;
  if (params->get_Index(Str(name), &index) < 0) return NAN;
  SmartPtr<IUnknown> item;
  params->get_Item(index, item.Out());
  SmartPtr<IVariant> v = QueryAs<IVariant>(item);
  return v ? v->get_Double() : NAN;
}

// A parameter collection holding the given items (numbers or texts).
struct ParameterList {
  SmartPtr<IParametersCreatable> list = LoadedModule::Get().CreateHost<IParametersCreatable>(L"ParametersCreatable");
  ParameterList& Number(const wchar_t* name, double value) {
    SmartPtr<IVariant> v = LoadedModule::Get().CreateHost<IVariant>(L"Variant");
    v->put_Double(value);
    list->Add(Str(name), v, nullptr, 0);
    return *this;
  }
  ParameterList& Textual(const wchar_t* name, const wchar_t* text) {
    SmartPtr<IVariant> v = LoadedModule::Get().CreateHost<IVariant>(L"Variant");
    v->put_String(Str(text));
    list->Add(Str(name), v, nullptr, 0);
    return *this;
  }
};

void SetAll(ICameraLinearCalibration* c) {
  c->SetCameraOrigin(320.5, 240.25);
  c->SetCameraRoll(1.5);
  c->SetScale(0.125, 0.0625, 2);
  c->SetOrigin(10, -20, 3.5);
  c->SetRoll(12.75);
  c->SetPitch(-3.5);
  c->SetYaw(0.8);
}

std::string TempPath(const std::string& name) { return "/tmp/zeltrim_lin_" + std::to_string(getpid()) + "_" + name; }

HRESULT Archive(IUnknown* object, const std::string& path, bool save) {
  SmartPtr<IFileArchive> archive = QueryAs<IFileArchive>(object);
  const std::wstring wide(path.begin(), path.end());
  archive->put_Filename(Str(wide.c_str()));
  return save ? archive->Save() : archive->Load();
}

std::string ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void ExpectSameConversion(ICameraLinearCalibration* a, ICameraLinearCalibration* b, double tolerance) {
  double x1 = 400, y1 = 300, z1 = 0, x2 = 400, y2 = 300, z2 = 0;
  a->Convert(&x1, &y1, &z1);
  b->Convert(&x2, &y2, &z2);
  EXPECT_NEAR(x1, x2, tolerance);
  EXPECT_NEAR(y1, y2, tolerance);
  EXPECT_NEAR(z1, z2, tolerance);
}

TEST(LinearCalibrationParameters, FourteenNamesInOrderAndPartialSets) {
  SmartPtr<ICameraLinearCalibration> c = NewLinear();
  SetAll(c);
  SmartPtr<INamedCollection> params;
  ASSERT_EQ(QueryAs<IParametricObject>(c)->GetParameters(params.Out(), 0), S_OK);
  const wchar_t* names[] = {L"Roll", L"Pitch", L"Yaw", L"ScaleX", L"ScaleY", L"ScaleZ", L"TranslateX",
                            L"TranslateY", L"TranslateZ", L"CameraRoll", L"CameraOriginX", L"CameraOriginY",
                            L"CameraScaleX", L"CameraScaleY"};
  int count = 0;
  params->get_Count(&count);
  ASSERT_EQ(count, 14);
  for (int i = 0; i < 14; ++i) {
    SmartPtr<IString> name;
    params->get_ItemName(i, name.Out());
    EXPECT_EQ(Text(name), names[i]);
  }
  EXPECT_EQ(Parameter(c, L"Roll"), 12.75);
  EXPECT_EQ(Parameter(c, L"CameraOriginY"), 240.25);

  // Only "Roll" given: only Roll changes, and the chains are rebuilt.
  double before = 0;
  c->GetPitch(&before);
  ParameterList only;
  only.Number(L"Roll", 90);
  QueryAs<IParametricObject>(c)->SetParameters(only.list);
  double roll = 0, pitch = 0;
  c->GetRoll(&roll);
  c->GetPitch(&pitch);
  EXPECT_EQ(roll, 90);
  EXPECT_EQ(pitch, before);
}

TEST(LinearCalibrationParameters, TextValuesReadAsTheirLeadingNumber) {
  SmartPtr<ICameraLinearCalibration> c = NewLinear();
  ParameterList texts;
  texts.Textual(L"Roll", L" +12.5x").Textual(L"Pitch", L"#1F").Textual(L"Yaw", L"").Textual(L"ScaleX", L"1e3");
  c->SetYaw(7);
  QueryAs<IParametricObject>(c)->SetParameters(texts.list);
  double v = 0;
  c->GetRoll(&v);
  EXPECT_EQ(v, 12.5);
  c->GetPitch(&v);
  EXPECT_EQ(v, 31.0);
  c->GetYaw(&v);
  EXPECT_EQ(v, 7.0);  // an empty text leaves the field
  double sx = 0, sy = 0, sz = 0;
  c->GetScale(&sx, &sy, &sz);
  EXPECT_EQ(sx, 1.0);  // no exponent: "1e3" reads as 1
}

TEST(LinearCalibrationParameters, ZeroScaleThroughParametersIsKept) {
  SmartPtr<ICameraLinearCalibration> c = NewLinear();
  ParameterList zero;
  zero.Number(L"ScaleX", 0);
  QueryAs<IParametricObject>(c)->SetParameters(zero.list);
  double x = 5, y = 6, z = 0;
  c->Convert(&x, &y, &z);
  EXPECT_EQ(x, 0.0);
  EXPECT_EQ(y, 6.0);
  x = 5, y = 6, z = 0;
  c->Revert(&x, &y, &z);
  EXPECT_TRUE(std::isinf(x));  // 1/0 passed on as it stands
}

TEST(LinearCalibrationParameters, UnitsChangeOnlyTheScales) {
  SmartPtr<ICameraLinearCalibration> c = NewLinear();
  SetAll(c);
  SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(c);
  info->put_CALIBUnits(3);  // from 0: no entry of the table, the scales stay
  double sx = 0, sy = 0, sz = 0;
  c->GetScale(&sx, &sy, &sz);
  EXPECT_EQ(sx, 0.125);
  info->put_CALIBUnits(2);  // metre to millimetre: times 1000
  c->GetScale(&sx, &sy, &sz);
  EXPECT_EQ(sx, 125.0);
  EXPECT_EQ(sy, 62.5);
  EXPECT_EQ(sz, 2000.0);
  double tx = 0, ty = 0, tz = 0;
  c->GetOrigin(&tx, &ty, &tz);
  EXPECT_EQ(tx, 10.0);  // translations keep their numbers
  int units = 0;
  info->get_CALIBUnits(&units);
  EXPECT_EQ(units, 2);
  // The chains follow the new scale: (321.5, 240.25) is one unit from the camera origin.
  c->SetCameraRoll(0);
  c->SetRoll(0), c->SetPitch(0), c->SetYaw(0);
  double x = 321.5, y = 240.25, z = 0;
  c->Convert(&x, &y, &z);
  EXPECT_DOUBLE_EQ(x, 125.0 + 10.0);
}

TEST(LinearCalibrationParameters, PagesDependOnTheLevel) {
  SmartPtr<IUIPropertyPageSpecify> pages = QueryAs<IUIPropertyPageSpecify>(NewLinear());
  ASSERT_TRUE(pages);
  for (int level : {1, 2}) {
    SmartPtr<INamedCollection> list;
    ASSERT_EQ(pages->GetPages(level, list.Out(), nullptr), S_OK);
    int count = 0;
    list->get_Count(&count);
    EXPECT_EQ(count, level == 1 ? 2 : 3);
    SmartPtr<IString> title;
    list->get_ItemName(0, title.Out());
    EXPECT_EQ(Text(title), L"Calibration");
  }
}

TEST(LinearCalibrationFiles, XmlKeepsTheParametersButNotTheInfoBlock) {
  SmartPtr<ICameraLinearCalibration> c = NewLinear();
  SetAll(c);
  ParameterList camera;
  camera.Number(L"CameraScaleX", 5);
  QueryAs<IParametricObject>(c)->SetParameters(camera.list);
  QueryAs<ICalibrationInfo>(c)->put_CALIBName(Str(L"Bench camera"));
  const std::string path = TempPath("camera.xml");
  ASSERT_EQ(Archive(c, path, true), S_OK);

  const std::string bytes = ReadBytes(path);
  ASSERT_GT(bytes.size(), 4u);
  EXPECT_EQ(bytes.substr(0, 2), "\xFF\xFE");
  std::string narrow;
  for (size_t i = 2; i + 1 < bytes.size(); i += 2) narrow += bytes[i];
  EXPECT_EQ(narrow.rfind("<?xml version=\"1.0\"?>\r\n<?xml-stylesheet href=\"generic.xsl\" type=\"text/xsl\"?>\r\n", 0),
            0u);
  if (std::system("command -v xmllint >/dev/null 2>&1") == 0) {
    EXPECT_EQ(std::system(("xmllint --noout " + path + " 2>/dev/null").c_str()), 0);
  }

  SmartPtr<ICameraLinearCalibration> back = NewLinear();
  ASSERT_EQ(Archive(back, path, false), S_OK);
  ExpectSameConversion(c, back, 1e-6);
  EXPECT_NEAR(Parameter(back, L"CameraScaleX"), 5.0, kTextDigits);
  EXPECT_NEAR(Parameter(back, L"Yaw"), 0.8, kTextDigits);
  SmartPtr<IString> name;
  QueryAs<ICalibrationInfo>(back)->get_CALIBName(name.Out());
  EXPECT_EQ(Text(name), L"Linear");  // this class writes no info block into XML
  std::remove(path.c_str());
}

TEST(LinearCalibrationFiles, FolderStreamKeepsEverythingExactly) {
  SmartPtr<ICameraLinearCalibration> c = NewLinear();
  SetAll(c);
  SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(c);
  info->put_CALIBName(Str(L"Bench camera"));
  info->put_CALIBUnits(2);
  const std::string path = TempPath("camera.tLin");
  ASSERT_EQ(Archive(c, path, true), S_OK);
  SmartPtr<ICameraLinearCalibration> back = NewLinear();
  ASSERT_EQ(Archive(back, path, false), S_OK);
  ExpectSameConversion(c, back, 0.0);
  SmartPtr<IString> name;
  QueryAs<ICalibrationInfo>(back)->get_CALIBName(name.Out());
  EXPECT_EQ(Text(name), L"Bench camera");
  int units = 0;
  QueryAs<ICalibrationInfo>(back)->get_CALIBUnits(&units);
  EXPECT_EQ(units, 2);
  SmartPtr<IString> filter;
  EXPECT_EQ(QueryAs<IFileArchive>(back)->get_Filter(filter.Out(), 0), E_FAIL);
  std::remove(path.c_str());
}

TEST(LinearCalibrationFiles, BrokenFilesGiveResultCodes) {
  const std::string junk = TempPath("junk.tLin");
  {
    std::ofstream out(junk, std::ios::binary);
    out << "not a folder stream at all \x01\x02\x03";
  }
  SmartPtr<ICameraLinearCalibration> c = NewLinear();
  EXPECT_LT(Archive(c, junk, false), 0);
  EXPECT_LT(Archive(c, TempPath("missing.tLin"), false), 0);
  EXPECT_EQ(Archive(c, TempPath("camera.csv"), true), E_FAIL);  // no CSV form for this class
  const std::string xml = TempPath("junk.xml");
  {
    std::ofstream out(xml, std::ios::binary);
    out << "<?xml version=\"1.0\"?>\n<CameraLinearCalibration><Roll>3</Roll><Pitch>";
  }
  SmartPtr<ICameraLinearCalibration> partial = NewLinear();
  EXPECT_EQ(Archive(partial, xml, false), S_OK);  // the archive reports success on XML
  std::remove(junk.c_str());
  std::remove(xml.c_str());
}

}  // namespace
