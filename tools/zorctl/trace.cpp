// zorctl trace: the last seconds of the flight recorder as a file, or
// captures on a threshold, each the window around an event that crossed it,
// with the cause printed. zorctl decides alone: the host is never told,
// never waits, and sends nothing.
#include "trace.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform.h"
#include "stats_commands.h"
#include "trace_feed.h"

namespace zorctl {

namespace {

constexpr int kOk = 0, kFail = 1, kUsage = 2;
constexpr int kPollMs = 10;

const char kTraceUsage[] =
    "trace --seconds N -o FILE [--svg]  |  trace --threshold DUR [--on wake|event|isr:N]\n"
    "      [--before DUR] [--after DUR] [--count K] -o DIR [--svg]   (DUR: 500us, 2ms, 1s)";

enum class On { kEvent, kWake, kIsr };

struct Options {
    double seconds = 0, thresholdMs = 0, beforeMs = 1000, afterMs = 1000;
    bool secondsSet = false, thresholdSet = false, svg = false;
    On on = On::kEvent;
    std::uint32_t isr = 0, count = 1;
    std::string out;
};

int Usage(const char* why) {
    std::fprintf(stderr, "zorctl: %s\nusage: zorctl %s\n", why, kTraceUsage);
    return kUsage;
}

// "500us", "2ms", "1.5s", "800ns" in milliseconds; false without a unit.
bool ParseDuration(const char* s, double* ms) {
    char* end = nullptr;
    const double v = std::strtod(s, &end);
    if (end == s || !(v >= 0)) return false;
    const std::string unit = end;
    const double scale = unit == "ns" ? 1e-6 : unit == "us" ? 1e-3 : unit == "ms" ? 1 : unit == "s" ? 1e3 : -1;
    *ms = v * scale;
    return scale > 0;
}

const char* Parse(int argc, char** argv, Options* o) {
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        auto duration = [&](double* ms) { return v && ParseDuration(v, ms) && ++i; };
        if (a == "--svg") {
            o->svg = true;
        } else if (a == "-o") {
            if (!v || !*v) return "-o needs a path";
            o->out = v, ++i;
        } else if (a == "--seconds") {
            if (!v || !(o->seconds = std::atof(v)) || o->seconds < 0) return "--seconds needs a positive number";
            o->secondsSet = true, ++i;
        } else if (a == "--threshold") {
            if (!duration(&o->thresholdMs)) return "--threshold needs a duration such as 500us";
            o->thresholdSet = true;
        } else if (a == "--before" || a == "--after") {
            if (!duration(a == "--before" ? &o->beforeMs : &o->afterMs)) return "--before/--after need a duration";
        } else if (a == "--count") {
            if (!v || (o->count = static_cast<std::uint32_t>(std::strtoul(v, nullptr, 10))) == 0)
                return "--count needs a positive number";
            ++i;
        } else if (a == "--on") {
            const std::string w = v ? v : "";
            if (w == "event") o->on = On::kEvent;
            else if (w == "wake") o->on = On::kWake;
            else if (w.rfind("isr:", 0) == 0 && (o->isr = static_cast<std::uint32_t>(std::atoi(w.c_str() + 4))) > 0)
                o->on = On::kIsr;
            else return "--on takes wake, event or isr:<module number>";
            ++i;
        } else {
            return "unknown trace option";
        }
    }
    if (o->out.empty()) return "trace needs -o";
    if (o->secondsSet == o->thresholdSet) return "trace needs either --seconds or --threshold";
    return nullptr;
}

double Metric(const Options& o, const TraceEvent& e) {
    if (o.on == On::kWake) return e.LateKnown() ? e.LateMs() : -1;
    if (o.on == On::kIsr) return e.IsrMs(o.isr);
    return e.EventMs();
}

bool WriteFile(const std::string& path, const std::string& text) {
    std::ofstream f(path, std::ios::binary);
    f << text;
    f.close();
    if (!f) std::fprintf(stderr, "zorctl: could not write %s\n", path.c_str());
    return static_cast<bool>(f);
}

std::string SvgPath(const std::string& json) {
    const std::string ext = ".json";
    if (json.size() > ext.size() && json.compare(json.size() - ext.size(), ext.size(), ext) == 0)
        return json.substr(0, json.size() - ext.size()) + ".svg";
    return json + ".svg";
}

// Writes the window (and its picture) and prints its cause.
bool Emit(const TraceWindow& w, const std::string& path, bool svg, const char* label) {
    const Cause c = FindCause(w);
    bool ok = WriteFile(path, TraceJson(w, c));
    if (svg) ok = WriteFile(SvgPath(path), TraceSvg(w, c)) && ok;
    std::printf("%s%s\n  %s\n  %zu events written to %s%s\n", label, c.line.c_str(), c.before.c_str(),
                w.events.size(), path.c_str(), svg ? " (and .svg)" : "");
    std::fflush(stdout);
    return ok;
}

TraceWindow Window(const TraceFeed& feed, const std::deque<TraceEvent>& buf, double from, double to,
                   std::uint64_t markGeneration) {
    TraceWindow w;
    w.pid = feed.Pid();
    w.names = feed.Names();
    for (const TraceEvent& e : buf) {
        if (e.ArrivalMs() < from || e.ArrivalMs() > to) continue;
        if (e.head.generation == markGeneration) w.mark = w.events.size();
        w.events.push_back(e);
    }
    return w;
}

int LastSeconds(TraceFeed& feed, const Options& o) {
    std::deque<TraceEvent> buf;
    feed.From(feed.Oldest());
    feed.Poll(&buf);
    if (buf.empty()) {
        std::fprintf(stderr, "zorctl: the flight recorder holds no events yet\n");
        return kFail;
    }
    const double to = buf.back().ArrivalMs(), from = to - o.seconds * 1000;
    // The window's slowest event is the one explained.
    std::uint64_t mark = 0;
    double worst = -1;
    for (const TraceEvent& e : buf) {
        if (e.ArrivalMs() >= from && e.EventMs() + e.LateMs() > worst) {
            worst = e.EventMs() + e.LateMs();
            mark = e.head.generation;
        }
    }
    return Emit(Window(feed, buf, from, to, mark), o.out, o.svg, "slowest: ") ? kOk : kFail;
}

int Captures(TraceFeed& feed, const Options& o) {
    std::error_code ec;
    std::filesystem::create_directories(o.out, ec);
    CatchInterrupt();
    std::deque<TraceEvent> buf;
    std::uint32_t done = 0;
    std::uint64_t mark = 0;  // generation of the pending capture's event, 0: none
    double markMs = 0, lastEnd = -1e300;
    auto waitUntil = std::chrono::steady_clock::now();
    while (done < o.count) {
        if (Interrupted()) return kFail;
        if (!ProcessAlive(feed.Pid())) {
            std::fprintf(stderr, "zorctl: host %lu has ended after %lu of %lu captures\n",
                         static_cast<unsigned long>(feed.Pid()), static_cast<unsigned long>(done),
                         static_cast<unsigned long>(o.count));
            return kFail;
        }
        const std::size_t before = buf.size();
        feed.Poll(&buf);
        for (std::size_t i = before; i < buf.size() && mark == 0; ++i) {
            if (Metric(o, buf[i]) <= o.thresholdMs || buf[i].ArrivalMs() <= lastEnd) continue;
            mark = buf[i].head.generation;
            markMs = buf[i].ArrivalMs();
            // A host that stops delivering events still gets its capture.
            waitUntil = std::chrono::steady_clock::now() +
                        std::chrono::milliseconds(static_cast<long long>(o.afterMs) + 2000);
        }
        if (mark && (buf.back().ArrivalMs() >= markMs + o.afterMs || std::chrono::steady_clock::now() > waitUntil)) {
            TraceWindow w = Window(feed, buf, markMs - o.beforeMs, markMs + o.afterMs, mark);
            char name[64], label[32];
            std::snprintf(name, sizeof name, "trace-%lu.json", static_cast<unsigned long>(w.events[w.mark].head.sequence));
            std::snprintf(label, sizeof label, "capture %lu: ", static_cast<unsigned long>(++done));
            if (!Emit(w, (std::filesystem::path(o.out) / name).string(), o.svg, label)) return kFail;
            lastEnd = markMs + o.afterMs;
            mark = 0;
        }
        const double keepFrom = (mark ? markMs : buf.empty() ? 0 : buf.back().ArrivalMs()) - o.beforeMs;
        while (!buf.empty() && buf.front().ArrivalMs() < keepFrom) buf.pop_front();
        std::this_thread::sleep_for(std::chrono::milliseconds(kPollMs));
    }
    if (feed.Lost()) std::printf("(%llu records were overwritten before zorctl read them)\n",
                                 static_cast<unsigned long long>(feed.Lost()));
    return kOk;
}

}  // namespace

int Trace(int argc, char** argv, std::uint32_t pid, std::uint32_t timeout) {
    Options o;
    if (const char* err = Parse(argc, argv, &o)) return Usage(err);
    StatsOptions so;
    so.pid = pid;
    so.timeout = timeout;
    pid = ResolvePid(so);
    if (pid == 0) return 3;
    TraceFeed feed;
    if (int rc = feed.Open(pid)) return rc;
    return o.secondsSet ? LastSeconds(feed, o) : Captures(feed, o);
}

}  // namespace zorctl
