// The backup program's read-only commands change nothing in the driver:
// on a disk with tracked and untracked partitions side by side, `status`
// of any of them, `list` and `verify` in any order leave every tracked
// chain incremental (its next backup reads only the changed blocks and
// restores its snapshot byte for byte), and leave no trace in the kernel
// log (no backup is started to answer them).
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "support.hpp"
#include "test_program_util.hpp"

namespace {

using corvalin::tool::EmuWorld;
using program_test::BackupRun;
using program_test::Cli;
using program_test::ScratchDir;
using program_test::change_files;
using program_test::expect_restores;

// sda1 and sda2 get backed up (tracked), sda3 is a mounted ext2 that no
// backup ever touches.
EmuWorld::Config three_partitions()
{
	EmuWorld::Config c;
	c.block_size = 1024;
	c.blocks = 1024;
	c.per_group = 512;
	c.seed = 31;
	EmuWorld::Config::Partition p;
	p.sectors = 2048;
	p.block_size = 1024;
	p.per_group = 512;
	p.seed = 32;
	c.more.push_back(p);
	p.seed = 33;
	c.more.push_back(p);
	return c;
}

std::string dev(int partno)
{
	return "/dev/sda" + std::to_string(partno);
}

using Order = std::array<int, 3>;

std::string order_name(const Order &o)
{
	return "sda" + std::to_string(o[0]) + "_sda" + std::to_string(o[1]) +
	       "_sda" + std::to_string(o[2]);
}

class ReadOnlyCommands : public ::testing::TestWithParam<Order> {};

TEST_P(ReadOnlyCommands, LeaveEveryTrackedChainIncremental)
{
	const Order order = GetParam();
	ScratchDir d;
	const std::string repo[3] = {"", d / "r1", d / "r2"};
	EmuWorld w(three_partitions());
	ASSERT_EQ(w.error(), "");
	Cli c{w};
	std::uint32_t backups[3] = {0, 0, 0};

	// status of every partition in `order`, list and verify of the
	// repositories so far: each succeeds, and the driver logs nothing
	// (a started backup logs its start and its statistics).
	auto read_only = [&](int repos) {
		(void)w.new_log_lines();
		for (int p : order) {
			SCOPED_TRACE("status " + dev(p));
			EXPECT_EQ(c.run({"status", dev(p)}), 0) << c.err;
			EXPECT_NE(c.out.find("change tracking: not queried"),
				  std::string::npos) << c.out;
			EXPECT_EQ(c.run({"status", dev(p), "--json"}), 0);
			EXPECT_NE(c.out.find("\"tracking\":\"not queried\""),
				  std::string::npos) << c.out;
			for (int r = 1; r <= repos; r++) {
				EXPECT_EQ(c.run({"list", repo[r]}), 0);
				EXPECT_EQ(c.run({"verify", repo[r]}), 0);
			}
		}
		EXPECT_EQ(w.new_log_lines(), std::vector<std::string>{});
	};
	// The next backup of partition p, incremental or not.
	auto backup = [&](int p, bool incremental) {
		SCOPED_TRACE("backup of " + dev(p));
		BackupRun b(w, p);
		ASSERT_EQ(b.run(repo[p]), 0) << b.err.msg;
		EXPECT_EQ(b.res.incremental, incremental ? 1 : 0)
			<< b.res.why_full;
		if (incremental) {
			EXPECT_LT(b.res.blocks_read, 10u);
		}
		backups[p]++;
		(void)w.new_log_lines();
		expect_restores(repo[p], backups[p],
				program_test::allocated_only(
					b.frozen, w.allocated(p),
					w.block_size(p)),
				d);
	};

	// Only sda1 tracked: a read-only command on its untracked
	// neighbours must not end its tracking.
	backup(1, false);
	read_only(1);
	change_files(w, 1, 0x11);
	change_files(w, 3, 0x13);
	backup(1, true);

	// Both tracked.
	backup(2, false);
	read_only(2);
	change_files(w, 1, 0x21);
	change_files(w, 2, 0x22);
	change_files(w, 3, 0x23);
	backup(1, true);
	backup(2, true);
	read_only(2);
	change_files(w, 2, 0x32);
	backup(2, true);
	backup(1, true);
}

INSTANTIATE_TEST_SUITE_P(
	EveryOrder, ReadOnlyCommands,
	::testing::Values(Order{1, 2, 3}, Order{1, 3, 2}, Order{2, 1, 3},
			  Order{2, 3, 1}, Order{3, 1, 2}, Order{3, 2, 1}),
	[](const auto &info) { return order_name(info.param); });

// What status shows of a partition without asking for its tracking: its
// geometry as the next backup takes it, and whether it is mounted.
TEST(StatusCommand, ShowsTheGeometryOfAPartitionWithoutStartingABackup)
{
	EmuWorld w(three_partitions());
	ASSERT_EQ(w.error(), "");
	Cli c{w};
	(void)w.new_log_lines();
	EXPECT_EQ(c.run({"status", "/dev/sda2"}), 0) << c.err;
	EXPECT_EQ(c.out, "driver version 3.1\nno corvalin backup running\n"
			 "/dev/sda2 (8:2): 1.0 MiB in blocks of 1024 bytes, "
			 "mounted\nchange tracking: not queried (the driver "
			 "shows it only to a backup it has started, and ending "
			 "that backup can stop the tracking of the disk's other "
			 "partitions); each backup says whether it is "
			 "incremental, and why not\n");
	EXPECT_EQ(w.new_log_lines(), std::vector<std::string>{});
	// The whole disk carries no file system: the driver says so (and
	// logs that it found none), nothing else happens.
	EXPECT_EQ(c.run({"status", "/dev/sda", "--json"}), 0) << c.err;
	EXPECT_EQ(c.out, "{\"command\":\"status\",\"ok\":true,\"exit\":0,"
			 "\"backup_running\":false,\"driver_version\":\"3.1\","
			 "\"device\":\"/dev/sda\",\"major\":8,\"minor\":0,"
			 "\"bytes\":" +
				 std::to_string(w.disk().sectors() * 512) +
				 ",\"mounted\":false,\"tracking\":\"not "
				 "queried\"}\n");
	for (const std::string &line : w.new_log_lines())
		EXPECT_EQ(line.find("ioctlStartBackup"), std::string::npos)
			<< line;
}

}  // namespace
