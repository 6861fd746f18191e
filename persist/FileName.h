// File names that survive a move of the installation. Names under the install path are
// stored as "[InstallPath]..." and names under a configured folder as "[mapping]...", both
// read from the host's "Registry" (section "Workspace" key "InstallPath"; section
// "Mappings" of named folders). Names near another one can be stored in a relative form
// that climbs with "..\" (a backslash, whatever the platform; the absolute form counts
// exactly that). Comparisons ignore case. Every string handed out carries one reference.
#pragma once

#include "frame/HostInterfaces.h"

// *path always receives a new string (empty without a registry). The result is the
// registry's, or E_FAIL when there is none.
HRESULT FILENAMEGetInstallPath(IString** path);

// S_OK with the mapped name; E_FAIL when nothing matches (then *mapped is untouched);
// E_NOREGISTRY without a registry. `plain` gives the install-path form as a bare relative
// name. No folder boundary is checked: "/opt/xy" maps under "/opt/x" as "[InstallPath]y".
HRESULT FILENAMEMap(IString* file, IString** mapped, short plain);

// "[key]rest" back to a full name; every '\' of the result becomes '/'.
HRESULT FILENAMEUnmap(IString* mapped, IString** file);

// "..\" per level to climb from `base` (a folder), then the rest of `file`. S_FALSE with
// `file` itself when the two share fewer than two folder levels.
HRESULT FILENAMECreateRelative(IString* base, IString* file, IString** relative);

// Undoes FILENAMECreateRelative. Repairs separators ('\' to '/') in `relative`'s own text.
HRESULT FILENAMECreateAbsolute(IString* base, IString* relative, IString** absolute);
