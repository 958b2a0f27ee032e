// Placeholder until the client registry lands.
#include "clients/client_registry.h"
namespace zor {
std::uint32_t ClientRegistry::FindClient(std::uint32_t) const { return 0; }
std::uint32_t ClientRegistry::RegisterClient(std::uint32_t) { return 0; }
std::uint32_t ClientRegistry::ConnectClientPipe(std::uint32_t, std::uint64_t, std::uint64_t, std::uint32_t) { return 0; }
std::uint32_t ClientRegistry::StopClientPipe(std::uint32_t) { return 0; }
std::uint32_t ClientRegistry::UnregisterClient(std::uint32_t) { return 0; }
}  // namespace zor
