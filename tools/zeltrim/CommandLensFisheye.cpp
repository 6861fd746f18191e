// `zeltrim lens fisheye`: a hand-set CalibrationFisheye and the lookup map from the
// perspective picture to the fisheye picture that a resampler reads.
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <string>
#include <vector>

#include "host/client/CalibrationFile.h"
#include "tools/zeltrim/Commands.h"
#include "tools/zeltrim/PointText.h"

const char* const kLensFisheyeHelp =
    "usage: zeltrim lens fisheye [--param NAME=VALUE ...] [--save FILE] --map OUT.pgm|OUT.csv\n"
    "Builds a fisheye mapping by hand and writes, for every pixel (u, v) of the virtual\n"
    "perspective picture, the fisheye pixel (x, y) it samples: the perspective pixel's ray\n"
    "makes an angle theta with the optical axis, and theta gives the fisheye radius\n"
    "(theta / half the lens's field, or k1 theta + k2 theta^2 + k3 theta^3 + k4 theta^4 with\n"
    "fUseKorrection=1, which pushes rays beyond the half field ten times further out).\n"
    "Parameters (defaults in brackets); names not given keep their defaults:\n"
    "  PerspectiveImageWidth [1000], PerspectiveImageHeight [700]  size of the map, pixels;\n"
    "      rounded down to even numbers, below 1 they become 800 and 600\n"
    "  PerspectiveFOV [100]     horizontal field of the perspective view, degrees; read as a\n"
    "                           whole number, at most 170\n"
    "  FisheyeFOV [180]         full field of the lens, degrees, at most 360\n"
    "  FisheyeCenterX [500], FisheyeCenterY [250]   centre of the fisheye circle, pixels\n"
    "  FisheyeRadiusX [350], FisheyeRadiusY [350]   radii of the fisheye ellipse, pixels\n"
    "  FisheyeImageWidth [5000], FisheyeImageHeight [5000]   whole numbers; a centre of 0 or\n"
    "                           less becomes half of them. A radius of 0 or less replaces a\n"
    "                           centre, not itself: X's centre becomes half the width, Y's\n"
    "                           centre takes X's\n"
    "  fUseKorrection [0]       1: the lens polynomial; 0: linear in the angle\n"
    "  k1 [1], k2 [0], k3 [0], k4 [0]   the lens polynomial, theta in radians, r in radii\n"
    "Options:\n"
    "  --param NAME=VALUE  set one parameter (repeat for more); whole numbers where marked\n"
    "  --map FILE          the map; its extension picks the form:\n"
    "                      .csv  text: a header line \"u,v,x,y\", then one line per\n"
    "                            perspective pixel, rows top to bottom, each left to right;\n"
    "                            x and y with 6 decimals (\"nan\" where not a number)\n"
    "                      .pgm  a 16-bit greyscale picture of the perspective size showing\n"
    "                            each pixel's fisheye radius in units of the ellipse:\n"
    "                            black at the fisheye centre, mid-grey (32768) on the ellipse,\n"
    "                            white at twice the ellipse and beyond, and where the\n"
    "                            mapping gives no number\n"
    "  --save FILE         save the calibration (.xml XML, .t... folder stream)\n"
    "Prints the parameters in use (after the corrections above) and the bounds of the map.\n";

namespace {

enum class MapForm { kCsv, kPgm };

// The object's parameters in their order; the marked ones are whole numbers.
struct ParameterName {
  const char* name;
  bool integer;
};
const ParameterName kParameters[] = {
    {"FisheyeFOV", false},        {"FisheyeCenterX", false},         {"FisheyeCenterY", false},
    {"FisheyeRadiusX", false},    {"FisheyeRadiusY", false},         {"FisheyeImageWidth", true},
    {"FisheyeImageHeight", true}, {"fUseKorrection", true},          {"k1", false},
    {"k2", false},                {"k3", false},                     {"k4", false},
    {"PerspectiveImageWidth", true}, {"PerspectiveImageHeight", true}, {"PerspectiveFOV", false},
};

// A map larger than this is refused before any work (about 1.6 GB of CSV).
constexpr long long kMostPixels = 50000000;

struct Setting {
  const ParameterName* parameter;
  double value;
};

struct FisheyeSettings {
  std::vector<Setting> settings;
  std::string map, save;
  MapForm form = MapForm::kCsv;
};

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool ParseParam(const std::string& text, FisheyeSettings* s, std::string* error) {
  const size_t equals = text.find('=');
  if (equals == std::string::npos || equals == 0)
    return *error = "--param needs NAME=VALUE, got '" + text + "'", false;
  const std::string name = text.substr(0, equals), value = text.substr(equals + 1);
  const ParameterName* parameter = nullptr;
  for (const ParameterName& p : kParameters)
    if (name == p.name) parameter = &p;
  if (!parameter) return *error = "unknown parameter '" + name + "' (see zeltrim lens fisheye --help)", false;
  double v = 0;
  if (!ParseNumbers(value, 1, &v)) return *error = name + " needs a number, got '" + value + "'", false;
  if (parameter->integer && (v != std::floor(v) || v < -2147483648.0 || v > 2147483647.0))
    return *error = name + " needs a whole number, got '" + value + "'", false;
  for (Setting& earlier : s->settings)
    if (earlier.parameter == parameter) return earlier.value = v, true;  // the last one given counts
  s->settings.push_back({parameter, v});
  return true;
}

bool ParseSettings(const CommandContext& context, FisheyeSettings* s, std::string* error) {
  const std::vector<std::string>& args = context.args;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    const bool hasValue = i + 1 < args.size();
    if (a == "--param") {
      if (!hasValue) return *error = "--param needs NAME=VALUE", false;
      if (!ParseParam(args[++i], s, error)) return false;
    } else if (a == "--map" || a == "--save") {
      if (!hasValue) return *error = a + " needs a file name", false;
      (a == "--map" ? s->map : s->save) = AbsolutePath(args[++i], context.startDir);
    } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
      return *error = "unknown option " + a, false;
    } else {
      return *error = "unexpected argument '" + a + "' (parameters go by --param NAME=VALUE)", false;
    }
  }
  if (s->map.empty() && s->save.empty()) return *error = "lens fisheye needs --map FILE (or --save FILE)", false;
  if (!s->map.empty()) {
    const size_t dot = s->map.rfind('.');
    const std::string extension = dot == std::string::npos ? "" : Lower(s->map.substr(dot));
    if (extension == ".csv")
      s->form = MapForm::kCsv;
    else if (extension == ".pgm")
      s->form = MapForm::kPgm;
    else
      return *error = "--map needs a .csv or .pgm file name", false;
  }
  if (!s->save.empty() && client::FormOfPath(s->save) == client::FileForm::kNone)
    return *error = "--save needs a .xml or .t... file name", false;
  return true;
}

// Every parameter of the object as it holds them now, the given ones replaced: a
// collection that names them all, so the object's defaults for missing names (the radii
// take the centre) never apply.
HRESULT Apply(ModuleHost& host, IParametricObject* object, const std::vector<Setting>& settings) {
  SmartPtr<INamedCollection> current;
  if (object->GetParameters(current.Out(), 0) < 0 || !current) return E_FAIL;
  SmartPtr<IParameters> list = QueryAs<IParameters>(current);
  if (!list) return E_FAIL;
  for (const Setting& s : settings) {
    int index = -1;
    if (list->get_Index(host.NewString(s.parameter->name), &index) < 0) return E_FAIL;
    SmartPtr<IVariant> value = host.CreateHost<IVariant>(L"Variant");
    if (!value) return E_FAIL;
    if (s.parameter->integer)
      value->put_Integer(static_cast<int>(s.value));
    else
      value->put_Double(s.value);
    if (list->put_Item(index, value) < 0) return E_FAIL;
  }
  return object->SetParameters(current);
}

// The object's parameters after its corrections, in the order of kParameters.
bool ReadParameters(ModuleHost& host, IParametricObject* object, std::vector<double>* values) {
  SmartPtr<INamedCollection> current;
  if (object->GetParameters(current.Out(), 0) < 0) return false;
  SmartPtr<IParameters> list = QueryAs<IParameters>(current);
  if (!list) return false;
  values->clear();
  for (const ParameterName& p : kParameters) {
    int index = -1;
    SmartPtr<IVariant> value;
    if (list->get_Index(host.NewString(p.name), &index) < 0 || list->get_ItemVariant(index, value.Out()) < 0 || !value)
      return false;
    values->push_back(value->get_Double());
  }
  return true;
}

// The normalised radius of a fisheye point: 1 on the ellipse.
double EllipseRadius(double x, double y, const std::vector<double>& p) {
  return std::hypot((x - p[1]) / p[3], (y - p[2]) / p[4]);
}

uint16_t Grey(double radius) {
  if (!(radius >= 0) || radius >= 2) return 65535;  // beyond twice the ellipse, or NaN
  return static_cast<uint16_t>(std::lround(radius * 32768.0));
}

struct Bounds {
  double minX = INFINITY, maxX = -INFINITY, minY = INFINITY, maxY = -INFINITY;
  long long notNumbers = 0;
  void Add(double x, double y) {
    if (!std::isfinite(x) || !std::isfinite(y)) {
      ++notNumbers;
      return;
    }
    minX = std::fmin(minX, x), maxX = std::fmax(maxX, x);
    minY = std::fmin(minY, y), maxY = std::fmax(maxY, y);
  }
};

// Runs Revert over every pixel, writing the map as it goes. Empty when it worked.
std::string WriteMap(ICalibrationFisheye* fisheye, const FisheyeSettings& s, int width, int height,
                     const std::vector<double>& parameters, Bounds* bounds) {
  FILE* file = std::fopen(s.map.c_str(), "wb");
  if (!file) return "cannot write " + s.map;
  std::vector<unsigned char> row;
  if (s.form == MapForm::kCsv)
    std::fputs("u,v,x,y\n", file);
  else
    std::fprintf(file, "P5\n%d %d\n65535\n", width, height), row.resize(static_cast<size_t>(width) * 2);
  for (int v = 0; v < height; ++v) {
    for (int u = 0; u < width; ++u) {
      double x = u, y = v, z = 0;
      fisheye->Revert(&x, &y, &z);
      bounds->Add(x, y);
      if (s.form == MapForm::kCsv) {
        std::fprintf(file, "%d,%d,%.6f,%.6f\n", u, v, x, y);
      } else {
        const uint16_t g = Grey(EllipseRadius(x, y, parameters));
        row[2 * static_cast<size_t>(u)] = static_cast<unsigned char>(g >> 8);  // PGM: most significant byte first
        row[2 * static_cast<size_t>(u) + 1] = static_cast<unsigned char>(g & 0xFF);
      }
    }
    if (s.form == MapForm::kPgm) std::fwrite(row.data(), 1, row.size(), file);
  }
  const bool failed = std::ferror(file) != 0;
  if (std::fclose(file) != 0 || failed) return "cannot write " + s.map;
  return "";
}

}  // namespace

int RunLensFisheye(CommandContext& context) {
  FisheyeSettings s;
  std::string error;
  if (!ParseSettings(context, &s, &error)) return Fail(error);
  if (const int status = CheckSavePath(s.save)) return status;
  if (const int status = CheckSavePath(s.map)) return status;

  ModuleHost& host = *context.host;
  SmartPtr<ICalibrationFisheye> fisheye = host.Create<ICalibrationFisheye>(L"CalibrationFisheye");
  SmartPtr<IParametricObject> parametric = QueryAs<IParametricObject>(fisheye);
  if (!fisheye || !parametric) return Fail("CalibrationFisheye: " + host.Error(), 1);
  if (Apply(host, parametric, s.settings) < 0) return Fail("the host cannot hold the parameters", 1);
  std::vector<double> p;
  if (!ReadParameters(host, parametric, &p)) return Fail("the calibration gave no parameters", 1);

  std::printf("CalibrationFisheye parameters in use:\n");
  for (size_t i = 0; i < p.size(); ++i)
    std::printf("  %-24s %.10g\n", kParameters[i].name, p[i]);
  const int width = static_cast<int>(p[12]), height = static_cast<int>(p[13]);

  if (!s.map.empty()) {
    if (static_cast<long long>(width) * height > kMostPixels)
      return Fail("the map would have " + std::to_string(static_cast<long long>(width) * height) +
                  " pixels; at most " + std::to_string(kMostPixels));
    Bounds bounds;
    error = WriteMap(fisheye, s, width, height, p, &bounds);
    if (!error.empty()) return Fail(error, 1);
    std::printf("map: %d x %d perspective pixels\n", width, height);
    if (bounds.notNumbers < static_cast<long long>(width) * height)
      std::printf("fisheye x from %.6f to %.6f, y from %.6f to %.6f\n", bounds.minX, bounds.maxX, bounds.minY,
                  bounds.maxY);
    if (bounds.notNumbers > 0)
      std::printf("%lld pixels map to no finite point (a FisheyeFOV of 0, or a polynomial that overflows)\n", bounds.notNumbers);
    std::printf("wrote %s\n", s.map.c_str());
  }
  if (!s.save.empty()) {
    if (host.Archive(fisheye, s.save, true) < 0) return Fail("cannot save " + s.save + ": " + host.Error(), 1);
    std::printf("saved %s\n", s.save.c_str());
  }
  return 0;
}
