// What the log needs besides the rest of the layer: append-only files, the
// wall clock with its local time, the text of an error code, and the hook
// that runs when a fault nothing handles ends the process.
#include "os/win32/win32_internal.h"

#include <atomic>

namespace zor::os {

using win32::H;
using win32::U;
using win32::W;

namespace win32 {

// Shared for reading, writing and deleting: a user may read or move the log
// while the host runs.
Handle file_open_append(const char16_t* path) {
    HANDLE h = CreateFileW(W(path), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                           nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    return h == INVALID_HANDLE_VALUE ? 0 : U(h);
}

bool file_write(Handle h, const void* buf, std::uint32_t n) {
    const char* p = static_cast<const char*>(buf);
    while (n) {
        DWORD done = 0;
        if (!WriteFile(H(h), p, n, &done, nullptr) || done == 0) return false;
        p += done;
        n -= done;
    }
    return true;
}

}  // namespace win32

namespace {
constexpr std::int64_t kUnixEpochIn100ns = 116444736000000000LL;
}  // namespace

std::int64_t wall_ms() {
    FILETIME ft;
    GetSystemTimePreciseAsFileTime(&ft);
    std::int64_t t = (static_cast<std::int64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
    return (t - kUnixEpochIn100ns) / 10000;
}

bool local_time(std::int64_t unix_seconds, LocalTime* out) {
    std::int64_t t = unix_seconds * 10000000 + kUnixEpochIn100ns;
    FILETIME ft{static_cast<DWORD>(t), static_cast<DWORD>(t >> 32)};
    SYSTEMTIME utc, lt;
    if (!FileTimeToSystemTime(&ft, &utc) || !SystemTimeToTzSpecificLocalTime(nullptr, &utc, &lt)) return false;
    *out = {lt.wYear, lt.wMonth, lt.wDay, lt.wHour, lt.wMinute, lt.wSecond};
    return true;
}

void error_text(std::uint32_t code, char* buf, std::size_t size) {
    if (!size) return;
    wchar_t w[256];
    DWORD n = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0, w,
                             256, nullptr);
    while (n && (w[n - 1] == L'\r' || w[n - 1] == L'\n' || w[n - 1] == L' ' || w[n - 1] == L'.')) --n;
    int k = n ? WideCharToMultiByte(CP_UTF8, 0, w, static_cast<int>(n), buf, static_cast<int>(size - 1),
                                    nullptr, nullptr)
              : 0;
    if (k <= 0) k = wsprintfA(buf, size >= 24 ? "error %lu" : "", static_cast<unsigned long>(code));
    buf[k] = 0;
}

namespace {
std::atomic<void (*)(void*)> g_crash_hook{nullptr};
std::atomic<void*> g_crash_ctx{nullptr};
std::atomic<bool> g_crashed{false};
LPTOP_LEVEL_EXCEPTION_FILTER g_previous_filter = nullptr;
bool g_filter_set = false;

LONG WINAPI crash_filter(EXCEPTION_POINTERS* ep) {
    if (auto hook = g_crash_hook.load(std::memory_order_acquire); hook && !g_crashed.exchange(true))
        hook(g_crash_ctx.load(std::memory_order_relaxed));
    return g_previous_filter ? g_previous_filter(ep) : EXCEPTION_CONTINUE_SEARCH;
}
}  // namespace

void set_crash_hook(void (*hook)(void*), void* ctx) {
    g_crash_ctx.store(ctx, std::memory_order_relaxed);
    g_crash_hook.store(hook, std::memory_order_release);
    if (hook && !g_filter_set) {
        g_filter_set = true;
        g_previous_filter = SetUnhandledExceptionFilter(crash_filter);
    }
}

}  // namespace zor::os
