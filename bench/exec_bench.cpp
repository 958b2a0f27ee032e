// ExecISRFunc through a real host: the round trip of a waited request from
// another thread (queue, run at the next event, result back) with events at
// 1 kHz and free-running, the cost of queueing without waiting, and the
// direct call on the dispatch thread. Events come from trigger.irq, the
// bundled on-demand driver; at 1 kHz a pacing thread asks it for one event
// per millisecond. The target is an ISR entry inside this program.
//
//   exec_bench [requests per run, default 2000]
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "bench_host.h"
#include "bench_report.h"
#include "host/host.h"
#include "support/stopwatch.h"
#include "support/wstr.h"

namespace {

using namespace zor;

std::uint32_t Target(std::uint32_t code, std::uintptr_t arg) {
    if (code != ZOR_FN_EXEC_ISR_FUNC) return 0;
    std::uint32_t func;
    std::memcpy(&func, reinterpret_cast<const void*>(arg), 4);
    return func + 1;
}

std::uint32_t AddTarget(Host& h) {
    const std::uint32_t s = h.slots.Alloc();
    h.slots[s].kind.store(kKindIsr);
    h.slots[s].number.store(s);
    wcopy(h.slots[s].name, 20, u"bench_target");
    h.slots[s].entry.store(&Target);
    h.slots[s].inUse.store(1);
    h.dispatcher.InvalidateDispatchOrder();
    return s;
}

void Print(const char* what, std::vector<double>& us, std::uint32_t wrong) {
    if (us.empty()) return;
    std::sort(us.begin(), us.end());
    double sum = 0;
    for (double v : us) sum += v;
    std::printf("%-44s n=%zu avg %.1f us, p50 %.1f, p99 %.1f, max %.1f%s\n", what, us.size(),
                sum / us.size(), us[us.size() / 2], us[us.size() * 99 / 100], us.back(),
                wrong ? " (WRONG RESULTS)" : "");
}

// Round trips of waited requests from this thread while events arrive.
std::vector<double> RoundTrips(Host& h, std::uint32_t slot, std::uint32_t n, const char* what) {
    std::vector<double> us;
    us.reserve(n);
    std::uint32_t wrong = 0;
    for (std::uint32_t i = 0; i < n; ++i) {
        const std::uint32_t data = i;
        const double t0 = ClockMs();
        const std::int32_t r = h.services.ExecISRFunc(slot, i, &data, 4, 1);
        us.push_back((ClockMs() - t0) * 1000.0);
        if (static_cast<std::uint32_t>(r) != i + 1) ++wrong;
    }
    Print(what, us, wrong);
    return us;
}

// The bare work: a request handed to a thread that spins like a free-running
// dispatch thread, and the answer handed back, through one shared word; the
// requester waits the way ExecISRFunc does (yielding).
std::vector<double> BareHandOff(std::uint32_t n) {
    std::atomic<std::uint32_t> word{0};
    std::atomic<bool> stop{false};
    std::thread partner([&] {
        while (!stop.load(std::memory_order_relaxed)) {
            const std::uint32_t w = word.load(std::memory_order_acquire);
            if (w & 1) word.store(w + 1, std::memory_order_release);
        }
    });
    std::vector<double> us;
    us.reserve(n);
    for (std::uint32_t i = 0; i < n; ++i) {
        const double t0 = ClockMs();
        word.store(2 * i + 1, std::memory_order_release);
        while (word.load(std::memory_order_acquire) != 2 * i + 2) std::this_thread::yield();
        us.push_back((ClockMs() - t0) * 1000.0);
    }
    stop = true;
    partner.join();
    return us;
}

// Asks the driver for one event per millisecond until stopped.
class Pacer {
public:
    explicit Pacer(Host& h) : h_(h), thread_([this] { Run(); }) {}
    ~Pacer() {
        stop_ = true;
        thread_.join();
    }

private:
    void Run() {
        double next = ClockMs();
        while (!stop_) {
            next += 1.0;
            while (ClockMs() < next - 1.5) os::sleep_ms(1);
            while (ClockMs() < next) std::this_thread::yield();
            h_.irq.Control(1);
        }
    }
    Host& h_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

void DirectCalls(Host& h, std::uint32_t slot) {
    ::OnInterrupt(1);  // this thread is now the dispatch thread
    constexpr std::uint32_t kCalls = 200000;
    std::uint32_t data[16] = {};
    const double t0 = ClockMs();
    for (std::uint32_t i = 0; i < kCalls; ++i) h.services.ExecISRFunc(slot, i, data, sizeof data, 0);
    const double ms = ClockMs() - t0;
    std::printf("%-44s %.0f ns per call\n", "direct on the dispatch thread, 64 bytes:",
                ms * 1e6 / kCalls);
}

// The writer's own cost: bursts queued while no event runs, each drained
// by one event before the next. (A writer that floods the queue meets the
// fixed two-second refusal instead.)
void QueueCost(Host& h, std::uint32_t slot) {
    constexpr std::uint32_t kBursts = 100, kBurst = 1000;
    unsigned char* area = h.shm.Area();
    std::atomic_ref<std::uint32_t> count(*reinterpret_cast<std::uint32_t*>(area + ZOR_SSA_ENTRY_COUNT));
    std::uint32_t queued = 0;
    double ms = 0, drainMs = 0;
    for (std::uint32_t b = 0; b < kBursts; ++b) {
        const double t0 = ClockMs();
        for (std::uint32_t i = 0; i < kBurst; ++i) queued += h.services.ExecISRFunc(slot, i, &i, 4, 0);
        const double t1 = ClockMs();
        ms += t1 - t0;
        h.irq.Control(1);
        while (count.load() != 0) std::this_thread::yield();
        drainMs += ClockMs() - t1;
    }
    std::printf("%-44s %.0f ns per request (%u of %u queued)\n",
                "queued without wait, no event meanwhile:", ms * 1e6 / (kBursts * kBurst), queued,
                kBursts * kBurst);
    std::printf("%-44s %.0f ns per entry (event wake-up included)\n",
                "  one event running 1000 queued entries:", drainMs * 1e6 / (kBursts * kBurst));
}

}  // namespace

int main(int argc, char** argv) {
    const std::uint32_t n = argc > 1 ? static_cast<std::uint32_t>(std::atoi(argv[1])) : 2000;
    Logger logger;
    bench::QuietLog(logger);
    char16_t dir[260];
    bench::OwnFolder(dir);
    Host h(logger);
    SetRunningHost(&h);
    const std::uint32_t slot = AddTarget(h);
    DirectCalls(h, slot);
    if (!h.shm.SysMem(zor::os::process_peer(), os::current_process_id(), ZOR_SSA_QUEUE + 256 * 1024) ||
        !h.irq.LoadIRQ(dir, u"trigger.irq", false)) {
        std::printf("no system area or no trigger.irq next to the bench\n");
        return 1;
    }
    {
        Pacer pacer(h);
        os::sleep_ms(50);
        const std::uint32_t e0 = h.irq.Query();
        const double t0 = ClockMs();
        RoundTrips(h, slot, n, "waited round trip, events at 1 kHz:");
        std::printf("%-44s %.0f Hz\n", "  event rate meanwhile:",
                    (h.irq.Query() - e0) * 1000.0 / (ClockMs() - t0));
    }
    h.irq.Control(ZOR_TRIGGER_FREE_RUN);
    auto waited = RoundTrips(h, slot, n * 10, "waited round trip, free-running events:");
    h.irq.Control(ZOR_TRIGGER_STOP);
    auto bare = BareHandOff(n * 10);
    bench::Rows("waited ExecISRFunc, free-running events", waited,
                "hand-off between two threads through a shared word", bare, "us");
    os::sleep_ms(20);
    QueueCost(h, slot);
    const std::uint32_t events = h.irq.Query();
    std::printf("events delivered: %u\n", events);
    h.registry.UnloadAll();
    SetRunningHost(nullptr);
    logger.End();
    return 0;
}
