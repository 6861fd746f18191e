// The hand-set linear camera calibration: its chain of steps, its named parameters and
// units. Files, streams, interfaces and references: the property suite.
#include "tests/module/PropertySuite.h"

namespace {

SmartPtr<ICameraLinearCalibration> NewLinear() {
  return LoadedModule::Get().Create<ICameraLinearCalibration>(L"CameraLinearCalibration");
}

void SetAll(ICameraLinearCalibration* c) {
  c->SetCameraOrigin(320.5, 240.25);
  c->SetCameraRoll(7.5);
  c->SetScale(0.125, -0.0625, 2);
  c->SetOrigin(100, -50, 3.5);
  c->SetRoll(30);
  c->SetPitch(-12);
  c->SetYaw(4);
}

void Prepare(IUnknown* object) {
  SetAll(QueryAs<ICameraLinearCalibration>(object));
  ParameterList camera;  // stored and saved, part of no chain
  camera.Number(L"CameraScaleX", 5).Number(L"CameraScaleY", 0.5);
  QueryAs<IParametricObject>(object)->SetParameters(camera.list);
  SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(object);
  info->put_CALIBName(Str(L"Bench camera"));
  info->put_CALIBDescription(Str(L"left <bench> & co"));
  info->put_CALIBUnitsText(Str(L"mm"));
  info->put_CALIBUnits(2);  // from 0: no table entry, the scales keep their numbers
  info->SetCalibrationTime();
}

using property::Route;
const property::ClassTraits kLinear{
    .name = L"CameraLinearCalibration",
    .routes = {{&IID_IObjectInfo}, {&IID_ICameraLinearCalibration}, {&IID_ICalibration, &IID_ICameraLinearCalibration},
               {&IID_IFileArchive}, {&IID_ICalibrationInfo}, {&IID_IDataPersist}, {&IID_IParametricObject},
               {&IID_IUIPropertyPageSpecify}},
    .prepare = Prepare,
    // XML carries the fourteen parameters only (as text, nine decimals at most); the
    // folder stream adds the info block.
    .forms = {{.xml = true, .extension = "xml", .tolerance = 1e-9, .lost = {"info."}}, {.xml = false, .extension = "tLin"}},
    .nullStream = {S_OK, E_FAIL},  // Save writes nothing and succeeds, Load fails
    .otherStream = {S_OK, E_FAIL},
    .revertTolerance = 1e-9,
};
ZELTRIM_PROPERTY_CLASS(kLinear);

TEST(LinearCalibration, ZeroScalesAreStoredAsOne) {
  SmartPtr<ICameraLinearCalibration> c = NewLinear();
  ASSERT_EQ(c->SetScale(0, 2, 0), S_OK);
  P scale{-1, -1, -1};
  c->GetScale(&scale.x, &scale.y, &scale.z);
  ExpectNear(scale, {1, 2, 1}, 0.0);
}

// The forward chain is: camera origin, camera roll, scale, translation, roll, pitch, yaw.
// A host transform built step by step in that order must agree exactly.
TEST(LinearCalibration, ForwardChainRunsInItsStatedOrder) {
  SmartPtr<ICameraLinearCalibration> c = NewLinear();
  SetAll(c);
  SmartPtr<ILinearTransform> expected = LoadedModule::Get().CreateHost<ILinearTransform>(L"LinearTransform");
  expected->AddStep(STEP_TRANSLATE, 0, -320.5, -240.25, 0);
  expected->AddStep(STEP_ROLL, 0, 7.5, 0, 0);
  expected->AddStep(STEP_SCALE, 0, 0.125, -0.0625, 2);
  expected->AddStep(STEP_TRANSLATE, 0, 100, -50, 3.5);
  expected->AddStep(STEP_ROLL, 0, 30, 0, 0);
  expected->AddStep(STEP_PITCH, 0, -12, 0, 0);
  expected->AddStep(STEP_YAW, 1, 4, 0, 0);
  ExpectNear(Converted(c, {411, 97, 1}), Converted(expected, {411, 97, 1}), 0.0);
}

TEST(LinearCalibrationParameters, FourteenNamesInOrderAndPartialSetsChangeOnlyTheirFields) {
  SmartPtr<ICameraLinearCalibration> c = NewLinear();
  SetAll(c);
  SmartPtr<INamedCollection> params;
  ASSERT_EQ(QueryAs<IParametricObject>(c)->GetParameters(params.Out(), 0), S_OK);
  const wchar_t* names[] = {L"Roll",       L"Pitch",      L"Yaw",           L"ScaleX",        L"ScaleY",
                            L"ScaleZ",     L"TranslateX", L"TranslateY",    L"TranslateZ",    L"CameraRoll",
                            L"CameraOriginX", L"CameraOriginY", L"CameraScaleX", L"CameraScaleY"};
  const double values[] = {30, -12, 4, 0.125, -0.0625, 2, 100, -50, 3.5, 7.5, 320.5, 240.25, 1, 1};
  ASSERT_EQ(Count(params), 14);
  for (int i = 0; i < 14; ++i) {
    SmartPtr<IString> name;
    params->get_ItemName(i, name.Out());
    EXPECT_EQ(Text(name), names[i]);
    EXPECT_EQ(Parameter(c, names[i]), values[i]) << i;
  }
  QueryAs<IParametricObject>(c)->SetParameters(ParameterList().Number(L"Roll", 90).list);
  double roll = 0, pitch = 0;
  c->GetRoll(&roll), c->GetPitch(&pitch);
  EXPECT_EQ(roll, 90);
  EXPECT_EQ(pitch, -12);
  // The chains were rebuilt with the new roll: they agree with a roll set directly.
  SmartPtr<ICameraLinearCalibration> direct = NewLinear();
  SetAll(direct);
  direct->SetRoll(90);
  ExpectNear(Converted(c, {5, 6, 0}), Converted(direct, {5, 6, 0}), 0.0);
}

TEST(LinearCalibrationParameters, TextValuesReadAsTheirLeadingNumber) {
  SmartPtr<ICameraLinearCalibration> c = NewLinear();
  ParameterList texts;
  texts.Textual(L"Roll", L" +12.5x").Textual(L"Pitch", L"#1F").Textual(L"Yaw", L"").Textual(L"ScaleX", L"1e3");
  // "#" text goes through the 32-bit integer reader: eight F digits wrap to -1.
  texts.Textual(L"ScaleY", L"#FFFFFFFF");
  c->SetYaw(7);
  QueryAs<IParametricObject>(c)->SetParameters(texts.list);
  EXPECT_EQ(Parameter(c, L"Roll"), 12.5);
  EXPECT_EQ(Parameter(c, L"Pitch"), 31.0);
  EXPECT_EQ(Parameter(c, L"Yaw"), 7.0);     // an empty text leaves the field
  EXPECT_EQ(Parameter(c, L"ScaleX"), 1.0);  // no exponent: "1e3" reads as 1
  EXPECT_EQ(Parameter(c, L"ScaleY"), -1.0);
}

TEST(LinearCalibrationParameters, ZeroScaleThroughParametersIsKeptAndRevertsToInfinity) {
  SmartPtr<ICameraLinearCalibration> c = NewLinear();
  QueryAs<IParametricObject>(c)->SetParameters(ParameterList().Number(L"ScaleX", 0).list);
  P p = Converted(c, {5, 6, 0});
  EXPECT_EQ(p.x, 0.0);
  EXPECT_EQ(p.y, 6.0);
  p = Reverted(c, {5, 6, 0});
  EXPECT_TRUE(std::isinf(p.x));  // 1/0 passed on as it stands
}

TEST(LinearCalibrationParameters, CameraScalesChangeNoConvertedPoint) {
  SmartPtr<ICameraLinearCalibration> c = NewLinear(), plain = NewLinear();
  SetAll(c);
  SetAll(plain);
  ParameterList camera;
  camera.Number(L"CameraScaleX", 5).Number(L"CameraScaleY", -3);
  QueryAs<IParametricObject>(c)->SetParameters(camera.list);
  P a{411, 97, 1}, b = a;
  c->Convert(&a.x, &a.y, &a.z);
  plain->Convert(&b.x, &b.y, &b.z);
  EXPECT_EQ(a.x, b.x);
  EXPECT_EQ(a.y, b.y);
  EXPECT_EQ(Parameter(c, L"CameraScaleX"), 5.0);
  EXPECT_EQ(Parameter(c, L"CameraScaleY"), -3.0);
}

TEST(LinearCalibrationParameters, UnitsChangeOnlyTheScales) {
  SmartPtr<ICameraLinearCalibration> c = NewLinear();
  SetAll(c);
  SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(c);
  info->put_CALIBUnits(3);  // from 0: no entry of the table, the scales stay
  EXPECT_EQ(Parameter(c, L"ScaleX"), 0.125);
  info->put_CALIBUnits(2);  // metre to millimetre: times 1000
  EXPECT_EQ(Parameter(c, L"ScaleX"), 125.0);
  EXPECT_EQ(Parameter(c, L"ScaleY"), -62.5);
  EXPECT_EQ(Parameter(c, L"ScaleZ"), 2000.0);
  EXPECT_EQ(Parameter(c, L"TranslateX"), 100.0);  // translations keep their numbers
  // The chains follow the new scale: (321.5, 240.25) is one unit from the camera origin.
  c->SetCameraRoll(0), c->SetRoll(0), c->SetPitch(0), c->SetYaw(0);
  EXPECT_DOUBLE_EQ(Converted(c, {321.5, 240.25, 0}).x, 125.0 + 100.0);
}

TEST(LinearCalibrationParameters, PagesDependOnTheLevel) {
  SmartPtr<IUIPropertyPageSpecify> pages = QueryAs<IUIPropertyPageSpecify>(NewLinear());
  for (int level : {1, 2}) {
    SmartPtr<INamedCollection> list;
    ASSERT_EQ(pages->GetPages(level, list.Out(), nullptr), S_OK);
    EXPECT_EQ(Count(list), level == 1 ? 2 : 3);
    SmartPtr<IString> title;
    list->get_ItemName(0, title.Out());
    EXPECT_EQ(Text(title), L"Calibration");
  }
}

}  // namespace
