// The process-wide table of locked module file names.
#include "pagelock/page_locker.h"
#include "support/log.h"
#include "support/wstr.h"

namespace zor {

const char16_t* LockedNames::FilePart(const char16_t* path) {
    for (std::size_t i = wlen(path); i >= 1; --i) {
        if (path[i] == u'\\' || path[i] == u'/') return path + i + 1;
    }
    return path;
}

bool LockedNames::IsLongNamed(std::uint64_t image) const {
    for (std::uint64_t b : longNamed_) {
        if (image != 0 && b == image) return true;
    }
    return false;
}

bool LockedNames::Add(Logger& log, const char16_t* path, std::uint64_t image) {
    std::uint32_t slot = 1;
    while (slot < kSlots && names_[slot][0] != 0) ++slot;
    if (slot == kSlots) return true;  // a full table keeps nothing and says nothing

    // A name that does not fit is refused; it is never cut to a shorter name
    // that could then match a different module.
    const char16_t* file = FilePart(path);
    const std::size_t len = wnlen(file, kUnits);
    if (len >= kUnits) {
        log.wPrintf(kLogError, u"PageLocker: module name too long, not recorded: '%s'\n\r", file);
        for (std::uint64_t& b : longNamed_) {
            if (image == 0 || b != 0) continue;
            b = image;
            break;
        }
        return false;
    }
    for (std::size_t i = 0; i <= len; ++i) names_[slot][i] = file[i];
    names_[slot][kUnits - 1] = 0;
    return true;
}

std::uint32_t LockedNames::Find(const char16_t* path) const {
    const char16_t* file = FilePart(path);
    for (std::uint32_t slot = 1; slot < kSlots; ++slot) {
        if (names_[slot][0] != 0 && wicmp(names_[slot], file) == 0) return slot;
    }
    return 0;
}

void LockedNames::Remove(const char16_t* path, std::uint64_t image) {
    // Not found clears slot 0, which is never used.
    names_[Find(path)][0] = 0;
    for (std::uint64_t& b : longNamed_) {
        if (image != 0 && b == image) {
            b = 0;
            break;
        }
    }
}

}  // namespace zor
