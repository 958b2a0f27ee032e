// zor.exe and programs as Windows processes; commands through the window.
#include <string>

#include "win32/host_window.h"

namespace zor::e2e {
namespace {

// A build folder as Windows sees it (Wine maps the Linux root to Z:).
std::string WinPath(const char* path) {
    std::string w = path[0] == '/' ? "Z:" : "";
    for (const char* p = path; *p; ++p) w += *p == '/' ? '\\' : *p;
    return w;
}

std::wstring CommandLine(const std::string& exe, const std::vector<std::string>& args) {
    std::wstring cmd = L"\"" + Widen(exe) + L"\"";
    for (const auto& a : args) cmd += L" " + Widen(a);
    return cmd;
}

}  // namespace

const char kSep = '\\';
std::string Mod(const std::string& stem) { return stem + ".dll"; }
std::string Exe(const std::string& stem) { return stem + ".exe"; }
std::string BinFile(const std::string& name) { return WinPath(ZOR_BIN_DIR) + "\\" + name; }
std::string TestBinFile(const std::string& name) { return WinPath(ZOR_TEST_BIN_DIR) + "\\" + name; }
std::uint32_t SelfPid() { return GetCurrentProcessId(); }

HWND WaitDialog(DWORD pid, const wchar_t* caption, DWORD ms) {
    for (DWORD waited = 0;; waited += 20) {
        for (HWND w = nullptr; (w = FindWindowExW(nullptr, w, L"#32770", caption)) != nullptr;) {
            DWORD owner = 0;
            GetWindowThreadProcessId(w, &owner);
            if (owner == pid) return w;
        }
        if (waited >= ms) return nullptr;
        Sleep(20);
    }
}

std::string WindowText(HWND w) {
    wchar_t buf[512] = {};
    SendMessageTimeoutW(w, WM_GETTEXT, 512, reinterpret_cast<LPARAM>(buf), SMTO_ABORTIFHUNG, 5000, nullptr);
    return Narrow(buf);
}

struct Program::Proc {
    HANDLE read = nullptr;
    PROCESS_INFORMATION pi{};
};

Program::Program(const std::string& exe, const std::vector<std::string>& args) : p_(new Proc) {
    SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
    HANDLE write = nullptr;
    CreatePipe(&p_->read, &write, &sa, 1 << 16);
    SetHandleInformation(p_->read, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW si{};
    si.cb = sizeof si;
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdOutput = si.hStdError = write;
    si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    std::wstring cmd = CommandLine(exe, args);
    CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &p_->pi);
    CloseHandle(write);
}

Program::~Program() {
    if (p_->pi.hProcess) {
        Kill();
        CloseHandle(p_->pi.hProcess);
        CloseHandle(p_->pi.hThread);
    }
    CloseHandle(p_->read);
}

std::uint32_t Program::Finish() {
    while (ReadMore()) {
    }
    DWORD code = 0xFFFFFFFF;
    if (WaitForSingleObject(p_->pi.hProcess, 30000) == WAIT_OBJECT_0) GetExitCodeProcess(p_->pi.hProcess, &code);
    return code;
}

void Program::Kill() {
    if (WaitForSingleObject(p_->pi.hProcess, 0) == WAIT_TIMEOUT) TerminateProcess(p_->pi.hProcess, 9);
    WaitForSingleObject(p_->pi.hProcess, 5000);
}

bool Program::ReadMore() {
    char buf[4096];
    DWORD got = 0;
    if (!ReadFile(p_->read, buf, sizeof buf, &got, nullptr) || got == 0) return false;
    out_.append(buf, got);
    return true;
}

void ZorInstance::Start(const Options& o) {
    p_ = new Proc;
    // The child inherits the environment; tests run one at a time.
    SetEnvironmentVariableW(L"APPDATA", Widen(user_).c_str());
    SetEnvironmentVariableW(L"ZOR_LOG_FILE", Widen(logFile_).c_str());
    std::wstring cmd = CommandLine(dir_ + "\\zor.exe", o.args);
    STARTUPINFOW si{};
    si.cb = sizeof si;
    if (CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, FALSE, o.beforeStart ? CREATE_SUSPENDED : 0, nullptr,
                       Widen(dir_).c_str(), &si, &p_->pi)) {
        pid_ = p_->pi.dwProcessId;
        if (o.beforeStart) o.beforeStart(pid_);
        ResumeThread(p_->pi.hThread);
    }
    SetEnvironmentVariableW(L"ZOR_LOG_FILE", nullptr);
}

ZorInstance::~ZorInstance() {
    Stop();
    if (p_ && p_->pi.hProcess) {
        CloseHandle(p_->pi.hProcess);
        CloseHandle(p_->pi.hThread);
    }
    delete p_;
}

// The dialog once initialised (the IRQ line is the last thing set).
bool ZorInstance::WaitReady(std::uint32_t ms) {
    HWND& w = p_->window;
    w = WaitDialog(pid_, L"Usermode ISR", ms);
    for (DWORD waited = 0; w && waited < ms && WindowText(GetDlgItem(w, -1)).empty(); waited += 20) Sleep(20);
    Sleep(100);  // the modal loop shows the dialog at its first idle, just after
    if (w && !conn_) {
        EXPECT_EQ(zor_connect_pid(&conn_, pid_, 5000), ZOR_OK);
    }
    return w && conn_;
}

void ZorInstance::Kill() const {
    TerminateProcess(p_->pi.hProcess, 9);
    WaitForSingleObject(p_->pi.hProcess, 5000);
}

bool ZorInstance::Exited(std::uint32_t ms) const { return WaitForSingleObject(p_->pi.hProcess, ms) == WAIT_OBJECT_0; }

std::uint32_t ZorInstance::ExitCode() const {
    DWORD c = 0xFFFFFFFF;
    GetExitCodeProcess(p_->pi.hProcess, &c);
    return c;
}

std::uint32_t ZorInstance::Send(std::uint64_t cmd, const std::vector<unsigned char>& payload) const {
    COPYDATASTRUCT cds{static_cast<ULONG_PTR>(cmd), static_cast<DWORD>(payload.size()),
                       payload.empty() ? nullptr : const_cast<unsigned char*>(payload.data())};
    DWORD_PTR r = 0xBADBADBA;
    EXPECT_TRUE(SendMessageTimeoutW(p_->window, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&cds), SMTO_ABORTIFHUNG,
                                    20000, &r));
    return static_cast<std::uint32_t>(r);
}

}  // namespace zor::e2e

namespace zor::e2e {

std::string Shown(const ZorInstance& zor) {
    const HWND w = Window(zor);
    // Past the modal loop's first idle, which shows dialogs, and when asked.
    Sleep(300);
    ShowWindow(w, SW_SHOW);
    SetWindowPos(w, nullptr, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOSIZE | SWP_SHOWWINDOW);
    Sleep(100);
    return IsWindowVisible(w) ? WindowText(GetDlgItem(w, -1)) : "";
}

std::string Warning(const ZorInstance& zor) {
    const HWND box = WaitDialog(zor.Pid(), L"ZOR: Warning", 15000);
    const std::string text = box ? WindowText(GetDlgItem(box, 0xFFFF)) : "";
    PostMessageW(box, WM_COMMAND, MAKEWPARAM(IDOK, BN_CLICKED), 0);
    return text;
}

}  // namespace zor::e2e
