// printk and the kernel log ring; BUG, WARN_ON, panic.
//
// printk follows 2.6.27's vprintk: the message is formatted with the
// kernel's vscnprintf into a 1024-byte buffer, then copied into the log
// character by character; a "<N>" token (N 0..7) is honoured only at the
// start of a new line (it sets the level of that line, default 4), and a
// message that does not end in '\n' is continued by the next printk.
#include <cstdlib>

#include "core.hpp"
#include "checks.hpp"
#include "emu/log.hpp"

namespace {

constexpr int default_message_loglevel = 4;

struct LogRing {
	std::mutex m;
	std::vector<emu::LogLine> lines;
	bool new_text_line = true;
	int open_level = default_message_loglevel;  // level of an open line
	bool echo = std::getenv("EMU_LOG") != nullptr &&
		std::getenv("EMU_LOG")[0] == '1';
};

LogRing &ring()
{
	static auto *r = new LogRing;
	return *r;
}

// "<N>text": a line as the kernel's ring shows it.  Built by appending:
// GCC 12 at -O3 warns falsely (-Wrestrict) on "literal" + std::string.
std::string with_level(const emu::LogLine &l)
{
	std::string s(1, '<');
	s += std::to_string(l.level);
	s += '>';
	s += l.text;
	return s;
}

// Append one already formatted message, with vprintk's line discipline.
// Returns the length vprintk would report.
int emit(const char *text)
{
	LogRing &r = ring();
	int printed_len = static_cast<int>(std::strlen(text));
	int current_log_level = default_message_loglevel;
	std::vector<std::string> echoed;
	{
		emu::Invisible inv;
		std::lock_guard lk(r.m);
		for (const char *p = text; *p; p++) {
			if (r.new_text_line) {
				if (p[0] == '<' && p[1] >= '0' && p[1] <= '7' &&
				    p[2] == '>') {
					current_log_level = p[1] - '0';
					p += 3;
					printed_len -= 3;
				}
				r.lines.push_back(emu::LogLine{
					current_log_level, "", false});
				r.open_level = current_log_level;
				printed_len += 3;
				r.new_text_line = false;
				if (!*p)
					break;
			}
			if (r.lines.empty() || r.lines.back().complete)
				// The open line was cleared away: continue
				// it in a fresh entry of the same level.
				r.lines.push_back(emu::LogLine{r.open_level, "",
							       false});
			if (*p == '\n') {
				r.lines.back().complete = true;
				r.new_text_line = true;
				if (r.echo)
					echoed.push_back(
						with_level(r.lines.back()));
			} else {
				r.lines.back().text.push_back(*p);
			}
		}
	}
	for (auto &e : echoed)
		std::fprintf(stderr, "%s\n", e.c_str());
	return printed_len;
}

}  // namespace

namespace emu {

std::vector<LogLine> log_lines()
{
	Invisible inv;
	std::lock_guard lk(ring().m);
	return ring().lines;
}

std::vector<std::string> log_strings()
{
	std::vector<std::string> out;
	for (auto &l : log_lines())
		out.push_back(with_level(l));
	return out;
}

void log_clear()
{
	Invisible inv;
	std::lock_guard lk(ring().m);
	ring().lines.clear();
}

void log_echo(bool on)
{
	Invisible inv;
	std::lock_guard lk(ring().m);
	ring().echo = on;
}

void log_text(const char *text)
{
	emit(text);
}

}  // namespace emu

extern "C" int vprintk(const char *fmt, va_list args)
{
	char printk_buf[1024];

	emu_vscnprintf(printk_buf, sizeof(printk_buf), fmt, args);
	return emit(printk_buf);
}

extern "C" int printk(const char *fmt, ...)
{
	va_list args;
	va_start(args, fmt);
	int r = vprintk(fmt, args);
	va_end(args);
	return r;
}

extern "C" int printk_ratelimit(void)
{
	return 1;
}

// dump_stack: no stack to show in the emulation; the kernel's lines
// ("Pid: ...", "Call Trace:") are not reproduced.
extern "C" void dump_stack(void)
{
}

extern "C" void emu_bug(const char *file, int line)
{
	const char *f = emu::short_path(file);
	printk(KERN_EMERG "------------[ cut here ]------------\n");
	printk(KERN_CRIT "kernel BUG at %s:%u!\n", f,
	       static_cast<unsigned>(line));
	std::fprintf(stderr, "kernel BUG at %s:%u!\n", f,
		     static_cast<unsigned>(line));
	std::fflush(stderr);
	std::abort();
}

extern "C" void emu_warn_on(const char *file, int line, const char *function)
{
	printk(KERN_WARNING "------------[ cut here ]------------\n");
	printk(KERN_WARNING "WARNING: at %s:%d %s()\n", emu::short_path(file),
	       line, function);
	emu::record_warning(std::string("<4>WARNING: at ") +
			    emu::short_path(file) + ":" + std::to_string(line) +
			    " " + function + "()");
}

extern "C" void panic(const char *fmt, ...)
{
	char buf[1024];
	va_list args;
	va_start(args, fmt);
	emu_vscnprintf(buf, sizeof(buf), fmt, args);
	va_end(args);
	printk(KERN_EMERG "Kernel panic - not syncing: %s\n", buf);
	std::fprintf(stderr, "Kernel panic - not syncing: %s\n", buf);
	std::fflush(stderr);
	std::abort();
}
