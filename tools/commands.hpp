// The command table of the corvalin program: one entry per subcommand.
// A subcommand receives the arguments after its name and returns the
// process exit status; it reports usage errors by throwing UsageError,
// which main() prints together with the subcommand's usage line.
#pragma once

#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace corvalin::tool {

using Args = std::span<const std::string_view>;

struct Command {
	std::string_view name;
	std::string_view usage;    // the arguments, after the name
	std::string_view summary;  // one line for `corvalin help`
	int (*run)(Args args);
};

class UsageError : public std::runtime_error {
public:
	using std::runtime_error::runtime_error;
};

// Every subcommand, in the order `corvalin help` lists them.
std::span<const Command> commands();
const Command *find_command(std::string_view name);
// "corvalin <name> <usage>": how to call the subcommand.
std::string usage_line(const Command &c);

int run_tour(Args args);
int run_demo(Args args);
int run_help(Args args);

}  // namespace corvalin::tool
