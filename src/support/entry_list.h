// A list of fixed-size entries with a fixed capacity, both given at
// construction. Appending copies by value; deleting closes the gap.
#pragma once

#include <cstdint>

namespace zor {

class CEntryList {
public:
    CEntryList(std::uint32_t entrySize, std::uint32_t capacity);
    ~CEntryList();
    CEntryList(const CEntryList&) = delete;
    CEntryList& operator=(const CEntryList&) = delete;

    // Index of the new entry, 0xFFFFFFFF when full (nothing changes).
    std::uint32_t AppendEntry(const void* entry);
    // 0xFFFFFFFF for an index at or beyond the count, else the index.
    std::uint32_t DelEntry(std::uint32_t index);
    // Address of the entry (valid until the next append or delete), null
    // for an index beyond the count.
    void* GetEntry(std::uint32_t index);
    std::uint32_t GetNrOfEntries() const { return count_; }
    std::uint32_t Capacity() const { return capacity_; }

private:
    std::uint32_t entrySize_;
    std::uint32_t capacity_;
    std::uint32_t count_ = 0;
    unsigned char* data_;
};

}  // namespace zor
