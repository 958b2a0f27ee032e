// Placeholder until the guarded call lands.
#include "dispatch/caller.h"
namespace zor {
std::uint32_t Caller::CallModule(std::uint32_t, std::uint32_t, std::uint64_t, std::uint32_t, std::uint32_t) { return 0; }
void Caller::ReportCall(std::uint32_t, double, std::uint32_t, std::uint64_t, std::uint32_t) {}
void Caller::AddThreadContext(std::uint32_t, std::uint32_t) {}
void Caller::RemoveThreadContext(std::uint32_t) {}
std::uint32_t Caller::GetThreadContext(std::uint32_t) { return 0; }
const char16_t* Caller::FunctionCodeName(std::uint32_t) { return u""; }
void ModuleNameOfAddress(const void*, char16_t* buf, unsigned size) { if (size) buf[0] = 0; }
}  // namespace zor
