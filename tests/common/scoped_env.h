// Sets an environment variable for a scope and restores the old value.
#pragma once

#include <string>

#include "os/os.h"

namespace zor::test {

class ScopedEnv {
public:
    ScopedEnv(const char* name, const char16_t* value) : name_(name) {
        char16_t old[1024];
        had_ = os::env_get(name, old, 1024);
        if (had_) old_ = old;
        os::env_set(name, value);
    }
    ~ScopedEnv() { os::env_set(name_, had_ ? old_.c_str() : nullptr); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    const char* name_;
    bool had_;
    std::u16string old_;
};

}  // namespace zor::test
