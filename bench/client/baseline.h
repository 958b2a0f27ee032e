// The bare round trip a command is compared with: the same message over the
// same kind of channel to a process that does nothing but answer.
#pragma once

#include "bench_report.h"

namespace client_bench {

struct Baseline {
    const char* figure = "";  // the library's row
    const char* label = "";   // the bare one's
    bench::Goal goal;
};

// Starts the bare peer, on processor `cpu` when it is not -1 (where the
// platform lets a bench place processes); false when there is none.
bool BaselineOpen(Baseline* b, int cpu);
// One bare round trip; true when answered.
bool BaselineRound();
void BaselineClose();
// Keeps the calling process on processor `cpu`; false where it cannot.
bool PinTo(int cpu);
// A processor other than `cpu` this process may run on, or -1.
int OtherCpu(int cpu);

}  // namespace client_bench
