// The bytes a client puts on the wire: the host reads them at fixed offsets,
// so these tests look at offsets, not at the builders' own structs.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "client/payloads.h"

using namespace zor::client;

namespace {

template <typename T>
std::uint32_t U32At(const T& p, std::size_t off) {
    std::uint32_t v;
    std::memcpy(&v, reinterpret_cast<const unsigned char*>(&p) + off, 4);
    return v;
}
template <typename T>
std::uint64_t U64At(const T& p, std::size_t off) {
    std::uint64_t v;
    std::memcpy(&v, reinterpret_cast<const unsigned char*>(&p) + off, 8);
    return v;
}
std::u16string NameAt(const ZorRegisterPayload& p) {
    const auto* b = reinterpret_cast<const unsigned char*>(&p) + 16;
    std::u16string s;
    for (int i = 0;; i += 2) {
        char16_t c = static_cast<char16_t>(b[i] | b[i + 1] << 8);
        if (!c) break;
        s += c;
    }
    return s;
}

}  // namespace

TEST(ClientPayloads, RegisterAndFindPutPidSizeAndNameWhereTheHostReadsThem) {
    ZorRegisterPayload p;
    std::memset(&p, 0xAB, sizeof p);  // stale bytes must not leak into the payload
    ASSERT_EQ(build_register(4242, 8192, "latency_isr.dll", &p), ZOR_OK);
    EXPECT_EQ(U32At(p, 0), 4242u);
    EXPECT_EQ(U32At(p, 4), 8192u);
    EXPECT_EQ(U64At(p, 8), 0u);
    EXPECT_EQ(NameAt(p), u"latency_isr.dll");
    for (std::size_t i = 16 + 2 * 15; i < sizeof p; ++i)
        EXPECT_EQ(reinterpret_cast<unsigned char*>(&p)[i], 0) << "byte " << i;

    ZorRegisterPayload f;
    ASSERT_EQ(build_find("LATENCY_ISR.DLL", &f), ZOR_OK);
    EXPECT_EQ(NameAt(f), u"LATENCY_ISR.DLL");
}

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

TEST(ClientPayloads, NamesAreConvertedFromUtf8CountingUtf16Units) {
    std::uint16_t out[20];
    std::size_t n = 0;
    ASSERT_EQ(utf8_to_utf16("m\xC3\xBC\x65\xE2\x82\xAC.dll", out, 20, &n), ZOR_OK);  // mü e €
    EXPECT_EQ(n, 8u);
    EXPECT_EQ(out[1], 0x00FC);
    EXPECT_EQ(out[3], 0x20AC);
    // A character outside the basic plane takes two units.
    ASSERT_EQ(utf8_to_utf16("\xF0\x9F\x98\x80", out, 20, &n), ZOR_OK);
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(out[0], 0xD83D);
    EXPECT_EQ(out[1], 0xDE00);
    EXPECT_EQ(utf8_to_utf16("\xF0\x9F\x98\x80", out, 2, &n), ZOR_E_NAME_TOO_LONG);
    // Malformed: stray continuation, truncated sequence, overlong, surrogate.
    for (const char* bad : {"a\x80", "a\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80"})
        EXPECT_EQ(utf8_to_utf16(bad, out, 20, &n), ZOR_E_NAME_TOO_LONG) << bad;
}

TEST(ClientPayloads, NumberedPayloadsAndTheirRefusals) {
    ZorModulePayload m;
    ASSERT_EQ(build_module(7, &m), ZOR_OK);
    EXPECT_EQ(U64At(m, 0), 0u);
    EXPECT_EQ(U64At(m, 8), 7u);
    EXPECT_EQ(build_module(0, &m), ZOR_E_NOT_REGISTERED);

    ZorIsrMemPayload i;
    ASSERT_EQ(build_isr_mem(99, 3, &i), ZOR_OK);
    EXPECT_EQ(U32At(i, 0), 99u);
    EXPECT_EQ(U64At(i, 8), 3u);

    ZorSysMemPayload s;
    ASSERT_EQ(build_sysmem(5, ZOR_SSA_MIN_SIZE, &s), ZOR_OK);
    EXPECT_EQ(U32At(s, 0), 5u);
    EXPECT_EQ(U32At(s, 4), ZOR_SSA_MIN_SIZE);
    // Smaller areas would make the host compute a wrapped queue capacity.
    EXPECT_EQ(build_sysmem(5, ZOR_SSA_MIN_SIZE - 1, &s), ZOR_E_INVALID_ARG);

    ZorPipePayload p;
    ASSERT_EQ(build_pipe(0x1234, 0x5678, 77, &p), ZOR_OK);
    EXPECT_EQ(U64At(p, 0), 0x1234u);
    EXPECT_EQ(U64At(p, 8), 0x5678u);
    EXPECT_EQ(U32At(p, 16), 77u);
    EXPECT_EQ(build_pipe(0, 0x5678, 77, &p), ZOR_E_INVALID_ARG);
}

TEST(ClientFrames, FrameIsLengthThenRequestThenBody) {
    const unsigned char body[3] = {0xDE, 0xAD, 0x01};
    std::vector<unsigned char> buf(frame_bytes(3));
    ASSERT_EQ(buf.size(), 4u + 12u + 3u);
    ASSERT_EQ(build_frame(9, 0xC0FFEE, body, 3, buf.data(), buf.size()), ZOR_OK);
    std::uint32_t w[4];
    std::memcpy(w, buf.data(), 16);
    EXPECT_EQ(w[0], 15u);  // the length counts the request, not itself
    EXPECT_EQ(w[1], 0xC0FFEEu);
    EXPECT_EQ(w[2], 9u);
    EXPECT_EQ(w[3], 0u);
    EXPECT_EQ(std::memcmp(buf.data() + 16, body, 3), 0);

    // An empty body is a 12-byte request; the command-5 payload is the same
    // request without the length word.
    std::vector<unsigned char> req(request_bytes(0));
    ASSERT_EQ(build_request(2, 0, nullptr, 0, req.data(), req.size()), ZOR_OK);
    EXPECT_EQ(req.size(), 12u);
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

TEST(ClientFrames, AllOnesAnswerMeansNoSuchModule) {
    EXPECT_EQ(request_status(0xFFFFFFFFu), ZOR_E_NOT_REGISTERED);
    EXPECT_EQ(request_status(0), ZOR_OK);
    EXPECT_EQ(request_status(0xFFFFFFFEu), ZOR_OK);
}

TEST(ClientHex, AcceptsCommonSpellingsAndRefusesTheRest) {
    unsigned char out[4];
    std::size_t n = 0;
    ASSERT_EQ(parse_hex("0aFF10", out, 4, &n), ZOR_OK);
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(out[0], 0x0A);
    EXPECT_EQ(out[1], 0xFF);
    ASSERT_EQ(parse_hex("0x01, 0x02 03:04", out, 4, &n), ZOR_OK);
    EXPECT_EQ(n, 4u);
    EXPECT_EQ(out[3], 0x04);
    ASSERT_EQ(parse_hex("", out, 4, &n), ZOR_OK);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(parse_hex("abc", out, 4, &n), ZOR_E_INVALID_ARG);
    EXPECT_EQ(parse_hex("a b", out, 4, &n), ZOR_E_INVALID_ARG);
    EXPECT_EQ(parse_hex("zz", out, 4, &n), ZOR_E_INVALID_ARG);
    EXPECT_EQ(parse_hex("0102030405", out, 4, &n), ZOR_E_TOO_LARGE);
}

TEST(ClientStatus, EveryStatusHasItsOwnSentence) {
    std::vector<std::string> seen;
    for (int s = ZOR_OK; s >= ZOR_E_NO_SLOT; --s) {
        std::string t = zor_strerror(s);
        EXPECT_NE(t, "unknown status") << s;
        for (const auto& o : seen) EXPECT_NE(t, o) << s;
        seen.push_back(t);
    }
    EXPECT_STREQ(zor_strerror(1), "unknown status");
    EXPECT_STREQ(zor_strerror(-1000), "unknown status");
}
