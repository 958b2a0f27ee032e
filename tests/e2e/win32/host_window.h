// The Windows host's window, for the tests of what only Windows has: the
// dialog, its buttons and message boxes.
#pragma once

#include <windows.h>

#include "e2e_support.h"

namespace zor::e2e {

struct ZorInstance::Proc {
    PROCESS_INFORMATION pi{};
    HWND window = nullptr;
};

inline std::string Narrow(const wchar_t* w) { return Narrow(reinterpret_cast<const std::uint16_t*>(w)); }
inline std::wstring Widen(const std::string& s) { return std::wstring(s.begin(), s.end()); }

// The top-level dialog with this caption that belongs to `pid`, waited for.
HWND WaitDialog(DWORD pid, const wchar_t* caption, DWORD ms);
std::string WindowText(HWND w);
inline HWND Window(const ZorInstance& zor) { return zor.proc().window; }
// A button of the dialog (posted: a click may open a message box).
inline void Click(const ZorInstance& zor, int id) {
    PostMessageW(Window(zor), WM_COMMAND, MAKEWPARAM(id, BN_CLICKED),
                 reinterpret_cast<LPARAM>(GetDlgItem(Window(zor), id)));
}

}  // namespace zor::e2e
