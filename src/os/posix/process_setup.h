// What the Linux host sets up for its own process, apart from the core.
#pragma once

#include <cstddef>

namespace zor::os::posix {

// SCHED_FIFO priorities of a time-critical thread: in the normal class (the
// second priority stage) and in the realtime class (the third).
constexpr int kFifoMiddle = 50;
constexpr int kFifoHigh = 90;

// From now on thread_priority_set changes the threads' scheduling, not just
// the recorded value.
void apply_scheduling(bool on);

// mlockall(MCL_CURRENT | MCL_FUTURE); false with the reason in `why`.
bool lock_memory(char* why, std::size_t cap);

}  // namespace zor::os::posix
