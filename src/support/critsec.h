// The host's recursive critical section and the scoped lock that names its
// holder (name, line and file) for diagnosis.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

namespace zor {

class CCritSec {
public:
    CCritSec() = default;
    CCritSec(const CCritSec&) = delete;
    CCritSec& operator=(const CCritSec&) = delete;

    void Enter();
    void Leave();
    // Holder of the outermost lock, for diagnosis; null name when free.
    const char* HolderName() const { return holderName_.load(std::memory_order_relaxed); }
    std::uint32_t HolderLine() const { return holderLine_.load(std::memory_order_relaxed); }
    const char* HolderFile() const { return holderFile_.load(std::memory_order_relaxed); }
    std::uint32_t Depth() const { return depth_.load(std::memory_order_relaxed); }

private:
    friend class CLock;
    std::recursive_mutex mutex_;
    std::atomic<std::uint32_t> depth_{0};
    std::atomic<const char*> holderName_{nullptr};
    std::atomic<std::uint32_t> holderLine_{0};
    std::atomic<const char*> holderFile_{nullptr};
};

class CLock {
public:
    CLock(CCritSec& section, const char* name, std::uint32_t line, const char* file);
    ~CLock();
    CLock(const CLock&) = delete;
    CLock& operator=(const CLock&) = delete;

private:
    CCritSec& section_;
    const char* prevName_;
    std::uint32_t prevLine_;
    const char* prevFile_;
};

// The one source path the host writes into its lock diagnostics.
inline constexpr const char* kZorSourcePath = "RuntimeComponents\\src\\ZOR\\ZorOld";

}  // namespace zor
