// A fault inside a module unwinds the module's frames as __except does: its
// __finally blocks run before the call returns, so a module that faults
// holding its own lock is called again without deadlock. The module is a
// Windows one (clang's __try/__finally); elsewhere the tests are skipped.
#include "common/test_host.h"

namespace zor::test {
namespace {

const std::string kFaultLine = "ZOR: ISR 'win32_fin_isr.dll' caused exception in 'win32_fin_isr.dll'!\n\r";

class FaultUnwind : public ::testing::Test {
protected:
    void SetUp() override {
        if (!m_.Loaded()) GTEST_SKIP() << "Windows modules";
        slot_ = RegisterIsr(th_.host(), "win32_fin_isr");
        ASSERT_NE(slot_, 0u);
    }
    std::uint32_t Interrupt(std::uint32_t arg) { return th_->caller.CallModule(slot_, ZOR_FN_INTERRUPT, arg); }
    std::uint32_t FinallyRuns() { return m_.Fn<std::uint32_t (*)()>("finally_runs")(); }

    TestModule m_{"win32_fin_isr"};
    TestHost th_;
    std::uint32_t slot_ = 0;
};

TEST_F(FaultUnwind, TheFinallyBlockReleasesTheLockBeforeTheCallReturns) {
    EXPECT_EQ(Interrupt(1), 0u);  // faults holding the lock
    EXPECT_EQ(FinallyRuns(), 1u);
    EXPECT_EQ(Interrupt(0), 1u);  // the next event is not locked out
    EXPECT_EQ(FinallyRuns(), 2u);
    EXPECT_EQ(th_.log().Count(kFaultLine), 1u);
}

TEST_F(FaultUnwind, AFaultInsideTheFinallyBlockIsCaughtToo) {
    EXPECT_EQ(Interrupt(3), 0u);
    EXPECT_EQ(FinallyRuns(), 1u);
    // The cleanup was cut short with the lock still taken; the host goes on.
    EXPECT_EQ(Interrupt(0), 0xDEADu);
    EXPECT_EQ(th_.log().Count(kFaultLine), 1u);
}

}  // namespace
}  // namespace zor::test
