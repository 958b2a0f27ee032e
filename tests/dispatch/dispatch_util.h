// What the dispatch tests share: the test host helpers and ASCII views of names.
#pragma once

#include <string>

#include "common/test_host.h"

namespace zor::test {

inline std::string Utf8(const std::u16string& s) { return std::string(s.begin(), s.end()); }
// The log line of a faulting call of `isr` in `where`.
inline std::string FaultLine(const std::string& isr, const std::string& where) {
    return "ZOR: ISR '" + isr + "' caused exception in '" + where + "'!\n\r";
}

}  // namespace zor::test
