// Test support: log expectations, the ModuleTest fixture, seeds.
#include "support.hpp"

#include <cstdlib>
#include <iostream>
#include <random>
#include <sstream>

#if defined(__SANITIZE_THREAD__)
extern "C" {
void AnnotateIgnoreReadsBegin(const char *file, int line);
void AnnotateIgnoreReadsEnd(const char *file, int line);
}
#endif

namespace support {

std::uint32_t racy_read(const volatile std::uint32_t *word)
{
#if defined(__SANITIZE_THREAD__)
	AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
#endif
	std::uint32_t v = *word;
#if defined(__SANITIZE_THREAD__)
	AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
#endif
	return v;
}

namespace detail {
bool g_allow_module_loaded = false;
}

void allow_module_loaded_at_end()
{
	detail::g_allow_module_loaded = true;
}

::testing::AssertionResult LogIs(const char *expr,
				 const std::vector<std::string> &lines)
{
	std::vector<std::string> got = emu::log_strings();
	emu::log_clear();
	if (got == lines) {
		// The test expected these lines: a kernel warning among them
		// is no longer unexpected.
		emu::warnings_seen(got);
		return ::testing::AssertionSuccess();
	}
	std::ostringstream os;
	os << "the log is not " << expr << "\nexpected " << lines.size()
	   << " line(s):\n";
	for (auto &l : lines)
		os << "  " << l << "\n";
	os << "logged " << got.size() << " line(s):\n";
	for (auto &l : got)
		os << "  " << l << "\n";
	return ::testing::AssertionFailure() << os.str();
}

std::uint64_t seed()
{
	std::uint64_t s;
	if (const char *env = std::getenv("CORVALIN_SEED")) {
		s = std::strtoull(env, nullptr, 0);
	} else {
		std::random_device rd;
		s = (static_cast<std::uint64_t>(rd()) << 32) ^ rd();
	}
	std::cout << "CORVALIN_SEED=" << s << std::endl;
	::testing::Test::RecordProperty("CORVALIN_SEED", std::to_string(s));
	return s;
}

void ModuleTest::SetUp()
{
	emu::log_clear();
	ASSERT_EQ(emu::module_load(), 0);
	load_log_ = emu::log_strings();
	emu::log_clear();
	emu::mknod("/dev/corvalin", 120, 0);
	proc = std::make_unique<emu::Process>();
}

void ModuleTest::TearDown()
{
	proc.reset();
	if (emu::module_loaded()) {
		EXPECT_EQ(emu::module_unload(), 0);
	}
}

int ModuleTest::open_device()
{
	int fd = proc->open("/dev/corvalin");
	EXPECT_GE(fd, 0) << "open(\"/dev/corvalin\")";
	return fd;
}

}  // namespace support
