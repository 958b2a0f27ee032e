// Client processes driving the real host with WM_COPYDATA: module
// registration with private shared memory, the system area, the lookups,
// the IRQ commands, unknown numbers and malformed payloads.
#include "e2e_support.h"

namespace zor::e2e {
namespace {

std::uint64_t Hex(const std::string& s) { return std::strtoull(s.c_str(), nullptr, 16); }
constexpr std::uint32_t kEchoMark = 0x4F484345u;

// Command 13's payload as hex: 16 bytes not read, then the name and its 0.
std::wstring FindPayload(const wchar_t* name) {
    std::wstring hex(32, L'0');
    wchar_t unit[8];
    for (const wchar_t* p = name;; ++p) {
        swprintf(unit, 8, L"%02x%02x", *p & 0xFF, (*p >> 8) & 0xFF);
        hex += unit;
        if (!*p) break;
    }
    return hex;
}

class Commands : public ::testing::Test {
protected:
    std::string Cmd(const std::wstring& args) { return (*zor_.Run(L"cmd " + args))["result"]; }
    ZorInstance zor_{ZorInstance::Options{}};
};

TEST_F(Commands, ModuleRegistrationLookupsAndRemoval) {
    ASSERT_NE(zor_.Window(), nullptr);
    auto reg = zor_.Run(L"register remote_echo_isr.dll 4096");
    EXPECT_NE(Hex((*reg)["handle"]), 0u) << reg->Output();
    // The client maps its duplicate and sees what the module wrote.
    EXPECT_EQ(Hex((*reg)["mark"]), kEchoMark);
    std::uint64_t module = Hex((*reg)["module"]);
    ASSERT_NE(module, 0u);

    std::wstring m = std::to_wstring(module);
    wchar_t number[40];
    swprintf(number, 40, L"0000000000000000%02x00000000000000", static_cast<unsigned>(module));
    std::wstring find = FindPayload(L"REMOTE_ECHO_ISR.DLL");
    // Command 14: the shared size; command 15: another process's duplicate.
    EXPECT_EQ(Hex(Cmd(L"14 " + std::wstring(number))), 4096u);
    auto mem = zor_.Run(L"isrmem " + m);
    EXPECT_EQ(Hex((*mem)["mark"]), kEchoMark);

    // Command 5: the module's answer over the message itself.
    auto call = zor_.Run(L"call5 " + m);
    EXPECT_EQ((*call)["answer"], (*call)["expect"]);
    EXPECT_EQ(Hex((*zor_.Run(L"call5 0"))["answer"]), 0xFFFFFFFFu);

    // Command 2 answers 0 and removes it; the lookups then find nothing.
    auto gone = zor_.Run(L"cmds 2:" + std::wstring(number) + L" 13:" + find + L" 14:" + number);
    EXPECT_EQ((*gone)["r0"], "0");
    EXPECT_EQ((*gone)["r1"], "0");
    EXPECT_EQ((*gone)["r2"], "0");
    // Registered again, found again, case ignored.
    EXPECT_EQ(Hex((*zor_.Run(L"register remote_echo_isr.dll 0"))["handle"]), 0u);
    EXPECT_EQ(Hex(Cmd(L"13 " + find)), module);
    EXPECT_TRUE(zor_.WaitLog("Register DLL remote_echo_isr.dll\n\r", 2));
}

TEST_F(Commands, SystemAreaShowsTheSequenceAdvancing) {
    auto c = zor_.Run(L"sysmem 0x10000 5");
    ASSERT_NE(Hex((*c)["handle"]), 0u) << c->Output();
    EXPECT_EQ(Hex((*c)["capacity"]), 0x10000u - ZOR_SSA_QUEUE);
    EXPECT_EQ(Hex((*c)["next"]), 1u);  // the trigger driver's first sequence number
    EXPECT_EQ(Hex((*c)["seq2"]), 5u) << c->Output();
    EXPECT_EQ(Hex((*c)["query"]), 5u);  // command 6: events delivered
}

TEST_F(Commands, UnknownNumbersAndShortPayloadsAreHarmless) {
    auto c = zor_.Run(
        L"cmds 0:0100000002000000 10:0100000002000000 16:0100000002000000 "
        L"18446744073709551615:0100000002000000 "
        L"1:01000000 5:0000000001 8:0102030405 "
        // a name that runs to the payload's end without its terminator
        L"13:00000000000000000000000000000000410042004300 "
        L"7:03000000");
    for (const char* r : {"r0", "r1", "r2", "r3"}) EXPECT_EQ((*c)[r], "0") << r;
    EXPECT_EQ((*c)["r4"], "0");
    EXPECT_EQ(Hex((*c)["r5"]), 0xFFFFFFFFu);
    EXPECT_EQ((*c)["r6"], "0");
    EXPECT_EQ((*c)["r7"], "0");
    EXPECT_EQ(Hex((*c)["r8"]), 1u);  // still serving: the trigger's next sequence number
    EXPECT_TRUE(zor_.WaitLog("ZOR: command 1: payload of 4 bytes too short\n\r"));
    EXPECT_TRUE(zor_.WaitLog("ZOR: command 5: payload of 5 bytes too short\n\r"));
    EXPECT_TRUE(zor_.WaitLog("ZOR: command 8: payload of 5 bytes too short\n\r"));
    EXPECT_TRUE(zor_.WaitLog("ZOR: command 13: name not terminated in 22 bytes\n\r"));
}

}  // namespace
}  // namespace zor::e2e
