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
        std::printf("clock: %s\n", zor::os::clock_name());
        std::printf("plain indirect call          %8.2f ns\n", plain);
        std::printf("one clock reading            %8.2f ns\n", clock);
        // Each goal in five runs, each run the figure beside its baseline.
        bench::RepeatedRow("CallModule, trivial ISR", "2 clock readings + guarded indirect call", "ns",
                           bench::MaxRatio(1.3), [&] {
                               return bench::BestNsPair(
                                   60, 10000, [&] { h.caller.CallModule(1, ZOR_FN_INTERRUPT, 1); },
                                   [&] { zor::os::guarded_run(TwoReadings, nullptr, &fault); });
                           });
        // 10 against 1 ISRs, and the bare work one more ISR must add.
        auto perIsr = [&] {
            const auto [event1, event10] = bench::BestNsPair(
                60, 1000, [&] { one.dispatcher.OnInterrupt(seq++); },
                [&] { ten.dispatcher.OnInterrupt(seq++); });
            const auto [bare1, unused] = bench::BestNsPair(
                60, 10000, [&] { zor::os::guarded_run(OneReading, nullptr, &fault); }, [] {});
            (void)unused;
            return std::pair{(event10 - event1) / 9, bare1};
        };
        bench::RepeatedRow("OnInterrupt, extra cost per ISR (10 vs 1)",
                           "1 clock reading + guarded indirect call", "ns", bench::MaxRatio(1.2), perIsr);
        bench::RepeatedRow("OnInterrupt, 10 empty ISRs", "1 empty ISR", "ns", bench::MaxValue(380), [&] {
            const auto [event1, event10] = bench::BestNsPair(
                60, 1000, [&] { one.dispatcher.OnInterrupt(seq++); },
                [&] { ten.dispatcher.OnInterrupt(seq++); });
            return std::pair{event10, event1};
        });
        for (zor::Host* x : {&h, &one, &ten}) bench::FreeIsrs(*x);
    }
    log.End();
    return bench::g_trivialCalls == 0;
}
