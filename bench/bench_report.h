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

inline double RatioOf(double value, double base, const char* unit) {
    const std::size_t n = std::strlen(unit);
    const bool rate = n >= 2 && std::strcmp(unit + n - 2, "/s") == 0;
    return rate ? (value > 0 ? base / value : 0) : (base > 0 ? value / base : 0);
}

inline bool Holds(const Goal& goal, double value, double ratio) {
    switch (goal.kind) {
    case Goal::kMaxRatio: return ratio <= goal.limit;
    case Goal::kMinValue: return value >= goal.limit;
    case Goal::kMaxValue: return value <= goal.limit;
    default: return true;
    }
}

// `spread`, when given, is the lowest and highest figure a goal was judged
// on in repeated runs (ratios for a ratio goal, values otherwise): a spread
// that crosses the goal makes the verdict "noisy", whatever the median says.
inline void Row(const char* figure, double value, const char* baseline, double base,
                const char* unit, Goal goal = {}, const double* spread = nullptr) {
    const double ratio = RatioOf(value, base, unit);
    char verdict[96] = "";
    const char* word = Holds(goal, value, ratio) ? "met" : "not met";
    char range[48] = "";
    if (spread) {
        if (Holds(goal, spread[0], spread[0]) != Holds(goal, spread[1], spread[1])) word = "noisy";
        std::snprintf(range, sizeof range, " (5 runs: %.3g to %.3g)", spread[0], spread[1]);
    }
    if (goal.kind == Goal::kMaxRatio) {
        std::snprintf(verdict, sizeof verdict, "<= %gx: %s%s", goal.limit, word, range);
    } else if (goal.kind == Goal::kMinValue) {
        std::snprintf(verdict, sizeof verdict, ">= %.0f: %s%s", goal.limit, word, range);
    } else if (goal.kind == Goal::kMaxValue) {
        std::snprintf(verdict, sizeof verdict, "<= %g %s: %s%s", goal.limit, unit, word, range);
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

// A row with a goal, measured in five runs, each run the figure and its
// baseline side by side (measure() returns {value, baseline}): the run with
// the median judged figure is reported, with the spread of all five.
constexpr int kRuns = 5;

template <class M>
void RepeatedRow(const char* figure, const char* baseline, const char* unit, Goal goal, M measure) {
    struct Run {
        double value, base, judged;
    } runs[kRuns];
    for (Run& r : runs) {
        const auto [value, base] = measure();
        r = {value, base, goal.kind == Goal::kMaxRatio ? RatioOf(value, base, unit) : value};
    }
    std::sort(runs, runs + kRuns, [](const Run& a, const Run& b) { return a.judged < b.judged; });
    const double spread[2] = {runs[0].judged, runs[kRuns - 1].judged};
    Row(figure, runs[kRuns / 2].value, baseline, runs[kRuns / 2].base, unit, goal, spread);
}

// p50 and p99 rows of a figure and its baseline, each judged on five runs;
// measure() returns one run's samples, {figure's, baseline's}.
template <class M>
void RepeatedRows(const char* figure, const char* baseline, const char* unit, Goal goal, M measure) {
    char f[240], b[240];
    for (double q : {0.5, 0.99}) {
        std::snprintf(f, sizeof f, "%.200s, p%.0f", figure, q * 100);
        std::snprintf(b, sizeof b, "%.200s, p%.0f", baseline, q * 100);
        RepeatedRow(f, b, unit, goal, [&] {
            auto [value, base] = measure();
            return std::pair{Quantile(value, q), Quantile(base, q)};
        });
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
