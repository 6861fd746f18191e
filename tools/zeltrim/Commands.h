// The sub-commands of the zeltrim command-line host. Each returns the exit status:
// 0 success, 1 a failure of the module, 2 bad input or usage.
#pragma once

#include <string>
#include <vector>

#include "host/client/ModuleHost.h"
#include "tools/zeltrim/PointText.h"
#include "tools/zeltrim/Tasks.h"

struct CommandContext {
  ModuleHost* host;
  std::vector<std::string> args;  // after the sub-command's name
  std::string startDir;           // the folder the user started in
  std::string sampleDir;          // the bundled sample that "calibrate" runs on by default
};

int RunObjects(CommandContext& context);
int RunLinear(CommandContext& context);
int RunFit(CommandContext& context);
int RunShow(CommandContext& context);
int RunCalibrate(CommandContext& context);
int RunResect(CommandContext& context);
int RunProject(CommandContext& context);
int RunUnproject(CommandContext& context);
int RunLocate(CommandContext& context);
int RunDecompose(CommandContext& context);
int RunTriangulate(CommandContext& context);
int RunStereo(CommandContext& context);
int RunConvert(CommandContext& context);
int RunPages(CommandContext& context);
// `lens KIND`: CommandLens.cpp picks the kind's Run function (CommandLens*.cpp) by name.
int RunLens(CommandContext& context);
int RunLensRadial(CommandContext& context);
int RunLensFisheye(CommandContext& context);
// `lens polynomial`: CommandLensPolynomial.cpp.
int RunLensPolynomial(CommandContext& context);
// `collection FILE VERB ...`: CommandCollection.cpp.
int RunCollection(CommandContext& context);

extern const char* const kObjectsHelp;
extern const char* const kLinearHelp;
extern const char* const kFitHelp;
extern const char* const kShowHelp;
extern const char* const kPagesHelp;
extern const char* const kCalibrateHelp;
extern const char* const kResectHelp;
extern const char* const kProjectHelp;
extern const char* const kUnprojectHelp;
extern const char* const kLocateHelp;
extern const char* const kDecomposeHelp;
extern const char* const kConvertHelp;
extern const char* const kLensHelp;
extern const char* const kLensRadialHelp;
extern const char* const kLensFisheyeHelp;
extern const char* const kLensPolynomialHelp;
extern const char* const kCollectionHelp;

// What `zeltrim show` prints of a CalibrationPolynomial loaded from `path`: its grid size
// (read from the file), order, curve kind and fit errors. False for other objects.
bool ShowPolynomial(ModuleHost& host, IUnknown* object, const std::string& path);
// What `zeltrim show` prints of a Camera3DCalibrationPlane: its camera and its plane.
void ShowCameraPlane(IUnknown* object);
extern const char* const kTriangulateHelp;
extern const char* const kStereoHelp;

// Reads a point file ('#' and blank lines skipped; `numbers` as for ReadPoints); folders
// and devices are named as what they are, and a file without points is refused here
// rather than compared by length with another.
bool ReadPointFile(const std::string& path, std::vector<Point3>* points, std::string* error, int numbers = 0);

// Reads two point files whose lines pair up; files of different lengths are refused with
// "the point files differ in length: A and B points".
bool ReadPointPairFiles(const std::string& sourcePath, const std::string& targetPath, std::vector<Point3>* source,
                        std::vector<Point3>* target, std::string* error);

// Prints "zeltrim: <message>" on standard error and returns `status`.
int Fail(const std::string& message, int status = 2);
// Before any work: a --save path that cannot be written fails with status 2 (the message
// printed); 0 when it can, or when `path` is empty.
int CheckSavePath(const std::string& path);
