// zorctl trace: windows of the host's flight recorder (zor_trace.h), the
// cause of a late event, and the files users open (Chrome trace-event JSON,
// an SVG timeline).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zor/zor_client.h"

namespace zorctl {

struct TraceEvent {
    ZorTraceRecord head{};
    std::vector<ZorTraceCall> calls;

    double ArrivalMs() const { return static_cast<double>(head.arrival_ns) / 1e6; }
    bool LateKnown() const { return head.late_ns != ZOR_TRACE_LATE_UNKNOWN; }
    double LateMs() const { return LateKnown() ? head.late_ns / 1e6 : 0.0; }
    double EventMs() const { return head.event_ns / 1e6; }
    double DeferredMs() const { return head.deferred_ns / 1e6; }
    // ISR calls of module `slot` in this event, summed; -1 when not called.
    double IsrMs(std::uint32_t slot) const;
};

// Some events of one host, in order, one of them marked (the late one).
struct TraceWindow {
    std::uint32_t pid = 0;
    std::vector<TraceEvent> events;
    std::size_t mark = 0;
    std::vector<std::string> names;  // module names by number; "" unknown
    std::string Name(std::uint32_t slot) const;
};

// What the marked event's time went into.
struct Cause {
    std::string line;    // "event 81234 took 3.41 ms: ISR #3 motor.dll 3.02 ms (89%), ..."
    std::string before;  // whether the same part was slow in the events before
    std::int64_t slot = -1;  // the largest part's module, -1 when it is no ISR
};
Cause FindCause(const TraceWindow& w);

std::string TraceJson(const TraceWindow& w, const Cause& c);
std::string TraceSvg(const TraceWindow& w, const Cause& c);

// The command; argv holds the words after "trace".
int Trace(int argc, char** argv, std::uint32_t pid, std::uint32_t timeout);

}  // namespace zorctl
