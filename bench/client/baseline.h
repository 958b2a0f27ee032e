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

// Starts the bare peer; false when there is none.
bool BaselineOpen(Baseline* b);
// One bare round trip; true when answered.
bool BaselineRound();
void BaselineClose();

}  // namespace client_bench
