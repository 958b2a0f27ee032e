// The host's one view of the operating system.
//
// Everything the portable core needs from the platform is declared here and
// implemented twice: src/os/win32 (the product) and src/os/posix (native
// builds for sanitizers and fuzzing). The core never includes a platform
// header.
//
// Calls that can fail and that own a resource go through the table `calls`
// so that tests can make any one of them fail (assign an entry, restore it
// from native_calls()) and check
// the release order of every failure path. Cheap, infallible queries
// (time, ids) are plain functions.
//
// On posix, paths handed in may use '\\' or '/' (the core builds Windows
// paths); paths handed out use '\\' like on Windows. Modules are ELF
// shared objects, including `.irq` drivers. Only the calling process can
// be opened and duplicated into or from (clients are simulated in the same
// process); Fault::code is the signal number.
#pragma once

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
// Thread handle for the calling thread usable with thread_priority_set.
Thread current_thread();

// ---------------------------------------------------------------- fallible calls
// The table of calls that acquire or use resources. Tests replace entries to
// make them fail; the wrappers below are what the core calls.
struct Calls {
    Module (*module_load)(const char16_t* path);
    void* (*module_symbol)(Module m, const char* name);
    bool (*module_free)(Module m);

    // Unnamed page-file-backed mapping of `size` bytes.
    Handle (*mapping_create)(std::uint32_t size);
    void* (*mapping_map)(Handle mapping, std::uint32_t size);
    bool (*mapping_unmap)(void* view, std::uint32_t size);

    Handle (*process_open)(std::uint32_t pid);
    // DuplicateHandle from this process into `process`; *remote gets the
    // value valid there.
    bool (*handle_dup_to)(Handle process, Handle h, std::uint64_t* remote);
    // DuplicateHandle of a value valid in `process` into this process.
    bool (*handle_dup_from)(Handle process, std::uint64_t remote, Handle* h);
    bool (*handle_close)(Handle h);

    // Blocking reads and writes on a pipe end; *done gets the bytes moved.
    bool (*pipe_read)(Handle h, void* buf, std::uint32_t n, std::uint32_t* done);
    bool (*pipe_write)(Handle h, const void* buf, std::uint32_t n,
                       std::uint32_t* done);

    Thread (*thread_create)(ThreadProc proc, void* arg);
    // WAIT_OBJECT_0 (0) when the thread ended, kWaitTimeout otherwise.
    std::uint32_t (*thread_wait)(Thread t, std::uint32_t timeout_ms);
    // Wakes a thread blocked in pipe_read so that the read fails.
    bool (*thread_cancel_io)(Thread t);

    bool (*priority_class_set)(std::uint32_t cls);
    bool (*thread_priority_set)(Thread t, int priority);

    // Opens a file for appending, created when missing, readable by others
    // meanwhile; closed with handle_close.
    Handle (*file_open_append)(const char16_t* path);
    // Writes all n bytes at the end; false on any failure (last_error()).
    bool (*file_write)(Handle h, const void* buf, std::uint32_t n);
    // Closes a handle value valid in `process` (DuplicateHandle with
    // DUPLICATE_CLOSE_SOURCE): takes back what handle_dup_to gave.
    bool (*handle_close_in)(Handle process, std::uint64_t remote);
    // A mapping of `size` bytes under a session-wide name ("Local\\..."),
    // writable through this handle only: other processes may open it for
    // reading. Fails (0, *existed true) when an object of that name already
    // exists: whoever made it could write it.
    Handle (*mapping_create_named)(const char16_t* name, std::uint32_t size, bool* existed);
};
extern Calls calls;

// The platform's own table, for restoring after a test.
const Calls& native_calls();

// An anonymous pipe (CreatePipe), for clients and tests; the core itself
// only uses pipe ends that clients hand over.
bool pipe_create(Handle* read_end, Handle* write_end);

inline Module module_load(const char16_t* p) { return calls.module_load(p); }
inline void* module_symbol(Module m, const char* n) { return calls.module_symbol(m, n); }
inline bool module_free(Module m) { return calls.module_free(m); }
inline Handle mapping_create(std::uint32_t s) { return calls.mapping_create(s); }
inline void* mapping_map(Handle h, std::uint32_t s) { return calls.mapping_map(h, s); }
inline bool mapping_unmap(void* v, std::uint32_t s) { return calls.mapping_unmap(v, s); }
inline Handle process_open(std::uint32_t pid) { return calls.process_open(pid); }
inline bool handle_dup_to(Handle p, Handle h, std::uint64_t* r) { return calls.handle_dup_to(p, h, r); }
inline bool handle_dup_from(Handle p, std::uint64_t r, Handle* h) { return calls.handle_dup_from(p, r, h); }
inline bool handle_close(Handle h) { return calls.handle_close(h); }
inline bool handle_close_in(Handle p, std::uint64_t r) { return calls.handle_close_in(p, r); }
inline bool pipe_read(Handle h, void* b, std::uint32_t n, std::uint32_t* d) { return calls.pipe_read(h, b, n, d); }
inline bool pipe_write(Handle h, const void* b, std::uint32_t n, std::uint32_t* d) { return calls.pipe_write(h, b, n, d); }
inline Thread thread_create(ThreadProc p, void* a) { return calls.thread_create(p, a); }
inline std::uint32_t thread_wait(Thread t, std::uint32_t ms) { return calls.thread_wait(t, ms); }
inline bool thread_close(Thread t) { return calls.handle_close(t); }
inline bool thread_cancel_io(Thread t) { return calls.thread_cancel_io(t); }
inline bool priority_class_set(std::uint32_t c) { return calls.priority_class_set(c); }
inline bool thread_priority_set(Thread t, int p) { return calls.thread_priority_set(t, p); }
inline Handle file_open_append(const char16_t* p) { return calls.file_open_append(p); }
inline bool file_write(Handle h, const void* b, std::uint32_t n) { return calls.file_write(h, b, n); }
inline Handle mapping_create_named(const char16_t* n, std::uint32_t s, bool* e) {
    return calls.mapping_create_named(n, s, e);
}
// Removes the name of a mapping made by mapping_create_named once it is no
// longer to be found (posix: shm_unlink; Windows: the name goes with the
// last handle, nothing to do).
void mapping_remove_name(const char16_t* name);

}  // namespace zor::os
