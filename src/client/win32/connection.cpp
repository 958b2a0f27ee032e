// The Windows side of the client library: finding the host window, sending
// commands with a bounded wait, mapping the handles the host hands out, and
// the host's liveness. The bytes themselves are built by client/payloads.
#include <windows.h>

#include <cstring>

#include "client/win32/connection.h"

namespace zor::client {
namespace {

constexpr wchar_t kDialogClass[] = L"#32770";
constexpr wchar_t kCaption[] = L"" ZOR_WINDOW_CAPTION;

bool IsHostWindow(HWND hwnd);

struct Search {
    DWORD pid;
    HWND found;
};

BOOL CALLBACK MatchWindow(HWND hwnd, LPARAM lp) {
    auto* s = reinterpret_cast<Search*>(lp);
    if (!IsHostWindow(hwnd)) return TRUE;
    DWORD pid = 0;
    GetWindowThreadProcessId(hwnd, &pid);
    if (pid != s->pid) return TRUE;
    s->found = hwnd;
    return FALSE;
}

struct List {
    std::uint32_t* pids;
    std::uint32_t cap;
    std::uint32_t count;
};

bool IsHostWindow(HWND hwnd) {
    wchar_t cls[16], text[32];
    if (GetClassNameW(hwnd, cls, 16) == 0 || wcscmp(cls, kDialogClass) != 0) return false;
    return GetWindowTextW(hwnd, text, 32) != 0 && wcscmp(text, kCaption) == 0;
}

BOOL CALLBACK CollectWindow(HWND hwnd, LPARAM lp) {
    auto* l = reinterpret_cast<List*>(lp);
    if (!IsHostWindow(hwnd)) return TRUE;
    DWORD pid = 0;
    GetWindowThreadProcessId(hwnd, &pid);
    if (l->count < l->cap) l->pids[l->count] = pid;
    ++l->count;
    return TRUE;
}

}  // namespace

int ListHosts(std::uint32_t* pids, std::uint32_t cap, std::uint32_t* count) {
    List l{pids, pids ? cap : 0, 0};
    EnumWindows(CollectWindow, reinterpret_cast<LPARAM>(&l));
    *count = l.count;
    return ZOR_OK;
}

int Open(ZorConnection** out, std::uint32_t host_pid, bool by_pid, std::uint32_t timeout_ms) {
    if (out == nullptr) return ZOR_E_INVALID_ARG;
    *out = nullptr;
    HWND hwnd;
    if (by_pid) {
        Search s{host_pid, nullptr};
        EnumWindows(MatchWindow, reinterpret_cast<LPARAM>(&s));
        hwnd = s.found;
    } else {
        hwnd = FindWindowW(kDialogClass, kCaption);
    }
    if (hwnd == nullptr) return ZOR_E_NO_HOST;
    DWORD pid = 0;
    GetWindowThreadProcessId(hwnd, &pid);
    HANDLE proc = OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid);
    auto* c = new (std::nothrow) ZorConnection();
    if (c == nullptr) {
        if (proc) CloseHandle(proc);
        return ZOR_E_SYSTEM;
    }
    c->hwnd = hwnd;
    c->host_pid = pid;
    c->host_process = proc;
    c->timeout_ms = timeout_ms ? timeout_ms : ZOR_CLIENT_DEFAULT_TIMEOUT_MS;
    InitializeCriticalSection(&c->lock);
    InitializeCriticalSection(&c->pipe_lock);
    *out = c;
    return ZOR_OK;
}

bool HostAlive(ZorConnection* c) {
    if (c->host_process && WaitForSingleObject(c->host_process, 0) == WAIT_OBJECT_0)
        return false;
    return IsWindow(c->hwnd) != FALSE;
}

int Send(ZorConnection* c, std::uint32_t command, const void* payload, std::uint32_t size,
         std::uint32_t* result, std::uint32_t timeout_ms) {
    if (!HostAlive(c)) return ZOR_E_HOST_GONE;
    COPYDATASTRUCT cds;
    cds.dwData = command;
    cds.cbData = size;
    cds.lpData = const_cast<void*>(payload);
    DWORD_PTR answer = 0;
    // SMTO_ABORTIFHUNG and the time-out keep a hung host from hanging us;
    // SMTO_ERRORONEXIT notices a host that ends while it handles the command.
    LRESULT ok = SendMessageTimeoutW(c->hwnd, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&cds),
                                     SMTO_BLOCK | SMTO_ABORTIFHUNG | 0x0020 /*ERRORONEXIT*/,
                                     timeout_ms ? timeout_ms : c->timeout_ms, &answer);
    if (ok == 0) {
        DWORD err = GetLastError();
        if (!HostAlive(c)) return ZOR_E_HOST_GONE;
        return err == ERROR_TIMEOUT || err == 0 ? ZOR_E_TIMEOUT : ZOR_E_HOST_GONE;
    }
    if (result) *result = static_cast<std::uint32_t>(answer);
    return ZOR_OK;
}

int MapWhole(std::uint64_t handle, std::uint32_t want, ZorView* out) {
    std::memset(out, 0, sizeof *out);
    if (handle == 0) return ZOR_E_REFUSED;
    HANDLE h = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(handle));
    // Map the whole section and bound ourselves by what is really there:
    // the host may hand out a smaller section than the one asked for.
    void* view = MapViewOfFile(h, FILE_MAP_ALL_ACCESS, 0, 0, 0);
    if (view == nullptr) {
        CloseHandle(h);
        return ZOR_E_SYSTEM;
    }
    MEMORY_BASIC_INFORMATION mbi;
    SIZE_T real = VirtualQuery(view, &mbi, sizeof mbi) ? mbi.RegionSize : 0;
    if (real > 0xFFFFFFFFu) real = 0xFFFFFFFFu;
    std::uint32_t size = static_cast<std::uint32_t>(real);
    if (want != 0 && want < size) size = want;
    out->base = view;
    out->size = size;
    out->handle = handle;
    return ZOR_OK;
}

void Unmap(ZorView* v) {
    if (v == nullptr) return;
    if (v->base) UnmapViewOfFile(v->base);
    if (v->handle) CloseHandle(reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(v->handle)));
    std::memset(v, 0, sizeof *v);
}

void Close(ZorConnection* c) {
    if (c->host_process) CloseHandle(c->host_process);
    DeleteCriticalSection(&c->pipe_lock);
    DeleteCriticalSection(&c->lock);
    delete[] c->frame;
    delete c;
}

std::uint32_t SelfPid() { return GetCurrentProcessId(); }

double NowMs() {
    static const double per_ms = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return static_cast<double>(f.QuadPart) / 1000.0;
    }();
    LARGE_INTEGER t;
    QueryPerformanceCounter(&t);
    return static_cast<double>(t.QuadPart) / per_ms;
}

void Pace(double since) {
    if (NowMs() - since < 2.0)
        SwitchToThread();
    else
        Sleep(1);
}

}  // namespace zor::client
