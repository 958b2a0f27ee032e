// The host's own lines on stderr: on a terminal as they are, and in the
// journal (systemd connected stderr to it: $JOURNAL_STREAM names that
// stream's device and inode) each line with its syslog level prefix, "<3>"
// for faults (mask 0), "<4>" for errors (mask 1) and the logger's own
// entries, "<5>" for the rest (the configuration lines "SZ...:" too). The lines are those at level 0 or with
// mask 0 or 1; the log file keeps everything.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/log.h"

namespace zor::shell {

// Attaches the sink to `log` when stderr is a terminal or the journal.
void AttachStderr(Logger& log);
// The prefix's number for a log entry.
int SyslogLevel(std::uint32_t level, std::uint32_t mask, const char* text);
// `utf8` as it may be shown on a terminal or in the journal, into out (at
// most `cap` bytes, not terminated): carriage returns dropped, every other
// control character but line feed and tab (C0, DEL, C1) written as "\\xHH".
// Names in log lines are clients' words: an escape sequence in one must not
// drive the operator's terminal. Returns the bytes.
std::size_t TerminalText(const char* utf8, std::size_t len, char* out, std::size_t cap);
// One line of the shell's own on stderr (no line end needed), prefixed
// with `syslogLevel` when stderr is the journal.
void StderrLine(int syslogLevel, const char* text);

}  // namespace zor::shell
