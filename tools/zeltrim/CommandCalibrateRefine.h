// zeltrim calibrate --refine: the module's camera refined jointly (intrinsics, lens and
// every view's pose) by the host library zeltrim_refine, when this build has Ceres Solver.
#pragma once

#include <string>
#include <vector>

#include "host/client/ModuleHost.h"
#include "tools/zeltrim/CalibrationReport.h"
#include "tools/zeltrim/PointText.h"
#include "tools/zeltrim/Tasks.h"

struct RefineOptions {
  bool enabled = false;
  std::string lens = "full";
  bool refineSkew = false;
};

// Takes --refine, --lens NAME and --refine-skew out of `args`. False, with a one-line
// *error, for an unknown lens, an option without --refine, or --refine in a build
// without Ceres Solver.
bool TakeRefineOptions(std::vector<std::string>* args, RefineOptions* options, std::string* error);

struct RefineOutcome {
  std::string text;                  // the report printed after the module's
  std::string json;                  // ",\n \"refined\": {...}" for the JSON object
  SmartPtr<ICamera3DTrinsic> camera;  // the refined camera, made when `makeCamera`
  std::string saveNote;              // what the saved camera holds and what it cannot
  bool refined = false;              // the two below are filled
  ReportColumn reportColumn;         // the refined values with their deviations, for --report
  RadialModel reportCurve;           // the refined radial terms, for --report
};

// Refines the module's calibration `module` of these views. Returns 0, or the exit status
// after printing the one-line error.
int RunRefinement(ModuleHost& host, const std::vector<Point3>& model, const std::vector<std::vector<Point3>>& views,
                  const std::vector<std::string>& viewNames, int width, int height, const CameraCalibration& module,
                  const RefineOptions& options, bool makeCamera, RefineOutcome* outcome);
