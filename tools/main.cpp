// corvalin: the command-line program of the corvalin backup driver.
//
//   corvalin <command> [arguments]      (corvalin help lists them)
//
// Exit status: 0 success, 1 the command failed, 2 usage error.
#include <cstdio>
#include <exception>
#include <string_view>
#include <vector>

#include "commands.hpp"

int main(int argc, char **argv)
{
	using namespace corvalin::tool;

	std::vector<std::string_view> args(argv + 1, argv + argc);
	if (args.empty()) {
		(void)run_help({});
		return 2;
	}
	const Command *c = find_command(args[0]);
	if (c == nullptr) {
		std::fprintf(stderr, "corvalin: unknown command '%.*s' (try "
			     "'corvalin help')\n",
			     static_cast<int>(args[0].size()), args[0].data());
		return 2;
	}
	try {
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
