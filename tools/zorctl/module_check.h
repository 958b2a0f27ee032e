// Whether a module number names a registered module. The host answers
// command 14 with 0 for an unknown number and for a module without shared
// memory alike, and command 2 always with 0, so zorctl asks its statistics
// area, whose slot table the dispatch thread refreshes at the next event.
#pragma once

#include <cstdint>

#include "zor/zor_client.h"

namespace zorctl {

enum class ModuleKnown { Yes, No, CannotTell };

// CannotTell when the host has no statistics area or dispatches no events.
ModuleKnown IsModuleRegistered(ZorConnection* c, std::uint32_t module);

}  // namespace zorctl
