// The dispatch watchdog's cost and speed: OnInterrupt with 10 trivial ISRs
// with the watchdog running against the same host without it; and how soon
// after a hanging call's budget ends the ISRs behind it run again. The
// hanging ISR waits 1 ms at a time for ever (the host's own code is never
// aborted, so it waits in the system's sleep rather than spinning here).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "bench_host.h"
#include "bench_report.h"
#include "host/host.h"
#include "os/os.h"
#include "support/log.h"
#include "support/stopwatch.h"

namespace {

constexpr std::uint32_t kBudgetMs = 20;
volatile double g_healthyAt = 0;

std::uint32_t Hang(std::uint32_t code, std::uintptr_t) {
    if (code == ZOR_FN_INTERRUPT)
        for (;;) zor::os::sleep_ms(1);
    return 0;
}
std::uint32_t Healthy(std::uint32_t, std::uintptr_t) {
    g_healthyAt = zor::ClockMs();
    return 0;
}

// Budget end to the next ISR's call, per aborted event, in ms.
std::vector<double> Detection(zor::Host& h, int rounds) {
    bench::AddIsrs(h, 1, Hang);
    const std::uint32_t hang = h.slots.HighWater() - 1;
    bench::AddIsrs(h, 1, Healthy);  // after the hanging one: same priority, later slot
    h.watchdog.SetBudget(kBudgetMs);
    h.watchdog.Start();
    std::vector<double> out;
    std::uint32_t seq = 1;
    for (int r = 0; r < rounds; ++r) {
        zor::os::sleep_ms(r % 7);  // no phase lock with the watchdog's looks
        h.dispatcher.BlockISR(hang, 0);
        const double t0 = zor::ClockMs();
        h.dispatcher.OnInterrupt(seq++);
        out.push_back(g_healthyAt - (t0 + kBudgetMs));
    }
    h.watchdog.Stop();
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 200;
    zor::Logger log;
    bench::QuietLog(log);
    {
        zor::Host on(log), off(log);
        on.watchdog.SetBudget(1000);
        on.watchdog.Start();
        bench::EventRow("OnInterrupt, 10 ISRs, watchdog on (1000 ms)", "the same, watchdog off",
                        bench::MaxRatio(1.03), on, off);
        on.watchdog.Stop();
    }
    {
        zor::Host h(log);
        h.dispatcher.OnInterrupt(0);
        std::vector<double> d = Detection(h, rounds);
        const double p50 = bench::Quantile(d, 0.5), p99 = bench::Quantile(d, 0.99);
        std::printf("detection over %d aborts: p50 %.2f ms, p99 %.2f ms, max %.2f ms\n", rounds, p50, p99, d.back());
        bench::Row("watchdog: budget end to the next ISR running, p99", p99, "-", 0, "ms", bench::MaxValue(20));
        bench::FreeIsrs(h);
    }
    log.End();
    return 0;
}
