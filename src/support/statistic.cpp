// Plain loads and stores rather than read-modify-write: one thread adds to a
// statistic at a time in practice, and a lost update under a race only
// costs a value, while Add stays a handful of instructions on the per-event
// path.
#include "support/statistic.h"

namespace zor {

namespace {
constexpr auto kRelaxed = std::memory_order_relaxed;
}

void CStatistic::Add(double value) {
    std::uint64_t n = count_.load(kRelaxed);
    if (n == 0 || value < min_.load(kRelaxed)) min_.store(value, kRelaxed);
    if (n == 0 || value > max_.load(kRelaxed)) max_.store(value, kRelaxed);
    sum_.store((n == 0 ? 0.0 : sum_.load(kRelaxed)) + value, kRelaxed);
    count_.store(n + 1, kRelaxed);
}

double CStatistic::Min() const { return count_.load(kRelaxed) ? min_.load(kRelaxed) : 0.0; }

double CStatistic::Max() const { return count_.load(kRelaxed) ? max_.load(kRelaxed) : 0.0; }

double CStatistic::Avg() const {
    std::uint64_t n = count_.load(kRelaxed);
    return n ? sum_.load(kRelaxed) / static_cast<double>(n) : 0.0;
}

void CStatistic::Reset() {
    count_.store(0, kRelaxed);
    sum_.store(0.0, kRelaxed);
    min_.store(0.0, kRelaxed);
    max_.store(0.0, kRelaxed);
}

}  // namespace zor
