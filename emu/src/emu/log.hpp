// The kernel log ring of the emulated kernel, as tests read it.
//
// printk() in the emulation follows 2.6.27's vprintk line discipline: a
// "<N>" token is honoured only at the start of a new line; a message that
// does not end in '\n' is continued by the next printk (whose "<N>" then
// appears literally in the text), exactly as on the real kernel, so that the
// lines read here and the lines read from a booted kernel's log agree.
#pragma once

#include <string>
#include <vector>

namespace emu {

struct LogLine {
	int level;          // 0..7, the level the line was logged at
	std::string text;   // without the level token and without the '\n'
	bool complete;      // false for a trailing line not yet ended by '\n'
	bool operator==(const LogLine &) const = default;
};

// All lines logged since start (or since log_clear), oldest first.
std::vector<LogLine> log_lines();
// The same, each as "<N>text" (the form the real kernel's ring holds).
std::vector<std::string> log_strings();
void log_clear();
// Echo every line to stderr as it is logged (also enabled by EMU_LOG=1).
void log_echo(bool on);

}  // namespace emu
