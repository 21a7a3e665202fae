// printk's line discipline and the kernel's formatting (vsnprintf).
#include <string>

#include "test_emu_util.hpp"

#include <linux/kernel.h>
#include <linux/string.h>

namespace {

std::string fmt(const char *f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char *f, ...)
{
	char buf[256];
	va_list ap;
	va_start(ap, f);
	emu_vsnprintf(buf, sizeof(buf), f, ap);
	va_end(ap);
	return buf;
}

}  // namespace

TEST(Printk, LevelTokenStartsALine)
{
	printk(KERN_INFO "%s: corvalin version %d.%d.%d build %d %s\n",
	       "kivInit", 3, 1, 0, 9504, "loaded");
	printk(KERN_ERR "%s: copy to user space %s\n", "kivIOCTL", "failed");
	ExpectLog({"<6>kivInit: corvalin version 3.1.0 build 9504 loaded",
		   "<3>kivIOCTL: copy to user space failed"});
}

TEST(Printk, NoTokenMeansTheDefaultLevelFour)
{
	printk("plain\n");
	auto lines = emu::log_lines();
	ASSERT_EQ(lines.size(), 1u);
	EXPECT_EQ(lines[0], (emu::LogLine{4, "plain", true}));
	emu::log_clear();
}

TEST(Printk, UnterminatedMessageIsContinuedAndALaterTokenIsLiteral)
{
	printk(KERN_WARNING "%s: part one", "f");
	auto open = emu::log_lines();
	ASSERT_EQ(open.size(), 1u);
	EXPECT_FALSE(open[0].complete);
	printk(KERN_ERR " and two%s", "\n");
	ExpectLog({"<4>f: part one<3> and two"});
}

TEST(Printk, TokenAfterANewlineInsideOneMessageSetsThatLinesLevel)
{
	printk(KERN_INFO "first\n" KERN_CRIT "second\nthird\n");
	auto lines = emu::log_lines();
	ASSERT_EQ(lines.size(), 3u);
	EXPECT_EQ(lines[0].level, 6);
	EXPECT_EQ(lines[1].level, 2);
	// A line without its own token gets the level of this printk call.
	EXPECT_EQ(lines[2], (emu::LogLine{2, "third", true}));
	emu::log_clear();
}

TEST(Printk, TokenOnlyAtTheStartAndOnlyDigitsZeroToSeven)
{
	printk("<8>not a token\n");
	printk("x<3>y\n");
	ExpectLog({"<4><8>not a token", "<4>x<3>y"});
}

TEST(Printk, ALineContinuedAfterAClearKeepsItsLevel)
{
	printk(KERN_ERR "head");
	emu::log_clear();
	printk(" tail\n");
	ExpectLog({"<3> tail"});
}

TEST(Vsnprintf, PointersAreEightZeroPaddedHexDigitsWithoutPrefix)
{
	EXPECT_EQ(fmt("%p", reinterpret_cast<void *>(0xabcdUL)), "0000abcd");
	EXPECT_EQ(fmt("%p", reinterpret_cast<void *>(0xc0123456UL)), "c0123456");
	EXPECT_EQ(fmt("%p", static_cast<void *>(nullptr)), "00000000");
	EXPECT_EQ(fmt("%10p|", reinterpret_cast<void *>(0x1fUL)), "        1f|");
}

TEST(Vsnprintf, IntegerConversions)
{
	EXPECT_EQ(fmt("%llu", 18446744073709551615ULL), "18446744073709551615");
	EXPECT_EQ(fmt("%i %d %u", -5, -6, 7u), "-5 -6 7");
	EXPECT_EQ(fmt("%x %X %02x %#x %o", 255u, 255u, 5u, 16u, 8u),
		  "ff FF 05 0x10 10");
	EXPECT_EQ(fmt("%lu %ld", 4000000000UL, -1L), "4000000000 -1");
	EXPECT_EQ(fmt("%5d|%-5d|%+d|% d", 42, 42, 42, 42),
		  "   42|42   |+42| 42");
	EXPECT_EQ(fmt("%.3d %zu %hd", 7, static_cast<size_t>(9),
		      static_cast<short>(-2)), "007 9 -2");
}

TEST(Vsnprintf, StringsCharactersAndOddities)
{
	EXPECT_EQ(fmt("%s|%5s|%-5s|%.2s", "ab", "ab", "ab", "abcdef"),
		  "ab|   ab|ab   |ab");
	const char *volatile null_string = nullptr;
	EXPECT_EQ(fmt("%s", null_string), "<NULL>");
	EXPECT_EQ(fmt("%c%c %%", 'o', 'k'), "ok %");
	int n = 0;
	EXPECT_EQ(fmt("abc%n", &n), "abc");
	EXPECT_EQ(n, 3);
}

TEST(Vsnprintf, TruncatesAndReportsTheFullLength)
{
	char buf[6];
	EXPECT_EQ(emu_snprintf(buf, sizeof(buf), "%s", "0123456789"), 10);
	EXPECT_STREQ(buf, "01234");
	EXPECT_EQ(emu_scnprintf(buf, sizeof(buf), "%s", "0123456789"), 5);
}

TEST(Strings, KernelHelpers)
{
	char buf[4];
	EXPECT_EQ(emu_strlcpy(buf, "abcdef", sizeof(buf)), 6u);
	EXPECT_STREQ(buf, "abc");
	EXPECT_EQ(simple_strtoul("0x1f", nullptr, 0), 31u);
	EXPECT_EQ(simple_strtol("-12", nullptr, 10), -12);
}
