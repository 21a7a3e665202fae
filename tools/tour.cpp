// corvalin tour: a first look at the driver, in the emulated kernel.
//
// Loads the emulated module, creates /dev/corvalin, opens it as a backup
// program would (through libcorvalin and an emulated process), asks for the
// version and the state of the file's backup record, closes and unloads.
// After each step it prints the kernel log lines that step produced.
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "commands.hpp"
#include "corvalin.hpp"
#include "corvalin_emu.hpp"
#include "emu/emu.hpp"

namespace corvalin::tool {
namespace {

class Tour {
public:
	// One line per step: what was done, and what came back.
	void step(std::string_view what, const std::string &outcome, bool good)
	{
		std::printf("$ %-28.*s -> %s\n", static_cast<int>(what.size()),
			    what.data(), outcome.c_str());
		if (!good)
			failed_ = true;
		kernel_lines();
	}
	void detail(const std::string &text)
	{
		std::printf("      %s\n", text.c_str());
	}
	bool failed() const { return failed_; }

private:
	// The log lines logged since the previous step, as the kernel's ring
	// holds them ("<6>kivInit: ...").
	void kernel_lines()
	{
		const auto lines = emu::log_strings();
		for (std::size_t i = seen_; i < lines.size(); i++)
			std::printf("      kernel: %s\n", lines[i].c_str());
		seen_ = lines.size();
	}
	std::size_t seen_ = 0;
	bool failed_ = false;
};

std::string errno_outcome(int r)
{
	return std::to_string(r) + (r == 0 ? "" : " (" +
				    std::string(cv_result_name(r)) + ")");
}

std::string result_outcome(Result r)
{
	return std::string(name(r));
}

}  // namespace

int run_tour(Args args)
{
	if (!args.empty())
		throw UsageError("tour takes no arguments");

	std::printf("corvalin tour: the corvalin driver in the emulated Linux "
		    "2.6.27 kernel\n\n");
	Tour tour;
	emu::log_clear();

	const int loaded = emu::module_load();
	tour.step("insmod corvalin", errno_outcome(loaded), loaded == 0);
	if (loaded != 0)
		return 1;
	emu::mknod(CV_DEVICE_PATH, KIV_MAJOR, 0);
	tour.step("mknod /dev/corvalin c 120 0", "done", true);

	{
		emu::Process process;
		EmuTransport transport(process);
		Device dev;

		const Result opened = dev.open(transport.get());
		tour.step("open /dev/corvalin",
			  opened == Result::Ok ? "fd " + std::to_string(dev.fd())
					       : result_outcome(opened),
			  opened == Result::Ok);
		if (opened == Result::Ok) {
			std::uint32_t major = 0, minor = 0;
			Result r = dev.version_major(major);
			tour.step("ioctl GET_VERSION_MAJOR",
				  result_outcome(r) + ", " + std::to_string(major),
				  r == Result::Ok);
			r = dev.version_minor(minor);
			tour.step("ioctl GET_VERSION_MINOR",
				  result_outcome(r) + ", " + std::to_string(minor),
				  r == Result::Ok);
			tour.detail("driver version " + std::to_string(major) +
				    "." + std::to_string(minor));

			State st{};
			r = dev.state(st);
			tour.step("ioctl GET_STATE", result_outcome(r),
				  r == Result::Ok);
			tour.detail("device " + std::to_string(st.major) + ":" +
				    std::to_string(st.minor) + ", state " +
				    std::to_string(st.state) + " (" +
				    cv_backup_state_name(st.state) +
				    "), block size " +
				    std::to_string(st.blockSize) +
				    ", read buffer " +
				    std::to_string(st.mmapSize) + " bytes");

			const Result closed = dev.close();
			tour.step("close", errno_outcome(to_int(closed)),
				  closed == Result::Ok);
		}
	}

	const int unloaded = emu::module_unload();
	tour.step("rmmod corvalin", errno_outcome(unloaded), unloaded == 0);

	// What a kernel developer would look for after rmmod: nothing the
	// module allocated is left, no lock is held, no thread runs.
	const auto problems = emu::test_problems();
	tour.step("check the emulated kernel",
		  problems.empty() ? "clean: nothing leaked, no lock held"
				   : std::to_string(problems.size()) +
					 " problems",
		  problems.empty());
	for (const std::string &p : problems)
		tour.detail(p);

	std::printf("\n%s\n", tour.failed() ? "tour FAILED" : "tour complete");
	return tour.failed() ? 1 : 0;
}

}  // namespace corvalin::tool
