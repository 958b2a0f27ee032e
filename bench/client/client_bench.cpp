// Round trips a client pays, measured against a running host:
//   client_bench [--pid HOSTPID] [--rounds N] [--trigger] [--cpu C]
// --cpu: the processor the host was started on (the bench pins it there);
// the command is then compared with the client on that processor and on
// another one, the bare echo always on C.
// --trigger: the host runs trigger.irq, which makes no events by itself; it
// runs free for the ExecISRFunc rows only, so that the other rows meet an
// idle host.
// Registers the latency sample's module for the duration. Prints min / avg
// / p99 / max in microseconds per operation. The command's round trip is
// also reported against the same message over a bare channel of the same
// kind (baseline.h): on Windows the bare dialog, when one runs; on POSIX an
// echo process over a socketpair.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "baseline.h"
#include "bench_report.h"
#include "zor/zor_client.h"

namespace {

double NowUs() {
    const auto t = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double, std::micro>(t).count();
}

void SleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// Command 6 against the bare channel, the two taking turns so that both
// meet the same moments of a busy machine, five runs. The
// echo runs on `serverCpu` (where the host was started) and this process on
// `clientCpu`; -1 leaves a side to the system. Placement is measured, not
// left to chance: waking a process on an idle processor of a virtual machine
// costs more than everything else in a round trip.
void Compare(ZorConnection* c, int rounds, int serverCpu, int clientCpu, const char* where) {
    client_bench::Baseline b;
    if (!client_bench::BaselineOpen(&b, serverCpu)) return;
    if (clientCpu >= 0 && !client_bench::PinTo(clientCpu)) std::fprintf(stderr, "client_bench: not placed\n");
    char figure[200];
    std::snprintf(figure, sizeof figure, "%s%s", b.figure, where);
    bench::RepeatedRows(figure, b.label, "us", b.goal, [&] {
        std::vector<double> host, baseline;
        std::uint32_t r = 0;
        for (int i = 0; i < rounds; ++i) {
            const double t0 = NowUs();
            zor_irq_query(c, &r);
            const double t1 = NowUs();
            client_bench::BaselineRound();
            host.push_back(t1 - t0);
            baseline.push_back(NowUs() - t1);
        }
        return std::pair{host, baseline};
    });
    client_bench::BaselineClose();
}

template <typename F>
void Measure(const char* name, int rounds, F&& op) {
    std::vector<double> us;
    us.reserve(rounds);
    int failures = 0;
    for (int i = 0; i < rounds; ++i) {
        const double t0 = NowUs();
        if (op() != ZOR_OK) ++failures;
        us.push_back(NowUs() - t0);
    }
    std::sort(us.begin(), us.end());
    double sum = 0;
    for (double v : us) sum += v;
    std::printf("%-34s %7d  %9.1f %9.1f %9.1f %9.1f  %s\n", name, rounds, us.front(), sum / rounds,
                us[std::min<std::size_t>(us.size() - 1, us.size() * 99 / 100)], us.back(),
                failures ? "FAILURES" : "");
}

}  // namespace

int main(int argc, char** argv) {
    unsigned long pid = 0;
    int rounds = 2000;
    bool trigger = false;
    int cpu = -1;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--trigger")) trigger = true;
        else if (i + 1 < argc && !std::strcmp(argv[i], "--pid")) pid = std::strtoul(argv[++i], nullptr, 0);
        else if (i + 1 < argc && !std::strcmp(argv[i], "--rounds")) rounds = std::atoi(argv[++i]);
        else if (i + 1 < argc && !std::strcmp(argv[i], "--cpu")) cpu = std::atoi(argv[++i]);
    }
    ZorConnection* c = nullptr;
    int st = pid ? zor_connect_pid(&c, pid, 5000) : zor_connect(&c, 5000);
    if (st != ZOR_OK) {
        std::fprintf(stderr, "client_bench: %s\n", zor_strerror(st));
        return 3;
    }
    std::uint32_t mod = 0, r = 0;
    ZorView shm{};
    if ((st = zor_register_module(c, ZOR_BENCH_MODULE, 8192, &mod, &shm)) != ZOR_OK ||
        (st = zor_pipe_open(c)) != ZOR_OK || (st = zor_system_area(c, 0, nullptr)) != ZOR_OK) {
        std::fprintf(stderr, "client_bench: set-up: %s\n", zor_strerror(st));
        zor_disconnect(c);
        return 1;
    }
    unsigned char body[64] = {};
    std::vector<unsigned char> big(65536);
    std::printf("%-34s %7s  %9s %9s %9s %9s   (microseconds)\n", "operation", "rounds", "min", "avg", "p99", "max");
    Measure("command 6 (irq-query)", rounds, [&] { return zor_irq_query(c, &r); });
    Measure("module call, command 5, 64 B", rounds, [&] { return zor_module_call(c, mod, 0, body, 64, &r); });
    // The most one command carries everywhere (a Linux datagram holds 64 KiB).
    Measure("module call, command 5, 64 KiB - 12 B", rounds / 4, [&] {
        return zor_module_call(c, mod, 0, big.data(), static_cast<std::uint32_t>(big.size()) - 12, &r);
    });
    Measure("pipe request, 64 B", rounds, [&] { return zor_pipe_call(c, mod, 0, body, 64, &r); });
    Measure("pipe request, 64 KiB", rounds / 4, [&] {
        return zor_pipe_call(c, mod, 0, big.data(), static_cast<std::uint32_t>(big.size()), &r);
    });
    if (trigger) zor_irq_control(c, ZOR_TRIGGER_FREE_RUN, nullptr);
    Measure("ExecISRFunc queued, no wait", rounds, [&] {
        int s = zor_exec_isr_func(c, mod, 2, body, 16, 0, &r);
        if (s == ZOR_E_QUEUE_FULL) SleepMs(1);
        return s;
    });
    SleepMs(50);
    Measure("ExecISRFunc waited (next event)", rounds / 4, [&] { return zor_exec_isr_func(c, mod, 2, nullptr, 0, 2000, &r); });
    if (trigger) zor_irq_control(c, 0, nullptr);
    zor_pipe_close(c);
    zor_unregister_module(c, mod);
    zor_unmap(&shm);
    if (cpu < 0) {
        Compare(c, rounds, -1, -1, "");
    } else {
        const int other = client_bench::OtherCpu(cpu);  // before this process is placed
        Compare(c, rounds, cpu, cpu, ", client on the host's processor");
        if (other >= 0) Compare(c, rounds, cpu, other, ", client on another processor");
    }
    zor_disconnect(c);
    return 0;
}
