// The dialog's part on Linux: a status line on the terminal every 5 s
// (unless hidden), SIGINT and SIGTERM as Cancel (with the question on a
// terminal while recorded clients live), the automatic shut-down, and the
// command socket served on the same thread between them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "host/app.h"

namespace zor::shell {

class TerminalShell : public DialogShell {
public:
    void LogStarted(Logger& log) override;
    std::intptr_t RunDialog(Host& host, bool hide) override;
};

}  // namespace zor::shell
