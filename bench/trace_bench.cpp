// What the flight recorder costs the event path: a whole OnInterrupt with
// 10 trivial ISRs on two hosts side by side in one run, one recording and
// one without it; neither publishes the statistics area (stats_bench
// measures that), so the two differ by the recorder alone. Short rounds alternate
// between the two so that both see the same machine; the best round of each
// counts, which keeps preemption out of the figures.
#include <cstdint>
#include <cstdio>

#include "bench_host.h"
#include "bench_report.h"
#include "host/host.h"
#include "support/log.h"

int main() {
    zor::Logger log;
    log.Start(u"");
    {
        zor::Host off(log), on(log);
        if (!on.recorder.Publish(ZOR_TRACE_DEFAULT_EVENTS)) {
            std::printf("flight recorder not created\n");
            return 1;
        }
        std::printf("clock: %s\n", zor::os::clock_name());
        bench::EventRow("OnInterrupt, 10 ISRs, flight recorder on", "the same, recorder off",
                        bench::MaxRatio(1.05), on, off);
    }
    log.End();
    return bench::g_trivialCalls == 0;
}
