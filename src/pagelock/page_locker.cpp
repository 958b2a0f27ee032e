// PageLocker: locking and unlocking of module images and address ranges.
#include "pagelock/page_locker.h"

#include "os/os.h"
#include "support/log.h"

namespace zor {

PageLocker::PageLocker(Logger& log, LockedNames& names)
    : log_(log), names_(names), list_(kCapacity) {}

PageLocker::~PageLocker() {
    // Each pass logs and unlocks entry 0, then drops the next entry without a
    // word: with three entries the log names the first and the third.
    while (list_.GetNrOfEntries() > 0) {
        const std::uint64_t base = Base(0);
        log_.wPrintf(kLogError, u"PageLocker: unlock forgotten memory! Base=%x\n\r",
                     static_cast<unsigned>(base));
        UnlockRange(base);
        list_.DelEntry(0);
    }
}

bool PageLocker::Walk(const void* address, std::uint32_t* base, std::uint32_t* length,
                      std::uint64_t* allocBase) {
    *base = 0;
    *length = 0;
    os::Region r;
    if (!os::region_query(address, &r) || (r.protect & os::kPageNoAccess)) return false;
    *allocBase = r.alloc_base;
    const std::uint32_t b = static_cast<std::uint32_t>(r.alloc_base);
    std::uint32_t len = static_cast<std::uint32_t>(r.base) + static_cast<std::uint32_t>(r.size) - b;
    for (;;) {
        const std::uintptr_t next = static_cast<std::uint32_t>(b + len);
        if (!os::region_query(reinterpret_cast<const void*>(next), &r)) break;
        if ((r.protect & os::kPageNoAccess) || r.alloc_base != b) break;
        const std::uint32_t grown = static_cast<std::uint32_t>(r.base + r.size - b);
        if (grown <= len) break;  // no progress: the 32-bit range has wrapped
        len = grown;
    }
    *base = b;
    *length = len;
    return len != 0;
}

bool PageLocker::GetModuleRange(const void* address, std::uint32_t* base, std::uint32_t* length) {
    std::uint64_t allocBase = 0;
    return Walk(address, base, length, &allocBase);
}

// The module around `address`: its 32-bit range and file name, with the
// lock or unlock line (`verb`). False, logged, when the walk fails.
bool PageLocker::DescribeModule(const void* address, const char16_t* verb, std::uint32_t* base,
                                std::uint32_t* length, char16_t (&path)[260],
                                std::uint64_t* image) {
    std::uint64_t& allocBase = *image;
    if (!Walk(address, base, length, &allocBase)) {
        log_.wPrintf(kLogError, u"PageLocker: failed to get module memory range!\n\r");
        return false;
    }
    os::module_file_name(allocBase, path, 260);
    log_.wPrintf(kLogTrace, u"PageLocker: %s '%s': Base=%x, Len=%ld\n\r", verb, path,
                 static_cast<unsigned>(*base), static_cast<long>(static_cast<std::int32_t>(*length)));
    return true;
}

std::uint32_t PageLocker::LockModule(const void* address) {
    std::uint32_t base = 0, length = 0;
    char16_t path[260] = {};
    std::uint64_t image = 0;
    if (!DescribeModule(address, u"lock", &base, &length, path, &image)) return 0;
    // The name goes in before the list: it stays even when the list is full.
    // A name too long for the table is left out of it (and logged), but the
    // range is still kept, so that unlocking finds it.
    names_.Add(log_, path, image);
    return LockRange(base, length);
}

std::uint32_t PageLocker::UnlockModule(const void* address) {
    std::uint32_t base = 0, length = 0;
    char16_t path[260] = {};
    std::uint64_t image = 0;
    if (!DescribeModule(address, u"unlock", &base, &length, path, &image)) return 0;
    names_.Remove(path, image);
    return UnlockRange(base);
}

std::uint32_t PageLocker::LockRange(std::uint64_t base, std::uint32_t length) {
    // Only the base becomes the entry; the length is not kept.
    if (!list_.AppendEntry(base)) {
        log_.wPrintf(kLogTrace, u"PageLocker: locking failed! (list overflow)\n\r");
        return 0;
    }
    return 1;
}

std::uint32_t PageLocker::UnlockRange(std::uint64_t base) {
    if (list_.GetNrOfEntries() == 0) {
        log_.wPrintf(kLogTrace, u"PageLocker: no entries\n\r");
        return 0;
    }
    switch (list_.RemoveEntry(base)) {
    case CEntryList::Removal::kRemoved:
        return 1;
    case CEntryList::Removal::kNotFound:
        log_.wPrintf(kLogTrace, u"PageLocker: unlocking failed! (list seek error)\n\r");
        return 0;
    default:
        // Found, but another caller removed it first.
        log_.wPrintf(kLogTrace, u"PageLocker: unlocking ok, but list update error!\n\r");
        return 0;
    }
}

std::uint64_t PageLocker::Base(std::uint32_t i) const {
    std::uint64_t base = 0;
    list_.GetEntry(i, &base);
    return base;
}

}  // namespace zor
