// Registering, withdrawing and prioritising the IRQ driver, seen from the
// driver's side (the commands it receives) and from the host's tables.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "common/test_host.h"
#include "common/irq_files.h"

namespace zor::test {
namespace {

constexpr std::uint32_t kFreedMark = 0xF4EE;  // "the library was freed"

struct Command {
    std::uint32_t code;
    std::uint64_t arg;
    bool operator==(const Command&) const = default;
};

std::uint64_t Addr(const void* p) { return reinterpret_cast<std::uintptr_t>(p); }
const std::uint64_t kService = Addr(reinterpret_cast<const void*>(&ServiceProc));
const std::uint64_t kInterrupt = Addr(reinterpret_cast<const void*>(&OnInterrupt));

// test_irq.irq opened by the test: its answers and its record.
class InitRet {
public:
    InitRet() : file_(TestDir(), u"test_irq.irq") {
        EXPECT_TRUE(file_.Fn<void*>("Test_Record")) << "test_irq not found";
        s_self = this;
    }
    ~InitRet() {
        s_self = nullptr;
        os::calls.module_free = os::native_calls().module_free;
    }
    void Configure(std::uint32_t initAnswer, std::uint32_t threadAnswer = 0, std::uint32_t faultCode = 0) {
        file_.Fn<void (*)(std::uint32_t, std::uint32_t, std::uint32_t)>("Test_Configure")(initAnswer, threadAnswer,
                                                                                          faultCode);
    }
    std::vector<Command> Commands() const {
        std::uint32_t codes[64];
        std::uint64_t args[64];
        const std::uint32_t n =
            file_.Fn<std::uint32_t (*)(std::uint32_t*, std::uint64_t*, std::uint32_t)>("Test_Record")(codes, args, 64);
        std::vector<Command> out;
        for (std::uint32_t i = 0; i < n && i < 64; ++i) out.push_back({codes[i], args[i]});
        return out;
    }
    std::int64_t ProbeAtWithdrawal() const { return file_.Fn<std::int64_t (*)()>("Test_ProbeAtWithdrawal")(); }
    // From now on every module_free of this driver also lands in its record.
    void MarkFrees() {
        os::calls.module_free = [](os::Module m) {
            if (s_self && m == s_self->file_.Module())
                s_self->file_.Fn<void (*)(std::uint32_t)>("Test_Mark")(kFreedMark);
            return os::native_calls().module_free(m);
        };
    }
    const std::u16string& Path() const { return file_.Path(); }
    void Hold(std::uint32_t on) { file_.Fn<void (*)(std::uint32_t)>("Test_Hold")(on); }
    bool Inside() const { return file_.Fn<std::uint32_t (*)()>("Test_Inside")() != 0; }

private:
    static inline InitRet* s_self = nullptr;
    DriverFile file_;
};

class IrqDriverTest : public HostTest {
protected:
    PriorityRecorder priorities;
};

// A client's call inside the driver (command 5, on another thread) holds
// the driver's unloading until it returns; without a wait (an exit after
// stuck client threads) the busy driver stays loaded.
TEST_F(IrqDriverTest, WithdrawalWaitsForAClientCallInsideTheDriverUpToItsBound) {
    for (const std::uint32_t waitMs : {Caller::kUnloadWaitMs, 0u}) {
        InitRet drv;
        drv.Configure(0);
        ASSERT_EQ(h.irq.LoadIRQ(TestDir().c_str(), u"test_irq.irq", false), 1u);
        drv.Hold(1);
        std::thread client([&] { h.caller.CallModule(1, ZOR_FN_EXEC_REMOTE_FUNC, 0); });
        while (!drv.Inside()) std::this_thread::yield();
        drv.MarkFrees();
        std::thread withdraw([&] { h.irq.UnregisterIRQ(waitMs); });
        if (waitMs == 0) withdraw.join();
        std::this_thread::sleep_for(std::chrono::milliseconds(waitMs ? 100 : 0));
        EXPECT_EQ(h.slots[1].inUse.load(), waitMs ? 1u : 0u);
        drv.Hold(0);
        client.join();
        if (withdraw.joinable()) withdraw.join();
        const auto c = drv.Commands();
        ASSERT_GE(c.size(), 3u);
        EXPECT_EQ(c.back(), (Command{waitMs ? kFreedMark : ZOR_FN_SHUTDOWN, 0}));
        EXPECT_EQ(log.Contains("ZOR: IRQ driver 'test_irq.irq' did not return within 0 ms: module stays loaded\n\r"),
                  waitMs == 0);
    }
}

std::vector<Command> Registration(std::uint32_t slot) {
    return {{ZOR_FN_SET_ISR_HANDLE, slot},
            {ZOR_FN_SET_SERVICE_PROC, kService},
            {ZOR_GS_SET_INTERRUPT, kInterrupt},
            {ZOR_FN_INITIALIZE, 0}};
}

TEST(IrqDriverRegistration, InitializeAnswersStrictAndNot) {
    for (std::uint32_t answer : {0u, 2u, 5u}) {
        for (bool strict : {false, true}) {
            SCOPED_TRACE(testing::Message() << "answer " << answer << " strict " << strict);
            PriorityRecorder priorities;
            InitRet drv;
            TestHost th;
            Host& h = th.host();
            drv.Configure(answer);
            drv.MarkFrees();
            const bool refused = answer == 5 && strict;

            EXPECT_EQ(h.irq.LoadIRQ(TestDir().c_str(), u"test_irq.irq", strict),
                      refused ? 0u : 1u);

            std::vector<Command> expected = Registration(1);
            if (refused) {
                expected.push_back({ZOR_FN_SHUTDOWN, 0});
                expected.push_back({kFreedMark, 0});
            } else {
                expected.push_back({ZOR_GS_GET_THREAD, kService});
            }
            EXPECT_EQ(drv.Commands(), expected);
            EXPECT_EQ(h.irq.Loaded(), !refused);
            EXPECT_EQ(h.irq.CurrentIrqSlot(), refused ? 0u : 1u);
            EXPECT_EQ(h.slots[1].inUse.load(), refused ? 0u : 1u);
            EXPECT_EQ(h.slots[1].startPending.load(), answer == 2 ? 1u : 0u);
            const std::string error = "ZOR: '" + Utf8(drv.Path()) + "' returned error 00000005\n\r";
            EXPECT_EQ(th.log().Contains(error), answer == 5);
            if (!refused) {
                EXPECT_EQ(std::u16string(h.slots[1].name), u"test_irq.irq");
                EXPECT_EQ(h.slots[1].kind.load(), 1u);
                EXPECT_EQ(h.dispatcher.DispatchThreadId(), 0u);
            }
        }
    }
}

TEST_F(IrqDriverTest, WithdrawalRunsInItsFixedOrderAndReloadReplaces) {
    InitRet drv;
    drv.Configure(0);
    ASSERT_EQ(h.irq.LoadIRQ(TestDir().c_str(), u"test_irq.irq", false), 1u);
    EXPECT_EQ(h.irq.Query(), 0x77u);
    EXPECT_EQ(h.irq.Control(7), 8u);
    // The driver installed a custom service while it started.
    EXPECT_EQ(ServiceProc(0x4000, 0, 0, 0, 0, 0, 0), 0x5A);
    const std::uint32_t lockedWhileLoaded = h.sysLocker.Count();
    drv.Configure(0);
    drv.MarkFrees();

    h.irq.UnregisterIRQ();

    EXPECT_EQ(drv.Commands(), (std::vector<Command>{
                                  {ZOR_GS_SET_INTERRUPT, 0}, {ZOR_FN_SHUTDOWN, 0}, {kFreedMark, 0}}));
    // Its services were gone before its interrupt entry was withdrawn.
    EXPECT_EQ(drv.ProbeAtWithdrawal(), 0);
    EXPECT_EQ(h.sysLocker.Count(), lockedWhileLoaded - 1);
    EXPECT_FALSE(h.irq.Loaded());
    EXPECT_EQ(h.irq.CurrentIrqSlot(), 0u);
    EXPECT_EQ(h.slots.HighWater(), 0u);
    EXPECT_TRUE(log.Contains("Unregister IRQ\n\r"));
    EXPECT_EQ(h.irq.Query(), 1000u);  // commands 6 and 7 reach a driver only while one is loaded

    // Loading twice: the first instance leaves before the second comes.
    ASSERT_EQ(h.irq.LoadIRQ(TestDir().c_str(), u"test_irq.irq", false), 1u);
    drv.Configure(0);
    ASSERT_EQ(h.irq.LoadIRQ(TestDir().c_str(), u"test_irq.irq", false), 1u);
    std::vector<Command> expected = {{ZOR_GS_SET_INTERRUPT, 0}, {ZOR_FN_SHUTDOWN, 0}, {kFreedMark, 0}};
    for (const Command& c : Registration(1)) expected.push_back(c);
    expected.push_back({ZOR_GS_GET_THREAD, kService});
    EXPECT_EQ(drv.Commands(), expected);
    EXPECT_EQ(h.irq.CurrentIrqSlot(), 1u);
}

TEST_F(IrqDriverTest, FailedLoadsLeaveNoDriverAndNothingLoaded) {
    static int loads;
    static int frees;
    loads = frees = 0;
    os::calls.module_load = [](const char16_t* p) {
        os::Module m = os::native_calls().module_load(p);
        if (m) ++loads;
        return m;
    };
    os::calls.module_free = [](os::Module m) {
        ++frees;
        return os::native_calls().module_free(m);
    };
    const std::u16string dir = TestDir();

    EXPECT_EQ(h.irq.LoadIRQ(dir.c_str(), u"absent_irq.irq", true), 0u);
    EXPECT_TRUE(log.Contains("ZOR: Failed to load IRQ: '" + Utf8(dir) + "absent_irq.irq'\n\r"));

    EXPECT_EQ(h.irq.LoadIRQ(dir.c_str(), u"noexport_irq.irq", true), 0u);
    EXPECT_TRUE(log.Contains("ZOR: Failed to locate IRQ_GetSet in module '" + Utf8(dir) + "noexport_irq.irq'\n\r"));
    EXPECT_EQ(loads, 1);
    EXPECT_EQ(frees, 1);

    // 20 units of name: refused before anything is loaded.
    EXPECT_EQ(h.irq.LoadIRQ(dir.c_str(), u"abcdefghijklmnop.irq", false), 0u);
    EXPECT_TRUE(log.ContainsSubstr("ZOR: IRQ driver name too long"));
    EXPECT_EQ(loads, 1);

    for (const std::uint32_t i : {1u, 2u, 3u}) EXPECT_EQ(h.slots[i].inUse.load(), 0u);
    EXPECT_FALSE(h.irq.Loaded());
    EXPECT_EQ(h.irq.CurrentIrqSlot(), 0u);
    os::calls = os::native_calls();
}

TEST_F(IrqDriverTest, FaultsInsideTheDriverAreSurvived) {
    InitRet drv;
    // A faulting Initialize answers 0 through the guarded call: started.
    drv.Configure(0, 0, ZOR_FN_INITIALIZE);
    ASSERT_EQ(h.irq.LoadIRQ(TestDir().c_str(), u"test_irq.irq", true), 1u);
    EXPECT_TRUE(log.ContainsSubstr("ZOR: ISR 'test_irq.irq' caused exception in"));
    drv.Configure(0, 0, ZOR_GS_IRQ_QUERY);
    EXPECT_EQ(h.irq.Query(), 0u);
    drv.Configure(0, 0, ZOR_FN_SHUTDOWN);  // a fault while stopping does not stop the withdrawal
    h.irq.UnregisterIRQ();
    EXPECT_EQ(drv.Commands().size(), 2u);  // GS_SET_INTERRUPT 0, Shutdown
    EXPECT_EQ(h.slots.HighWater(), 0u);
    EXPECT_FALSE(h.irq.Loaded());
}

TEST_F(IrqDriverTest, PriorityStagesEscalateAndStopOnReadBack) {
    InitRet drv;
    drv.Configure(0, 0x1234);
    const os::Thread self = os::current_thread();
    auto cls = [](std::uint32_t c) { return PriorityCall{true, 0, c}; };
    auto thr = [](os::Thread t, int p) { return PriorityCall{false, t, p}; };
    const std::vector<PriorityCall> stages[] = {{cls(0x20), thr(self, 0), thr(0x1234, 1)},
                                                {cls(0x20), thr(self, 0), thr(0x1234, 15)},
                                                {cls(0x100), thr(self, 0), thr(0x1234, 15)}};
    auto ramp = [&](int from) {  // the stages from `from` to the last
        std::vector<PriorityCall> all;
        for (int i = from; i < 3; ++i) all.insert(all.end(), stages[i].begin(), stages[i].end());
        return all;
    };

    h.irq.SetIrqPriority(1);  // no driver: nothing
    EXPECT_TRUE(priorities.Take().empty());

    // Loading resets: the whole ramp from the first stage.
    ASSERT_EQ(h.irq.LoadIRQ(TestDir().c_str(), u"test_irq.irq", false), 1u);
    EXPECT_EQ(priorities.Take(), ramp(0));
    EXPECT_EQ(h.irq.PriorityLevel(), 0u);

    h.irq.SetIrqPriority(1);
    EXPECT_EQ(priorities.Take(), ramp(1));
    h.irq.SetIrqPriority(1);  // same level
    h.irq.SetIrqPriority(3);  // out of range
    EXPECT_TRUE(priorities.Take().empty());
    EXPECT_EQ(h.irq.PriorityLevel(), 1u);
    h.irq.SetIrqPriority(2);
    EXPECT_EQ(priorities.Take(), ramp(2));
    h.irq.ResetIrqPriority();
    EXPECT_EQ(priorities.Take(), ramp(0));
    EXPECT_EQ(h.irq.PriorityLevel(), 0u);

    // A class other than normal read back ends the ramp where it is.
    os::native_calls().priority_class_set(0x4000);  // below normal: harmless
    h.irq.SetIrqPriority(1);
    os::native_calls().priority_class_set(os::kNormalPriorityClass);
    EXPECT_EQ(priorities.Take(), stages[1]);
    EXPECT_EQ(h.irq.PriorityLevel(), 1u);

    // Without a thread handle only the class and the calling thread change.
    drv.Configure(0, 0);
    ASSERT_EQ(h.irq.LoadIRQ(TestDir().c_str(), u"test_irq.irq", false), 1u);
    EXPECT_EQ(priorities.Take(),
              (std::vector<PriorityCall>{cls(0x20), thr(self, 0), cls(0x20), thr(self, 0),
                                         cls(0x100), thr(self, 0)}));
}

}  // namespace
}  // namespace zor::test
