// The host's one view of the operating system.
//
// Everything the portable core needs from the platform is declared here and
// implemented twice: src/os/win32 (the product) and src/os/posix (native
// builds for sanitizers and fuzzing). The core never includes a platform
// header.
//
// Calls that can fail and that own a resource go through the table `calls`
// (listed once, in os_calls.h) so that tests can make any one of them fail
// (assign an entry or fail_call() it by name, restore it from
// native_calls()) and check the release order of every failure path.
// Cheap, infallible queries (time, ids) are plain functions.
//
// On posix, paths handed in may use '\\' or '/' (the core builds Windows
// paths); paths handed out use '\\' like on Windows. Modules are ELF
// shared objects, including `.irq` drivers. Only the calling process can
// be opened and duplicated into or from (clients are simulated in the same
// process); Fault::code is the signal number.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace zor::os {

// Opaque handle values. 0 is "none" everywhere. On Windows a Handle is the
// HANDLE value; on posix a file descriptor + 1 (so that fd 0 is not "none").
using Handle = std::uint64_t;
using Module = void*;
using Thread = std::uint64_t;  // a Handle to a thread

// ---------------------------------------------------------------- time
// Monotonic milliseconds from a fixed origin, sub-millisecond resolution,
// never decreasing, never blocking. Safe on the per-event path.
double now_ms();
// 32-bit millisecond tick that wraps (GetTickCount semantics).
std::uint32_t tick_ms();
void sleep_ms(std::uint32_t ms);
// Sleeps while *word == expected, at most timeout_ms, across processes when
// the word lies in shared memory (a futex on Linux): returns at a wake, a
// change, or the timeout. Only where word_wait_works(): Windows has no
// cross-process wait, and callers sleep on their own there.
bool word_wait_works();
void word_wait(const std::uint32_t* word, std::uint32_t expected, std::uint32_t timeout_ms);
// Wakes every word_wait on this word, in any process.
void word_wake_all(const std::uint32_t* word);
// One turn of a short busy wait. Not a yield: on a loaded machine a yield
// hands the processor to a busy thread for its whole time slice.
inline void spin_pause() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}
// Which clock now_ms() uses ("tsc", "qpc", "clock_gettime"), for the log.
const char* clock_name();
// The system's wall clock: milliseconds since 1970-01-01 UTC. It may jump
// (clock set, time sync); log stamps re-anchor to it, never order by it.
std::int64_t wall_ms();
struct LocalTime {
    int year, month, day, hour, minute, second;
};
// The local time (time zone and daylight saving of that moment) of a
// wall-clock second; false when it cannot be converted.
bool local_time(std::int64_t unix_seconds, LocalTime* out);

// ---------------------------------------------------------------- identity
std::uint32_t current_thread_id();
std::uint32_t current_process_id();
// Ends this process at once with `code`: no exit handlers, no library
// clean-up (_exit / TerminateProcess), so that a thread stuck anywhere
// cannot hold it.
[[noreturn]] void process_end_now(std::uint32_t code);
// True while a process with this id exists (GetProcessVersion != 0).
bool process_alive(std::uint32_t pid);
std::uint32_t processor_count();
// What the process holds, for soak figures: resident bytes and open handles
// (descriptors on posix); 0 when unknown.
std::uint64_t resident_bytes();
std::uint32_t open_handle_count();
// Last error of the calling thread (GetLastError / errno).
std::uint32_t last_error();
// The system's text for an error code of last_error(), UTF-8, without a
// line end or final period; always terminated.
void error_text(std::uint32_t code, char* buf, std::size_t size);

// ---------------------------------------------------------------- files
// GetPrivateProfileStringW: copies the value (or `def`) into out, cut to
// outSize-1 units and always terminated. Returns the units copied.
std::uint32_t ini_read_string(const char16_t* section, const char16_t* key,
                              const char16_t* def, char16_t* out,
                              std::uint32_t outSize, const char16_t* file);
// GetPrivateProfileIntW: the key's leading number (decimal, or after a
// 0x/0o/0b prefix), 0 when the value is no number, `def` when the key is
// absent or empty.
std::uint32_t ini_read_int(const char16_t* section, const char16_t* key,
                           std::int32_t def, const char16_t* file);
// Directory of the running executable, without a trailing separator.
bool startup_dir(char16_t* buf, std::uint32_t size);
// Folder of the per-installation ZOR.INI, no trailing separator: the
// executable's folder; on Linux /etc/zor for an executable in /usr/bin (the
// packaged host keeps its configuration where the system's is).
bool config_dir(char16_t* buf, std::uint32_t size);
// The per-user application-data folder (%APPDATA% when set), no trailing
// separator.
bool user_appdata_dir(char16_t* buf, std::uint32_t size);
// The per-user folder for logs: the application-data folder on Windows;
// $XDG_STATE_HOME (else ~/.local/state) on Linux, $APPDATA first as above.
bool user_state_dir(char16_t* buf, std::uint32_t size);
// Calls visit(ctx, name) for each file matching `pattern` ("dir\*.irq"),
// name without directory, in the platform's order.
using FileVisitor = void (*)(void* ctx, const char16_t* name);
void enumerate_files(const char16_t* pattern, FileVisitor visit, void* ctx);
// True when the file `path` and its folder are owned by root or this
// process's effective user and writable by no one else, and neither is a
// symbolic link: what a module named by another user may be loaded from.
// Windows has no such peers (false: nothing is vouched for).
bool file_protected(const char16_t* path);
// True when `path` is a regular file (not a link) that this process's
// effective user owns: what the log's rotation may delete. Windows: any
// regular file (the log folder is the user's own).
bool file_is_own(const char16_t* path);
// OutputDebugStringW on Windows; nothing on posix.
void debug_output(const char16_t* text);
// Environment variable into buf (UTF-16); false when unset.
bool env_get(const char* name, char16_t* buf, std::uint32_t size);
// Sets an environment variable of this process; a null value removes it.
bool env_set(const char* name, const char16_t* value);

// ---------------------------------------------------------------- memory
struct Region {
    std::uint64_t base;        // region start
    std::uint64_t alloc_base;  // allocation base (the module handle for images)
    std::uint64_t size;        // region size in bytes
    std::uint32_t protect;     // PAGE_* bits as on Windows
    std::uint32_t type;        // MEM_IMAGE etc. as on Windows
};
constexpr std::uint32_t kPageNoAccess = 0x01;
constexpr std::uint32_t kPageGuard = 0x100;
constexpr std::uint32_t kMemImage = 0x1000000;

// VirtualQuery. A hole between allocations inside the application range
// is a free region (protect kPageNoAccess, type 0, alloc_base 0) so that a
// walk can step over it; false for addresses outside the range.
bool region_query(const void* addr, Region* out);
// The lowest and highest application addresses (GetSystemInfo).
void app_address_range(std::uint64_t* lo, std::uint64_t* hi);
// Full path of the module whose image starts at `alloc_base`
// (GetModuleFileNameW). Returns the units written, 0 on failure.
std::uint32_t module_file_name(std::uint64_t alloc_base, char16_t* buf,
                               std::uint32_t size);
// Full path of the loaded module holding `addr` (what a fault report names);
// 0 when no module holds it. Cheaper than region_query + module_file_name
// where the platform's loader can answer by itself.
std::uint32_t module_name_of(const void* addr, char16_t* buf, std::uint32_t size);
// Why the last module_load on this thread failed, in the loader's words
// (dlerror; the Windows error and its text), as UTF-8. 0 when it succeeded.
std::uint32_t module_load_error(char* buf, std::uint32_t size);

// ---------------------------------------------------------------- fault guard
// Runs body(ctx) so that a machine fault raised inside it (access
// violation, illegal instruction, divide by zero, stack overflow, a call
// through null) is caught and the calling thread goes on. Faults that the
// module handles with its own structured handlers stay the module's.
struct Fault {
    std::uint32_t code;       // EXCEPTION_* code, or the signal number on posix
    const void* address;      // where it happened; for a call through null,
                              // the return address into the caller
};
// True when body returned normally; false with *fault filled when a fault
// was caught. Re-entrant and nestable; allocates nothing.
bool guarded_run(void (*body)(void*), void* ctx, Fault* fault);
// Calls visit(ctx, arg) for each guarded_run of the calling thread that is
// still running `body`, innermost first: what this thread is itself inside.
void guarded_visit(void (*body)(void*), void (*visit)(void* ctx, void* arg), void* arg);

// ---------------------------------------------------------------- aborting a guarded call
// Fault::code of a guarded call that another thread aborted (guard_abort).
constexpr std::uint32_t kFaultAborted = 0xE0A50001u;
enum class AbortResult {
    kSent,      // on its way: the thread leaves its innermost guard when it next runs
    kDeferred,  // the thread runs the host's own code now: ask again shortly
    kGone,      // *running no longer holds `expected`: the call has ended
    kFailed,    // the thread could not be reached
};
// Called from another thread: makes the innermost guarded_run of thread
// `thread_id` (a current_thread_id() value) return false with Fault::code
// kFaultAborted, the way a fault there would, provided *running still holds
// `expected` while that thread is stopped. Never taken while the thread runs
// code of the host's own image (a service it called, the guard itself).
// Windows: the suspended thread is redirected to raise a fault on top of the
// module's frames, so frame dispatch unwinds them (their __finally blocks
// run). Posix: a signal to the thread leaves through the guard's recovery
// point; a thread in an uninterruptible wait takes it only when the wait ends.
AbortResult guard_abort(std::uint32_t thread_id, const std::atomic<std::uint64_t>* running,
                        std::uint64_t expected);

// ---------------------------------------------------------------- crash hook
// hook(ctx) runs once, on the faulting thread, when a fault that no guard
// takes is about to end the process (the unhandled-exception filter on
// Windows, the fatal-signal handler on posix); the process then ends as it
// would have. Other threads still run meanwhile. A null hook removes it.
void set_crash_hook(void (*hook)(void* ctx), void* ctx);

// ---------------------------------------------------------------- threads
// Thread procedure: returns the exit code.
using ThreadProc = std::uint32_t (*)(void* arg);
constexpr std::uint32_t kWaitTimeout = 0x102;
// Priority classes and thread priorities as on Windows.
constexpr std::uint32_t kNormalPriorityClass = 0x20;
constexpr std::uint32_t kRealtimePriorityClass = 0x100;
constexpr int kThreadPriorityNormal = 0;
constexpr int kThreadPriorityAboveNormal = 1;
constexpr int kThreadPriorityTimeCritical = 15;

std::uint32_t priority_class_get();
// Gives the calling thread the highest priority the host can get, above a
// time-critical thread of either priority stage (Windows: time critical,
// which in the realtime class equals the dispatch thread's and shares the
// processor with it by turns; Linux, when priorities are applied: SCHED_FIFO
// above the realtime class's stage). False when it was refused.
bool thread_priority_top_self();
// Thread handle for the calling thread usable with thread_priority_set.
Thread current_thread();

// ---------------------------------------------------------------- fallible calls
// The table of calls that acquire or use resources (listed in os_calls.h).
// Tests replace entries to make them fail; the wrappers below are what the
// core calls.
struct Calls {
#define ZOR_OS_CALL(ret, name, params, args, fails) ret(*name) params;
#include "os/os_calls.h"
#undef ZOR_OS_CALL
};
extern Calls calls;

// The platform's own table, for restoring after a test.
const Calls& native_calls();

// The table's calls by name (their member names), in table order, so that
// a test can name the call to fail.
inline constexpr const char* call_names[] = {
#define ZOR_OS_CALL(ret, name, params, args, fails) #name,
#include "os/os_calls.h"
#undef ZOR_OS_CALL
};
// From now on the named entry of `calls` fails at once, returning its
// failure value (os_calls.h); false when no call has that name. Restore
// from native_calls().
bool fail_call(const char* name);

// An anonymous pipe (CreatePipe), for clients and tests; the core itself
// only uses pipe ends that clients hand over.
bool pipe_create(Handle* read_end, Handle* write_end);

#define ZOR_OS_CALL(ret, name, params, args, fails) \
    inline ret name params { return calls.name args; }
#include "os/os_calls.h"
#undef ZOR_OS_CALL
inline bool thread_close(Thread t) { return calls.handle_close(t); }

// Removes the name of a mapping made by mapping_create_named once it is no
// longer to be found (posix: shm_unlink; Windows: the name goes with the
// last handle, nothing to do).
void mapping_remove_name(const char16_t* name);
// True when a mapping of that name exists and belongs to this process's
// user. Names carry this process's id, so on Linux such an object was left
// by an earlier process of the same id and user that was killed; on Windows
// names go with their last handle: never.
bool mapping_name_left_by_us(const char16_t* name);
// Where users find the mapping: the name itself on Windows, the file under
// /dev/shm on Linux.
void mapping_display_name(const char16_t* name, char16_t* out, std::uint32_t size);

}  // namespace zor::os
