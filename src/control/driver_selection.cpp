// Start-up choice of the IRQ driver: the configured file must be present in
// the module directory; a failing strict load gives way to the fallback.
#include "control/driver_selection.h"

#include "control/irq_driver.h"
#include "dispatch/stats.h"
#include "support/log.h"
#include "support/wstr.h"

namespace zor {

namespace {

constexpr std::uint32_t kPathUnits = 260;

struct SearchVisit {
    IrqDriver& irq;
    Logger& log;
    const DriverChoice& choice;
    std::uint32_t counter;
};

// Both names are tested for every file, so the last match wins.
void VisitIrqFile(void* ctx, const char16_t* name) {
    auto* v = static_cast<SearchVisit*>(ctx);
    v->log.wPrintf(kLogTrace, u"Found '%s'\n\r", name);
    if (wicmp(name, v->choice.lastName) == 0) v->irq.search.lastIndex = v->counter;
    if (wicmp(name, v->choice.fallbackName) == 0) v->irq.search.fallbackIndex = v->counter;
    ++v->counter;
}

void SearchIrqFiles(IrqDriver& irq, Logger& log, const DriverChoice& c) {
    irq.search = IrqSearch{};
    char16_t pattern[kPathUnits];
    wcopy(pattern, kPathUnits, c.directory);
    wappend(pattern, kPathUnits, u"*.irq");
    log.wPrintf(kLogTrace, u"Searching for '%s' ...\n\r", pattern);
    SearchVisit visit{irq, log, c, 0};
    os::enumerate_files(pattern, &VisitIrqFile, &visit);
    irq.search.fileCount = visit.counter;
}

void WarnNoDriver(Logger& log, const SelectionUi& ui) {
    if (ui.showWindow) ui.showWindow(ui.ctx);
    // Also in the log, for hosts that run without a window.
    log.wPrintf(kLogError, u"ZOR: No IRQ driver selected!\n\r");
    if (ui.warnNoDriver) ui.warnNoDriver(ui.ctx);
}

// The per-user file wins over the per-installation one.
std::uint32_t ConfiguredPriority(const DriverChoice& c) {
    std::uint32_t level = os::ini_read_int(u"INIT", u"IRQPRIO", 0, c.installIni);
    return os::ini_read_int(u"INIT", u"IRQPRIO", static_cast<std::int32_t>(level), c.userIni);
}

}  // namespace

std::uint32_t SelectAndLoadIrq(IrqDriver& irq, StatsArea& stats, Logger& log,
                               const DriverChoice& c, const SelectionUi& ui) {
    SearchIrqFiles(irq, log, c);
    if (c.lastName[0] == 0 || irq.search.lastIndex == IrqSearch::kNotFound) {
        // The fallback is meant for a driver that fails, not for one that is
        // missing: nothing is loaded here.
        WarnNoDriver(log, ui);
    } else {
        bool strict = c.fallbackName[0] != 0 && irq.search.fallbackIndex != IrqSearch::kNotFound;
        std::uint32_t result = irq.LoadIRQ(c.directory, c.lastName, strict);
        if (result == 0 && strict) {
            log.wPrintf(kLogError, u"ZOR: try to load fallback IRQ driver %s\n", c.fallbackName);
            irq.LoadIRQ(c.directory, c.fallbackName, false);
        }
    }
    std::uint32_t level = ConfiguredPriority(c);
    if (level < 3) irq.SetIrqPriority(level);
    stats.SetDriver(irq.LoadedName(), irq.AppliedStage());
    return level;
}

}  // namespace zor
