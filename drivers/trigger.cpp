// trigger.irq: an IRQ driver whose events fire on demand, from its own
// thread, for tests and benchmarks. Nothing here waits on hardware: events
// are queued by GS_IRQ_CONTROL (or Trigger_Fire) and delivered back to back.
//
// GS_IRQ_CONTROL values (each answers the sequence number the next event
// will carry, never 0 unless the sequence wrapped):
//   1 .. 0x7FFFFFFF        queue that many events (answers at once)
//   0                      stop: leave free-running, drop queued events
//   0xFFFFFFFF             free-running: events as fast as the host takes them
//   0x80000000 | k         skip k sequence numbers before the next event
// GS_IRQ_QUERY answers the number of events delivered so far.
// Sequence numbers start at 1 and grow by one per event (plus skips).
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "driver_entry.h"
#include "driver_thread.h"
#include "os/os.h"
#include "zor/zor_module.h"

namespace {

constexpr std::uint32_t kFreeRun = ZOR_TRIGGER_FREE_RUN;
constexpr std::uint32_t kSkipFlag = ZOR_TRIGGER_SKIP;
constexpr std::uint32_t kJoinMs = 10000;

struct Trigger {
    std::mutex mutex;
    std::condition_variable wake;  // the event thread waits here
    std::condition_variable idle;  // Trigger_WaitIdle waits here
    ZorInterruptProc entry = nullptr;
    zor::os::Thread thread = 0;
    std::uint32_t threadId = 0;
    bool stop = false;
    bool freeRun = false;
    bool delivering = false;
    std::uint64_t queued = 0;
    std::uint32_t nextSequence = 1;
    std::uint32_t delivered = 0;
};

Trigger g;

bool HasWork() { return g.entry && (g.freeRun || g.queued > 0); }
bool Idle() { return !g.delivering && !g.freeRun && g.queued == 0; }

std::uint32_t EventThread(void*) {
    std::unique_lock<std::mutex> lock(g.mutex);
    g.threadId = zor::os::current_thread_id();
    g.idle.notify_all();  // Start waits for the id
    for (;;) {
        g.wake.wait(lock, [] { return g.stop || HasWork(); });
        if (g.stop) break;
        ZorInterruptProc entry = g.entry;
        std::uint32_t sequence = g.nextSequence++;
        if (!g.freeRun) --g.queued;
        g.delivering = true;
        lock.unlock();
        entry(sequence);
        lock.lock();
        g.delivering = false;
        ++g.delivered;
        if (Idle()) g.idle.notify_all();
    }
    g.idle.notify_all();
    return 0;
}

std::uint32_t Start() {
    std::unique_lock<std::mutex> lock(g.mutex);
    if (g.thread) return ZOR_INIT_OK;
    g.stop = false;
    g.thread = zor::os::thread_create(&EventThread, nullptr);
    if (!g.thread) return 1u;
    g.idle.wait(lock, [] { return g.threadId != 0; });  // GS_GET_THREAD follows at once
    return ZOR_INIT_OK;
}

void Stop() {
    zor::os::Thread t;
    {
        std::lock_guard<std::mutex> lock(g.mutex);
        t = g.thread;
        g.stop = true;
        g.freeRun = false;
        g.queued = 0;
    }
    g.wake.notify_all();
    g.idle.notify_all();
    if (!t) return;
    zor::os::thread_wait(t, kJoinMs);
    zor::os::thread_close(t);
    std::lock_guard<std::mutex> lock(g.mutex);
    g.thread = 0;
    g.threadId = 0;
}

std::uint32_t Control(std::uint32_t value) {
    std::uint32_t next;
    {
        std::lock_guard<std::mutex> lock(g.mutex);
        if (value == kFreeRun) {
            g.freeRun = true;
        } else if (value & kSkipFlag) {
            g.nextSequence += value & ~kSkipFlag;
        } else if (value == 0) {
            g.freeRun = false;
            g.queued = 0;
        } else {
            g.queued += value;
        }
        next = g.nextSequence;
    }
    g.wake.notify_all();
    g.idle.notify_all();
    return next;
}

void SetEntry(ZorInterruptProc entry) {
    {
        std::lock_guard<std::mutex> lock(g.mutex);
        g.entry = entry;
    }
    g.wake.notify_all();
}

std::uint32_t ThreadName() {
    std::lock_guard<std::mutex> lock(g.mutex);
    return DriverThreadName(g.thread, g.threadId);
}

std::uint32_t Delivered() {
    std::lock_guard<std::mutex> lock(g.mutex);
    return g.delivered;
}

}  // namespace

ZOR_EXPORT uint32_t IRQ_GetSet(uint32_t code, uintptr_t arg) {
    static constexpr DriverParts kParts{Start, Stop, SetEntry, ThreadName, Delivered, Control};
    return DriverGetSet(kParts, code, arg);
}

// Queues n events (1 .. 0x7FFFFFFF); the same as GS_IRQ_CONTROL(n).
ZOR_EXPORT uint32_t Trigger_Fire(uint32_t n) {
    return (n == 0 || (n & kSkipFlag)) ? 0 : Control(n);
}

// 1 once nothing is queued, being delivered or free-running; 0 when
// timeout_ms passed first (also when events wait for an interrupt entry).
ZOR_EXPORT uint32_t Trigger_WaitIdle(uint32_t timeout_ms) {
    std::unique_lock<std::mutex> lock(g.mutex);
    return g.idle.wait_for(lock, std::chrono::milliseconds(timeout_ms), &Idle) ? 1u : 0u;
}

// Thread id of the event thread, 0 when it is not running.
ZOR_EXPORT uint32_t Trigger_ThreadId() {
    std::lock_guard<std::mutex> lock(g.mutex);
    return g.threadId;
}
