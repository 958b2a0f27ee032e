// What the benchmarks that drive a host in-process share: trivial ISRs
// registered by hand, without module files.
#pragma once

#include <cstdint>

#include "bench_report.h"
#include "host/host.h"
#include "support/wstr.h"

namespace bench {

// A log that keeps nothing (benchmarks measure the host, not its log file).
inline void QuietLog(zor::Logger& log) {
    log.Start(u"");
    log.SetActive("none");
}

// This program's folder with its trailing separator: where the drivers are.
inline void OwnFolder(char16_t (&dir)[260]) {
    zor::os::startup_dir(dir, 260);
    zor::wappend(dir, 260, u"\\");
}

inline std::uint64_t g_trivialCalls = 0;
inline std::uint32_t Trivial(std::uint32_t code, std::uintptr_t arg) {
    g_trivialCalls += code + arg;
    return 0;
}

// Registers `n` slots that hold `entry`, all named "trivial".
inline void AddIsrs(zor::Host& h, int n, ZorGetSetProc entry = Trivial) {
    for (int i = 0; i < n; ++i) {
        const std::uint32_t s = h.slots.Alloc();
        zor::wcopy(h.slots[s].name, 20, u"trivial");
        h.slots[s].kind.store(zor::kKindIsr);
        h.slots[s].number.store(s);
        h.slots[s].entry.store(entry);
        h.slots[s].inUse.store(1);
    }
    h.dispatcher.InvalidateDispatchOrder();
}

// Frees the slots of ISRs registered by hand (the IRQ driver's is left).
inline void FreeIsrs(zor::Host& h) {
    for (std::uint32_t s = 1; s < h.slots.HighWater(); ++s) {
        if (h.slots[s].kind.load() == zor::kKindIsr) h.slots.Free(s);
    }
}

// A whole OnInterrupt with 10 trivial ISRs on two hosts side by side (this
// thread becomes the dispatch thread of both): `with` judged against
// `without`, five runs of the best of 60 rounds. The ISRs go again after.
inline void EventRow(const char* figure, const char* baseline, Goal goal, zor::Host& with, zor::Host& without) {
    zor::Host* hosts[2] = {&with, &without};
    std::uint32_t seq[2] = {0, 0};
    for (int k = 0; k < 2; ++k) {
        AddIsrs(*hosts[k], 10);
        hosts[k]->dispatcher.OnInterrupt(seq[k]);
    }
    RepeatedRow(figure, baseline, "ns", goal, [&] {
        return BestNsPair(60, 2000, [&] { with.dispatcher.OnInterrupt(++seq[0]); },
                          [&] { without.dispatcher.OnInterrupt(++seq[1]); });
    });
    for (zor::Host* h : hosts) FreeIsrs(*h);
}

}  // namespace bench
