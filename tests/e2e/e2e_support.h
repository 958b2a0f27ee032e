// Running the real zor.exe for end-to-end tests: a private folder with the
// executable, the modules it needs, a ZOR.INI of the test's own, its own
// per-user folder (APPDATA) and log file (ZOR_LOG_FILE); client programs
// started as separate processes with their output captured; and helpers to
// find and read the host's windows from outside. Windows only.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "zor/zor_module.h"

namespace zor::e2e {

inline std::wstring Widen(const std::string& s) {
    int n = MultiByteToWideChar(CP_UTF8, 0, s.c_str(), -1, nullptr, 0);
    std::wstring w(n ? n - 1 : 0, L'\0');
    if (n > 1) MultiByteToWideChar(CP_UTF8, 0, s.c_str(), -1, w.data(), n);
    return w;
}

inline std::string Narrow(const std::wstring& w) {
    int n = WideCharToMultiByte(CP_UTF8, 0, w.c_str(), -1, nullptr, 0, nullptr, nullptr);
    std::string s(n ? n - 1 : 0, '\0');
    if (n > 1) WideCharToMultiByte(CP_UTF8, 0, w.c_str(), -1, s.data(), n, nullptr, nullptr);
    return s;
}

// A build path as Windows sees it (Wine maps the Linux root to Z:).
inline std::wstring WinPath(const char* path) {
    std::wstring w = Widen(path);
    if (!w.empty() && w[0] == L'/') {
        for (wchar_t& c : w)
            if (c == L'/') c = L'\\';
        w = L"Z:" + w;
    }
    return w;
}

inline std::wstring BinFile(const char* name) { return WinPath(ZOR_BIN_DIR) + L"\\" + Widen(name); }
inline std::wstring TestBinFile(const char* name) {
    return WinPath(ZOR_TEST_BIN_DIR) + L"\\" + Widen(name);
}

inline std::string ReadShared(const std::wstring& path) {
    HANDLE f = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                           nullptr, OPEN_EXISTING, 0, nullptr);
    if (f == INVALID_HANDLE_VALUE) return {};
    std::string out;
    char buf[65536];
    DWORD got = 0;
    while (ReadFile(f, buf, sizeof buf, &got, nullptr) && got) out.append(buf, got);
    CloseHandle(f);
    return out;
}

inline std::size_t CountOf(const std::string& text, const std::string& part) {
    std::size_t n = 0;
    for (std::size_t p = text.find(part); p != std::string::npos; p = text.find(part, p + part.size())) ++n;
    return n;
}

// The top-level dialog with this caption that belongs to `pid`.
inline HWND FindDialog(DWORD pid, const wchar_t* caption) {
    HWND w = nullptr;
    while ((w = FindWindowExW(nullptr, w, L"#32770", caption)) != nullptr) {
        DWORD owner = 0;
        GetWindowThreadProcessId(w, &owner);
        if (owner == pid) return w;
    }
    return nullptr;
}

inline HWND WaitDialog(DWORD pid, const wchar_t* caption, DWORD ms) {
    for (DWORD waited = 0;; waited += 20) {
        if (HWND w = FindDialog(pid, caption)) return w;
        if (waited >= ms) return nullptr;
        Sleep(20);
    }
}

// Polls until the window's visibility is `visible` (true) or time is up.
inline bool WaitVisible(HWND w, bool visible, DWORD ms) {
    for (DWORD waited = 0;; waited += 20) {
        if ((IsWindowVisible(w) != FALSE) == visible) return true;
        if (waited >= ms) return false;
        Sleep(20);
    }
}

inline std::string WindowText(HWND w) {
    wchar_t buf[512] = {};
    SendMessageTimeoutW(w, WM_GETTEXT, 512, reinterpret_cast<LPARAM>(buf), SMTO_ABORTIFHUNG, 5000, nullptr);
    return Narrow(buf);
}

// The environment of this process with some variables replaced.
inline std::vector<wchar_t> EnvironmentWith(const std::map<std::wstring, std::wstring>& set) {
    std::vector<wchar_t> block;
    std::map<std::wstring, bool> done;
    LPWCH env = GetEnvironmentStringsW();
    for (const wchar_t* p = env; *p; p += wcslen(p) + 1) {
        std::wstring entry(p);
        std::wstring upper = entry.substr(0, entry.find(L'='));
        for (wchar_t& c : upper) c = towupper(c);
        bool replaced = false;
        for (const auto& [k, v] : set) {
            std::wstring ku = k;
            for (wchar_t& c : ku) c = towupper(c);
            if (ku == upper && !upper.empty()) {
                replaced = true;
                if (!done[k]) {
                    std::wstring e = k + L"=" + v;
                    block.insert(block.end(), e.begin(), e.end());
                    block.push_back(0);
                    done[k] = true;
                }
            }
        }
        if (!replaced) {
            block.insert(block.end(), entry.begin(), entry.end());
            block.push_back(0);
        }
    }
    FreeEnvironmentStringsW(env);
    for (const auto& [k, v] : set) {
        if (done[k]) continue;
        std::wstring e = k + L"=" + v;
        block.insert(block.end(), e.begin(), e.end());
        block.push_back(0);
    }
    block.push_back(0);
    return block;
}

// A client program (tests/e2e/clients) running as its own process, its
// standard output captured line by line.
class Client {
public:
    explicit Client(const std::wstring& args) {
        SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
        HANDLE write = nullptr;
        CreatePipe(&read_, &write, &sa, 0);
        SetHandleInformation(read_, HANDLE_FLAG_INHERIT, 0);
        STARTUPINFOW si{};
        si.cb = sizeof si;
        si.dwFlags = STARTF_USESTDHANDLES;
        si.hStdOutput = write;
        si.hStdError = write;
        si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
        std::wstring cmd = L"\"" + TestBinFile("zor_client.exe") + L"\" " + args;
        started_ = CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi_);
        CloseHandle(write);
    }
    ~Client() {
        if (started_) {
            if (WaitForSingleObject(pi_.hProcess, 0) == WAIT_TIMEOUT) TerminateProcess(pi_.hProcess, 9);
            WaitForSingleObject(pi_.hProcess, 5000);
            CloseHandle(pi_.hProcess);
            CloseHandle(pi_.hThread);
        }
        if (read_) CloseHandle(read_);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool Started() const { return started_ != FALSE; }
    DWORD Pid() const { return pi_.dwProcessId; }
    HANDLE Process() const { return pi_.hProcess; }

    // Reads output until a line equal to `line` arrives (true) or the
    // output ends.
    bool WaitLine(const std::string& line) {
        for (;;) {
            std::size_t nl;
            while ((nl = pending_.find('\n')) != std::string::npos) {
                std::string l = pending_.substr(0, nl);
                pending_.erase(0, nl + 1);
                if (!l.empty() && l.back() == '\r') l.pop_back();
                Take(l);
                if (l == line) return true;
            }
            if (!ReadMore()) return false;
        }
    }
    // Everything until the program ends; its exit code.
    DWORD Finish(DWORD ms = 30000) {
        while (ReadMore()) {
        }
        std::size_t nl;
        while ((nl = pending_.find('\n')) != std::string::npos) {
            std::string l = pending_.substr(0, nl);
            pending_.erase(0, nl + 1);
            if (!l.empty() && l.back() == '\r') l.pop_back();
            Take(l);
        }
        DWORD code = 0xFFFFFFFF;
        if (WaitForSingleObject(pi_.hProcess, ms) == WAIT_OBJECT_0) GetExitCodeProcess(pi_.hProcess, &code);
        return code;
    }
    void Kill() {
        TerminateProcess(pi_.hProcess, 9);
        WaitForSingleObject(pi_.hProcess, 5000);
    }
    // "key=value" lines seen so far.
    std::string operator[](const std::string& key) const {
        auto it = values_.find(key);
        return it == values_.end() ? std::string("<missing>") : it->second;
    }
    const std::string& Output() const { return all_; }

private:
    bool ReadMore() {
        char buf[4096];
        DWORD got = 0;
        if (!ReadFile(read_, buf, sizeof buf, &got, nullptr) || got == 0) return false;
        pending_.append(buf, got);
        all_.append(buf, got);
        return true;
    }
    void Take(const std::string& l) {
        std::size_t eq = l.find('=');
        if (eq != std::string::npos) values_[l.substr(0, eq)] = l.substr(eq + 1);
    }

    HANDLE read_ = nullptr;
    PROCESS_INFORMATION pi_{};
    BOOL started_ = FALSE;
    std::string pending_, all_;
    std::map<std::string, std::string> values_;
};

// zor.exe in a folder of its own.
class ZorInstance {
public:
    struct Options {
        std::string ini = "[INIT]\r\nLASTIRQ=trigger.irq\r\n";
        std::string userIni;  // per-user ZOR.ini, none when empty
        std::wstring args;
        std::vector<std::string> binFiles{"trigger.irq"};
        std::vector<std::string> testModules{"remote_echo_isr.dll"};
        bool waitWindow = true;
    };

    explicit ZorInstance(const Options& o) {
        static std::atomic<int> serial{0};
        wchar_t tmp[MAX_PATH];
        GetTempPathW(MAX_PATH, tmp);
        dir_ = std::wstring(tmp) + L"zor_e2e_" + std::to_wstring(GetCurrentProcessId()) + L"_" +
               std::to_wstring(serial++);
        CreateDirectoryW(dir_.c_str(), nullptr);
        appData_ = dir_ + L"\\appdata";
        CreateDirectoryW(appData_.c_str(), nullptr);
        logFile_ = dir_ + L"\\zor.log";
        ok_ = CopyFileW(BinFile("zor.exe").c_str(), (dir_ + L"\\zor.exe").c_str(), FALSE) != FALSE;
        for (const auto& f : o.binFiles)
            ok_ = CopyFileW(BinFile(f.c_str()).c_str(), (dir_ + L"\\" + Widen(f)).c_str(), FALSE) && ok_;
        for (const auto& f : o.testModules)
            ok_ = CopyFileW(TestBinFile(f.c_str()).c_str(), (dir_ + L"\\" + Widen(f)).c_str(), FALSE) && ok_;
        Write(dir_ + L"\\ZOR.INI", o.ini);
        if (!o.userIni.empty()) {
            CreateDirectoryW((appData_ + L"\\ZOR").c_str(), nullptr);
            Write(appData_ + L"\\ZOR\\ZOR.ini", o.userIni);
        }
        std::vector<wchar_t> env = EnvironmentWith({{L"APPDATA", appData_}, {L"ZOR_LOG_FILE", logFile_}});
        std::wstring cmd = L"\"" + dir_ + L"\\zor.exe\"" + (o.args.empty() ? L"" : L" " + o.args);
        STARTUPINFOW si{};
        si.cb = sizeof si;
        ok_ = ok_ && CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, FALSE, CREATE_UNICODE_ENVIRONMENT,
                                    env.data(), dir_.c_str(), &si, &pi_);
        if (ok_ && o.waitWindow) WaitWindow(15000);
    }

    ~ZorInstance() {
        if (pi_.hProcess) {
            if (WaitForSingleObject(pi_.hProcess, 0) == WAIT_TIMEOUT) {
                COPYDATASTRUCT cds{ZOR_CMD_QUIT, 0, nullptr};
                if (window_)
                    SendMessageTimeoutW(window_, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&cds),
                                        SMTO_ABORTIFHUNG, 5000, nullptr);
                if (WaitForSingleObject(pi_.hProcess, 5000) == WAIT_TIMEOUT) TerminateProcess(pi_.hProcess, 9);
                WaitForSingleObject(pi_.hProcess, 5000);
            }
            CloseHandle(pi_.hProcess);
            CloseHandle(pi_.hThread);
        }
        // Keep the folder of a failed test for inspection.
        if (!::testing::Test::HasFailure()) Remove(dir_);
    }
    ZorInstance(const ZorInstance&) = delete;
    ZorInstance& operator=(const ZorInstance&) = delete;

    bool Ok() const { return ok_; }
    HWND Window() const { return window_; }
    // The dialog once its initialisation has ended: the window exists before
    // its controls, and the IRQ line is the last thing the host sets. The
    // modal loop shows the dialog when its queue first runs empty, just after.
    HWND WaitWindow(DWORD ms) {
        window_ = WaitDialog(pi_.dwProcessId, L"Usermode ISR", ms);
        if (!window_) return nullptr;
        for (DWORD waited = 0; waited < ms; waited += 20) {
            HWND line = GetDlgItem(window_, -1);
            if (line && !WindowText(line).empty()) break;
            Sleep(20);
        }
        Sleep(100);
        return window_;
    }
    DWORD Pid() const { return pi_.dwProcessId; }
    std::wstring PidArg() const { return std::to_wstring(pi_.dwProcessId); }
    const std::wstring& Dir() const { return dir_; }
    const std::wstring& AppData() const { return appData_; }
    std::string Log() const { return ReadShared(logFile_); }
    // True when the log holds `part` at least `count` times within `ms`.
    bool WaitLog(const std::string& part, std::size_t count = 1, DWORD ms = 5000) const {
        for (DWORD waited = 0;; waited += 25) {
            if (CountOf(Log(), part) >= count) return true;
            if (waited >= ms) return false;
            Sleep(25);
        }
    }
    bool Exited(DWORD ms) const { return WaitForSingleObject(pi_.hProcess, ms) == WAIT_OBJECT_0; }
    DWORD ExitCode() const {
        DWORD c = 0xFFFFFFFF;
        GetExitCodeProcess(pi_.hProcess, &c);
        return c;
    }
    // Runs a client against this host to its end.
    std::unique_ptr<Client> Run(const std::wstring& args, DWORD* code = nullptr) {
        auto c = std::make_unique<Client>(PidArg() + L" " + args);
        DWORD rc = c->Finish();
        if (code) *code = rc;
        return c;
    }
    // Clicks a button of the dialog (posted: a click may open a message box).
    void Click(int id) const {
        PostMessageW(window_, WM_COMMAND, MAKEWPARAM(id, BN_CLICKED),
                     reinterpret_cast<LPARAM>(GetDlgItem(window_, id)));
    }

private:
    static void Write(const std::wstring& path, const std::string& text) {
        std::ofstream(Narrow(path), std::ios::binary) << text;
    }
    static void Remove(const std::wstring& dir) {
        WIN32_FIND_DATAW fd;
        HANDLE h = FindFirstFileW((dir + L"\\*").c_str(), &fd);
        if (h != INVALID_HANDLE_VALUE) {
            do {
                std::wstring n = fd.cFileName;
                if (n == L"." || n == L"..") continue;
                std::wstring p = dir + L"\\" + n;
                if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) Remove(p);
                else DeleteFileW(p.c_str());
            } while (FindNextFileW(h, &fd));
            FindClose(h);
        }
        RemoveDirectoryW(dir.c_str());
    }

    std::wstring dir_, appData_, logFile_;
    PROCESS_INFORMATION pi_{};
    HWND window_ = nullptr;
    bool ok_ = false;
};

}  // namespace zor::e2e
