// The dialog's part on Linux: a status line on the terminal every 5 s
// (unless hidden), SIGINT and SIGTERM as Cancel (with the question on a
// terminal while recorded clients live), the automatic shut-down, and the
// command socket served on the same thread between them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "host/app.h"

namespace zor::shell {

// `utf8` as it may be shown on a terminal, into out (at most `cap` bytes,
// not terminated): carriage returns dropped, every other control
// character but line feed and tab written as "\\xHH". Returns the bytes.
std::size_t TerminalText(const char* utf8, std::size_t len, char* out, std::size_t cap);

class TerminalShell : public DialogShell {
public:
    void LogStarted(Logger& log) override;
    std::intptr_t RunDialog(Host& host, bool hide) override;
};

}  // namespace zor::shell
