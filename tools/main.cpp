// corvalin: the command-line program of the corvalin backup driver.
//
//   corvalin <command> [arguments]      (corvalin help lists them)
//
// The backup commands (backup, restore, verify, list, status) are the
// engine's C front end on this system's /dev/corvalin; `tour` and `demo`
// run in the emulated 2.6.27 kernel linked into this program.  Exit codes
// are the front end's (docs/corvalin.1): 0 success, 1 failed, 2 usage.
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "cli.h"
#include "commands.hpp"

namespace {

volatile int stop_requested;

extern "C" void on_signal(int)
{
	stop_requested = 1;
}

}  // namespace

int main(int argc, char **argv)
{
	using namespace corvalin::tool;

	std::vector<std::string_view> args(argv + 1, argv + argc);
	const Command *c = args.empty() ? nullptr : find_command(args[0]);
	if (c == nullptr || c->name == "help") {
		// The engine's commands, and help listing ours too.
		std::string extra;
		for (const Command &x : commands())
			if (x.name != "help")
				extra += "  " + std::string(x.name) +
					 std::string(x.name.size() < 10 ?
						     11 - x.name.size() : 1,
						     ' ') +
					 std::string(x.summary) + "\n";
		cvb_platform pf;
		cvb_platform_posix(&pf);
		pf.extra_help = extra.c_str();
		pf.stop = &stop_requested;
		std::signal(SIGINT, on_signal);
		std::signal(SIGTERM, on_signal);
		if (c != nullptr && args.size() > 1 &&
		    find_command(args[1]) != nullptr)
			return c->run(Args(args).subspan(1));
		return cvb_cli_main(argc - 1, argv + 1, &pf);
	}
	try {
		for (std::string_view a : args)
			if (a == "--help" || a == "-h")
				return run_help(Args(args).subspan(0, 1));
		return c->run(Args(args).subspan(1));
	} catch (const UsageError &e) {
		std::fprintf(stderr, "corvalin %.*s: %s\nusage: %s\n",
			     static_cast<int>(c->name.size()), c->name.data(),
			     e.what(), usage_line(*c).c_str());
		return 2;
	} catch (const std::exception &e) {
		std::fprintf(stderr, "corvalin %.*s: %s\n",
			     static_cast<int>(c->name.size()), c->name.data(),
			     e.what());
		return 1;
	}
}
