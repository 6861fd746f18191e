// zeltrim: a command-line host for the Zeltrim calibration module. It loads Zeltrim.so
// exactly as a framework host does, with the reference host's peer modules beside it.
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <clocale>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <string>

#include "host/client/CalibrationFile.h"
#include "tools/zeltrim/Commands.h"

namespace {

const char* const kUsage =
    "usage: zeltrim <command> [arguments]\n"
    "Commands:\n"
    "  objects   list the objects the module creates, and whether this build has each\n"
    "  linear    convert or revert points with a hand-set linear calibration\n"
    "  fit       fit a best-fit calibration between two point files\n"
    "  show      show a calibration file: object, info block, parameters, matrices\n"
    "  calibrate calibrate a camera from views of a flat target (no data: the bundled sample)\n"
    "  resect    fit a projective camera to image points and their world points\n"
    "  project   carry world points to image points through a saved camera\n"
    "  unproject carry image points back to world points or viewing rays through a saved camera\n"
    "  locate    image points to world points on a plane, through a saved camera\n"
    "  decompose location, rotation and intrinsics of a saved camera\n"
    "  triangulate  the 3D point that two or more calibrated cameras see, line by line\n"
    "  stereo    relative pose, epipoles, F and E of a camera pair, or F from point pairs\n"
    "  convert   convert or revert points with any saved plane calibration or lens model\n"
    "  lens      fit or build a lens correction: radial, fisheye, polynomial\n"
    "  pages     show a calibration's info or matrix page (as SVG), edit its info block\n"
    "  collection  keep calibrations by name in a collection file, with its active slots\n"
    "Run 'zeltrim <command> --help' for a command's options.\n";

struct Command {
  const char* name;
  int (*run)(CommandContext&);
  const char* const* help;
  bool kinds = false;  // the first argument names a kind, which answers --help itself
};

const Command kCommands[] = {
    {"objects", &RunObjects, &kObjectsHelp},
    {"linear", &RunLinear, &kLinearHelp},
    {"fit", &RunFit, &kFitHelp},
    {"show", &RunShow, &kShowHelp},
    {"calibrate", &RunCalibrate, &kCalibrateHelp},
    {"resect", &RunResect, &kResectHelp},
    {"project", &RunProject, &kProjectHelp},
    {"unproject", &RunUnproject, &kUnprojectHelp},
    {"locate", &RunLocate, &kLocateHelp},
    {"decompose", &RunDecompose, &kDecomposeHelp},
    {"triangulate", &RunTriangulate, &kTriangulateHelp},
    {"stereo", &RunStereo, &kStereoHelp},
    {"convert", &RunConvert, &kConvertHelp},
    {"pages", &RunPages, &kPagesHelp},
    {"lens", &RunLens, &kLensHelp, true},
    {"collection", &RunCollection, &kCollectionHelp},
};

bool IsFolder(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// `path` without "." and ".." steps when it exists, so messages name a plain folder.
std::string Tidy(const std::string& path) {
  char resolved[PATH_MAX];
  return realpath(path.c_str(), resolved) ? std::string(resolved) : path;
}

// Where this zeltrim finds the module and its sample, from the folder of its own binary.
// A build folder holds _binlinux/ beside the binary, and the sample stays in the source
// tree. An installation has the binary in bin/, the module and the peers in their own
// folder's _binlinux/ and the sample among the shared data, at paths relative to bin/
// (ZELTRIM_INSTALLED_HOME, ZELTRIM_INSTALLED_SAMPLE), so that an installation works
// wherever it is put, an unpacked package included.
void FindLayout(std::string* home, std::string* sample) {
  const std::string bin = ExecutableFolder();
  if (IsFolder(bin + "/_binlinux")) {
    *home = bin;
    *sample = ZELTRIM_SAMPLE_DIR;
    return;
  }
  *home = Tidy(bin + "/" ZELTRIM_INSTALLED_HOME);
  *sample = Tidy(bin + "/" ZELTRIM_INSTALLED_SAMPLE);
}

}  // namespace

int Fail(const std::string& message, int status) {
  std::fprintf(stderr, "zeltrim: %s\n", message.c_str());
  return status;
}

int CheckSavePath(const std::string& path) {
  const std::string problem = path.empty() ? std::string() : client::SavePathProblem(path);
  return problem.empty() ? 0 : Fail("cannot save " + path + ": " + problem);
}

int main(int argc, char** argv) {
  std::setlocale(LC_ALL, "");
  if (argc < 2) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  const std::string name = argv[1];
  if (name == "--help" || name == "-h" || name == "help") {
    std::fputs(kUsage, stdout);
    return 0;
  }
  const Command* command = nullptr;
  for (const Command& c : kCommands)
    if (name == c.name) command = &c;
  if (!command) return Fail("unknown command '" + name + "' (try zeltrim --help)");

  CommandContext context;
  for (int i = 2; i < argc; ++i) {
    if ((!command->kinds || i == 2) && (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0)) {
      std::fputs(*command->help, stdout);
      return 0;
    }
    context.args.push_back(argv[i]);
  }
  char cwd[4096];
  context.startDir = getcwd(cwd, sizeof(cwd)) ? cwd : ".";

  // Peers are found relative to the working folder, so work from the folder that holds
  // _binlinux/ (file arguments are made absolute against startDir first).
  std::string home;
  FindLayout(&home, &context.sampleDir);
  ModuleHost host;
  if (!host.Load(home)) return Fail(host.Error(), 1);
  context.host = &host;
  return command->run(context);
}
