#include "support/entry_list.h"

#include <cstring>
#include <new>

namespace zor {

// The storage is taken once here; a failed allocation leaves a list of
// capacity 0 that refuses every append.
CEntryList::CEntryList(std::uint32_t entrySize, std::uint32_t capacity)
    : entrySize_(entrySize), capacity_(capacity), data_(nullptr) {
    std::size_t bytes = static_cast<std::size_t>(entrySize) * capacity;
    if (bytes) data_ = new (std::nothrow) unsigned char[bytes];
    if (!data_) capacity_ = 0;
}

CEntryList::~CEntryList() { delete[] data_; }

std::uint32_t CEntryList::AppendEntry(const void* entry) {
    if (count_ >= capacity_ || !entry) return 0xFFFFFFFFu;
    std::memcpy(data_ + static_cast<std::size_t>(count_) * entrySize_, entry, entrySize_);
    return count_++;
}

std::uint32_t CEntryList::DelEntry(std::uint32_t index) {
    if (index >= count_) return 0xFFFFFFFFu;
    unsigned char* at = data_ + static_cast<std::size_t>(index) * entrySize_;
    std::memmove(at, at + entrySize_, static_cast<std::size_t>(count_ - index - 1) * entrySize_);
    --count_;
    return index;
}

void* CEntryList::GetEntry(std::uint32_t index) {
    if (index >= count_) return nullptr;
    return data_ + static_cast<std::size_t>(index) * entrySize_;
}

}  // namespace zor
