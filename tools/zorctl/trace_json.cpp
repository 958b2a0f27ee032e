// A window as Chrome trace-event JSON, which Perfetto's UI and
// chrome://tracing open: one process (the host), a track for the dispatch
// thread and one per ISR ("X" complete events, ts/dur in microseconds),
// counter tracks for wake-up lateness and event time, instant events for
// sequence gaps, faults, aborted calls and the late event. One event a line,
// in time order.
#include <algorithm>
#include <cstdio>
#include <set>

#include "stats_commands.h"
#include "trace.h"

namespace zorctl {

namespace {

constexpr std::uint32_t kDispatchTid = 1;
std::uint32_t IsrTid(std::uint32_t slot) { return 100 + slot; }


struct Line {
    double ts;
    std::string text;
};

class Writer {
public:
    explicit Writer(std::uint32_t pid) : pid_(pid) {}
    void Meta(const char* what, std::uint32_t tid, const std::string& args) {
        char b[160];
        std::snprintf(b, sizeof b, "{\"ph\": \"M\", \"name\": \"%s\", \"pid\": %lu, \"tid\": %lu, \"args\": ", what,
                      static_cast<unsigned long>(pid_), static_cast<unsigned long>(tid));
        meta_.push_back(b + args + "}");
    }
    void Complete(const std::string& name, std::uint32_t tid, double tsUs, double durUs, const std::string& args) {
        char b[160];
        std::snprintf(b, sizeof b, ", \"ph\": \"X\", \"ts\": %.3f, \"dur\": %.3f, \"pid\": %lu, \"tid\": %lu, \"args\": ",
                      tsUs, durUs, static_cast<unsigned long>(pid_), static_cast<unsigned long>(tid));
        lines_.push_back({tsUs, "{\"name\": " + JsonQuoted(name) + b + args + "}"});
    }
    void Counter(const char* name, double tsUs, const char* key, double value) {
        char b[200];
        std::snprintf(b, sizeof b, "{\"name\": \"%s\", \"ph\": \"C\", \"ts\": %.3f, \"pid\": %lu, \"args\": {\"%s\": %.3f}}",
                      name, tsUs, static_cast<unsigned long>(pid_), key, value);
        lines_.push_back({tsUs, b});
    }
    // Scope "t": on its track; "g": across the whole trace.
    void Instant(const std::string& name, std::uint32_t tid, double tsUs, char scope, const std::string& args) {
        char b[160];
        std::snprintf(b, sizeof b, ", \"ph\": \"i\", \"s\": \"%c\", \"ts\": %.3f, \"pid\": %lu, \"tid\": %lu, \"args\": ",
                      scope, tsUs, static_cast<unsigned long>(pid_), static_cast<unsigned long>(tid));
        lines_.push_back({tsUs, "{\"name\": " + JsonQuoted(name) + b + args + "}"});
    }
    std::string Text(const std::string& other) {
        std::stable_sort(lines_.begin(), lines_.end(), [](const Line& a, const Line& b) { return a.ts < b.ts; });
        std::string out = "{\"traceEvents\": [\n";
        bool first = true;
        auto add = [&](const std::string& s) {
            out += (first ? "" : ",\n") + s;
            first = false;
        };
        for (const std::string& m : meta_) add(m);
        for (const Line& l : lines_) add(l.text);
        return out + "\n],\n\"displayTimeUnit\": \"ms\",\n\"otherData\": " + other + "}\n";
    }

private:
    std::uint32_t pid_;
    std::vector<std::string> meta_;
    std::vector<Line> lines_;
};

std::string Num(const char* key, double v) {
    char b[64];
    std::snprintf(b, sizeof b, "\"%s\": %.3f", key, v);
    return b;
}

void AddEvent(Writer& w, const TraceWindow& win, const TraceEvent& e) {
    const double t = e.ArrivalMs() * 1000;
    char seq[32];
    std::snprintf(seq, sizeof seq, "%lu", static_cast<unsigned long>(e.head.sequence));
    std::string args = "{\"sequence\": " + std::string(seq) + ", " + Num("deferred_us", e.DeferredMs() * 1000);
    if (e.LateKnown()) args += ", " + Num("wake_late_us", e.LateMs() * 1000);
    w.Complete(std::string("event ") + seq, kDispatchTid, t, e.EventMs() * 1000, args + "}");
    if (e.head.deferred_ns) w.Complete("deferred list", kDispatchTid, t, e.DeferredMs() * 1000, "{}");
    if (e.LateKnown()) w.Counter("wake-up lateness", t, "us", e.LateMs() * 1000);
    w.Counter("event time", t, "us", e.EventMs() * 1000);
    for (const ZorTraceCall& c : e.calls) {
        const double start = t + c.start_ns / 1000.0;
        w.Complete(win.Name(c.slot), IsrTid(c.slot), start, c.duration_ns / 1000.0,
                   std::string("{\"sequence\": ") + seq + "}");
        if (c.flags & ZOR_TRACE_CALL_FAULT) w.Instant("fault", IsrTid(c.slot), start, 't', "{}");
        if (c.flags & ZOR_TRACE_CALL_ABORTED) w.Instant("aborted", IsrTid(c.slot), start, 't', "{}");
    }
}

}  // namespace

std::string TraceJson(const TraceWindow& win, const Cause& cause) {
    Writer w(win.pid);
    char b[64];
    std::snprintf(b, sizeof b, "ZOR host %lu", static_cast<unsigned long>(win.pid));
    w.Meta("process_name", 0, "{\"name\": " + JsonQuoted(b) + "}");
    w.Meta("thread_name", kDispatchTid, "{\"name\": \"dispatch thread\"}");
    w.Meta("thread_sort_index", kDispatchTid, "{\"sort_index\": 0}");
    std::set<std::uint32_t> slots;
    for (const TraceEvent& e : win.events)
        for (const ZorTraceCall& c : e.calls) slots.insert(c.slot);
    for (std::uint32_t s : slots) {
        w.Meta("thread_name", IsrTid(s), "{\"name\": " + JsonQuoted(win.Name(s)) + "}");
        std::snprintf(b, sizeof b, "{\"sort_index\": %lu}", static_cast<unsigned long>(s));
        w.Meta("thread_sort_index", IsrTid(s), b);
    }
    for (std::size_t i = 0; i < win.events.size(); ++i) {
        const TraceEvent& e = win.events[i];
        if (i > 0 && e.head.sequence != win.events[i - 1].head.sequence + 1) {
            std::snprintf(b, sizeof b, "{\"missing\": %ld}",
                          static_cast<long>(e.head.sequence - win.events[i - 1].head.sequence - 1));
            w.Instant("gap", kDispatchTid, e.ArrivalMs() * 1000, 't', b);
        }
        AddEvent(w, win, e);
    }
    if (win.mark < win.events.size())
        w.Instant("late event", kDispatchTid, win.events[win.mark].ArrivalMs() * 1000, 'g',
                  "{\"cause\": " + JsonQuoted(cause.line) + "}");
    return w.Text("{\"cause\": " + JsonQuoted(cause.line) + ", \"before\": " + JsonQuoted(cause.before) + "}");
}

}  // namespace zorctl
