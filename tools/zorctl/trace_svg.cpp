// A window as an SVG page: above, the whole window as a timeline, one row
// for the wake-up lateness, one for the dispatch (event time) and one per
// ISR, each event a bar as tall as its time; the late event marked in red.
// Below, the late event itself: where its time went, part by part.
#include <algorithm>
#include <cstdio>
#include <set>

#include "trace.h"

namespace zorctl {

namespace {

constexpr double kWidth = 1100, kLeft = 170, kRight = 20, kAnatomyRight = 90, kRowH = 46, kRowGap = 8;

std::string Esc(const std::string& s) {
    std::string o;
    for (char c : s) {
        if (c == '<') o += "&lt;";
        else if (c == '>') o += "&gt;";
        else if (c == '&') o += "&amp;";
        else if (c == '"') o += "&quot;";
        else o += c;
    }
    return o;
}

std::string Fmt(const char* f, double a, double b = 0, double c = 0, double d = 0) {
    char buf[200];
    std::snprintf(buf, sizeof buf, f, a, b, c, d);
    return buf;
}

struct Row {
    std::string label;
    double (*value)(const TraceEvent&, std::uint32_t);
    std::uint32_t slot;
};

double LateOf(const TraceEvent& e, std::uint32_t) { return e.LateKnown() ? e.LateMs() : -1; }
double EventOf(const TraceEvent& e, std::uint32_t) { return e.EventMs(); }
double IsrOf(const TraceEvent& e, std::uint32_t s) { return e.IsrMs(s); }

// One row of bars over the window; bars scaled to the row's largest value.
std::string DrawRow(const TraceWindow& w, const Row& r, double y, double t0, double span) {
    double max = 0;
    for (const TraceEvent& e : w.events) max = std::max(max, r.value(e, r.slot));
    std::string o = Fmt("<rect x='%.1f' y='%.1f' width='%.1f' height='%.1f' fill='#f4f6f8'/>\n", kLeft, y,
                        kWidth - kLeft - kRight, kRowH);
    o += "<text x='" + Fmt("%.1f", kLeft - 8) + "' y='" + Fmt("%.1f", y + kRowH / 2) +
         "' text-anchor='end' font-size='12'>" + Esc(r.label) + "</text>\n";
    o += Fmt("<text x='%.1f' y='%.1f' text-anchor='end' font-size='9' fill='#666'>max %.2f ms</text>\n", kLeft - 8,
             y + kRowH / 2 + 12, max);
    if (max <= 0) return o;
    const double plot = kWidth - kLeft - kRight;
    for (std::size_t i = 0; i < w.events.size(); ++i) {
        const double v = r.value(w.events[i], r.slot);
        if (v < 0) continue;
        const double x = kLeft + (w.events[i].ArrivalMs() - t0) / span * plot;
        const double h = std::max(0.5, v / max * (kRowH - 4));
        o += Fmt("<rect x='%.2f' y='%.2f' width='1' height='%.2f' fill='", x, y + kRowH - h, h) +
             (i == w.mark ? "#d62728" : "#1f77b4") + "'/>\n";
    }
    return o;
}

// The late event from its deadline to its end, one bar per part.
std::string DrawAnatomy(const TraceWindow& w, double y) {
    const TraceEvent& e = w.events[w.mark];
    const double late = e.LateMs(), total = late + e.EventMs();
    const double plot = kWidth - kLeft - kAnatomyRight;
    auto x = [&](double ms) { return kLeft + (total > 0 ? ms / total * plot : 0); };
    std::string o = Fmt("<text x='%.1f' y='%.1f' font-size='13' font-weight='bold'>", kLeft, y) +
                    "The late event, from its deadline to its end</text>\n";
    y += 10;
    struct Bar {
        std::string label;
        double from, len;
        const char* color;
    };
    std::vector<Bar> bars;
    if (e.LateKnown()) bars.push_back({"wake-up", 0, late, "#9467bd"});
    bars.push_back({"deferred list", late, e.DeferredMs(), "#2ca02c"});
    for (const ZorTraceCall& c : e.calls)
        bars.push_back({w.Name(c.slot), late + c.start_ns / 1e6, c.duration_ns / 1e6,
                        (c.flags & ZOR_TRACE_CALL_FAULT) ? "#d62728" : "#ff7f0e"});
    for (const Bar& b : bars) {
        o += "<text x='" + Fmt("%.1f", kLeft - 8) + "' y='" + Fmt("%.1f", y + 13) +
             "' text-anchor='end' font-size='12'>" + Esc(b.label) + "</text>\n";
        o += Fmt("<rect x='%.2f' y='%.1f' width='%.2f' height='16' fill='", x(b.from), y, std::max(1.0, x(b.from + b.len) - x(b.from))) +
             b.color + "'/>\n";
        o += Fmt("<text x='%.2f' y='%.1f' font-size='11'>%.3f ms</text>\n", x(b.from + b.len) + 4, y + 13, b.len);
        y += 22;
    }
    return o;
}

}  // namespace

std::string TraceSvg(const TraceWindow& w, const Cause& cause) {
    if (w.events.empty()) return "<svg xmlns='http://www.w3.org/2000/svg' width='200' height='40'/>\n";
    const double t0 = w.events.front().ArrivalMs();
    const double span = std::max(0.001, w.events.back().ArrivalMs() + w.events.back().EventMs() - t0);
    std::vector<Row> rows{{"wake-up lateness", LateOf, 0}, {"event time", EventOf, 0}};
    std::set<std::uint32_t> slots;
    for (const TraceEvent& e : w.events)
        for (const ZorTraceCall& c : e.calls) slots.insert(c.slot);
    for (std::uint32_t s : slots) rows.push_back({w.Name(s), IsrOf, s});
    const TraceEvent& late = w.events[w.mark];
    const double anatomyRows = 2 + late.calls.size() + 1;
    const double height = 90 + rows.size() * (kRowH + kRowGap) + 40 + anatomyRows * 22 + 20;
    std::string o = Fmt("<svg xmlns='http://www.w3.org/2000/svg' width='%.0f' height='%.0f' font-family='sans-serif'>\n",
                        kWidth, height);
    o += "<rect width='100%' height='100%' fill='white'/>\n";
    o += "<text x='12' y='24' font-size='14' font-weight='bold'>" + Esc(cause.line) + "</text>\n";
    o += "<text x='12' y='42' font-size='12' fill='#444'>" + Esc(cause.before) + "</text>\n";
    double y = 60;
    const double plot = kWidth - kLeft - kRight;
    for (const Row& r : rows) {
        o += DrawRow(w, r, y, t0, span);
        y += kRowH + kRowGap;
    }
    const double mx = kLeft + (late.ArrivalMs() - t0) / span * plot;
    o += Fmt("<line x1='%.2f' y1='52' x2='%.2f' y2='%.1f' stroke='#d62728' stroke-dasharray='3,3'/>\n", mx, mx, y);
    // Time axis: milliseconds from the late event's arrival.
    for (int k = 0; k <= 10; ++k) {
        const double t = t0 + span * k / 10;
        const double x = kLeft + plot * k / 10;
        o += Fmt("<text x='%.1f' y='%.1f' text-anchor='middle' font-size='10' fill='#444'>%+.0f ms</text>\n", x, y + 10,
                 t - late.ArrivalMs());
    }
    o += DrawAnatomy(w, y + 40);
    return o + "</svg>\n";
}

}  // namespace zorctl
