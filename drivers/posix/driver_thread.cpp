#include "driver_thread.h"

// A thread handle of the driver's own copy of the OS layer means nothing
// to the host; the kernel's thread id names the thread to everyone.
std::uint32_t DriverThreadName(zor::os::Thread, std::uint32_t threadId) { return threadId; }
