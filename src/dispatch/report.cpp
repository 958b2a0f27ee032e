// Placeholder until the statistics report lands.
#include "dispatch/dispatcher.h"
namespace zor {
void Dispatcher::EndOfInterrupt(std::uint32_t) {}
}  // namespace zor
