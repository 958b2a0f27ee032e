// An IRQ driver that does not wait for the host: it calls the interrupt
// entry as soon as it is handed over (on the registering thread), keeps
// delivering from its own thread while Initialize is still running, and
// goes on calling the entry it was given after the host withdrew it, until
// Shutdown stops it.
#include <atomic>
#include <cstdint>

#include "os/os.h"
#include "zor/zor_module.h"

namespace {

std::atomic<ZorInterruptProc> g_entry{nullptr};  // the last non-null entry, kept
std::atomic<bool> g_withdrawn{false};
std::atomic<bool> g_stop{false};
std::atomic<std::uint32_t> g_events{0};
std::atomic<std::uint32_t> g_afterWithdrawal{0};
std::atomic<std::uint32_t> g_threadId{0};
std::atomic<std::uint32_t> g_sequence{1};
zor::os::Thread g_thread = 0;

void Deliver() {
    ZorInterruptProc entry = g_entry.load();
    if (!entry) return;
    entry(g_sequence.fetch_add(1));
    g_events.fetch_add(1);
    if (g_withdrawn.load()) g_afterWithdrawal.fetch_add(1);
}

std::uint32_t EventThread(void*) {
    g_threadId.store(zor::os::current_thread_id());
    while (!g_stop.load()) {
        Deliver();
        zor::os::sleep_ms(1);
    }
    return 0;
}

// Waits until `done` holds, at most about a second.
template <class F>
void WaitFor(F done) {
    for (int i = 0; i < 1000 && !done(); ++i) zor::os::sleep_ms(1);
}

}  // namespace

ZOR_EXPORT uint32_t IRQ_GetSet(uint32_t code, uintptr_t arg) {
    switch (code) {
    case ZOR_GS_SET_INTERRUPT:
        if (arg != 0) {
            g_withdrawn.store(false);
            g_entry.store(reinterpret_cast<ZorInterruptProc>(arg));
            Deliver();  // on the host's thread, before Initialize
        } else {
            g_withdrawn.store(true);
            std::uint32_t before = g_afterWithdrawal.load();
            if (g_thread) WaitFor([&] { return g_afterWithdrawal.load() > before; });
        }
        return 0;
    case ZOR_FN_INITIALIZE: {
        g_stop.store(false);
        std::uint32_t before = g_events.load();
        g_thread = zor::os::thread_create(&EventThread, nullptr);
        WaitFor([&] { return g_events.load() >= before + 3; });
        return 0;
    }
    case ZOR_GS_GET_THREAD:
        return static_cast<std::uint32_t>(g_thread);
    case ZOR_FN_SHUTDOWN:
        g_stop.store(true);
        if (g_thread) {
            zor::os::thread_wait(g_thread, 10000);
            zor::os::thread_close(g_thread);
            g_thread = 0;
        }
        return 0;
    default:
        return 0;
    }
}

ZOR_EXPORT uint32_t Early_Events() { return g_events.load(); }
ZOR_EXPORT uint32_t Early_AfterWithdrawal() { return g_afterWithdrawal.load(); }
ZOR_EXPORT uint32_t Early_ThreadId() { return g_threadId.load(); }
