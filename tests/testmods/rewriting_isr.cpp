// An ISR module that, during its ExecISRFunc call, rewrites its own queued
// entry (header and packet words) with hostile values: the host must never
// read a size or index again after the call.
#include <cstdint>
#include <cstring>

#include "zor/zor_module.h"

ZOR_EXPORT uint32_t ISR_GetSet(uint32_t code, uintptr_t arg) {
    if (code != ZOR_FN_EXEC_ISR_FUNC || arg == 0) return 0;
    const uint32_t hostile[6] = {0xFFFFFFFFu, 0xFFFFFFF0u, 0x7FFFFFFFu, 0xFFFFFFFFu, 0x12345678u,
                                 0xFFFFFFF8u};
    // The entry's 16 header bytes lie just before the packet.
    std::memcpy(reinterpret_cast<unsigned char*>(arg) - 16, hostile, sizeof hostile);
    return 7;
}
