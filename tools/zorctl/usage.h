// zorctl's commands as the user sees them: names, arguments, help texts and
// how many positional words each takes. The overview, `zorctl help CMD` and
// `zorctl CMD --help` are all printed from this one list.
#pragma once

#include <cstddef>

namespace zorctl {

struct CommandUsage {
    const char* name;
    const char* args;  // after the name, e.g. "N HEXBYTES [--pipe] [--tag T]"
    const char* text;  // one or more lines, without indentation
    std::size_t minWords, maxWords;  // positional words after the name
};

// The command called `name`, or null.
const CommandUsage* FindCommandUsage(const char* name);
// The whole help text (zorctl --help, zorctl help).
void PrintOverview();
// One command's usage and text (zorctl help CMD, zorctl CMD --help).
void PrintCommandHelp(const CommandUsage& c);

}  // namespace zorctl
