// Paths of the driver files the IRQ tests load, a driver opened by the test
// itself to reach its extra exports, and a recorder of priority changes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/test_log.h"
#include "os/os.h"
#include "support/wformat.h"

namespace zor::test {

inline std::u16string TestDir() { return HostDir(ZOR_TEST_BIN_DIR); }
inline std::u16string ProductDir() { return HostDir(ZOR_BIN_DIR); }

// The same file the host loads, so the same instance.
class DriverFile {
public:
    DriverFile(const std::u16string& dir, const char16_t* file)
        : path_(dir + file), module_(os::module_load(path_.c_str())) {}
    ~DriverFile() {
        if (module_) os::module_free(module_);
    }

    template <class F>
    F Fn(const char* symbol) const {
        return module_ ? reinterpret_cast<F>(os::module_symbol(module_, symbol)) : nullptr;
    }
    bool Loaded() const { return module_ != nullptr; }
    os::Module Module() const { return module_; }
    const std::u16string& Path() const { return path_; }

private:
    std::u16string path_;
    os::Module module_;
};

// Priority calls are recorded instead of made, so that no test raises its
// own process to the realtime class.
struct PriorityCall {
    bool processClass;        // true: priority_class_set(value)
    std::uint64_t thread;     // thread_priority_set(thread, value)
    std::int64_t value;
    bool operator==(const PriorityCall&) const = default;
};

class PriorityRecorder {
public:
    PriorityRecorder() {
        calls_().clear();
        os::calls.priority_class_set = [](std::uint32_t cls) {
            calls_().push_back({true, 0, cls});
            return true;
        };
        os::calls.thread_priority_set = [](os::Thread t, int p) {
            calls_().push_back({false, t, p});
            return true;
        };
    }
    ~PriorityRecorder() {
        os::calls.priority_class_set = os::native_calls().priority_class_set;
        os::calls.thread_priority_set = os::native_calls().thread_priority_set;
    }
    std::vector<PriorityCall> Take() {
        auto out = calls_();
        calls_().clear();
        return out;
    }

private:
    static std::vector<PriorityCall>& calls_() {
        static std::vector<PriorityCall> v;
        return v;
    }
};

}  // namespace zor::test
