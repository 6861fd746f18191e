// `zeltrim pages`: a saved calibration's property pages, rendered by the module's pages
// and the host's user-interface peer into an SVG picture, and the info block edited the
// way a property frame edits it (through the info page's slide page, then Apply).
#include <cstdio>
#include <cwchar>
#include <utility>

#include "host/client/CalibrationFile.h"
#include "host/ui/canvas/SvgCanvas.h"
#include "tools/zeltrim/Commands.h"
#include "tools/zeltrim/HostText.h"

const char* const kPagesHelp =
    "usage: zeltrim pages FILE [--page info|matrix] [--svg OUT.svg]\n"
    "                     [--set ENTRY=TEXT ...] [--save FILE]\n"
    "Shows a saved calibration on one of its property pages, drawn by the module's page\n"
    "and the host's user-interface peer:\n"
    "  info    the calibration info block: Device, Name, Type, Units, Description, Date\n"
    "          (the default page)\n"
    "  matrix  the numbers of the calibration's matrix (a plane calibration shows its\n"
    "          camera's), each in a field of 12 with 6 decimals\n"
    "The page's entries or cells are printed, one a line. --svg writes the rendered page as\n"
    "an SVG picture.\n"
    "--set edits an entry of the info page as a user does in a property frame: Name, Units,\n"
    "Description and Date take an edit, Device and Type are read-only; Apply then writes\n"
    "Name, Units and Description back into the calibration (Date is shown, never written).\n"
    "--save FILE saves the edited calibration (FILE may be the one loaded). The XML form\n"
    "keeps only the name of the info block; a folder-stream file keeps all of it.\n";

namespace {

constexpr int kPageWidth = 560;
constexpr int kPageHeight = 200;
const wchar_t* const kInfoEntries[] = {L"Device", L"Name", L"Type", L"Units", L"Description", L"Date"};

std::wstring Widen(const std::string& text) { return std::wstring(text.begin(), text.end()); }

struct PagesOptions {
  std::string file, page = "info", svg, save;
  std::vector<std::pair<std::string, std::string>> edits;
};

int ParseOptions(const std::vector<std::string>& args, const std::string& startDir, PagesOptions* o) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    const bool hasValue = i + 1 < args.size();
    if (a == "--page" || a == "--svg" || a == "--set" || a == "--save") {
      if (!hasValue) return Fail(a + " needs a value");
      const std::string& v = args[++i];
      if (a == "--page") {
        o->page = v;
      } else if (a == "--svg") {
        o->svg = AbsolutePath(v, startDir);
      } else if (a == "--save") {
        o->save = AbsolutePath(v, startDir);
      } else {
        const size_t eq = v.find('=');
        if (eq == std::string::npos || eq == 0) return Fail("--set needs ENTRY=TEXT, not " + v);
        o->edits.emplace_back(v.substr(0, eq), v.substr(eq + 1));
      }
    } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
      return Fail("unknown option " + a);
    } else if (o->file.empty()) {
      o->file = AbsolutePath(a, startDir);
    } else {
      return Fail("pages takes one FILE, not also " + a);
    }
  }
  if (o->file.empty()) return Fail("pages needs a calibration FILE");
  if (o->page != "info" && o->page != "matrix") return Fail("unknown page " + o->page + " (info or matrix)");
  if (!o->edits.empty() && o->page != "info") return Fail("--set edits the info page only");
  if (!o->save.empty() && o->edits.empty()) return Fail("--save needs an edit (--set)");
  return 0;
}

// Applies the edits through the slide page the frame shows, then the page's Apply.
int Edit(IUIPropertyPage* page, IUIPropertyPageCollection* frame, const PagesOptions& o) {
  SmartPtr<IUnknown> shown;
  frame->get_ShownPage(shown.Out());
  SmartPtr<IUIParametersSlideEdit> slide = QueryAs<IUIParametersSlideEdit>(shown);
  if (!slide) return Fail("the user-interface peer shows no editable page", 1);
  for (const auto& [entry, text] : o.edits) {
    const std::wstring name = Widen(entry), value = Widen(text);
    const HRESULT hr = slide->SetValue(static_cast<int>(name.size()), name.c_str(), static_cast<int>(value.size()),
                                       value.c_str());
    if (hr == E_ACCESSDENIED) return Fail("entry " + entry + " is read-only");
    if (hr < 0) return Fail("no entry " + entry + " on the info page (Name, Units, Description, Date take an edit)");
  }
  if (page->Apply(nullptr) < 0) return Fail("the info page did not apply the edits", 1);
  return 0;
}

void PrintInfo(IUIPropertyPageCollection* frame) {
  SmartPtr<IUnknown> shown;
  frame->get_ShownPage(shown.Out());
  SmartPtr<IUIParametersSlideEdit> slide = QueryAs<IUIParametersSlideEdit>(shown);
  if (!slide) return;
  for (const wchar_t* entry : kInfoEntries) {
    SmartPtr<IString> value;
    slide->GetValue(static_cast<int>(std::wcslen(entry)), entry, value.Out());
    std::printf("%s: %s\n", Narrow(entry).c_str(), Narrow(TextOf(value)).c_str());
  }
}

// The matrix page's cells as it drew them: the text elements of its picture, by rows.
void PrintCells(const std::string& svg) {
  size_t count = 0;
  for (size_t at = svg.find("<text"); at != std::string::npos; at = svg.find("<text", at + 1)) {
    const size_t open = svg.find('>', at), close = svg.find("</text>", at);
    if (open == std::string::npos || close == std::string::npos) break;
    std::printf("%s\n", svg.substr(open + 1, close - open - 1).c_str());
    ++count;
  }
  if (count == 0) std::printf("(no matrix to show)\n");
}

}  // namespace

int RunPages(CommandContext& context) {
  PagesOptions o;
  if (const int status = ParseOptions(context.args, context.startDir, &o)) return status;
  if (const int status = CheckSavePath(o.save)) return status;

  SmartPtr<IUnknown> calibration;
  std::wstring objectName;
  const std::string problem = LoadCalibrationFile(*context.host, o.file, &calibration, &objectName);
  if (!problem.empty()) return Fail("cannot load " + o.file + ": " + problem);

  ModuleHost& host = *context.host;
  SmartPtr<IUIPropertyPageCollection> frame = host.CreateHost<IUIPropertyPageCollection>(L"UIPropertyPageCollection");
  SmartPtr<ICreatableSimpleCollection> objects = host.CreateHost<ICreatableSimpleCollection>(L"SimpleCollection");
  const wchar_t* pageName = o.page == "info" ? L"CalibrationInfoPropPage" : L"CalibrationMatrixPropPage";
  SmartPtr<IUIPropertyPage> page = host.Create<IUIPropertyPage>(pageName);
  if (!frame || !objects || !page) return Fail("cannot make the " + o.page + " page: " + host.Error(), 1);
  objects->Add(calibration);
  if (page->Initialize(objects, nullptr, 0, frame) < 0) return Fail("the " + o.page + " page refused " + o.file, 1);

  int status = o.edits.empty() ? 0 : Edit(page, frame, o);
  if (status == 0 && !o.save.empty()) {
    const client::FileReport saved = client::SaveFile(host.Components(), calibration, o.save);
    if (!saved.ok) status = Fail("cannot save " + o.save + ": " + saved.problem, 1);
    else if (client::FormOfPath(o.save) == client::FileForm::kXML)
      std::fprintf(stderr, "zeltrim: note: %s keeps only the name of the info block\n", o.save.c_str());
  }

  SvgCanvas canvas(kPageWidth, kPageHeight);
  CANVASRect rect{0, 0, kPageWidth, kPageHeight};
  SmartPtr<IRenderableObject> renderable = QueryAs<IRenderableObject>(page);
  if (status == 0 && (!renderable || renderable->Render(&canvas, &rect, nullptr, 0) < 0))
    status = Fail("the " + o.page + " page did not render", 1);
  if (status == 0) {
    if (o.page == "info")
      PrintInfo(frame);
    else
      PrintCells(canvas.Document());
    if (!o.svg.empty() && !canvas.WriteFile(o.svg)) status = Fail("cannot write " + o.svg);
  }
  page->Close();
  return status;
}
