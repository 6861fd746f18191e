// The "UserInterface" peer, made through the global collection as the module makes it, and
// the SVG canvas its objects draw on. Positions are worked out by hand from the layout
// rules in host/README.md; xmllint judges whether the SVG is well formed.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "host/ui/canvas/SvgCanvas.h"
#include "tests/unit/TestText.h"
#include "tests/unit/host/Xmllint.h"

using namespace test_text;

namespace {

constexpr int kReadOnly = 0x40000;

int RefCount(IUnknown* object) {
  object->AddRef();
  return object->Release();
}

// Whether the document holds a text element at (x, y) whose content is `content`.
bool HasTextAt(const std::string& svg, int x, int y, const std::string& content) {
  const std::string head = "<text x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(y) + "\"";
  for (size_t at = svg.find(head); at != std::string::npos; at = svg.find(head, at + 1)) {
    const size_t open = svg.find('>', at);
    const size_t close = svg.find("</text>", at);
    if (open != std::string::npos && close != std::string::npos && svg.compare(open + 1, close - open - 1, content) == 0)
      return true;
  }
  return false;
}

// The opening tag of the text element whose content is `content`, or "".
std::string TextTagOf(const std::string& svg, const std::string& content) {
  const size_t end = svg.find(">" + content + "</text>");
  if (end == std::string::npos) return std::string();
  const size_t start = svg.rfind("<text ", end);
  return start == std::string::npos ? std::string() : svg.substr(start, end - start + 1);
}

SmartPtr<IPMText> Text(const wchar_t* text) {
  SmartPtr<IPMText> cell = CreateHostObject<IPMText>(L"PMText");
  if (cell) cell->SetText(static_cast<int>(std::wcslen(text)), text);
  return cell;
}

std::wstring TextOfCell(IPMText* cell) {
  IString* text = nullptr;
  cell->GetText(&text);
  return Take(text);
}

// ---------------------------------------------------------------- SvgCanvas

TEST(SvgCanvas, EscapesMarkupAndEncodesUtf8) {
  const std::wstring hostile = L"a&<b>\"'\x00E9\x4E2D\x1F600";
  EXPECT_EQ(SvgCanvas::EscapeText(hostile.data(), hostile.size()),
            "a&amp;&lt;b&gt;&quot;&apos;\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80");
  // Characters XML cannot carry become U+FFFD; a carriage return survives as a reference.
  const wchar_t bad[] = {L'x', 0x01, static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0xFFFE),
                         static_cast<wchar_t>(0x110000), L'\r'};
  EXPECT_EQ(SvgCanvas::EscapeText(bad, 6), "x\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD&#13;");
  EXPECT_EQ(SvgCanvas::EscapeText(nullptr, 5), "");
}

TEST(SvgCanvas, DocumentWithHostileTextAndUnclosedClipsIsWellFormed) {
  if (!HaveXmllint()) GTEST_SKIP() << "xmllint is not installed";
  SvgCanvas canvas(200, -5);
  const wchar_t hostile[] = L"]]> <!-- & \"quoted\" 'single' \x00E9\x1F600 \x0001 </text>";
  CanvasTextStyle bold;
  bold.bold = true;
  canvas.PushClip(CANVASRect{-10, 0, 50, -3});
  canvas.Text(CANVASRect{0, 0, 100, 20}, hostile, static_cast<int>(std::wcslen(hostile)), bold);
  canvas.PushClip(CANVASRect{0, 0, 10, 10});
  canvas.FillRect(CANVASRect{1, 2, 3, 4}, 0xABCDEF);
  canvas.PopClip();
  canvas.PopClip();
  canvas.PopClip();  // one too many: ignored
  canvas.PushClip(CANVASRect{0, 0, 10, 10});  // left open: Document closes it
  canvas.Line(0, 0, 10, 10, kCanvasGridLine);
  canvas.Text(CANVASRect{0, 0, 10, 10}, nullptr, 4, CanvasTextStyle());
  const std::string svg = canvas.Document();
  EXPECT_TRUE(XmllintAcceptsBytes(svg)) << svg;
  EXPECT_NE(svg.find("width=\"200\" height=\"0\""), std::string::npos);
  EXPECT_NE(svg.find("<rect x=\"-10\" y=\"0\" width=\"50\" height=\"0\"/>"), std::string::npos);
  EXPECT_NE(svg.find("<rect x=\"1\" y=\"2\" width=\"3\" height=\"4\" fill=\"#abcdef\"/>"), std::string::npos);
}

TEST(SvgCanvas, WritesTheDocumentToAFile) {
  SvgCanvas canvas(10, 10);
  canvas.FrameRect(CANVASRect{0, 0, 10, 10}, kCanvasBlack);
  const std::string path = "./svg_canvas_test_" + std::to_string(getpid()) + ".svg";
  ASSERT_TRUE(canvas.WriteFile(path));
  std::ifstream file(path, std::ios::binary);
  const std::string written((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  std::remove(path.c_str());
  EXPECT_EQ(written, canvas.Document());
  EXPECT_FALSE(canvas.WriteFile("./no/such/folder/x.svg"));
}

// ---------------------------------------------------------------- PMText and styles

TEST(PMText, KeepsExactlyTheGivenNumberOfCharacters) {
  SmartPtr<IPMText> cell = CreateHostObject<IPMText>(L"PMText");
  ASSERT_TRUE(cell);
  EXPECT_EQ(cell->SetText(3, L"abcdef"), S_OK);
  EXPECT_EQ(TextOfCell(cell), L"abc");
  EXPECT_EQ(cell->SetText(3, L"a\0b"), S_OK);
  EXPECT_EQ(TextOfCell(cell), std::wstring(L"a\0b", 3));
  EXPECT_EQ(cell->SetText(0, nullptr), S_OK);
  EXPECT_EQ(TextOfCell(cell), L"");
  // Refusals leave the text.
  cell->SetText(2, L"ok");
  EXPECT_EQ(cell->SetText(-1, L"x"), E_INVALIDARG);
  EXPECT_EQ(cell->SetText(4, nullptr), E_POINTER);
  EXPECT_EQ(cell->GetText(nullptr), E_POINTER);
  EXPECT_EQ(TextOfCell(cell), L"ok");
}

TEST(PMText, TakesOverTheEditorsStyleAndDrawsWithIt) {
  SmartPtr<IUIPropertyPageCollection> pages = CreateHostObject<IUIPropertyPageCollection>(L"UIPropertyPageCollection");
  ASSERT_TRUE(pages);
  SmartPtr<IUnknown> editor;
  int lineHeight = 0;
  ASSERT_EQ(pages->GetInfo(6, editor.Out(), &lineHeight), S_OK);
  EXPECT_EQ(lineHeight, 20);
  SmartPtr<IUIParamEdit> edit = QueryAs<IUIParamEdit>(editor);
  ASSERT_TRUE(edit);
  SmartPtr<IUnknown> styleObject;
  ASSERT_EQ(edit->GetObject(4, styleObject.Out()), S_OK);
  SmartPtr<IPMRenderStyle> style = QueryAs<IPMRenderStyle>(styleObject);
  ASSERT_TRUE(style);
  ASSERT_EQ(style->put_FontSize(20), S_OK);
  ASSERT_EQ(style->put_Colour(0xFF0000), S_OK);
  ASSERT_EQ(style->put_Bold(1), S_OK);

  SmartPtr<IPMText> cell = Text(L"1.5");
  SmartPtr<IPMRenderStyle> cellStyle = QueryAs<IPMRenderStyle>(cell);
  ASSERT_TRUE(cellStyle);
  ASSERT_EQ(cellStyle->CopyStyle(style), S_OK);
  int size = 0, bold = 0;
  unsigned int colour = 0;
  cellStyle->get_FontSize(&size);
  cellStyle->get_Colour(&colour);
  cellStyle->get_Bold(&bold);
  EXPECT_EQ(size, 20);
  EXPECT_EQ(colour, 0xFF0000u);
  EXPECT_EQ(bold, 1);

  // Size 20 in {5, 6, 40, 30}: x 5 + 3, baseline 6 + (30 + 14) / 2 = 28.
  SvgCanvas canvas(100, 100);
  CANVASRect rect{5, 6, 40, 30};
  ASSERT_EQ(QueryAs<IRenderableObject>(cell)->Render(&canvas, &rect, nullptr, 0), S_OK);
  const std::string svg = canvas.Document();
  EXPECT_TRUE(HasTextAt(svg, 8, 28, "1.5")) << svg;
  const std::string tag = TextTagOf(svg, "1.5");
  EXPECT_NE(tag.find("font-size=\"20\""), std::string::npos) << tag;
  EXPECT_NE(tag.find("fill=\"#ff0000\""), std::string::npos) << tag;
  EXPECT_NE(tag.find("font-weight=\"bold\""), std::string::npos) << tag;

  // Refusals: no source, a source that is no style, values out of range.
  EXPECT_EQ(cellStyle->CopyStyle(nullptr), E_POINTER);
  EXPECT_EQ(cellStyle->CopyStyle(pages), E_INVALIDARG);
  EXPECT_EQ(style->put_FontSize(0), E_INVALIDARG);
  EXPECT_EQ(style->put_Colour(0x1000000), E_INVALIDARG);
  EXPECT_EQ(QueryAs<IRenderableObject>(cell)->Render(nullptr, &rect, nullptr, 0), E_POINTER);
  EXPECT_EQ(pages->GetInfo(5, editor.Out(), &lineHeight), E_INVALIDARG);
  EXPECT_EQ(pages->GetInfo(6, nullptr, nullptr), E_POINTER);
  EXPECT_EQ(edit->GetObject(3, styleObject.Out()), E_INVALIDARG);
}

// ---------------------------------------------------------------- UIGrid

// A 3 by 2 grid of texts A..F, filled as the matrix page fills it: (c, r, 0).
SmartPtr<IUIGrid> LetterGrid() {
  SmartPtr<IUIGrid> grid = CreateHostObject<IUIGrid>(L"UIGrid");
  if (!grid) return grid;
  grid->put_RowHeight(0, 20);
  grid->put_Size(3, 2, 1);
  const wchar_t* letters[] = {L"A", L"B", L"C", L"D", L"E", L"F"};
  for (int r = 0; r < 2; ++r)
    for (int c = 0; c < 3; ++c) grid->put_Cell(c, r, 0, Text(letters[r * 3 + c]));
  return grid;
}

TEST(UIGrid, DrawsEachCellInItsOwnRectangle) {
  SmartPtr<IUIGrid> grid = LetterGrid();
  ASSERT_TRUE(grid);
  // Width 100 in three columns: edges at 10 + 0, 10 + 33, 10 + 66, 10 + 100, so the
  // widths are 33, 33, 34. Rows at 20 and 40. Text at left + 3, baseline top + 14.
  SvgCanvas canvas(200, 100);
  CANVASRect rect{10, 20, 100, 60};
  ASSERT_EQ(QueryAs<IRenderableObject>(grid)->Render(&canvas, &rect, nullptr, 2), S_OK);
  const std::string svg = canvas.Document();
  EXPECT_TRUE(HasTextAt(svg, 13, 34, "A")) << svg;
  EXPECT_TRUE(HasTextAt(svg, 46, 34, "B"));
  EXPECT_TRUE(HasTextAt(svg, 79, 34, "C"));
  EXPECT_TRUE(HasTextAt(svg, 13, 54, "D"));
  EXPECT_TRUE(HasTextAt(svg, 46, 54, "E"));
  EXPECT_TRUE(HasTextAt(svg, 79, 54, "F"));
  // Each cell's clip is its rectangle.
  EXPECT_NE(svg.find("<rect x=\"76\" y=\"40\" width=\"34\" height=\"20\"/>"), std::string::npos);
  // Lines: the column edge at 43 down to the last row's bottom, the row edge at 40.
  EXPECT_NE(svg.find("<line x1=\"43\" y1=\"20\" x2=\"43\" y2=\"60\""), std::string::npos);
  EXPECT_NE(svg.find("<line x1=\"10\" y1=\"40\" x2=\"110\" y2=\"40\""), std::string::npos);
  if (HaveXmllint()) {
    EXPECT_TRUE(XmllintAcceptsBytes(svg));
  }

  CANVASRect cell{};
  ASSERT_EQ(grid->get_CellRect(&rect, 2, 1, &cell), S_OK);
  EXPECT_EQ(cell.x, 76);
  EXPECT_EQ(cell.y, 40);
  EXPECT_EQ(cell.width, 34);
  EXPECT_EQ(cell.height, 20);
  EXPECT_EQ(grid->get_CellRect(&rect, 3, 0, &cell), E_INVALIDARG);

  // A rectangle 20 high shows the first row only.
  SvgCanvas shortCanvas(200, 100);
  CANVASRect shortRect{10, 20, 100, 20};
  QueryAs<IRenderableObject>(grid)->Render(&shortCanvas, &shortRect, nullptr, 0);
  const std::string shortSvg = shortCanvas.Document();
  EXPECT_TRUE(HasTextAt(shortSvg, 46, 34, "B"));
  EXPECT_EQ(TextTagOf(shortSvg, "E"), "");
}

TEST(UIGrid, ResizingReleasesCellsOutsideAndRefusesBadIndices) {
  SmartPtr<IUIGrid> grid = CreateHostObject<IUIGrid>(L"UIGrid");
  ASSERT_TRUE(grid);
  EXPECT_EQ(grid->put_Cell(0, 0, 0, Text(L"x")), E_INVALIDARG);  // no size yet
  ASSERT_EQ(grid->put_Size(3, 3, 1), S_OK);
  SmartPtr<IPMText> corner = Text(L"corner"), inside = Text(L"inside");
  ASSERT_EQ(grid->put_Cell(2, 2, 0, corner), S_OK);
  ASSERT_EQ(grid->put_Cell(1, 1, 0, inside), S_OK);
  EXPECT_EQ(RefCount(corner), 2);

  ASSERT_EQ(grid->put_Size(2, 2, 1), S_OK);
  EXPECT_EQ(RefCount(corner), 1);
  EXPECT_EQ(RefCount(inside), 2);
  int columns = 0, rows = 0;
  ASSERT_EQ(grid->get_Size(&columns, &rows), S_OK);
  EXPECT_EQ(columns, 2);
  EXPECT_EQ(rows, 2);
  // Growing again does not bring the dropped cell back.
  ASSERT_EQ(grid->put_Size(3, 3, 1), S_OK);
  SmartPtr<IUnknown> item;
  EXPECT_EQ(grid->get_Cell(2, 2, 0, item.Out()), S_FALSE);
  EXPECT_FALSE(item);
  ASSERT_EQ(grid->get_Cell(1, 1, 0, item.Out()), S_OK);
  EXPECT_EQ(TextOfCell(QueryAs<IPMText>(item)), L"inside");
  item.Clear();

  const struct {
    int column, row, layer;
  } kOutside[] = {{-1, 0, 0}, {3, 0, 0}, {0, 3, 0}, {0, 0, 1}, {0, 0, -1}};
  for (const auto& bad : kOutside) {
    EXPECT_EQ(grid->put_Cell(bad.column, bad.row, bad.layer, inside), E_INVALIDARG)
        << bad.column << ", " << bad.row << ", " << bad.layer;
    EXPECT_EQ(grid->get_Cell(bad.column, bad.row, bad.layer, item.Out()), E_INVALIDARG);
  }
  EXPECT_EQ(grid->get_Cell(0, 0, 0, nullptr), E_POINTER);
  EXPECT_EQ(grid->get_Size(nullptr, &rows), E_POINTER);
  EXPECT_EQ(grid->put_Size(-1, 1, 1), E_INVALIDARG);
  EXPECT_EQ(grid->put_Size(1, 4097, 1), E_INVALIDARG);
  EXPECT_EQ(grid->put_Size(1, 1, 65), E_INVALIDARG);
  EXPECT_EQ(QueryAs<IRenderableObject>(grid)->Render(nullptr, nullptr, nullptr, 0), E_POINTER);

  // A null item empties the cell; Clear empties the grid and its size.
  ASSERT_EQ(grid->put_Cell(1, 1, 0, nullptr), S_OK);
  EXPECT_EQ(RefCount(inside), 1);
  grid->put_Cell(0, 0, 0, inside);
  ASSERT_EQ(grid->Clear(), S_OK);
  EXPECT_EQ(RefCount(inside), 1);
  grid->get_Size(&columns, &rows);
  EXPECT_EQ(columns + rows, 0);

  // Releasing the grid releases what it holds.
  grid->put_Size(1, 1, 1);
  grid->put_Cell(0, 0, 0, inside);
  grid.Clear();
  EXPECT_EQ(RefCount(inside), 1);
}

TEST(UIGrid, KeepsOptionsThroughClearAndRefusesARowHeightOfZero) {
  SmartPtr<IUIGrid> grid = CreateHostObject<IUIGrid>(L"UIGrid");
  ASSERT_TRUE(grid);
  grid->put_Option(66, 245);  // as the matrix page sets it
  grid->Clear();
  int value = -1;
  EXPECT_EQ(grid->get_Option(66, &value), S_OK);
  EXPECT_EQ(value, 245);
  EXPECT_EQ(grid->get_Option(7, &value), S_FALSE);
  EXPECT_EQ(value, 0);
  EXPECT_EQ(grid->put_RowHeight(0, 0), E_INVALIDARG);
  EXPECT_EQ(grid->put_RowHeight(1, 30), E_INVALIDARG);
}

// ---------------------------------------------------------------- UIParametersSlidePropPage

// The list the calibration info page hands over: entries with the info page's flags.
struct InfoList {
  SmartPtr<IParametersCreatable> list = CreateHostObject<IParametersCreatable>(L"ParametersCreatable");
  SmartPtr<ICreatableSimpleCollection> objects = CreateHostObject<ICreatableSimpleCollection>(L"SimpleCollection");
  InfoList() {
    if (!list || !objects) return;
    list->Add(Str(L"Device"), Str(L"cam0"), nullptr, kReadOnly | 6);
    list->Add(Str(L"Name"), Str(L"left"), nullptr, 6);
    list->Add(Str(L"Type"), Str(L"Camera3DTrinsic"), nullptr, kReadOnly | 6);
    list->Add(Str(L"Units"), Str(L"mm"), nullptr, 6);
    objects->Add(list);
  }
  // The entry's value as the list itself gives it.
  std::wstring Value(const wchar_t* name) {
    int index = -1;
    if (list->get_Index(Str(name), &index) < 0) return L"<missing>";
    SmartPtr<IUnknown> item;
    list->get_Item(index, item.Out());
    return TextOf(item);
  }
};

HRESULT Set(IUnknown* page, const std::wstring& name, const std::wstring& text) {
  return QueryAs<IUIParametersSlideEdit>(page)->SetValue(static_cast<int>(name.size()), name.c_str(),
                                                         static_cast<int>(text.size()), text.c_str());
}

struct OpenPage {
  InfoList info;
  SmartPtr<IUIPropertyPage> page = CreateHostObject<IUIPropertyPage>(L"UIParametersSlidePropPage");
  HRESULT opened = E_FAIL;
  OpenPage() {
    SmartPtr<IUnknown> pages = CreateHostObject<IUnknown>(L"UIPropertyPageCollection");
    if (page && info.objects) opened = page->Initialize(info.objects, Str(L"CalibrationInfo"), 3, pages);
  }
};

TEST(UIParametersSlidePropPage, EditsFollowTheReadOnlyFlagAndTheStateBit) {
  OpenPage p;
  ASSERT_EQ(p.opened, S_OK);
  EXPECT_EQ(p.page->GetState() & 1, 0);

  EXPECT_EQ(Set(p.page, L"Device", L"cam9"), E_ACCESSDENIED);
  EXPECT_EQ(Set(p.page, L"Type", L"x"), E_ACCESSDENIED);
  EXPECT_EQ(Set(p.page, L"Colour", L"red"), E_FAIL);
  EXPECT_EQ(Set(p.page, L"", L"x"), E_FAIL);
  EXPECT_EQ(p.info.Value(L"Device"), L"cam0");
  EXPECT_EQ(p.page->GetState() & 1, 0) << "a refused edit is no edit";

  // Names are found as the list finds them (ASCII letters without regard to case).
  ASSERT_EQ(Set(p.page, L"NAME", L"right"), S_OK);
  EXPECT_EQ(p.page->GetState() & 1, 1);
  EXPECT_EQ(p.info.Value(L"Name"), L"right");
  // Exactly the given number of characters is stored.
  ASSERT_EQ(QueryAs<IUIParametersSlideEdit>(p.page)->SetValue(5, L"Units", 2, L"cmxx"), S_OK);
  EXPECT_EQ(p.info.Value(L"Units"), L"cm");
  SmartPtr<IString> value;
  ASSERT_EQ(QueryAs<IUIParametersSlideEdit>(p.page)->GetValue(4, L"Name", value.Out()), S_OK);
  EXPECT_EQ(TextOf(value), L"right");

  // Apply clears the bit and keeps the values.
  EXPECT_EQ(p.page->Apply(nullptr), S_OK);
  EXPECT_EQ(p.page->GetState() & 1, 0);
  EXPECT_EQ(p.info.Value(L"Name"), L"right");

  // Cancel puts back what stood before the first edit since Apply.
  Set(p.page, L"Name", L"middle");
  Set(p.page, L"Name", L"centre");
  EXPECT_EQ(p.page->Cancel(), S_OK);
  EXPECT_EQ(p.page->GetState() & 1, 0);
  EXPECT_EQ(p.info.Value(L"Name"), L"right");

  // Bad arguments.
  EXPECT_EQ(QueryAs<IUIParametersSlideEdit>(p.page)->SetValue(4, nullptr, 1, L"x"), E_POINTER);
  EXPECT_EQ(QueryAs<IUIParametersSlideEdit>(p.page)->SetValue(4, L"Name", 1, nullptr), E_POINTER);
  EXPECT_EQ(QueryAs<IUIParametersSlideEdit>(p.page)->SetValue(4, L"Name", -1, L"x"), E_INVALIDARG);
  EXPECT_EQ(QueryAs<IUIParametersSlideEdit>(p.page)->GetValue(4, L"Name", nullptr), E_POINTER);
  EXPECT_EQ(QueryAs<IUIParametersSlideEdit>(p.page)->GetValue(4, L"Nope", value.Out()), E_FAIL);

  // Closed, the page edits nothing.
  EXPECT_EQ(p.page->Close(), S_OK);
  EXPECT_EQ(p.page->GetState(), 0);
  EXPECT_EQ(Set(p.page, L"Name", L"gone"), E_FAIL);
  EXPECT_EQ(p.page->Apply(nullptr), E_FAIL);
  EXPECT_EQ(p.info.Value(L"Name"), L"right");
}

TEST(UIParametersSlidePropPage, TitleAndRefusedInitialisation) {
  OpenPage p;
  ASSERT_EQ(p.opened, S_OK);
  SmartPtr<IString> title;
  ASSERT_EQ(p.page->GetTitle(title.Out()), S_OK);
  EXPECT_EQ(TextOf(title), L"CalibrationInfo");
  EXPECT_EQ(p.page->GetHelp(title.Out()), E_FAIL);

  EXPECT_EQ(p.page->Initialize(nullptr, nullptr, 0, nullptr), E_POINTER);
  EXPECT_EQ(p.page->GetTitle(title.Out()), E_FAIL);
  SmartPtr<ICreatableSimpleCollection> noList = CreateHostObject<ICreatableSimpleCollection>(L"SimpleCollection");
  noList->Add(Str(L"not a list"));
  EXPECT_EQ(p.page->Initialize(noList, nullptr, 0, nullptr), E_INVALIDARG);
  EXPECT_EQ(p.page->GetState(), 0);
  SvgCanvas canvas(10, 10);
  CANVASRect rect{0, 0, 10, 10};
  EXPECT_EQ(QueryAs<IRenderableObject>(p.page)->Render(&canvas, &rect, nullptr, 0), E_FAIL);
}

TEST(UIParametersSlidePropPage, DrawsNameAndValueRowsWithReadOnlyEntriesGrey) {
  OpenPage p;
  ASSERT_EQ(p.opened, S_OK);
  ASSERT_EQ(Set(p.page, L"Name", L"<left & \"right\">"), S_OK);
  // Width 250: names in 0..100, values from 100. Rows 20 high; 40 high shows two rows.
  SvgCanvas canvas(250, 40);
  CANVASRect rect{0, 0, 250, 40};
  ASSERT_EQ(QueryAs<IRenderableObject>(p.page)->Render(&canvas, &rect, nullptr, 0), S_OK);
  const std::string svg = canvas.Document();
  EXPECT_TRUE(HasTextAt(svg, 3, 14, "Device")) << svg;
  EXPECT_TRUE(HasTextAt(svg, 103, 14, "cam0"));
  EXPECT_TRUE(HasTextAt(svg, 3, 34, "Name"));
  EXPECT_TRUE(HasTextAt(svg, 103, 34, "&lt;left &amp; &quot;right&quot;&gt;"));
  EXPECT_EQ(TextTagOf(svg, "Type"), "") << "the third row starts below the rectangle";
  EXPECT_NE(TextTagOf(svg, "cam0").find("fill=\"#808080\""), std::string::npos);
  EXPECT_NE(TextTagOf(svg, "Name").find("fill=\"#000000\""), std::string::npos);
  EXPECT_NE(svg.find("<rect x=\"0\" y=\"0\" width=\"250\" height=\"20\" fill=\"#f0f0f0\"/>"), std::string::npos);
  EXPECT_NE(svg.find("<line x1=\"100\" y1=\"0\" x2=\"100\" y2=\"40\""), std::string::npos);
  if (HaveXmllint()) {
    EXPECT_TRUE(XmllintAcceptsBytes(svg)) << svg;
  }

  // The host's editor style is the page's text style: 10 px puts the first baseline at
  // 0 + (20 + 7) / 2 = 13.
  SmartPtr<IUIPropertyPageCollection> pages = CreateHostObject<IUIPropertyPageCollection>(L"UIPropertyPageCollection");
  SmartPtr<IUnknown> editor, style;
  ASSERT_EQ(pages->GetInfo(6, editor.Out(), nullptr), S_OK);
  QueryAs<IUIParamEdit>(editor)->GetObject(4, style.Out());
  ASSERT_EQ(QueryAs<IPMRenderStyle>(style)->put_FontSize(10), S_OK);
  ASSERT_EQ(p.page->Initialize(p.info.objects, nullptr, 3, pages), S_OK);
  SvgCanvas small(250, 40);
  ASSERT_EQ(QueryAs<IRenderableObject>(p.page)->Render(&small, &rect, nullptr, 0), S_OK);
  EXPECT_TRUE(HasTextAt(small.Document(), 3, 13, "Device")) << small.Document();
}

TEST(UIParametersSlidePropPage, ReleasesWhatItHolds) {
  InfoList info;
  ASSERT_TRUE(info.list);
  const int listCount = RefCount(info.list);
  const int objectsCount = RefCount(info.objects);
  SmartPtr<IUnknown> pages = CreateHostObject<IUnknown>(L"UIPropertyPageCollection");
  SmartPtr<IUIPropertyPage> page = CreateHostObject<IUIPropertyPage>(L"UIParametersSlidePropPage");
  ASSERT_EQ(page->Initialize(info.objects, nullptr, 3, pages), S_OK);
  EXPECT_EQ(RefCount(info.objects), objectsCount + 1);
  EXPECT_EQ(RefCount(pages), 1) << "the host's collection is not kept";
  ASSERT_EQ(Set(page, L"Name", L"x"), S_OK);  // keeps the old value for Cancel
  page->Close();
  EXPECT_EQ(RefCount(info.list), listCount);
  EXPECT_EQ(RefCount(info.objects), objectsCount);

  // Released while open, it lets go too.
  page->Initialize(info.objects, nullptr, 3, nullptr);
  Set(page, L"Units", L"m");
  pages.Clear();  // the frame keeps the page it showed last
  page.Clear();
  EXPECT_EQ(RefCount(info.list), listCount);
  EXPECT_EQ(RefCount(info.objects), objectsCount);
}

}  // namespace
