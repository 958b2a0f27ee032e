// The Windows side of the client library: finding the host window, sending
// commands with a bounded wait, mapping the handles the host hands out, and
// the host's liveness. The bytes themselves are built by client/payloads.
#include <windows.h>

#include <cstring>
#include <new>
#include <string>

#include "client/connection.h"

namespace zor::client {

struct Link {
    HWND hwnd = nullptr;
    HANDLE host_process = nullptr;  // SYNCHRONIZE: tells us when the host ends
};

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

int Attach(ZorConnection* c, std::uint32_t host_pid, bool by_pid) {
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
    auto* link = new (std::nothrow) Link();
    if (link == nullptr) return ZOR_E_SYSTEM;
    link->hwnd = hwnd;
    link->host_process = OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid);
    c->link = link;
    c->host_pid = pid;
    return ZOR_OK;
}

void Detach(ZorConnection* c) {
    if (c->link->host_process) CloseHandle(c->link->host_process);
    delete c->link;
    c->link = nullptr;
}

bool HostAlive(ZorConnection* c) {
    const Link* l = c->link;
    if (l->host_process && WaitForSingleObject(l->host_process, 0) == WAIT_OBJECT_0)
        return false;
    return IsWindow(l->hwnd) != FALSE;
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
    LRESULT ok = SendMessageTimeoutW(c->link->hwnd, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&cds),
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

// The host duplicates the handle into this process and returns its value
// in the 32-bit message result; handle values in a process are small, so
// nothing is lost.
int SendForHandle(ZorConnection* c, std::uint32_t command, const void* payload,
                  std::uint32_t size, Handle* handle, std::uint32_t timeout_ms) {
    std::uint32_t answer = 0;
    const int st = Send(c, command, payload, size, &answer, timeout_ms);
    *handle = st == ZOR_OK ? answer : 0;
    return st;
}

int MapWhole(Handle handle, std::uint32_t want, ZorView* out) {
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

int MapStats(std::uint32_t host_pid, ZorView* out, const char* prefix) {
    std::wstring name;
    for (const char* p = prefix; *p; ++p) name += static_cast<wchar_t>(*p);
    name += std::to_wstring(host_pid);
    HANDLE h = OpenFileMappingW(FILE_MAP_READ, FALSE, name.c_str());
    if (h == nullptr) return ZOR_E_NO_HOST;
    void* base = MapViewOfFile(h, FILE_MAP_READ, 0, 0, 0);
    if (base == nullptr) {
        CloseHandle(h);
        return ZOR_E_SYSTEM;
    }
    MEMORY_BASIC_INFORMATION mbi{};
    const std::size_t mapped = VirtualQuery(base, &mbi, sizeof mbi) ? mbi.RegionSize : 0;
    out->base = base;
    out->handle = reinterpret_cast<std::uintptr_t>(h);
    out->size = static_cast<std::uint32_t>(mapped);
    return ZOR_OK;
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

extern "C" void zor_untrusted_peer(uint32_t* pid, uint32_t* uid) {
    if (pid) *pid = 0;
    if (uid) *uid = 0;
}
