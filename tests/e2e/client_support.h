// Helpers for the client-side end-to-end tests: a real zor.exe started from
// the product folder (hidden, its own log file), programs run with their
// output captured, and a fake host window that never answers.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "zor/zor_client.h"

namespace zor::clienttest {

// The product folder as Windows sees it (Wine shows Linux / as drive Z:).
inline std::wstring BinDir() {
    std::string p = ZOR_BIN_DIR;
    std::wstring w;
    if (!p.empty() && p[0] == '/') w = L"Z:";
    for (char ch : p) w += ch == '/' ? L'\\' : static_cast<wchar_t>(ch);
    return w;
}

struct RunResult {
    DWORD code = 0xFFFFFFFF;
    std::string out;  // stdout and stderr together
};

// Runs `cmdline` with the product folder as working directory; gives up and
// kills it after limit_ms (code stays 0xFFFFFFFF).
inline RunResult RunProgram(const std::wstring& exe, const std::wstring& args, DWORD limit_ms = 30000) {
    RunResult r;
    SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
    HANDLE rd = nullptr, wr = nullptr;
    if (!CreatePipe(&rd, &wr, &sa, 1 << 16)) return r;
    SetHandleInformation(rd, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW si{};
    si.cb = sizeof si;
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdOutput = wr;
    si.hStdError = wr;
    si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    std::wstring path = BinDir() + L"\\" + exe;
    std::wstring cmd = L"\"" + path + L"\" " + args;
    PROCESS_INFORMATION pi{};
    std::wstring dir = BinDir();
    if (!CreateProcessW(path.c_str(), cmd.data(), nullptr, nullptr, TRUE, 0, nullptr, dir.c_str(),
                        &si, &pi)) {
        CloseHandle(rd);
        CloseHandle(wr);
        return r;
    }
    CloseHandle(wr);
    const ULONGLONG t0 = GetTickCount64();
    char buf[4096];
    for (;;) {
        DWORD avail = 0, got = 0;
        if (!PeekNamedPipe(rd, nullptr, 0, nullptr, &avail, nullptr)) break;  // writer gone
        if (avail && ReadFile(rd, buf, sizeof buf, &got, nullptr)) {
            r.out.append(buf, got);
            continue;
        }
        if (GetTickCount64() - t0 > limit_ms) {
            TerminateProcess(pi.hProcess, 0xFFFFFFFF);
            break;
        }
        Sleep(10);
    }
    if (WaitForSingleObject(pi.hProcess, 5000) == WAIT_OBJECT_0) GetExitCodeProcess(pi.hProcess, &r.code);
    CloseHandle(rd);
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
    return r;
}

// One zor.exe for a test, with the shipped ZOR.INI (the timer driver).
class Host {
public:
    bool Start(const wchar_t* logName) {
        std::wstring log = BinDir() + L"\\..\\tests\\bin\\" + logName;
        SetEnvironmentVariableW(L"ZOR_LOG_FILE", log.c_str());
        std::wstring path = BinDir() + L"\\zor.exe";
        std::wstring cmd = L"\"" + path + L"\" -hide";
        STARTUPINFOW si{};
        si.cb = sizeof si;
        std::wstring dir = BinDir();
        if (!CreateProcessW(path.c_str(), cmd.data(), nullptr, nullptr, FALSE, 0, nullptr,
                            dir.c_str(), &si, &pi_))
            return false;
        SetEnvironmentVariableW(L"ZOR_LOG_FILE", nullptr);
        for (int i = 0; i < 300; ++i) {  // up to 30 s for the window
            if (zor_connect_pid(&conn_, pi_.dwProcessId, 5000) == ZOR_OK) return true;
            if (WaitForSingleObject(pi_.hProcess, 100) == WAIT_OBJECT_0) return false;
        }
        return false;
    }
    ~Host() { Stop(); }
    void Stop() {
        if (conn_) {
            zor_quit(conn_);
            zor_disconnect(conn_);
            conn_ = nullptr;
        }
        if (pi_.hProcess) {
            if (WaitForSingleObject(pi_.hProcess, 5000) != WAIT_OBJECT_0) TerminateProcess(pi_.hProcess, 1);
            CloseHandle(pi_.hThread);
            CloseHandle(pi_.hProcess);
            pi_ = {};
        }
    }
    void Kill() {
        if (pi_.hProcess) {
            TerminateProcess(pi_.hProcess, 9);
            WaitForSingleObject(pi_.hProcess, 5000);
        }
    }
    ZorConnection* conn() const { return conn_; }
    DWORD pid() const { return pi_.dwProcessId; }
    std::wstring PidArg() const { return L"--pid " + std::to_wstring(pi_.dwProcessId) + L" "; }

private:
    PROCESS_INFORMATION pi_{};
    ZorConnection* conn_ = nullptr;
};

}  // namespace zor::clienttest
