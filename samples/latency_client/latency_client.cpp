// latency_client: a sample client of the ZOR host.
//
// It registers the latency_isr module with shared memory, resets the
// module's histogram through ExecISRFunc, then reads the histogram that the
// module fills on every interrupt event and prints a live line about once a
// second, the percentiles at the end, and unregisters the module.
//
//   latency_client [--seconds N] [--pid HOSTPID] [--module NAME]
//
// Exit codes: 0 ok, 1 failure, 3 no host running. The same source builds
// for Windows and Linux.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "latency_client/histogram.h"
#include "zor/zor_client.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;
extern "C" void OnInterruptSignal(int) { g_stop = 1; }

// Milliseconds on a monotonic clock.
unsigned long long NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int Fail(const char* what, int st) {
    std::fprintf(stderr, "latency_client: %s: %s\n", what, zor_strerror(st));
    return st == ZOR_E_NO_HOST || st == ZOR_E_HOST_GONE ? 3 : 1;
}

void PrintLive(unsigned second, const LatencyShared& now, std::uint32_t prevEvents,
               double elapsedS, std::uint32_t sequence) {
    const latency::Summary s = latency::Summarize(now);
    const double rate = elapsedS > 0 ? (now.events - prevEvents) / elapsedS : 0;
    std::printf("[%3u s] events %8lu  rate %7.1f/s  jitter p50 %7.1f  p99 %7.1f  max %8.1f us"
                "  load %5.1f%%  seq %lu\n",
                second, static_cast<unsigned long>(now.events), rate, s.jitter_p50_us,
                s.jitter_p99_us, s.jitter_max_us, now.load_permille / 10.0,
                static_cast<unsigned long>(sequence));
    std::fflush(stdout);
}

void PrintFinal(const LatencyShared& h) {
    const latency::Summary s = latency::Summarize(h);
    std::printf("\nintervals between Interrupt calls (%llu measured, %lu sequence gaps):\n",
                static_cast<unsigned long long>(s.intervals),
                static_cast<unsigned long>(h.sequence_gaps));
    std::printf("  min %9.1f us   mean %9.1f us   max %9.1f us\n", s.min_us, s.mean_us, s.max_us);
    std::printf("  p50 %9.1f us   p99  %9.1f us   p99.9 %7.1f us\n", s.p50_us, s.p99_us, s.p999_us);
    std::printf("  jitter p50 %.1f us  p99 %.1f us  max %.1f us\n", s.jitter_p50_us,
                s.jitter_p99_us, s.jitter_max_us);
    // One line for scripts and tests.
    std::printf("summary events=%lu intervals=%llu mean_us=%.1f p50_us=%.1f p99_us=%.1f "
                "max_us=%.1f gaps=%lu resets=%lu\n",
                static_cast<unsigned long>(h.events), static_cast<unsigned long long>(s.intervals),
                s.mean_us, s.p50_us, s.p99_us, s.max_us, static_cast<unsigned long>(h.sequence_gaps),
                static_cast<unsigned long>(h.resets));
}

}  // namespace

int main(int argc, char** argv) {
    unsigned seconds = 10;
    unsigned long hostPid = 0;
    const char* module = LATENCY_ISR_FILE;  // latency_isr.dll, latency_isr.so
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--seconds") && i + 1 < argc) seconds = std::strtoul(argv[++i], nullptr, 10);
        else if (!std::strcmp(argv[i], "--pid") && i + 1 < argc) hostPid = std::strtoul(argv[++i], nullptr, 0);
        else if (!std::strcmp(argv[i], "--module") && i + 1 < argc) module = argv[++i];
        else {
            std::fprintf(stderr, "usage: latency_client [--seconds N] [--pid HOSTPID] [--module NAME]\n");
            return 2;
        }
    }

    // 1. Find the host. Every call below is bounded by this time-out.
    ZorConnection* c = nullptr;
    int st = hostPid ? zor_connect_pid(&c, hostPid, 5000) : zor_connect(&c, 5000);
    if (st != ZOR_OK) return Fail("connect", st);

    // 2. Register the module with room for its histogram. The host loads the
    //    module, hands it the memory in Initialize, and returns the memory to us
    //    already mapped: the module writes, we read the same bytes.
    std::uint32_t mod = 0;
    ZorView shm{};
    st = zor_register_module(c, module, sizeof(LatencyShared), &mod, &shm);
    if (st != ZOR_OK) {
        zor_disconnect(c);
        return Fail("register", st);
    }
    auto* live = static_cast<const volatile LatencyShared*>(shm.base);
    std::printf("registered %s as module %lu (%lu bytes shared)\n", module,
                static_cast<unsigned long>(mod), static_cast<unsigned long>(shm.size));

    // 3. The system area shows the host's event sequence number.
    const ZorSystemSharedArea* area = nullptr;
    st = zor_system_area(c, 0, &area);
    int rc = 0;
    if (st == ZOR_OK) {
        // 4. Reset through ExecISRFunc: queued in the system area, run by the
        //    host on its dispatch thread between two events, so the module
        //    needs no lock against its own Interrupt. We wait for the answer.
        std::uint32_t resets = 0;
        st = zor_exec_isr_func(c, mod, LATENCY_FN_RESET, nullptr, 0, 3000, &resets);
        if (st == ZOR_OK)
            std::printf("histogram reset through ExecISRFunc (reset #%lu)\n",
                        static_cast<unsigned long>(resets));
        else
            rc = Fail("reset", st);
    } else {
        rc = Fail("system area", st);
    }

    // 5. Watch it fill: one line a second.
    std::signal(SIGINT, OnInterruptSignal);  // Ctrl+C: print what we have, then leave
    LatencyShared snap{}, prev{};
    latency::Snapshot(live, &prev);
    const unsigned long long t0 = NowMs();
    unsigned long long last = t0;
    for (unsigned s = 1; rc == 0 && !g_stop && s <= seconds; ++s) {
        while (!g_stop && NowMs() < t0 + s * 1000ull) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (!zor_host_alive(c)) {
            rc = Fail("watch", ZOR_E_HOST_GONE);
            break;
        }
        const unsigned long long now = NowMs();
        if (!latency::Snapshot(live, &snap)) continue;  // module too busy to copy; next time
        PrintLive(s, snap, prev.events, (now - last) / 1000.0, area ? area->sequence : 0);
        prev = snap;
        last = now;
    }

    // 6. The percentiles, then leave: unregister, unmap, disconnect.
    if (latency::Snapshot(live, &snap)) PrintFinal(snap);
    zor_unmap(&shm);
    if (zor_host_alive(c)) {
        st = zor_unregister_module(c, mod);
        if (st != ZOR_OK && rc == 0) rc = Fail("unregister", st);
    }
    zor_disconnect(c);
    return rc;
}
