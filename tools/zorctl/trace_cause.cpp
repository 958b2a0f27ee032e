// The cause of a late event: its time split into wake-up lateness, the
// deferred list, each ISR and the host's own remainder, the largest part
// named first; and whether that part was slow in the events before.
#include <algorithm>
#include <cstdio>

#include "trace.h"

namespace zorctl {

namespace {

struct Part {
    std::string name;
    double ms;
    std::int64_t slot;  // -1: not an ISR
    bool wake;
};

std::string Ms(double ms) {
    char b[32];
    std::snprintf(b, sizeof b, "%.2f ms", ms);
    return b;
}

std::string PartText(const Part& p) { return p.name + " " + Ms(p.ms) + (p.wake ? " late" : ""); }

// The same part's time in another event (-1 when it had none).
double PartMs(const Part& p, const TraceEvent& e) {
    if (p.wake) return e.LateKnown() ? e.LateMs() : -1;
    if (p.slot >= 0) return e.IsrMs(static_cast<std::uint32_t>(p.slot));
    if (p.name == "deferred list") return e.DeferredMs();
    return -1;
}

std::string Before(const TraceWindow& w, const Part& p) {
    // Slow: at least half of what it took in the late event.
    const double slow = p.ms / 2;
    std::size_t n = 0, slowCount = 0;
    double max = 0;
    std::uint32_t lastSlow = 0;
    for (std::size_t i = 0; i < w.mark; ++i) {
        const double ms = PartMs(p, w.events[i]);
        if (ms < 0) continue;
        ++n;
        max = std::max(max, ms);
        if (ms >= slow) ++slowCount, lastSlow = w.events[i].head.sequence;
    }
    char b[240];
    if (n == 0) {
        std::snprintf(b, sizeof b, "before it: no earlier event of %s in the window", p.name.c_str());
    } else if (slowCount == 0) {
        std::snprintf(b, sizeof b, "before it: %s was not slow in the %zu events before (at most %s)",
                      p.name.c_str(), n, Ms(max).c_str());
    } else {
        std::snprintf(b, sizeof b, "before it: %s was slow in %zu of the %zu events before (%s or more), last in event %lu",
                      p.name.c_str(), slowCount, n, Ms(slow).c_str(), static_cast<unsigned long>(lastSlow));
    }
    return b;
}

}  // namespace

double TraceEvent::IsrMs(std::uint32_t slot) const {
    double ms = -1;
    for (const ZorTraceCall& c : calls)
        if (c.slot == slot) ms = (ms < 0 ? 0 : ms) + c.duration_ns / 1e6;
    return ms;
}

std::string TraceWindow::Name(std::uint32_t slot) const {
    char b[48];
    std::snprintf(b, sizeof b, "ISR #%lu", static_cast<unsigned long>(slot));
    const std::string known = slot < names.size() ? names[slot] : "";
    return known.empty() ? b : std::string(b) + " " + known;
}

Cause FindCause(const TraceWindow& w) {
    Cause c;
    if (w.mark >= w.events.size()) return c;
    const TraceEvent& e = w.events[w.mark];
    std::vector<Part> parts;
    double isrs = 0;
    for (const ZorTraceCall& call : e.calls) {
        auto same = std::find_if(parts.begin(), parts.end(), [&](const Part& p) { return p.slot == call.slot; });
        const double ms = call.duration_ns / 1e6;
        if (same == parts.end()) parts.push_back({w.Name(call.slot), ms, call.slot, false});
        else same->ms += ms;
        isrs += ms;
    }
    parts.push_back({"deferred list", e.DeferredMs(), -1, false});
    parts.push_back({"host", std::max(0.0, e.EventMs() - e.DeferredMs() - isrs), -1, false});
    if (e.LateKnown()) parts.push_back({"wake-up", e.LateMs(), -1, true});
    const double total = e.EventMs() + e.LateMs();
    const auto largest = std::max_element(parts.begin(), parts.end(),
                                          [](const Part& a, const Part& b) { return a.ms < b.ms; });
    const Part top = *largest;
    char head[160];
    std::snprintf(head, sizeof head, "event %lu took %s: %s (%.0f%%)", static_cast<unsigned long>(e.head.sequence),
                  Ms(total).c_str(), PartText(top).c_str(), total > 0 ? top.ms / total * 100 : 0.0);
    c.line = head;
    c.slot = top.slot;
    // The other ISRs only where they count (a tenth or more); the host's
    // own parts always.
    for (const Part& p : parts) {
        if (&p == &*largest || (p.slot >= 0 && p.ms < total / 10)) continue;
        c.line += ", " + PartText(p);
    }
    if (!e.LateKnown()) c.line += ", wake-up lateness unknown";
    c.before = Before(w, top);
    return c;
}

}  // namespace zorctl
