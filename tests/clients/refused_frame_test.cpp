// A frame whose length the host refuses is consumed whole, so the client's
// next frames are served; a frame split over several writes is served once
// complete.
#include "clients/client_test_util.h"

namespace zor::test {
namespace {

class RefusedFrame : public ClientFixture {
protected:
    void SetUp() override {
        ClientFixture::SetUp();
        index_ = host_->clients.RegisterClient(os::current_process_id());
        Connect(index_);
    }
    std::uint32_t index_ = 0;
};

TEST_F(RefusedFrame, EachKindIsConsumedAndTheNextFramesAnswered) {
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

TEST_F(RefusedFrame, ASplitFrameIsServedWhenComplete) {
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
