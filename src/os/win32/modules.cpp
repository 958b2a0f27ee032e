// Loadable modules and page-file-backed mappings.
#include "os/win32/win32_internal.h"

namespace zor::os::win32 {

namespace {
// The loader's reason for the last failure on this thread.
thread_local DWORD t_loadError = 0;
}  // namespace

Module module_load(const char16_t* path) {
    t_loadError = ERROR_INVALID_PARAMETER;
    if (!path) return nullptr;
    HMODULE m = LoadLibraryW(W(path));
    t_loadError = m ? 0 : GetLastError();
    return m;
}


void* module_symbol(Module m, const char* name) {
    if (!m || !name) return nullptr;
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(m), name));
}

bool module_free(Module m) { return m && FreeLibrary(static_cast<HMODULE>(m)); }

Handle mapping_create(std::uint32_t size) {
    return U(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, size, nullptr));
}

void* mapping_map(Handle mapping, std::uint32_t size) {
    return MapViewOfFile(H(mapping), FILE_MAP_ALL_ACCESS, 0, 0, size);
}

bool mapping_unmap(void* view, std::uint32_t) { return view && UnmapViewOfFile(view); }

}  // namespace zor::os::win32

namespace zor::os {

std::uint32_t module_load_error(char* buf, std::uint32_t size) {
    if (!buf || size == 0) return 0;
    buf[0] = 0;
    if (win32::t_loadError == 0) return 0;
    int n = wsprintfA(buf, "error %lu: ", win32::t_loadError);
    if (static_cast<std::uint32_t>(n) + 2 >= size) return 0;
    DWORD got = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, win32::t_loadError,
                               0, buf + n, size - n, nullptr);
    // The system's text ends in a line break; the log line has its own.
    while (got > 0 && (buf[n + got - 1] == '\n' || buf[n + got - 1] == '\r' || buf[n + got - 1] == ' '))
        buf[n + --got] = 0;
    return static_cast<std::uint32_t>(n) + got;
}

}  // namespace zor::os
