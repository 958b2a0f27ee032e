// Start-up choice of the IRQ driver: the configured file must be present in
// the module directory; a failing strict load gives way to the fallback.
#include "control/driver_selection.h"

#include "host/host.h"
#include "support/wstr.h"

namespace zor {

namespace {

constexpr std::uint32_t kPathUnits = 260;

struct SearchVisit {
    Host* host;
    std::uint32_t counter;
};

// Both names are tested for every file, so the last match wins.
void VisitIrqFile(void* ctx, const char16_t* name) {
    auto* v = static_cast<SearchVisit*>(ctx);
    Host& h = *v->host;
    h.log.wPrintf(kLogTrace, u"Found '%s'\n\r", name);
    if (wicmp(name, h.config.lastIrqName) == 0) h.irq.search.lastIndex = v->counter;
    if (wicmp(name, h.config.fallbackIrqName) == 0) h.irq.search.fallbackIndex = v->counter;
    ++v->counter;
}

void SearchIrqFiles(Host& h) {
    h.irq.search = IrqSearch{};
    char16_t pattern[kPathUnits];
    wcopy(pattern, kPathUnits, h.config.szExe);
    wappend(pattern, kPathUnits, u"*.irq");
    h.log.wPrintf(kLogTrace, u"Searching for '%s' ...\n\r", pattern);
    SearchVisit visit{&h, 0};
    os::enumerate_files(pattern, &VisitIrqFile, &visit);
    h.irq.search.fileCount = visit.counter;
}

void WarnNoDriver(Host& h, const SelectionUi& ui) {
    if (ui.showWindow) ui.showWindow(ui.ctx);
    // Also in the log, for hosts that run without a window.
    h.log.wPrintf(kLogError, u"ZOR: No IRQ driver selected!\n\r");
    if (ui.warnNoDriver) ui.warnNoDriver(ui.ctx);
}

// The per-user file wins over the per-installation one.
std::uint32_t ConfiguredPriority(Host& h) {
    std::uint32_t level = os::ini_read_int(u"INIT", u"IRQPRIO", 0, h.config.szIni);
    return os::ini_read_int(u"INIT", u"IRQPRIO", static_cast<std::int32_t>(level),
                            h.config.szIniW);
}

}  // namespace

std::uint32_t SelectAndLoadIrq(Host& h, const SelectionUi& ui) {
    SearchIrqFiles(h);
    const Config& c = h.config;
    if (c.lastIrqName[0] == 0 || h.irq.search.lastIndex == IrqSearch::kNotFound) {
        // The fallback is meant for a driver that fails, not for one that is
        // missing: nothing is loaded here.
        WarnNoDriver(h, ui);
    } else {
        bool strict = c.fallbackIrqName[0] != 0 &&
                      h.irq.search.fallbackIndex != IrqSearch::kNotFound;
        std::uint32_t result = h.irq.LoadIRQ(c.szExe, c.lastIrqName, strict);
        if (result == 0 && strict) {
            h.log.wPrintf(kLogError, u"ZOR: try to load fallback IRQ driver %s\n", c.fallbackIrqName);
            h.irq.LoadIRQ(c.szExe, c.fallbackIrqName, false);
        }
    }
    std::uint32_t level = ConfiguredPriority(h);
    if (level < 3) h.irq.SetIrqPriority(level);
    const std::uint32_t slot = h.irq.CurrentIrqSlot();
    h.stats.SetDriver(h.irq.Loaded() ? h.slots[slot].name : u"", level);
    return level;
}

}  // namespace zor
