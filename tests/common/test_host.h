// A fresh host per test, the IRQ driver's thread played by a test thread,
// and access to the extra exports of the test modules.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/test_log.h"
#include "host/host.h"
#include "os/os.h"

namespace zor::test {

// A Host on a capturing TestLog, set as the running host. The tables are
// not prepared unless asked (processor count 0: BlockISR never waits).
// Destruction unloads every module, then clears the running host.
class TestHost {
public:
    explicit TestHost(bool prepareTables = false);
    ~TestHost();

    Host& host() { return host_; }
    TestLog& log() { return log_; }
    Host* operator->() { return &host_; }

private:
    TestLog log_;
    Host host_;
};

// The fixture most tests want: `h` is the host, `log` its log.
class HostTest : public ::testing::Test {
protected:
    TestHost th_;
    Host& h = th_.host();
    TestLog& log = th_.log();
};

// Plays the IRQ driver's interrupt thread: one std::thread that runs what it
// is given, so that it becomes the dispatch thread at its first event.
class IrqThread {
public:
    IrqThread();
    ~IrqThread();

    // One event through OnInterrupt on the thread; waits for its result.
    std::uint32_t Fire(std::uint32_t sequence);
    // Starts one event and returns at once; Wait() gives its result.
    void FireAsync(std::uint32_t sequence);
    std::uint32_t Wait();
    // Runs any work on the thread and waits for it.
    void Run(std::function<void()> work);
    std::uint32_t ThreadId() const { return threadId_; }

private:
    void Loop();
    void Post(std::function<void()> work);

    std::mutex m_;
    std::condition_variable cv_;
    std::vector<std::function<void()>> queue_;
    std::uint32_t pending_ = 0;
    std::uint32_t result_ = 0;
    bool stop_ = false;
    std::uint32_t threadId_ = 0;
    std::thread thread_;
};

// A test module loaded by the test itself to reach its extra exports. The
// host loading the same file gets the same instance.
class TestModule {
public:
    explicit TestModule(const char* name);
    ~TestModule();
    TestModule(const TestModule&) = delete;
    TestModule& operator=(const TestModule&) = delete;

    template <class F>
    F Fn(const char* symbol) const {
        return reinterpret_cast<F>(os::module_symbol(module_, symbol));
    }
    // The module's file name as a client names it in command 1.
    const char16_t* FileName() const { return fileName_.c_str(); }
    bool Loaded() const { return module_ != nullptr; }

private:
    os::Module module_ = nullptr;
    std::u16string fileName_;
};

// The test ISR module (test_isr, or a copy: test_isr_b, test_isr_c) seen
// from the test: its record of calls and its knobs. Construction resets both.
class TestIsr {
public:
    struct Call {
        std::uint32_t code;
        std::uint64_t arg;
        std::uint32_t first;    // first word of an ExecISRFunc packet
        std::uint32_t stamp;    // shared order clock, 0 without one
        std::uint32_t thread;   // os thread id of the caller
        std::uint32_t context;  // call context seen by codes 5 and 6
        std::uint32_t onIsrThread;
    };
    explicit TestIsr(const char* name = "test_isr");

    const char16_t* FileName() const { return module_.FileName(); }
    std::uint32_t Count() const { return Do<std::uint32_t>("Test_Count"); }
    std::uint32_t CountOf(std::uint32_t code) const;
    std::vector<Call> Calls() const;
    std::vector<std::uint32_t> Codes() const;
    void Reset() const { Do("Test_Reset"); }
    void SetAnswer(std::uint32_t code, std::uint32_t value) const { Do("Test_SetAnswer", code, value); }
    void SetDelay(std::uint32_t code, std::uint32_t us) const { Do("Test_SetDelay", code, us); }
    void SetFault(std::uint32_t code) const { Do("Test_SetFault", code); }
    void SetPending(std::uint32_t pending) const { Do("Test_SetPending", pending); }
    // `clock` must outlive the module's use of it (Reset clears it).
    void SetClock(std::uint32_t* clock) const { Do("Test_SetClock", clock); }
    // On each call with `onCode`, the module calls service `code` with `a`;
    // bit k of selfMask puts the module's own number in a[k].
    void CallServiceOn(std::uint32_t onCode, std::uint32_t code, std::vector<std::uintptr_t> a,
                       std::uint32_t selfMask = 0) const {
        a.resize(5);
        Do("Test_CallServiceOn", onCode, code, static_cast<const std::uintptr_t*>(a.data()), selfMask);
    }
    std::int64_t ServiceResult() const { return Do<std::int64_t>("Test_ServiceResult"); }
    std::uint32_t Handle() const { return Do<std::uint32_t>("Test_Handle"); }
    const unsigned char* LastData() const { return Do<const unsigned char*>("Test_LastData"); }
    std::uintptr_t Custom() const { return Do<std::uintptr_t>("Test_Custom"); }
    // A service call made from inside the module (its return address lies there).
    std::int64_t CallService(std::uint32_t code) const { return Do<std::int64_t>("Test_CallService", code); }

private:
    template <class R = void, class... A>
    R Do(const char* symbol, A... a) const {
        return module_.Fn<R (*)(A...)>(symbol)(a...);
    }
    TestModule module_;
};

// "<name><suffix>", the bare file name of a test module.
std::u16string ModuleFileName(const char* name);

// The bytes of a command 1 payload (name copied as given, terminated).
std::vector<unsigned char> RegisterPayload(std::uint32_t pid, std::uint32_t sharedSize,
                                           const std::u16string& name);
// A slot in use with `entry` behind it and no module loaded: its number.
std::uint32_t AddFakeIsr(Host& h, ZorGetSetProc entry = nullptr, const char16_t* name = u"fake");

// Registers the module through command 1 on behalf of this process and
// returns its slot (0 when it did not register).
std::uint32_t RegisterIsr(Host& h, const char* name, std::uint32_t sharedSize = 0);

}  // namespace zor::test
