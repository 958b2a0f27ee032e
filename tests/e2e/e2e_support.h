// Running the real host for end-to-end tests, the same way on every
// platform: a private folder with the executable, the modules it needs, a
// ZOR.INI of the test's own, its own per-user folder and log file, a
// client-library connection to it, raw commands, and programs started with
// their output captured. Each platform implements the process side
// (<platform>/host_process.cpp).
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "zor/zor_client.h"

namespace zor::e2e {

// File names and folders as this platform spells them.
std::string Mod(const std::string& stem);  // an ISR module: "test_isr" -> test_isr.dll
std::string Exe(const std::string& stem);  // a program: "zorctl" -> zorctl.exe
std::string BinFile(const std::string& name);      // in the product folder
std::string TestBinFile(const std::string& name);  // among the test programs
extern const char kSep;                            // between folder and file
std::uint32_t SelfPid();

inline void Pause(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
inline std::size_t CountOf(const std::string& text, const std::string& part) {
    std::size_t n = 0;
    for (std::size_t p = text.find(part); p != std::string::npos; p = text.find(part, p + part.size())) ++n;
    return n;
}
inline std::string FileText(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), {});
}
// A UTF-16 text of the host's (ASCII in the tests), as bytes.
inline std::string Narrow(const std::uint16_t* s) {
    std::string out;
    while (*s) out += static_cast<char>(*s++);
    return out;
}

// A program running as its own process, stdout and stderr captured.
class Program {
public:
    Program(const std::string& exe, const std::vector<std::string>& args);
    ~Program();
    // Reads until the output holds `text` (true) or ends.
    bool WaitFor(const std::string& text);
    // Everything until the program ends; its exit code.
    std::uint32_t Finish();
    void Kill();
    const std::string& Output() const { return out_; }
    struct Proc;

private:
    bool ReadMore();
    std::unique_ptr<Proc> p_;
    std::string out_;
};

struct RunResult {
    std::uint32_t code;
    std::string out;
};
RunResult RunTool(const std::string& exe, const std::vector<std::string>& args);
// JSON enough for zorctl's output: one bracketed value whose brackets pair
// up outside strings, no comma before a closing one, no control bytes in
// strings.
bool IsJson(const std::string& text);
// zorctl run against the host with this process id.
RunResult Ctl(std::uint32_t pid, std::vector<std::string> args);

// The host in a folder of its own, connected to through the client library.
class ZorInstance {
public:
    struct Options {
        std::string ini = "[INIT]\r\nLASTIRQ=trigger.irq\r\n";
        std::string userIni;  // per-user ZOR.ini, none when empty
        std::vector<std::string> args;
        std::vector<std::string> binFiles{"trigger.irq"};
        std::vector<std::string> testModules{Mod("test_isr")};
        bool connect = true;
        // Runs before the host's first instruction, with its process id
        // (Windows).
        void (*beforeStart)(std::uint32_t pid) = nullptr;
    };

    ZorInstance() : ZorInstance(Options()) {}
    explicit ZorInstance(const Options& o);
    ~ZorInstance();
    ZorInstance(const ZorInstance&) = delete;
    ZorInstance& operator=(const ZorInstance&) = delete;

    // True once the host serves commands (its set-up is done), connected.
    bool WaitReady(std::uint32_t ms);
    ZorConnection* conn() const { return conn_; }
    std::uint32_t Pid() const { return pid_; }
    const std::string& Dir() const { return dir_; }
    // The per-user file's path, as the host finds it.
    std::string UserIni() const { return user_ + kSep + "ZOR" + kSep + "ZOR.ini"; }
    std::string Log() const;
    // True when the log holds `part` at least `count` times within `ms`.
    bool WaitLog(const std::string& part, std::size_t count = 1, int ms = 5000) const;
    void Kill() const;
    bool Exited(std::uint32_t ms) const;
    std::uint32_t ExitCode() const;
    // Any command number with raw payload bytes; the host's answer.
    std::uint32_t Send(std::uint64_t cmd, const std::vector<unsigned char>& payload = {}) const;

    struct Proc;  // the platform's process and command channel
    Proc& proc() const { return *p_; }

private:
    void Start(const Options& o);  // the platform's: sets pid_
    void Stop();
    std::string dir_, user_, logFile_;
    Proc* p_ = nullptr;  // the platform's, made by Start()
    std::uint32_t pid_ = 0;
    ZorConnection* conn_ = nullptr;
};

// What the user sees of a running host: its IRQ line ("IRQ:<driver>
// PRIO:<stage>"), empty while it hides.
std::string Shown(const ZorInstance& zor);
// The warning a starting host gives the user, acknowledged.
std::string Warning(const ZorInstance& zor);

}  // namespace zor::e2e
