// A module whose file name is too long for the name table is still locked:
// only its name is left out, with its log line, and unlocking finds it.
#include <gtest/gtest.h>

#include <filesystem>

#include "common/test_host.h"
#include "lock/page_locker.h"

namespace zor {
namespace {

TEST(PageLockerLongName, TheRangeIsKeptAndOnlyTheNameSkipped) {
    const std::u16string longName = u"a_module_file_name_of_33_units" ZOR_MODULE_SUFFIX;
    std::filesystem::copy_file(test::ModuleFileName("test_isr"), longName,
                               std::filesystem::copy_options::overwrite_existing);
    os::Module m = os::module_load(longName.c_str());
    ASSERT_NE(m, nullptr);
    const void* code = os::module_symbol(m, ZOR_ISR_EXPORT_NAME);
    test::TestLog log;
    LockedNames names;
    {
        PageLocker locker(log.log(), names);
        EXPECT_EQ(locker.LockModule(code), 1u);
        EXPECT_EQ(locker.Count(), 1u);
        EXPECT_EQ(names.Find(longName.c_str()), 0u);
        EXPECT_TRUE(log.ContainsSubstr("PageLocker: module name too long, not recorded: 'a_module"));
        EXPECT_EQ(locker.UnlockModule(code), 1u);
        EXPECT_EQ(locker.Count(), 0u);
    }
    EXPECT_FALSE(log.ContainsSubstr("list seek error"));
    os::module_free(m);
    std::filesystem::remove(longName);
}

}  // namespace
}  // namespace zor
