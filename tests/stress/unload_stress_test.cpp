// Unloading under fire. A module that installs custom services (churn_isr)
// is registered and unregistered over and over while other threads call its
// services and lock memory on it: directly as another module's thread would,
// from a client pipe, by command 5 and from its interrupt. Meanwhile the IRQ
// driver is withdrawn and loaded again under client calls to it and to its
// service and locker.
//
// Under ThreadSanitizer the test keeps both libraries loaded (the sanitizer
// would take a fresh load's initialisation for a race with the calls into
// the previous one) and tells the module when the host has unloaded it: any
// of its code that runs then is counted. With AddressSanitizer
// (ZOR_STRESS_REAL_UNLOAD) each round really unloads the library, so that a
// call into freed code, or into a freed page locker, ends the run.
// Runs for ZOR_UNLOAD_STRESS_SECONDS (default 10).
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "common/irq_files.h"
#include "common/test_host.h"
#include "host/command_intake.h"

namespace zor {
namespace {

using Clock = std::chrono::steady_clock;
#ifdef ZOR_STRESS_REAL_UNLOAD
constexpr bool kRealUnload = true;
#else
constexpr bool kRealUnload = false;
#endif
constexpr std::uint32_t kChurnCode = 0x7100, kIrqCode = 0x4000, kRemoteAnswer = 0x600D;

// Command 5's payload: caller tag, module, reserved, then a body.
std::array<std::uint32_t, 4> ModuleCall(std::uint32_t module) { return {0, module, 0, 0}; }

class UnloadStress {
public:
    UnloadStress() : h_(th_.host()) {}

    void Run(Clock::duration length) {
        if (!kRealUnload) {
            churn_ = std::make_unique<test::TestModule>("churn_isr");
            driver_ = std::make_unique<test::DriverFile>(test::TestDir(), u"test_irq.irq");
            ASSERT_TRUE(churn_->Loaded() && driver_->Loaded());
        }
        ASSERT_EQ(h_.irq.RegisterIRQ(DriverPath().c_str(), false), 1u);
        std::thread threads[] = {std::thread([&] { Churn(); }), std::thread([&] { Caller(); }),
                                 std::thread([&] { Commands(); }), std::thread([&] { Pipe(); }),
                                 std::thread([&] { Driver(); }), std::thread([&] { Dispatch(); })};
        std::this_thread::sleep_for(length);
        stop_ = true;
        for (std::thread& t : threads) t.join();
        CheckLog();
    }

    std::atomic<std::uint64_t> rounds{0}, unmapped{0}, served{0}, locked{0}, piped{0},
        commanded{0}, driverRounds{0}, driverServed{0};
    std::uint32_t Strays() const {
        return churn_ ? churn_->Fn<std::uint32_t (*)()>("Test_Strays")() : 0;
    }

private:
    std::u16string DriverPath() const { return test::TestDir() + u"test_irq.irq"; }
    void SetUnloaded(std::uint32_t unloaded) {
        if (churn_) churn_->Fn<void (*)(std::uint32_t)>("Test_SetUnloaded")(unloaded);
    }

    void Churn() {
        while (!stop_) {
            SetUnloaded(0);
            // Under the lock the driver's registration takes: a client's
            // lookup runs on the thread that registers, not beside it.
            const std::uint32_t slot = [&] {
                CLock lock(h_.csecFuncs);
                return test::RegisterIsr(h_, "churn_isr");
            }();
            ASSERT_NE(slot, 0u);
            const void* code = reinterpret_cast<const void*>(h_.slots[slot].entry.load());
            module_.store(slot);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            h_.registry.UnregisterCommand(slot);
            SetUnloaded(1);
            // Calls meet the module gone for a while, and one that the
            // unloading did not wait for ends in this time.
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
            // Another library (the driver's) may be mapped there by now.
            char16_t name[260] = {};
            if (kRealUnload && (os::module_name_of(code, name, 260) == 0 ||
                                std::u16string(name).find(u"churn_isr") == std::u16string::npos))
                unmapped.fetch_add(1);
            if (rounds.fetch_add(1) % 64 == 63) CheckLog();
        }
    }

    // What another module's thread does: the churned module's services, its
    // locker and name, and the driver's service and locker.
    void Caller() {
        unsigned char own[16];
        const auto base = reinterpret_cast<std::uintptr_t>(own);
        for (std::uint32_t i = 0; !stop_; ++i) {
            const std::uint32_t m = module_.load();
            const std::uint32_t code = kChurnCode + (i & 1);
            const std::int64_t r = ServiceProc(code, i, 0, 0, 0, 0, 0);
            EXPECT_TRUE(r == 0 || r == (0xC5000000u | (code & 0xFFFF))) << r;
            served.fetch_add(r != 0);
            for (const std::uint32_t slot : {m, h_.irq.CurrentIrqSlot()}) {
                const std::int64_t l = ServiceProc(SERV_MemLock, slot, base, sizeof own, 0, 0, 0);
                EXPECT_TRUE(l == 0 || l == 1) << l;
                if (l == 1) locked.fetch_add(1), ServiceProc(SERV_MemUnlock, slot, base, 0, 0, 0, 0);
            }
            ServiceProc(SERV_GetISRName, m, 0, 0, 0, 0, 0);
            const std::int64_t d = ServiceProc(kIrqCode, 0, 0, 0, 0, 0, 0);
            EXPECT_TRUE(d == 0 || d == 0x5A) << d;
            driverServed.fetch_add(d == 0x5A);
        }
    }

    // Commands 5, 6 and 7 as a client sends them, to the module and the driver.
    void Commands() {
        os::Peer& peer = os::process_peer();
        const DialogEnder ender;
        for (std::uint32_t i = 0; !stop_; ++i) {
            auto call = ModuleCall(i % 2 ? module_.load() : h_.irq.CurrentIrqSlot());
            const std::uint32_t r = OnCopyData(h_, peer, ZOR_CMD_MODULE_CALL, call.data(), sizeof call, ender);
            EXPECT_TRUE(r == 0xFFFFFFFFu || r == kRemoteAnswer || r == 0) << r;
            commanded.fetch_add(r == kRemoteAnswer);
            const std::uint32_t q = OnCopyData(h_, peer, ZOR_CMD_IRQ_QUERY, nullptr, 0, ender);
            EXPECT_TRUE(q == 1000 || q == 0x77) << q;
            std::this_thread::yield();
        }
    }

    // One client pipe for the run, its requests to the churned module.
    void Pipe() {
        const std::uint32_t pid = os::current_process_id();
        os::Handle reqR = 0, reqW = 0, repR = 0, repW = 0;
        ASSERT_TRUE(os::pipe_create(&reqR, &reqW) && os::pipe_create(&repR, &repW));
        const std::uint32_t index = h_.clients.RegisterClient(pid);
        ASSERT_NE(index, 0u);
        h_.clients.ConnectClientPipe(os::process_peer(), index, reqR, repW, pid);
        os::handle_close(repW);  // the host holds its own copy
        while (!stop_) {
            const std::uint32_t frame[4] = {12, 0, module_.load(), 0};
            std::int32_t answer = 0;
            std::uint32_t done = 0;
            ASSERT_TRUE(os::pipe_write(reqW, frame, sizeof frame, &done) &&
                        os::pipe_read(repR, &answer, 4, &done));
            // 0: the number has gone to the driver meanwhile.
            EXPECT_TRUE(answer == -1 || answer == 0 || answer == static_cast<std::int32_t>(kRemoteAnswer))
                << answer;
            piped.fetch_add(answer == static_cast<std::int32_t>(kRemoteAnswer));
        }
        h_.clients.StopClientPipe(index);
        h_.clients.UnregisterClient(pid);
        for (os::Handle x : {reqR, reqW, repR}) os::handle_close(x);
    }

    void Driver() {
        while (!stop_) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            h_.irq.UnregisterIRQ();
            EXPECT_EQ(h_.irq.RegisterIRQ(DriverPath().c_str(), false), 1u);
            driverRounds.fetch_add(1);
        }
    }

    // Events with gaps: a registration that meets an event in progress
    // waits 2 s for it.
    void Dispatch() {
        for (std::uint32_t seq = 1; !stop_; ++seq) {
            h_.dispatcher.OnInterrupt(seq);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

    // Nothing faulted in a module, nothing was left loaded.
    void CheckLog() {
        for (const std::string& line : th_.log().Lines()) {
            EXPECT_EQ(line.find("caused exception"), std::string::npos) << line;
            EXPECT_EQ(line.find("did not return"), std::string::npos) << line;
        }
        th_.log().Clear();
    }

    test::TestHost th_{true};
    Host& h_;
    std::unique_ptr<test::TestModule> churn_;
    std::unique_ptr<test::DriverFile> driver_;
    std::atomic<std::uint32_t> module_{0};
    std::atomic<bool> stop_{false};
};

TEST(UnloadStress, NoCallMeetsAnUnloadedModuleOrItsLocker) {
    const char* env = std::getenv("ZOR_UNLOAD_STRESS_SECONDS");
    UnloadStress s;
    s.Run(std::chrono::seconds(env ? std::atoi(env) : 10));
    std::printf("%llu rounds (%llu unmapped), %llu custom calls served, %llu locks, %llu pipe and %llu "
                "command-5 calls answered; driver reloaded %llu times, its service served %llu\n",
                (unsigned long long)s.rounds, (unsigned long long)s.unmapped, (unsigned long long)s.served,
                (unsigned long long)s.locked, (unsigned long long)s.piped, (unsigned long long)s.commanded,
                (unsigned long long)s.driverRounds, (unsigned long long)s.driverServed);
    EXPECT_EQ(s.Strays(), 0u) << "module code ran after the host had unloaded it";
    EXPECT_GE(s.rounds.load(), 3u);
    if (kRealUnload) EXPECT_EQ(s.unmapped.load(), s.rounds.load()) << "the library stayed mapped";
    // Every path reached the module while it was there.
    for (const std::uint64_t n : {s.served.load(), s.locked.load(), s.piped.load(), s.commanded.load(),
                                  s.driverRounds.load(), s.driverServed.load()})
        EXPECT_GT(n, 0u);
}

}  // namespace
}  // namespace zor
