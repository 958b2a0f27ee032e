// Placeholder until the page locker lands.
#include "lock/page_locker.h"
#include "support/log.h"

namespace zor {
bool LockedNames::Add(Logger&, const char16_t*) { return true; }
std::uint32_t LockedNames::Find(const char16_t*) const { return 0; }
void LockedNames::Remove(const char16_t*) {}
PageLocker::PageLocker(Logger& log, LockedNames& names) : log_(log), names_(names), list_(8, kCapacity) {}
PageLocker::~PageLocker() {}
std::uint32_t PageLocker::LockModule(const void*) { return 1; }
std::uint32_t PageLocker::UnlockModule(const void*) { return 1; }
std::uint32_t PageLocker::LockRange(std::uint64_t, std::uint32_t) { return 1; }
std::uint32_t PageLocker::UnlockRange(std::uint64_t) { return 1; }
bool PageLocker::GetModuleRange(const void*, std::uint32_t*, std::uint32_t*) { return false; }
void ReportLockedModules(Logger&, const LockedNames&) {}
}  // namespace zor
