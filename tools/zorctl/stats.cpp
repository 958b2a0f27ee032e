// zorctl stats and zorctl watch: the host's figures as a table or JSON.
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "stats_commands.h"
#include "platform.h"
#include "stats_view.h"

namespace zorctl {

namespace {

const char* Kind(std::uint32_t k) { return k == 1 ? "irq" : k == 2 ? "isr" : "?"; }


std::string JsonSummary(const Summary& s) {
    char b[200];
    std::snprintf(b, sizeof b, "{\"count\": %llu, \"p50\": %.6g, \"p99\": %.6g, \"p999\": %.6g, \"max\": %.6g}",
                  static_cast<unsigned long long>(s.n), s.p50, s.p99, s.p999, s.max);
    return b;
}

double RateHz(const ZorStats& s) { return s.ev.interval_ms > 0 ? 1000.0 / s.ev.interval_ms : 0; }
double LoadPercent(const ZorStats& s) {
    return s.ev.interval_ms > 0 ? s.ev.event_ms / s.ev.interval_ms * 100.0 : 0;
}

void PrintSummary(const char* what, const Summary& s) {
    std::printf("%-18s %10llu %s %s %s %s\n", what, static_cast<unsigned long long>(s.n),
                Duration(s.p50).c_str(), Duration(s.p99).c_str(), Duration(s.p999).c_str(),
                Duration(s.max).c_str());
}

// Cumulative figures, or with `before` those of the time in between, with
// per-second rates.
void PrintTable(const Snapshot& now, const Snapshot* before) {
    const ZorStats& s = *now.s;
    const ZorStats* b = before ? before->s.get() : nullptr;
    const double secs = b ? (now.tickMs - before->tickMs) / 1000.0 : 0;
    std::printf("ZOR %s  pid %lu  up %s  driver %s  stage %ld  log %s\n", Version(s).c_str(),
                static_cast<unsigned long>(s.host_pid), Uptime(s.start_ms).c_str(),
                s.info.irq_driver[0] ? Utf8(s.info.irq_driver, 20).c_str() : "(none)",
                static_cast<long>(static_cast<std::int32_t>(s.info.irq_priority)),
                s.info.log_file[0] ? Utf8(s.info.log_file, 260).c_str() : "(none)");
    std::printf("events %llu  rate %.1f Hz  load %.1f %%  gaps %llu  paused %llu  log lines dropped %llu\n",
                static_cast<unsigned long long>(s.ev.events), RateHz(s), LoadPercent(s),
                static_cast<unsigned long long>(s.ev.sequence_gaps),
                static_cast<unsigned long long>(s.ev.paused_events),
                static_cast<unsigned long long>(s.ev.log_dropped));
    if (b && secs > 0) {
        std::printf("last %.1f s: %.1f events/s  %llu gaps  %llu deferred entries  %llu ExecISRFunc calls\n", secs,
                    (s.ev.events - b->ev.events) / secs,
                    static_cast<unsigned long long>(s.ev.sequence_gaps - b->ev.sequence_gaps),
                    static_cast<unsigned long long>(s.ev.tdl_entries_run - b->ev.tdl_entries_run),
                    static_cast<unsigned long long>(s.exec_calls - b->exec_calls));
    } else {
        std::printf("deferred entries run %llu  skipped passes (SyncTDL held) %llu  ExecISRFunc calls %llu  table generation %lu\n",
                    static_cast<unsigned long long>(s.ev.tdl_entries_run),
                    static_cast<unsigned long long>(s.ev.tdl_skipped),
                    static_cast<unsigned long long>(s.exec_calls), static_cast<unsigned long>(s.generation));
    }
    std::printf("\n%-18s %10s %9s %9s %9s %9s\n", "", "count", "p50", "p99", "p99.9", "max");
    PrintSummary("wake-up interval", Summarise(s.ev.wakeup, b ? &b->ev.wakeup : nullptr));
    PrintSummary("event time", Summarise(s.ev.event, b ? &b->ev.event : nullptr));
    std::printf("\n%3s %-19s %4s %4s %10s %9s %9s %9s %9s %7s %6s %7s\n", "#", "module", "prio", "blk",
                b ? "calls/s" : "calls", "p50", "p99", "p99.9", "max", "faults", "slow", "aborted");
    for (std::uint32_t i = 1; i < ZOR_STATS_SLOTS; ++i) {
        const ZorStatsSlot& m = s.slots[i];
        if (m.number == 0 || m.kind != 2) continue;
        // A slot that changed hands since `before` counts from zero.
        const ZorStatsSlot* p = b && b->slots[i].number == m.number && m.calls >= b->slots[i].calls
                                    ? &b->slots[i] : nullptr;
        const Summary c = Summarise(m.call, p ? &p->call : nullptr);
        char calls[24];
        if (b) std::snprintf(calls, sizeof calls, "%.1f", secs > 0 ? (m.calls - (p ? p->calls : 0)) / secs : 0.0);
        else std::snprintf(calls, sizeof calls, "%llu", static_cast<unsigned long long>(m.calls));
        std::printf("%3lu %-19s %4lu %4s %10s %s %s %s %s %7llu %6llu %7llu\n", static_cast<unsigned long>(i),
                    Utf8(m.name, 20).c_str(), static_cast<unsigned long>(m.priority), m.blocked ? "yes" : "no",
                    calls, Duration(c.p50).c_str(), Duration(c.p99).c_str(), Duration(c.p999).c_str(),
                    Duration(c.max).c_str(), static_cast<unsigned long long>(m.faults - (p ? p->faults : 0)),
                    static_cast<unsigned long long>(m.slow_calls - (p ? p->slow_calls : 0)),
                    static_cast<unsigned long long>(m.aborted - (p ? p->aborted : 0)));
        if (m.fault_module[0] && !b) std::printf("    last fault in %s\n", Utf8(m.fault_module, 40).c_str());
        if (m.stuck) std::printf("    a call overran the watchdog's budget and cannot be aborted\n");
    }
}

void PrintJson(const ZorStats& s) {
    std::printf("{\"host\": {\"pid\": %lu, \"version\": \"%s\", \"uptime\": \"%s\", \"start_ms\": %llu, "
                "\"driver\": %s, \"priority_stage\": %ld, \"log_file\": %s, \"generation\": %lu},\n",
                static_cast<unsigned long>(s.host_pid), Version(s).c_str(), Uptime(s.start_ms).c_str(),
                static_cast<unsigned long long>(s.start_ms), JsonQuoted(Utf8(s.info.irq_driver, 20)).c_str(),
                static_cast<long>(static_cast<std::int32_t>(s.info.irq_priority)),
                JsonQuoted(Utf8(s.info.log_file, 260)).c_str(), static_cast<unsigned long>(s.generation));
    std::printf(" \"events\": {\"dispatched\": %llu, \"paused\": %llu, \"gaps\": %llu, \"sequence\": %lu, "
                "\"rate_hz\": %.6g, \"load_percent\": %.6g, \"log_dropped\": %llu, \"tdl_entries_run\": %llu, "
                "\"tdl_skipped\": %llu, \"exec_calls\": %llu},\n",
                static_cast<unsigned long long>(s.ev.events), static_cast<unsigned long long>(s.ev.paused_events),
                static_cast<unsigned long long>(s.ev.sequence_gaps), static_cast<unsigned long>(s.ev.sequence),
                RateHz(s), LoadPercent(s), static_cast<unsigned long long>(s.ev.log_dropped),
                static_cast<unsigned long long>(s.ev.tdl_entries_run),
                static_cast<unsigned long long>(s.ev.tdl_skipped), static_cast<unsigned long long>(s.exec_calls));
    std::printf(" \"wakeup_ms\": %s,\n \"event_ms\": %s,\n \"modules\": [",
                JsonSummary(Summarise(s.ev.wakeup)).c_str(), JsonSummary(Summarise(s.ev.event)).c_str());
    const char* sep = "";
    for (std::uint32_t i = 1; i < ZOR_STATS_SLOTS; ++i) {
        const ZorStatsSlot& m = s.slots[i];
        if (m.number == 0) continue;
        std::printf("%s\n  {\"number\": %lu, \"name\": %s, \"kind\": \"%s\", \"priority\": %lu, \"blocked\": %s, "
                    "\"calls\": %llu, \"faults\": %llu, \"slow_calls\": %llu, \"aborted\": %llu, "
                    "\"stuck\": %s, \"last_fault_module\": %s, \"call_ms\": %s}",
                    sep, static_cast<unsigned long>(i), JsonQuoted(Utf8(m.name, 20)).c_str(), Kind(m.kind),
                    static_cast<unsigned long>(m.priority), m.blocked ? "true" : "false",
                    static_cast<unsigned long long>(m.calls), static_cast<unsigned long long>(m.faults),
                    static_cast<unsigned long long>(m.slow_calls), static_cast<unsigned long long>(m.aborted),
                    m.stuck ? "true" : "false", JsonQuoted(Utf8(m.fault_module, 40)).c_str(),
                    JsonSummary(Summarise(m.call)).c_str());
        sep = ",";
    }
    std::printf("\n ]}\n");
}

}  // namespace

std::uint32_t ResolvePid(const StatsOptions& o) {
    if (o.pid) return o.pid;
    ZorConnection* c = nullptr;
    const int st = zor_connect(&c, o.timeout);
    if (st != ZOR_OK) {
        if (st != ZOR_E_NO_HOST || !ReportAccessProblem())
            std::fprintf(stderr, "zorctl: connect: %s\n", zor_strerror(st));
        return 0;
    }
    const std::uint32_t pid = zor_host_pid(c);
    zor_disconnect(c);
    return pid;
}

bool ReportAccessProblem() {
    const std::string why = AccessProblem();
    if (why.empty()) return false;
    std::fprintf(stderr, "zorctl: connect: %s: a host may run for a user or group this one is not "
                         "(docs/configuration.md, \"Access\")\n", why.c_str());
    return true;
}

std::string JsonQuoted(const std::string& s) {
    std::string o = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') o += '\\', o += static_cast<char>(c);
        else if (c < 0x20) {
            char b[8];
            std::snprintf(b, sizeof b, "\\u%04x", c);
            o += b;
        } else o += static_cast<char>(c);
    }
    return o + "\"";
}

int Stats(const StatsOptions& o) {
    const std::uint32_t pid = ResolvePid(o);
    if (pid == 0) return 3;
    StatsReader r;
    if (int rc = r.Open(pid)) return rc;
    Snapshot now;
    if (!r.Take(&now)) std::fprintf(stderr, "zorctl: the figures kept changing; showing them as read\n");
    if (o.json) PrintJson(*now.s);
    else PrintTable(now, nullptr);
    return 0;
}

int Watch(const StatsOptions& o) {
    const std::uint32_t pid = ResolvePid(o);
    if (pid == 0) return 3;
    StatsReader r;
    if (int rc = r.Open(pid)) return rc;
    CatchInterrupt();
    // On a terminal the table is redrawn in place; into files and pipes it
    // is appended once a second.
    const bool console = AnsiTerminal();
    Snapshot before, now;
    r.Take(&before);
    const std::uint64_t t0 = before.tickMs;
    while (!Interrupted()) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        if (!ProcessAlive(pid)) {
            std::printf("host %lu ended\n", static_cast<unsigned long>(pid));
            return 3;
        }
        r.Take(&now);
        std::printf(console ? "\x1b[H\x1b[2J" : "\n");
        PrintTable(now, &before);
        std::fflush(stdout);
        std::swap(before, now);
        if (o.secondsSet && before.tickMs - t0 >= o.seconds * 1000ull) break;
    }
    return 0;
}

}  // namespace zorctl
