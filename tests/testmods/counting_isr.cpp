// An ISR module that records every call it receives and can be told what to
// answer, how long to sleep in Interrupt and which host service to call.
// Its copies counting_isr_b / counting_isr_c are the same module under other
// file names, for tests that need several ISRs.
//
// Knobs are set by the test while no event runs; the record is safe to read
// while events run (an entry counts once it is complete).
#include <atomic>
#include <cstdint>

#include "os/os.h"
#include "zor/zor_module.h"

namespace {

constexpr std::uint32_t kMaxCalls = 4096;
constexpr std::uint32_t kCodes = 32;

struct Call {
    std::uint32_t code;
    std::uint64_t arg;
    std::uint32_t first;   // first word of the block of codes 5 and 6, else 0
    std::uint32_t stamp;   // value of the shared order clock, 0 without one
    std::uint32_t thread;  // os thread id of the caller
    std::atomic<std::uint32_t> ready;
};

Call g_calls[kMaxCalls];
std::atomic<std::uint32_t> g_claimed{0};
std::atomic<std::uint32_t*> g_clock{nullptr};
std::atomic<std::uint32_t> g_answer[kCodes];
std::atomic<std::uint32_t> g_sleepMs{0};
std::atomic<std::uint32_t> g_handle{0};
std::atomic<ZorServiceProc> g_service{nullptr};

struct ServiceRequest {
    std::uint32_t code;
    std::uintptr_t a1, a2, a3;
    std::uint32_t ownHandle;  // pass the module's own number as a1
};
ServiceRequest g_request{};
std::atomic<std::uint32_t> g_requestOn{0};  // function code that triggers it, 0 none
std::atomic<std::int64_t> g_serviceResult{0};

void Record(std::uint32_t code, std::uintptr_t arg) {
    const std::uint32_t i = g_claimed.fetch_add(1, std::memory_order_relaxed);
    if (i >= kMaxCalls) return;
    Call& c = g_calls[i];
    c.code = code;
    c.arg = arg;
    c.first = (code == ZOR_FN_EXEC_ISR_FUNC || code == ZOR_FN_EXEC_REMOTE_FUNC) && arg != 0
                  ? *reinterpret_cast<const std::uint32_t*>(arg)
                  : 0;
    std::uint32_t* clock = g_clock.load(std::memory_order_acquire);
    c.stamp = clock ? std::atomic_ref<std::uint32_t>(*clock).fetch_add(1) + 1 : 0;
    c.thread = zor::os::current_thread_id();
    c.ready.store(1, std::memory_order_release);
}

}  // namespace

ZOR_EXPORT uint32_t ISR_GetSet(uint32_t code, uintptr_t arg) {
    Record(code, arg);
    if (code == ZOR_FN_SET_ISR_HANDLE) g_handle.store(static_cast<std::uint32_t>(arg));
    if (code == ZOR_FN_SET_SERVICE_PROC) g_service.store(reinterpret_cast<ZorServiceProc>(arg));
    if (code == ZOR_FN_INTERRUPT) {
        if (const std::uint32_t ms = g_sleepMs.load()) zor::os::sleep_ms(ms);
    }
    if (code != 0 && g_requestOn.load(std::memory_order_acquire) == code) {
        if (ZorServiceProc service = g_service.load()) {
            const std::uintptr_t a1 = g_request.ownHandle ? g_handle.load() : g_request.a1;
            g_serviceResult.store(service(g_request.code, a1, g_request.a2, g_request.a3, 0, 0, 0));
        }
    }
    return code < kCodes ? g_answer[code].load() : 0;
}

// Number of calls received (also those beyond the record's capacity).
ZOR_EXPORT uint32_t TestIsr_Count() { return g_claimed.load(std::memory_order_relaxed); }

// Call i of the record; 0 while it is not complete or beyond the record.
ZOR_EXPORT int TestIsr_Get(uint32_t i, uint32_t* code, uint64_t* arg, uint32_t* first,
                           uint32_t* stamp, uint32_t* thread) {
    if (i >= kMaxCalls || g_calls[i].ready.load(std::memory_order_acquire) == 0) return 0;
    const Call& c = g_calls[i];
    if (code) *code = c.code;
    if (arg) *arg = c.arg;
    if (first) *first = c.first;
    if (stamp) *stamp = c.stamp;
    if (thread) *thread = c.thread;
    return 1;
}

// Calls received with this code.
ZOR_EXPORT uint32_t TestIsr_CountOf(uint32_t code) {
    std::uint32_t n = 0;
    const std::uint32_t count = TestIsr_Count() < kMaxCalls ? TestIsr_Count() : kMaxCalls;
    for (std::uint32_t i = 0; i < count; ++i) {
        if (g_calls[i].ready.load(std::memory_order_acquire) && g_calls[i].code == code) ++n;
    }
    return n;
}

// Forgets the record and every knob.
ZOR_EXPORT void TestIsr_Reset() {
    for (Call& c : g_calls) c.ready.store(0, std::memory_order_relaxed);
    g_claimed.store(0);
    g_clock.store(nullptr);
    for (auto& a : g_answer) a.store(0);
    g_sleepMs.store(0);
    g_requestOn.store(0);
    g_serviceResult.store(0);
}

// What the module answers to a function code (0 by default).
ZOR_EXPORT void TestIsr_SetAnswer(uint32_t code, uint32_t value) {
    if (code < kCodes) g_answer[code].store(value);
}

ZOR_EXPORT void TestIsr_SetInterruptSleepMs(uint32_t ms) { g_sleepMs.store(ms); }

// A counter shared by several modules: each call takes the next value as its
// stamp, so that calls of different modules can be put in order.
ZOR_EXPORT void TestIsr_SetClock(uint32_t* clock) { g_clock.store(clock, std::memory_order_release); }

// On every call with function code `onCode`, call the host's service
// `service` with a1 (or the module's own number when ownHandle), a2, a3.
ZOR_EXPORT void TestIsr_CallServiceOn(uint32_t onCode, uint32_t service, uintptr_t a1,
                                      uintptr_t a2, uintptr_t a3, uint32_t ownHandle) {
    g_request = ServiceRequest{service, a1, a2, a3, ownHandle};
    g_requestOn.store(onCode, std::memory_order_release);
}

ZOR_EXPORT int64_t TestIsr_ServiceResult() { return g_serviceResult.load(); }
ZOR_EXPORT uint32_t TestIsr_Handle() { return g_handle.load(); }
ZOR_EXPORT uintptr_t TestIsr_ServiceProc() { return reinterpret_cast<uintptr_t>(g_service.load()); }
