// Placeholder until the IRQ driver contract lands.
#include "irq/irq_driver.h"
namespace zor {
std::uint32_t IrqDriver::LoadIRQ(const char16_t*, const char16_t*, bool) { return 0; }
std::uint32_t IrqDriver::RegisterIRQ(const char16_t*, bool) { return 0; }
void IrqDriver::UnregisterIRQ() {}
void IrqDriver::SetIrqPriority(std::uint32_t) {}
void IrqDriver::ResetIrqPriority() {}
std::uint32_t IrqDriver::Query() { return 1000; }
std::uint32_t IrqDriver::Control(std::uint32_t) { return 0; }
bool IrqDriver::Loaded() const { return false; }
}  // namespace zor
