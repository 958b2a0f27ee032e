// zorctl plot: histograms of a sampled stretch of time as one SVG page:
// the wake-up interval, the event time and each ISR's call time, log-log,
// with p50, p99 and max marked.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "stats_commands.h"
#include "stats_view.h"

namespace zorctl {

namespace {

constexpr int kWidth = 960, kPanelHeight = 230, kLeft = 70, kRight = 30, kTop = 60;

struct Panel {
    std::string title;
    std::uint64_t c[ZOR_STATS_BUCKETS];
    Summary s;
};

Panel MakePanel(const std::string& title, const ZorStatsHistogram& now, const ZorStatsHistogram& before) {
    Panel p;
    p.title = title;
    for (std::uint32_t i = 0; i < ZOR_STATS_BUCKETS; ++i) p.c[i] = now.count[i] - before.count[i];
    p.s = Summarise(now, &before);
    return p;
}

std::string TickLabel(int decadeNs) {
    static const char* const units[] = {"ns", "us", "ms", "s"};
    const int u = decadeNs / 3 < 3 ? decadeNs / 3 : 3;
    char b[24];
    std::snprintf(b, sizeof b, "%.0f %s", std::pow(10.0, decadeNs - 3 * u), units[u]);
    return b;
}

std::string Escape(const std::string& s) {
    std::string o;
    for (char c : s) {
        if (c == '<') o += "&lt;";
        else if (c == '>') o += "&gt;";
        else if (c == '&') o += "&amp;";
        else o += c;
    }
    return o;
}

// One panel at vertical offset y0; x and y both logarithmic.
void DrawPanel(std::FILE* f, const Panel& p, int y0, int lo, int hi) {
    const int h = kPanelHeight - 60, w = kWidth - kLeft - kRight, base = y0 + 30 + h;
    std::uint64_t most = 1;
    for (std::uint64_t v : p.c) most = v > most ? v : most;
    const double top = std::ceil(std::log10(static_cast<double>(most) + 1));
    auto x = [&](double ns) { return kLeft + w * (std::log10(ns > 1 ? ns : 1) - lo) / (hi - lo); };
    auto y = [&](double count) { return base - h * std::log10(count + 1) / top; };
    std::fprintf(f, "<text x='%d' y='%d' class='panel'>%s  (%llu counted)</text>\n", kLeft, y0 + 20,
                 Escape(p.title).c_str(), static_cast<unsigned long long>(p.s.n));
    std::fprintf(f, "<rect x='%d' y='%d' width='%d' height='%d' class='frame'/>\n", kLeft, y0 + 30, w, h);
    for (int d = lo; d <= hi; ++d) {
        std::fprintf(f, "<line x1='%.1f' y1='%d' x2='%.1f' y2='%d' class='grid'/>", x(std::pow(10.0, d)), y0 + 30,
                     x(std::pow(10.0, d)), base);
        std::fprintf(f, "<text x='%.1f' y='%d' class='tick' text-anchor='middle'>%s</text>\n", x(std::pow(10.0, d)),
                     base + 14, TickLabel(d).c_str());
    }
    for (int e = 0; e <= static_cast<int>(top); ++e)
        std::fprintf(f, "<text x='%d' y='%.1f' class='tick' text-anchor='end'>%.0f</text>\n", kLeft - 6,
                     y(std::pow(10.0, e) - 1) + 4, std::pow(10.0, e) - (e == 0 ? 1 : 0));
    for (std::uint32_t i = 0; i < ZOR_STATS_BUCKETS; ++i) {
        if (p.c[i] == 0) continue;
        const double l = static_cast<double>(zor_stats_bucket_low_ns(i));
        const double r = i + 1 < ZOR_STATS_BUCKETS ? static_cast<double>(zor_stats_bucket_low_ns(i + 1)) : l * 1.125;
        std::fprintf(f, "<rect x='%.1f' y='%.1f' width='%.1f' height='%.1f' class='bar'/>\n", x(l > 0 ? l : 1),
                     y(static_cast<double>(p.c[i])), x(r) - x(l > 0 ? l : 1), base - y(static_cast<double>(p.c[i])));
    }
    if (p.s.n == 0) return;
    const struct { const char* name; double ms; const char* cls; } marks[] = {
        {"p50", p.s.p50, "p50"}, {"p99", p.s.p99, "p99"}, {"max", p.s.max, "max"}};
    for (int k = 0; k < 3; ++k) {
        const double mx = x(marks[k].ms * 1e6);
        std::fprintf(f, "<line x1='%.1f' y1='%d' x2='%.1f' y2='%d' class='%s'/>", mx, y0 + 30, mx, base, marks[k].cls);
        // Labels near the right edge go to the left of their line.
        const bool left = mx > kWidth - kRight - 110;
        std::fprintf(f, "<text x='%.1f' y='%d' class='%s label' text-anchor='%s'>%s %s</text>\n",
                     left ? mx - 3 : mx + 3, y0 + 42 + 13 * k, marks[k].cls, left ? "end" : "start",
                     marks[k].name, Duration(marks[k].ms, 0).c_str());
    }
}

}  // namespace

int Plot(const StatsOptions& o) {
    const std::uint32_t pid = ResolvePid(o);
    if (pid == 0) return 3;
    StatsReader r;
    if (int rc = r.Open(pid)) return rc;
    Snapshot before, now;
    r.Take(&before);
    std::this_thread::sleep_for(std::chrono::seconds(o.seconds));
    r.Take(&now);
    const ZorStats& s = *now.s;
    const ZorStats& b = *before.s;
    std::vector<Panel> panels;
    panels.push_back(MakePanel("Wake-up interval", s.ev.wakeup, b.ev.wakeup));
    panels.push_back(MakePanel("Event time (arrival to end of accounting)", s.ev.event, b.ev.event));
    for (std::uint32_t i = 1; i < ZOR_STATS_SLOTS; ++i) {
        const ZorStatsSlot& m = s.slots[i];
        if (m.number == 0 || m.kind != 2) continue;
        // A slot that changed hands during the sample counts from zero.
        static const ZorStatsHistogram kNone{};
        const bool same = b.slots[i].number == m.number && m.calls >= b.slots[i].calls;
        panels.push_back(MakePanel("ISR #" + std::to_string(i) + " " + Utf8(m.name, 20) + ": Interrupt call time",
                                   m.call, same ? b.slots[i].call : kNone));
    }
    // One time axis for every panel: whole decades around what was counted.
    int lo = 99, hi = -1;
    for (const Panel& p : panels)
        for (std::uint32_t i = 0; i < ZOR_STATS_BUCKETS; ++i) {
            if (!p.c[i]) continue;
            const double l = static_cast<double>(zor_stats_bucket_low_ns(i));
            lo = std::min(lo, static_cast<int>(std::floor(std::log10(l > 1 ? l : 1))));
            hi = std::max(hi, static_cast<int>(std::ceil(std::log10(l * 1.125))));
        }
    if (hi < 0) lo = 2, hi = 7;
    if (hi - lo < 2) hi = lo + 2;

    std::FILE* f = std::fopen(o.svg, "wb");
    if (f == nullptr) {
        std::fprintf(stderr, "zorctl: cannot write %s\n", o.svg);
        return 1;
    }
    const int height = kTop + kPanelHeight * static_cast<int>(panels.size()) + 10;
    std::fprintf(f, "<svg xmlns='http://www.w3.org/2000/svg' width='%d' height='%d' font-family='sans-serif'>\n"
                    "<style>.panel{font-size:14px;font-weight:bold}.tick{font-size:11px;fill:#444}"
                    ".label{font-size:11px}.frame{fill:#fafafa;stroke:#888}.grid{stroke:#ddd}"
                    ".bar{fill:#4a78b5}.p50{stroke:#2a9d3a;fill:#2a9d3a}.p99{stroke:#e08a00;fill:#e08a00}"
                    ".max{stroke:#c62828;fill:#c62828}</style>\n"
                    "<rect width='100%%' height='100%%' fill='white'/>\n",
                 kWidth, height);
    const std::string driver = s.info.irq_driver[0] ? Utf8(s.info.irq_driver, 20) : "(none)";
    std::fprintf(f, "<text x='%d' y='28' font-size='18' font-weight='bold'>ZOR %s, host pid %lu, driver %s: %.1f s sampled</text>\n",
                 kLeft, Version(s).c_str(), static_cast<unsigned long>(s.host_pid), Escape(driver).c_str(),
                 (now.tickMs - before.tickMs) / 1000.0);
    std::fprintf(f, "<text x='%d' y='46' class='tick'>%llu events; counts on a log scale; bucket width 1/8 octave</text>\n",
                 kLeft, static_cast<unsigned long long>(s.ev.events - b.ev.events));
    for (std::size_t k = 0; k < panels.size(); ++k) DrawPanel(f, panels[k], kTop + kPanelHeight * static_cast<int>(k), lo, hi);
    std::fprintf(f, "</svg>\n");
    const bool ok = std::fclose(f) == 0;
    if (ok) std::printf("%s\n", o.svg);
    return ok ? 0 : 1;
}

}  // namespace zorctl
