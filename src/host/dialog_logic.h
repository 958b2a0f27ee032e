// What the control dialog decides, apart from the window itself: the texts
// it shows, the Stats reset, the automatic shut-down and the Cancel
// confirmation rule. The Windows shell only draws and asks.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zor {

struct Host;

inline constexpr std::uintptr_t kAutoKillTimerId = 10;
inline constexpr std::uint32_t kAutoKillPeriodMs = 5000;

// "IRQ:%s PRIO:%d" with LastIrqName and the configured priority level.
void FormatIrqLine(const Host& host, std::uint32_t level, char16_t* out, std::size_t cap);
// Stats: "IRQ freq. %2ld Hz,  time %2ld%%" from the frequency (rounded) and
// the load (truncated), then both are set to 0.0.
void TakeStats(Host& host, char16_t* out, std::size_t cap);
// Timer tick: true (after "ZOR: AutoKill!\n\r") when `timerId` is the
// shut-down timer, a client was recorded and none of them is alive.
bool AutoKillDue(Host& host, std::uintptr_t timerId);
// Cancel asks first only while a recorded client process is alive.
bool CancelNeedsConfirmation(const Host& host);

}  // namespace zor
