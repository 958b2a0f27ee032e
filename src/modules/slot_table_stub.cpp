// Placeholder until the slot table lands.
#include "modules/slot_table.h"
namespace zor {
std::uint32_t SlotTable::Alloc() { return 0; }
std::uint32_t SlotTable::Free(std::uint32_t) { return 1; }
std::uint32_t SlotTable::Check(std::uint64_t) const { return 0; }
}  // namespace zor
