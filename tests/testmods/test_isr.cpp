// The configurable ISR module of the tests, built under several file names
// (test_isr, test_isr_b, test_isr_c: three modules with their own state;
// noexport_isr without the entry). It records every call and does what the
// test asks through its Test_* exports: answer, sleep or busy-wait, fault,
// stay pending, or call a host service when a given function code arrives.
// ExecISRFunc packets are answered func * 7 + size + first data byte;
// ExecRemoteFunc bodies, whose length the caller passes as its tag with the
// top bit set, (sum of the bytes) ^ 0x5A000000 unless an answer is set for
// code 6. Initialize writes "ECHO"
// into the module's shared memory.
#include <atomic>
#include <cstdint>
#include <cstring>

#include "os/os.h"
#include "zor/zor_module.h"

namespace {

constexpr std::uint32_t kMaxCalls = 16384, kCodes = 32;

struct Call {
    std::uint32_t code;
    std::uint64_t arg;
    std::uint32_t first;   // first word of an ExecISRFunc packet
    std::uint32_t stamp;   // from the shared order clock, 0 without one
    std::uint32_t thread;  // os thread id of the caller
    std::uint32_t context;  // SERV_GetCallContext during ExecISRFunc / ExecRemoteFunc
    std::uint32_t onIsrThread;
    std::atomic<std::uint32_t> ready;
};
Call g_calls[kMaxCalls];
std::atomic<std::uint32_t> g_claimed{0};
std::atomic<std::uint32_t*> g_clock{nullptr};
std::atomic<std::uint32_t> g_answer[kCodes];
std::atomic<std::uint32_t> g_delayCode{0}, g_delayUs{0}, g_faultCode{0}, g_pending{0};
std::atomic<std::uint32_t> g_handle{0};
std::atomic<ZorServiceProc> g_service{nullptr};
unsigned char g_lastData[2048];

struct Request {
    std::uint32_t code;
    std::uintptr_t a[5];
    std::uint32_t selfMask;  // bit i: argument i is the module's own number
};
Request g_request{};
std::atomic<std::uint32_t> g_requestOn{0};
std::atomic<std::int64_t> g_serviceResult{0};

// Never a tail call: the host names the caller from the return address.
std::int64_t Service(std::uint32_t code, const std::uintptr_t* a) {
    ZorServiceProc s = g_service.load();
    if (!s) return -1;
    const std::int64_t r = s(code, a[0], a[1], a[2], a[3], a[4], 0);
    asm volatile("" ::: "memory");
    return r;
}

std::uint32_t Custom(uint32_t, uintptr_t a1, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t) {
    return 0xC0000000u | (g_handle.load() << 16) | (static_cast<std::uint32_t>(a1) & 0xFFFF);
}

void Fault() {  // the never-mapped first page, but not null (sanitizers check null stores)
    volatile int* volatile p = reinterpret_cast<volatile int*>(std::uintptr_t{64});
    *p = 1;
}

std::uint32_t Answer(std::uint32_t code, std::uintptr_t arg, Call& c) {
    const std::uintptr_t none[5] = {};
    if (code == ZOR_FN_EXEC_ISR_FUNC && arg) {
        const auto* p = reinterpret_cast<const unsigned char*>(arg);
        std::uint32_t func, size;
        std::memcpy(&func, p, 4);
        std::memcpy(&size, p + 4, 4);
        std::memcpy(g_lastData, p + 8, size < sizeof g_lastData ? size : sizeof g_lastData);
        c.context = static_cast<std::uint32_t>(Service(SERV_GetCallContext, none));
        c.onIsrThread = static_cast<std::uint32_t>(Service(SERV_IsISRThread, none));
        return func * 7 + size + (size ? p[8] : 0u);
    }
    if (code == ZOR_FN_EXEC_REMOTE_FUNC && g_answer[code].load() == 0) {  // else a set answer, body unread
        c.context = static_cast<std::uint32_t>(Service(SERV_GetCallContext, none));
        // Before SetServiceProc (a call racing a registration) there is no context.
        const bool tagged = (c.context & 0x80000000u) && c.context != 0xFFFFFFFFu;
        const std::uint32_t length = tagged ? c.context & 0x7FFFFFFFu : 0;
        auto* body = reinterpret_cast<unsigned char*>(arg);
        std::uint32_t sum = 0;
        for (std::uint32_t i = 0; i < length; ++i) sum += body[i];
        if (length) body[0] = 0xEE;  // a module may write into the host's copy
        return sum ^ 0x5A000000u;
    }
    if (code == ZOR_FN_INITIALIZE && g_pending.load()) return ZOR_INIT_PENDING;
    return code < kCodes ? g_answer[code].load() : 0;
}

}  // namespace

#ifndef TEST_ISR_NO_ENTRY
ZOR_EXPORT uint32_t ISR_GetSet(uint32_t code, uintptr_t arg) {
    const std::uint32_t i = g_claimed.fetch_add(1, std::memory_order_relaxed);
    Call spare{};
    Call& c = i < kMaxCalls ? g_calls[i] : spare;
    c.code = code;
    c.arg = arg;
    c.first = 0;  // queued packets are unpadded: read bytewise
    if (code == ZOR_FN_EXEC_ISR_FUNC && arg)  // a packet has its header; a client body may be empty
        std::memcpy(&c.first, reinterpret_cast<const void*>(arg), 4);
    std::uint32_t* clock = g_clock.load(std::memory_order_acquire);
    c.stamp = clock ? std::atomic_ref<std::uint32_t>(*clock).fetch_add(1) + 1 : 0;
    c.thread = zor::os::current_thread_id();
    if (code == ZOR_FN_SET_ISR_HANDLE) g_handle.store(static_cast<std::uint32_t>(arg));
    if (code == ZOR_FN_SET_SERVICE_PROC) g_service.store(reinterpret_cast<ZorServiceProc>(arg));
    if (code == ZOR_FN_INITIALIZE && arg) std::memcpy(reinterpret_cast<void*>(arg), "ECHO", 4);
    if (code == g_faultCode.load()) {
        c.ready.store(1, std::memory_order_release);
        Fault();
    }
    if (code == g_delayCode.load()) {
        const std::uint32_t us = g_delayUs.load();
        if (us >= 50000) zor::os::sleep_ms(us / 1000);  // shorter delays spin: no system call
        for (const double end = zor::os::now_ms() + us / 1000.0; us < 50000 && zor::os::now_ms() < end;) {
        }
    }
    if (code != 0 && g_requestOn.load(std::memory_order_acquire) == code) {
        Request r = g_request;
        for (int k = 0; k < 5; ++k)
            if (r.selfMask & (1u << k)) r.a[k] = g_handle.load();
        g_serviceResult.store(Service(r.code, r.a));
    }
    const std::uint32_t answer = Answer(code, arg, c);
    c.ready.store(1, std::memory_order_release);
    return answer;
}
#endif

ZOR_EXPORT uint32_t Test_Count() { return g_claimed.load(std::memory_order_relaxed); }
// Call i of the record; 0 while it is not complete or beyond the record.
ZOR_EXPORT int Test_Get(uint32_t i, uint32_t* out) {
    if (i >= kMaxCalls || g_calls[i].ready.load(std::memory_order_acquire) == 0) return 0;
    const Call& c = g_calls[i];
    const std::uint32_t words[] = {c.code, static_cast<std::uint32_t>(c.arg), static_cast<std::uint32_t>(c.arg >> 32),
                                   c.first, c.stamp, c.thread, c.context, c.onIsrThread};
    std::memcpy(out, words, sizeof words);
    return 1;
}
// Forgets the record and every knob.
ZOR_EXPORT void Test_Reset() {
    for (Call& c : g_calls) c.ready.store(0, std::memory_order_relaxed);
    g_claimed.store(0);
    g_clock.store(nullptr);
    for (auto& a : g_answer) a.store(0);
    for (auto* w : {&g_delayCode, &g_faultCode, &g_pending, &g_requestOn}) w->store(0);
    g_serviceResult.store(0);
}
ZOR_EXPORT void Test_SetAnswer(uint32_t code, uint32_t value) {
    if (code < kCodes) g_answer[code].store(value);
}
// Busy-waits `us` (sleeps from 10 ms on) in each call with this code.
ZOR_EXPORT void Test_SetDelay(uint32_t code, uint32_t us) {
    zor::os::now_ms();  // the module's own clock is set up here, not inside a call
    g_delayUs.store(us);
    g_delayCode.store(code);
}
ZOR_EXPORT void Test_SetFault(uint32_t code) { g_faultCode.store(code); }
// Initialize answers "pending" while this is set.
ZOR_EXPORT void Test_SetPending(uint32_t pending) { g_pending.store(pending); }
// A counter shared by several modules: each call takes the next value.
ZOR_EXPORT void Test_SetClock(uint32_t* clock) { g_clock.store(clock, std::memory_order_release); }
// On each call with `onCode`, call service `code` with `a` (bit k of
// selfMask: a[k] is the module's own number).
ZOR_EXPORT void Test_CallServiceOn(uint32_t onCode, uint32_t code, const uintptr_t* a, uint32_t selfMask) {
    g_request = Request{code, {a[0], a[1], a[2], a[3], a[4]}, selfMask};
    g_requestOn.store(onCode, std::memory_order_release);
}
ZOR_EXPORT int64_t Test_ServiceResult() { return g_serviceResult.load(); }
ZOR_EXPORT uint32_t Test_Handle() { return g_handle.load(); }
ZOR_EXPORT const unsigned char* Test_LastData() { return g_lastData; }
ZOR_EXPORT uintptr_t Test_Custom() { return reinterpret_cast<uintptr_t>(&Custom); }
ZOR_EXPORT int64_t Test_CallService(uint32_t code) {
    const std::uintptr_t none[5] = {};
    return Service(code, none);
}
