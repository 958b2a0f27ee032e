// The control dialog.
#include "zor_dialog.h"

#include "host/command_intake.h"
#include "host/dialog_logic.h"
#include "host/host.h"
#include "control/driver_selection.h"
#include "resource.h"

namespace {

void ShowForWarning(void* ctx) { ShowWindow(static_cast<HWND>(ctx), SW_SHOW); }

void WarnNoDriver(void* ctx) {
    MessageBoxW(static_cast<HWND>(ctx), L"No IRQ driver selected!", L"ZOR: Warning", MB_OK);
}

void EndFromCommand(void* ctx, std::intptr_t result) { EndDialog(static_cast<HWND>(ctx), result); }

}  // namespace

ZorDialog::ZorDialog(HINSTANCE instance, zor::Host& host, bool hide)
    : instance_(instance),
      host_(host),
      hide_(hide),
      icon_(LoadIconW(instance, MAKEINTRESOURCEW(IDR_MAINFRAME))) {}

INT_PTR ZorDialog::DoModal() {
    return DialogBoxParamW(instance_, MAKEINTRESOURCEW(IDD_ZOR_DIALOG), nullptr, Proc,
                           reinterpret_cast<LPARAM>(this));
}

INT_PTR CALLBACK ZorDialog::Proc(HWND hwnd, UINT msg, WPARAM wp, LPARAM lp) {
    if (msg == WM_INITDIALOG) {
        auto* self = reinterpret_cast<ZorDialog*>(lp);
        SetWindowLongPtrW(hwnd, DWLP_USER, lp);
        self->hwnd_ = hwnd;
        return self->OnInitDialog();
    }
    auto* self = reinterpret_cast<ZorDialog*>(GetWindowLongPtrW(hwnd, DWLP_USER));
    return self ? self->Handle(msg, wp, lp) : FALSE;
}

INT_PTR ZorDialog::Handle(UINT msg, WPARAM wp, LPARAM lp) {
    switch (msg) {
    case WM_PAINT:
        return OnPaint();
    case WM_TIMER:
        OnTimer(wp);
        return TRUE;
    case WM_QUERYDRAGICON:
        return reinterpret_cast<INT_PTR>(icon_);
    case WM_COPYDATA:
        OnCopyData(reinterpret_cast<const COPYDATASTRUCT*>(lp));
        return TRUE;
    case WM_WINDOWPOSCHANGING:
        // A dialog started hidden never becomes visible, not even when the
        // modal loop or the driver warning asks to show it.
        if (hide_) reinterpret_cast<WINDOWPOS*>(lp)->flags &= ~SWP_SHOWWINDOW;
        return FALSE;
    case WM_COMMAND:
        if (HIWORD(wp) != BN_CLICKED) return FALSE;
        switch (LOWORD(wp)) {
        case IDOK: OnOK(); return TRUE;
        case IDCANCEL: OnCancel(); return TRUE;
        case IDC_STATS: OnStats(); return TRUE;
        }
        return FALSE;
    default:  // WM_SYSCOMMAND and the rest: default processing
        return FALSE;
    }
}

BOOL ZorDialog::OnInitDialog() {
    SendMessageW(hwnd_, WM_SETICON, ICON_BIG, reinterpret_cast<LPARAM>(icon_));
    SendMessageW(hwnd_, WM_SETICON, ICON_SMALL, reinterpret_cast<LPARAM>(icon_));
    if (hide_) ShowWindow(hwnd_, SW_HIDE);
    if (host_.config.allowLowIntegrity) {
        ChangeWindowMessageFilterEx(hwnd_, WM_COPYDATA, MSGFLT_ALLOW, nullptr);
        host_.log.wPrintf(zor::kLogTrace, u"ZOR: commands from lower integrity levels allowed\n\r");
    }

    zor::SelectionUi ui;
    ui.ctx = hwnd_;
    ui.showWindow = ShowForWarning;
    ui.warnNoDriver = WarnNoDriver;
    std::uint32_t level = zor::SelectAndLoadIrq(host_, ui);

    SetTimer(hwnd_, zor::kAutoKillTimerId, zor::kAutoKillPeriodMs, nullptr);
    char16_t line[300];
    zor::FormatIrqLine(host_, level, line, 300);
    SetDlgItemTextW(hwnd_, IDC_IRQLINE, reinterpret_cast<const wchar_t*>(line));
    return TRUE;
}

// Hide: there is no way back to a visible window from inside the host.
void ZorDialog::OnOK() { ShowWindow(hwnd_, SW_HIDE); }

void ZorDialog::OnCancel() {
    if (zor::CancelNeedsConfirmation(host_) &&
        MessageBoxW(hwnd_, L"Are you sure to terminate and unload\nall hardware drivers?",
                    L"ZOR WARNING", MB_YESNO) == IDNO)
        return;
    EndDialog(hwnd_, IDCANCEL);
}

void ZorDialog::OnStats() {
    char16_t text[100];
    zor::TakeStats(host_, text, 100);
    SetDlgItemTextW(hwnd_, IDC_STATUS, reinterpret_cast<const wchar_t*>(text));
}

void ZorDialog::OnTimer(UINT_PTR id) {
    if (zor::AutoKillDue(host_, id)) EndDialog(hwnd_, 1);
}

BOOL ZorDialog::OnPaint() {
    if (!IsIconic(hwnd_)) return FALSE;
    PAINTSTRUCT ps;
    HDC dc = BeginPaint(hwnd_, &ps);
    SendMessageW(hwnd_, WM_ICONERASEBKGND, reinterpret_cast<WPARAM>(dc), 0);
    RECT rc;
    GetClientRect(hwnd_, &rc);
    int x = (rc.right - rc.left - GetSystemMetrics(SM_CXICON) + 1) / 2;
    int y = (rc.bottom - rc.top - GetSystemMetrics(SM_CYICON) + 1) / 2;
    DrawIcon(dc, x, y, icon_);
    EndPaint(hwnd_, &ps);
    return TRUE;
}

void ZorDialog::OnCopyData(const COPYDATASTRUCT* cds) {
    std::uint32_t result = 0;
    if (cds) {
        zor::DialogEnder ender;
        ender.ctx = hwnd_;
        ender.end = EndFromCommand;
        result = zor::OnCopyData(host_, zor::os::process_peer(), cds->dwData, cds->lpData, cds->cbData, ender);
    }
    SetWindowLongPtrW(hwnd_, DWLP_MSGRESULT, static_cast<LONG_PTR>(result));
}
