// Placeholder until the dispatch loop lands.
#include "dispatch/dispatcher.h"
namespace zor {
std::uint32_t Dispatcher::OnInterrupt(std::uint32_t) { return 1; }
bool Dispatcher::IsDispatchThread() const { return false; }
void Dispatcher::PauseISR(bool) {}
std::uint32_t Dispatcher::BlockISR(std::uint32_t, std::uint32_t) { return 0; }
std::int32_t Dispatcher::ISRBlocked(std::uint32_t) { return 0; }
void Dispatcher::RebuildOrder() {}
}  // namespace zor
