// The flight recorder's header as a reader may trust it: read once, checked
// against the bytes really mapped, never read again for the same copy.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zor/zor_trace.h"

namespace zor::client {

struct TraceBounds {
    std::uint32_t capacity = 0, dataBytes = 0, indexOffset = 0, dataOffset = 0;
};

// ZOR_OK with *out filled when the magic and layout are this header's and
// the index and the ring lie within both `size` and `mapped` bytes;
// ZOR_E_LAYOUT otherwise.
int TraceLayout(const ZorTrace* t, std::size_t mapped, TraceBounds* out);

}  // namespace zor::client
