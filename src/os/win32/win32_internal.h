// Helpers shared by the Windows implementation of the OS layer.
#pragma once

#include <windows.h>

#include <cstdint>

#include "os/os.h"

namespace zor::os::win32 {

// The core's UTF-16 strings are Windows' wide strings.
inline const wchar_t* W(const char16_t* s) { return reinterpret_cast<const wchar_t*>(s); }
inline wchar_t* W(char16_t* s) { return reinterpret_cast<wchar_t*>(s); }
inline HANDLE H(std::uint64_t h) { return reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(h)); }
inline std::uint64_t U(HANDLE h) { return static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(h)); }

// The native entries of the table (one file owns each group).
Module module_load(const char16_t* path);
void* module_symbol(Module m, const char* name);
bool module_free(Module m);
Handle mapping_create(std::uint32_t size);
void* mapping_map(Handle mapping, std::uint32_t size);
bool mapping_unmap(void* view, std::uint32_t size);
Handle process_open(std::uint32_t pid);
bool handle_dup_to(Handle process, Handle h, std::uint64_t* remote);
bool handle_dup_from(Handle process, std::uint64_t remote, Handle* h);
bool handle_close(Handle h);
bool handle_close_in(Handle process, std::uint64_t remote);
bool pipe_read(Handle h, void* buf, std::uint32_t n, std::uint32_t* done);
bool pipe_write(Handle h, const void* buf, std::uint32_t n, std::uint32_t* done);
Thread thread_create(ThreadProc proc, void* arg);
std::uint32_t thread_wait(Thread t, std::uint32_t timeout_ms);
bool thread_cancel_io(Thread t);
bool priority_class_set(std::uint32_t cls);
bool thread_priority_set(Thread t, int priority);
Handle file_open_append(const char16_t* path);
bool file_write(Handle h, const void* buf, std::uint32_t n);
Handle mapping_create_named(const char16_t* name, std::uint32_t size, bool* existed);

}  // namespace zor::os::win32
