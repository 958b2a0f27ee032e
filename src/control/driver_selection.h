// Choosing the IRQ driver at start-up from the configuration, with the
// fallback rule, and applying the configured IRQ priority.
#pragma once

#include <cstdint>

namespace zor {

struct Host;

// What the selection may ask of the window: show it, then the warning box
// "No IRQ driver selected!". Null members are skipped (no window).
struct SelectionUi {
    void* ctx = nullptr;
    void (*showWindow)(void* ctx) = nullptr;
    void (*warnNoDriver)(void* ctx) = nullptr;
};

// Searches config.szExe for "*.irq" (marks in host.irq.search), loads
// LASTIRQ (strictly when FALLBACKIRQ is present, then the fallback when the
// first load fails) and applies IRQPRIO when below 3. A missing LASTIRQ
// shows the warning and also logs "ZOR: No IRQ driver selected!" so that a
// host without a window tells it too. Returns the priority level read from
// the configuration (shown by the dialog as "IRQ:%s PRIO:%d").
std::uint32_t SelectAndLoadIrq(Host& host, const SelectionUi& ui);

}  // namespace zor
