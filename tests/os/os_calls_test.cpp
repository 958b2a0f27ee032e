// Failing an OS call by name: exactly that entry of the table changes, and
// the wrapper the core calls then reports the call's own failure value.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "os/os.h"

namespace zor::os {
namespace {

// The names of the entries that differ from the native table.
std::vector<std::string> Replaced() {
    std::vector<std::string> out;
#define ZOR_OS_CALL(ret, name, params, args, fails) \
    if (calls.name != native_calls().name) out.push_back(#name);
#include "os/os_calls.h"
#undef ZOR_OS_CALL
    return out;
}

struct RestoreCalls {
    ~RestoreCalls() { calls = native_calls(); }
};

TEST(OsCalls, FailingACallByNameReplacesThatEntryAlone) {
    RestoreCalls restore;
    for (const char* name : call_names) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(fail_call(name));
        EXPECT_EQ(Replaced(), std::vector<std::string>{name});
        calls = native_calls();
    }
    EXPECT_FALSE(fail_call("module_loads"));
    EXPECT_FALSE(fail_call(""));
    EXPECT_TRUE(Replaced().empty());
}

TEST(OsCalls, TheWrappersGoThroughTheTable) {
    RestoreCalls restore;
    Handle r = 0, w = 0;
    ASSERT_TRUE(pipe_create(&r, &w));
    Thread t = thread_create([](void*) -> std::uint32_t { return 0; }, nullptr);
    ASSERT_NE(t, 0u);
    for (const char* name : {"mapping_create", "pipe_write", "thread_wait"}) fail_call(name);
    std::uint32_t done = 0;
    EXPECT_EQ(mapping_create(4096), 0u);
    EXPECT_FALSE(pipe_write(w, "x", 1, &done));
    EXPECT_EQ(thread_wait(t, 10000), kWaitTimeout);  // a timeout, though the thread ends at once
    calls = native_calls();
    EXPECT_TRUE(pipe_write(w, "x", 1, &done));
    EXPECT_EQ(thread_wait(t, 10000), 0u);
    EXPECT_TRUE(thread_close(t));
    EXPECT_TRUE(handle_close(r) && handle_close(w));
}

}  // namespace
}  // namespace zor::os
