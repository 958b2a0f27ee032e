// The benchmarks' one way of reporting a figure: a row that names the figure,
// gives its value beside the same work done bare (measured in the same run),
// their ratio and the unit, and whether a goal holds. scripts/bench gathers
// the lines that start with "ROW " into build/bench/report.md.
//
// A ratio above 1 always means "costs more than bare": for times it is
// figure / baseline, for rates (a unit ending in "/s") baseline / figure.
#pragma once

#include <algorithm>
#include <chrono>
#include <utility>
#include <cstdio>
#include <cstring>
#include <vector>

namespace bench {

struct Goal {
    enum Kind { kNone, kMaxRatio, kMinValue, kMaxValue } kind = kNone;
    double limit = 0;
};
inline Goal MaxRatio(double r) { return {Goal::kMaxRatio, r}; }
inline Goal MinValue(double v) { return {Goal::kMinValue, v}; }
inline Goal MaxValue(double v) { return {Goal::kMaxValue, v}; }

inline void Row(const char* figure, double value, const char* baseline, double base,
                const char* unit, Goal goal = {}) {
    const std::size_t n = std::strlen(unit);
    const bool rate = n >= 2 && std::strcmp(unit + n - 2, "/s") == 0;
    const double ratio = rate ? (value > 0 ? base / value : 0) : (base > 0 ? value / base : 0);
    char verdict[64] = "";
    if (goal.kind == Goal::kMaxRatio) {
        std::snprintf(verdict, sizeof verdict, "<= %gx: %s", goal.limit,
                      ratio <= goal.limit ? "met" : "not met");
    } else if (goal.kind == Goal::kMinValue) {
        std::snprintf(verdict, sizeof verdict, ">= %.0f: %s", goal.limit,
                      value >= goal.limit ? "met" : "not met");
    } else if (goal.kind == Goal::kMaxValue) {
        std::snprintf(verdict, sizeof verdict, "<= %g %s: %s", goal.limit, unit,
                      value <= goal.limit ? "met" : "not met");
    }
    std::printf("ROW | %s | %.4g | %s | %.4g | %.2fx | %s | %s |\n", figure, value, baseline, base,
                ratio, unit, verdict);
    std::fflush(stdout);
}

// The q-quantile (0..1) of samples; sorts them.
inline double Quantile(std::vector<double>& v, double q) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<std::size_t>(q * static_cast<double>(v.size())))];
}

// p50 and p99 rows of two distributions: the figure's and its baseline's.
inline void Rows(const char* figure, std::vector<double>& value, const char* baseline,
                 std::vector<double>& base, const char* unit, Goal goal = {}) {
    char f[160], b[160];
    for (double q : {0.5, 0.99}) {
        std::snprintf(f, sizeof f, "%s, p%.0f", figure, q * 100);
        std::snprintf(b, sizeof b, "%s, p%.0f", baseline, q * 100);
        Row(f, Quantile(value, q), b, Quantile(base, q), unit, goal);
    }
}

// Nanoseconds per call of f and of g: the best of many short rounds, the two
// taking turns, so that on a busy machine both meet the same quiet moments
// (a long round is almost always interrupted).
template <class F, class G>
std::pair<double, double> BestNsPair(int rounds, int n, F f, G g) {
    double best[2] = {1e300, 1e300};
    for (int r = 0; r < rounds; ++r) {
        for (int which = 0; which < 2; ++which) {
            const auto t0 = std::chrono::steady_clock::now();
            for (int i = 0; i < n; ++i) which ? g() : f();
            const auto t1 = std::chrono::steady_clock::now();
            const double ns = std::chrono::duration<double, std::nano>(t1 - t0).count() / n;
            best[which] = std::min(best[which], ns);
        }
    }
    return {best[0], best[1]};
}

}  // namespace bench
