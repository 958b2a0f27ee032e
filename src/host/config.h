// Host-wide configuration read at start-up, and the client process ids
// recorded by command 3 (for Cancel and the automatic shut-down).
//
// Two INI files, section "INIT", never written by the host:
//   szIni  = <os::config_dir()>\ZOR.INI          (per installation: the
//            start-up directory; /etc/zor for a Linux host in /usr/bin)
//   szIniW = ?{UserCompanyAppData}ZOR.ini        (per user)
// DLLDIR and FALLBACKIRQ are read from szIni only; LASTIRQ and IRQPRIO from
// szIni, then from szIniW with the first value as default (the per-user file
// wins). ALLOWLOWINTEGRITY (szIni only, default 0) lets processes of lower
// integrity send commands to the dialog window (see the Windows shell).
// WATCHDOGMS (szIni only, default 0: off) is the longest one module call on
// the dispatch thread may take before the watchdog aborts it.
#pragma once

#include <atomic>
#include <cstdint>

#include "support/log.h"

namespace zor {

struct Host;

struct Config {
    static constexpr std::uint32_t kClientPids = 10;

    char16_t szExe[260] = {};
    char16_t szIni[260] = {};
    char16_t szIniW[260] = {};
    char16_t lastIrqName[260] = {};
    char16_t fallbackIrqName[260] = {};
    std::uint32_t allowLowIntegrity = 0;
    std::uint32_t watchdogMs = 0;
    // TRACEEVENTS (szIni only): events the flight recorder keeps, 0: none.
    std::uint32_t traceEvents = 4096;
    std::atomic<std::uint64_t> clientPids[kClientPids] = {};
    std::atomic<std::uint32_t> clientCount{0};
};

// Position just after the first "/<keyword>" or "-<keyword>" in `commandLine`
// where every character equals the keyword's (upper-case) character plus 32:
// only the lower-case form matches, and a longer word that begins with it
// matches too. Null when there is none.
const char16_t* FindSwitch(const char16_t* commandLine, const char16_t* upperKeyword);

// The whole configuration load: start-up directory, both file paths, the
// keys, and the three log lines "SZINI", "SZINIW", "SZEXE".
void LoadConfig(Host& host);
// The key-reading part of LoadConfig, from host.config.szIni / szIniW, with
// host.config.szExe holding the default module directory. Separate so that
// the precedence rules can be exercised on files of a test's own choosing.
void ReadConfigFiles(Host& host);

// The log's keys, read from the per-installation file only, before the log
// starts (the environment variables ZOR_LOG_FILE and ZOR_LOG_ACTIVE win):
//   LOGFILE    the log file, as ZOR_LOG_FILE (empty: no file)
//   LOGACTIVE  the active pairs, as ZOR_LOG_ACTIVE
//   LOGMAXMB   size cap of one log file in MiB, default 16, 0: no cap
//   LOGFILES   log files kept, the current one included, default 10,
//              0: none deleted
void ReadLogSettings(const char16_t* ini, Logger::Settings* s);
// "<os::config_dir()>\ZOR.INI" (szIni), into 260 units.
void InstallationIniPath(char16_t* ini);
// Records a client process id (command 3): stored at index ClientCount, then
// ClientCount + 1, set back to 9 when it reaches 10, so from the tenth
// client on entry 9 is overwritten and never examined.
void AppendClientPid(Host& host, std::uint32_t pid);
// True when no client was recorded or none of entries 0..ClientCount-1 names
// a process that still exists (0 entries are skipped).
bool IsNoClientAlive(const Host& host);

}  // namespace zor
