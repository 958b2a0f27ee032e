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
    for (const auto& b : longNamed_) {
        if (image != 0 && b.load(std::memory_order_acquire) == image) return true;
    }
    return false;
}

// Units are read with acquire, so the second look at the word cannot move
// above them; writers store them with release after making the word odd.
bool LockedNames::Read(std::uint32_t i, char16_t (&out)[kUnits], std::uint32_t* seq) const {
    const Slot& s = slots_[i];
    for (;;) {
        *seq = s.seq.load(std::memory_order_acquire);
        if (*seq & 1u) return false;
        for (std::uint32_t k = 0; k < kUnits; ++k) out[k] = s.units[k].load(std::memory_order_acquire);
        if (s.seq.load(std::memory_order_relaxed) == *seq) return true;
    }
}

void LockedNames::Write(Slot& s, std::uint32_t seq, const char16_t* name, std::size_t len) {
    for (std::size_t k = 0; k < kUnits; ++k)
        s.units[k].store(k < len ? name[k] : u'\0', std::memory_order_release);
    s.seq.store(seq + 2, std::memory_order_release);
}

bool LockedNames::Name(std::uint32_t i, char16_t (&out)[kUnits]) const {
    std::uint32_t seq = 0;
    return i < kSlots && Read(i, out, &seq) && out[0] != 0;
}

bool LockedNames::Add(Logger& log, const char16_t* path, std::uint64_t image) {
    // The first empty slot, claimed by making its word odd.
    std::uint32_t slot = 1, seq = 0;
    for (char16_t seen[kUnits]; slot < kSlots; ++slot) {
        if (Read(slot, seen, &seq) && seen[0] == 0 &&
            slots_[slot].seq.compare_exchange_strong(seq, seq + 1, std::memory_order_acq_rel))
            break;
    }
    if (slot == kSlots) return true;  // a full table keeps nothing and says nothing

    // A name that does not fit is refused; it is never cut to a shorter name
    // that could then match a different module.
    const char16_t* file = FilePart(path);
    const std::size_t len = wnlen(file, kUnits);
    if (len >= kUnits) {
        Write(slots_[slot], seq, u"", 0);
        log.wPrintf(kLogError, u"PageLocker: module name too long, not recorded: '%s'\n\r", file);
        for (auto& b : longNamed_) {
            std::uint64_t expected = 0;
            if (image != 0 && b.compare_exchange_strong(expected, image, std::memory_order_acq_rel)) break;
        }
        return false;
    }
    Write(slots_[slot], seq, file, len);
    return true;
}

std::uint32_t LockedNames::FindFile(const char16_t* file, std::uint32_t* seq) const {
    for (std::uint32_t slot = 1; slot < kSlots; ++slot) {
        char16_t name[kUnits];
        if (Read(slot, name, seq) && name[0] != 0 && wicmp(name, file) == 0) return slot;
    }
    return 0;
}

std::uint32_t LockedNames::Find(const char16_t* path) const {
    std::uint32_t seq = 0;
    return FindFile(FilePart(path), &seq);
}

void LockedNames::Remove(const char16_t* path, std::uint64_t image) {
    // The first match is cleared; one that changed meanwhile is looked up again.
    const char16_t* file = FilePart(path);
    for (;;) {
        std::uint32_t seq = 0;
        const std::uint32_t slot = FindFile(file, &seq);
        if (slot == 0) break;
        if (slots_[slot].seq.compare_exchange_strong(seq, seq + 1, std::memory_order_acq_rel)) {
            Write(slots_[slot], seq, u"", 0);
            break;
        }
    }
    for (auto& b : longNamed_) {
        std::uint64_t expected = image;
        if (image != 0 && b.compare_exchange_strong(expected, 0, std::memory_order_acq_rel)) break;
    }
}

}  // namespace zor
