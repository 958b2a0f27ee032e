// Running statistic over doubles: count, min, mean, max since the last Reset.
// Fields are relaxed atomics: an ExecISRFunc duration may be added from one
// thread while the dispatch thread reports; a lost update only costs a value.
#pragma once

#include <atomic>
#include <cstdint>

namespace zor {

class CStatistic {
public:
    void Add(double value);
    double Min() const;  // 0.0 when empty
    double Avg() const;  // 0.0 when empty
    double Max() const;  // 0.0 when empty
    std::uint64_t Count() const { return count_.load(std::memory_order_relaxed); }
    void Reset();

private:
    std::atomic<std::uint64_t> count_{0};
    std::atomic<double> sum_{0.0};
    std::atomic<double> min_{0.0};
    std::atomic<double> max_{0.0};
};

}  // namespace zor
