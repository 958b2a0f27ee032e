// zorctl's commands that read the statistics area: stats, watch, plot. They
// need no connection to the host and never make zorctl a client.
#pragma once

#include <cstdint>
#include <string>

namespace zorctl {

struct StatsOptions {
    std::uint32_t pid = 0;      // 0: the one running host
    std::uint32_t timeout = 0;  // for finding the host
    bool json = false;
    const char* svg = nullptr;
    std::uint32_t seconds = 0;
    bool secondsSet = false;
};

int Stats(const StatsOptions& o);
int Watch(const StatsOptions& o);
int Plot(const StatsOptions& o);

// After ZOR_E_NO_HOST: prints why when a folder or socket was closed to
// this user (then it is a failure, not "no host"); false when none was.
bool ReportAccessProblem();
// The host's pid: o.pid, or the running host's. 0 with the reason printed.
std::uint32_t ResolvePid(const StatsOptions& o);

// `s` as a JSON string, quotes included (stats --json and the trace files).
std::string JsonQuoted(const std::string& s);

}  // namespace zorctl
