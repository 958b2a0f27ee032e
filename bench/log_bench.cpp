// Cost of logging for the caller: wPrintf with the writer thread running
// (active and inactive pairs, integer and floating formats, one and two
// threads), the formatter alone, and what the writer sustains into a file.
// Caller figures are the median of rounds of 1000 calls, each round flushed
// outside the timing so that the ring never fills.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "bench_report.h"
#include "os/os.h"
#include "support/log.h"
#include "support/wformat.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRounds = 200;
constexpr int kPerRound = 1000;

template <class F>
double MedianNs(zor::Logger* log, F f) {
    std::vector<double> ns;
    for (int r = 0; r < kRounds; ++r) {
        auto t0 = Clock::now();
        for (int i = 0; i < kPerRound; ++i) f(i);
        auto t1 = Clock::now();
        ns.push_back(std::chrono::duration<double, std::nano>(t1 - t0).count() / kPerRound);
        if (log) log->Flush();
    }
    std::sort(ns.begin(), ns.end());
    return ns[ns.size() / 2];
}

void Row(const char* what, double ns) { std::printf("  %-52s %8.1f ns/call\n", what, ns); }

}  // namespace

int main() {
    zor::Logger log;
    log.SetQueueBytes(std::size_t{64} << 20);  // the two-thread rounds are not flushed
    if (!log.Start(u"")) return 1;
    log.SetActive("all,-2:2");

    std::printf("log_bench (clock %s)\n", zor::os::clock_name());
    const double intLine = MedianNs(&log, [&](int i) {
        log.wPrintf(2, 6, u"ZOR: event %ld seq %08x\n\r", i, static_cast<unsigned>(i));
    });
    // The bare work: the same line's bytes copied into a ring.
    static char16_t ring[1 << 16];
    char16_t line[64];
    const std::size_t units = zor::wformat(line, 64, u"ZOR: event %ld seq %08x\n\r", 123456L, 0x1e240u);
    std::size_t head = 0;
    const double copy = MedianNs(nullptr, [&](int) {
        if (head + units > std::size(ring)) head = 0;
        std::memcpy(ring + head, line, units * sizeof(char16_t));
        head += units;
    });
    volatile char16_t keep = ring[head - 1];
    (void)keep;
    bench::Row("wPrintf of an integer line", intLine, "copying its bytes into a ring", copy, "ns");
    Row("wPrintf \"ZOR: ISR '%s' took %7.3lf ms\\n\\r\"", MedianNs(&log, [&](int i) {
            log.wPrintf(0, 1, u"ZOR: ISR '%s' took %7.3lf ms\n\r", u"timer_isr", i * 0.001);
        }));
    Row("wPrintf of an inactive pair", MedianNs(&log, [&](int i) {
            log.wPrintf(2, 2, u"ZOR: unknown call %ld\n\r", i);
        }));
    Row("wPrintf_IsUserLevelActive", MedianNs(nullptr, [&](int) {
            volatile bool on = log.wPrintf_IsUserLevelActive(2, 6);
            (void)on;
        }));
    char16_t buf[zor::Logger::kMaxLineUnits];
    Row("vwformat alone, integers", MedianNs(nullptr, [&](int i) {
            zor::wformat(buf, zor::Logger::kMaxLineUnits, u"ZOR: event %ld seq %08x\n\r", i,
                         static_cast<unsigned>(i));
        }));
    Row("vwformat alone, string + double", MedianNs(nullptr, [&](int i) {
            zor::wformat(buf, zor::Logger::kMaxLineUnits, u"ZOR: ISR '%s' took %7.3lf ms\n\r",
                         u"timer_isr", i * 0.001);
        }));

    // Two threads at once (the machine's cores): each thread's cost.
    {
        std::vector<double> per(2);
        std::vector<std::thread> ts;
        for (int t = 0; t < 2; ++t)
            ts.emplace_back([&, t] {
                per[t] = MedianNs(nullptr, [&](int i) { log.wPrintf(2, 6, u"ZOR: thread %d n %ld\n\r", t, i); });
            });
        for (auto& th : ts) th.join();
        log.Flush();
        Row("wPrintf from 2 threads at once (each)", (per[0] + per[1]) / 2);
    }
    std::printf("  dropped so far: %llu\n", static_cast<unsigned long long>(log.Dropped()));
    log.End();

    // A burst far larger than the ring, into a file: writer throughput and
    // how many entries a burst loses.
    namespace fs = std::filesystem;
    fs::path file = fs::temp_directory_path() / "zor-log-bench.log";
    zor::Logger flog;
    flog.SetDebugOutput(true);
    if (!flog.Start(file.u16string().c_str())) return 1;
    flog.SetActive("all");
    constexpr int kBurst = 200000;
    auto t0 = Clock::now();
    for (int i = 0; i < kBurst; ++i) flog.wPrintf(2, 6, u"ZOR: burst entry %ld of %ld\n\r", i, kBurst);
    auto t1 = Clock::now();
    flog.Flush();
    auto t2 = Clock::now();
    double callNs = std::chrono::duration<double, std::nano>(t1 - t0).count() / kBurst;
    double total = std::chrono::duration<double>(t2 - t0).count();
    unsigned long long dropped = flog.Dropped();
    std::printf("  burst of %d into a file: %.1f ns/call, %llu dropped, %.0f entries/s written\n", kBurst, callNs,
                dropped, (kBurst - dropped) / total);

    // Paced at 20 entries per ms (the writer's rate), nothing is lost.
    std::uint64_t before = flog.Dropped();
    auto p0 = Clock::now();
    for (int ms = 0; ms < 200; ++ms) {
        for (int i = 0; i < 20; ++i) flog.wPrintf(2, 6, u"ZOR: paced %ld.%ld\n\r", ms, i);
        zor::os::sleep_ms(1);
    }
    flog.Flush();
    double paced = std::chrono::duration<double>(Clock::now() - p0).count();
    std::printf("  paced 4000 entries over %.2f s: %llu dropped\n", paced,
                static_cast<unsigned long long>(flog.Dropped() - before));
    flog.End();
    std::error_code ec;
    fs::remove(file, ec);
    return 0;
}
