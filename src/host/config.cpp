// Configuration load and the client process-id list.
#include "host/config.h"

#include "host/host.h"
#include "os/os.h"
#include "support/log.h"
#include "support/paths.h"
#include "support/wformat.h"
#include "support/wstr.h"

namespace zor {

namespace {
constexpr const char16_t* kSection = u"INIT";
constexpr std::uint32_t kPath = 260;
}  // namespace

void ReadConfigFiles(Host& host) {
    Config& c = host.config;
    // DLLDIR: per-installation file only; the start-up directory is the
    // default. A value without a trailing backslash is used as it is (the
    // drivers are looked up there; ISR modules get a separator added).
    char16_t dllDir[kPath];
    wcopy(dllDir, kPath, c.szExe);
    os::ini_read_string(kSection, u"DLLDIR", dllDir, c.szExe, kPath, c.szIni);
    const std::uint32_t n = wnlen(c.szExe, kPath);
    if (n > 0 && c.szExe[n - 1] != u'\\' && c.szExe[n - 1] != u'/') {
        host.log.wPrintf(kLogError, u"ZOR: Warning: DLLDIR '%s' does not end with a separator: the driver "
                                    u"search looks for '%s*.irq'\n\r", c.szExe, c.szExe);
    }
    host.registry.SetModuleDir(c.szExe);

    // LASTIRQ: the per-user value wins, the per-installation one is its default.
    char16_t last[kPath];
    os::ini_read_string(kSection, u"LASTIRQ", u"", last, kPath, c.szIni);
    os::ini_read_string(kSection, u"LASTIRQ", last, c.lastIrqName, kPath, c.szIniW);

    os::ini_read_string(kSection, u"FALLBACKIRQ", u"", c.fallbackIrqName, kPath, c.szIni);
    c.allowLowIntegrity = os::ini_read_int(kSection, u"ALLOWLOWINTEGRITY", 0, c.szIni) == 1;
    c.watchdogMs = os::ini_read_int(kSection, u"WATCHDOGMS", 0, c.szIni);
    host.watchdog.SetBudget(c.watchdogMs);
    host.shm.SetCaps(std::uint64_t{os::ini_read_int(kSection, u"SHMMAXMB", 256, c.szIni)} << 20,
                     std::uint64_t{os::ini_read_int(kSection, u"SHMTOTALMB", 1024, c.szIni)} << 20);
    c.traceEvents = os::ini_read_int(kSection, u"TRACEEVENTS", ZOR_TRACE_DEFAULT_EVENTS, c.szIni);
}

// '?' never starts a path or a list of pairs: it stands for "key absent".
void ReadLogSettings(const char16_t* ini, Logger::Settings* s) {
    *s = Logger::Settings{};
    os::ini_read_string(kSection, u"LOGFILE", u"?", s->file, kPath, ini);
    s->hasFile = s->file[0] != u'?';
    os::ini_read_string(kSection, u"LOGACTIVE", u"?", s->active, 256, ini);
    s->hasActive = s->active[0] != u'?';
    s->maxFileBytes = std::uint64_t{os::ini_read_int(kSection, u"LOGMAXMB", 16, ini)} << 20;
    s->keepFiles = os::ini_read_int(kSection, u"LOGFILES", LogFile::kDefaultKeep, ini);
}

void InstallationIniPath(char16_t* ini) {
    char16_t dir[kPath];
    if (!os::config_dir(dir, kPath)) dir[0] = 0;
    FU_FormatPath(dir, u'\\');
    wformat(ini, kPath, u"%sZOR.INI", dir);
}

void LoadConfig(Host& host) {
    Config& c = host.config;
    FU_GetProcessStartupDir(c.szExe);
    FU_FormatPath(c.szExe, u'\\');
    InstallationIniPath(c.szIni);
    wcopy(c.szIniW, kPath, u"?{UserCompanyAppData}ZOR.ini");
    FU_ReplacePath(c.szIniW, kPath);

    ReadConfigFiles(host);

    host.log.wPrintf(kLogFault, u"SZINI: %s\r\n", c.szIni);
    host.log.wPrintf(kLogFault, u"SZINIW: %s\r\n", c.szIniW);
    host.log.wPrintf(kLogFault, u"SZEXE: %s\r\n", c.szExe);
}

void AppendClientPid(Host& host, std::uint32_t pid) {
    Config& c = host.config;
    std::uint32_t n = c.clientCount.load(std::memory_order_relaxed);
    if (n >= Config::kClientPids) n = Config::kClientPids - 1;  // never happens; keeps the index in range
    c.clientPids[n].store(pid, std::memory_order_relaxed);
    ++n;
    if (n == Config::kClientPids) n = Config::kClientPids - 1;
    c.clientCount.store(n, std::memory_order_relaxed);
}

bool IsNoClientAlive(const Host& host) {
    const Config& c = host.config;
    // The count is re-read after every probe.
    for (std::uint32_t i = 0; i < c.clientCount.load(std::memory_order_relaxed) &&
                              i < Config::kClientPids;
         ++i) {
        std::uint64_t pid = c.clientPids[i].load(std::memory_order_relaxed);
        if (pid != 0 && os::process_alive(static_cast<std::uint32_t>(pid))) return false;
    }
    return true;
}

}  // namespace zor
