// The service entry offered to modules: built-in services 1..14, custom
// services installed by modules, and the count of unknown calls.
//
// Nothing here takes a lock: any thread may call. The two tables are plain
// fixed arrays whose entries are claimed by an atomic exchange, so that two
// threads never fill the same entry.
//
// Choices beyond the numbered contract:
//  - SERV_GetIRQTime answers 0 while no system shared area exists.
//  - SERV_InstallService refuses an owner number of 100 or more (it names
//    a slot) with 0xFFFFFFFF and a log line.
//  - ExecISRFunc refuses (0, logged) when there is no system shared area to
//    queue into, and when the argument bytes cannot be read.
//  - A waiting ExecISRFunc gives up after kExecWaitLimitMs without a run
//    (for example a host whose IRQ driver delivers no events) and returns 0
//    with a log line; its entry may still run later, without a result.
#pragma once

#include <atomic>
#include <cstdint>

#include "zor/zor_module.h"

namespace zor {

struct Host;

class Services {
public:
    static constexpr std::uint32_t kCustom = 200;
    static constexpr std::uint32_t kUnknown = 100;
    static constexpr std::uint32_t kNameUnits = 260;
    // Both two-second waits of a queued ExecISRFunc (room, SyncTDL).
    static constexpr std::uint32_t kQueueWaitMs = 2000;
    // How long a waiting ExecISRFunc waits for the run of its entry.
    static constexpr std::uint32_t kExecWaitLimitMs = 10000;

    explicit Services(Host& host) : h_(host) {}
    Services(const Services&) = delete;
    Services& operator=(const Services&) = delete;

    // `caller` is the return address of the ServiceProc call.
    std::int64_t Call(std::uint32_t code, std::uintptr_t a1, std::uintptr_t a2,
                      std::uintptr_t a3, std::uintptr_t a4, std::uintptr_t a5,
                      std::uintptr_t a6, const void* caller);
    // ExecISRFunc (service 6).
    std::int32_t ExecISRFunc(std::uint32_t module, std::uint32_t code, const void* data,
                             std::uint32_t size, std::uint32_t wait);
    // SERV_InstallService: 0 installed, 0xFFFFFFFF refused.
    std::uint32_t InstallService(std::uint32_t owner, std::uint32_t code, ZorCustomService fn);
    void RemoveCustomServices(std::uint32_t owner);
    void ReportUnknownServiceCalls();

private:
    // An entry is free while fn is 0; kClaimed while its claimant fills it.
    struct CustomService {
        std::atomic<std::uint32_t> owner{0};
        std::atomic<std::uint32_t> code{0};
        std::atomic<std::uintptr_t> fn{0};
    };
    // state: 0 free, 1 being filled, 2 recorded (code, caller, name fixed).
    struct UnknownCall {
        std::atomic<std::uint32_t> state{0};
        std::uint32_t code = 0;
        std::uint32_t caller = 0;
        std::atomic<std::uint32_t> count{0};
        char16_t name[kNameUnits] = {};
    };
    static constexpr std::uintptr_t kClaimed = 1;

    std::int64_t MemoryService(std::uint32_t code, std::uintptr_t a1, std::uintptr_t a2,
                               std::uintptr_t a3);
    std::int64_t SetISRPrio(std::uintptr_t a1, std::uintptr_t a2);
    std::int64_t GetISRName(std::uintptr_t a1);
    std::int64_t CustomOrUnknown(std::uint32_t code, std::uintptr_t a1, std::uintptr_t a2,
                                 std::uintptr_t a3, std::uintptr_t a4, std::uintptr_t a5,
                                 std::uintptr_t a6, const void* caller);
    void CountUnknown(std::uint32_t code, const void* caller);
    std::int32_t ExecDirect(std::uint32_t module, std::uint32_t code, const void* data,
                            std::uint32_t size);
    std::int32_t ExecQueued(std::uint32_t module, std::uint32_t code, const void* data,
                            std::uint32_t size, std::uint32_t wait);

    Host& h_;
    CustomService custom_[kCustom];
    UnknownCall unknown_[kUnknown];
};

}  // namespace zor
