// The pipe protocol over real pipes in this process: refused lengths and
// split frames, the failure count over the thread's life, and stopping a
// thread that is waiting or serving.
#include "client_test_util.h"

#include <chrono>
#include <thread>

namespace zor::test {
namespace {

class Pipe : public ClientFixture {
protected:
    void SetUp() override {
        ClientFixture::SetUp();
        index_ = host_->clients.RegisterClient(os::current_process_id());
        Connect(index_);
    }
    std::uint32_t index_ = 0;
};

// A length the buffer cannot hold or too short for the header is a failed
// pass; nothing of the request is read, and the next frame is served.
TEST_F(Pipe, TenFailuresOverTheThreadsLifeEndIt) {
    for (int i = 0; i < 5; ++i) SendLength(0);
    SendRequest(slot_, {5});
    EXPECT_EQ(Answer(), Expected({5}));
    for (int i = 0; i < 4; ++i) SendLength(0);
    EXPECT_FALSE(ThreadEnds(index_, 200));
    SendLength(0);
    EXPECT_TRUE(ThreadEnds(index_, 5000));
    EXPECT_EQ(Failures(), 10u);
    // The record keeps its handles until the client is stopped.
    EXPECT_NE(host_->clients.Record(index_).requestPipe.load(), 0u);
}

TEST_F(Pipe, StopEndsAThreadWaitingOnASilentClientAtOnce) {
    os::sleep_ms(50);  // the thread is blocked in its read by now
    auto t0 = std::chrono::steady_clock::now();
    host_->clients.StopClientPipe(index_);
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                  std::chrono::steady_clock::now() - t0).count();
    EXPECT_LT(ms, 5000);  // not the full 10 s wait
    const ClientRecord& r = host_->clients.Record(index_);
    EXPECT_EQ(r.pipeThread.load(), 0u);
    EXPECT_EQ(r.requestPipe.load(), 0u);
    EXPECT_EQ(r.replyPipe.load(), 0u);
    EXPECT_EQ(r.inUse.load(), 1u);  // still registered
    EXPECT_EQ(Failures(), 0u);      // a stop is not a failure
}

// A frame whose length the host refuses is consumed whole, so the client's
// next frames are served.
TEST_F(Pipe, EachRefusedLengthIsConsumedAndTheNextFramesAnswered) {
    for (std::uint32_t length : {0u, 11u, ZOR_PIPE_BUFFER_SIZE + 1}) {
        SendLength(length);
        // Bytes that would read as lengths, were the refused body left behind.
        std::vector<unsigned char> body(length, 0x20);
        if (length) SendRaw(body.data(), length);
        SendRequest(slot_, {1, 2, 3});
        EXPECT_EQ(Answer(), Expected({1, 2, 3})) << length;
        SendRequest(slot_, {});
        EXPECT_EQ(Answer(), Expected({})) << length;
    }
    EXPECT_EQ(Failures(), 3u);
    EXPECT_EQ(FakeModule::calls.load(), 6u);
}

TEST_F(Pipe, ASplitFrameIsServedWhenComplete) {
    const std::uint32_t frame[5] = {16, 0, slot_, 0, 0x04030201u};
    FakeModule::bodyLength = 4;
    const auto* bytes = reinterpret_cast<const unsigned char*>(frame);
    for (std::uint32_t at : {0u, 2u, 9u}) {
        SendRaw(bytes + at, (at == 0 ? 2u : at == 2 ? 7u : 11u));
        os::sleep_ms(20);
    }
    EXPECT_EQ(Answer(), Expected({1, 2, 3, 4}));
    EXPECT_EQ(Failures(), 0u);
}

}  // namespace
}  // namespace zor::test
