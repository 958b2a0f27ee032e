// Running the real zor.exe for end-to-end tests: a private folder with the
// executable, the modules it needs, a ZOR.INI of the test's own, its own
// per-user folder (APPDATA) and log file (ZOR_LOG_FILE), a client-library
// connection to it, raw commands, and programs started with their output
// captured. Windows only.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "zor/zor_client.h"

namespace zor::e2e {

inline std::wstring Widen(const std::string& s) { return std::wstring(s.begin(), s.end()); }
inline std::string Narrow(const std::wstring& w) { return std::string(w.begin(), w.end()); }
// A build folder as Windows sees it (Wine maps the Linux root to Z:).
inline std::wstring WinPath(const char* path) {
    std::wstring w = path[0] == '/' ? L"Z:" : L"";
    for (const char* p = path; *p; ++p) w += *p == '/' ? L'\\' : static_cast<wchar_t>(*p);
    return w;
}
inline std::wstring BinFile(const std::string& name) { return WinPath(ZOR_BIN_DIR) + L"\\" + Widen(name); }
inline std::wstring TestBinFile(const std::string& name) {
    return WinPath(ZOR_TEST_BIN_DIR) + L"\\" + Widen(name);
}

inline std::size_t CountOf(const std::string& text, const std::string& part) {
    std::size_t n = 0;
    for (std::size_t p = text.find(part); p != std::string::npos; p = text.find(part, p + part.size())) ++n;
    return n;
}

// The top-level dialog with this caption that belongs to `pid`, waited for.
inline HWND WaitDialog(DWORD pid, const wchar_t* caption, DWORD ms) {
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
inline std::string WindowText(HWND w) {
    wchar_t buf[512] = {};
    SendMessageTimeoutW(w, WM_GETTEXT, 512, reinterpret_cast<LPARAM>(buf), SMTO_ABORTIFHUNG, 5000, nullptr);
    return Narrow(buf);
}

// A program running as its own process, stdout and stderr captured.
class Program {
public:
    Program(const std::wstring& exe, const std::wstring& args) {
        SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
        HANDLE write = nullptr;
        CreatePipe(&read_, &write, &sa, 1 << 16);
        SetHandleInformation(read_, HANDLE_FLAG_INHERIT, 0);
        STARTUPINFOW si{};
        si.cb = sizeof si;
        si.dwFlags = STARTF_USESTDHANDLES;
        si.hStdOutput = si.hStdError = write;
        si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
        std::wstring cmd = L"\"" + exe + L"\" " + args;
        CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi_);
        CloseHandle(write);
    }
    ~Program() {
        if (pi_.hProcess) {
            Kill();
            CloseHandle(pi_.hProcess);
            CloseHandle(pi_.hThread);
        }
        CloseHandle(read_);
    }
    // Reads until the output holds `text` (true) or ends.
    bool WaitFor(const std::string& text) {
        while (out_.find(text) == std::string::npos)
            if (!ReadMore()) return false;
        return true;
    }
    // Everything until the program ends; its exit code.
    DWORD Finish() {
        while (ReadMore()) {
        }
        DWORD code = 0xFFFFFFFF;
        if (WaitForSingleObject(pi_.hProcess, 30000) == WAIT_OBJECT_0) GetExitCodeProcess(pi_.hProcess, &code);
        return code;
    }
    void Kill() {
        if (WaitForSingleObject(pi_.hProcess, 0) == WAIT_TIMEOUT) TerminateProcess(pi_.hProcess, 9);
        WaitForSingleObject(pi_.hProcess, 5000);
    }
    const std::string& Output() const { return out_; }

private:
    bool ReadMore() {
        char buf[4096];
        DWORD got = 0;
        if (!ReadFile(read_, buf, sizeof buf, &got, nullptr) || got == 0) return false;
        out_.append(buf, got);
        return true;
    }
    HANDLE read_ = nullptr;
    PROCESS_INFORMATION pi_{};
    std::string out_;
};

struct RunResult {
    DWORD code;
    std::string out;
};
inline RunResult RunTool(const std::wstring& exe, const std::wstring& args) {
    Program p(exe, args);
    DWORD code = p.Finish();
    return {code, p.Output()};
}

// zorctl run against the host with this process id.
inline RunResult Ctl(DWORD pid, const std::wstring& args) {
    return RunTool(BinFile("zorctl.exe"), L"--pid " + std::to_wstring(pid) + L" " + args);
}

// zor.exe in a folder of its own, connected to through the client library.
class ZorInstance {
public:
    struct Options {
        std::string ini = "[INIT]\r\nLASTIRQ=trigger.irq\r\n";
        std::string userIni;  // per-user ZOR.ini, none when empty
        std::wstring args;
        std::vector<std::string> binFiles{"trigger.irq"};
        std::vector<std::string> testModules{"test_isr.dll"};
        bool connect = true;
        // Runs before the host's first instruction, with its process id.
        void (*beforeStart)(DWORD pid) = nullptr;
    };

    ZorInstance() : ZorInstance(Options()) {}
    explicit ZorInstance(const Options& o) {
        static std::atomic<int> serial{0};
        wchar_t tmp[MAX_PATH];
        GetTempPathW(MAX_PATH, tmp);
        dir_ = std::wstring(tmp) + L"zor_e2e_" + std::to_wstring(GetCurrentProcessId()) + L"_" +
               std::to_wstring(serial++);
        appData_ = dir_ + L"\\appdata";
        CreateDirectoryW(dir_.c_str(), nullptr);
        CreateDirectoryW(appData_.c_str(), nullptr);
        logFile_ = dir_ + L"\\zor.log";
        bool ok = CopyFileW(BinFile("zor.exe").c_str(), (dir_ + L"\\zor.exe").c_str(), FALSE);
        for (const auto& f : o.binFiles) ok = CopyFileW(BinFile(f).c_str(), File(f).c_str(), FALSE) && ok;
        for (const auto& f : o.testModules) ok = CopyFileW(TestBinFile(f).c_str(), File(f).c_str(), FALSE) && ok;
        Write(dir_ + L"\\ZOR.INI", o.ini);
        if (!o.userIni.empty()) {
            CreateDirectoryW((appData_ + L"\\ZOR").c_str(), nullptr);
            Write(appData_ + L"\\ZOR\\ZOR.ini", o.userIni);
        }
        // The child inherits the environment; tests run one at a time.
        SetEnvironmentVariableW(L"APPDATA", appData_.c_str());
        SetEnvironmentVariableW(L"ZOR_LOG_FILE", logFile_.c_str());
        std::wstring cmd = L"\"" + dir_ + L"\\zor.exe\"" + (o.args.empty() ? L"" : L" " + o.args);
        STARTUPINFOW si{};
        si.cb = sizeof si;
        ok = ok && CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, FALSE, o.beforeStart ? CREATE_SUSPENDED : 0,
                                  nullptr, dir_.c_str(), &si, &pi_);
        if (ok && o.beforeStart) {
            o.beforeStart(pi_.dwProcessId);
            ResumeThread(pi_.hThread);
        }
        SetEnvironmentVariableW(L"ZOR_LOG_FILE", nullptr);
        EXPECT_TRUE(ok) << "zor.exe not started";
        if (ok && o.connect) WaitWindow(15000);
    }
    ~ZorInstance() {
        if (conn_) {
            if (zor_host_alive(conn_)) zor_quit(conn_);
            zor_disconnect(conn_);
        }
        if (pi_.hProcess) {
            if (!Exited(5000)) TerminateProcess(pi_.hProcess, 9);
            WaitForSingleObject(pi_.hProcess, 5000);
            CloseHandle(pi_.hProcess);
            CloseHandle(pi_.hThread);
        }
        if (!::testing::Test::HasFailure()) {
            std::error_code ec;
            std::filesystem::remove_all(dir_, ec);
        }  // a failed test keeps its folder to look at
    }
    ZorInstance(const ZorInstance&) = delete;
    ZorInstance& operator=(const ZorInstance&) = delete;

    // The dialog once initialised (the IRQ line is the last thing set), and
    // a connection to it.
    HWND WaitWindow(DWORD ms) {
        window_ = WaitDialog(pi_.dwProcessId, L"Usermode ISR", ms);
        for (DWORD waited = 0; window_ && waited < ms && WindowText(GetDlgItem(window_, -1)).empty(); waited += 20)
            Sleep(20);
        Sleep(100);  // the modal loop shows the dialog at its first idle, just after
        if (window_ && !conn_) {
            EXPECT_EQ(zor_connect_pid(&conn_, pi_.dwProcessId, 5000), ZOR_OK);
        }
        return window_;
    }
    HWND Window() const { return window_; }
    ZorConnection* conn() const { return conn_; }
    DWORD Pid() const { return pi_.dwProcessId; }
    const std::wstring& Dir() const { return dir_; }
    const std::wstring& AppData() const { return appData_; }
    std::string Log() const {
        std::ifstream f(Narrow(logFile_), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(f), {});
    }
    // True when the log holds `part` at least `count` times within `ms`.
    bool WaitLog(const std::string& part, std::size_t count = 1, DWORD ms = 5000) const {
        for (DWORD waited = 0; CountOf(Log(), part) < count; waited += 25) {
            if (waited >= ms) return false;
            Sleep(25);
        }
        return true;
    }
    void Kill() const {
        TerminateProcess(pi_.hProcess, 9);
        WaitForSingleObject(pi_.hProcess, 5000);
    }
    bool Exited(DWORD ms) const { return WaitForSingleObject(pi_.hProcess, ms) == WAIT_OBJECT_0; }
    DWORD ExitCode() const {
        DWORD c = 0xFFFFFFFF;
        GetExitCodeProcess(pi_.hProcess, &c);
        return c;
    }
    // Any command number with raw payload bytes; the host's answer.
    std::uint32_t Send(std::uint64_t cmd, const std::vector<unsigned char>& payload = {}) const {
        COPYDATASTRUCT cds{static_cast<ULONG_PTR>(cmd), static_cast<DWORD>(payload.size()),
                           payload.empty() ? nullptr : const_cast<unsigned char*>(payload.data())};
        DWORD_PTR r = 0xBADBADBA;
        EXPECT_TRUE(SendMessageTimeoutW(window_, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&cds),
                                        SMTO_ABORTIFHUNG, 20000, &r));
        return static_cast<std::uint32_t>(r);
    }
    // A button of the dialog (posted: a click may open a message box).
    void Click(int id) const {
        PostMessageW(window_, WM_COMMAND, MAKEWPARAM(id, BN_CLICKED), reinterpret_cast<LPARAM>(GetDlgItem(window_, id)));
    }

private:
    std::wstring File(const std::string& name) const { return dir_ + L"\\" + Widen(name); }
    static void Write(const std::wstring& path, const std::string& text) {
        std::ofstream(Narrow(path), std::ios::binary) << text;
    }

    std::wstring dir_, appData_, logFile_;
    PROCESS_INFORMATION pi_{};
    HWND window_ = nullptr;
    ZorConnection* conn_ = nullptr;
};

}  // namespace zor::e2e
