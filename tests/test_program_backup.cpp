// The backup program against the emulated kernel: backups taken while a
// writer changes the partition restore its frozen instant byte for byte;
// allocated-block backups of ext2; unreadable blocks; a backup stopped at
// every stage leaves the repository usable; the command line's results
// and exit codes.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <thread>
#include <sstream>
#include <string>
#include <vector>

#include "support.hpp"
#include "test_program_util.hpp"

namespace {

using corvalin::tool::EmuWorld;
using program_test::BackupRun;
using program_test::ScratchDir;
using program_test::expect_restores;

EmuWorld::Config small(unsigned bs, bool ext2, std::uint64_t seed = 1)
{
	EmuWorld::Config c;
	c.block_size = bs;
	c.blocks = bs == 1024 ? 2048 : 1024;
	c.per_group = bs == 1024 ? 512 : 256;
	c.ext2 = ext2;
	c.seed = seed;
	return c;
}

struct Shape {
	unsigned bs;
	bool ext2;
};

void PrintTo(const Shape &s, std::ostream *os)
{
	*os << (s.ext2 ? "ext2, " : "no file system, ") << s.bs << "-byte blocks";
}

class RoundTrip : public ::testing::TestWithParam<Shape> {};

TEST_P(RoundTrip, BackupsUnderWritersRestoreTheirSnapshotsByteForByte)
{
	const Shape s = GetParam();
	ScratchDir d;
	const std::string repo = d / "repo";
	std::vector<std::vector<std::byte>> want;
	{
		EmuWorld w(small(s.bs, s.ext2, 11));
		ASSERT_EQ(w.error(), "");
		w.start_writer(5);
		for (int i = 0; i < 3; i++) {
			const auto until = w.writes() + 50;
			while (w.writes() < until)
				std::this_thread::yield();
			BackupRun b{w};
			ASSERT_EQ(b.run(repo), 0) << b.err.msg;
			EXPECT_EQ(b.res.number, std::uint32_t(i + 1));
			EXPECT_EQ(b.res.block_size, s.bs);
			EXPECT_EQ(b.res.unreadable, 0u);
			// The first is full (of the allocated blocks where
			// ext2 is recognised), the others incremental.
			EXPECT_EQ(b.res.incremental, i > 0 ? 1 : 0)
				<< b.res.why_full;
			EXPECT_EQ(b.res.used_blocks, i == 0 && s.ext2 ? 1 : 0);
			want.push_back(s.ext2 ? program_test::allocated_only(
							b.frozen, w.allocated(),
							s.bs)
					      : b.frozen);
			(void)w.new_log_lines();
		}
		w.stop_writer();
		EXPECT_GT(w.writes(), 150u);
	}
	for (std::uint32_t n = 1; n <= 3; n++)
		expect_restores(repo, n, want[n - 1], d);
}

INSTANTIATE_TEST_SUITE_P(Shapes, RoundTrip,
			 ::testing::Values(Shape{1024, true},
					   Shape{4096, true},
					   Shape{4096, false}),
			 [](const auto &info) {
				 return std::string(info.param.ext2 ? "ext2_"
								    : "raw_") +
					std::to_string(info.param.bs);
			 });

TEST(BackupProgram, UsedBlocksReadsOnlyTheAllocatedBlocks)
{
	ScratchDir d;
	EmuWorld w(small(1024, true));
	ASSERT_EQ(w.error(), "");
	std::uint32_t allocated = 0;
	for (bool a : w.allocated())
		allocated += a;
	BackupRun used{w};
	ASSERT_EQ(used.run(d / "a"), 0) << used.err.msg;
	EXPECT_EQ(used.res.blocks_read, allocated);
	EXPECT_LT(allocated, w.blocks());
	BackupRun all{w};
	all.used_blocks = false;
	ASSERT_EQ(all.run(d / "b"), 0) << all.err.msg;
	EXPECT_EQ(all.res.blocks_read, w.blocks());
	EXPECT_EQ(all.res.used_blocks, 0);
	(void)w.new_log_lines();
}

TEST(BackupProgram, ForcedFullBackupSaysWhy)
{
	ScratchDir d;
	EmuWorld w(small(4096, true));
	ASSERT_EQ(w.error(), "");
	BackupRun first{w};
	ASSERT_EQ(first.run(d / "r"), 0) << first.err.msg;
	EXPECT_EQ(first.res.incremental, 0);
	EXPECT_STREQ(first.res.why_full, "first backup in this repository");
	BackupRun forced{w};
	forced.force_full = true;
	ASSERT_EQ(forced.run(d / "r"), 0) << forced.err.msg;
	EXPECT_EQ(forced.res.incremental, 0);
	EXPECT_STREQ(forced.res.why_full, "--full was given");
	EXPECT_EQ(forced.res.number, 2u);
	(void)w.new_log_lines();
}

TEST(BackupProgram, AnotherDeviceInTheRepositoryMeansAFullBackup)
{
	ScratchDir d;
	EmuWorld w(small(4096, true));
	ASSERT_EQ(w.error(), "");
	BackupRun first{w};
	ASSERT_EQ(first.run(d / "r"), 0) << first.err.msg;
	// Rewrite the repository's last backup as one of device 8:2: its
	// header and index entry both say so (and their checksums agree).
	cvb_repo repo{};
	cvb_err e{};
	ASSERT_EQ(cvb_repo_load((d / "r").c_str(), 0, &repo, &e), 0);
	cvb_image im{};
	ASSERT_EQ(cvb_image_open(&repo, 1, &im, &e), 0) << e.msg;
	cvb_header h = im.h;
	cvb_image_close(&im);
	h.minor = 2;
	unsigned char head[CVB_HEADER_SIZE];
	cvb_header_encode(&h, head);
	{
		std::fstream f(d / "r/backup-000001.img",
			       std::ios::in | std::ios::out | std::ios::binary);
		f.write(reinterpret_cast<const char *>(head), sizeof(head));
	}
	cvb_repo fresh{};
	std::strcpy(fresh.dir, repo.dir);
	cvb_entry en{};
	cvb_entry_from_header(&h, &en);
	ASSERT_EQ(std::remove((d / "r/index").c_str()), 0);
	ASSERT_EQ(cvb_repo_append(&fresh, &en, &e), 0) << e.msg;
	cvb_repo_free(&fresh);
	cvb_repo_free(&repo);

	BackupRun second{w};
	ASSERT_EQ(second.run(d / "r"), 0) << second.err.msg;
	EXPECT_EQ(second.res.incremental, 0);
	EXPECT_STREQ(second.res.why_full,
		     "the last backup is of another device (8:2)");
	(void)w.new_log_lines();
}

TEST(BackupProgram, UnreadableBlocksAreRecordedReportedAndRestoreAsZeros)
{
	ScratchDir d;
	const std::string repo = d / "r";
	std::vector<std::byte> want;
	{
		EmuWorld w(small(4096, false));
		ASSERT_EQ(w.error(), "");
		// Blocks 100 and 101 of the partition (sector 63 + 800...).
		w.disk().fail_sectors(63 + 100 * 8, 16, -EIO);
		BackupRun b{w};
		ASSERT_EQ(b.run(repo), CVB_E_PARTIAL) << b.err.msg;
		EXPECT_EQ(b.res.unreadable, 2u);
		EXPECT_NE(std::string(b.err.msg).find("2 blocks could not be "
						      "read"),
			  std::string::npos);
		want = b.frozen;
		std::fill_n(want.begin() + 100 * 4096, 2 * 4096, std::byte{0});
		w.disk().clear_failures();
		(void)w.new_log_lines();
	}
	cvb_repo r{};
	cvb_err e{};
	ASSERT_EQ(cvb_repo_load(repo.c_str(), 0, &r, &e), 0);
	ASSERT_EQ(r.count, 1u);
	EXPECT_EQ(r.entries[0].unreadable_count, 2u);
	EXPECT_TRUE(r.entries[0].flags & CVB_FLAG_UNREADABLE);
	cvb_repo_free(&r);
	cvb_restore_result rr{};
	ASSERT_EQ(program_test::restore_to(repo, 1, d / "out", &rr, &e), 0);
	EXPECT_EQ(rr.unreadable, 2u);
	EXPECT_TRUE(program_test::read_file(d / "out") == want);
}

// Every stage, both ways of stopping (as after SIGINT, and as if killed):
// the repository keeps its backups, verifies, restores them, and the next
// backup takes the next number.
TEST(BackupProgram, InterruptedAtEveryStageLeavesTheRepositoryUsable)
{
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(small(1024, true));
	ASSERT_EQ(w.error(), "");
	w.start_writer(3);
	BackupRun first{w};
	ASSERT_EQ(first.run(repo), 0) << first.err.msg;
	const auto want1 = program_test::allocated_only(
		first.frozen, w.allocated(), 1024);
	std::uint32_t expect_count = 1;
	for (int stage = CVB_STAGE_STARTED; stage <= CVB_STAGE_RENAMED;
	     stage++) {
		for (int how = 1; how <= 2; how++) {
			SCOPED_TRACE("stage " + std::to_string(stage) +
				     " how " + std::to_string(how));
			BackupRun b{w};
			b.stop_at = stage;
			b.how = how;
			ASSERT_EQ(b.run(repo), CVB_E_INTERRUPTED);
			EXPECT_NE(std::string(b.err.msg).find("repository is "
							      "unchanged"),
				  std::string::npos);
			cvb_repo r{};
			cvb_err e{};
			ASSERT_EQ(cvb_repo_load(repo.c_str(), 0, &r, &e), 0)
				<< e.msg;
			EXPECT_EQ(r.count, expect_count);
			cvb_verify_item *items = nullptr;
			ASSERT_EQ(cvb_verify(&r, &items, nullptr, nullptr, &e),
				  0);
			for (std::uint32_t i = 0; i < r.count; i++)
				EXPECT_TRUE(items[i].restorable)
					<< items[i].problem;
			std::free(items);
			cvb_repo_free(&r);
			// The next run starts sensibly and succeeds.
			BackupRun next{w};
			ASSERT_EQ(next.run(repo), 0) << next.err.msg;
			EXPECT_EQ(next.res.number, ++expect_count);
			(void)w.new_log_lines();
		}
	}
	w.stop_writer();
	expect_restores(repo, 1, want1, d);
}

TEST(BackupProgram, AnotherRunningBackupIsReportedBusy)
{
	ScratchDir d;
	EmuWorld w(small(4096, true));
	ASSERT_EQ(w.error(), "");
	{
		emu::Process other;
		corvalin::EmuTransport t(other);
		cv_device dev;
		ASSERT_EQ(cv_open(&dev, t.get(), nullptr), 0);
		ASSERT_EQ(cv_start_backup(&dev, 8, 1, 1024, 1024), 0);
		BackupRun b{w};
		EXPECT_EQ(b.run(d / "r"), CVB_E_BUSY);
		EXPECT_STREQ(b.err.msg, "another backup is running "
					"(START_BACKUP: KIV_ERR_BUSY)");
		(void)cv_close(&dev);
	}
	cvb_repo r{};
	cvb_err e{};
	EXPECT_EQ(cvb_repo_load((d / "r").c_str(), 1, &r, &e), 0);
	EXPECT_EQ(r.count, 0u);
	cvb_repo_free(&r);
	(void)w.new_log_lines();
}

// The command line over the emulated machine: what it prints, --json,
// and its exit codes.
using program_test::Cli;

TEST(BackupProgramCli, CommandsPrintTheirResultsAndExitCodes)
{
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(small(4096, true));
	ASSERT_EQ(w.error(), "");
	Cli c{w};
	EXPECT_EQ(c.run({"backup", "/dev/sda1", repo, "--json"}), 0) << c.err;
	EXPECT_NE(c.out.find("\"command\":\"backup\",\"ok\":true,\"exit\":0,"
			     "\"backup\":1,\"kind\":\"full\",\"why_full\":"
			     "\"first backup in this repository\""),
		  std::string::npos)
		<< c.out;
	EXPECT_EQ(c.run({"backup", "/dev/sda1", repo}), 0) << c.err;
	EXPECT_NE(c.out.find("backup 2 (incremental) of /dev/sda1: 0 of 1024 "
			     "blocks read"),
		  std::string::npos)
		<< c.out;
	EXPECT_EQ(c.run({"list", repo}), 0);
	EXPECT_NE(c.out.find("\n2      incremental 1 "), std::string::npos)
		<< c.out;
	EXPECT_EQ(c.run({"verify", repo, "--json"}), 0);
	EXPECT_NE(c.out.find("{\"backup\":2,\"image_ok\":true,"
			     "\"restorable\":true,\"problem\":\"\"}"),
		  std::string::npos)
		<< c.out;
	// A foreign file in the repository is named and ignored.
	program_test::write_file(repo + "/notes.txt", {std::byte{'n'}});
	EXPECT_EQ(c.run({"verify", repo}), 0);
	EXPECT_NE(c.out.find("not part of the repository (ignored): "
			     "notes.txt\n"),
		  std::string::npos)
		<< c.out;
	EXPECT_NE(c.out.find("2 of 2 backups restorable"), std::string::npos);
	EXPECT_EQ(c.run({"restore", repo, d / "img", "--backup", "1"}), 0)
		<< c.err;
	EXPECT_EQ(program_test::read_file(d / "img").size(), 4u << 20);
	EXPECT_EQ(c.run({"status", "/dev/sda1"}), 0) << c.err;
	EXPECT_NE(c.out.find("driver version 3.1\nno corvalin backup running"),
		  std::string::npos)
		<< c.out;

	// Usage errors: 2.
	EXPECT_EQ(c.run({"backup", "/dev/sda1"}), CVB_EXIT_USAGE);
	EXPECT_NE(c.err.find("usage: corvalin backup DEVICE REPO"),
		  std::string::npos);
	EXPECT_EQ(c.run({"restore", repo, d / "x", "--backup", "zero"}),
		  CVB_EXIT_USAGE);
	EXPECT_EQ(c.run({"list", repo, "--frobnicate"}), CVB_EXIT_USAGE);
	// No such backup, no such device: 1.
	EXPECT_EQ(c.run({"restore", repo, d / "x", "--backup", "9"}),
		  CVB_EXIT_FAILED);
	EXPECT_EQ(c.err, "corvalin restore: there is no backup 9 (the "
			 "repository has 2)\n");
	EXPECT_EQ(c.run({"backup", "/dev/sdz9", repo}), CVB_EXIT_FAILED);
	// A mounted device is never a restore target.
	EXPECT_EQ(c.run({"restore", repo, "/dev/null"}), CVB_EXIT_FAILED);
	EXPECT_NE(c.err.find("neither a block device nor a regular file"),
		  std::string::npos) << c.err;
	// A foreign directory: 4.
	program_test::write_file(d / "foreign/index",
				 std::vector<std::byte>(64, std::byte{'x'}));
	std::filesystem::create_directories(d / "foreign");
	program_test::write_file(d / "foreign/index",
				 std::vector<std::byte>(64, std::byte{'x'}));
	EXPECT_EQ(c.run({"list", d / "foreign"}), CVB_EXIT_REPO);
	EXPECT_NE(c.err.find("not a corvalin repository index"),
		  std::string::npos) << c.err;
	// --help of a command.
	EXPECT_EQ(c.run({"verify", "--help"}), 0);
	EXPECT_NE(c.out.find("usage: corvalin verify REPO [--json]"),
		  std::string::npos);
	(void)w.new_log_lines();
}

TEST(BackupProgramCli, UnreadableBlocksExitThree)
{
	ScratchDir d;
	EmuWorld w(small(4096, false));
	ASSERT_EQ(w.error(), "");
	w.disk().fail_sectors(63 + 8, 8, -EIO);
	Cli c{w};
	EXPECT_EQ(c.run({"backup", "/dev/sda1", d / "r"}), CVB_EXIT_PARTIAL);
	EXPECT_NE(c.err.find("1 blocks could not be read"), std::string::npos)
		<< c.err;
	w.disk().clear_failures();
	(void)w.new_log_lines();
}

}  // namespace
