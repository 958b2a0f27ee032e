// The service entry offered to modules: built-in services 1..14, custom
// services installed by modules, and the count of unknown calls.
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

    explicit Services(Host& host) : h_(host) {}

    // `caller` is the return address of the ServiceProc call.
    std::int64_t Call(std::uint32_t code, std::uintptr_t a1, std::uintptr_t a2,
                      std::uintptr_t a3, std::uintptr_t a4, std::uintptr_t a5,
                      std::uintptr_t a6, const void* caller);
    // ExecISRFunc (service 6).
    std::int32_t ExecISRFunc(std::uint32_t module, std::uint32_t code, const void* data,
                             std::uint32_t size, std::uint32_t wait);
    void RemoveCustomServices(std::uint32_t owner);
    void ReportUnknownServiceCalls();

private:
    Host& h_;
};

}  // namespace zor
