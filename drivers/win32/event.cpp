// event.irq: events from a kernel driver, without an IRQ driver of one's own.
//
// A kernel driver tells user mode about an interrupt in one of two ways, and
// this driver takes either, as configured in [EVENTIRQ] of the ZOR.INI beside
// zor.exe:
//   EVENT=<name>   it sets a named event. One wake-up is one event; the
//                  sequence counts up by one. The event is auto-reset, so
//                  signals set faster than this thread wakes coalesce.
//   DEVICE=<path>  it completes pending reads ("inverted call"). PENDING
//                  reads of SIZE bytes stay issued; each completed read is
//                  one event and is issued again at once. A read of at least
//                  4 bytes carries the device's own interrupt count in its
//                  first u32, which becomes the sequence number, so the host's
//                  gap check shows interrupts lost on the way.
// Reads are taken in the order issued (a device completes them in order),
// so one wait at a time covers the oldest read and the stop event.
//
// A source that fails (a read fails with anything but cancellation, a wait
// on a closed event handle) is logged and counted, and the thread tries to
// open it again every second; the host keeps running. The event thread is
// the host's dispatch thread. Buffers are allocated at Initialize: the
// per-event path allocates nothing.
#include <windows.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <new>

#include "driver_entry.h"
#include "zor/zor_module.h"

namespace {

constexpr std::uint32_t kInitBadConfig = 1;
constexpr std::uint32_t kInitNoThread = 3;
constexpr std::uint32_t kInitNoSource = 4;
constexpr DWORD kReopenMs = 1000;
constexpr DWORD kJoinMs = 10000;
constexpr std::uint32_t kDefaultPending = 4;
constexpr std::uint32_t kDefaultSize = 4;

struct Read {
    OVERLAPPED ov;
    unsigned char* buffer;
    bool issued;
};

struct Driver {
    std::atomic<ZorInterruptProc> entry{nullptr};
    EventCounters counts;
    wchar_t source[MAX_PATH] = {};
    bool device = false;
    std::uint32_t pending = kDefaultPending;
    std::uint32_t size = kDefaultSize;
    HANDLE handle = nullptr;  // the event or the device; the thread's own once it runs
    HANDLE stop = nullptr;    // manual-reset
    HANDLE thread = nullptr;
    Read reads[ZOR_EVENT_MAX_PENDING] = {};
    unsigned char* buffers = nullptr;
    std::uint32_t sequence = 0;
};

Driver g;

// One line into the host's log (the debugger channel outside a host).
void Log(std::uint32_t mask, const wchar_t* fmt, ...) {
    static const auto log = reinterpret_cast<ZorLogProc>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(nullptr), ZOR_LOG_EXPORT_NAME)));
    wchar_t line[600];
    va_list ap;
    va_start(ap, fmt);
    _vsnwprintf(line, 599, fmt, ap);
    va_end(ap);
    line[599] = 0;
    if (log) {
        log(2, mask, reinterpret_cast<const std::uint16_t*>(line));
    } else {
        OutputDebugStringW(line);
    }
}

const wchar_t* Kind() { return g.device ? L"device" : L"event"; }

// [EVENTIRQ] of <exe folder>\ZOR.INI; false (logged, naming the key) when refused.
bool ReadConfig() {
    wchar_t ini[MAX_PATH + 16];
    DWORD n = GetModuleFileNameW(nullptr, ini, MAX_PATH);
    while (n > 0 && ini[n - 1] != L'\\' && ini[n - 1] != L'/') --n;
    wcscpy(ini + n, L"ZOR.INI");
    wchar_t event[MAX_PATH], device[MAX_PATH];
    GetPrivateProfileStringW(L"EVENTIRQ", L"EVENT", L"", event, MAX_PATH, ini);
    GetPrivateProfileStringW(L"EVENTIRQ", L"DEVICE", L"", device, MAX_PATH, ini);
    if (event[0] && device[0]) {
        Log(1, L"ZOR: event.irq: EVENT and DEVICE both set in [EVENTIRQ] of '%ls'; one of them only\n\r", ini);
        return false;
    }
    if (!event[0] && !device[0]) {
        Log(1, L"ZOR: event.irq: neither EVENT nor DEVICE set in [EVENTIRQ] of '%ls'\n\r", ini);
        return false;
    }
    g.device = device[0] != 0;
    wcscpy(g.source, g.device ? device : event);
    if (!g.device) return true;
    const INT pending = static_cast<INT>(GetPrivateProfileIntW(L"EVENTIRQ", L"PENDING", kDefaultPending, ini));
    const INT size = static_cast<INT>(GetPrivateProfileIntW(L"EVENTIRQ", L"SIZE", kDefaultSize, ini));
    if (pending < 1 || pending > static_cast<INT>(ZOR_EVENT_MAX_PENDING)) {
        Log(1, L"ZOR: event.irq: PENDING=%d in [EVENTIRQ] is not within 1..%u\n\r", pending, ZOR_EVENT_MAX_PENDING);
        return false;
    }
    if (size < 1 || size > static_cast<INT>(ZOR_EVENT_MAX_SIZE)) {
        Log(1, L"ZOR: event.irq: SIZE=%d in [EVENTIRQ] is not within 1..%u\n\r", size, ZOR_EVENT_MAX_SIZE);
        return false;
    }
    g.pending = static_cast<std::uint32_t>(pending);
    g.size = static_cast<std::uint32_t>(size);
    return true;
}

HANDLE OpenSource() {
    if (!g.device) return CreateEventW(nullptr, FALSE, FALSE, g.source);  // opens an existing one
    HANDLE h = CreateFileW(g.source, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                           nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
    if (h == INVALID_HANDLE_VALUE)  // a read-only device
        h = CreateFileW(g.source, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                        OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
    return h == INVALID_HANDLE_VALUE ? nullptr : h;
}

void Deliver(std::uint32_t sequence) {
    if (!g.counts.delivering.load(std::memory_order_acquire)) return;  // paused: dropped
    g.sequence = sequence;
    if (ZorInterruptProc entry = g.entry.load(std::memory_order_acquire)) entry(sequence);
    g.counts.delivered.fetch_add(1, std::memory_order_relaxed);
}

// False: the source failed with `*error`. True: stop was asked.
bool ServeEvent(DWORD* error) {
    for (;;) {
        HANDLE waits[2] = {g.stop, g.handle};
        const DWORD w = WaitForMultipleObjects(2, waits, FALSE, INFINITE);
        if (w == WAIT_OBJECT_0) return true;
        if (w != WAIT_OBJECT_0 + 1) {
            *error = GetLastError();
            return false;
        }
        Deliver(g.sequence + 1);
    }
}

// A read that fails to start is not pending: nothing will set its event.
bool Issue(Read& r) {
    r.issued = ReadFile(g.handle, r.buffer, g.size, nullptr, &r.ov) || GetLastError() == ERROR_IO_PENDING ||
               GetLastError() == ERROR_MORE_DATA;
    return r.issued;
}

void CancelReads() {
    CancelIo(g.handle);
    for (std::uint32_t i = 0; i < g.pending; ++i) {
        DWORD got = 0;
        if (g.reads[i].issued) GetOverlappedResult(g.handle, &g.reads[i].ov, &got, TRUE);
        g.reads[i].issued = false;
    }
}

// Reads completed before a failure are still delivered, in the order issued;
// the source has failed once no read is pending.
bool ServeReads(DWORD* error) {
    std::uint32_t issued = 0;
    for (std::uint32_t i = 0; i < g.pending; ++i) {
        if (Issue(g.reads[i])) ++issued;
        else *error = GetLastError();
    }
    for (std::uint32_t next = 0; issued > 0; next = (next + 1) % g.pending) {
        Read& r = g.reads[next];
        if (!r.issued) continue;
        HANDLE waits[2] = {g.stop, r.ov.hEvent};
        const DWORD w = WaitForMultipleObjects(2, waits, FALSE, INFINITE);
        if (w == WAIT_OBJECT_0) return true;
        DWORD got = 0;
        const bool done = w == WAIT_OBJECT_0 + 1 && GetOverlappedResult(g.handle, &r.ov, &got, FALSE);
        const DWORD e = done ? ERROR_SUCCESS : GetLastError();
        if (!done && e != ERROR_MORE_DATA && e != ERROR_OPERATION_ABORTED) {
            *error = e;
            return false;
        }
        r.issued = false;
        --issued;
        if (e != ERROR_OPERATION_ABORTED) {  // a read the device cancelled is only issued again
            std::uint32_t sequence = g.sequence + 1;
            if (got >= 4) std::memcpy(&sequence, r.buffer, 4);
            Deliver(sequence);
        }
        if (Issue(r)) ++issued;
        else *error = GetLastError();
    }
    return false;
}

bool ServeDevice(DWORD* error) {
    const bool stopped = ServeReads(error);
    CancelReads();
    return stopped;
}

// Logs and counts a failure, drops the source; the thread opens it again.
void Lost(DWORD error) {
    const std::uint32_t n = g.counts.failures.fetch_add(1, std::memory_order_relaxed) + 1;
    Log(1, L"ZOR: event.irq: %ls '%ls' failed with error %lu (failure %u), opening it again\n\r", Kind(),
        g.source, error, n);
    // A closed event handle is not closed again: its value may be in use already.
    if (g.device) CloseHandle(g.handle);
    g.handle = nullptr;
}

DWORD WINAPI EventThread(void*) {
    while (WaitForSingleObject(g.stop, 0) != WAIT_OBJECT_0) {
        if (!g.handle) {
            g.handle = OpenSource();
            if (!g.handle) {
                WaitForSingleObject(g.stop, kReopenMs);
                continue;
            }
            Log(6, L"ZOR: event.irq: %ls '%ls' open again\n\r", Kind(), g.source);
        }
        DWORD error = 0;
        if (g.device ? ServeDevice(&error) : ServeEvent(&error)) break;
        Lost(error);
    }
    return 0;
}

void CloseAll() {
    if (g.handle) CloseHandle(g.handle);
    for (Read& r : g.reads) {
        if (r.ov.hEvent) CloseHandle(r.ov.hEvent);
        r = Read{};
    }
    delete[] g.buffers;
    if (g.stop) CloseHandle(g.stop);
    if (g.thread) CloseHandle(g.thread);
    g.handle = g.stop = g.thread = nullptr;
    g.buffers = nullptr;
}

std::uint32_t Start() {
    if (g.thread) return ZOR_INIT_OK;
    if (!ReadConfig()) return kInitBadConfig;
    g.handle = OpenSource();
    if (!g.handle) {
        Log(1, L"ZOR: event.irq: %ls '%ls' does not open (error %lu)\n\r", Kind(), g.source, GetLastError());
        return kInitNoSource;
    }
    g.stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    g.buffers = new (std::nothrow) unsigned char[g.device ? g.pending * g.size : 1];
    bool ok = g.stop && g.buffers;
    for (std::uint32_t i = 0; ok && g.device && i < g.pending; ++i) {
        g.reads[i].buffer = g.buffers + i * g.size;
        g.reads[i].ov.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        ok = g.reads[i].ov.hEvent != nullptr;
    }
    if (ok) g.thread = CreateThread(nullptr, 0, &EventThread, nullptr, 0, nullptr);
    if (!g.thread) {
        CloseAll();
        return kInitNoThread;
    }
    return ZOR_INIT_OK;
}

void Stop() {
    if (!g.thread) return;
    SetEvent(g.stop);
    WaitForSingleObject(g.thread, kJoinMs);
    CloseAll();
}

std::uint32_t Query() { return g.counts.Query(); }
std::uint32_t Control(std::uint32_t value) { return g.counts.Control(value); }
void SetEntry(ZorInterruptProc entry) { g.entry.store(entry, std::memory_order_release); }
std::uint32_t ThreadHandle() { return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(g.thread)); }

}  // namespace

ZOR_EXPORT uint32_t IRQ_GetSet(uint32_t code, uintptr_t arg) {
    static constexpr DriverParts kParts{Start, Stop, SetEntry, ThreadHandle, Query, Control};
    return DriverGetSet(kParts, code, arg);
}
