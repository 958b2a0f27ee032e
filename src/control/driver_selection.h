// Choosing the IRQ driver at start-up from the configuration, with the
// fallback rule, and applying the configured IRQ priority.
#pragma once

#include <cstdint>

namespace zor {

class IrqDriver;
class Logger;
class StatsArea;

// Where the driver is looked for and which one is configured.
struct DriverChoice {
    const char16_t* directory;     // the module directory, with its separator
    const char16_t* installIni;    // per-installation ZOR.INI
    const char16_t* userIni;       // per-user ZOR.ini
    const char16_t* lastName;      // LASTIRQ ("" when not set)
    const char16_t* fallbackName;  // FALLBACKIRQ ("" when not set)
};

// What the selection may ask of the window: show it, then the warning box
// "No IRQ driver selected!". Null members are skipped (no window).
struct SelectionUi {
    void* ctx = nullptr;
    void (*showWindow)(void* ctx) = nullptr;
    void (*warnNoDriver)(void* ctx) = nullptr;
};

// Searches the directory for "*.irq" (marks in irq.search), loads
// LASTIRQ (strictly when FALLBACKIRQ is present, then the fallback when the
// first load fails) and applies IRQPRIO when below 3. A missing LASTIRQ
// shows the warning and also logs "ZOR: No IRQ driver selected!" so that a
// host without a window tells it too. Returns the priority level read from
// the configuration (shown by the dialog as "IRQ:%s PRIO:%d").
std::uint32_t SelectAndLoadIrq(IrqDriver& irq, StatsArea& stats, Logger& log,
                               const DriverChoice& choice, const SelectionUi& ui);

}  // namespace zor
