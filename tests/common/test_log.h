// Helpers shared by every test program: a logger that captures its entries,
// and the path of a test module next to the test executables.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "support/log.h"

namespace zor::test {

// A started Logger with no file, every pair active, no debug output, and a
// sink that keeps every entry (text exactly as formatted, UTF-8). Logger
// tests may give a file and a ring size.
class TestLog {
public:
    struct Entry {
        std::uint32_t level;
        std::uint32_t mask;
        std::string text;
    };

    explicit TestLog(const char16_t* file = u"",
                     std::size_t queueBytes = Logger::kDefaultQueueBytes);
    ~TestLog();

    Logger& log() { return log_; }

    // Each accessor flushes the logger first.
    std::vector<std::string> Lines();
    std::vector<Entry> Entries();
    bool Contains(const std::string& text);  // an entry exactly equal
    std::size_t Count(const std::string& text);
    bool ContainsSubstr(const std::string& part);
    // Entries whose level and mask match, in order.
    std::vector<std::string> LinesOf(std::uint32_t level, std::uint32_t mask);
    void Clear();

private:
    static void Capture(void* ctx, std::uint32_t level, std::uint32_t mask, const char* utf8,
                        std::size_t len);

    std::mutex m_;
    std::vector<Entry> entries_;
    Logger log_;
};

// The UTF-8 form of a host string.
std::string Utf8(const std::u16string& s);

// A build directory as the host sees it, with a trailing separator: what
// LoadLibraryW accepts under Wine ("Z:\\work\\...\\"), as is on posix.
std::u16string HostDir(const char* dir);
// HostDir(ZOR_TEST_BIN_DIR) + <name><ZOR_MODULE_SUFFIX>.
std::u16string TestModulePath(const char* name);

}  // namespace zor::test
