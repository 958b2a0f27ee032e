// Windows: command 6 as WM_COPYDATA to the bare dialog (bench/win32), a
// window in its own process that answers and does nothing else.
#include <windows.h>

#include "baseline.h"
#include "zor/zor_client.h"

namespace client_bench {

namespace {
HWND g_bare = nullptr;
}

bool BaselineOpen(Baseline* b, int) {
    g_bare = FindWindowW(L"#32770", L"ZOR bare dialog");
    *b = {"WM_COPYDATA command 6 round trip", "bare dialog in its own process", bench::MaxRatio(1.2)};
    return g_bare != nullptr;
}

// Sent the way the client library sends it.
bool BaselineRound() {
    if (!IsWindow(g_bare)) return false;
    COPYDATASTRUCT cds{ZOR_CMD_IRQ_QUERY, 0, nullptr};
    DWORD_PTR answer = 0;
    return SendMessageTimeoutW(g_bare, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&cds),
                               SMTO_BLOCK | SMTO_ABORTIFHUNG | 0x0020, 5000, &answer) != 0;
}

void BaselineClose() { g_bare = nullptr; }

// The window comparison is not placed: Wine's server sits between both ends.
bool PinTo(int) { return false; }
int OtherCpu(int) { return -1; }

}  // namespace client_bench
