// The application sequence, apart from the window system: logger, command
// line, configuration, the host, the modal dialog, and the shut-down.
#pragma once

#include <cstdint>

namespace zor {

struct Host;
class Logger;

// The window system's part: run the control dialog modally until it ends
// (Cancel, command 4 or the automatic shut-down).
class DialogShell {
public:
    virtual ~DialogShell() = default;
    // Right after the log starts (a terminal shell copies lines to stderr).
    virtual void LogStarted(Logger& log) {}
    virtual std::intptr_t RunDialog(Host& host, bool hide) = 0;
};

// Runs the whole process life. `commandLine` is the text after the program
// name. The order: start the log; find "-hide"/"/hide"; create the host and
// make it the running one; load the configuration; prepare the module
// tables; run the dialog; stop every pipe thread and unload every module
// (drivers are released deliberately rather than left to process exit); end
// the log. Returns the process exit code (0; 1 when the host could not be
// created).
int RunZorApp(const char16_t* commandLine, DialogShell& shell);

}  // namespace zor
