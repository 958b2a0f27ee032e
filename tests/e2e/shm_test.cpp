// The system shared area seen from a second process: the host, hosted in
// this test, duplicates the area's handle into a child process, which maps
// it and watches the event sequence number advance while events are fired
// here. The handle value reaches the child through its standard input: it
// exists only once the child does.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "common/test_host.h"
#include "e2e/e2e_support.h"
#include "modules/tdl_writer.h"

namespace zor {
namespace {

TEST(SharedAreaAcrossProcesses, AChildMapsTheDuplicatedHandleAndSeesTheSequenceAdvance) {
    constexpr std::uint32_t kSize = ZOR_SSA_QUEUE + 4096;
    test::TestHost th;
    Host& h = th.host();

    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    HANDLE readEnd = nullptr, writeEnd = nullptr;
    ASSERT_TRUE(CreatePipe(&readEnd, &writeEnd, &inherit, 0));
    SetHandleInformation(writeEnd, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW si{};
    si.cb = sizeof si;
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdInput = readEnd;
    si.hStdOutput = GetStdHandle(STD_OUTPUT_HANDLE);
    si.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    std::wstring cmd = L"\"" + e2e::TestBinFile("shm_reader.exe") + L"\" " + std::to_wstring(kSize);
    PROCESS_INFORMATION pi{};
    ASSERT_TRUE(CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                               &si, &pi))
        << GetLastError();
    CloseHandle(readEnd);

    const std::uint64_t remote = h.shm.SysMem(pi.dwProcessId, kSize);
    ASSERT_NE(remote, 0u);
    const std::string line = std::to_string(remote) + "\n";
    DWORD written = 0;
    WriteFile(writeEnd, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    CloseHandle(writeEnd);

    test::IrqThread irq;
    std::uint32_t sequence = 100;
    DWORD wait = WAIT_TIMEOUT;
    for (int i = 0; i < 3000 && wait == WAIT_TIMEOUT; ++i) {
        irq.Fire(sequence++);
        wait = WaitForSingleObject(pi.hProcess, 5);
    }
    ASSERT_EQ(wait, WAIT_OBJECT_0);
    DWORD code = 99;
    GetExitCodeProcess(pi.hProcess, &code);
    EXPECT_EQ(code, 0u);
    // What the child wrote is what the host sees.
    EXPECT_EQ(TdlWord(h.shm.Area(), ZOR_SSA_RESULTS + 4 * 1023).load(), 0xC0FFEEu);
    EXPECT_EQ(h.config.clientPids[0].load(), pi.dwProcessId);
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
}

}  // namespace
}  // namespace zor
