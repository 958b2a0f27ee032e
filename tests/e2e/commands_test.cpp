// This test process as a client of the real host (trigger driver, echo
// module): module registration with private shared memory, the lookups,
// requests by command and by pipe, the system area, unknown numbers and
// malformed payloads, and a host that dies while a client waits.
#include <atomic>
#include <cstring>
#include <thread>

#include "e2e_support.h"

namespace zor::e2e {
namespace {

constexpr std::uint32_t kEchoMark = 0x4F484345u;

// The echo module's answer: the body's byte sum ^ 0x5A000000. It learns the
// body's length from the caller tag.
std::uint32_t EchoCall(int (*call)(ZorConnection*, std::uint32_t, std::uint32_t, const void*, std::uint32_t,
                                   std::uint32_t*),
                       ZorConnection* c, std::uint32_t mod, const std::vector<unsigned char>& body) {
    std::uint32_t r = 0;
    const int st = call(c, mod, 0x80000000u | static_cast<std::uint32_t>(body.size()), body.data(),
                        static_cast<std::uint32_t>(body.size()), &r);
    std::uint32_t sum = 0;
    for (unsigned char b : body) sum += b;
    EXPECT_EQ(st, ZOR_OK) << zor_strerror(st);
    EXPECT_EQ(r, sum ^ 0x5A000000u);
    return r;
}

std::vector<unsigned char> Bytes(std::uint64_t lo, std::uint64_t hi = 0, std::size_t n = 16) {
    std::vector<unsigned char> v(n);
    std::memcpy(v.data(), &lo, n < 8 ? n : 8);
    if (n > 8) std::memcpy(v.data() + 8, &hi, 8);
    return v;
}

class Commands : public ::testing::Test {
protected:
    ZorInstance zor_;
    ZorConnection* c_ = zor_.conn();
};

TEST_F(Commands, ModuleRegistrationLookupsCallsPipeRequestsAndRemoval) {
    ASSERT_NE(c_, nullptr);
    std::uint32_t mod = 0, found = 0, size = 0, r = 0;
    ZorView shm{}, again{};
    ASSERT_EQ(zor_register_module(c_, Mod("test_isr").c_str(), 4096, &mod, &shm), ZOR_OK);
    ASSERT_GE(mod, 1u);
    // Our duplicate of the module's memory shows what its Initialize wrote.
    EXPECT_EQ(*static_cast<std::uint32_t*>(shm.base), kEchoMark);
    EXPECT_EQ(zor_find_module(c_, Mod("TEST_ISR").c_str(), &found), ZOR_OK);
    EXPECT_EQ(found, mod);
    EXPECT_EQ(zor_module_info(c_, mod, &size), ZOR_OK);
    EXPECT_EQ(size, 4096u);
    ASSERT_EQ(zor_module_memory(c_, mod, 0, &again), ZOR_OK);
    EXPECT_EQ(*static_cast<std::uint32_t*>(again.base), kEchoMark);
    EchoCall(zor_module_call, c_, mod, {1, 4, 7, 10, 13, 16, 19, 22, 25, 28, 31, 34, 37, 40, 43, 46});
    EXPECT_EQ(zor_module_call(c_, 0, 0, nullptr, 0, &r), ZOR_E_NOT_REGISTERED);
    EXPECT_EQ(r, 0xFFFFFFFFu);

    // Pipe requests from 12 bytes to the host's full 256 KiB buffer.
    ASSERT_EQ(zor_pipe_open(c_), ZOR_OK);  // commands 11 and 8
    EchoCall(zor_pipe_call, c_, mod, {});
    std::vector<unsigned char> big(ZOR_CLIENT_MAX_BODY);
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<unsigned char>(i * 13 + 7);
    EchoCall(zor_pipe_call, c_, mod, big);
    EXPECT_EQ(zor_pipe_call(c_, 0, 0, "abc", 3, &r), ZOR_E_NOT_REGISTERED);
    EXPECT_EQ(r, 0xFFFFFFFFu);
    EchoCall(zor_pipe_call, c_, mod, {9});  // still in step
    EXPECT_EQ(zor_pipe_close(c_), ZOR_OK);  // commands 9 and 12
    EXPECT_EQ(CountOf(zor_.Log(), "ZOR: Pipe-Communication failed!"), 0u);

    // Command 2 answers 0 and removes it; the lookups then find nothing.
    EXPECT_EQ(zor_.Send(ZOR_CMD_ISR_UNREGISTER, Bytes(0, mod)), 0u);
    EXPECT_EQ(zor_find_module(c_, Mod("test_isr").c_str(), &found), ZOR_E_NOT_REGISTERED);
    EXPECT_EQ(zor_module_info(c_, mod, &size), ZOR_OK);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(zor_register_module(c_, Mod("no_such_module").c_str(), 0, &found, nullptr), ZOR_E_REFUSED);
    // Registered again, found again.
    ASSERT_EQ(zor_register_module(c_, Mod("test_isr").c_str(), 0, &mod, nullptr), ZOR_OK);
    EXPECT_EQ(zor_find_module(c_, Mod("test_ISR").c_str(), &found), ZOR_OK);
    EXPECT_EQ(found, mod);
    EXPECT_TRUE(zor_.WaitLog("Register DLL " + Mod("test_isr") + "\n\r", 2));
    zor_unmap(&shm);
    zor_unmap(&again);
}

// The command intake's own tests cover each short payload; this is the window's or socket's path.
TEST_F(Commands, UnknownNumbersAndShortPayloadsAreRefusedAndHarmless) {
    for (std::uint64_t cmd : {0ull, 10ull, 16ull, ~0ull}) EXPECT_EQ(zor_.Send(cmd, Bytes(0x200000001)), 0u) << cmd;
    EXPECT_EQ(zor_.Send(ZOR_CMD_MODULE_CALL, {0, 0, 0, 0, 1}), 0xFFFFFFFFu);
    // A name that runs to the payload's end without its terminator.
    std::vector<unsigned char> name(16, 0);
    for (char ch : {'A', 'B', 'C'}) name.insert(name.end(), {static_cast<unsigned char>(ch), 0});
    EXPECT_EQ(zor_.Send(ZOR_CMD_FIND_MODULE, name), 0u);
    EXPECT_EQ(zor_.Send(ZOR_CMD_IRQ_CONTROL, {3, 0, 0, 0}), 1u);  // still serving
    EXPECT_TRUE(zor_.WaitLog("ZOR: command 5: payload of 5 bytes too short\n\r"));
    EXPECT_TRUE(zor_.WaitLog("ZOR: command 13: name not terminated in 22 bytes\n\r"));
}

TEST_F(Commands, TheSystemAreaFollowsEventsAndAHostThatDiesEndsAWait) {
    std::uint32_t mod = 0, r = 0;
    ASSERT_EQ(zor_register_module(c_, Mod("test_isr").c_str(), 0, &mod, nullptr), ZOR_OK);
    const ZorSystemSharedArea* area = nullptr;
    ASSERT_EQ(zor_system_area(c_, 0x10000, &area), ZOR_OK);
    EXPECT_EQ(area->capacity, 0x10000u - ZOR_SSA_QUEUE);
    ASSERT_EQ(zor_irq_control(c_, 5, &r), ZOR_OK);  // the trigger driver fires 5 events
    EXPECT_EQ(r, 1u);                                // its first sequence number
    for (int i = 0; i < 300 && area->sequence != 5; ++i) Pause(10);
    EXPECT_EQ(area->sequence, 5u);

    // Hold the queue's lock as a stuck writer would: nothing can be queued.
    ASSERT_EQ(std::atomic_ref(*const_cast<std::uint32_t*>(&area->sync_tdl)).exchange(1), 0u);
    std::thread killer([&] {
        Pause(400);
        zor_.Kill();
    });
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(zor_exec_isr_func(c_, mod, 1, nullptr, 0, 20000, &r), ZOR_E_HOST_GONE);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
    killer.join();
    EXPECT_EQ(zor_irq_query(c_, &r), ZOR_E_HOST_GONE);  // every later call says so at once
    EXPECT_EQ(zor_module_call(c_, mod, 0, "x", 1, &r), ZOR_E_HOST_GONE);
}

}  // namespace
}  // namespace zor::e2e
