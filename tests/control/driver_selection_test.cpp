// Start-up choice of the IRQ driver from the configuration, the warning
// when it is missing, the fallback, and the configured priority.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "common/test_host.h"
#include "common/irq_files.h"
#include "control/driver_selection.h"
#include "support/wstr.h"

namespace zor::test {
namespace {

namespace fs = std::filesystem;

class SelectionTest : public HostTest {
protected:
    void SetUp() override {
        const std::string tag = std::to_string(os::current_process_id()) + "_" +
                                testing::UnitTest::GetInstance()->current_test_info()->name();
        install_ = fs::temp_directory_path() / ("zor_sel_" + tag + "_install.ini");
        user_ = fs::temp_directory_path() / ("zor_sel_" + tag + "_user.ini");
        wcopy(h.config.szExe, 260, TestDir().c_str());
        wcopy(h.config.szIni, 260, install_.u16string().c_str());
        wcopy(h.config.szIniW, 260, user_.u16string().c_str());
        ui.ctx = &shown;
        ui.showWindow = [](void* ctx) { static_cast<Shown*>(ctx)->events += "show;"; };
        ui.warnNoDriver = [](void* ctx) { static_cast<Shown*>(ctx)->events += "warn;"; };
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove(install_, ec);
        fs::remove(user_, ec);
    }
    void Configure(const char16_t* last, const char16_t* fallback) {
        wcopy(h.config.lastIrqName, 260, last);
        wcopy(h.config.fallbackIrqName, 260, fallback);
    }
    static void WriteIni(const fs::path& p, const std::string& body) {
        std::ofstream(p) << "[INIT]\r\n" << body;
    }
    std::string LoadLine(const char16_t* file) {
        return "LoadIRQ " + Utf8(TestDir() + file) + "\n\r";
    }

    struct Shown {
        std::string events;
    } shown;
    SelectionUi ui;
    fs::path install_, user_;
    PriorityRecorder priorities;
};

TEST_F(SelectionTest, NameMatchesIgnoringCaseAndTheSearchIsLogged) {
    DriverFile drv(TestDir(), u"test_irq.irq");
    drv.Fn<void (*)(std::uint32_t, std::uint32_t, std::uint32_t)>("Test_Configure")(0, 0, 0);
    Configure(u"TEST_IRQ.IRQ", u"");

    EXPECT_EQ(SelectAndLoadIrq(h, ui), 0u);

    EXPECT_TRUE(log.Contains("Searching for '" + Utf8(TestDir()) + "*.irq' ...\n\r"));
    EXPECT_TRUE(log.Contains("Found 'test_irq.irq'\n\r"));
    EXPECT_NE(h.irq.search.lastIndex, IrqSearch::kNotFound);
    // The configured spelling is what gets loaded; it loads where the file
    // system ignores case (Windows), and is at least attempted elsewhere.
    EXPECT_TRUE(log.Contains(LoadLine(u"TEST_IRQ.IRQ")));
    DriverFile upper(TestDir(), u"TEST_IRQ.IRQ");
    EXPECT_EQ(h.irq.Loaded(), upper.Loaded());
}

TEST_F(SelectionTest, StartErrorGivesWayToThePresentFallbackOnly) {
    DriverFile drv(TestDir(), u"test_irq.irq");
    auto configure = drv.Fn<void (*)(std::uint32_t, std::uint32_t, std::uint32_t)>("Test_Configure");
    ASSERT_TRUE(configure);

    // Fallback present: the first is loaded strictly, fails, leaves.
    configure(5, 0, 0);
    Configure(u"test_irq.irq", u"test_irq_b.irq");
    SelectAndLoadIrq(h, ui);
    EXPECT_TRUE(log.Contains("ZOR: try to load fallback IRQ driver test_irq_b.irq\n"));
    EXPECT_TRUE(log.Contains(LoadLine(u"test_irq_b.irq")));
    ASSERT_TRUE(h.irq.Loaded());
    EXPECT_EQ(std::u16string(h.slots[h.irq.CurrentIrqSlot()].name), u"test_irq_b.irq");

    // Fallback configured but not in the directory: not strict, so the
    // failing driver stays.
    log.Clear();
    configure(5, 0, 0);
    Configure(u"test_irq.irq", u"absent.irq");
    SelectAndLoadIrq(h, ui);
    EXPECT_FALSE(log.ContainsSubstr("fallback"));
    ASSERT_TRUE(h.irq.Loaded());
    EXPECT_EQ(std::u16string(h.slots[h.irq.CurrentIrqSlot()].name), u"test_irq.irq");
    EXPECT_EQ(shown.events, "");
}

TEST_F(SelectionTest, PriorityComesFromBothFilesAndOnlyBelowThreeApplies) {
    DriverFile drv(TestDir(), u"test_irq.irq");
    drv.Fn<void (*)(std::uint32_t, std::uint32_t, std::uint32_t)>("Test_Configure")(0, 0x99, 0);
    Configure(u"test_irq.irq", u"");

    WriteIni(install_, "IRQPRIO=1\r\n");
    EXPECT_EQ(SelectAndLoadIrq(h, ui), 1u);
    EXPECT_EQ(h.irq.PriorityLevel(), 1u);

    // The per-user file wins; 3 is returned for the dialog but not applied.
    WriteIni(user_, "IRQPRIO=3\r\n");
    EXPECT_EQ(SelectAndLoadIrq(h, ui), 3u);
    EXPECT_EQ(h.irq.PriorityLevel(), 0u);  // the load's reset, nothing more

    WriteIni(user_, "IRQPRIO=2\r\n");
    priorities.Take();
    EXPECT_EQ(SelectAndLoadIrq(h, ui), 2u);
    EXPECT_EQ(h.irq.PriorityLevel(), 2u);
    // Level 2 starts at the last stage: realtime class, driver time-critical.
    EXPECT_EQ(priorities.Take(),
              (std::vector<PriorityCall>{{true, 0, 0x100},
                                         {false, os::current_thread(), 0},
                                         {false, 0x99, os::kThreadPriorityTimeCritical}}));

    // Without a driver the level is read and returned all the same.
    Configure(u"absent.irq", u"");
    EXPECT_EQ(SelectAndLoadIrq(h, ui), 2u);
}

}  // namespace
}  // namespace zor::test
