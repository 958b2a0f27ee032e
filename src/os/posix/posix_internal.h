// Helpers shared by the posix implementation of the OS layer.
//
// The portable core writes Windows-style paths ("dir\ZOR.INI"); every
// function here that takes a path turns '\\' into '/' before it reaches
// the system. Strings cross the boundary as UTF-8.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "os/os.h"

namespace zor::os::posix {

// UTF-16 (with surrogates) to UTF-8, '\\' turned into '/' when `path`.
// False when the result does not fit `cap` bytes including the terminator.
bool to_utf8(const char16_t* s, char* out, std::size_t cap, bool path);
// UTF-8 to UTF-16; false (out empty) when it does not fit `cap` units.
bool to_utf16(const char* s, std::size_t n, char16_t* out, std::size_t cap);
inline bool to_utf16(const char* s, char16_t* out, std::size_t cap) {
    std::size_t n = 0;
    while (s[n]) ++n;
    return to_utf16(s, n, out, cap);
}

// UTF-8 path to UTF-16 with '\\' separators: paths handed to the core look
// as they do on Windows.
bool to_utf16_path(const char* s, char16_t* out, std::size_t cap);

// Path of the running executable (UTF-8); false when unknown.
bool exe_path(char* out, std::size_t cap);
// The packaged host runs from /usr/bin: its configuration is in /etc/zor,
// its modules in /usr/lib/zor, rather than beside it.
bool runs_from_usr_bin();

// Handle tagging. File descriptors are fd + 1 (small values); thread
// records carry the top bit, process handles the next one.
constexpr std::uint64_t kThreadTag = 1ull << 63;
constexpr std::uint64_t kProcessTag = 1ull << 62;
// GetCurrentThread's pseudo handle: (HANDLE)-2.
constexpr Thread kCurrentThread = ~std::uint64_t{1};

inline bool is_fd_handle(Handle h) { return h != 0 && h <= 0x7fffffffull; }
inline int fd_of(Handle h) { return static_cast<int>(h - 1); }

// Threads (threads.cpp): releases a thread handle.
bool thread_handle_close(Thread t);

// The cancel word of a thread started by thread_create: pipe_read marks
// it while it waits, thread_cancel_io turns "waiting" into "cancelled" and
// wakes the thread with cancel_signal(), whose handler does nothing and is
// installed without SA_RESTART so that the wait ends with EINTR.
struct IoCancel {
    static constexpr int kIdle = 0, kWaiting = 1, kCancelled = 2;
    std::atomic<int> state{kIdle};
};
// Null on threads not started by thread_create (their reads cannot be
// cancelled).
IoCancel* current_io_cancel();
int cancel_signal();

// The native entries of the table (os_calls.h), each defined by the file
// that owns its kind of resource.
#define ZOR_OS_CALL(ret, name, params, args, fails) ret name params;
#include "os/os_calls.h"
#undef ZOR_OS_CALL

}  // namespace zor::os::posix
