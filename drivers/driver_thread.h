// What a driver answers to GS_GET_THREAD for its event thread: the value
// the host raises the thread's priority with on this system (the thread's
// handle on Windows, its kernel thread id on Linux).
#pragma once

#include <cstdint>

#include "os/os.h"

std::uint32_t DriverThreadName(zor::os::Thread handle, std::uint32_t threadId);
