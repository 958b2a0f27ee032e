// Placeholder until the driver selection lands.
#include "irq/selection.h"
namespace zor {
std::uint32_t SelectAndLoadIrq(Host&, const SelectionUi&) { return 0; }
}  // namespace zor
