// Every way a chain of incremental backups must break is seen by the
// backup program, and a full backup then restores the chain: a wrong or
// stale key (state 2 after the snapshot), NO_LOAD_FROM_AUTOMAP and
// NO_START_AUTOMAP, a write beyond the change map, a backup that failed on
// the partition (states 8, 10 and 13), UNLOAD and a module reload, and a
// different totalBlocks.  In each case the program learns it through
// GET_STATE, GET_AUTOMAP_STATE or GET_AUTOMAP's "automap is NULL", takes a
// full backup, and the next incremental exports exactly the blocks written
// since.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "emu/block.hpp"
#include "emu/emu.hpp"
#include "emu/process.hpp"
#include "test_change_map_util.hpp"

namespace {

using changemap::Key;
using Blocks = std::vector<std::uint32_t>;

enum class Kind { Full, Incremental };

class ChainBreak : public changemap::Fixture {
protected:
	// GET_STATE's state, as the program reads it.
	std::uint32_t program_state()
	{
		GetState rec{static_cast<kiv_u32>(scratch_ + 512), 20};
		EXPECT_TRUE(proc->poke(scratch_ + 96, &rec, sizeof(rec)));
		EXPECT_EQ(ioctl(KIV_IOC_GET_STATE, scratch_ + 96), 0);
		State s{};
		EXPECT_TRUE(proc->peek(scratch_ + 512, &s, sizeof(s)));
		return s.state;
	}
	// The session of partition 1 as a started backup of it sees it
	// (an idle record names no partition and sees none); the backup is
	// then snapshotted and mapped as the program would.
	AutoMapState started_state()
	{
		EXPECT_EQ(start(), 0);
		return automap_state();
	}
	AutoMapState automap_state()
	{
		AutoMapState s{};
		EXPECT_EQ(get_ams(scratch_ + 1024, sizeof(s)), 0);
		EXPECT_TRUE(proc->peek(scratch_ + 1024, &s, sizeof(s)));
		return s;
	}
	// The snapshot and map steps of one backup as the program runs
	// them, on a started backup: present the key (none for the very
	// first); a refused key (state 2 afterwards) means a full backup, so
	// ask for no hand-over and snapshot again; then export the change
	// map, and with none to export back up every block.  The next key
	// and the exported blocks are left in key_ and exported_.
	Kind snapshot_and_map(const Key *key, std::uint32_t total = 0)
	{
		if (key) {
			EXPECT_TRUE(proc->poke(page_ + 1024, key->data(), 56));
		}
		emu::log_clear();
		EXPECT_EQ(snapshot(key ? 56 : 0), 0);
		if (program_state() == BU_STATE_STARTED) {
			refused_++;
			refusal_log_ = emu::log_strings();
			EXPECT_EQ(ioctl(KIV_IOC_NO_LOAD_FROM_AUTOMAP, 0), 0);
			EXPECT_EQ(snapshot(0), 0);
		}
		EXPECT_EQ(program_state(), BU_STATE_SNAPSHOT);
		const std::uint32_t len = total ? total : blocks;
		const emu::uaddr dest = user_bitmap(len, {});
		Kind kind = Kind::Full;
		exported_.clear();
		if (get_automap(dest, len) == 0) {
			kind = Kind::Incremental;
			exported_ = set_bits(peek(dest, (len + 7) / 8), len);
			EXPECT_EQ(load_map(dest, len), 0);
		} else {
			std::vector<std::uint32_t> all;
			for (std::uint32_t n = 0; n < len; n++)
				all.push_back(n);
			EXPECT_EQ(load_map(user_bitmap(len, all), len), 0);
		}
		const AutoMapState s = automap_state();
		EXPECT_EQ(s.state, static_cast<kiv_u32>(AM_STATE_IN_SYNC));
		std::memcpy(key_.data(), s.amsKey.key, 56);
		return kind;
	}
	Kind backup(const Key *key, std::uint32_t total = 0)
	{
		EXPECT_EQ(start(1024, total), 0);
		Kind k = snapshot_and_map(key, total);
		reopen();
		return k;
	}
	// The chain goes on: the next backup with the current key is an
	// incremental naming exactly the blocks written since.
	void expect_chain_restored()
	{
		write_block(21, 0x21);
		write_block(2, 0x02);
		ASSERT_EQ(fs->sync(), 0);
		const Key k = key_;
		EXPECT_EQ(backup(&k), Kind::Incremental);
		EXPECT_EQ(exported_, (Blocks{2, 21}));
	}
	// A full backup and one incremental: the chain runs.
	void chain_running()
	{
		EXPECT_EQ(backup(nullptr), Kind::Full);
		write_block(7, 0x07);
		ASSERT_EQ(fs->sync(), 0);
		const Key k = key_;
		EXPECT_EQ(backup(&k), Kind::Incremental);
		EXPECT_EQ(exported_, Blocks{7});
		emu::log_clear();
	}

	Key key_{};
	Blocks exported_;
	int refused_ = 0;
	std::vector<std::string> refusal_log_;
};

TEST_F(ChainBreak, StaleKeyIsSeenAsStateTwoAndAFullBackupFollows)
{
	make_disk(4096);
	EXPECT_EQ(backup(nullptr), Kind::Full);
	const Key k1 = key_;
	write_block(7, 0x07);
	ASSERT_EQ(fs->sync(), 0);
	EXPECT_EQ(backup(&k1), Kind::Incremental);
	write_block(9, 0x09);
	ASSERT_EQ(fs->sync(), 0);
	emu::log_clear();
	EXPECT_EQ(backup(&k1), Kind::Full) << "k1 was replaced";
	EXPECT_EQ(refused_, 1);
	EXPECT_EQ(refusal_log_, std::vector<std::string>{
					"<3>ioctlSnapShot: session key mismatch"});
	expect_chain_restored();
}

TEST_F(ChainBreak, WrongKeyIsSeenAsStateTwoAndAFullBackupFollows)
{
	make_disk(4096);
	chain_running();
	Key wrong = key_;
	wrong[0] ^= 0x80;
	write_block(9, 0x09);
	ASSERT_EQ(fs->sync(), 0);
	EXPECT_EQ(backup(&wrong), Kind::Full);
	EXPECT_EQ(refused_, 1);
	expect_chain_restored();
}

TEST_F(ChainBreak, NoLoadFromAutoMapLeavesNoMapToExport)
{
	make_disk(4096);
	chain_running();
	write_block(9, 0x09);
	ASSERT_EQ(fs->sync(), 0);
	ASSERT_EQ(start(), 0);
	ASSERT_EQ(ioctl(KIV_IOC_NO_LOAD_FROM_AUTOMAP, 0), 0);
	const Key k = key_;
	EXPECT_EQ(snapshot_and_map(&k), Kind::Full);
	EXPECT_EQ(refused_, 0);
	const std::vector<std::string> log = emu::log_strings();
	EXPECT_NE(std::find(log.begin(), log.end(),
			    "<3>ioctlGetAutoMap: backup error automap is NULL "),
		  log.end());
	reopen();
	expect_chain_restored();
}

TEST_F(ChainBreak, NoStartAutoMapEndsTrackingUntilTheNextFullBackup)
{
	make_disk(4096);
	chain_running();
	ASSERT_EQ(start(), 0);
	ASSERT_EQ(ioctl(KIV_IOC_NO_START_AUTOMAP, 0), 0);
	const Key k = key_;
	EXPECT_TRUE(proc->poke(page_ + 1024, k.data(), 56));
	ASSERT_EQ(snapshot(56), 0);
	const AutoMapState s = automap_state();
	EXPECT_EQ(s.state, 0u);
	EXPECT_EQ(s.major, 0u) << "no session at all";
	// With no session left the close gives the queue back to the disk:
	// the one kernel warning of that path, right after the unhooking.
	EXPECT_EQ(proc->close(fd_), 0);
	const std::vector<std::string> log = emu::log_strings();
	EXPECT_NE(std::find(log.begin(), log.end(),
			    "<3>BUG: sleeping function called from invalid "
			    "context at core/backup.c:382"),
		  log.end());
	emu::warnings_seen(log);
	fd_ = open_device();
	ASSERT_GE(fd_, 0);
	b_ = test::backup_of(*proc, fd_);
	emu::log_clear();
	write_block(9, 0x09);
	ASSERT_EQ(fs->sync(), 0);
	EXPECT_EQ(backup(&k), Kind::Full);
	expect_chain_restored();
}

// A write past the end of the change map (the partition grew under it)
// ends the session's sync; the program sees state 0.
TEST_F(ChainBreak, WriteBeyondTheMapIsSeenAsNotInSync)
{
	make_disk(4096);
	chain_running();
	AutoMapSession *ams = session();
	ASSERT_NE(ams, nullptr);
	// The map covers 12 blocks here, as one built before the growth
	// would; its page count is unchanged, and its size is put back
	// before anything frees it.
	const u32 size = ams->map.size;
	ams->map.size = 12;
	write_block(12, 0x12);
	ASSERT_EQ(fs->sync(), 0);
	ams->map.size = size;
	ExpectLog({"<4>updateAM: device resize detected (block 12 in size 12) "
		   "in automap update, automap not in sync"});
	const AutoMapState st = started_state();
	EXPECT_EQ(st.major, readpath::kMajor);
	EXPECT_EQ(st.state, static_cast<kiv_u32>(AM_STATE_NOT_IN_SYNC));
	const Key k = key_;
	EXPECT_EQ(snapshot_and_map(&k), Kind::Full);
	reopen();
	expect_chain_restored();
}

class FailedBackup : public ChainBreak {
protected:
	// An incremental whose copy-before-write of block 9 fails as
	// `fail` arranges, ending the backup in `state`.
	template <typename Fail>
	void fail_then_restore(u32 state, Fail fail)
	{
		make_disk(4096);
		chain_running();
		ASSERT_EQ(start(), 0);
		const Key k = key_;
		EXPECT_TRUE(proc->poke(page_ + 1024, k.data(), 56));
		ASSERT_EQ(snapshot(56), 0);
		ASSERT_EQ(program_state(), BU_STATE_SNAPSHOT);
		const Key k2 = key_of(session());
		write_block(9, 0x09);
		// The write reaches the disk, and its copy is attempted,
		// inside fail's scope.
		fail([&] {
			fs->sync();
			while (atomic_read(&b_->mrInQueue) > 0)
				sched_yield();
		});
		EXPECT_EQ(program_state(), state);
		EXPECT_EQ(automap_state().state,
			  static_cast<kiv_u32>(AM_STATE_NOT_IN_SYNC));
		reopen();
		const AutoMapState st = started_state();
		EXPECT_EQ(st.major, readpath::kMajor);
		EXPECT_EQ(st.state, static_cast<kiv_u32>(AM_STATE_NOT_IN_SYNC));
		EXPECT_EQ(snapshot_and_map(&k2), Kind::Full);
		reopen();
		expect_chain_restored();
	}
};

TEST_F(FailedBackup, ReadErrorOfACopyBreaksTheChain)
{
	fail_then_restore(BU_STATE_READ_ERROR, [&](auto sync) {
		disk->fail_sectors(readpath::kP1Start + 9 * 8, 8, -EIO,
				   emu::Dir::Read);
		sync();
		disk->clear_failures();
	});
}

TEST_F(FailedBackup, CacheWithoutMemoryBreaksTheChain)
{
	fail_then_restore(BU_STATE_CACHE_ERROR, [&](auto sync) {
		auto fail = emu::FailScope::after(emu::Alloc::Pages, 0);
		sync();
	});
}

TEST_F(FailedBackup, HeldRequestWithoutMemoryBreaksTheChain)
{
	fail_then_restore(BU_STATE_QUEUE_ERROR, [&](auto sync) {
		auto fail = emu::FailScope::after(emu::Alloc::Kmalloc, 0);
		sync();
	});
}

TEST_F(ChainBreak, UnloadAndReloadForgetEverySession)
{
	make_disk(4096);
	chain_running();
	const Key k = key_;
	EXPECT_EQ(ioctl(KIV_IOC_UNLOAD, 0), 0);
	EXPECT_EQ(session(), nullptr) << "UNLOAD ends every session";
	EXPECT_EQ(proc->close(fd_), 0);
	ASSERT_EQ(emu::module_unload(), 0);
	write_block(9, 0x09);
	ASSERT_EQ(fs->sync(), 0);
	ASSERT_EQ(emu::module_load(), 0);
	fd_ = open_device();
	ASSERT_GE(fd_, 0);
	b_ = test::backup_of(*proc, fd_);
	emu::log_clear();
	const AutoMapState s = started_state();
	EXPECT_EQ(s.state, 0u);
	EXPECT_EQ(s.major, 0u) << "no session at all";
	EXPECT_EQ(snapshot_and_map(&k), Kind::Full);
	reopen();
	expect_chain_restored();
}

TEST_F(ChainBreak, DifferentTotalBlocksStartsAFreshSession)
{
	make_disk(4096);
	chain_running();
	const Key k = key_;
	write_block(9, 0x09);
	ASSERT_EQ(fs->sync(), 0);
	EXPECT_EQ(backup(&k, blocks - 8), Kind::Full);
	EXPECT_EQ(refused_, 0);
	EXPECT_EQ(session()->map.size, blocks - 8);
	// And back to the whole partition: a full one again.
	const Key k2 = key_;
	EXPECT_EQ(backup(&k2), Kind::Full);
	expect_chain_restored();
}

// A DOS label in sector 0 (outside partition 1) naming the partitions the
// test disk was given, so that a re-read finds them again.
void write_label(emu::Disk &disk, std::uint64_t p1_sectors)
{
	test::write_dos_label(
		disk, static_cast<std::uint32_t>(readpath::kP1Start),
		static_cast<std::uint32_t>(p1_sectors),
		static_cast<std::uint32_t>(readpath::kP1Start + p1_sectors),
		static_cast<std::uint32_t>(readpath::kP2Sectors));
}

// Re-reading the partition table of the tracked disk between backups
// (the partitions unmounted, BLKRRPART on the disk's node) completes, and
// tracking goes on: the next incremental exports the blocks written
// after it.
TEST_F(ChainBreak, PartitionTableRereadBetweenBackupsKeepsTheChain)
{
	make_disk(4096);
	chain_running();
	write_label(*disk, 2048);
	fs.reset();
	emu::mknod_block("/dev/sda", readpath::kMajor, 0);
	const int disk_fd = proc->open("/dev/sda");
	ASSERT_GE(disk_fd, 0);
	EXPECT_EQ(proc->ioctl(disk_fd, BLKRRPART, 0), 0);
	ExpectLog({"<6> sda: sda1 sda2"});
	EXPECT_EQ(proc->close(disk_fd), 0);
	EXPECT_EQ(disk->queue()->make_request_fn, &kivAMRF);
	fs = std::make_unique<emu::FileSystem>(*disk, 1, bs);
	expect_chain_restored();
}

}  // namespace
