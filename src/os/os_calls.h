// The OS layer's fallible calls, each listed once:
//
//   ZOR_OS_CALL(return type, name, (parameters), (arguments), failure value)
//
// Every list of them is generated from here: the members of os::Calls, the
// wrappers the core calls (os::name), the declarations of the platform's
// native functions, the native table, and the names tests fail calls by.
// The failure value is what the call returns when it fails.
//
// No include guard: each includer defines ZOR_OS_CALL, includes this file
// and undefines the macro again.

// ------------------------------------------------------------ modules
ZOR_OS_CALL(Module, module_load, (const char16_t* path), (path), nullptr)
ZOR_OS_CALL(void*, module_symbol, (Module m, const char* name), (m, name), nullptr)
ZOR_OS_CALL(bool, module_free, (Module m), (m), false)

// ------------------------------------------------------------ mappings
// Unnamed page-file-backed mapping of `size` bytes.
ZOR_OS_CALL(Handle, mapping_create, (std::uint32_t size), (size), 0)
ZOR_OS_CALL(void*, mapping_map, (Handle mapping, std::uint32_t size), (mapping, size), nullptr)
ZOR_OS_CALL(bool, mapping_unmap, (void* view, std::uint32_t size), (view, size), false)
// A mapping of `size` bytes under a session-wide name ("Local\\..."),
// writable through this handle only: other processes may open it for
// reading. Fails (0, *existed true) when an object of that name already
// exists: whoever made it could write it.
ZOR_OS_CALL(Handle, mapping_create_named, (const char16_t* name, std::uint32_t size, bool* existed),
            (name, size, existed), 0)

// ------------------------------------------------------------ processes and handles
ZOR_OS_CALL(Handle, process_open, (std::uint32_t pid), (pid), 0)
// DuplicateHandle from this process into `process`; *remote gets the
// value valid there.
ZOR_OS_CALL(bool, handle_dup_to, (Handle process, Handle h, std::uint64_t* remote), (process, h, remote), false)
// DuplicateHandle of a value valid in `process` into this process.
ZOR_OS_CALL(bool, handle_dup_from, (Handle process, std::uint64_t remote, Handle* h), (process, remote, h), false)
ZOR_OS_CALL(bool, handle_close, (Handle h), (h), false)
// Closes a handle value valid in `process` (DuplicateHandle with
// DUPLICATE_CLOSE_SOURCE): takes back what handle_dup_to gave.
ZOR_OS_CALL(bool, handle_close_in, (Handle process, std::uint64_t remote), (process, remote), false)

// ------------------------------------------------------------ pipes
// Blocking reads and writes on a pipe end; *done gets the bytes moved.
ZOR_OS_CALL(bool, pipe_read, (Handle h, void* buf, std::uint32_t n, std::uint32_t* done), (h, buf, n, done), false)
ZOR_OS_CALL(bool, pipe_write, (Handle h, const void* buf, std::uint32_t n, std::uint32_t* done),
            (h, buf, n, done), false)

// ------------------------------------------------------------ threads
ZOR_OS_CALL(Thread, thread_create, (ThreadProc proc, void* arg), (proc, arg), 0)
// WAIT_OBJECT_0 (0) when the thread ended, kWaitTimeout otherwise.
ZOR_OS_CALL(std::uint32_t, thread_wait, (Thread t, std::uint32_t timeout_ms), (t, timeout_ms), kWaitTimeout)
// Wakes a thread blocked in pipe_read so that the read fails.
ZOR_OS_CALL(bool, thread_cancel_io, (Thread t), (t), false)
ZOR_OS_CALL(bool, priority_class_set, (std::uint32_t cls), (cls), false)
ZOR_OS_CALL(bool, thread_priority_set, (Thread t, int priority), (t, priority), false)

// ------------------------------------------------------------ files
// Opens a file for appending, created when missing, readable by others
// meanwhile; closed with handle_close.
ZOR_OS_CALL(Handle, file_open_append, (const char16_t* path), (path), 0)
// Writes all n bytes at the end; false on any failure (last_error()).
ZOR_OS_CALL(bool, file_write, (Handle h, const void* buf, std::uint32_t n), (h, buf, n), false)
