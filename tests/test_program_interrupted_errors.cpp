// Interrupted backups that meet failures: out of memory and repository
// errors writing and reading the record of an interrupted backup, which
// fail with exact messages and leave nothing behind; the command line's
// account of what a backup continues; repositories without records.
#include <sys/resource.h>

#include <csignal>

#include "test_interrupted_util.hpp"

namespace {

using namespace interrupted_test;

// --- failures writing and reading the record -------------------------------

// Makes the engine's allocations fail from `nth` on (one of them) for as
// long as it lives.
class FailAllocation {
public:
	explicit FailAllocation(unsigned long nth) { cvb_alloc_fail(nth, 0); }
	~FailAllocation() { cvb_alloc_fail(0, 0); }
	FailAllocation(const FailAllocation &) = delete;
	FailAllocation &operator=(const FailAllocation &) = delete;
};

bool reached(const BackupRun &b, int stage)
{
	return std::find(b.stages.begin(), b.stages.end(), stage) !=
	       b.stages.end();
}

// Every allocation between START_BACKUP and the INTENT record, failed in
// turn: the backup fails with "out of memory" before its snapshot, the
// record it found is untouched, and the next backup continues it.
TEST(InterruptedBackup, OutOfMemoryRecordingTheIntentFailsBeforeTheSnapshot)
{
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(config());
	ASSERT_EQ(w.error(), "");
	BackupRun first(w);
	ASSERT_EQ(first.run(repo), 0) << first.err.msg;
	change(w, 0, 3, 0xD1);
	(void)kill_at(w, repo, CVB_STAGE_READING);
	const auto record = read_file(repo + "/pending");
	unsigned failures = 0;
	for (unsigned long n = 1;; n++) {
		SCOPED_TRACE("allocation " + std::to_string(n));
		std::unique_ptr<FailAllocation> fail;
		BackupRun b(w);
		b.at_stage = [&](int stage) {
			if (stage == CVB_STAGE_STARTED)
				fail = std::make_unique<FailAllocation>(n);
			else
				fail.reset();
		};
		b.stop_at = CVB_STAGE_INTENT;
		b.how = 2;
		const int rc = b.run(repo);
		fail.reset();
		if (reached(b, CVB_STAGE_INTENT)) {
			EXPECT_EQ(rc, CVB_E_INTERRUPTED);
			break;
		}
		failures++;
		EXPECT_EQ(rc, CVB_E_IO);
		EXPECT_STREQ(b.err.msg, "out of memory");
		EXPECT_TRUE(read_file(repo + "/pending") == record);
		EXPECT_EQ(names(repo), images(1, true));
		ASSERT_LT(n, 20u);
	}
	EXPECT_GE(failures, 1u);
	change(w, 3, 3, 0xD2);
	BackupRun next(w);
	ASSERT_EQ(next.run(repo), 0) << next.err.msg;
	EXPECT_EQ(next.res.incremental, 1) << next.res.why_full;
	EXPECT_EQ(next.res.continued_blocks, 3u);
	EXPECT_EQ(next.res.blocks_read, 6u);
	(void)w.new_log_lines();
	expect_restores(repo, 2, want(w, next), d);
}

// Every allocation between the SNAPSHOT and the SECURED record, failed in
// turn: the backup fails with "out of memory" and leaves the INTENT
// record, so the next backup is full and says why; nothing leaks.
TEST(InterruptedBackup, OutOfMemorySecuringTheMapFailsCleanly)
{
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(config());
	ASSERT_EQ(w.error(), "");
	BackupRun first(w);
	ASSERT_EQ(first.run(repo), 0) << first.err.msg;
	unsigned failures = 0, count = 1;
	for (unsigned long n = 1;; n++) {
		SCOPED_TRACE("allocation " + std::to_string(n));
		change(w, 0, 3, static_cast<std::uint8_t>(n));
		(void)kill_at(w, repo, CVB_STAGE_READING);
		std::unique_ptr<FailAllocation> fail;
		BackupRun b(w);
		b.at_stage = [&](int stage) {
			if (stage == CVB_STAGE_SNAPSHOT)
				fail = std::make_unique<FailAllocation>(n);
			else
				fail.reset();
		};
		b.stop_at = CVB_STAGE_SECURED;
		b.how = 2;
		const int rc = b.run(repo);
		fail.reset();
		if (reached(b, CVB_STAGE_SECURED)) {
			EXPECT_EQ(rc, CVB_E_INTERRUPTED);
			break;
		}
		failures++;
		EXPECT_EQ(rc, CVB_E_IO);
		EXPECT_STREQ(b.err.msg, "out of memory");
		const Record rec = load_record(repo);
		ASSERT_TRUE(rec.found);
		EXPECT_EQ(rec.p.state, CVB_PENDING_INTENT);
		EXPECT_EQ(names(repo), images(count, true));
		BackupRun full(w);
		ASSERT_EQ(full.run(repo), 0) << full.err.msg;
		EXPECT_EQ(full.res.incremental, 0);
		EXPECT_STREQ(full.res.why_full, kWindow);
		expect_restores(repo, ++count, want(w, full), d);
		ASSERT_LT(n, 20u);
	}
	EXPECT_GE(failures, 2u);
	BackupRun next(w);
	ASSERT_EQ(next.run(repo), 0) << next.err.msg;
	EXPECT_EQ(next.res.incremental, 1) << next.res.why_full;
	EXPECT_EQ(next.res.continued, 1);
	(void)w.new_log_lines();
	expect_restores(repo, count + 1, want(w, next), d);
}

// Every allocation before START_BACKUP, failed in turn: where the record
// cannot be read the backup fails before the driver is touched (losing
// the record would cost a full backup), and the record is kept.
TEST(InterruptedBackup, OutOfMemoryReadingTheRecordFailsBeforeTheDriverIsTouched)
{
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(config());
	ASSERT_EQ(w.error(), "");
	BackupRun first(w);
	ASSERT_EQ(first.run(repo), 0) << first.err.msg;
	change(w, 0, 3, 0xE1);
	(void)kill_at(w, repo, CVB_STAGE_READING);
	const auto record = read_file(repo + "/pending");
	unsigned failures = 0;
	for (unsigned long n = 1;; n++) {
		SCOPED_TRACE("allocation " + std::to_string(n));
		auto fail = std::make_unique<FailAllocation>(n);
		const unsigned long before = cvb_alloc_calls();
		unsigned long at_start = 0;
		BackupRun b(w);
		b.at_stage = [&](int stage) {
			if (stage == CVB_STAGE_STARTED) {
				at_start = cvb_alloc_calls();
				fail.reset();
			}
		};
		b.stop_at = CVB_STAGE_STARTED;
		b.how = 2;
		const int rc = b.run(repo);
		fail.reset();
		if (reached(b, CVB_STAGE_STARTED)) {
			EXPECT_EQ(rc, CVB_E_INTERRUPTED);
			if (at_start < before + n)
				break;	/* no allocation failed */
			continue;
		}
		failures++;
		EXPECT_EQ(rc, CVB_E_IO);
		EXPECT_STREQ(b.err.msg, "out of memory");
		EXPECT_TRUE(read_file(repo + "/pending") == record);
		ASSERT_LT(n, 30u);
	}
	EXPECT_GE(failures, 1u);
	change(w, 3, 3, 0xE2);
	BackupRun next(w);
	ASSERT_EQ(next.run(repo), 0) << next.err.msg;
	EXPECT_EQ(next.res.incremental, 1) << next.res.why_full;
	EXPECT_EQ(next.res.continued_blocks, 3u);
	(void)w.new_log_lines();
	expect_restores(repo, 2, want(w, next), d);
}

// The repository refusing the record: "pending.tmp" in the way (a
// directory), "pending" unreadable (a directory), and a repository disk
// that takes no more bytes (RLIMIT_FSIZE).  Before the snapshot nothing
// is lost; after it the INTENT record stays and the next backup is full.
TEST(InterruptedBackup, RepositoryErrorsOnTheRecordFailWithExactMessages)
{
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(config());
	ASSERT_EQ(w.error(), "");
	BackupRun first(w);
	ASSERT_EQ(first.run(repo), 0) << first.err.msg;
	change(w, 0, 3, 0xF1);
	(void)kill_at(w, repo, CVB_STAGE_READING);
	const auto record = read_file(repo + "/pending");

	// The INTENT record cannot be written.
	std::filesystem::create_directory(repo + "/pending.tmp");
	BackupRun intent(w);
	ASSERT_EQ(intent.run(repo), CVB_E_IO);
	EXPECT_EQ(std::string(intent.err.msg),
		  repo + "/pending.tmp: Is a directory");
	EXPECT_TRUE(read_file(repo + "/pending") == record);
	std::filesystem::remove(repo + "/pending.tmp");

	// The record cannot be read.
	std::filesystem::rename(repo + "/pending", d / "saved");
	std::filesystem::create_directory(repo + "/pending");
	BackupRun load(w);
	ASSERT_EQ(load.run(repo), CVB_E_IO);
	EXPECT_EQ(std::string(load.err.msg), repo + "/pending: Is a directory");
	EXPECT_TRUE(load.stages.empty());
	std::filesystem::remove(repo + "/pending");
	std::filesystem::rename(d / "saved", repo + "/pending");

	// The repository's disk takes no more bytes, before the snapshot.
	struct rlimit old {};
	ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
	const auto previous = std::signal(SIGXFSZ, SIG_IGN);
	auto limit = [&](bool on) {
		struct rlimit l = old;
		if (on)
			l.rlim_cur = 64;
		ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &l), 0);
	};
	BackupRun full_disk(w);
	full_disk.at_stage = [&](int stage) {
		limit(stage == CVB_STAGE_STARTED);
	};
	ASSERT_EQ(full_disk.run(repo), CVB_E_IO);
	limit(false);
	EXPECT_EQ(std::string(full_disk.err.msg),
		  repo + "/pending: File too large");
	EXPECT_TRUE(read_file(repo + "/pending") == record);
	EXPECT_EQ(names(repo), images(1, true));

	// None of these touched the session: the record is continued.
	change(w, 3, 3, 0xF2);
	BackupRun cont(w);
	ASSERT_EQ(cont.run(repo), 0) << cont.err.msg;
	EXPECT_EQ(cont.res.incremental, 1) << cont.res.why_full;
	EXPECT_EQ(cont.res.continued_blocks, 3u);
	expect_restores(repo, 2, want(w, cont), d);

	// After the snapshot: the SECURED record cannot be written.
	for (int full_disk_after : {0, 1}) {
		SCOPED_TRACE(full_disk_after ? "disk full" : "in the way");
		change(w, 6, 3, static_cast<std::uint8_t>(0xF3 +
							  full_disk_after));
		BackupRun secure(w);
		secure.at_stage = [&](int stage) {
			if (full_disk_after)
				limit(stage == CVB_STAGE_SNAPSHOT);
			else if (stage == CVB_STAGE_SNAPSHOT)
				std::filesystem::create_directory(
					repo + "/pending.tmp");
		};
		ASSERT_EQ(secure.run(repo), CVB_E_IO);
		limit(false);
		EXPECT_EQ(std::string(secure.err.msg),
			  full_disk_after ? repo + "/pending: File too large"
					  : repo + "/pending.tmp: Is a "
						   "directory");
		std::filesystem::remove(repo + "/pending.tmp");
		const Record rec = load_record(repo);
		ASSERT_TRUE(rec.found);
		EXPECT_EQ(rec.p.state, CVB_PENDING_INTENT);
		EXPECT_EQ(names(repo), images(2 + full_disk_after, true));
		BackupRun full(w);
		ASSERT_EQ(full.run(repo), 0) << full.err.msg;
		EXPECT_EQ(full.res.incremental, 0);
		EXPECT_STREQ(full.res.why_full, kWindow);
		expect_restores(repo, full.res.number, want(w, full), d);
	}
	std::signal(SIGXFSZ, previous);
	(void)w.new_log_lines();
}

// --- the command line and older repositories -------------------------------

TEST(InterruptedBackupCli, SaysWhatItContinuesAndWhyNot)
{
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(config());
	ASSERT_EQ(w.error(), "");
	Cli c(w);
	ASSERT_EQ(c.run({"backup", "/dev/sda1", repo}), 0) << c.err;
	change(w, 0, 3, 0x11);
	(void)kill_at(w, repo, CVB_STAGE_READING);
	ASSERT_EQ(c.run({"list", repo}), 0) << c.err;
	EXPECT_NE(c.out.find("\ninterrupted backup: it continues backup 1 "
			     "with 3 changed blocks secured; the next backup "
			     "continues it\n"),
		  std::string::npos)
		<< c.out;
	ASSERT_EQ(c.run({"list", repo, "--json"}), 0) << c.err;
	EXPECT_NE(c.out.find("],\"interrupted\":{\"state\":\"secured\","
			     "\"kind\":\"incremental\",\"continues\":1,"
			     "\"blocks\":3}}\n"),
		  std::string::npos)
		<< c.out;
	ASSERT_EQ(c.run({"verify", repo}), 0) << c.err;
	EXPECT_EQ(c.out.find("(ignored): pending"), std::string::npos)
		<< c.out;
	change(w, 3, 3, 0x12);
	ASSERT_EQ(c.run({"backup", "/dev/sda1", repo}), 0) << c.err;
	EXPECT_NE(c.out.find("continuing an interrupted backup: 3 blocks "
			     "from it\nbackup 2 (incremental) of /dev/sda1: 6 "
			     "of 2048 blocks read"),
		  std::string::npos)
		<< c.out;
	ASSERT_EQ(c.run({"list", repo, "--json"}), 0) << c.err;
	EXPECT_NE(c.out.find("],\"interrupted\":null}\n"), std::string::npos)
		<< c.out;

	change(w, 6, 3, 0x13);
	(void)kill_at(w, repo, CVB_STAGE_READING);
	change(w, 9, 3, 0x14);
	ASSERT_EQ(c.run({"backup", "/dev/sda1", repo, "--json"}), 0) << c.err;
	EXPECT_NE(c.out.find("\"backup\":3,\"kind\":\"incremental\","
			     "\"why_full\":\"\",\"continued\":true,"
			     "\"continued_blocks\":3,\"pending_note\":\"\","),
		  std::string::npos)
		<< c.out;

	// The window: one line says why the backup is full.
	(void)kill_at(w, repo, CVB_STAGE_SNAPSHOT);
	ASSERT_EQ(c.run({"list", repo}), 0) << c.err;
	EXPECT_NE(c.out.find("\ninterrupted backup: an incremental one, "
			     "stopped around its snapshot before its change "
			     "map was secured\n"),
		  std::string::npos)
		<< c.out;
	ASSERT_EQ(c.run({"backup", "/dev/sda1", repo}), 0) << c.err;
	EXPECT_EQ(c.out.find("full backup: " + std::string(kWindow) +
			     "\nbackup 4 (full) of /dev/sda1:"),
		  0u)
		<< c.out;

	// A record set aside: a note.
	change(w, 0, 3, 0x15);
	(void)kill_at(w, repo, CVB_STAGE_INTENT);
	edit_bytes(repo, [](std::vector<std::byte> &raw) {
		raw[64] ^= std::byte{1};
	});
	ASSERT_EQ(c.run({"list", repo}), 0) << c.err;
	EXPECT_NE(c.out.find("\ninterrupted backup: its record is damaged "
			     "(its checksum does not match); the next backup "
			     "does not use it\n"),
		  std::string::npos)
		<< c.out;
	ASSERT_EQ(c.run({"backup", "/dev/sda1", repo}), 0) << c.err;
	EXPECT_EQ(c.out.find("note: " NOT_USED "its checksum does not match\n"
			     "backup 5 (incremental)"),
		  0u)
		<< c.out;
	(void)w.new_log_lines();
}

// A repository as earlier versions wrote it (index and images, no
// record) reads and backs up as before: format version 1, the earlier
// images byte for byte as they were, nothing left beside them.  And a
// repository holding a record is still what an earlier program reads:
// the index and images are untouched by it.
TEST(InterruptedBackup, RepositoriesWithoutRecordsWorkUnchanged)
{
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(config());
	ASSERT_EQ(w.error(), "");
	BackupRun first(w);
	ASSERT_EQ(first.run(repo), 0) << first.err.msg;
	change(w, 0, 3, 0x21);
	BackupRun second(w);
	ASSERT_EQ(second.run(repo), 0) << second.err.msg;
	EXPECT_EQ(names(repo), images(2));
	const auto img1 = read_file(repo + "/backup-000001.img");
	const auto img2 = read_file(repo + "/backup-000002.img");
	const auto index = read_file(repo + "/index");

	Cli c(w);
	ASSERT_EQ(c.run({"list", repo}), 0) << c.err;
	EXPECT_EQ(c.out.find("interrupted"), std::string::npos) << c.out;
	ASSERT_EQ(c.run({"verify", repo}), 0) << c.err;
	EXPECT_EQ(names(repo), images(2));

	// A killed backup adds its record (and the temporary file of its
	// image, which the next run removes).
	change(w, 3, 3, 0x22);
	(void)kill_at(w, repo, CVB_STAGE_READING);
	EXPECT_EQ(names(repo),
		  (std::vector<std::string>{"backup-000001.img",
					    "backup-000002.img",
					    "backup-000003.img.tmp", "index",
					    "pending"}));
	EXPECT_TRUE(read_file(repo + "/index") == index);
	EXPECT_TRUE(read_file(repo + "/backup-000001.img") == img1);
	EXPECT_TRUE(read_file(repo + "/backup-000002.img") == img2);
	cvb_repo r{};
	cvb_err e{};
	ASSERT_EQ(cvb_repo_load(repo.c_str(), 0, &r, &e), 0) << e.msg;
	EXPECT_EQ(r.count, 2u);
	std::vector<std::string> extra;
	cvb_verify_item *items = nullptr;
	ASSERT_EQ(cvb_verify(&r, &items,
			     [](void *ctx, const char *name) {
				     static_cast<std::vector<std::string> *>(
					     ctx)
					     ->push_back(name);
			     },
			     &extra, &e),
		  0);
	EXPECT_TRUE(items[0].restorable && items[1].restorable);
	EXPECT_EQ(extra, std::vector<std::string>{"backup-000003.img.tmp"});
	std::free(items);
	cvb_repo_free(&r);
	expect_restores(repo, 2, want(w, second), d);

	BackupRun third(w);
	ASSERT_EQ(third.run(repo), 0) << third.err.msg;
	EXPECT_EQ(third.res.incremental, 1) << third.res.why_full;
	EXPECT_EQ(names(repo), images(3));
	EXPECT_TRUE(read_file(repo + "/backup-000001.img") == img1);
	EXPECT_TRUE(read_file(repo + "/backup-000002.img") == img2);
	const auto grown = read_file(repo + "/index");
	ASSERT_EQ(grown.size(), index.size() + CVB_INDEX_ENTRY_SIZE);
	EXPECT_TRUE(std::equal(index.begin() + 32, index.end(),
			       grown.begin() + 32));
	EXPECT_EQ(grown[8], std::byte{CVB_FORMAT_VERSION});
	const auto img3 = read_file(repo + "/backup-000003.img");
	EXPECT_EQ(img3[8], std::byte{CVB_FORMAT_VERSION});
	(void)w.new_log_lines();
	expect_restores(repo, 3, want(w, third), d);
}

}  // namespace
