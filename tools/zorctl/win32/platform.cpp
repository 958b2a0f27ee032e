#include <windows.h>
#include <shellapi.h>

#include "platform.h"

namespace zorctl {

namespace {
volatile LONG g_stop = 0;
BOOL WINAPI OnCtrl(DWORD) {
    InterlockedExchange(&g_stop, 1);
    return TRUE;
}
}  // namespace

std::vector<std::string> Utf8Args(int argc, char** argv) {
    std::vector<std::string> out;
    int n = 0;
    LPWSTR* w = CommandLineToArgvW(GetCommandLineW(), &n);
    if (w == nullptr || n != argc) {
        for (int i = 0; i < argc; ++i) out.emplace_back(argv[i]);
    } else {
        for (int i = 0; i < n; ++i) {
            int len = WideCharToMultiByte(CP_UTF8, 0, w[i], -1, nullptr, 0, nullptr, nullptr);
            std::string u(len > 0 ? len - 1 : 0, '\0');
            if (len > 1) WideCharToMultiByte(CP_UTF8, 0, w[i], -1, u.data(), len, nullptr, nullptr);
            out.push_back(std::move(u));
        }
    }
    if (w) LocalFree(w);
    return out;
}

bool ProcessAlive(std::uint32_t pid) {
    HANDLE p = OpenProcess(SYNCHRONIZE, FALSE, pid);
    if (p == nullptr) return false;
    const bool alive = WaitForSingleObject(p, 0) == WAIT_TIMEOUT;
    CloseHandle(p);
    return alive;
}

void CatchInterrupt() { SetConsoleCtrlHandler(OnCtrl, TRUE); }
bool Interrupted() { return g_stop != 0; }

// Windows: a window that refuses commands is the access check there.
std::string AccessProblem() { return {}; }

bool AnsiTerminal() {
    const HANDLE out = GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    return GetConsoleMode(out, &mode) && SetConsoleMode(out, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

}  // namespace zorctl
