// What zorctl makes of the statistics area: snapshots, their differences,
// percentiles of the histograms, and the texts as UTF-8.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "zor/zor_client.h"

namespace zorctl {

// Percentiles of a histogram in milliseconds (middle of the bucket; within
// 5 % of the true value). n = 0: nothing counted, every figure 0.
struct Summary {
    std::uint64_t n = 0;
    double p50 = 0, p99 = 0, p999 = 0, max = 0;
};
// Of `now`, or of what was counted between `before` and `now`.
Summary Summarise(const ZorStatsHistogram& now, const ZorStatsHistogram* before = nullptr);
// Middle of a bucket in milliseconds.
double BucketMidMs(std::uint32_t i);

struct Snapshot {
    std::unique_ptr<ZorStats> s{new ZorStats{}};
    std::uint64_t tickMs = 0;  // when it was taken (this process's clock)
};

// The mapped area of one host, or the reason there is none.
class StatsReader {
public:
    ~StatsReader();
    // 0 when mapped; else the exit code, with the reason on stderr.
    int Open(std::uint32_t pid);
    bool Take(Snapshot* out) const;
    const ZorStats* Area() const { return area_; }

private:
    const ZorStats* area_ = nullptr;
    ZorView view_{};
};

std::string Utf8(const std::uint16_t* s, std::size_t cap);
// "1.23 ms", "850 ns", right-aligned in `width` (0: not padded).
std::string Duration(double ms, int width = 9);
std::string Uptime(std::uint64_t startMs);
std::string Version(const ZorStats& s);

}  // namespace zorctl
