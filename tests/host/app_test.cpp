// The application sequence around a dialog of the test's own.
#include <gtest/gtest.h>

#include "host/app.h"
#include "host/command_intake.h"
#include "host/host.h"
#include "os/os.h"

namespace {

class RecordingShell : public zor::DialogShell {
public:
    std::intptr_t RunDialog(zor::Host& host, bool hideFlag) override {
        ++runs;
        hide = hideFlag;
        running = zor::RunningHost() == &host;
        configLoaded = host.config.szIni[0] != 0 && host.config.szIniW[0] != 0;
        // A command 4 ends the dialog as the window would.
        zor::DialogEnder ender{this, [](void* ctx, std::intptr_t r) {
                                   static_cast<RecordingShell*>(ctx)->ended = r;
                               }};
        zor::OnCopyData(host, ZOR_CMD_QUIT, nullptr, 0, ender);
        return ended;
    }
    int runs = 0;
    bool hide = false;
    bool running = false;
    bool configLoaded = false;
    std::intptr_t ended = 0;
};

TEST(App, RunsTheDialogOnceWithTheHostRunningAndTheConfigurationLoaded) {
    char16_t saved[1024];
    bool had = zor::os::env_get("ZOR_LOG_FILE", saved, 1024);
    zor::os::env_set("ZOR_LOG_FILE", u"");  // no log file from this test

    RecordingShell shown, hidden;
    EXPECT_EQ(zor::RunZorApp(u"", shown), 0);
    EXPECT_EQ(zor::RunZorApp(u"/x -hide", hidden), 0);
    zor::os::env_set("ZOR_LOG_FILE", had ? saved : nullptr);

    EXPECT_EQ(shown.runs, 1);
    EXPECT_FALSE(shown.hide);
    EXPECT_TRUE(hidden.hide);
    EXPECT_TRUE(shown.running);
    EXPECT_TRUE(shown.configLoaded);
    EXPECT_EQ(shown.ended, 1);
    EXPECT_EQ(zor::RunningHost(), nullptr);
}

}  // namespace
