// The bytes a client puts on the wire: the host reads them at fixed offsets,
// so these tests look at offsets, not at the builders' own structs.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "client/payloads.h"

using namespace zor::client;

namespace {

// The name as the host reads it: UTF-16 units from byte 16.
std::u16string NameAt(const ZorRegisterPayload& p) {
    std::u16string s(20, u'\0');
    std::memcpy(s.data(), reinterpret_cast<const unsigned char*>(&p) + 16, 40);
    return s.substr(0, s.find(u'\0'));
}

}  // namespace

TEST(ClientPayloads, ModuleNamesAreBoundedByTheHostsNineteenUnits) {
    ZorRegisterPayload p;
    std::memset(&p, 0x11, sizeof p);
    const ZorRegisterPayload before = p;
    ASSERT_EQ(build_register(1, 0, "abcdefghijklmno.dll", &p), ZOR_OK);  // 19
    EXPECT_EQ(NameAt(p).size(), 19u);
    EXPECT_EQ(p.name[19], 0);

    ZorRegisterPayload q = before;
    EXPECT_EQ(build_register(1, 0, "abcdefghijklmnop.dll", &q), ZOR_E_NAME_TOO_LONG);  // 20
    EXPECT_EQ(std::memcmp(&q, &before, sizeof q), 0) << "refused builds write nothing";
    EXPECT_EQ(build_register(1, 0, "", &q), ZOR_E_INVALID_ARG);
    EXPECT_EQ(build_register(1, 0, nullptr, &q), ZOR_E_INVALID_ARG);
}

TEST(ClientPayloads, RefusalsTheHostWouldMisread) {
    ZorModulePayload m;
    EXPECT_EQ(build_module(0, &m), ZOR_E_NOT_REGISTERED);
    // Smaller areas would make the host compute a wrapped queue capacity.
    ZorSysMemPayload s;
    EXPECT_EQ(build_sysmem(5, ZOR_SSA_MIN_SIZE - 1, &s), ZOR_E_INVALID_ARG);
    ZorPipePayload p;
    EXPECT_EQ(build_pipe(0, 0x5678, 77, &p), ZOR_E_INVALID_ARG);
}

TEST(ClientFrames, BodiesAreBoundedByTheHostsReceiveBuffer) {
    // The host refuses a length word above its 256 KiB buffer.
    const std::uint32_t max = ZOR_CLIENT_MAX_BODY;
    EXPECT_EQ(request_bytes(max), ZOR_PIPE_BUFFER_SIZE);
    std::vector<unsigned char> body(max + 1, 0x5A), buf(frame_bytes(max + 1));
    ASSERT_EQ(build_frame(1, 0, body.data(), max, buf.data(), buf.size()), ZOR_OK);
    std::uint32_t len;
    std::memcpy(&len, buf.data(), 4);
    EXPECT_EQ(len, ZOR_PIPE_BUFFER_SIZE);
    EXPECT_EQ(build_frame(1, 0, body.data(), max + 1, buf.data(), buf.size()), ZOR_E_TOO_LARGE);
    EXPECT_EQ(build_request(1, 0, body.data(), max + 1, buf.data(), buf.size()), ZOR_E_TOO_LARGE);
    // A caller buffer one byte short is refused, not overrun.
    std::vector<unsigned char> small(frame_bytes(10) - 1, 0xEE);
    EXPECT_EQ(build_frame(1, 0, body.data(), 10, small.data(), small.size()), ZOR_E_TOO_LARGE);
    EXPECT_EQ(small[0], 0xEE);
    EXPECT_EQ(build_frame(1, 0, nullptr, 4, buf.data(), buf.size()), ZOR_E_INVALID_ARG);
}
