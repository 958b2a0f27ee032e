// A plain module for the OS-layer tests: exports to look up and call, and
// faults that happen inside its own code so that the fault guard has to
// name this file.
#include <cstdint>

#include "zor/zor_module.h"

ZOR_EXPORT std::uint32_t os_probe_add(std::uint32_t a, std::uint32_t b) { return a + b; }

// Writes through the pointer it is given (null to fault here).
ZOR_EXPORT void os_probe_write(volatile std::uint32_t* p) { *p = 0x2A; }

// Calls what it is given; a null function makes the call through null
// whose return address lies in this module.
ZOR_EXPORT void os_probe_call(void (*f)()) {
    f();
    asm volatile("" ::: "memory");  // keep the call from becoming a jump
}
