#include <gtest/gtest.h>

#include <string>

#include "common/scoped_env.h"
#include "os/os.h"
#include "support/paths.h"
#include "support/wstr.h"

namespace zor {
namespace {

std::u16string AppData() {
    char16_t dir[260];
    EXPECT_TRUE(os::user_appdata_dir(dir, 260));
    return dir;
}

TEST(Paths, FormatPathAddsTheSeparatorOnlyWhereMissingAndRoomy) {
    char16_t p[260] = u"C:\\dir";
    EXPECT_EQ(FU_FormatPath(p, u'\\'), p);
    EXPECT_EQ(std::u16string(p), u"C:\\dir\\");
    FU_FormatPath(p, u'\\');
    EXPECT_EQ(std::u16string(p), u"C:\\dir\\");
    char16_t empty[260] = u"";
    EXPECT_EQ(std::u16string(FU_FormatPath(empty, u'/')), u"/");

    char16_t full[260];
    for (int i = 0; i < 258; ++i) full[i] = u'a';
    full[258] = 0;
    FU_FormatPath(full, u'\\');  // 259 units + terminator: just fits
    EXPECT_EQ(wlen(full), 259u);
    EXPECT_EQ(full[258], u'\\');
    full[258] = u'a';
    full[259] = 0;
    FU_FormatPath(full, u'\\');  // no room left
    EXPECT_EQ(wlen(full), 259u);
    EXPECT_EQ(full[258], u'a');
}

TEST(Paths, ReplacePathExpandsTheUsersCompanyFolder) {
    test::ScopedEnv env("APPDATA", u"/zor-appdata-test/Roaming");
    std::u16string base = AppData();
    ASSERT_NE(base.find(u"zor-appdata-test"), std::u16string::npos);

    // The expansion exactly filling the buffer is fine; one unit less is not.
    std::u16string want = base + u"\\ZOR\\ZOR.ini";
    char16_t exact[260] = u"?{UserCompanyAppData}ZOR.ini";
    EXPECT_TRUE(FU_ReplacePath(exact, static_cast<std::uint32_t>(want.size() + 1)));
    EXPECT_EQ(std::u16string(exact), want);
    char16_t tight[260] = u"?{UserCompanyAppData}ZOR.ini";
    EXPECT_FALSE(FU_ReplacePath(tight, static_cast<std::uint32_t>(want.size())));
    EXPECT_EQ(std::u16string(tight), u"?{UserCompanyAppData}ZOR.ini");
}

}  // namespace
}  // namespace zor
