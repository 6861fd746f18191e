#include <cstdio>

#include "frame/ModuleObjects.h"
#include "tools/zeltrim/Commands.h"

const char* const kObjectsHelp =
    "usage: zeltrim objects\n"
    "Lists the objects Zeltrim.so can create by name, and whether this build provides each.\n";

int RunObjects(CommandContext& context) {
  if (!context.args.empty()) return Fail("objects takes no arguments");
  int provided = 0;
  // The names come from the module's table; whether each is provided, from the module
  // loaded at run time.
  for (const ModuleObjectRow& row : kModuleObjects) {
    const bool here = context.host->Provides(row.name);
    provided += here ? 1 : 0;
    std::printf("%-28ls %s\n", row.name, here ? "provided" : "not in this build");
  }
  std::printf("%d of %d objects provided\n", provided, kModuleObjectCount);
  return 0;
}
