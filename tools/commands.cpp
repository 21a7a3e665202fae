// The subcommands of corvalin and `corvalin help`.
#include "commands.hpp"

#include <array>
#include <cstdio>
#include <string>

namespace corvalin::tool {
namespace {

constexpr std::array<Command, 3> table{{
	{"tour", "",
	 "load the emulated module, open /dev/corvalin, show version, state "
	 "and kernel log, unload",
	 run_tour},
	{"demo", "[DIR]",
	 "in the emulated kernel: a full backup and two incrementals of a "
	 "partition in use, a restore of each, a verify",
	 run_demo},
	{"help", "[command]", "show the commands, or one command's usage",
	 run_help},
}};

}  // namespace

std::span<const Command> commands() { return table; }

const Command *find_command(std::string_view name)
{
	for (const Command &c : table)
		if (c.name == name)
			return &c;
	return nullptr;
}

std::string usage_line(const Command &c)
{
	std::string line = "corvalin ";
	line += c.name;
	if (!c.usage.empty()) {
		line += ' ';
		line += c.usage;
	}
	return line;
}

int run_help(Args args)
{
	if (args.size() > 1)
		throw UsageError("help takes at most one command name");
	if (args.size() == 1) {
		const Command *c = find_command(args[0]);
		if (c == nullptr)
			throw UsageError("no command named '" +
					 std::string(args[0]) + "'");
		std::printf("usage: %s\n  %.*s\n", usage_line(*c).c_str(),
			    static_cast<int>(c->summary.size()),
			    c->summary.data());
		return 0;
	}
	std::printf("usage: corvalin <command> [arguments]\n\ncommands:\n");
	for (const Command &c : table)
		std::printf("  %-10.*s %.*s\n", static_cast<int>(c.name.size()),
			    c.name.data(), static_cast<int>(c.summary.size()),
			    c.summary.data());
	return 0;
}

}  // namespace corvalin::tool
