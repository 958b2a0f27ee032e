// What the statistics area costs the event path: a whole OnInterrupt with
// 10 trivial ISRs (whose calls are counted together at the event's end), on
// two hosts side by side in one run, one publishing the area and one without
// it. Many short rounds alternate between the two so that both see the same
// machine; the best round of each counts, which keeps preemption out of the
// figures, and the comparison is made five times.
#include <cstdint>
#include <cstdio>

#include "bench_host.h"
#include "bench_report.h"
#include "host/host.h"
#include "support/log.h"
#include "support/stopwatch.h"

int main() {
    zor::Logger log;
    log.Start(u"");
    {
        // Only one host per process can own the area's name.
        zor::Host plain(log), published(log);
        if (!published.stats.Publish()) {
            std::printf("statistics area not created\n");
            return 1;
        }
        std::printf("clock: %s\n", zor::os::clock_name());
        bench::EventRow("OnInterrupt, 10 ISRs, statistics area published", "the same without the area",
                        bench::MaxRatio(1.1), published, plain);
    }
    log.End();
    return bench::g_trivialCalls == 0;
}
