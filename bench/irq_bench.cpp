// Events through a real host: how many events per second the trigger driver
// pushes through the dispatch path with 10 empty ISRs, against the same with
// none and against a loop of 10 direct calls; and what the end-of-event
// accounting costs. (The timer driver's pacing is timer_bench's.)
//
//   irq_bench [seconds per run, default 1]
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench_host.h"
#include "bench_report.h"
#include "host/host.h"
#include "support/stopwatch.h"
#include "support/wstr.h"

namespace {

using namespace zor;

// Events per second that trigger.irq delivers free-running with `isrs`
// empty ISRs. The ISRs change only while no event runs.
double TriggerRate(Host& h, int isrs, double seconds) {
    bench::AddIsrs(h, isrs);
    const std::uint32_t before = h.irq.Query();
    const double t0 = ClockMs();
    h.irq.Control(ZOR_TRIGGER_FREE_RUN);
    os::sleep_ms(static_cast<std::uint32_t>(seconds * 1000));
    h.irq.Control(ZOR_TRIGGER_STOP);
    const double ms = ClockMs() - t0;
    os::sleep_ms(50);
    const double events = h.irq.Query() - before;
    bench::FreeIsrs(h);
    h.dispatcher.InvalidateDispatchOrder();
    return events * 1000.0 / ms;
}

// Rounds of 10 direct calls of an empty function per second.
double DirectLoopRate(double seconds) {
    ZorGetSetProc volatile target = bench::Trivial;
    std::uint64_t loops = 0;
    const double t0 = ClockMs();
    double ms = 0;
    while ((ms = ClockMs() - t0) < seconds * 1000) {
        for (int k = 0; k < 1000; ++k, ++loops) {
            for (std::uint32_t i = 0; i < 10; ++i) target(ZOR_FN_INTERRUPT, i);
        }
    }
    return loops * 1000.0 / ms;
}

void EndOfInterruptCost(Host& h) {
    constexpr std::uint32_t kCalls = 1 << 20;
    h.dispatcher.SetEventCounterForTest(7000);  // past the one-time reports
    const double t0 = ClockMs();
    for (std::uint32_t i = 0; i < kCalls; ++i) {
        h.dispatcher.SetWakeTimeForTest(t0);
        h.dispatcher.EndOfInterrupt(7001 + i);
    }
    const double ms = ClockMs() - t0;
    std::printf("EndOfInterrupt: %.1f ns per event (table every 1024 included)\n",
                ms * 1e6 / kCalls);
}

}  // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 1.0;
    Logger logger;
    bench::QuietLog(logger);
    char16_t dir[260];
    bench::OwnFolder(dir);
    // A fresh host per run, so that no run's statistics leak into another.
    auto run = [&](auto body) {
        Host h(logger);
        SetRunningHost(&h);
        body(h);
        SetRunningHost(nullptr);
    };
    // Five runs, each the 10-ISR rate beside the 0-ISR rate: on a busy
    // machine the share of a core the driver's thread gets changes from one
    // second to the next, and the spread shows it.
    run([&](Host& h) {
        if (!h.irq.LoadIRQ(dir, u"trigger.irq", false)) {
            std::printf("trigger.irq: not found next to the bench\n");
            return;
        }
        double ten = 0;
        bench::RepeatedRow("trigger.irq free-running, 10 empty ISRs", "the same, 0 ISRs", "events/s",
                           bench::MinValue(2.2e6), [&] {
                               ten = TriggerRate(h, 10, seconds / 5);
                               return std::pair{ten, TriggerRate(h, 0, seconds / 5)};
                           });
        bench::Row("trigger.irq free-running, 10 empty ISRs", ten, "10 direct calls in a loop",
                   DirectLoopRate(seconds / 4), "events/s");
        h.irq.UnregisterIRQ();
    });
    run([&](Host& h) { EndOfInterruptCost(h); });
    logger.End();
    return 0;
}
