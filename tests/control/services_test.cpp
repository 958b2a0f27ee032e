// The service entry: built-in services on valid, invalid and locker-less
// module numbers, services called by real modules from inside the
// dispatch, custom services and the count of unknown calls.
#include <gtest/gtest.h>

#include <atomic>

#include "common/test_host.h"
#include "support/wstr.h"

namespace zor::test {
namespace {

class ServicesTest : public HostTest {
protected:
    std::int64_t Svc(std::uint32_t code, std::uintptr_t a1 = 0, std::uintptr_t a2 = 0, std::uintptr_t a3 = 0) {
        return h.services.Call(code, a1, a2, a3, 0, 0, 0, nullptr);
    }
    // A slot in use without a module behind it.
    std::uint32_t AddSlot(bool withLocker) {
        const std::uint32_t s = AddFakeIsr(h);
        if (withLocker) h.slots[s].locker = new PageLocker(h.log, h.lockedNames);
        return s;
    }
};

TEST_F(ServicesTest, MemoryServicesUseTheSlotsOwnLockerAndRefuseEverythingElse) {
    const std::uint32_t s = AddSlot(true);
    static unsigned char range[256];
    const auto addr = reinterpret_cast<std::uintptr_t>(range);
    TestModule mod("test_isr");
    const auto inModule = reinterpret_cast<std::uintptr_t>(mod.Fn<void*>("Test_Count"));
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

// test_isr and test_isr_b registered.
class ModuleServicesTest : public ServicesTest {
protected:
    void SetUp() override {
        sa = RegisterIsr(h, "test_isr");
        sb = RegisterIsr(h, "test_isr_b");
        ASSERT_TRUE(sa && sb);
    }
    void TearDown() override { a.Reset(), b.Reset(); }
    std::string File(const TestIsr& m) { return Utf8(m.FileName()); }

    TestIsr a{"test_isr"}, b{"test_isr_b"};
    std::uint32_t sa = 0, sb = 0;
    IrqThread irq;
};

std::uint32_t Answer(std::uint32_t code, std::uintptr_t, std::uintptr_t, std::uintptr_t, std::uintptr_t,
                     std::uintptr_t, std::uintptr_t) {
    return code + 1;
}

TEST_F(ModuleServicesTest, CustomServicesDuplicateLeaveWithTheirOwnerAndFillTwoHundredEntries) {
    constexpr std::uint32_t kCode = 0x5000;
    for (const TestIsr* m : {&a, &b}) {
        m->CallServiceOn(ZOR_FN_INTERRUPT, SERV_InstallService, {0, kCode, m->Custom()}, 1);
        irq.Fire(1);
        m->CallServiceOn(0, 0, {});
        EXPECT_EQ(m->ServiceResult(), 0);
    }
    EXPECT_TRUE(log.Contains("ZOR: Duplicate custom service 5000 registration! (" + File(b) + " & " +
                             File(a) + ")\n"));
    EXPECT_EQ(Svc(kCode, 7), std::int64_t{0xC0000000} | (sa << 16) | 7);  // the lower entry wins, zero-extended
    h.registry.UnregisterISR(sa);
    EXPECT_EQ(Svc(kCode, 7), std::int64_t{0xC0000000} | (sb << 16) | 7);
    h.registry.UnregisterISR(sb);
    EXPECT_EQ(Svc(kCode, 7), 0);  // unknown now
    // An unloaded module's slot takes no services until a module has it again.
    EXPECT_EQ(h.customServices.InstallService(sa, 0x6000, &Answer), 0xFFFFFFFFu);
    EXPECT_TRUE(log.Contains("ZOR: Installing custom service 6000 failed: invalid owner #" +
                             std::to_string(sa) + "!\n\r"));

    for (std::uint32_t i = 0; i < CustomServices::kCustom; ++i)
        ASSERT_EQ(h.customServices.InstallService(3 + i % 3, 0x6000 + i, &Answer), 0u) << i;  // slots never used
    EXPECT_EQ(Svc(SERV_InstallService, 3, 0x7000, reinterpret_cast<std::uintptr_t>(&Answer)), 0xFFFFFFFFll);
    EXPECT_TRUE(log.Contains("ZOR: Installing custom service failed!!\n\r"));
    EXPECT_EQ(Svc(0x6000 + 199), 0x6000 + 200);
    h.customServices.RemoveCustomServices(4);  // frees every third entry
    EXPECT_EQ(Svc(0x6001), 0);
    EXPECT_EQ(h.customServices.InstallService(4, 0, &Answer), 0u);
    EXPECT_EQ(Svc(0), 1);  // code 0 is a custom code too
    log.Clear();
    EXPECT_EQ(h.customServices.InstallService(100, 0x8000, &Answer), 0xFFFFFFFFu);
    EXPECT_EQ(log.Lines(), std::vector<std::string>{
                               "ZOR: Installing custom service 8000 failed: invalid owner #100!\n\r"});
}

}  // namespace
}  // namespace zor::test
