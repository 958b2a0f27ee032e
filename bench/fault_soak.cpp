// Fault soak: an ISR module that faults on every event, N events through
// the real OnInterrupt (default 1,000,000; 100,000 is plenty under Wine).
// Prints whether the host survived, the fault lines logged plus those
// counted as dropped (together they must equal the events), resident memory
// and open handles before and after, and the cost of one caught fault
// (an event with the fault minus an event with the same module not
// faulting). Usage: fault_soak [EVENTS]
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bench_report.h"
#include "host/host.h"
#include "os/os.h"
#include "os/peer.h"

namespace {

std::atomic<std::uint64_t> g_faultLines{0};

void CountFaults(void*, std::uint32_t, std::uint32_t, const char* text, std::size_t) {
    if (std::strstr(text, "caused exception")) g_faultLines.fetch_add(1);
}

double UsPerEvent(zor::Host& h, std::uint32_t& seq, std::uint64_t n) {
    const auto t0 = std::chrono::steady_clock::now();
    for (std::uint64_t i = 0; i < n; ++i) h.dispatcher.OnInterrupt(seq++);
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count() / n;
}

}  // namespace

int main(int argc, char** argv) {
    const std::uint64_t events = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1000000;
    zor::Logger log;
    log.SetDebugOutput(false);
    log.SetSink(&CountFaults, nullptr);
    log.Start(u"");
    zor::Host h(log);
    zor::SetRunningHost(&h);
    ZorRegisterPayload reg{};
    std::memcpy(reg.name, u"test_isr" ZOR_MODULE_SUFFIX, sizeof(u"test_isr" ZOR_MODULE_SUFFIX));
    h.registry.RegisterISRProc(zor::os::process_peer(), &reg, sizeof reg);
    auto* module = zor::os::module_load(u"test_isr" ZOR_MODULE_SUFFIX);
    auto faultIn = module ? reinterpret_cast<void (*)(std::uint32_t)>(zor::os::module_symbol(module, "Test_SetFault")) : nullptr;
    if (h.registry.FindModule(u"test_isr" ZOR_MODULE_SUFFIX) == 0 || !faultIn) {
        std::printf("test_isr not found next to this program\n");
        return 1;
    }
    std::uint32_t seq = 1;
    faultIn(0);
    const double clean = UsPerEvent(h, seq, 20000);
    faultIn(ZOR_FN_INTERRUPT);
    UsPerEvent(h, seq, 1000);  // warm-up: first faults set up the alternate stack and the log
    log.Flush();
    const std::uint64_t rss0 = zor::os::resident_bytes(), logged0 = g_faultLines.load(), dropped0 = log.Dropped();
    const std::uint32_t handles0 = zor::os::open_handle_count();

    const double faulting = UsPerEvent(h, seq, events);
    log.Flush();
    const std::uint64_t logged = g_faultLines.load() - logged0, dropped = log.Dropped() - dropped0;
    std::printf("events %llu: host survived; fault lines logged %llu + dropped %llu = %llu (%s)\n",
                (unsigned long long)events, (unsigned long long)logged, (unsigned long long)dropped,
                (unsigned long long)(logged + dropped), logged + dropped == events ? "equal" : "NOT equal");
    std::printf("resident %.1f MiB -> %.1f MiB; open handles %u -> %u\n", rss0 / 1048576.0,
                zor::os::resident_bytes() / 1048576.0, handles0, zor::os::open_handle_count());
    std::printf("event with a caught fault %.2f us, without %.2f us: one caught fault %.2f us\n", faulting,
                clean, faulting - clean);
    bench::Row("caught fault in an ISR (guard, module named, line logged)", faulting - clean,
               "the same event without the fault", clean, "us", bench::MaxValue(5));
    h.registry.UnloadAll();
    zor::SetRunningHost(nullptr);
    log.End();
    return logged + dropped == events ? 0 : 1;
}
