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

// The native entries of the table (os_calls.h), each defined by the file
// that owns its kind of resource.
#define ZOR_OS_CALL(ret, name, params, args, fails) ret name params;
#include "os/os_calls.h"
#undef ZOR_OS_CALL

}  // namespace zor::os::win32
