// What the dispatch tests share: the test host helpers and ASCII views of names.
#pragma once

#include <string>

#include "common/test_host.h"

namespace zor::test {

// The log line of a faulting call of `isr` in `where`.
inline std::string FaultLine(const std::string& isr, const std::string& where) {
    return "ZOR: ISR '" + isr + "' caused exception in '" + where + "'!\n\r";
}

}  // namespace zor::test
