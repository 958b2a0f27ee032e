#include "driver_thread.h"

// Handles of a process fit in 32 bits.
std::uint32_t DriverThreadName(zor::os::Thread handle, std::uint32_t) {
    return static_cast<std::uint32_t>(handle);
}
