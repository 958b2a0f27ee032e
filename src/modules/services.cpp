// Placeholder until the services land.
#include "modules/services.h"
namespace zor {
std::int64_t Services::Call(std::uint32_t, std::uintptr_t, std::uintptr_t, std::uintptr_t,
                            std::uintptr_t, std::uintptr_t, std::uintptr_t, const void*) { return 0; }
std::int32_t Services::ExecISRFunc(std::uint32_t, std::uint32_t, const void*, std::uint32_t,
                                   std::uint32_t) { return 0; }
void Services::RemoveCustomServices(std::uint32_t) {}
void Services::ReportUnknownServiceCalls() {}
}  // namespace zor
