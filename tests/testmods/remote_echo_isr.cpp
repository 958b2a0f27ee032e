// An ISR module for the client tests: answers ExecRemoteFunc with a checksum
// of the body, whose length the caller passes as its caller tag with the top
// bit set (0x80000000 | length, read back through SERV_GetCallContext; any
// other context means an empty body), and writes a mark into its private shared
// memory at Initialize so that clients can see the mapping is the module's.
//
// Answer = (sum of the body's bytes) ^ 0x5A000000; the body's first byte is
// then overwritten (the module may write into the host's copy).
#include <atomic>
#include <cstdint>
#include <cstring>

#include "zor/zor_module.h"

namespace {
std::atomic<ZorServiceProc> g_service{nullptr};
}

// The mark clients look for at offset 0 of the module's shared memory.
constexpr std::uint32_t kEchoMark = 0x4F484345u;  // "ECHO"

ZOR_EXPORT std::uint32_t ISR_GetSet(std::uint32_t code, std::uintptr_t arg) {
    switch (code) {
    case ZOR_FN_SET_SERVICE_PROC:
        g_service = reinterpret_cast<ZorServiceProc>(arg);
        return 0;
    case ZOR_FN_INITIALIZE:
        if (arg) std::memcpy(reinterpret_cast<void*>(arg), &kEchoMark, sizeof kEchoMark);
        return 0;
    case ZOR_FN_EXEC_REMOTE_FUNC: {
        ZorServiceProc service = g_service.load();
        std::uint32_t context =
            service ? static_cast<std::uint32_t>(service(SERV_GetCallContext, 0, 0, 0, 0, 0, 0)) : 0;
        std::uint32_t length = context & 0x80000000u ? context & 0x7FFFFFFFu : 0;
        auto* body = reinterpret_cast<unsigned char*>(arg);
        std::uint32_t sum = 0;
        for (std::uint32_t i = 0; i < length; ++i) sum += body[i];
        if (length) body[0] = 0xEE;
        return sum ^ 0x5A000000u;
    }
    default:
        return 0;
    }
}
