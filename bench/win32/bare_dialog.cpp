// The bare counterpart of the host's window for client round trips: a hidden
// dialog in its own process that answers every WM_COPYDATA with the command
// number and does nothing else. Ends on WM_CLOSE or after the given seconds.
//
//   bare_dialog [seconds, default 60]
#include <windows.h>

#include <cstdlib>

namespace {

constexpr wchar_t kCaption[] = L"ZOR bare dialog";

INT_PTR CALLBACK Proc(HWND hwnd, UINT msg, WPARAM, LPARAM lp) {
    switch (msg) {
    case WM_COPYDATA:
        SetWindowLongPtrW(hwnd, DWLP_MSGRESULT,
                          static_cast<LONG_PTR>(reinterpret_cast<COPYDATASTRUCT*>(lp)->dwData));
        return TRUE;
    case WM_TIMER:
    case WM_CLOSE:
        DestroyWindow(hwnd);
        return TRUE;
    case WM_DESTROY:
        PostQuitMessage(0);
        return TRUE;
    default:
        return FALSE;
    }
}

}  // namespace

int main(int argc, char** argv) {
    const UINT seconds = argc > 1 ? static_cast<UINT>(std::atoi(argv[1])) : 60;
    // An empty dialog template: no controls, no resources needed.
    alignas(4) static WORD tmpl[32] = {};
    auto* dt = reinterpret_cast<DLGTEMPLATE*>(tmpl);
    dt->style = WS_POPUP | WS_CAPTION;
    dt->cx = 100;
    dt->cy = 40;
    HWND hwnd = CreateDialogIndirectParamW(GetModuleHandleW(nullptr), dt, nullptr, Proc, 0);
    if (!hwnd) return 1;
    SetWindowTextW(hwnd, kCaption);
    SetTimer(hwnd, 1, seconds * 1000, nullptr);
    MSG msg;
    while (GetMessageW(&msg, nullptr, 0, 0) > 0) {
        if (!IsDialogMessageW(hwnd, &msg)) DispatchMessageW(&msg);
    }
    return 0;
}
