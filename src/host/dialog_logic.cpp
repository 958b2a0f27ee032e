// The dialog's decisions and texts.
#include "host/dialog_logic.h"

#include "host/host.h"
#include "support/wformat.h"

namespace zor {

namespace {
// Truncation toward zero into 64 bits; values no 64-bit number holds (and
// NaN) show as 0 rather than being undefined.
std::int64_t Truncate(double v) {
    if (!(v > -9.2e18 && v < 9.2e18)) return 0;
    return static_cast<std::int64_t>(v);
}
}  // namespace

void FormatIrqLine(const Host& host, std::uint32_t level, char16_t* out, std::size_t cap) {
    wformat(out, cap, u"IRQ:%s PRIO:%d", host.config.lastIrqName, static_cast<int>(level));
}

void TakeStats(Host& host, char16_t* out, std::size_t cap) {
    double hz = host.dispatcher.irqFrequencyHz.load(std::memory_order_relaxed);
    double load = host.dispatcher.irqLoadPercent.load(std::memory_order_relaxed);
    wformat(out, cap, u"IRQ freq. %2lld Hz,  time %2lld%%", static_cast<long long>(Truncate(hz + 0.5)),
            static_cast<long long>(Truncate(load)));
    host.dispatcher.irqLoadPercent.store(0.0, std::memory_order_relaxed);
    host.dispatcher.irqFrequencyHz.store(0.0, std::memory_order_relaxed);
}

bool AutoKillDue(Host& host, std::uintptr_t timerId) {
    if (timerId != kAutoKillTimerId) return false;
    if (host.config.clientCount.load(std::memory_order_relaxed) == 0) return false;
    if (!IsNoClientAlive(host)) return false;
    host.log.wPrintf(kLogTrace, u"ZOR: AutoKill!\n\r");
    return true;
}

bool CancelNeedsConfirmation(const Host& host) {
    return host.config.clientCount.load(std::memory_order_relaxed) != 0 && !IsNoClientAlive(host);
}

}  // namespace zor
