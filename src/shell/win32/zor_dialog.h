// The control dialog "Usermode ISR": the host's only window and the target
// of every client command.
//
// Who may command the host: WM_COPYDATA reaches this window from any process
// on the same desktop whose integrity level is the host's or higher (the
// system's user-interface privilege isolation drops messages from lower
// levels). Commands load modules and hand out shared memory, so they are as
// powerful as running code as this user. Processes of lower integrity
// (sandboxed programs) are let in only when ZOR.INI [INIT] ALLOWLOWINTEGRITY=1
// in the installation directory; it is off by default.
#pragma once

#include <windows.h>

#include <cstdint>

namespace zor {
struct Host;
}

class ZorDialog {
public:
    ZorDialog(HINSTANCE instance, zor::Host& host, bool hide);
    // Runs the dialog modally; its end result (1 for command 4 and the
    // automatic shut-down, IDCANCEL for Cancel).
    INT_PTR DoModal();

private:
    static INT_PTR CALLBACK Proc(HWND hwnd, UINT msg, WPARAM wp, LPARAM lp);
    INT_PTR Handle(UINT msg, WPARAM wp, LPARAM lp);

    BOOL OnInitDialog();
    void OnOK();
    void OnCancel();
    void OnStats();
    void OnTimer(UINT_PTR id);
    BOOL OnPaint();
    void OnCopyData(const COPYDATASTRUCT* cds);

    HINSTANCE instance_;
    zor::Host& host_;
    bool hide_;
    HICON icon_;
    HWND hwnd_ = nullptr;
};
