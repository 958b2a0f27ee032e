// Interrupt sources through a real host: how many events per second the
// trigger driver can push through the dispatch path (no ISR), what the
// end-of-event accounting costs, and how the timer driver paces events
// (the host's own WAKEUP rows; the timer is built for Windows only).
//
//   irq_bench [seconds per run, default 1]
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "host/host.h"
#include "support/stopwatch.h"
#include "support/wstr.h"

namespace {

using namespace zor;

// Prints the host's statistics rows as they are logged.
void PrintRows(void*, std::uint32_t, std::uint32_t, const char* utf8, std::size_t len) {
    if (std::strstr(utf8, "ZOR WAKEUP") || std::strstr(utf8, "ZOR TOTAL") ||
        std::strstr(utf8, "discontinuous")) {
        std::fwrite(utf8, 1, len, stdout);
    }
}

void TriggerThroughput(Host& h, const char16_t* dir, double seconds) {
    if (!h.irq.LoadIRQ(dir, u"trigger.irq", false)) {
        std::printf("trigger.irq: not found next to the bench\n");
        return;
    }
    const std::uint32_t before = h.irq.Query();
    const double t0 = ClockMs();
    h.irq.Control(ZOR_TRIGGER_FREE_RUN);
    os::sleep_ms(static_cast<std::uint32_t>(seconds * 1000));
    h.irq.Control(ZOR_TRIGGER_STOP);
    const double ms = ClockMs() - t0;
    os::sleep_ms(50);
    const double events = h.irq.Query() - before;
    std::printf("trigger.irq free-running, no ISR: %.0f events/s, %.0f ns per event\n",
                events * 1000.0 / ms, ms * 1e6 / events);
    h.irq.UnregisterIRQ();
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

void TimerPacing(Host& h, const char16_t* dir, double seconds) {
    if (!h.irq.LoadIRQ(dir, u"timer.irq", false)) {
        std::printf("timer.irq: not available on this platform\n");
        return;
    }
    std::printf("timer.irq at %u us, the host's rows (ms):\n", h.irq.Query());
    h.log.SetSink(&PrintRows, nullptr);
    os::sleep_ms(static_cast<std::uint32_t>(seconds * 1000) + 2100);
    h.log.Flush();
    h.log.SetSink(nullptr, nullptr);
    h.irq.UnregisterIRQ();
}

}  // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 1.0;
    Logger logger;
    logger.Start(u"");
    logger.SetActive("none");
    char16_t dir[260];
    os::startup_dir(dir, 260);
    wappend(dir, 260, u"\\");
    // A fresh host per run, so that no run's statistics leak into another.
    auto run = [&](auto body) {
        Host h(logger);
        SetRunningHost(&h);
        body(h);
        SetRunningHost(nullptr);
    };
    run([&](Host& h) { TriggerThroughput(h, dir, seconds); });
    run([&](Host& h) { EndOfInterruptCost(h); });
    logger.SetActive("all");
    run([&](Host& h) { TimerPacing(h, dir, seconds); });
    logger.End();
    return 0;
}
