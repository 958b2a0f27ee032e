// Host-wide configuration read at start-up, and the client process ids
// recorded by command 3 (for Cancel and the automatic shut-down).
#pragma once

#include <atomic>
#include <cstdint>

namespace zor {

struct Host;

struct Config {
    char16_t szExe[260] = {};
    char16_t szIni[260] = {};
    char16_t szIniW[260] = {};
    char16_t lastIrqName[260] = {};
    char16_t fallbackIrqName[260] = {};
    std::atomic<std::uint64_t> clientPids[10] = {};
    std::atomic<std::uint32_t> clientCount{0};
};

}  // namespace zor
