// Incremental backups by the backup program against the emulated driver:
// a chain of a full backup and incrementals taken while a writer changes
// the partition restores every snapshot byte for byte and reads only the
// changed blocks; each chain-breaking event the driver lets another
// program provoke (its own snapshot, NO_START_AUTOMAP, UNLOAD, a module
// reload, a failed backup) and a partition grown under the chain make
// the next backup full, saying why, and the chain goes on.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support.hpp"
#include "test_program_util.hpp"

namespace {

using corvalin::tool::EmuWorld;
using program_test::BackupRun;
using program_test::ScratchDir;
using program_test::expect_restores;

EmuWorld::Config config()
{
	EmuWorld::Config c;
	c.block_size = 1024;
	c.blocks = 2048;
	c.per_group = 512;
	c.seed = 21;
	c.room = 64;
	return c;
}

TEST(ProgramIncremental, ChainUnderWritersRestoresEverySnapshot)
{
	ScratchDir d;
	const std::string repo = d / "r";
	std::vector<std::vector<std::byte>> want;
	{
		EmuWorld w(config());
		ASSERT_EQ(w.error(), "");
		std::uint32_t allocated = 0;
		for (bool a : w.allocated())
			allocated += a;
		w.start_writer(9);
		for (unsigned i = 1; i <= 4; i++) {
			const auto until = w.writes() + 40;
			while (w.writes() < until)
				std::this_thread::yield();
			BackupRun b(w);
			ASSERT_EQ(b.run(repo), 0) << b.err.msg;
			EXPECT_EQ(b.res.number, i);
			EXPECT_EQ(b.res.incremental, i > 1 ? 1 : 0)
				<< b.res.why_full;
			if (i > 1) {
				EXPECT_LT(b.res.blocks_read, allocated);
			}
			want.push_back(program_test::allocated_only(
				b.frozen, w.allocated(), 1024));
			(void)w.new_log_lines();
		}
		w.stop_writer();
	}
	for (std::uint32_t n = 1; n <= 4; n++)
		expect_restores(repo, n, want[n - 1], d);
}

// Another program's backup of the partition (with the given flags).
void other_backup(EmuWorld &w, bool no_start)
{
	emu::Process other("other");
	corvalin::EmuTransport t(other);
	cv_device dev;
	ASSERT_EQ(cv_open(&dev, t.get(), nullptr), 0);
	ASSERT_EQ(cv_start_backup(&dev, 8, 1, w.blocks(), w.blocks()), 0);
	if (no_start) {
		ASSERT_EQ(cv_no_start_automap(&dev), 0);
	}
	ASSERT_EQ(cv_no_load_from_automap(&dev), 0);
	ASSERT_EQ(cv_snapshot(&dev, nullptr, 0), 0);
	ASSERT_EQ(cv_close(&dev), 0);
}

// Another program's backup of the partition that fails once writes come
// in: its cache holds one block, the second preserved block moves it to
// the cache-limit error, and the partition's tracking drops out of sync.
void other_failed_backup(EmuWorld &w)
{
	emu::Process other("other");
	corvalin::EmuTransport t(other);
	cv_device dev;
	ASSERT_EQ(cv_open(&dev, t.get(), nullptr), 0);
	ASSERT_EQ(cv_start_backup(&dev, 8, 1, w.blocks(), 1), 0);
	ASSERT_EQ(cv_no_load_from_automap(&dev), 0);
	ASSERT_EQ(cv_snapshot(&dev, nullptr, 0), 0);
	// Three allocated blocks (file data) are rewritten.
	std::vector<std::byte> blk(1024, std::byte{0x3C});
	std::uint32_t n = w.blocks() - 1;
	for (int written = 0; written < 3; n--) {
		if (!w.allocated()[n])
			continue;
		ASSERT_EQ(w.fs().write_block(n, blk), 0);
		written++;
	}
	// The writes reach the disk, held until kbackupd has dealt with
	// each: the first is cached, the second finds the cache full.
	ASSERT_EQ(w.fs().sync(), 0);
	State st{};
	ASSERT_EQ(cv_get_state(&dev, &st, sizeof(st)), 0);
	EXPECT_EQ(st.state, (std::uint32_t)BU_STATE_CACHE_ERROR);
	ASSERT_EQ(cv_close(&dev), 0);
}

void other_unload()
{
	emu::Process other("other");
	corvalin::EmuTransport t(other);
	cv_device dev;
	ASSERT_EQ(cv_open(&dev, t.get(), nullptr), 0);
	ASSERT_EQ(cv_unload(&dev), 0);
	ASSERT_EQ(cv_close(&dev), 0);
}

enum class Event { Snapshot, NoStart, Unload, Reload, Failed, Grown };

std::string event_name(Event e)
{
	switch (e) {
	case Event::Snapshot:
		return "AnotherProgramsSnapshot";
	case Event::NoStart:
		return "NoStartAutomap";
	case Event::Unload:
		return "Unload";
	case Event::Failed:
		return "AnotherProgramsFailedBackup";
	case Event::Grown:
		return "PartitionGrown";
	default:
		return "ModuleReload";
	}
}

void PrintTo(Event e, std::ostream *os)
{
	*os << event_name(e);
}

class ProgramChainBreak : public ::testing::TestWithParam<Event> {};

TEST_P(ProgramChainBreak, NextBackupIsFullAndTheChainGoesOn)
{
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(config());
	ASSERT_EQ(w.error(), "");
	BackupRun first(w);
	ASSERT_EQ(first.run(repo), 0) << first.err.msg;
	BackupRun inc(w);
	ASSERT_EQ(inc.run(repo), 0) << inc.err.msg;
	EXPECT_EQ(inc.res.incremental, 1) << inc.res.why_full;
	const char *why = "";
	switch (GetParam()) {
	case Event::Snapshot:
		other_backup(w, false);
		why = "key mismatch (the partition's last backup is not this "
		      "repository's last one)";
		break;
	case Event::NoStart:
		other_backup(w, true);
		why = "the partition is not tracked (module reloaded, or "
		      "tracking stopped)";
		break;
	case Event::Unload:
		other_unload();
		why = "the partition is not tracked (module reloaded, or "
		      "tracking stopped)";
		break;
	case Event::Failed:
		other_failed_backup(w);
		why = "tracking lost (session state 0)";
		break;
	case Event::Reload:
		ASSERT_EQ(w.reload_module(), 0);
		why = "the partition is not tracked (module reloaded, or "
		      "tracking stopped)";
		break;
	case Event::Grown: {
		// Unmounted, relabelled 64 blocks longer, the table re-read
		// on the tracked disk, mounted again; then a write lands
		// past the old end.  The session clips it to the partition
		// it was made for, so its map neither records it nor drops
		// out of sync: only the size the program compares breaks
		// the chain.
		(void)w.new_log_lines();
		ASSERT_EQ(w.grow_partition(64), 0);
		ASSERT_EQ(w.blocks(), 2048u + 64u);
		EXPECT_EQ(w.new_log_lines(),
			  std::vector<std::string>{"<6> sda: sda1"});
		std::vector<std::byte> blk(1024, std::byte{0x77});
		ASSERT_EQ(w.fs().write_block(2100, blk), 0);
		ASSERT_EQ(w.fs().sync(), 0);
		EXPECT_EQ(w.new_log_lines(), std::vector<std::string>{});
		why = "size changed (2048 blocks of 1024 bytes, now 2112 of "
		      "1024)";
		break;
	}
	}
	BackupRun full(w);
	ASSERT_EQ(full.run(repo), 0) << full.err.msg;
	EXPECT_EQ(full.res.incremental, 0);
	EXPECT_STREQ(full.res.why_full, why);
	// A file's block (the highest allocated one: no metadata) changes.
	std::uint32_t file_block = w.blocks() - 1;
	while (!w.allocated()[file_block])
		file_block--;
	std::vector<std::byte> blk(1024, std::byte{0x5A});
	ASSERT_EQ(w.fs().write_block(file_block, blk), 0);
	BackupRun again(w);
	ASSERT_EQ(again.run(repo), 0) << again.err.msg;
	EXPECT_EQ(again.res.incremental, 1) << again.res.why_full;
	(void)w.new_log_lines();
	expect_restores(repo, 4, program_test::allocated_only(
					 again.frozen, w.allocated(), 1024), d);
}

INSTANTIATE_TEST_SUITE_P(Events, ProgramChainBreak,
			 ::testing::Values(Event::Snapshot, Event::NoStart,
					   Event::Unload, Event::Reload,
					   Event::Failed, Event::Grown),
			 [](const auto &info) { return event_name(info.param); });

}  // namespace
