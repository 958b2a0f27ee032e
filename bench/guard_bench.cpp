// Cost of the fault guard and of the clock on the per-event path: an empty
// guarded call against a plain indirect call, a caught fault, and one
// reading of now_ms() and tick_ms(). Prints the best of many short rounds:
// on a busy machine a long round is almost always interrupted.
#include <chrono>
#include <cstdint>
#include <cstdio>

#include "bench_report.h"
#include "os/os.h"

namespace os = zor::os;

namespace {

void Empty(void* p) { ++*static_cast<std::uint64_t*>(p); }
volatile int* volatile g_bad = reinterpret_cast<volatile int*>(16);
void Fault(void*) { (void)*g_bad; }
void (*volatile g_target)(void*) = Empty;

template <class F>
double BestNs(int rounds, int n, F f) {
    double best = 1e300;
    for (int r = 0; r < rounds; ++r) {
        auto t0 = std::chrono::steady_clock::now();
        for (int i = 0; i < n; ++i) f();
        auto t1 = std::chrono::steady_clock::now();
        double ns = std::chrono::duration<double, std::nano>(t1 - t0).count() / n;
        if (ns < best) best = ns;
    }
    return best;
}

}  // namespace

int main() {
    std::uint64_t counter = 0;
    os::Fault fault{};
    volatile double sink = 0;
    volatile std::uint32_t tsink = 0;

    std::printf("clock: %s\n", os::clock_name());
    double plain = BestNs(300, 10000, [&] { g_target(&counter); });
    double guarded = BestNs(300, 10000, [&] { os::guarded_run(g_target, &counter, &fault); });
    double nested = BestNs(300, 10000, [&] {
        os::guarded_run([](void* p) {
            os::Fault f;
            os::guarded_run(g_target, p, &f);
        }, &counter, &fault);
    });
    double caught = BestNs(50, 20, [&] { os::guarded_run(Fault, nullptr, &fault); });
    double now = BestNs(300, 10000, [&] { sink = os::now_ms(); });
    double tick = BestNs(300, 10000, [&] { tsink = os::tick_ms(); });

    bench::Row("guarded empty call", guarded, "plain indirect call", plain, "ns");
    std::printf("two nested guards       %8.2f ns\n", nested);
    std::printf("caught fault            %8.2f us\n", caught / 1000.0);
    std::printf("now_ms()                %8.2f ns\n", now);
    std::printf("tick_ms()               %8.2f ns\n", tick);
    return counter == 0;
}
