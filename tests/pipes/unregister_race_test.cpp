// Unregistering a module while clients call it: a pipe thread and command 5
// keep calling while the module is unloaded and loaded again. Every answer
// is the module's or "not registered"; no call lands in an unloaded library
// (it would fault there and be reported).
#include <atomic>
#include <thread>

#include "pipes/client_registry.h"
#include "pipes/client_test_util.h"
#include "common/test_host.h"

namespace zor::test {
namespace {

constexpr std::uint32_t kEmptyBody = 0x80000000u;  // test_isr: body of 0 bytes
constexpr std::uint32_t kEchoAnswer = 0x5A000000u;


TEST(UnregisterRace, CallsInFlightNeverMeetAnUnloadedModule) {
    TestHost th;
    Host& h = th.host();
    const std::uint32_t slot = RegisterIsr(h, "test_isr");
    ASSERT_NE(slot, 0u);
    os::Handle reqRead = 0, reqWrite = 0, repRead = 0, repWrite = 0;
    ASSERT_TRUE(os::pipe_create(&reqRead, &reqWrite) && os::pipe_create(&repRead, &repWrite));
    const std::uint32_t pid = os::current_process_id();
    h.clients.ConnectClientPipe(zor::os::process_peer(), h.clients.RegisterClient(pid), reqRead, repWrite, pid);
    os::handle_close(reqRead);
    os::handle_close(repWrite);

    std::atomic<bool> done{false};
    std::atomic<std::uint32_t> bad{0}, answered{0}, refused{0};
    auto check = [&](std::uint32_t a) {
        if (a == kEchoAnswer) ++answered;
        else if (a == 0xFFFFFFFFu) ++refused;
        else ++bad;
    };
    std::thread pipeClient([&] {
        const std::uint32_t frame[4] = {12, kEmptyBody, slot, 0};
        std::uint32_t n = 0;
        while (!done) {
            if (!os::pipe_write(reqWrite, frame, sizeof frame, &n)) return void(++bad);
            check(ReadWord(repRead));  // the end of the pipe counts as bad
        }
    });
    std::thread command5([&] {
        std::uint32_t request[4] = {kEmptyBody, slot, 0, 0};  // the module reads a first word
        while (!done) check(static_cast<std::uint32_t>(HandleClientRequest(h.slots, h.caller, request)));
    });
    std::uint32_t reloaded = 0;
    for (int i = 0; i < 40; ++i) {
        h.registry.UnregisterCommand(slot);
        os::sleep_ms(1);
        reloaded += RegisterIsr(h, "test_isr") == slot;
        os::sleep_ms(1);
    }
    done = true;
    pipeClient.join();
    command5.join();
    h.clients.StopAll();
    os::handle_close(reqWrite);
    os::handle_close(repRead);

    EXPECT_EQ(reloaded, 40u);
    EXPECT_EQ(bad.load(), 0u);
    EXPECT_GT(answered.load(), 0u);
    EXPECT_FALSE(th.log().ContainsSubstr("caused exception"));
}

}  // namespace
}  // namespace zor::test
