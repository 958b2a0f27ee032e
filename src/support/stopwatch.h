// Stopwatches. Handle 0 is the shared free-running clock; StopWatch(0, 4) is
// the host's time base in milliseconds (sub-millisecond resolution, never
// decreasing, never blocking).
#pragma once

#include <atomic>
#include <cstdint>

namespace zor {

enum StopWatchUnit : std::uint32_t {
    kUnitSeconds = 1,
    kUnitMicroseconds = 3,
    kUnitMilliseconds = 4,
};

class StopWatches {
public:
    static constexpr std::uint32_t kCapacity = 16;
    // A new stopwatch started now; 0 when all are in use.
    std::uint32_t OpenStopWatch();
    // Time of the stopwatch in the unit; handle 0 is the free-running clock.
    // An unknown handle or unit reads as 0.0.
    double StopWatch(std::uint32_t handle, std::uint32_t unit) const;
    void CloseStopWatch(std::uint32_t handle);

private:
    std::atomic<double> start_[kCapacity] = {};
    std::atomic<bool> used_[kCapacity] = {};
};

// The free-running clock in milliseconds (what StopWatch(0, 4) reads).
double ClockMs();

}  // namespace zor
