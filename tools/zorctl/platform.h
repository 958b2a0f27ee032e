// What zorctl needs of the operating system beyond the client library.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zorctl {

// The command line as UTF-8 (Windows: main's argv is in the ANSI code page,
// which would garble module names outside it).
std::vector<std::string> Utf8Args(int argc, char** argv);
// True while process `pid` runs.
bool ProcessAlive(std::uint32_t pid);
// Ctrl-C (and on POSIX SIGTERM) sets a flag instead of ending zorctl.
void CatchInterrupt();
bool Interrupted();
// Why no host could be reached although one may run: a folder or socket
// this user may not open ("<path>: permission denied"); empty when none.
std::string AccessProblem();
// True when stdout is a terminal that redraws in place with ANSI sequences.
bool AnsiTerminal();

}  // namespace zorctl
