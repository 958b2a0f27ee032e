// Placeholder until the registry lands.
#include "modules/registry.h"
namespace zor {
std::uint64_t Registry::RegisterISRProc(const void*, std::uint32_t) { return 0; }
void Registry::UnregisterISR(std::uint32_t) {}
void Registry::ReleaseModuleSlot(std::uint32_t) {}
std::uint32_t Registry::UnregisterCommand(std::uint64_t) { return 0; }
std::uint32_t Registry::FindModule(const char16_t*) const { return 0; }
std::uint32_t Registry::ModuleInfo(std::uint64_t) const { return 0; }
void Registry::RetryPendingStarts() {}
void Registry::UnloadAll() {}
}  // namespace zor
