// A client process the end-to-end tests can kill: it finds the host window
// of the given process id (0 = the first one) and then
//   zor_client <hostPid> pipe-hold <module> maps the system area (command 3),
//                                           opens a pipe (commands 11 and 8),
//                                           sends one empty request, prints
//                                           "ready" and waits to be killed
//   zor_client <hostPid> click <control id> clicks a button of the dialog
#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "zor/zor_module.h"

namespace {

HWND g_host = nullptr;

HWND FindHost(DWORD pid) {
    for (HWND w = nullptr; (w = FindWindowExW(nullptr, w, L"#32770", L"" ZOR_WINDOW_CAPTION)) != nullptr;) {
        DWORD owner = 0;
        GetWindowThreadProcessId(w, &owner);
        if (pid == 0 || owner == pid) return w;
    }
    return nullptr;
}

template <class T>
std::uint32_t Send(std::uint64_t cmd, const T& payload) {
    COPYDATASTRUCT cds{static_cast<ULONG_PTR>(cmd), sizeof payload, const_cast<T*>(&payload)};
    DWORD_PTR result = 0;
    SendMessageTimeoutW(g_host, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&cds), SMTO_ABORTIFHUNG, 20000, &result);
    return static_cast<std::uint32_t>(result);
}

// The host duplicates our read end of the request pipe and our write end of
// the reply pipe; ours are closed after that.
int PipeHold(std::uint32_t module) {
    HANDLE reqRead, reqWrite, repRead, repWrite;
    if (!CreatePipe(&reqRead, &reqWrite, nullptr, 0) || !CreatePipe(&repRead, &repWrite, nullptr, 0)) return 1;
    const std::uint32_t pid = GetCurrentProcessId();
    const ZorSysMemPayload area{pid, 0x2000};  // maps the system area: a live client
    if (!Send(ZOR_CMD_SYSMEM, area)) return 1;
    Send(ZOR_CMD_CLIENT_ADD, pid);
    ZorPipePayload c{};
    c.request_pipe = reinterpret_cast<std::uintptr_t>(reqRead);
    c.reply_pipe = reinterpret_cast<std::uintptr_t>(repWrite);
    c.pid = pid;
    if (Send(ZOR_CMD_PIPE_CONNECT, c) != 0) return 2;
    CloseHandle(reqRead);
    CloseHandle(repWrite);
    const std::uint32_t frame[4] = {12, 0, module, 0};  // length, tag, module, reserved
    std::uint32_t answer = 0;
    DWORD done = 0;
    if (!WriteFile(reqWrite, frame, sizeof frame, &done, nullptr) ||
        !ReadFile(repRead, &answer, 4, &done, nullptr) || done != 4)
        return 3;
    std::printf("answer=%x\nready\n", answer);
    std::fflush(stdout);
    Sleep(INFINITE);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 64;
    const DWORD pid = static_cast<DWORD>(std::strtoul(argv[1], nullptr, 10));
    for (int i = 0; i < 500 && !(g_host = FindHost(pid)); ++i) Sleep(20);
    if (!g_host) return 2;
    const std::string op = argv[2];
    const std::uint32_t arg = argc > 3 ? static_cast<std::uint32_t>(std::strtoul(argv[3], nullptr, 0)) : 0;
    if (op == "pipe-hold") return PipeHold(arg);
    if (op == "click") {
        SendMessageW(g_host, WM_COMMAND, MAKEWPARAM(arg, BN_CLICKED), reinterpret_cast<LPARAM>(GetDlgItem(g_host, arg)));
        return 0;
    }
    return 64;
}
