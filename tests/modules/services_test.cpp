// The service entry: built-in services on valid, invalid and locker-less
// module numbers, services called by real modules from inside the
// dispatch, custom services and the count of unknown calls.
#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "common/test_host.h"
#include "support/wstr.h"

namespace zor {
namespace {

using test::IrqThread;
using test::TestModule;

enum Action : std::uint32_t {
    kActBlockSelf = 1,
    kActSetPrio = 2,
    kActInstall = 3,
    kActIsIsrThread = 5,
};

std::string Utf8(const char16_t* s) {
    std::string r;
    for (; *s; ++s) r += static_cast<char>(*s);
    return r;
}

class ServicesTest : public test::HostTest {
protected:
    std::int64_t Svc(std::uint32_t code, std::uintptr_t a1 = 0, std::uintptr_t a2 = 0,
                     std::uintptr_t a3 = 0) {
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

// The control exports of service_isr / service_isr_b.
struct ServiceModule {
    explicit ServiceModule(const char* name) : mod(name) {
        reset = mod.Fn<void (*)()>("Test_Reset");
        setAction = mod.Fn<void (*)(std::uint32_t, std::uintptr_t, std::uintptr_t,
                                    std::uintptr_t, const void*, std::uint32_t)>("Test_SetAction");
        actionResult = mod.Fn<std::int64_t (*)()>("Test_ActionResult");
        setOrderCounter = mod.Fn<void (*)(std::atomic<std::uint32_t>*)>("Test_SetOrderCounter");
        lastStamp = mod.Fn<std::uint32_t (*)()>("Test_LastStamp");
        interrupts = mod.Fn<std::uint32_t (*)()>("Test_Interrupts");
        callService = mod.Fn<std::int64_t (*)(std::uint32_t, std::uintptr_t, std::uintptr_t,
                                              std::uintptr_t)>("Test_CallService");
        reset();
    }
    void Act(std::uint32_t action, std::uintptr_t a1 = 0, std::uintptr_t a2 = 0) {
        setAction(action, a1, a2, 0, nullptr, 0);
    }

    TestModule mod;
    void (*reset)();
    void (*setAction)(std::uint32_t, std::uintptr_t, std::uintptr_t, std::uintptr_t, const void*,
                      std::uint32_t);
    std::int64_t (*actionResult)();
    void (*setOrderCounter)(std::atomic<std::uint32_t>*);
    std::uint32_t (*lastStamp)();
    std::uint32_t (*interrupts)();
    std::int64_t (*callService)(std::uint32_t, std::uintptr_t, std::uintptr_t, std::uintptr_t);
};

// ------------------------------------------------------------------ 1..4

TEST_F(ServicesTest, MemoryServicesUseTheSlotsOwnLocker) {
    const std::uint32_t s = AddSlot(true);
    static unsigned char range[256];
    const auto addr = reinterpret_cast<std::uintptr_t>(range);
    const std::uint32_t systemBefore = h.sysLocker.Count();

    EXPECT_EQ(Svc(SERV_MemLock, s, addr, sizeof range), 1);
    EXPECT_EQ(h.slots[s].locker->Count(), 1u);
    EXPECT_EQ(Svc(SERV_MemUnlock, s, addr), 1);
    EXPECT_EQ(Svc(SERV_MemUnlock, s, addr), 0);  // the locker's own answer
    EXPECT_EQ(h.slots[s].locker->Count(), 0u);

    TestModule mod("service_isr");
    const auto inModule = reinterpret_cast<std::uintptr_t>(mod.Fn<void*>("Test_Number"));
    EXPECT_EQ(Svc(SERV_ModuleLock, s, inModule), 1);
    EXPECT_EQ(h.slots[s].locker->Count(), 1u);
    EXPECT_EQ(Svc(SERV_ModuleUnlock, s, inModule), 1);
    EXPECT_EQ(h.slots[s].locker->Count(), 0u);
    // Only the 32-bit module number counts.
    EXPECT_EQ(Svc(SERV_MemLock, (std::uintptr_t{1} << 32) + s, addr, 8), 1);
    EXPECT_EQ(h.sysLocker.Count(), systemBefore);
    EXPECT_FALSE(log.ContainsSubstr("DLL"));  // no refusal of the service itself
}

TEST_F(ServicesTest, MemoryServicesRefuseInvalidNumbersAndSlotsWithoutLocker) {
    const std::uint32_t bare = AddSlot(false);
    const std::uint32_t freed = AddSlot(false);
    h.slots.Free(freed);
    const char* names[] = {"SERV_MemLock", "SERV_MemUnlock", "SERV_ModuleLock", "SERV_ModuleUnlock"};
    const char* lockerNames[] = {"SERV_MemLock", "SERV_MemUnock", "SERV_ModuleLock",
                                 "SERV_ModuleUnlock"};
    for (std::uint32_t code = SERV_MemLock; code <= SERV_ModuleUnlock; ++code) {
        SCOPED_TRACE(names[code - 1]);
        log.Clear();
        const std::string invalid = std::string("ZOR: ") + names[code - 1] + ": invalid DLL handle! (";
        for (std::uintptr_t a1 : {std::uintptr_t{0}, std::uintptr_t{100},
                                  static_cast<std::uintptr_t>(freed), std::uintptr_t{0xFFFFFFFF}})
            EXPECT_EQ(Svc(code, a1, 0x1000, 16), 0);
        EXPECT_EQ(Svc(code, bare, 0x1000, 16), 0);
        EXPECT_EQ(log.Lines(),
                  (std::vector<std::string>{
                      invalid + "0)\n\r", invalid + "100)\n\r",
                      invalid + std::to_string(freed) + ")\n\r", invalid + "-1)\n\r",
                      std::string("ZOR: ") + lockerNames[code - 1] + ": no PageLocker for DLL " +
                          std::to_string(bare) + " found!\n\r"}));
        EXPECT_EQ(log.LinesOf(2, 1).size(), 5u);
    }
}

// ------------------------------------------------------------------ queries

TEST_F(ServicesTest, QueriesAnswerWithoutAreaDriverOrContext) {
    EXPECT_EQ(Svc(SERV_GetIRQTime), 0);  // no system area yet
    EXPECT_EQ(Svc(SERV_IRQQuery), 1000);
    EXPECT_EQ(Svc(SERV_IsISRThread), 0);
    EXPECT_EQ(Svc(SERV_GetCallContext), 0);
    ASSERT_NE(h.shm.SysMem(os::current_process_id(), ZOR_SSA_QUEUE + 64), 0u);
    IrqThread irq;
    irq.Fire(0xFFFFFFF0u);
    EXPECT_EQ(Svc(SERV_GetIRQTime), 0xFFFFFFF0ll);  // unsigned, zero-extended
}

TEST_F(ServicesTest, GetISRNameAnswersTheSlotsNameOrUnknown) {
    const std::uint32_t s = AddSlot(false);
    wcopy(h.slots[s].name, 20, u"some_isr.dll");
    const auto* name = reinterpret_cast<const char16_t*>(Svc(SERV_GetISRName, s));
    EXPECT_EQ(name, h.slots[s].name);
    const auto* unknown = reinterpret_cast<const char16_t*>(Svc(SERV_GetISRName, 55));
    EXPECT_EQ(Utf8(unknown), "UNKNOWN");
    EXPECT_TRUE(log.Contains("ZOR: SERV_SetISRPrio: invalid DLL handle! (55)\n\r"));
}

// ------------------------------------------------------------------ from inside the dispatch

class ModuleServicesTest : public ServicesTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(a.mod.Loaded() && b.mod.Loaded());
        sa = test::RegisterIsr(h, "service_isr");
        sb = test::RegisterIsr(h, "service_isr_b");
        ASSERT_NE(sa, 0u);
        ASSERT_NE(sb, 0u);
        a.setOrderCounter(&order);
        b.setOrderCounter(&order);
    }
    void TearDown() override {
        a.setOrderCounter(nullptr);
        b.setOrderCounter(nullptr);
    }

    ServiceModule a{"service_isr"};
    ServiceModule b{"service_isr_b"};
    std::uint32_t sa = 0, sb = 0;
    std::atomic<std::uint32_t> order{0};
    IrqThread irq;
};

TEST_F(ModuleServicesTest, SetISRPrioReordersFromTheNextEvent) {
    irq.Fire(1);
    EXPECT_LT(a.lastStamp(), b.lastStamp());
    b.Act(kActSetPrio, sb, 0);  // B moves itself ahead during event 2
    irq.Fire(2);
    EXPECT_EQ(b.actionResult(), 0);
    EXPECT_LT(a.lastStamp(), b.lastStamp());  // not within the same event
    irq.Fire(3);
    EXPECT_GT(a.lastStamp(), b.lastStamp());
    EXPECT_EQ(h.slots[sb].priority.load(), 0u);

    EXPECT_EQ(Svc(SERV_SetISRPrio, 99, 0), 1);
    EXPECT_TRUE(log.Contains("ZOR: SERV_SetISRPrio: invalid DLL handle! (99)\n\r"));
    // Equal priorities fall back to slot order.
    EXPECT_EQ(Svc(SERV_SetISRPrio, sa, 0), 0);
    irq.Fire(4);
    EXPECT_LT(a.lastStamp(), b.lastStamp());
}

TEST_F(ModuleServicesTest, AnIsrBlocksItselfFromInsideTheDispatchWithoutWaiting) {
    // With several processors a block from another thread waits for the
    // ISR to leave Interrupt; from the dispatch thread it must not.
    h.dispatcher.processorCount.store(2);
    a.Act(kActBlockSelf);
    irq.Fire(1);
    EXPECT_EQ(a.actionResult(), 0);
    EXPECT_EQ(Svc(SERV_ISRBlocked, sa), 1);
    irq.Fire(2);
    EXPECT_EQ(a.interrupts(), 1u);
    EXPECT_EQ(b.interrupts(), 2u);
    EXPECT_FALSE(log.ContainsSubstr("BlockISR timeout"));

    EXPECT_EQ(Svc(SERV_BlockISR, sa, 0), 0);
    irq.Fire(3);
    EXPECT_EQ(a.interrupts(), 2u);
    EXPECT_EQ(Svc(SERV_BlockISR, 0, 1), 0);
    EXPECT_TRUE(log.Contains("ZOR: SERV_BlockISR: invalid DLL handle! (0)\n\r"));
    EXPECT_EQ(Svc(SERV_ISRBlocked, 100), 0);
    EXPECT_TRUE(log.Contains("ZOR: SERV_ISRBlocked: invalid DLL handle! (100)\n\r"));
}

TEST_F(ModuleServicesTest, IsISRThreadHoldsOnlyOnTheDispatchThread) {
    a.Act(kActIsIsrThread);
    irq.Fire(1);
    EXPECT_EQ(a.actionResult(), 1);
    EXPECT_EQ(a.callService(SERV_IsISRThread, 0, 0, 0), 0);
}

// ------------------------------------------------------------------ custom services

TEST_F(ModuleServicesTest, CustomServicesInstallDuplicateAndLeaveWithTheirOwner) {
    constexpr std::uint32_t kCode = 0x5000;
    a.Act(kActInstall, kCode);
    irq.Fire(1);
    EXPECT_EQ(a.actionResult(), 0);
    EXPECT_EQ(Svc(kCode, 7), std::int64_t{0xC0000000} | (sa << 16) | 7);  // zero-extended
    b.Act(kActInstall, kCode);
    irq.Fire(2);
    EXPECT_EQ(b.actionResult(), 0);
    EXPECT_TRUE(log.Contains("ZOR: Duplicate custom service 5000 registration! (" +
                             Utf8(b.mod.FileName()) + " & " + Utf8(a.mod.FileName()) + ")\n"));
    EXPECT_EQ(Svc(kCode, 7), std::int64_t{0xC0000000} | (sa << 16) | 7);  // the lower entry wins

    h.registry.UnregisterISR(sa);
    EXPECT_EQ(Svc(kCode, 7), std::int64_t{0xC0000000} | (sb << 16) | 7);
    h.registry.UnregisterISR(sb);
    log.Clear();
    EXPECT_EQ(Svc(kCode, 7), 0);  // unknown now
    EXPECT_TRUE(log.ContainsSubstr("ZOR: Unknown service call (00005000) called  by "));
}

std::uint32_t Answer(std::uint32_t code, std::uintptr_t, std::uintptr_t, std::uintptr_t,
                     std::uintptr_t, std::uintptr_t, std::uintptr_t) {
    return code + 1;
}

TEST_F(ServicesTest, CustomTableHoldsTwoHundredAndRefusesOwnersBeyondTheSlots) {
    for (std::uint32_t i = 0; i < Services::kCustom; ++i)
        ASSERT_EQ(h.services.InstallService(1 + i % 3, 0x6000 + i, &Answer), 0u) << i;
    EXPECT_EQ(Svc(SERV_InstallService, 1, 0x7000, reinterpret_cast<std::uintptr_t>(&Answer)),
              0xFFFFFFFFll);
    EXPECT_TRUE(log.Contains("ZOR: Installing custom service failed!!\n\r"));
    EXPECT_EQ(Svc(0x6000 + 199), 0x6000 + 200);

    h.services.RemoveCustomServices(2);  // frees every third entry
    EXPECT_EQ(Svc(0x6001), 0);
    EXPECT_EQ(Svc(0x6000), 0x6001);
    EXPECT_EQ(h.services.InstallService(2, 0, &Answer), 0u);
    EXPECT_EQ(Svc(0), 1);  // code 0 is a custom code too

    log.Clear();
    EXPECT_EQ(h.services.InstallService(100, 0x8000, &Answer), 0xFFFFFFFFu);
    EXPECT_EQ(log.Lines(), std::vector<std::string>{
                               "ZOR: Installing custom service 8000 failed: invalid owner #100!\n\r"});
    EXPECT_EQ(Svc(0x8000), 0);
}

// ------------------------------------------------------------------ unknown calls

TEST_F(ModuleServicesTest, UnknownCallsAreLoggedAtTheFirstAndEvery16384thCall) {
    const std::string by = Utf8(a.mod.FileName());
    for (std::uint32_t i = 0; i < 2 * 16384 + 1; ++i) ASSERT_EQ(a.callService(0x7777, 0, 0, 0), 0);
    EXPECT_EQ(log.LinesOf(2, 2),
              (std::vector<std::string>{
                  "ZOR: Unknown service call (00007777) called  by " + by + "\n",
                  "ZOR: Unknown service call (00007777) called 16384 times by " + by + "\n",
                  "ZOR: Unknown service call (00007777) called 32768 times by " + by + "\n"}));
    // Another caller of the same code is a record of its own.
    b.callService(0x7777, 0, 0, 0);
    EXPECT_TRUE(log.Contains("ZOR: Unknown service call (00007777) called  by " +
                             Utf8(b.mod.FileName()) + "\n"));

    log.Clear();
    h.services.ReportUnknownServiceCalls();
    auto row = [](const char* code, const char* count, const std::string& name) {
        return std::string("ZOR: - ") + code + " - " + count + " - " +
               std::string(20 - name.size(), ' ') + name + " -\n";
    };
    const std::string rule = "ZOR: ----------------------------------------------\n";
    EXPECT_EQ(log.LinesOf(2, 2),
              (std::vector<std::string>{"ZOR: List of unknown service calls\n", rule,
                                        "ZOR: - Func      - # Called - Caller              -\n",
                                        rule, row("00007777", "   32769", by),
                                        row("00007777", "       1", Utf8(b.mod.FileName())),
                                        rule}));
}

TEST_F(ModuleServicesTest, AFullUnknownTableStillLogsEveryNewCall) {
    log.Clear();
    h.services.ReportUnknownServiceCalls();  // nothing recorded: nothing printed
    EXPECT_TRUE(log.Lines().empty());
    for (std::uint32_t i = 0; i < Services::kUnknown; ++i) a.callService(0x100 + i, 0, 0, 0);
    log.Clear();
    a.callService(0x999, 0, 0, 0);
    a.callService(0x999, 0, 0, 0);
    a.callService(0x100, 0, 0, 0);  // recorded: counted silently
    const std::string line =
        "ZOR: Unknown service call (00000999) called  by " + Utf8(a.mod.FileName()) + "\n";
    EXPECT_EQ(log.LinesOf(2, 2), (std::vector<std::string>{line, line}));
}

}  // namespace
}  // namespace zor
