// Loadable modules and page-file-backed mappings.
#include "os/win32/win32_internal.h"

namespace zor::os::win32 {

Module module_load(const char16_t* path) { return path ? LoadLibraryW(W(path)) : nullptr; }

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
