// Bounds the host's exit. Tearing down waits for the modules and the IRQ
// driver; a module call that never returns holds the driver's thread, and
// the driver's Shutdown waits for that thread for ever. After kBoundMs the
// deadline names the call still running, flushes the log and ends the
// process without the rest of the clean-up.
#pragma once

#include <atomic>
#include <cstdint>

#include "os/os.h"

namespace zor {

struct Host;

class ExitDeadline {
public:
    static constexpr std::uint32_t kBoundMs = 8000;

    ExitDeadline(Host& host, std::uint32_t boundMs = kBoundMs);
    // The exit finished in time.
    ~ExitDeadline();
    ExitDeadline(const ExitDeadline&) = delete;
    ExitDeadline& operator=(const ExitDeadline&) = delete;

private:
    static std::uint32_t Watch(void* self);
    [[noreturn]] void Expire();

    Host& host_;
    const std::uint32_t boundMs_;
    std::atomic<bool> done_{false};
    os::Thread thread_ = 0;
};

}  // namespace zor
