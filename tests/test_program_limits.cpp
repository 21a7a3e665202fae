// What the backup program does at the edges of what it can describe and
// read: a partition of 4 TiB or more (GET_BLOCK_SIZE's size in KiB is 32
// bits and wraps) or of more blocks than 32-bit block numbers address is
// refused with a clear message, never backed up in part; a full backup
// that cannot use the ext2/ext3 reader (a feature or geometry it does not
// know, no such file system, unreadable bitmaps) reads every block and
// says why.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "support.hpp"
#include "test_program_util.hpp"

namespace {

using corvalin::tool::EmuWorld;
using program_test::Cli;
using program_test::ScratchDir;
using program_test::expect_restores;

constexpr std::uint64_t kTiB = 1ull << 40;

// A small sda1, and sda2 of `bytes` with a file system of `bs`-byte
// blocks (sparse: nothing is written to it).
EmuWorld::Config with_sda2(std::uint64_t bytes, unsigned bs)
{
	EmuWorld::Config c;
	c.block_size = 1024;
	c.blocks = 512;
	c.per_group = 256;
	EmuWorld::Config::Partition p;
	p.sectors = bytes / 512;
	p.block_size = bs;
	p.ext2 = false;
	c.more.push_back(p);
	return c;
}

std::uint32_t backups_in(const std::string &repo)
{
	cvb_repo r{};
	cvb_err e{};
	if (cvb_repo_load(repo.c_str(), 1, &r, &e) != 0)
		return 9999;
	const std::uint32_t n = r.count;
	cvb_repo_free(&r);
	return n;
}

struct Huge {
	const char *name;
	std::uint64_t bytes;
	unsigned bs;
	const char *error;   // what `corvalin backup` says
	const char *status;  // what `corvalin status` says of it
};

void PrintTo(const Huge &h, std::ostream *os)
{
	*os << h.name;
}

class HugePartition : public ::testing::TestWithParam<Huge> {};

TEST_P(HugePartition, IsRefusedWithAClearMessageAndNothingIsStored)
{
	const Huge &h = GetParam();
	ScratchDir d;
	EmuWorld w(with_sda2(h.bytes, h.bs));
	ASSERT_EQ(w.error(), "");
	std::uint64_t size = 0;
	ASSERT_EQ(w.device_size("/dev/sda2", &size), 0);
	ASSERT_EQ(size, h.bytes);
	Cli c{w};
	EXPECT_EQ(c.run({"backup", "/dev/sda2", d / "r"}), CVB_EXIT_FAILED);
	EXPECT_EQ(c.err, std::string("corvalin backup: ") + h.error + "\n");
	EXPECT_EQ(c.out, "");
	EXPECT_EQ(backups_in(d / "r"), 0u);
	EXPECT_EQ(c.run({"backup", "/dev/sda2", d / "r", "--json"}),
		  CVB_EXIT_FAILED);
	EXPECT_EQ(c.out, "{\"command\":\"backup\",\"ok\":false,\"exit\":1}\n");
	EXPECT_EQ(c.run({"status", "/dev/sda2"}), 0) << c.err;
	EXPECT_NE(c.out.find(std::string("/dev/sda2 (8:2): ") + h.status +
			     "\n"),
		  std::string::npos)
		<< c.out;
	// No backup was started for any of it.
	for (const std::string &line : w.new_log_lines())
		EXPECT_EQ(line.find("ioctlStartBackup"), std::string::npos)
			<< line;
}

INSTANTIATE_TEST_SUITE_P(
	Sizes, HugePartition,
	::testing::Values(
		// GET_BLOCK_SIZE says 16384 KiB: the size modulo 4 TiB.
		Huge{"FourTebibytesAndSixteenMebibytes", 4 * kTiB + (16 << 20),
		     4096,
		     "device 8:2 has 4398063288320 bytes (4096 GiB): "
		     "partitions of 4 TiB and more cannot be backed up, the "
		     "driver describes sizes in 32-bit KiB (it reports 16384 "
		     "KiB)",
		     "4 TiB or more: too large for the driver's 32-bit sizes, "
		     "cannot be backed up"},
		// GET_BLOCK_SIZE says 0 KiB.
		Huge{"ExactlyFourTebibytes", 4 * kTiB, 4096,
		     "device 8:2 has 4398046511104 bytes (4096 GiB): "
		     "partitions of 4 TiB and more cannot be backed up, the "
		     "driver describes sizes in 32-bit KiB (it reports 0 KiB)",
		     "4 TiB or more: too large for the driver's 32-bit sizes, "
		     "cannot be backed up"},
		Huge{"FiveTebibytes", 5 * kTiB, 4096,
		     "device 8:2 has 5497558138880 bytes (5120 GiB): "
		     "partitions of 4 TiB and more cannot be backed up, the "
		     "driver describes sizes in 32-bit KiB (it reports "
		     "1073741824 KiB)",
		     "4 TiB or more: too large for the driver's 32-bit sizes, "
		     "cannot be backed up"},
		// Below 4 TiB, but 512-byte blocks: 2^32 + 2048 of them.
		Huge{"MoreBlocksThanThirtyTwoBitNumbers", 2 * kTiB + (1 << 20),
		     512,
		     "device 8:2 has 4294969344 blocks of 512 bytes: more than "
		     "the driver's 32-bit block numbers can address (at most "
		     "4294967280)",
		     "more blocks of 512 bytes than the driver's 32-bit block "
		     "numbers address, cannot be backed up"}),
	[](const auto &info) { return std::string(info.param.name); });

// The engine does not take the driver's 32-bit size on trust: without
// the size the system gives, it backs nothing up.
TEST(HugePartitionEngine, WithoutTheSystemsSizeNothingIsBackedUp)
{
	ScratchDir d;
	EmuWorld w(with_sda2(8 << 20, 4096));
	ASSERT_EQ(w.error(), "");
	cvb_backup_opts o{};
	o.tp = w.transport();
	o.major = 8;
	o.minor = 2;
	cvb_backup_result res{};
	cvb_err e{};
	EXPECT_EQ(cvb_backup((d / "r").c_str(), &o, &res, &e), CVB_E_ARG);
	EXPECT_STREQ(e.msg, "the size of device 8:2 is not known: without it "
			    "a partition of 4 TiB or more cannot be told from "
			    "a smaller one");
	EXPECT_EQ(backups_in(d / "r"), 0u);
	// With it, the same partition is backed up whole.
	ASSERT_EQ(w.device_size("/dev/sda2", &o.device_bytes), 0);
	ASSERT_EQ(cvb_backup((d / "r").c_str(), &o, &res, &e), 0) << e.msg;
	EXPECT_EQ(res.block_count, 2048u);
	EXPECT_EQ(res.blocks_read, 2048u);
	(void)w.new_log_lines();
}

// A full backup of a file system the ext2/ext3 reader cannot use: its
// super block on sda1 is changed before the backup.
struct Unusable {
	const char *name;
	void (*patch)(unsigned char *sb);
	const char *why;
};

void PrintTo(const Unusable &u, std::ostream *os)
{
	*os << u.name;
}

void put32(unsigned char *p, std::uint32_t v)
{
	for (int i = 0; i < 4; i++)
		p[i] = static_cast<unsigned char>(v >> (8 * i));
}

class UnusableFileSystem : public ::testing::TestWithParam<Unusable> {};

TEST_P(UnusableFileSystem, IsReadWholeAndTheBackupSaysWhy)
{
	const Unusable &u = GetParam();
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld::Config cfg;
	cfg.block_size = 1024;
	cfg.blocks = 2048;
	cfg.per_group = 512;
	cfg.seed = 51;
	EmuWorld w(cfg);
	ASSERT_EQ(w.error(), "");
	// The super block: bytes 1024..2047 of the partition.
	std::vector<std::byte> sb(1024);
	w.disk().read(w.start_sector() + 2, sb);
	u.patch(reinterpret_cast<unsigned char *>(sb.data()));
	w.disk().write(w.start_sector() + 2, sb);
	const auto whole = w.partition();

	Cli c{w};
	ASSERT_EQ(c.run({"backup", "/dev/sda1", repo, "--json"}), 0) << c.err;
	EXPECT_EQ(c.err, std::string("corvalin backup: warning: every block "
				     "was read, not only the allocated ones: ") +
				 u.why + "\n");
	EXPECT_NE(c.out.find(std::string("\"used_blocks\":false,"
					 "\"why_all_blocks\":\"") +
			     u.why + "\",\"blocks_read\":2048,"),
		  std::string::npos)
		<< c.out;
	(void)w.new_log_lines();
	expect_restores(repo, 1, whole, d);

	// Without --json the same warning, before the summary.
	ASSERT_EQ(c.run({"backup", "/dev/sda1", repo, "--full"}), 0) << c.err;
	EXPECT_EQ(c.err, std::string("corvalin backup: warning: every block "
				     "was read, not only the allocated ones: ") +
				 u.why + "\n");
	EXPECT_NE(c.out.find("backup 2 (full) of /dev/sda1: 2048 of 2048 "
			     "blocks read, "),
		  std::string::npos)
		<< c.out;
	// An incremental reads the changed blocks only, and warns of nothing.
	ASSERT_EQ(c.run({"backup", "/dev/sda1", repo}), 0) << c.err;
	EXPECT_EQ(c.err, "");
	EXPECT_NE(c.out.find("backup 3 (incremental)"), std::string::npos)
		<< c.out;
	(void)w.new_log_lines();
}

INSTANTIATE_TEST_SUITE_P(
	SuperBlocks, UnusableFileSystem,
	::testing::Values(
		Unusable{"UnknownIncompatibleFeature",
			 [](unsigned char *sb) {
				 put32(sb + 76, 1);      // dynamic revision
				 put32(sb + 96, 0x2 | 0x40);  // extents
			 },
			 "the ext2/ext3 file system has features the reader "
			 "does not know (incompatible 0x40, read-only "
			 "compatible 0x0)"},
		Unusable{"UnknownReadOnlyFeature",
			 [](unsigned char *sb) {
				 put32(sb + 76, 1);
				 put32(sb + 100, 0x1 | 0x8);  // huge files
			 },
			 "the ext2/ext3 file system has features the reader "
			 "does not know (incompatible 0x0, read-only "
			 "compatible 0x8)"},
		Unusable{"LargerThanThePartition",
			 [](unsigned char *sb) { put32(sb + 4, 4096); },
			 "the ext2/ext3 file system's geometry (4096 blocks, "
			 "512 per group, first data block 1) does not fit the "
			 "partition (2048 blocks)"},
		Unusable{"AnotherBlockSize",
			 [](unsigned char *sb) { put32(sb + 24, 2); },
			 "the ext2/ext3 file system's block size (4096) is not "
			 "the mounted one (1024)"},
		Unusable{"NoExt2",
			 [](unsigned char *sb) { std::memset(sb + 56, 0, 2); },
			 "no ext2/ext3 file system found (no super block)"}),
	[](const auto &info) { return std::string(info.param.name); });

// Block bitmaps that cannot be read: every block is read instead (the
// unreadable ones recorded as such), and the backup says why.
TEST(UnreadableBitmaps, EveryBlockIsReadAndTheBackupSaysWhy)
{
	ScratchDir d;
	EmuWorld::Config cfg;
	cfg.block_size = 1024;
	cfg.blocks = 2048;
	cfg.per_group = 512;
	EmuWorld w(cfg);
	ASSERT_EQ(w.error(), "");
	// Block 3: the block bitmap of group 0.
	w.disk().fail_sectors(w.start_sector() + 6, 2, -EIO);
	Cli c{w};
	EXPECT_EQ(c.run({"backup", "/dev/sda1", d / "r"}), CVB_EXIT_PARTIAL);
	EXPECT_NE(c.err.find("corvalin backup: warning: every block was read, "
			     "not only the allocated ones: the file system's "
			     "block bitmaps could not be read (file-system "
			     "metadata at block 3 could not be read)\n"),
		  std::string::npos)
		<< c.err;
	EXPECT_NE(c.out.find("2048 of 2048 blocks read"), std::string::npos)
		<< c.out;
	w.disk().clear_failures();
	(void)w.new_log_lines();
}

}  // namespace
