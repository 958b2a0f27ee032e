// The host's recursive critical section and its scoped lock. One thread may
// take it again while it holds it (registration unloads an older module of
// the same name under the same lock).
#pragma once

#include <mutex>

namespace zor {

class CCritSec {
public:
    CCritSec() = default;
    CCritSec(const CCritSec&) = delete;
    CCritSec& operator=(const CCritSec&) = delete;

    void Enter() { mutex_.lock(); }
    void Leave() { mutex_.unlock(); }

private:
    std::recursive_mutex mutex_;
};

class CLock {
public:
    explicit CLock(CCritSec& section) : section_(section) { section_.Enter(); }
    ~CLock() { section_.Leave(); }
    CLock(const CLock&) = delete;
    CLock& operator=(const CLock&) = delete;

private:
    CCritSec& section_;
};

}  // namespace zor
