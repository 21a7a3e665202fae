// Backups that die after their snapshot.  The snapshot hands the driver's
// change map over and gives the session a new key; the record of the
// backup that has not completed ("pending") keeps both, so the next plain
// backup continues it: an incremental from the same parent reading the
// recorded map joined with its own.  Killed at every stage while writers
// change blocks before and after, the next backup is incremental save
// for a kill between the snapshot and the secured record, where it is
// full and says exactly that; every backup restores its frozen instant
// byte for byte.  Also: two kills in a row, full backups killed, records
// damaged, left over, of another repository or geometry, keys the driver
// no longer accepts, out-of-memory and repository errors writing the
// record, the command line, and repositories without records.
#include <sys/resource.h>

#include <csignal>

#include "test_interrupted_util.hpp"

namespace {

using namespace interrupted_test;

// --- a kill at every stage ---------------------------------------------------

struct Kill {
	int stage;
	const char *name;
	const char *msg;
};

void PrintTo(const Kill &k, std::ostream *os)
{
	*os << k.name;
}

class KilledBackup : public ::testing::TestWithParam<Kill> {};

TEST_P(KilledBackup, TheNextPlainBackupIsIncrementalSaveInTheSnapshotWindow)
{
	const Kill &k = GetParam();
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(config());
	ASSERT_EQ(w.error(), "");
	w.start_writer(7);
	BackupRun first(w);
	ASSERT_EQ(first.run(repo), 0) << first.err.msg;
	wait_writes(w, 30);
	BackupRun second(w);
	ASSERT_EQ(second.run(repo), 0) << second.err.msg;
	EXPECT_EQ(second.res.incremental, 1) << second.res.why_full;

	// Changes before the killed backup's snapshot...
	w.pause_writer();
	change(w, 0, 4, 0xB1);
	w.resume_writer();
	wait_writes(w, 30);
	BackupRun killed(w);
	killed.stop_at = k.stage;
	killed.how = 2;
	ASSERT_EQ(killed.run(repo), CVB_E_INTERRUPTED);
	EXPECT_STREQ(killed.err.msg, k.msg);
	const Record rec = load_record(repo);
	ASSERT_EQ(rec.rc, 0) << rec.why;
	const bool secured = k.stage >= CVB_STAGE_SECURED;
	if (k.stage == CVB_STAGE_STARTED) {
		EXPECT_FALSE(rec.found);
	} else {
		ASSERT_TRUE(rec.found);
		EXPECT_EQ(rec.p.state, secured ? CVB_PENDING_SECURED
					       : CVB_PENDING_INTENT);
		EXPECT_EQ(rec.p.kind, CVB_KIND_INCREMENTAL);
		EXPECT_EQ(rec.p.parent, 2u);
		EXPECT_EQ(rec.p.flags, secured ? CVB_PENDING_KEY |
						 CVB_PENDING_MAP
					       : CVB_PENDING_KEY);
		if (secured) {
			EXPECT_GE(rec.p.marked, 4u);
		}
	}

	// ...and after it, while the writer goes on.
	wait_writes(w, 30);
	w.pause_writer();
	change(w, 8, 4, 0xA2);
	w.resume_writer();
	BackupRun next(w);
	ASSERT_EQ(next.run(repo), 0) << next.err.msg;
	EXPECT_EQ(next.res.number, 3u);
	if (k.stage == CVB_STAGE_SNAPSHOT) {
		EXPECT_EQ(next.res.incremental, 0);
		EXPECT_STREQ(next.res.why_full, kWindow);
		EXPECT_STREQ(next.res.pending_note, kWindow);
	} else {
		EXPECT_EQ(next.res.incremental, 1) << next.res.why_full;
		EXPECT_STREQ(next.res.pending_note, "");
	}
	EXPECT_EQ(next.res.continued, secured ? 1 : 0);
	EXPECT_EQ(next.res.continued_blocks, secured ? rec.p.marked : 0u);
	EXPECT_EQ(names(repo), images(3));

	// The chain goes on.
	wait_writes(w, 30);
	BackupRun after(w);
	ASSERT_EQ(after.run(repo), 0) << after.err.msg;
	EXPECT_EQ(after.res.incremental, 1) << after.res.why_full;
	EXPECT_EQ(after.res.continued, 0);
	w.stop_writer();
	(void)w.new_log_lines();
	expect_restores(repo, 1, want(w, first), d);
	expect_restores(repo, 2, want(w, second), d);
	expect_restores(repo, 3, want(w, next), d);
	expect_restores(repo, 4, want(w, after), d);
}

INSTANTIATE_TEST_SUITE_P(
	Stages, KilledBackup,
	::testing::Values(
		Kill{CVB_STAGE_STARTED, "BeforeItsIntent",
		     "backup interrupted after START_BACKUP; the repository is "
		     "unchanged"},
		Kill{CVB_STAGE_INTENT, "BeforeItsSnapshot",
		     "backup interrupted before SNAPSHOT; the repository is "
		     "unchanged"},
		Kill{CVB_STAGE_SNAPSHOT, "BeforeItsMapIsSecured",
		     "backup interrupted after SNAPSHOT; the repository is "
		     "unchanged (its change map was not secured: the next "
		     "backup is full)"},
		Kill{CVB_STAGE_SECURED, "OnceItsMapIsSecured",
		     "backup interrupted after securing its change map; the "
		     "repository is unchanged (the next backup continues this "
		     "one)"},
		Kill{CVB_STAGE_MAP, "WithItsBlockMapLoaded",
		     "backup interrupted after the block map; the repository "
		     "is unchanged (the next backup continues this one)"},
		Kill{CVB_STAGE_READING, "WhileReading",
		     "backup interrupted while reading; the repository is "
		     "unchanged (the next backup continues this one)"},
		Kill{CVB_STAGE_STORED, "WhileWritingTheImage",
		     "backup interrupted while writing its image; the "
		     "repository is unchanged (the next backup continues this "
		     "one)"},
		Kill{CVB_STAGE_WRITTEN, "BeforeTheRename",
		     "backup interrupted before its rename; the repository is "
		     "unchanged (the next backup continues this one)"},
		Kill{CVB_STAGE_RENAMED, "BeforeTheIndexUpdate",
		     "backup interrupted before the index was updated; the "
		     "repository is unchanged (the next backup continues this "
		     "one)"}),
	[](const auto &info) { return std::string(info.param.name); });

// --- continuing -------------------------------------------------------------

// Without a writer the blocks are known: those changed before the killed
// snapshot (only in the record's map) and those changed after it (only in
// the driver's) are both read, and nothing else.
TEST(InterruptedBackup, TheContinuingBackupReadsTheBlocksOfBothChangeMaps)
{
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(config());
	ASSERT_EQ(w.error(), "");
	BackupRun first(w);
	ASSERT_EQ(first.run(repo), 0) << first.err.msg;
	change(w, 0, 3, 0xC1);
	(void)kill_at(w, repo, CVB_STAGE_READING);
	const Record rec = load_record(repo);
	ASSERT_TRUE(rec.found);
	EXPECT_EQ(rec.p.marked, 3u);
	EXPECT_EQ(rec.p.parent, 1u);
	change(w, 3, 3, 0xC2);
	BackupRun next(w);
	ASSERT_EQ(next.run(repo), 0) << next.err.msg;
	EXPECT_EQ(next.res.number, 2u);
	EXPECT_EQ(next.res.incremental, 1) << next.res.why_full;
	EXPECT_EQ(next.res.continued, 1);
	EXPECT_EQ(next.res.continued_blocks, 3u);
	EXPECT_EQ(next.res.blocks_read, 6u);
	EXPECT_FALSE(load_record(repo).found);
	(void)w.new_log_lines();
	expect_restores(repo, 1, want(w, first), d);
	expect_restores(repo, 2, want(w, next), d);
}

// The continuing backup records the joined map under its own new key
// before it reads, so a second kill is covered as well.
TEST(InterruptedBackup, TwoKillsInARowAreBothContinued)
{
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(config());
	ASSERT_EQ(w.error(), "");
	BackupRun first(w);
	ASSERT_EQ(first.run(repo), 0) << first.err.msg;
	change(w, 0, 3, 0xD1);
	(void)kill_at(w, repo, CVB_STAGE_READING);
	change(w, 3, 3, 0xD2);
	EXPECT_EQ(kill_at(w, repo, CVB_STAGE_MAP),
		  "backup interrupted after the block map; the repository is "
		  "unchanged (the next backup continues this one)");
	const Record rec = load_record(repo);
	ASSERT_TRUE(rec.found);
	EXPECT_EQ(rec.p.state, CVB_PENDING_SECURED);
	EXPECT_EQ(rec.p.parent, 1u);
	EXPECT_EQ(rec.p.marked, 6u);
	change(w, 6, 3, 0xD3);
	BackupRun next(w);
	ASSERT_EQ(next.run(repo), 0) << next.err.msg;
	EXPECT_EQ(next.res.number, 2u);
	EXPECT_EQ(next.res.incremental, 1) << next.res.why_full;
	EXPECT_EQ(next.res.continued_blocks, 6u);
	EXPECT_EQ(next.res.blocks_read, 9u);
	(void)w.new_log_lines();
	expect_restores(repo, 2, want(w, next), d);
}

TEST(InterruptedBackup, AKillInTheWindowAfterAnotherKillCostsOneFullBackup)
{
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(config());
	ASSERT_EQ(w.error(), "");
	BackupRun first(w);
	ASSERT_EQ(first.run(repo), 0) << first.err.msg;
	change(w, 0, 3, 0xE1);
	(void)kill_at(w, repo, CVB_STAGE_READING);
	change(w, 3, 3, 0xE2);
	(void)kill_at(w, repo, CVB_STAGE_SNAPSHOT);
	// The INTENT record still carries the first kill's map, under a key
	// the session no longer has.
	const Record rec = load_record(repo);
	ASSERT_TRUE(rec.found);
	EXPECT_EQ(rec.p.state, CVB_PENDING_INTENT);
	EXPECT_EQ(rec.p.marked, 3u);
	change(w, 6, 3, 0xE3);
	BackupRun full(w);
	ASSERT_EQ(full.run(repo), 0) << full.err.msg;
	EXPECT_EQ(full.res.incremental, 0);
	EXPECT_STREQ(full.res.why_full, kWindow);
	change(w, 9, 3, 0xE4);
	BackupRun next(w);
	ASSERT_EQ(next.run(repo), 0) << next.err.msg;
	EXPECT_EQ(next.res.incremental, 1) << next.res.why_full;
	EXPECT_EQ(next.res.blocks_read, 3u);
	(void)w.new_log_lines();
	expect_restores(repo, 2, want(w, full), d);
	expect_restores(repo, 3, want(w, next), d);
}

// A full backup's snapshot has no complete backup to continue from: its
// record says only that it was taken, and the next backup is full.
// Killed before its snapshot, a full backup leaves what it found.
TEST(InterruptedBackup, AFullBackupKilledAfterItsSnapshotLeavesNothingToContinue)
{
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(config());
	ASSERT_EQ(w.error(), "");
	EXPECT_EQ(kill_at(w, repo, CVB_STAGE_READING),
		  "backup interrupted while reading; the repository is "
		  "unchanged");
	Record rec = load_record(repo);
	ASSERT_TRUE(rec.found);
	EXPECT_EQ(rec.p.state, CVB_PENDING_SECURED);
	EXPECT_EQ(rec.p.kind, CVB_KIND_FULL);
	EXPECT_EQ(rec.p.flags, 0u);
	EXPECT_EQ(rec.p.parent, 0u);
	BackupRun first(w);
	ASSERT_EQ(first.run(repo), 0) << first.err.msg;
	EXPECT_EQ(first.res.number, 1u);
	EXPECT_STREQ(first.res.why_full, "first backup in this repository");
	EXPECT_EQ(names(repo), images(1));

	// --full killed while reading, and in its own window.
	for (int stage : {CVB_STAGE_READING, CVB_STAGE_SNAPSHOT}) {
		change(w, 0, 2, static_cast<std::uint8_t>(stage));
		(void)kill_at(w, repo, stage, true);
		BackupRun next(w);
		ASSERT_EQ(next.run(repo), 0) << next.err.msg;
		EXPECT_EQ(next.res.incremental, 0);
		EXPECT_STREQ(next.res.why_full, kFullStopped);
		expect_restores(repo, next.res.number, want(w, next), d);
	}

	// --full killed before its snapshot: the record it found (an
	// incremental's secured map) is still there to continue.
	change(w, 2, 3, 0xF1);
	(void)kill_at(w, repo, CVB_STAGE_READING);
	change(w, 5, 3, 0xF2);
	(void)kill_at(w, repo, CVB_STAGE_INTENT, true);
	rec = load_record(repo);
	ASSERT_TRUE(rec.found);
	EXPECT_EQ(rec.p.state, CVB_PENDING_INTENT);
	EXPECT_EQ(rec.p.kind, CVB_KIND_FULL);
	EXPECT_EQ(rec.p.flags, CVB_PENDING_KEY | CVB_PENDING_MAP);
	EXPECT_EQ(rec.p.marked, 3u);
	BackupRun cont(w);
	ASSERT_EQ(cont.run(repo), 0) << cont.err.msg;
	EXPECT_EQ(cont.res.incremental, 1) << cont.res.why_full;
	EXPECT_EQ(cont.res.continued_blocks, 3u);
	EXPECT_EQ(cont.res.blocks_read, 6u);
	expect_restores(repo, cont.res.number, want(w, cont), d);

	// A full backup that completes over a record ends it and leaves its
	// own key: the next backup is incremental from it.
	change(w, 8, 3, 0xF3);
	(void)kill_at(w, repo, CVB_STAGE_READING);
	BackupRun full(w);
	full.force_full = true;
	ASSERT_EQ(full.run(repo), 0) << full.err.msg;
	EXPECT_FALSE(load_record(repo).found);
	change(w, 11, 2, 0xF4);
	BackupRun inc(w);
	ASSERT_EQ(inc.run(repo), 0) << inc.err.msg;
	EXPECT_EQ(inc.res.incremental, 1) << inc.res.why_full;
	EXPECT_EQ(inc.res.continued, 0);
	EXPECT_STREQ(inc.res.pending_note, "");
	EXPECT_EQ(inc.res.blocks_read, 2u);
	(void)w.new_log_lines();
	expect_restores(repo, full.res.number, want(w, full), d);
	expect_restores(repo, inc.res.number, want(w, inc), d);
}

// --- records that cannot be used ---------------------------------------------

struct Damage {
	const char *name;
	void (*damage)(const std::string &repo);
	const char *why;
};

void PrintTo(const Damage &g, std::ostream *os)
{
	*os << g.name;
}

class DamagedRecord : public ::testing::TestWithParam<Damage> {};

// The record of a backup killed while reading (2048 blocks: 128 bytes
// and a map of 256), damaged: the next backup is full, says why, and the
// chain goes on.  A CRC-32C over the record catches any change of its
// bytes, map bits included.
TEST_P(DamagedRecord, MakesTheNextBackupFullSayingWhy)
{
	const Damage &g = GetParam();
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(config());
	ASSERT_EQ(w.error(), "");
	BackupRun first(w);
	ASSERT_EQ(first.run(repo), 0) << first.err.msg;
	change(w, 0, 3, 0x61);
	(void)kill_at(w, repo, CVB_STAGE_READING);
	ASSERT_EQ(read_file(repo + "/pending").size(), 384u);
	g.damage(repo);
	change(w, 3, 3, 0x62);
	BackupRun next(w);
	ASSERT_EQ(next.run(repo), 0) << next.err.msg;
	EXPECT_EQ(next.res.incremental, 0);
	EXPECT_EQ(next.res.why_full, std::string(NOT_USED) + g.why);
	EXPECT_STREQ(next.res.pending_note, next.res.why_full);
	EXPECT_EQ(next.res.continued, 0);
	EXPECT_EQ(names(repo), images(2));
	change(w, 6, 3, 0x63);
	BackupRun again(w);
	ASSERT_EQ(again.run(repo), 0) << again.err.msg;
	EXPECT_EQ(again.res.incremental, 1) << again.res.why_full;
	(void)w.new_log_lines();
	expect_restores(repo, 2, want(w, next), d);
	expect_restores(repo, 3, want(w, again), d);
}

INSTANTIATE_TEST_SUITE_P(
	Damages, DamagedRecord,
	::testing::Values(
		Damage{"AMapBitFlipped",
		       [](const std::string &r) {
			       edit_bytes(r, [](std::vector<std::byte> &raw) {
				       raw[128 + 100] ^= std::byte{0x08};
			       });
		       },
		       "its checksum does not match"},
		Damage{"AKeyByteFlipped",
		       [](const std::string &r) {
			       edit_bytes(r, [](std::vector<std::byte> &raw) {
				       raw[64 + 5] ^= std::byte{0x10};
			       });
		       },
		       "its checksum does not match"},
		Damage{"TheParentChanged",
		       [](const std::string &r) {
			       edit_bytes(r, [](std::vector<std::byte> &raw) {
				       raw[28] = std::byte{7};
			       });
		       },
		       "its checksum does not match"},
		Damage{"TruncatedInItsMap",
		       [](const std::string &r) {
			       edit_bytes(r, [](std::vector<std::byte> &raw) {
				       raw.pop_back();
			       });
		       },
		       "it is truncated (383 of 384 bytes)"},
		Damage{"TruncatedInItsHeader",
		       [](const std::string &r) {
			       edit_bytes(r, [](std::vector<std::byte> &raw) {
				       raw.resize(100);
			       });
		       },
		       "it is truncated (100 bytes)"},
		Damage{"Empty",
		       [](const std::string &r) {
			       edit_bytes(r, [](std::vector<std::byte> &raw) {
				       raw.clear();
			       });
		       },
		       "it is truncated (0 bytes)"},
		Damage{"WithTrailingBytes",
		       [](const std::string &r) {
			       edit_bytes(r, [](std::vector<std::byte> &raw) {
				       raw.push_back(std::byte{0});
			       });
		       },
		       "it has trailing bytes (385, not 384)"},
		Damage{"NotARecord",
		       [](const std::string &r) {
			       edit_bytes(r, [](std::vector<std::byte> &raw) {
				       raw[0] = std::byte{'X'};
			       });
		       },
		       "it is not a corvalin record (wrong magic)"},
		Damage{"OfANewerVersion",
		       [](const std::string &r) {
			       edit_bytes(r, [](std::vector<std::byte> &raw) {
				       raw[8] = std::byte{2};
			       });
		       },
		       "its version 2 is not supported (this program reads "
		       "version 1)"},
		Damage{"InconsistentDespiteItsChecksum",
		       [](const std::string &r) {
			       rewrite_record(r, [](cvb_pending &p, auto &) {
				       p.marked++;
			       });
		       },
		       "it is inconsistent (map does not match its block "
		       "count)"},
		Damage{"OfAnotherRepository",
		       [](const std::string &r) {
			       rewrite_record(r, [](cvb_pending &p, auto &) {
				       p.parent_id ^= 1;
			       });
		       },
		       "it continues a backup 1 that is not this repository's "
		       "(the last one here is 1)"},
		Damage{"OfAnotherGeometry",
		       [](const std::string &r) {
			       rewrite_record(r, [](cvb_pending &p, auto &map) {
				       p.block_count = 2040;
				       map.resize(255);
				       p.marked = cvb_count_bits(map.data(),
								 2040);
			       });
		       },
		       "it was made for device 8:1 of 2040 blocks of 1024 "
		       "bytes, the partition is 8:1 of 2048 blocks of 1024 "
		       "bytes"}),
	[](const auto &info) { return std::string(info.param.name); });

// Damaged while it only said that a snapshot was coming (which never
// came): the session still has the last backup's key, so nothing is lost.
TEST(InterruptedBackup, ADamagedRecordOfABackupKilledBeforeItsSnapshotCostsNothing)
{
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(config());
	ASSERT_EQ(w.error(), "");
	BackupRun first(w);
	ASSERT_EQ(first.run(repo), 0) << first.err.msg;
	change(w, 0, 3, 0x71);
	(void)kill_at(w, repo, CVB_STAGE_INTENT);
	edit_bytes(repo, [](std::vector<std::byte> &raw) {
		raw[64] ^= std::byte{1};
	});
	BackupRun next(w);
	ASSERT_EQ(next.run(repo), 0) << next.err.msg;
	EXPECT_EQ(next.res.incremental, 1) << next.res.why_full;
	EXPECT_EQ(next.res.blocks_read, 3u);
	EXPECT_STREQ(next.res.pending_note,
		     NOT_USED "its checksum does not match");
	(void)w.new_log_lines();
	expect_restores(repo, 2, want(w, next), d);
}

// A backup that completed and died before its record went (or an older
// program's backup since): the record names a parent that is no longer
// the last backup and is set aside; the last backup's key serves.
TEST(InterruptedBackup, ARecordLeftBehindByACompletedBackupIsSetAside)
{
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(config());
	ASSERT_EQ(w.error(), "");
	BackupRun first(w);
	ASSERT_EQ(first.run(repo), 0) << first.err.msg;
	change(w, 0, 3, 0x81);
	BackupRun second(w);
	second.at_stage = [&](int stage) {
		if (stage == CVB_STAGE_RENAMED)
			std::filesystem::copy_file(repo + "/pending",
						   d / "saved");
	};
	ASSERT_EQ(second.run(repo), 0) << second.err.msg;
	EXPECT_FALSE(load_record(repo).found);
	std::filesystem::rename(d / "saved", repo + "/pending");
	change(w, 3, 3, 0x82);
	BackupRun third(w);
	ASSERT_EQ(third.run(repo), 0) << third.err.msg;
	EXPECT_EQ(third.res.incremental, 1) << third.res.why_full;
	EXPECT_EQ(third.res.continued, 0);
	EXPECT_EQ(third.res.blocks_read, 3u);
	EXPECT_STREQ(third.res.pending_note,
		     NOT_USED "it continues backup 1, and backup 2 has "
			      "completed since");
	EXPECT_EQ(names(repo), images(3));
	(void)w.new_log_lines();
	expect_restores(repo, 2, want(w, second), d);
	expect_restores(repo, 3, want(w, third), d);
}

// --- the session must vouch for the record --------------------------------

TEST(InterruptedBackup, ARecordWhoseKeyTheSessionNoLongerHasIsNotUsed)
{
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(config());
	ASSERT_EQ(w.error(), "");
	BackupRun first(w);
	ASSERT_EQ(first.run(repo), 0) << first.err.msg;
	change(w, 0, 3, 0x91);
	(void)kill_at(w, repo, CVB_STAGE_READING);
	other_snapshot(w);
	change(w, 3, 3, 0x92);
	BackupRun next(w);
	ASSERT_EQ(next.run(repo), 0) << next.err.msg;
	EXPECT_EQ(next.res.incremental, 0);
	EXPECT_STREQ(next.res.why_full,
		     NOT_USED "the driver does not accept its session key (the "
			      "partition had another snapshot since)");
	(void)w.new_log_lines();
	expect_restores(repo, 2, want(w, next), d);
}

// The session's answer before the snapshot rewritten to show the
// record's key: the driver itself refuses it at the SNAPSHOT.
TEST(InterruptedBackup, ARecordWhoseKeyTheDriverRefusesAtTheSnapshotIsNotUsed)
{
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(config());
	ASSERT_EQ(w.error(), "");
	BackupRun first(w);
	ASSERT_EQ(first.run(repo), 0) << first.err.msg;
	change(w, 0, 3, 0xA1);
	(void)kill_at(w, repo, CVB_STAGE_READING);
	const Record rec = load_record(repo);
	ASSERT_TRUE(rec.found);
	other_snapshot(w);
	change(w, 3, 3, 0xA2);
	Rewriter t(w.transport());
	bool snapped = false;
	t.after = [&](std::uint32_t code, cv_uaddr arg, long r) -> long {
		if (code == KIV_IOC_SNAPSHOT && r == 0)
			snapped = true;
		if (code == KIV_IOC_GET_AUTOMAP_STATE && r == 0 && !snapped) {
			const auto g = t.read<GetAutoMapState>(arg);
			auto ams = t.read<AutoMapState>(g.ams);
			std::memcpy(ams.amsKey.key, rec.p.key, CVB_KEY_SIZE);
			t.write(g.ams, ams);
		}
		return r;
	};
	BackupRun next(w);
	next.tp = t.get();
	ASSERT_EQ(next.run(repo), 0) << next.err.msg;
	EXPECT_EQ(next.res.incremental, 0);
	EXPECT_STREQ(next.res.why_full,
		     NOT_USED "the driver refused its session key at the "
			      "snapshot");
	EXPECT_STREQ(next.res.pending_note, next.res.why_full);
	change(w, 6, 3, 0xA3);
	BackupRun again(w);
	ASSERT_EQ(again.run(repo), 0) << again.err.msg;
	EXPECT_EQ(again.res.incremental, 1) << again.res.why_full;
	(void)w.new_log_lines();
	expect_restores(repo, 2, want(w, next), d);
	expect_restores(repo, 3, want(w, again), d);
}

// Continuing needs the session's word after the snapshot too.
TEST(InterruptedBackup, AContinuationTheSessionDoesNotVouchForIsFull)
{
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(config());
	ASSERT_EQ(w.error(), "");
	BackupRun first(w);
	ASSERT_EQ(first.run(repo), 0) << first.err.msg;
	change(w, 0, 3, 0xB1);
	(void)kill_at(w, repo, CVB_STAGE_READING);
	change(w, 3, 3, 0xB2);
	Rewriter t(w.transport());
	bool snapped = false;
	t.after = [&](std::uint32_t code, cv_uaddr arg, long r) -> long {
		if (code == KIV_IOC_SNAPSHOT && r == 0)
			snapped = true;
		if (code == KIV_IOC_GET_AUTOMAP_STATE && r == 0 && snapped) {
			const auto g = t.read<GetAutoMapState>(arg);
			auto ams = t.read<AutoMapState>(g.ams);
			ams.state = 0;
			t.write(g.ams, ams);
		}
		return r;
	};
	BackupRun next(w);
	next.tp = t.get();
	next.stop_at = CVB_STAGE_SECURED;
	next.how = 2;
	ASSERT_EQ(next.run(repo), CVB_E_INTERRUPTED);
	// What it secured: a full backup's snapshot, nothing to continue.
	const Record rec = load_record(repo);
	ASSERT_TRUE(rec.found);
	EXPECT_EQ(rec.p.state, CVB_PENDING_SECURED);
	EXPECT_EQ(rec.p.kind, CVB_KIND_FULL);
	BackupRun full(w);
	ASSERT_EQ(full.run(repo), 0) << full.err.msg;
	EXPECT_EQ(full.res.incremental, 0);
	EXPECT_STREQ(full.res.why_full, kFullStopped);
	(void)w.new_log_lines();
	expect_restores(repo, 2, want(w, full), d);
}

TEST(InterruptedBackup, AModuleReloadAfterTheKillMakesTheNextBackupFull)
{
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(config());
	ASSERT_EQ(w.error(), "");
	BackupRun first(w);
	ASSERT_EQ(first.run(repo), 0) << first.err.msg;
	change(w, 0, 3, 0xC1);
	(void)kill_at(w, repo, CVB_STAGE_READING);
	ASSERT_EQ(w.reload_module(), 0);
	change(w, 3, 3, 0xC2);
	BackupRun next(w);
	ASSERT_EQ(next.run(repo), 0) << next.err.msg;
	EXPECT_EQ(next.res.incremental, 0);
	EXPECT_STREQ(next.res.why_full, "the partition is not tracked (module "
					"reloaded, or tracking stopped)");
	(void)w.new_log_lines();
	expect_restores(repo, 2, want(w, next), d);
}

}  // namespace
