#include "support/stopwatch.h"

#include "os/os.h"

namespace zor {

double ClockMs() { return os::now_ms(); }

namespace {
// Milliseconds into the unit; negative for an unknown unit.
double InUnit(double ms, std::uint32_t unit) {
    switch (unit) {
        case kUnitSeconds: return ms / 1000.0;
        case kUnitMicroseconds: return ms * 1000.0;
        case kUnitMilliseconds: return ms;
        default: return -1.0;
    }
}
}  // namespace

// Handle i (1..kCapacity-1) is slot i; slot 0 stands for the free-running
// clock and is never handed out.
std::uint32_t StopWatches::OpenStopWatch() {
    for (std::uint32_t i = 1; i < kCapacity; ++i) {
        bool expected = false;
        if (used_[i].compare_exchange_strong(expected, true, std::memory_order_acq_rel)) {
            start_[i].store(ClockMs(), std::memory_order_release);
            return i;
        }
    }
    return 0;
}

double StopWatches::StopWatch(std::uint32_t handle, std::uint32_t unit) const {
    if (handle >= kCapacity) return 0.0;
    double ms;
    if (handle == 0) {
        ms = ClockMs();
    } else {
        if (!used_[handle].load(std::memory_order_acquire)) return 0.0;
        ms = ClockMs() - start_[handle].load(std::memory_order_acquire);
    }
    double v = InUnit(ms, unit);
    return v < 0.0 ? 0.0 : v;
}

void StopWatches::CloseStopWatch(std::uint32_t handle) {
    if (handle == 0 || handle >= kCapacity) return;
    used_[handle].store(false, std::memory_order_release);
}

}  // namespace zor
