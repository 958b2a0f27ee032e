// Named mappings that other processes may read but not write, and the wall
// clock.
#include "os/win32/win32_internal.h"

#include <sddl.h>

namespace zor::os {

namespace win32 {

// Everyone may map it for reading; "Owner Rights" takes away the owner's
// implicit right to rewrite the access list. The creating handle keeps full
// access: the host is the one writer.
Handle mapping_create_named(const char16_t* name, std::uint32_t size, bool* existed) {
    *existed = false;
    PSECURITY_DESCRIPTOR sd = nullptr;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:P(A;;GR;;;WD)(A;;GR;;;OW)",
                                                              SDDL_REVISION_1, &sd, nullptr) &&
        !ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:P(A;;GR;;;WD)", SDDL_REVISION_1,
                                                              &sd, nullptr)) {
        return 0;
    }
    SECURITY_ATTRIBUTES sa{sizeof sa, sd, FALSE};
    HANDLE h = CreateFileMappingW(INVALID_HANDLE_VALUE, &sa, PAGE_READWRITE, 0, size, W(name));
    const DWORD err = GetLastError();
    LocalFree(sd);
    if (h != nullptr && err == ERROR_ALREADY_EXISTS) {
        CloseHandle(h);
        *existed = true;
        SetLastError(err);
        return 0;
    }
    // A name taken by an object of another type, or not ours to open.
    if (h == nullptr && (err == ERROR_INVALID_HANDLE || err == ERROR_ACCESS_DENIED)) *existed = true;
    return U(h);
}

}  // namespace win32

void mapping_remove_name(const char16_t*) {}

bool mapping_name_left_by_us(const char16_t*) { return false; }

void mapping_display_name(const char16_t* name, char16_t* out, std::uint32_t size) {
    if (size == 0) return;
    std::uint32_t i = 0;
    for (; name[i] && i + 1 < size; ++i) out[i] = name[i];
    out[i] = 0;
}


}  // namespace zor::os
