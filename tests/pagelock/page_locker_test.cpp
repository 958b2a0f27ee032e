// The page locker: range bookkeeping, module walk, name table, forgotten
// memory and the locked-modules report.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "common/test_host.h"
#include "pagelock/page_locker.h"

namespace zor {
namespace {

using test::Utf8;

class PageLockerTest : public ::testing::Test {
protected:
    test::TestLog log;
    LockedNames names;
};

TEST_F(PageLockerTest, RangesAreKeptInOrderAndRemovedFirstMatchFirst) {
    PageLocker locker(log.log(), names);
    EXPECT_EQ(0u, locker.UnlockRange(0x1000));
    EXPECT_TRUE(log.Contains("PageLocker: no entries\n\r"));
    EXPECT_EQ(1u, locker.LockRange(0x1000, 16));
    EXPECT_EQ(1u, locker.LockRange(0x7f0012345000ull, 16));  // full 64-bit bases
    EXPECT_EQ(1u, locker.LockRange(0x1000, 99));             // the same base again: a second entry
    EXPECT_EQ(0u, locker.UnlockRange(0x3000));
    EXPECT_TRUE(log.Contains("PageLocker: unlocking failed! (list seek error)\n\r"));
    EXPECT_EQ(1u, locker.UnlockRange(0x1000));  // removes only the first
    ASSERT_EQ(2u, locker.Count());
    EXPECT_EQ(0x7f0012345000ull, locker.Base(0));
    EXPECT_EQ(0x1000u, locker.Base(1));
    locker.UnlockRange(0x1000);
    locker.UnlockRange(0x7f0012345000ull);
}

TEST_F(PageLockerTest, The501stLockOverflowsLeavingTheFirst500AndAModulesName) {
    test::TestModule mod("test_isr");
    const void* fn = reinterpret_cast<const void*>(mod.Fn<void (*)()>("ISR_GetSet"));
    PageLocker locker(log.log(), names);
    for (std::uint64_t i = 0; i < 500; ++i) ASSERT_EQ(1u, locker.LockRange(0x10000 + i * 16, 16));
    log.Clear();
    EXPECT_EQ(0u, locker.LockRange(0xdead0000, 16));
    EXPECT_EQ(0u, locker.LockModule(fn));
    EXPECT_EQ(2u, log.Count("PageLocker: locking failed! (list overflow)\n\r"));
    ASSERT_EQ(500u, locker.Count());
    for (std::uint32_t i = 0; i < 500; ++i) ASSERT_EQ(0x10000 + i * 16ull, locker.Base(i));
    EXPECT_NE(0u, names.Find(mod.FileName()));
    for (std::uint64_t i = 0; i < 500; ++i) locker.UnlockRange(0x10000 + i * 16);
}

TEST_F(PageLockerTest, DestructionReleasesForgottenEntriesTwoPerPassNamingFirstAndThird) {
    {
        PageLocker locker(log.log(), names);
        for (std::uint64_t base : {0xa000, 0xb000, 0xc000}) locker.LockRange(base, 1);
        log.Clear();
    }
    EXPECT_EQ((std::vector<std::string>{"PageLocker: unlock forgotten memory! Base=a000\n\r",
                                        "PageLocker: unlock forgotten memory! Base=c000\n\r"}),
              log.Lines());
}

TEST_F(PageLockerTest, ModuleLockRecordsTheImageRangeAndNameUntilUnlocked) {
    test::TestModule mod("test_isr");
    const void* fn = reinterpret_cast<const void*>(mod.Fn<void (*)()>("ISR_GetSet"));
    ASSERT_NE(nullptr, fn);
    std::uint32_t base = 0, length = 0;
    ASSERT_TRUE(PageLocker::GetModuleRange(fn, &base, &length));
    EXPECT_LT(static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(fn)) - base, length);

    PageLocker locker(log.log(), names);
    EXPECT_EQ(1u, locker.LockModule(fn));
    ASSERT_EQ(1u, locker.Count());
    EXPECT_EQ(std::uint64_t{base}, locker.Base(0));
    EXPECT_NE(0u, names.Find(mod.FileName()));
    char tail[64];
    std::snprintf(tail, sizeof tail, "': Base=%x, Len=%u\n\r", base, length);
    const auto lines = log.LinesOf(2, 6);
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(0u, lines[0].find("PageLocker: lock '"));
    EXPECT_NE(std::string::npos, lines[0].find(Utf8(mod.FileName()) + tail));
    EXPECT_EQ(1u, locker.UnlockModule(fn));
    EXPECT_EQ(0u, locker.Count());
    EXPECT_EQ(0u, names.Find(mod.FileName()));
    EXPECT_TRUE(log.ContainsSubstr("PageLocker: unlock '"));
    // An address outside any module fails the walk.
    EXPECT_EQ(0u, locker.LockModule(nullptr));
    EXPECT_EQ(0u, locker.UnlockModule(nullptr));
    EXPECT_EQ(2u, log.Count("PageLocker: failed to get module memory range!\n\r"));
}

// A file name too long for the name table: the module is locked all the
// same, only its name is left out (with its log line); the report lists it
// as locked, and unlocking finds it.
TEST_F(PageLockerTest, AnOverlongModuleNameIsSkippedButTheRangeKept) {
    const std::u16string longName = u"a_module_file_name_of_33_units" ZOR_MODULE_SUFFIX;
    std::filesystem::copy_file(test::ModuleFileName("test_isr"), longName,
                               std::filesystem::copy_options::overwrite_existing);
    os::Module m = os::module_load(longName.c_str());
    ASSERT_NE(m, nullptr);
    const void* code = os::module_symbol(m, ZOR_ISR_EXPORT_NAME);
    {
        PageLocker locker(log.log(), names);
        EXPECT_EQ(locker.LockModule(code), 1u);
        EXPECT_EQ(names.Find(longName.c_str()), 0u);
        EXPECT_TRUE(log.ContainsSubstr("PageLocker: module name too long, not recorded: 'a_module"));
        log.Clear();
        ReportLockedModules(log.log(), names);
        const auto lines = log.Lines();
        ASSERT_GE(lines.size(), 3u);
        EXPECT_EQ(lines[1], Utf8(longName.c_str()) + "\n");  // LOCKED, right under its header
        for (std::size_t i = 2; i < lines.size(); ++i)
            EXPECT_EQ(lines[i].find("a_module_file"), std::string::npos) << lines[i];
        EXPECT_EQ(locker.UnlockModule(code), 1u);
        EXPECT_EQ(locker.Count(), 0u);
    }
    EXPECT_FALSE(log.ContainsSubstr("list seek error"));
    os::module_free(m);
    std::filesystem::remove(longName);
}

TEST_F(PageLockerTest, ReportListsLockedNamesAndEveryOtherLoadedModule) {
    test::TestModule locked("test_isr"), unlocked("test_isr_b");
    const void* fn = reinterpret_cast<const void*>(locked.Fn<void (*)()>("ISR_GetSet"));
    PageLocker locker(log.log(), names);
    ASSERT_EQ(1u, locker.LockModule(fn));
    log.Clear();
    ReportLockedModules(log.log(), names);
    const auto lines = log.Lines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ("ZOR: ############### LOCKED DLLs #####################################################\n", lines[0]);
    EXPECT_EQ(Utf8(locked.FileName()) + "\n", lines[1]);
    EXPECT_EQ("ZOR: ########### NON LOCKED DLLs (DLLs used in ISR should be locked!) ################\n", lines[2]);
    EXPECT_EQ("ZOR: #################################################################################\n", lines.back());
    // The NON LOCKED part names full paths: the unlocked module, not the locked one.
    auto endsWith = [](std::string s, const char16_t* name) {
        for (char& c : s) if (c == '/') c = '\\';
        const std::string e = "\\" + Utf8(name) + "\n";
        return s.size() >= e.size() && s.compare(s.size() - e.size(), e.size(), e) == 0;
    };
    bool sawUnlocked = false;
    for (std::size_t i = 3; i + 1 < lines.size(); ++i) {
        EXPECT_FALSE(endsWith(lines[i], locked.FileName())) << lines[i];
        sawUnlocked |= endsWith(lines[i], unlocked.FileName());
    }
    EXPECT_TRUE(sawUnlocked);
    locker.UnlockModule(fn);
}

}  // namespace
}  // namespace zor
