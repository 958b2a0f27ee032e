// The service entry: built-in services on valid, invalid and locker-less
// module numbers, services called by real modules from inside the
// dispatch, custom services and the count of unknown calls.
#include <gtest/gtest.h>

#include <atomic>

#include "common/test_host.h"
#include "support/wstr.h"

namespace zor::test {
namespace {

std::string Utf8(const char16_t* s) { return std::string(s, s + std::char_traits<char16_t>::length(s)); }

class ServicesTest : public HostTest {
protected:
    std::int64_t Svc(std::uint32_t code, std::uintptr_t a1 = 0, std::uintptr_t a2 = 0, std::uintptr_t a3 = 0) {
        return h.services.Call(code, a1, a2, a3, 0, 0, 0, nullptr);
    }
    // A slot in use without a module behind it.
    std::uint32_t AddSlot(bool withLocker) {
        const std::uint32_t s = h.slots.Alloc();
        h.slots[s].kind.store(kKindIsr);
        h.slots[s].number.store(s);
        if (withLocker) h.slots[s].locker = new PageLocker(h.log, h.lockedNames);
        h.slots[s].inUse.store(1);
        return s;
    }
};

TEST_F(ServicesTest, MemoryServicesUseTheSlotsOwnLockerAndRefuseEverythingElse) {
    const std::uint32_t s = AddSlot(true);
    static unsigned char range[256];
    const auto addr = reinterpret_cast<std::uintptr_t>(range);
    TestModule mod("service_isr");
    const auto inModule = reinterpret_cast<std::uintptr_t>(mod.Fn<void*>("Test_Number"));
    const std::uint32_t systemBefore = h.sysLocker.Count();
    EXPECT_EQ(Svc(SERV_MemLock, (std::uintptr_t{1} << 32) + s, addr, sizeof range), 1);  // 32-bit number
    EXPECT_EQ(Svc(SERV_ModuleLock, s, inModule), 1);
    EXPECT_EQ(h.slots[s].locker->Count(), 2u);
    EXPECT_EQ(Svc(SERV_ModuleUnlock, s, inModule), 1);
    EXPECT_EQ(Svc(SERV_MemUnlock, s, addr), 1);
    EXPECT_EQ(Svc(SERV_MemUnlock, s, addr), 0);  // the locker's own answer
    EXPECT_EQ(h.sysLocker.Count(), systemBefore);
    EXPECT_FALSE(log.ContainsSubstr("DLL"));

    const std::uint32_t bare = AddSlot(false);
    const std::uint32_t freed = AddSlot(false);
    h.slots.Free(freed);
    const char* names[] = {"SERV_MemLock", "SERV_MemUnlock", "SERV_ModuleLock", "SERV_ModuleUnlock"};
    const char* lockerNames[] = {"SERV_MemLock", "SERV_MemUnock", "SERV_ModuleLock", "SERV_ModuleUnlock"};
    for (std::uint32_t code = SERV_MemLock; code <= SERV_ModuleUnlock; ++code) {
        SCOPED_TRACE(names[code - 1]);
        log.Clear();
        const std::string invalid = std::string("ZOR: ") + names[code - 1] + ": invalid DLL handle! (";
        for (std::uintptr_t a1 : {std::uintptr_t{0}, std::uintptr_t{100}, std::uintptr_t{freed},
                                  std::uintptr_t{0xFFFFFFFF}, std::uintptr_t{bare}})
            EXPECT_EQ(Svc(code, a1, 0x1000, 16), 0);
        EXPECT_EQ(log.LinesOf(2, 1),
                  (std::vector<std::string>{invalid + "0)\n\r", invalid + "100)\n\r",
                                            invalid + std::to_string(freed) + ")\n\r", invalid + "-1)\n\r",
                                            std::string("ZOR: ") + lockerNames[code - 1] +
                                                ": no PageLocker for DLL " + std::to_string(bare) + " found!\n\r"}));
    }
}

TEST_F(ServicesTest, QueriesAnswerWithoutAreaDriverOrContext) {
    EXPECT_EQ(Svc(SERV_GetIRQTime), 0);  // no system area yet
    EXPECT_EQ(Svc(SERV_IRQQuery), 1000);
    EXPECT_EQ(Svc(SERV_IsISRThread), 0);
    EXPECT_EQ(Svc(SERV_GetCallContext), 0);
    ASSERT_NE(h.shm.SysMem(os::current_process_id(), ZOR_SSA_QUEUE + 64), 0u);
    IrqThread irq;
    irq.Fire(0xFFFFFFF0u);
    EXPECT_EQ(Svc(SERV_GetIRQTime), 0xFFFFFFF0ll);  // unsigned, zero-extended
    const std::uint32_t s = AddSlot(false);
    wcopy(h.slots[s].name, 20, u"some_isr.dll");
    EXPECT_EQ(reinterpret_cast<const char16_t*>(Svc(SERV_GetISRName, s)), h.slots[s].name);
    EXPECT_EQ(Utf8(reinterpret_cast<const char16_t*>(Svc(SERV_GetISRName, 55))), "UNKNOWN");
    EXPECT_TRUE(log.Contains("ZOR: SERV_SetISRPrio: invalid DLL handle! (55)\n\r"));
}

// service_isr and service_isr_b registered; each does on its next Interrupt
// what it is told and records the outcome.
class ModuleServicesTest : public ServicesTest {
protected:
    struct Mod {
        explicit Mod(const char* name) : mod(name) { mod.Fn<void (*)()>("Test_Reset")(); }
        void Act(std::uint32_t action, std::uintptr_t a1 = 0, std::uintptr_t a2 = 0) {
            mod.Fn<void (*)(std::uint32_t, std::uintptr_t, std::uintptr_t, std::uintptr_t, const void*,
                            std::uint32_t)>("Test_SetAction")(action, a1, a2, 0, nullptr, 0);
        }
        std::int64_t Result() { return mod.Fn<std::int64_t (*)()>("Test_ActionResult")(); }
        std::uint32_t Get(const char* fn) { return mod.Fn<std::uint32_t (*)()>(fn)(); }
        std::int64_t Call(std::uint32_t code) {
            return mod.Fn<std::int64_t (*)(std::uint32_t, std::uintptr_t, std::uintptr_t, std::uintptr_t)>(
                "Test_CallService")(code, 0, 0, 0);
        }
        std::string File() { return Utf8(mod.FileName()); }
        TestModule mod;
    };
    enum : std::uint32_t { kBlockSelf = 1, kSetPrio = 2, kInstall = 3, kIsIsrThread = 5 };
    void SetUp() override {
        sa = RegisterIsr(h, "service_isr");
        sb = RegisterIsr(h, "service_isr_b");
        ASSERT_TRUE(sa && sb);
        for (Mod* m : {&a, &b}) m->mod.Fn<void (*)(std::atomic<std::uint32_t>*)>("Test_SetOrderCounter")(&order);
    }
    void TearDown() override {
        for (Mod* m : {&a, &b}) m->mod.Fn<void (*)(std::atomic<std::uint32_t>*)>("Test_SetOrderCounter")(nullptr);
    }
    bool AFirst() { return a.Get("Test_LastStamp") < b.Get("Test_LastStamp"); }

    Mod a{"service_isr"}, b{"service_isr_b"};
    std::uint32_t sa = 0, sb = 0;
    std::atomic<std::uint32_t> order{0};
    IrqThread irq;
};

TEST_F(ModuleServicesTest, SetISRPrioReordersFromTheNextEvent) {
    irq.Fire(1);
    EXPECT_TRUE(AFirst());
    b.Act(kSetPrio, sb, 0);  // B moves itself ahead during event 2
    irq.Fire(2);
    EXPECT_EQ(b.Result(), 0);
    EXPECT_TRUE(AFirst());  // not within the same event
    irq.Fire(3);
    EXPECT_FALSE(AFirst());
    EXPECT_EQ(Svc(SERV_SetISRPrio, 99, 0), 1);
    EXPECT_TRUE(log.Contains("ZOR: SERV_SetISRPrio: invalid DLL handle! (99)\n\r"));
    EXPECT_EQ(Svc(SERV_SetISRPrio, sa, 0), 0);  // equal priorities fall back to slot order
    irq.Fire(4);
    EXPECT_TRUE(AFirst());
}

TEST_F(ModuleServicesTest, OnTheDispatchThreadAnIsrBlocksItselfWithoutWaiting) {
    h.dispatcher.processorCount.store(2);  // elsewhere the block would wait for the call's end
    a.Act(kBlockSelf);
    irq.Fire(1);
    EXPECT_EQ(a.Result(), 0);
    EXPECT_EQ(Svc(SERV_ISRBlocked, sa), 1);
    irq.Fire(2);
    EXPECT_EQ(a.Get("Test_Interrupts"), 1u);
    EXPECT_EQ(b.Get("Test_Interrupts"), 2u);
    EXPECT_FALSE(log.ContainsSubstr("BlockISR timeout"));
    EXPECT_EQ(Svc(SERV_BlockISR, sa, 0), 0);
    irq.Fire(3);
    EXPECT_EQ(a.Get("Test_Interrupts"), 2u);
    a.Act(kIsIsrThread);
    irq.Fire(4);
    EXPECT_EQ(a.Result(), 1);
    EXPECT_EQ(a.Call(SERV_IsISRThread), 0);
}

TEST_F(ModuleServicesTest, CustomServicesInstallDuplicateAndLeaveWithTheirOwner) {
    constexpr std::uint32_t kCode = 0x5000;
    a.Act(kInstall, kCode);
    irq.Fire(1);
    EXPECT_EQ(a.Result(), 0);
    EXPECT_EQ(Svc(kCode, 7), std::int64_t{0xC0000000} | (sa << 16) | 7);  // zero-extended
    b.Act(kInstall, kCode);
    irq.Fire(2);
    EXPECT_EQ(b.Result(), 0);
    EXPECT_TRUE(log.Contains("ZOR: Duplicate custom service 5000 registration! (" + b.File() + " & " +
                             a.File() + ")\n"));
    EXPECT_EQ(Svc(kCode, 7), std::int64_t{0xC0000000} | (sa << 16) | 7);  // the lower entry wins
    h.registry.UnregisterISR(sa);
    EXPECT_EQ(Svc(kCode, 7), std::int64_t{0xC0000000} | (sb << 16) | 7);
    h.registry.UnregisterISR(sb);
    EXPECT_EQ(Svc(kCode, 7), 0);  // unknown now
}

std::uint32_t Answer(std::uint32_t code, std::uintptr_t, std::uintptr_t, std::uintptr_t, std::uintptr_t,
                     std::uintptr_t, std::uintptr_t) {
    return code + 1;
}

TEST_F(ServicesTest, CustomTableHoldsTwoHundredAndRefusesOwnersBeyondTheSlots) {
    for (std::uint32_t i = 0; i < Services::kCustom; ++i)
        ASSERT_EQ(h.services.InstallService(1 + i % 3, 0x6000 + i, &Answer), 0u) << i;
    EXPECT_EQ(Svc(SERV_InstallService, 1, 0x7000, reinterpret_cast<std::uintptr_t>(&Answer)), 0xFFFFFFFFll);
    EXPECT_TRUE(log.Contains("ZOR: Installing custom service failed!!\n\r"));
    EXPECT_EQ(Svc(0x6000 + 199), 0x6000 + 200);
    h.services.RemoveCustomServices(2);  // frees every third entry
    EXPECT_EQ(Svc(0x6001), 0);
    EXPECT_EQ(h.services.InstallService(2, 0, &Answer), 0u);
    EXPECT_EQ(Svc(0), 1);  // code 0 is a custom code too
    log.Clear();
    EXPECT_EQ(h.services.InstallService(100, 0x8000, &Answer), 0xFFFFFFFFu);
    EXPECT_EQ(log.Lines(), std::vector<std::string>{
                               "ZOR: Installing custom service 8000 failed: invalid owner #100!\n\r"});
}

TEST_F(ModuleServicesTest, UnknownCallsAreLoggedAtTheFirstAndEvery16384thCallAndReported) {
    log.Clear();
    h.services.ReportUnknownServiceCalls();  // nothing recorded: nothing printed
    EXPECT_TRUE(log.Lines().empty());
    for (std::uint32_t i = 0; i < 2 * 16384 + 1; ++i) ASSERT_EQ(a.Call(0x7777), 0);
    b.Call(0x7777);  // another caller of the same code is a record of its own
    const std::string msg = "ZOR: Unknown service call (00007777) called ";
    EXPECT_EQ(log.LinesOf(2, 2),
              (std::vector<std::string>{msg + " by " + a.File() + "\n", msg + "16384 times by " + a.File() + "\n",
                                        msg + "32768 times by " + a.File() + "\n", msg + " by " + b.File() + "\n"}));
    log.Clear();
    h.services.ReportUnknownServiceCalls();
    auto row = [](const char* count, const std::string& name) {
        return std::string("ZOR: - 00007777 - ") + count + " - " + std::string(20 - name.size(), ' ') + name + " -\n";
    };
    const std::string rule = "ZOR: ----------------------------------------------\n";
    EXPECT_EQ(log.LinesOf(2, 2),
              (std::vector<std::string>{"ZOR: List of unknown service calls\n", rule,
                                        "ZOR: - Func      - # Called - Caller              -\n", rule,
                                        row("   32769", a.File()), row("       1", b.File()), rule}));
    // A full table still logs every new call; recorded ones count silently.
    for (std::uint32_t i = 2; i < Services::kUnknown; ++i) a.Call(0x100 + i);
    log.Clear();
    a.Call(0x999);
    a.Call(0x999);
    a.Call(0x100 + 2);
    const std::string line = "ZOR: Unknown service call (00000999) called  by " + a.File() + "\n";
    EXPECT_EQ(log.LinesOf(2, 2), (std::vector<std::string>{line, line}));
}

}  // namespace
}  // namespace zor::test
