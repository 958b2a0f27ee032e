// The C entries handed to modules: the interrupt entry given to the IRQ
// driver and the service entry given to every module. The host defines them
// around its running instance.
#pragma once

#include <cstdint>

extern "C" std::uint32_t OnInterrupt(std::uint32_t sequence);
extern "C" std::int64_t ServiceProc(std::uint32_t code, std::uintptr_t a1, std::uintptr_t a2,
                                    std::uintptr_t a3, std::uintptr_t a4, std::uintptr_t a5,
                                    std::uintptr_t a6);
