// The two property pages through the loaded module, drawn by the host's user-interface
// peer: what the info page shows and writes back, what the matrix page picks to show and
// how it prints it, its listeners, and the SVG a rendered page becomes.
#include <cwchar>
#include <string>

#include "host/ui/canvas/SvgCanvas.h"
#include "tests/module/PropertySuite.h"
#include "tests/unit/host/Xmllint.h"

namespace {

const property::ClassTraits kInfoPage{
    .name = L"CalibrationInfoPropPage",
    .routes = {{&IID_IObjectInfo}, {&IID_IUIPropertyPage}, {&IID_IRenderableObject}},
};
ZELTRIM_PROPERTY_CLASS(kInfoPage);

const property::ClassTraits kMatrixPage{
    .name = L"CalibrationMatrixPropPage",
    .routes = {{&IID_IObjectInfo},
               {&IID_IUIMouseInput},
               {&IID_IUIKeyboardInput},
               {&IID_IUIPropertyPage},
               {&IID_IRenderableObject},
               {&IID_IEventSource},
               {&IID__IUIParamEditNotification}},
};
ZELTRIM_PROPERTY_CLASS(kMatrixPage);

LoadedModule& Module() { return LoadedModule::Get(); }

// A simple collection of the given objects, as a property frame hands them to a page.
SmartPtr<ISimpleCollection> Objects(std::initializer_list<IUnknown*> items) {
  SmartPtr<ICreatableSimpleCollection> c = Module().CreateHost<ICreatableSimpleCollection>(L"SimpleCollection");
  for (IUnknown* item : items) c->Add(item);
  return SmartPtr<ISimpleCollection>(c.get());
}

std::string Utf8(const std::wstring& text) { return std::string(text.begin(), text.end()); }

std::string RenderedSvg(IUnknown* page, CANVASRect rect) {
  SvgCanvas canvas(rect.x + rect.width, rect.y + rect.height);
  SmartPtr<IRenderableObject> renderable = QueryAs<IRenderableObject>(page);
  EXPECT_TRUE(renderable);
  if (renderable) {
    EXPECT_GE(renderable->Render(&canvas, &rect, nullptr, 0), 0);
  }
  return canvas.Document();
}

// ---------------------------------------------------------------- info page

// An info page over `objects`, shown in a frame (the page collection) that knows the
// slide page it shows, so edits go where a user's would.
struct InfoPage {
  SmartPtr<IUIPropertyPageCollection> frame =
      Module().CreateHost<IUIPropertyPageCollection>(L"UIPropertyPageCollection");
  SmartPtr<IUIPropertyPage> page = Module().Create<IUIPropertyPage>(L"CalibrationInfoPropPage");
  SmartPtr<IUIParametersSlideEdit> slide;

  explicit InfoPage(ISimpleCollection* objects) {
    EXPECT_EQ(page->Initialize(objects, nullptr, 0, frame), S_OK);
    SmartPtr<IUnknown> shown;
    frame->get_ShownPage(shown.Out());
    slide = QueryAs<IUIParametersSlideEdit>(shown);
  }
  ~InfoPage() {
    if (page) page->Close();
  }
  std::wstring Value(const wchar_t* name) {
    SmartPtr<IString> value;
    if (!slide || slide->GetValue(static_cast<int>(std::wcslen(name)), name, value.Out()) < 0) return L"<none>";
    return Text(value);
  }
  HRESULT Set(const wchar_t* name, const wchar_t* text) {
    return slide->SetValue(static_cast<int>(std::wcslen(name)), name, static_cast<int>(std::wcslen(text)), text);
  }
};

SmartPtr<ICalibrationInfo> NamedCalibration() {
  SmartPtr<ICalibrationInfo> info = QueryAs<ICalibrationInfo>(Module().Create<IUnknown>(L"CameraLinearCalibration"));
  info->put_CALIBName(Str(L"Floor"));
  info->put_CALIBType(Str(L"Plane"));
  info->put_CALIBUnitsText(Str(L"mm"));
  info->put_CALIBDescription(Str(L"camera 2 over the belt"));
  info->put_CALIBDevice(Str(L"Cam-02"));
  info->SetCalibrationTime();
  return info;
}

std::wstring CalibName(ICalibrationInfo* info) {
  SmartPtr<IString> name;
  info->get_CALIBName(name.Out());
  return Text(name);
}

TEST(CalibrationInfoPage, ShowsTheFirstInfoBlockAsSixEntries) {
  SmartPtr<ICalibrationInfo> info = NamedCalibration();
  SmartPtr<IUnknown> point = Module().CreateHost<IUnknown>(L"Point");
  InfoPage shown(Objects({point, info}));
  ASSERT_TRUE(shown.slide) << "the page initialises the host's slide page with the frame";
  EXPECT_EQ(shown.Value(L"Device"), L"Cam-02");
  EXPECT_EQ(shown.Value(L"Name"), L"Floor");
  EXPECT_EQ(shown.Value(L"Type"), L"Plane");
  EXPECT_EQ(shown.Value(L"Units"), L"mm");
  EXPECT_EQ(shown.Value(L"Description"), L"camera 2 over the belt");
  // The date is year-month-day, two blanks, then hour:minute:seconds to a tenth.
  short day = 0, month = 0, year = 0, hour = 0, minute = 0;
  info->GetCalibrationTime(&day, &month, &year, &hour, &minute);
  wchar_t date[64];
  std::swprintf(date, 64, L"%d-%02d-%02d  %d:%d:0.0", year, month, day, hour, minute);
  EXPECT_EQ(shown.Value(L"Date"), date);
  // Device and Type are read-only; the rest take an edit.
  EXPECT_EQ(shown.Set(L"Device", L"other"), E_ACCESSDENIED);
  EXPECT_EQ(shown.Set(L"Type", L"other"), E_ACCESSDENIED);
  for (const wchar_t* editable : {L"Name", L"Units", L"Description", L"Date"}) EXPECT_EQ(shown.Set(editable, L"x"), S_OK);
}

TEST(CalibrationInfoPage, ObjectsWithoutInfoShowSixEmptyEntriesAndApplyNothing) {
  SmartPtr<IUnknown> point = Module().CreateHost<IUnknown>(L"Point");
  InfoPage shown(Objects({point}));
  ASSERT_TRUE(shown.slide);
  for (const wchar_t* entry : {L"Device", L"Name", L"Type", L"Units", L"Description", L"Date"})
    EXPECT_EQ(shown.Value(entry), L"") << Utf8(entry);
  EXPECT_EQ(shown.Set(L"Name", L"Floor"), S_OK);
  EXPECT_EQ(shown.page->Apply(nullptr), S_OK);
  EXPECT_EQ(shown.page->GetState() & 1, 0) << "the slide page took the apply";
}

TEST(CalibrationInfoPage, ApplyWritesBackOnlyAfterAnEdit) {
  SmartPtr<ICalibrationInfo> info = NamedCalibration();
  InfoPage shown(Objects({info}));
  ASSERT_TRUE(shown.slide);
  // Without an edit the list is not read back: a name changed meanwhile stays.
  info->put_CALIBName(Str(L"Changed"));
  EXPECT_EQ(shown.page->GetState() & 1, 0);
  EXPECT_EQ(shown.page->Apply(nullptr), S_OK);
  EXPECT_EQ(CalibName(info), L"Changed");

  // After an edit, Units, Description and Name go back; Date and the read-only entries do not.
  short before[5] = {};
  info->GetCalibrationTime(&before[0], &before[1], &before[2], &before[3], &before[4]);
  ASSERT_EQ(shown.Set(L"Name", L"Wall"), S_OK);
  ASSERT_EQ(shown.Set(L"Units", L"inch"), S_OK);
  ASSERT_EQ(shown.Set(L"Date", L"1999-01-01  0:0:0.0"), S_OK);
  EXPECT_EQ(shown.page->GetState() & 1, 1) << "the page reports its slide page's state";
  EXPECT_EQ(shown.page->Apply(nullptr), S_OK);
  EXPECT_EQ(CalibName(info), L"Wall");
  SmartPtr<IString> units, description;
  info->get_CALIBUnitsText(units.Out());
  info->get_CALIBDescription(description.Out());
  EXPECT_EQ(Text(units), L"inch");
  EXPECT_EQ(Text(description), L"camera 2 over the belt");
  short after[5] = {};
  info->GetCalibrationTime(&after[0], &after[1], &after[2], &after[3], &after[4]);
  EXPECT_EQ(std::vector<short>(after, after + 5), std::vector<short>(before, before + 5));
  EXPECT_EQ(shown.page->GetState() & 1, 0);
}

TEST(CalibrationInfoPage, RendersItsEntriesIntoWellFormedSvg) {
  SmartPtr<ICalibrationInfo> info = NamedCalibration();
  info->put_CALIBDescription(Str(L"<left> & \"right\""));
  InfoPage shown(Objects({info}));
  const std::string svg = RenderedSvg(shown.page, {0, 0, 360, 200});
  for (const char* text : {"Device", "Cam-02", "Floor", "Plane", "&lt;left&gt; &amp; &quot;right&quot;"})
    EXPECT_NE(svg.find(text), std::string::npos) << text;
  if (HaveXmllint()) {
    EXPECT_TRUE(XmllintAcceptsBytes(svg));
  }
}

// ---------------------------------------------------------------- matrix page

struct MatrixPage {
  SmartPtr<IUIPropertyPageCollection> frame =
      Module().CreateHost<IUIPropertyPageCollection>(L"UIPropertyPageCollection");
  SmartPtr<IUIPropertyPage> page = Module().Create<IUIPropertyPage>(L"CalibrationMatrixPropPage");

  explicit MatrixPage(ISimpleCollection* objects) { EXPECT_EQ(page->Initialize(objects, nullptr, 0, frame), S_OK); }
  ~MatrixPage() { page->Close(); }
};

// The grid a page drew: the last "UIGrid" it rendered is the one whose cells we read, so
// the cells are read back from the SVG and, for sizes, from the texts found there.
std::vector<std::string> CellTexts(const std::string& svg) {
  std::vector<std::string> texts;
  for (size_t at = svg.find("<text"); at != std::string::npos; at = svg.find("<text", at + 1)) {
    const size_t open = svg.find('>', at), close = svg.find("</text>", at);
    if (open == std::string::npos || close == std::string::npos) break;
    texts.push_back(svg.substr(open + 1, close - open - 1));
  }
  return texts;
}

SmartPtr<IHomogeneousTransform> HandSetTransform() {
  SmartPtr<IHomogeneousTransform> t = Module().CreateHost<IHomogeneousTransform>(L"HomogeneousTransform");
  double* m = nullptr;
  int rows = 0, columns = 0;
  t->GetMatrix(&m, &rows, &columns);
  EXPECT_EQ(rows * columns, 16);
  m[0] = 1.5;
  m[1] = -2.25;
  m[5] = 1234.5;
  m[6] = 12345.5;  // fills the field: only the sign's blank goes before it
  m[15] = 1;
  return t;
}

TEST(CalibrationMatrixPage, PrintsEachNumberInAFieldOfTwelveWithSixDecimals) {
  SmartPtr<IHomogeneousTransform> t = HandSetTransform();
  MatrixPage shown(Objects({t}));
  const std::vector<std::string> texts = CellTexts(RenderedSvg(shown.page, {0, 0, 600, 200}));
  ASSERT_EQ(texts.size(), 16u);
  // By rows, as the matrix reports them; positive numbers get a leading blank.
  EXPECT_EQ(texts[0], "    1.500000");
  EXPECT_EQ(texts[1], "   -2.250000");
  EXPECT_EQ(texts[2], "    0.000000");
  EXPECT_EQ(texts[5], " 1234.500000");
  EXPECT_EQ(texts[6], " 12345.500000");
  EXPECT_EQ(texts[15], "    1.000000");
  EXPECT_EQ(shown.page->GetState(), 22);
  EXPECT_EQ(shown.page->Apply(nullptr), 0);
  EXPECT_EQ(shown.page->GetState(), 22) << "Apply changes nothing";
}

TEST(CalibrationMatrixPage, ChoosesACalibrationFirstThenATransformThenAMatrix) {
  // A best fit of x -> 2x + 3, y -> 2y - 1 shows its forward transform.
  std::vector<P> source, target;
  Grid(&source, &target, [](const P& p) { return P{2 * p.x + 3, 2 * p.y - 1, 0}; });
  SmartPtr<ICalibrationBestFit> fit = NewCalibration();
  ASSERT_EQ(fit->BestFit(Points(source), Points(target), 0), S_OK);
  ExpectNear(Converted(fit, {10, 20, 0}), {23, 39, 0}, 1e-9);
  SmartPtr<IHomogeneousTransform> t = HandSetTransform();
  {
    MatrixPage shown(Objects({t, fit}));  // the calibration wins though it comes second
    const std::vector<std::string> texts = CellTexts(RenderedSvg(shown.page, {0, 0, 600, 200}));
    ASSERT_EQ(texts.size(), 16u);
    EXPECT_EQ(texts[0], "    2.000000");
    EXPECT_EQ(texts[5], "    2.000000");
    // Points are row vectors: the translation is the last row.
    EXPECT_EQ(texts[12], "    3.000000");
    EXPECT_EQ(texts[13], "   -1.000000");
  }
  // A camera on a plane shows its camera: the 3 x 4 matrix reported as 4 rows of 3.
  SmartPtr<ICamera3DCalibrationPlane> plane = Module().Create<ICamera3DCalibrationPlane>(L"Camera3DCalibrationPlane");
  SmartPtr<ICamera3DTransform> camera = Module().Create<ICamera3DTransform>(L"Camera3DTransform");
  double* p = nullptr;
  camera->GetMatrix(&p, nullptr, nullptr);
  for (int i = 0; i < 12; ++i) p[i] = i + 0.5;
  ASSERT_EQ(plane->SetReverseTransform(camera), S_OK);
  {
    MatrixPage shown(Objects({t, plane}));
    const std::vector<std::string> texts = CellTexts(RenderedSvg(shown.page, {0, 0, 600, 200}));
    ASSERT_EQ(texts.size(), 12u);
    EXPECT_EQ(texts[0], "    0.500000");
    EXPECT_EQ(texts[4], "    4.500000");
    EXPECT_EQ(texts[11], "   11.500000");
  }
  // Nothing with a matrix: an empty grid.
  SmartPtr<IUnknown> point = Module().CreateHost<IUnknown>(L"Point");
  MatrixPage empty(Objects({point}));
  EXPECT_TRUE(CellTexts(RenderedSvg(empty.page, {0, 0, 600, 200})).empty());
  SmartPtr<IUIPropertyPage> page = Module().Create<IUIPropertyPage>(L"CalibrationMatrixPropPage");
  EXPECT_EQ(page->Initialize(nullptr, nullptr, 0, nullptr), E_FAIL);
}

TEST(CalibrationMatrixPage, DrawsTheGridBelowTheHeadingInsideTheMargins) {
  // Client (10, 20, 300, 200) with the frame's line height 20: the grid starts at
  // (10 + 5, 20 + 20 + 4) and is 300 - 9 wide, so its top line runs from x 15 to 306.
  SmartPtr<IHomogeneousTransform> t = HandSetTransform();
  MatrixPage shown(Objects({t}));
  int height = 0;
  shown.frame->GetInfo(6, nullptr, &height);
  ASSERT_EQ(height, 20);
  const std::string svg = RenderedSvg(shown.page, {10, 20, 300, 200});
  EXPECT_NE(svg.find("<line x1=\"15\" y1=\"44\" x2=\"306\" y2=\"44\""), std::string::npos) << svg;
  if (HaveXmllint()) {
    EXPECT_TRUE(XmllintAcceptsBytes(svg));
  }
}

// A listener that counts refresh events; optionally unadvises itself during one.
class Listener : public _IUIRefreshEvent {
 public:
  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (iid != IID_IUnknown && !(answersEvent && iid == IID__IUIRefreshEvent)) return E_NOINTERFACE;
    *object = static_cast<_IUIRefreshEvent*>(this);
    AddRef();
    return S_OK;
  }
  int AddRef() override { return ++refs; }
  int Release() override { return --refs; }
  HRESULT Refresh(int a, int b) override {
    ++events;
    lastArguments = a * 10 + b;
    if (leaveOnRefresh) leaveOnRefresh->Advise(this, 0);
    return S_OK;
  }
  int refs = 1, events = 0, lastArguments = -1;
  bool answersEvent = true;
  IEventSource* leaveOnRefresh = nullptr;
};

TEST(CalibrationMatrixPage, SelectingTheSameCellTwiceTellsListenersOnce) {
  SmartPtr<IHomogeneousTransform> t = HandSetTransform();
  MatrixPage shown(Objects({t}));
  SmartPtr<IEventSource> source = QueryAs<IEventSource>(shown.page);
  SmartPtr<_IUIParamEditNotification> notify = QueryAs<_IUIParamEditNotification>(shown.page);
  Listener listener;
  ASSERT_EQ(source->Advise(&listener, 1), S_OK);
  SmartPtr<IUnknown> cell = Module().CreateHost<IUnknown>(L"PMText"), other = Module().CreateHost<IUnknown>(L"PMText");
  notify->ParamSelected(cell);
  notify->ParamSelected(cell);
  EXPECT_EQ(listener.events, 1);
  EXPECT_EQ(listener.lastArguments, 0);
  notify->ParamSelected(other);
  EXPECT_EQ(listener.events, 2);
  notify->ParamSelected(nullptr);
  notify->ParamSelected(nullptr);
  EXPECT_EQ(listener.events, 3);
  // A change that is no edit still refreshes; an edit also marks the page.
  notify->ParamChanged(cell);
  EXPECT_EQ(listener.events, 4);
  EXPECT_EQ(shown.page->GetState(), 22);
  SmartPtr<IUnknown> editor = Module().CreateHost<IUnknown>(L"UIParamEdit");
  notify->ParamChanged(editor);
  EXPECT_EQ(listener.events, 5);
  EXPECT_EQ(shown.page->GetState(), 23);
  source->Advise(&listener, 0);
  EXPECT_EQ(listener.refs, 1);
}

TEST(CalibrationMatrixPage, ListenersAreAddedReplacedAndRemovedByKind) {
  SmartPtr<IEventSource> source = Module().Create<IEventSource>(L"CalibrationMatrixPropPage");
  Listener a, b, c, deaf;
  deaf.answersEvent = false;
  EXPECT_EQ(source->Advise(&a, 1), S_OK);
  EXPECT_EQ(source->Advise(&a, 1), 1) << "a listener already listed is not added again";
  EXPECT_EQ(source->Advise(nullptr, 1), E_POINTER);
  EXPECT_EQ(source->Advise(&deaf, 1), E_NOINTERFACE);
  EXPECT_EQ(source->GetAdviseCount(), 1);
  EXPECT_EQ(source->AddAdvise(&deaf, 1), S_OK) << "AddAdvise does not ask for the event";
  // Kind 2 appends while no record has kind 2, then replaces that record's listener.
  EXPECT_EQ(source->Advise(&b, 2), S_OK);
  EXPECT_EQ(source->GetAdviseCount(), 3);
  EXPECT_EQ(source->Advise(&c, 2), S_OK);
  EXPECT_EQ(source->GetAdviseCount(), 3);
  SmartPtr<IUnknown> third;
  ASSERT_EQ(source->GetAdviseItem(2, third.Out()), S_OK);
  EXPECT_EQ(third.get(), static_cast<IUnknown*>(&c));
  EXPECT_EQ(b.refs, 1) << "the replaced listener is released";
  EXPECT_EQ(source->GetAdviseItem(3, third.Out()), E_INVALIDARG);
  // Kind 0 removes; the list keeps its order.
  EXPECT_EQ(source->Advise(&a, 0), S_OK);
  EXPECT_EQ(source->GetAdviseCount(), 2);
  ASSERT_EQ(source->GetAdviseItem(0, third.Out()), S_OK);
  EXPECT_EQ(third.get(), static_cast<IUnknown*>(&deaf));
  third = SmartPtr<IUnknown>();
  EXPECT_EQ(a.refs, 1);
  // More than one growth step of listeners, and every reference given back at the end.
  std::vector<Listener> many(20);
  for (Listener& l : many) EXPECT_EQ(source->Advise(&l, 1), S_OK);
  EXPECT_EQ(source->GetAdviseCount(), 22);
  for (Listener& l : many) EXPECT_EQ(l.refs, 2);
  source = SmartPtr<IEventSource>();
  for (Listener& l : many) EXPECT_EQ(l.refs, 1);
  EXPECT_EQ(c.refs, 1);
  EXPECT_EQ(deaf.refs, 1);
}

TEST(CalibrationMatrixPage, AListenerMayLeaveDuringItsEvent) {
  SmartPtr<IUIPropertyPage> page = Module().Create<IUIPropertyPage>(L"CalibrationMatrixPropPage");
  SmartPtr<IEventSource> source = QueryAs<IEventSource>(page);
  Listener leaving, staying;
  leaving.leaveOnRefresh = source.get();
  source->Advise(&leaving, 1);
  source->Advise(&staying, 1);
  SmartPtr<IUnknown> cell = Module().CreateHost<IUnknown>(L"PMText");
  QueryAs<_IUIParamEditNotification>(page)->ParamSelected(cell);
  EXPECT_EQ(leaving.events, 1);
  EXPECT_EQ(source->GetAdviseCount(), 1);
  EXPECT_EQ(leaving.refs, 1);
  source->Advise(&staying, 0);
  EXPECT_EQ(staying.refs, 1);
}

}  // namespace
