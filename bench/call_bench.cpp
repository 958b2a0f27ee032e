// Cost of the engine's per-event path: CallModule on a trivial ISR against a
// plain indirect call of the same function, and a whole OnInterrupt with 1
// and with 10 trivial ISRs (no system shared area, a log without a file;
// the periodic report is included as it falls every 1024 events). Prints the
// best of several rounds.
#include <chrono>
#include <cstdint>
#include <cstdio>

#include "host/host.h"
#include "os/os.h"
#include "support/log.h"
#include "support/stopwatch.h"
#include "support/wstr.h"

namespace {

std::uint64_t g_calls = 0;
std::uint32_t Trivial(std::uint32_t code, std::uintptr_t arg) {
    g_calls += code + arg;
    return 0;
}
ZorGetSetProc volatile g_target = Trivial;

template <class F>
double BestNs(int rounds, int n, F f) {
    double best = 1e300;
    for (int r = 0; r < rounds; ++r) {
        auto t0 = std::chrono::steady_clock::now();
        for (int i = 0; i < n; ++i) f();
        auto t1 = std::chrono::steady_clock::now();
        double ns = std::chrono::duration<double, std::nano>(t1 - t0).count() / n;
        if (ns < best) best = ns;
    }
    return best;
}

// A host whose first `n` slots hold the trivial ISR, registered by hand.
void AddIsrs(zor::Host& h, int n) {
    for (int i = 0; i < n; ++i) {
        const std::uint32_t s = h.slots.Alloc();
        zor::wcopy(h.slots[s].name, 20, u"trivial");
        h.slots[s].kind.store(zor::kKindIsr);
        h.slots[s].number.store(s);
        h.slots[s].entry.store(Trivial);
        h.slots[s].inUse.store(1);
    }
    h.dispatcher.InvalidateDispatchOrder();
}

double EventNs(int isrs) {
    zor::Logger log;
    log.Start(u"");
    double ns = 0;
    {
        zor::Host h(log);
        AddIsrs(h, isrs);
        std::uint32_t seq = 0;
        h.dispatcher.OnInterrupt(seq++);  // this thread becomes the dispatch thread
        ns = BestNs(7, 200000, [&] { h.dispatcher.OnInterrupt(seq++); });
        for (std::uint32_t s = 1; s <= static_cast<std::uint32_t>(isrs); ++s) h.slots.Free(s);
    }
    log.End();
    return ns;
}

}  // namespace

void Empty(void* p) { ++*static_cast<std::uint64_t*>(p); }

int main() {
    // What a guarded call is made of: the guard and two clock readings.
    zor::os::Fault fault{};
    volatile double sink = 0;
    const double guardOnly =
        BestNs(7, 2000000, [&] { zor::os::guarded_run(Empty, &g_calls, &fault); });
    const double clock = BestNs(7, 2000000, [&] { sink = zor::ClockMs(); });

    zor::Logger log;
    log.Start(u"");
    double plain = 0, guarded = 0, withContext = 0;
    {
        zor::Host h(log);
        AddIsrs(h, 1);
        h.dispatcher.OnInterrupt(0);
        plain = BestNs(7, 2000000, [&] { g_target(ZOR_FN_INTERRUPT, 1); });
        guarded = BestNs(7, 2000000, [&] { h.caller.CallModule(1, ZOR_FN_INTERRUPT, 1); });
        withContext =
            BestNs(7, 1000000, [&] { h.caller.CallModule(1, ZOR_FN_EXEC_ISR_FUNC, 0, 0, 77); });
        h.slots.Free(1);
    }
    log.End();

    const double one = EventNs(1);
    const double ten = EventNs(10);
    std::printf("clock: %s\n", zor::os::clock_name());
    std::printf("plain indirect call          %8.2f ns\n", plain);
    std::printf("empty guarded_run            %8.2f ns\n", guardOnly);
    std::printf("one clock reading            %8.2f ns\n", clock);
    std::printf("CallModule, trivial ISR      %8.2f ns  (+%.2f ns)\n", guarded, guarded - plain);
    std::printf("CallModule with a context    %8.2f ns\n", withContext);
    std::printf("OnInterrupt, 1 ISR           %8.2f ns\n", one);
    std::printf("OnInterrupt, 10 ISRs         %8.2f ns  (%.2f ns per extra ISR)\n", ten,
                (ten - one) / 9);
    return g_calls == 0;
}
