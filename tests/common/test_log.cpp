#include "common/test_log.h"

#include "support/wformat.h"

namespace zor::test {

TestLog::TestLog(const char16_t* file, std::size_t queueBytes) {
    log_.SetSink(&TestLog::Capture, this);
    log_.SetDebugOutput(false);
    log_.SetQueueBytes(queueBytes);
    log_.Start(file);
    log_.SetActive("all");  // whatever ZOR_LOG_ACTIVE says
}

TestLog::~TestLog() { log_.End(); }

void TestLog::Capture(void* ctx, std::uint32_t level, std::uint32_t mask, const char* utf8,
                      std::size_t len) {
    auto* self = static_cast<TestLog*>(ctx);
    std::lock_guard<std::mutex> lk(self->m_);
    self->entries_.push_back(Entry{level, mask, std::string(utf8, len)});
}

std::vector<TestLog::Entry> TestLog::Entries() {
    log_.Flush();
    std::lock_guard<std::mutex> lk(m_);
    return entries_;
}

std::vector<std::string> TestLog::Lines() {
    std::vector<std::string> out;
    for (auto& e : Entries()) out.push_back(std::move(e.text));
    return out;
}

std::vector<std::string> TestLog::LinesOf(std::uint32_t level, std::uint32_t mask) {
    std::vector<std::string> out;
    for (auto& e : Entries())
        if (e.level == level && e.mask == mask) out.push_back(std::move(e.text));
    return out;
}

std::size_t TestLog::Count(const std::string& text) {
    std::size_t n = 0;
    for (const auto& e : Entries()) n += e.text == text;
    return n;
}

bool TestLog::Contains(const std::string& text) { return Count(text) > 0; }

bool TestLog::ContainsSubstr(const std::string& part) {
    for (const auto& e : Entries())
        if (e.text.find(part) != std::string::npos) return true;
    return false;
}

void TestLog::Clear() {
    log_.Flush();
    std::lock_guard<std::mutex> lk(m_);
    entries_.clear();
}

std::string Utf8(const std::u16string& s) {
    std::string out(s.size() * 3 + 1, '\0');
    out.resize(utf16_to_utf8(s.c_str(), out.data(), out.size()));
    return out;
}

std::u16string HostDir(const char* dir) {
    std::string narrow = std::string(dir) + "/";
    std::u16string path(narrow.size() + 1, u'\0');
    path.resize(utf8_to_utf16(narrow.c_str(), path.data(), path.size()));
    // A Windows build run by Wine sees the Linux file system as drive Z:.
    if (std::u16string(ZOR_MODULE_SUFFIX) == u".dll" && !path.empty() && path[0] == u'/') {
        for (char16_t& c : path)
            if (c == u'/') c = u'\\';
        path = u"Z:" + path;
    }
    return path;
}

std::u16string TestModulePath(const char* name) {
    std::u16string file;
    for (const char* p = name; *p; ++p) file += static_cast<char16_t>(*p);
    return HostDir(ZOR_TEST_BIN_DIR) + file + ZOR_MODULE_SUFFIX;
}

}  // namespace zor::test
