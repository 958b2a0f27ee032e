// Placeholder until shared memory lands.
#include "modules/shared_mem.h"
namespace zor {
std::uint64_t SharedMemory::SysMem(std::uint32_t, std::uint32_t) { return 0; }
void SharedMemory::ReleaseArea() {}
std::uint64_t SharedMemory::GetIsrMem(std::uint32_t, std::uint64_t) { return 0; }
}  // namespace zor
