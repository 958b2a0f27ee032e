// The bundled IRQ drivers' IRQ_GetSet: the codes every driver answers the
// same way, each through the driver's own part.
#pragma once

#include <atomic>
#include <cstdint>

#include "zor/zor_module.h"

struct DriverParts {
    std::uint32_t (*start)();        // Initialize
    void (*stop)();                  // Shutdown
    void (*setEntry)(ZorInterruptProc entry);
    std::uint32_t (*thread)();       // GS_GET_THREAD: what the host raises
    std::uint32_t (*query)();        // GS_IRQ_QUERY
    std::uint32_t (*control)(std::uint32_t value);
};

inline std::uint32_t DriverGetSet(const DriverParts& d, std::uint32_t code, std::uintptr_t arg) {
    switch (code) {
    case ZOR_FN_INITIALIZE:
        return d.start();
    case ZOR_FN_SHUTDOWN:
        d.stop();
        return 0;
    case ZOR_GS_SET_INTERRUPT:
        d.setEntry(reinterpret_cast<ZorInterruptProc>(arg));
        return 0;
    case ZOR_GS_GET_THREAD:
        return d.thread();
    case ZOR_GS_IRQ_QUERY:
        return d.query();
    case ZOR_GS_IRQ_CONTROL:
        return d.control(static_cast<std::uint32_t>(arg));
    default:
        return 0;
    }
}

// event.irq's figures on every platform: events delivered, sources lost,
// and the pause switch of GS_IRQ_CONTROL.
struct EventCounters {
    std::atomic<bool> delivering{true};
    std::atomic<std::uint32_t> delivered{0};
    std::atomic<std::uint32_t> failures{0};

    std::uint32_t Query() const {
        const std::uint32_t failed = failures.load(std::memory_order_relaxed) ? ZOR_EVENT_FAILED : 0;
        return (delivered.load(std::memory_order_relaxed) & ~ZOR_EVENT_FAILED) | failed;
    }
    std::uint32_t Control(std::uint32_t value) {
        if (value == ZOR_EVENT_FAILURES) return failures.load(std::memory_order_relaxed);
        if (value != ZOR_EVENT_PAUSE && value != ZOR_EVENT_RESUME) return ZOR_EVENT_REFUSED;
        return delivering.exchange(value == ZOR_EVENT_RESUME, std::memory_order_acq_rel) ? 1u : 0u;
    }
};
