// Cost of the engine's per-event path: CallModule on a trivial ISR against
// the bare work it must do (two clock readings around a guarded indirect
// call), and what each further ISR adds to a whole OnInterrupt (10 against 1
// trivial ISRs) against one clock reading and a guarded indirect call. No
// system shared area, a log without a file; the periodic report is included
// as it falls every 1024 events. Figures are the best of many short rounds.
#include <cstdint>
#include <cstdio>

#include "bench_host.h"
#include "bench_report.h"
#include "host/host.h"
#include "os/os.h"
#include "support/log.h"
#include "support/stopwatch.h"

namespace {

ZorGetSetProc volatile g_target = bench::Trivial;

// The bare work of a timed, guarded call: with two readings and with one.
volatile double g_sink = 0;
void TwoReadings(void*) {
    const double t0 = zor::ClockMs();
    g_target(ZOR_FN_INTERRUPT, 1);
    g_sink = zor::ClockMs() - t0;
}
void OneReading(void*) {
    g_target(ZOR_FN_INTERRUPT, 1);
    g_sink = zor::ClockMs();
}

}  // namespace

int main() {
    zor::os::Fault fault{};
    zor::Logger log;
    log.Start(u"");
    {
        zor::Host h(log), one(log), ten(log);
        bench::AddIsrs(h, 1);
        bench::AddIsrs(one, 1);
        bench::AddIsrs(ten, 10);
        std::uint32_t seq = 0;
        for (zor::Host* x : {&h, &one, &ten}) x->dispatcher.OnInterrupt(seq++);  // the dispatch thread
        const auto [plain, clock] = bench::BestNsPair(
            300, 10000, [&] { g_target(ZOR_FN_INTERRUPT, 1); }, [&] { g_sink = zor::ClockMs(); });
        const auto [guarded, bare2] = bench::BestNsPair(
            300, 10000, [&] { h.caller.CallModule(1, ZOR_FN_INTERRUPT, 1); },
            [&] { zor::os::guarded_run(TwoReadings, nullptr, &fault); });
        const auto [event1, event10] = bench::BestNsPair(
            300, 1000, [&] { one.dispatcher.OnInterrupt(seq++); },
            [&] { ten.dispatcher.OnInterrupt(seq++); });
        const auto [bare1, withContext] = bench::BestNsPair(
            300, 10000, [&] { zor::os::guarded_run(OneReading, nullptr, &fault); },
            [&] { h.caller.CallModule(1, ZOR_FN_EXEC_ISR_FUNC, 0, 0, 77); });
        std::printf("clock: %s\n", zor::os::clock_name());
        std::printf("plain indirect call          %8.2f ns\n", plain);
        std::printf("one clock reading            %8.2f ns\n", clock);
        std::printf("CallModule with a context    %8.2f ns\n", withContext);
        std::printf("OnInterrupt, 1 / 10 ISRs     %8.2f / %.2f ns\n", event1, event10);
        bench::Row("CallModule, trivial ISR", guarded, "2 clock readings + guarded indirect call",
                   bare2, "ns", bench::MaxRatio(1.3));
        bench::Row("OnInterrupt, extra cost per ISR (10 vs 1)", (event10 - event1) / 9,
                   "1 clock reading + guarded indirect call", bare1, "ns", bench::MaxRatio(1.3));
        for (zor::Host* x : {&h, &one, &ten}) bench::FreeIsrs(*x);
    }
    log.End();
    return bench::g_trivialCalls == 0;
}
