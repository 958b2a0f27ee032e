// Clicks a button of a host's dialog, as a user would (tests/e2e/screenshot.sh):
//   dialog_click <hostPid, 0 = any> <control id>
#include <windows.h>

#include <cstdlib>

#include "zor/zor_module.h"

int main(int argc, char** argv) {
    if (argc < 3) return 64;
    const DWORD pid = std::strtoul(argv[1], nullptr, 10);
    const int id = std::atoi(argv[2]);
    for (int i = 0; i < 500; ++i, Sleep(20))
        for (HWND w = nullptr; (w = FindWindowExW(nullptr, w, L"#32770", L"" ZOR_WINDOW_CAPTION)) != nullptr;) {
            DWORD owner = 0;
            GetWindowThreadProcessId(w, &owner);
            if (pid != 0 && owner != pid) continue;  // 0: the first host
            SendMessageW(w, WM_COMMAND, MAKEWPARAM(id, BN_CLICKED), reinterpret_cast<LPARAM>(GetDlgItem(w, id)));
            return 0;
        }
    return 2;
}
