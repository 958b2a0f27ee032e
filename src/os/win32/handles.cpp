// Processes, handle duplication and pipes.
#include "os/win32/win32_internal.h"

namespace zor::os {

namespace win32 {

Handle process_open(std::uint32_t pid) { return U(OpenProcess(PROCESS_ALL_ACCESS, FALSE, pid)); }

bool handle_dup_to(Handle process, Handle h, std::uint64_t* remote) {
    HANDLE out = nullptr;
    if (!DuplicateHandle(GetCurrentProcess(), H(h), H(process), &out, 0, FALSE, DUPLICATE_SAME_ACCESS))
        return false;
    *remote = U(out);
    return true;
}

bool handle_dup_from(Handle process, std::uint64_t remote, Handle* h) {
    HANDLE out = nullptr;
    if (!DuplicateHandle(H(process), H(remote), GetCurrentProcess(), &out, 0, FALSE,
                         DUPLICATE_SAME_ACCESS))
        return false;
    *h = U(out);
    return true;
}

bool handle_close(Handle h) { return h && CloseHandle(H(h)); }

// The source is closed by taking it over here (a null target is not
// accepted everywhere); the copy is then closed too.
bool handle_close_in(Handle process, std::uint64_t remote) {
    HANDLE here = nullptr;
    if (!DuplicateHandle(H(process), H(remote), GetCurrentProcess(), &here, 0, FALSE,
                         DUPLICATE_CLOSE_SOURCE | DUPLICATE_SAME_ACCESS))
        return false;
    return CloseHandle(here) != 0;
}

bool pipe_read(Handle h, void* buf, std::uint32_t n, std::uint32_t* done) {
    DWORD got = 0;
    BOOL ok = ReadFile(H(h), buf, n, &got, nullptr);
    if (done) *done = got;
    return ok != 0;
}

bool pipe_write(Handle h, const void* buf, std::uint32_t n, std::uint32_t* done) {
    DWORD put = 0;
    BOOL ok = WriteFile(H(h), buf, n, &put, nullptr);
    if (done) *done = put;
    return ok != 0;
}

}  // namespace win32

bool pipe_create(Handle* read_end, Handle* write_end) {
    HANDLE r = nullptr, w = nullptr;
    if (!CreatePipe(&r, &w, nullptr, 0)) return false;
    *read_end = win32::U(r);
    *write_end = win32::U(w);
    return true;
}

}  // namespace zor::os
