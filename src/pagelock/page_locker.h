// The register of module images and address ranges that interrupt-time
// code relies on. Locking is bookkeeping only: nothing is pinned. Module
// ranges are 32-bit on purpose (bases above 4 GiB keep their low 32 bits);
// the file name of a module is looked up with its full allocation base, so
// that modules above 4 GiB are still named correctly.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "support/entry_list.h"

namespace zor {

class Logger;

// The process-wide table of locked module file names (slots 1..99 of 30
// units each, slot 0 never used), shared by every PageLocker. Any thread
// may add, remove and read at once without a lock: each slot carries a
// sequence word, odd while a writer fills or clears it; writers claim a
// slot by moving its word to odd, readers skip a slot that is odd and read
// again one that changed under them.
class LockedNames {
public:
    static constexpr std::uint32_t kSlots = 100;
    static constexpr std::uint32_t kUnits = 30;

    // Refuses (logs, returns false) a file part of 30 or more units instead
    // of faulting; a full table drops the name silently (returns true). A
    // refused module is still locked: its image base (`image`) is kept
    // aside so that the report lists it as locked.
    bool Add(Logger& log, const char16_t* path, std::uint64_t image = 0);
    std::uint32_t Find(const char16_t* path) const;
    void Remove(const char16_t* path, std::uint64_t image = 0);
    // Slot i's name into `out`; false while the slot holds none.
    bool Name(std::uint32_t i, char16_t (&out)[kUnits]) const;
    // Image bases of locked modules whose names did not fit; 0 = unused.
    std::uint64_t LongNamed(std::uint32_t i) const { return longNamed_[i].load(std::memory_order_acquire); }
    bool IsLongNamed(std::uint64_t image) const;

    // The file part of a path: after the last '\' or '/' at positions
    // 1..n (a separator at position 0 stays part of the name).
    static const char16_t* FilePart(const char16_t* path);

private:
    struct Slot {
        std::atomic<std::uint32_t> seq{0};
        std::atomic<char16_t> units[kUnits] = {};
    };
    // A stable copy of slot i with its sequence word; false while odd.
    bool Read(std::uint32_t i, char16_t (&out)[kUnits], std::uint32_t* seq) const;
    void Write(Slot& s, std::uint32_t seq, const char16_t* name, std::size_t len);
    // The first slot holding `file` and its sequence word; 0 when none.
    std::uint32_t FindFile(const char16_t* file, std::uint32_t* seq) const;

    Slot slots_[kSlots];
    std::atomic<std::uint64_t> longNamed_[kSlots] = {};
};

// Safe for any number of callers at once, and none of them ever waits for
// a lock: an ISR may lock and unlock while a client's request does. Only
// Base() and the destructor, which no ISR reaches, sort or allocate.
class PageLocker {
public:
    static constexpr std::uint32_t kCapacity = 500;

    PageLocker(Logger& log, LockedNames& names);
    ~PageLocker();  // releases forgotten entries, two per pass
    PageLocker(const PageLocker&) = delete;
    PageLocker& operator=(const PageLocker&) = delete;

    std::uint32_t LockModule(const void* address);
    std::uint32_t UnlockModule(const void* address);
    std::uint32_t LockRange(std::uint64_t base, std::uint32_t length);
    std::uint32_t UnlockRange(std::uint64_t base);
    // The 32-bit module walk; false (length 0) on failure.
    static bool GetModuleRange(const void* address, std::uint32_t* base, std::uint32_t* length);

    std::uint32_t Count() const { return list_.GetNrOfEntries(); }
    // The i-th oldest entry's base, 0 beyond the count.
    std::uint64_t Base(std::uint32_t i) const;

private:
    // Walk + file name + the lock/unlock line; false (logged) when the walk fails.
    bool DescribeModule(const void* address, const char16_t* verb, std::uint32_t* base,
                        std::uint32_t* length, char16_t (&path)[260], std::uint64_t* image);
    // The walk, also giving the full allocation base of the first region
    // (used only to name the module).
    static bool Walk(const void* address, std::uint32_t* base, std::uint32_t* length,
                     std::uint64_t* allocBase);

    Logger& log_;
    LockedNames& names_;
    CEntryList list_;
};

// Full path of the module containing `address` into buf (260 units); false
// when the address is in no known region or the region has no module.
bool GetModuleFileNameForAddress(const void* address, char16_t* buf);

// The LOCKED / NON LOCKED report over every module image of the process.
// A module image is recognised by its first region: type image, region
// base equal to its allocation base, readable, and starting with "MZ" (a
// Windows image) or "\x7f" "ELF" (an ELF image on posix).
void ReportLockedModules(Logger& log, const LockedNames& names);

}  // namespace zor
