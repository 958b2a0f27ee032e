// Where a module named by a client is loaded from.
//
// A trusted peer (the host's own user, root, every Windows sender) loads
// what it names: a path as given, a bare name from the module folder when
// one is configured (DLLDIR, else the host's folder) and else by the
// system's search. Any
// other peer (a member of the Linux GROUP) may only name a bare file of the
// module folder, and that file and the folder must be protected (owned by
// root or the host's user, writable by no one else). Anything else is
// refused with
//   "ZOR: module '%s' refused for peer pid %u uid %u: only a protected file of the module folder, by name\n\r"
#pragma once

#include "os/os.h"
#include "os/peer.h"

namespace zor {

class Logger;

// True for a file name without a folder: no '/', '\\' or ':', not "." or "..".
bool BareModuleName(const char16_t* name);

// Loads `name` for `peer` from folder `dir` (ending in a separator; empty:
// the host's folder). Null when refused (logged) or not loadable.
os::Module LoadModuleFor(os::Peer& peer, const char16_t* dir, const char16_t* name, Logger& log);

}  // namespace zor
