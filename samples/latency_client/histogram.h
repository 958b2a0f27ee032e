// Percentiles from the latency_isr interval histogram. Header-only, no
// platform code, so it is easy to reuse (and to test natively).
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "latency_isr/latency_shared.h"

namespace latency {

struct Summary {
    std::uint64_t intervals = 0;
    double mean_us = 0, min_us = 0, max_us = 0;
    // Interval percentiles.
    double p50_us = 0, p99_us = 0, p999_us = 0;
    // Jitter: distance of an interval from the mean interval.
    double jitter_p50_us = 0, jitter_p99_us = 0, jitter_max_us = 0;
};

// Bucket b covers [b, b+1) * LATENCY_BUCKET_NS; its middle stands for it.
inline double BucketMidUs(std::uint32_t b) {
    return (b + 0.5) * LATENCY_BUCKET_NS / 1000.0;
}

// Smallest value v such that at least q of the weight lies at or below v.
inline double Quantile(const std::vector<std::pair<double, std::uint64_t>>& sorted,
                       std::uint64_t total, double q) {
    if (total == 0) return 0;
    const double want = q * static_cast<double>(total);
    std::uint64_t seen = 0;
    for (const auto& [v, n] : sorted) {
        seen += n;
        if (static_cast<double>(seen) >= want) return v;
    }
    return sorted.back().first;
}

inline Summary Summarize(const LatencyShared& s) {
    Summary r;
    std::vector<std::pair<double, std::uint64_t>> iv, dev;
    std::uint64_t total = 0;
    for (std::uint32_t b = 0; b < LATENCY_BUCKETS; ++b) {
        if (s.buckets[b] == 0) continue;
        iv.emplace_back(BucketMidUs(b), s.buckets[b]);
        total += s.buckets[b];
    }
    r.intervals = total;
    if (total == 0) return r;
    r.mean_us = s.intervals ? static_cast<double>(s.sum_interval_ns) / 1000.0 / s.intervals : 0;
    r.min_us = static_cast<double>(s.min_interval_ns) / 1000.0;
    r.max_us = static_cast<double>(s.max_interval_ns) / 1000.0;
    r.p50_us = Quantile(iv, total, 0.50);
    r.p99_us = Quantile(iv, total, 0.99);
    r.p999_us = Quantile(iv, total, 0.999);
    for (const auto& [v, n] : iv) dev.emplace_back(v > r.mean_us ? v - r.mean_us : r.mean_us - v, n);
    std::sort(dev.begin(), dev.end());
    r.jitter_p50_us = Quantile(dev, total, 0.50);
    r.jitter_p99_us = Quantile(dev, total, 0.99);
    // The exact extremes are known; the bucket middles are not needed there.
    const double hi = r.max_us - r.mean_us, lo = r.mean_us - r.min_us;
    r.jitter_max_us = hi > lo ? hi : lo;
    return r;
}

// Copies a block that another thread keeps writing: retry while the
// generation is odd (update in progress) or changed during the copy.
inline bool Snapshot(const volatile LatencyShared* live, LatencyShared* out, int tries = 100) {
    for (int i = 0; i < tries; ++i) {
        const std::uint32_t g0 = live->generation;
        if (g0 & 1) continue;
        std::atomic_thread_fence(std::memory_order_acquire);
        std::memcpy(out, const_cast<const LatencyShared*>(live), sizeof *out);
        std::atomic_thread_fence(std::memory_order_acquire);
        if (live->generation == g0) return true;
    }
    return false;
}

}  // namespace latency
