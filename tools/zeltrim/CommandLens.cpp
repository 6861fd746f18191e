// `zeltrim lens KIND ...`: the lens models, one sub-command each. A kind's own file
// defines its Run function and help text; this table only picks it by name.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/zeltrim/Commands.h"

namespace {

struct LensCommand {
  const char* name;
  int (*run)(CommandContext&);
  const char* const* help;
};

const std::vector<LensCommand> kLensCommands = {
    {"radial", &RunLensRadial, &kLensRadialHelp},
    {"fisheye", &RunLensFisheye, &kLensFisheyeHelp},
    {"polynomial", &RunLensPolynomial, &kLensPolynomialHelp},
};

}  // namespace

const char* const kLensHelp =
    "usage: zeltrim lens KIND [arguments]\n"
    "Fits or builds a lens correction and saves it by extension (.xml XML, .t... folder\n"
    "stream). Run 'zeltrim lens KIND --help' for a kind's options.\n"
    "Kinds:\n"
    "  radial      a radial distortion polynomial fitted from points on straight lines\n"
    "  fisheye     a hand-set fisheye-to-perspective mapping and its lookup map\n"
    "  polynomial  a grid of curves fitted from a measured source and target grid\n";

int RunLens(CommandContext& context) {
  if (context.args.empty() || context.args.front() == "--help" || context.args.front() == "-h") {
    if (!context.args.empty()) return std::fputs(kLensHelp, stdout), 0;
    return Fail("lens needs a kind (try zeltrim lens --help)");
  }
  const std::string kind = context.args.front();
  for (const LensCommand& c : kLensCommands) {
    if (kind != c.name) continue;
    context.args.erase(context.args.begin());
    for (const std::string& a : context.args)
      if (a == "--help" || a == "-h") {
        std::fputs(*c.help, stdout);
        return 0;
      }
    return c.run(context);
  }
  return Fail("unknown lens kind '" + kind + "' (try zeltrim lens --help)");
}
