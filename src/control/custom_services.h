// Services installed by modules (SERV_InstallService) and the record of
// calls to codes that nobody installed.
//
// Nothing here takes a lock: any thread may call. The two tables are plain
// fixed arrays whose entries are claimed by an atomic exchange, so that two
// threads never fill the same entry.
#pragma once

#include <atomic>
#include <cstdint>

#include "zor/zor_module.h"

namespace zor {

class Logger;
class SlotTable;

class CustomServices {
public:
    static constexpr std::uint32_t kCustom = 200;
    static constexpr std::uint32_t kUnknown = 100;
    static constexpr std::uint32_t kNameUnits = 260;

    CustomServices(Logger& log, SlotTable& slots) : log_(log), slots_(slots) {}
    CustomServices(const CustomServices&) = delete;
    CustomServices& operator=(const CustomServices&) = delete;

    // SERV_InstallService: 0 installed, 0xFFFFFFFF refused.
    std::uint32_t InstallService(std::uint32_t owner, std::uint32_t code, ZorCustomService fn);
    void RemoveCustomServices(std::uint32_t owner);
    // A code beyond the built-in services: the installed function's result,
    // or 0 and the call counted as unknown. `caller` is the return address
    // of the ServiceProc call.
    std::int64_t Call(std::uint32_t code, std::uintptr_t a1, std::uintptr_t a2, std::uintptr_t a3,
                      std::uintptr_t a4, std::uintptr_t a5, std::uintptr_t a6, const void* caller);
    void ReportUnknownServiceCalls();

private:
    // An entry is free while its word is 0; kClaimed while its claimant
    // fills it. The word holds the function and, in its top byte, the owner,
    // so that a reader never pairs one module's function with another's slot.
    struct CustomService {
        std::atomic<std::uint32_t> code{0};
        std::atomic<std::uint64_t> word{0};
    };
    // state: 0 free, 1 being filled, 2 recorded (code, caller, name fixed).
    struct UnknownCall {
        std::atomic<std::uint32_t> state{0};
        std::uint32_t code = 0;
        std::uint32_t caller = 0;
        std::atomic<std::uint32_t> count{0};
        char16_t name[kNameUnits] = {};
    };
    static constexpr std::uint64_t kClaimed = 1;
    static constexpr unsigned kOwnerShift = 56;
    static std::uint32_t OwnerOf(std::uint64_t word) { return static_cast<std::uint32_t>(word >> kOwnerShift); }
    static ZorCustomService FunctionOf(std::uint64_t word) {
        return reinterpret_cast<ZorCustomService>(
            static_cast<std::uintptr_t>(word & ((std::uint64_t{1} << kOwnerShift) - 1)));
    }

    void CountUnknown(std::uint32_t code, const void* caller);

    Logger& log_;
    SlotTable& slots_;
    CustomService custom_[kCustom];
    UnknownCall unknown_[kUnknown];
};

}  // namespace zor
