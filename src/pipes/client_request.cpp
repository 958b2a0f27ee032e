// A client's request for a module's ExecRemoteFunc, from a pipe or command 5.
#include <cstring>

#include "dispatch/caller.h"
#include "modules/slot_table.h"
#include "pipes/client_registry.h"

namespace zor {

std::int32_t HandleClientRequest(SlotTable& slots, Caller& caller, void* request) {
    auto* bytes = static_cast<unsigned char*>(request);
    std::uint32_t tag = 0;
    std::uint32_t module = 0;
    std::memcpy(&tag, bytes + offsetof(ZorClientRequest, caller_tag), sizeof tag);
    std::memcpy(&module, bytes + offsetof(ZorClientRequest, module), sizeof module);
    std::uint32_t slot = slots.Check(module);
    if (!slot) return -1;
    auto body = reinterpret_cast<std::uintptr_t>(bytes + sizeof(ZorClientRequest));
    // A module being unregistered under this request is not registered.
    bool gone = false;
    const std::uint32_t r = caller.CallModule(slot, ZOR_FN_EXEC_REMOTE_FUNC, body, 0, tag, &gone);
    return gone ? -1 : static_cast<std::int32_t>(r);
}

}  // namespace zor
