// The backup program's chain logic against a model of the driver's
// protocol (an in-process transport): a chain of incrementals reads only
// the changed blocks and restores every snapshot; every way the driver
// stops vouching for a change map (another program's snapshot, lost or
// stopped tracking, a module reload, a resize, a map that is not handed
// over) makes the next backup full, saying why; an incremental stopped
// after its snapshot makes the next one full; damage in a chain makes the
// backups built on it unrestorable and leaves the others restorable.
//
// The model answers the commands as the driver documents them (session
// key per snapshot, hand-over of the change map only for an in-sync
// session whose key matches, state 4 after a snapshot and 6 after a map
// load, READ_BLOCKS from the frozen image); the same program runs against
// the emulated driver in test_program_backup.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "support.hpp"
#include "test_program_util.hpp"

namespace {

using program_test::ScratchDir;
using program_test::expect_restores;

class ModelDriver {
public:
	ModelDriver(unsigned bs, std::uint32_t blocks) : bs_(bs)
	{
		resize(blocks);
	}

	const cv_transport *transport() { return &tp_; }

	// A write by the system between or during backups.
	void write(std::uint32_t block, std::uint8_t fill)
	{
		std::fill_n(disk_.begin() + std::size_t(block) * bs_, bs_, fill);
		if (session_ && session_->state == 1)
			session_->map[block] = true;
	}
	void resize(std::uint32_t blocks)
	{
		disk_.resize(std::size_t(blocks) * bs_);
		blocks_ = blocks;
	}
	void lose_tracking() { if (session_) session_->state = 0; }
	void unload() { session_.reset(); }
	// The next SNAPSHOT finds the session out of sync (as if a write
	// beyond the map happened right before it).
	void lose_tracking_at_next_snapshot() { lose_next_ = true; }
	// Another program's backup: snapshot without our key.
	void foreign_snapshot()
	{
		Session s;
		s.state = 1;
		s.map.assign(blocks_, false);
		new_key(s);
		session_ = s;
	}
	std::vector<std::byte> image() const
	{
		std::vector<std::byte> v(disk_.size());
		std::memcpy(v.data(), disk_.data(), disk_.size());
		return v;
	}
	unsigned reads() const { return reads_; }
	std::uint64_t bytes() const { return disk_.size(); }

private:
	struct Session {
		std::uint32_t state = 0;
		std::vector<bool> map;
		unsigned char key[56];
	};
	struct File {
		std::uint32_t state = 0, total = 0;
		bool no_load = false;
		std::vector<bool> handed;  // the handed-over map
		bool has_map = false;
		std::vector<std::uint8_t> frozen;
	};

	void new_key(Session &s)
	{
		for (auto &k : s.key)
			k = static_cast<unsigned char>(rng_());
	}

	// --- user memory ----------------------------------------------------
	std::uint8_t *at(cv_uaddr a, std::uint32_t len)
	{
		auto it = mem_.upper_bound(a);
		if (it == mem_.begin())
			return nullptr;
		--it;
		if (a - it->first + std::uint64_t(len) > it->second.size())
			return nullptr;
		return it->second.data() + (a - it->first);
	}
	template <class T> bool get(cv_uaddr a, T &v)
	{
		auto *p = at(a, sizeof(T));
		if (p)
			std::memcpy(&v, p, sizeof(T));
		return p != nullptr;
	}
	template <class T> bool put(cv_uaddr a, const T &v, std::uint32_t len)
	{
		len = std::min<std::uint32_t>(len, sizeof(T));
		auto *p = at(a, len);
		if (p)
			std::memcpy(p, &v, len);
		return p != nullptr;
	}
	cv_uaddr alloc(std::uint32_t len)
	{
		const cv_uaddr a = next_;
		mem_[a].assign(len ? len : 1, 0);
		next_ += (len + 8191) & ~4095u;
		return a;
	}

	long ioctl(int fd, std::uint32_t code, cv_uaddr arg)
	{
		File &f = files_[fd];
		switch (code) {
		case KIV_IOC_GET_BLOCK_SIZE: {
			GetBlockSize g;
			if (!get(arg, g))
				return KIV_ERR_COPY_IN;
			BlockSize b{g.major, g.minor, static_cast<kiv_s32>(bs_),
				    static_cast<kiv_u32>(std::uint64_t(blocks_) *
							 bs_ / 1024)};
			if (g.major != 8 || g.minor != 1)
				return KIV_ERR_NO_FS;
			return put(g.bs, b, g.len) ? 0 : KIV_ERR_COPY_OUT;
		}
		case KIV_IOC_START_BACKUP: {
			StartBackup s;
			if (!get(arg, s))
				return KIV_ERR_COPY_IN;
			if (busy_)
				return KIV_ERR_BUSY;
			busy_ = true;
			f.total = s.totalBlocks;
			f.state = BU_STATE_STARTED;
			return 0;
		}
		case KIV_IOC_NO_LOAD_FROM_AUTOMAP:
			f.no_load = true;
			return 0;
		case KIV_IOC_SNAPSHOT: {
			SnapShot s;
			unsigned char key[56] = {};
			if (!get(arg, s))
				return KIV_ERR_COPY_IN;
			if (f.state != BU_STATE_STARTED)
				return KIV_ERR_INVALID;
			auto *k = at(s.amsKey, std::min(s.len, 56u));
			if (k == nullptr && s.len)
				return KIV_ERR_COPY_IN;
			if (s.len)
				std::memcpy(key, k, std::min(s.len, 56u));
			if (lose_next_ && session_)
				session_->state = 0;
			lose_next_ = false;
			bool handover = false;
			if (session_ && session_->state == 1 && !f.no_load) {
				if (std::memcmp(key, session_->key, 56) != 0)
					return 0;  // stays in state 2
				handover = session_->map.size() == f.total;
			}
			if (handover) {
				f.handed = session_->map;
				f.has_map = true;
				session_->map.assign(f.total, false);
			} else {
				Session s2;
				s2.map.assign(f.total, false);
				session_ = s2;
			}
			session_->state = 1;
			new_key(*session_);
			f.frozen = disk_;
			f.state = BU_STATE_SNAPSHOT;
			return 0;
		}
		case KIV_IOC_GET_STATE: {
			GetState g;
			if (!get(arg, g))
				return KIV_ERR_COPY_IN;
			State st{8, 1, f.state, static_cast<kiv_s32>(bs_),
				 static_cast<kiv_s32>(bs_ * 16)};
			return put(g.s, st, g.len) ? 0 : KIV_ERR_COPY_OUT;
		}
		case KIV_IOC_GET_AUTOMAP_STATE: {
			GetAutoMapState g;
			if (!get(arg, g))
				return KIV_ERR_COPY_IN;
			AutoMapState a{};
			if (session_ && f.state) {
				a.major = 8;
				a.minor = 1;
				a.state = session_->state;
				a.mapLen = static_cast<kiv_u32>(
					session_->map.size());
				a.mapSize = (a.mapLen + 7) / 8;
				std::memcpy(a.amsKey.key, session_->key, 56);
			}
			return put(g.ams, a, g.len) ? 0 : KIV_ERR_COPY_OUT;
		}
		case KIV_IOC_GET_AUTOMAP:
		case KIV_IOC_LOAD_BLOCK_MAP: {
			LoadBlockMap l;
			UserBlockMap u;
			if (!get(arg, l) || !get(l.bm, u))
				return KIV_ERR_COPY_IN;
			if (f.state != BU_STATE_SNAPSHOT)
				return KIV_ERR_INVALID;
			auto *p = at(u.map, (u.mapLen + 7) / 8);
			if (p == nullptr)
				return KIV_ERR_COPY_IN;
			if (code == KIV_IOC_LOAD_BLOCK_MAP) {
				f.state = BU_STATE_MAP_LOADED;
				return 0;
			}
			if (!f.has_map || f.handed.size() != u.mapLen)
				return KIV_ERR_INVALID;
			std::memset(p, 0, (u.mapLen + 7) / 8);
			for (std::uint32_t i = 0; i < u.mapLen; i++)
				if (f.handed[i])
					p[i / 8] |= 1u << (i % 8);
			f.has_map = false;
			return 0;
		}
		case KIV_IOC_READ_BLOCKS: {
			ReadBlocks r;
			if (!get(arg, r))
				return KIV_ERR_COPY_IN;
			if (f.state != 4 && f.state != 6)
				return KIV_ERR_INVALID;
			auto *p = at(r.data, r.numBlocks * bs_);
			if (p == nullptr || r.startBlockNum + std::uint64_t(
				    r.numBlocks) > f.total)
				return KIV_ERR_INVALID;
			std::memcpy(p, f.frozen.data() +
				    std::size_t(r.startBlockNum) * bs_,
				    std::size_t(r.numBlocks) * bs_);
			reads_ += r.numBlocks;
			return 0;
		}
		default:
			return KIV_ERR_UNKNOWN;
		}
	}

	static ModelDriver &self(void *ctx)
	{
		return *static_cast<ModelDriver *>(ctx);
	}
	static int op_open(void *ctx, const char *) { return self(ctx).fd_++; }
	static int op_close(void *ctx, int fd)
	{
		auto &m = self(ctx);
		if (m.files_[fd].state != 0)
			m.busy_ = false;
		m.files_.erase(fd);
		return 0;
	}
	static long op_ioctl(void *ctx, int fd, std::uint32_t code,
			     cv_uaddr arg)
	{
		return self(ctx).ioctl(fd, code, arg);
	}
	static std::int64_t op_mmap(void *ctx, int, std::uint32_t len, int,
				    int, std::uint32_t)
	{
		return self(ctx).alloc(len);
	}
	static int op_free(void *ctx, cv_uaddr a, std::uint32_t)
	{
		self(ctx).mem_.erase(a);
		return 0;
	}
	static int op_alloc(void *ctx, std::uint32_t len, cv_uaddr *a)
	{
		*a = self(ctx).alloc(len);
		return 0;
	}
	static int op_read(void *ctx, cv_uaddr a, void *dst, std::uint32_t len)
	{
		auto *p = self(ctx).at(a, len);
		if (p == nullptr)
			return CV_E_FAULT;
		std::memcpy(dst, p, len);
		return 0;
	}
	static int op_write(void *ctx, cv_uaddr a, const void *src,
			    std::uint32_t len)
	{
		auto *p = self(ctx).at(a, len);
		if (p == nullptr)
			return CV_E_FAULT;
		std::memcpy(p, src, len);
		return 0;
	}

	static constexpr cv_transport_ops ops_ = {
		op_open, op_close, op_ioctl, op_mmap, op_free,
		op_alloc, op_free, op_read, op_write};

	unsigned bs_;
	std::uint32_t blocks_ = 0;
	std::vector<std::uint8_t> disk_;
	std::optional<Session> session_;
	std::map<int, File> files_;
	std::map<cv_uaddr, std::vector<std::uint8_t>> mem_;
	cv_uaddr next_ = 0x100000;
	int fd_ = 3;
	bool busy_ = false, lose_next_ = false;
	unsigned reads_ = 0;
	std::mt19937_64 rng_{42};
	cv_transport tp_{&ops_, this, "model"};
};

struct Outcome {
	cvb_backup_result res{};
	cvb_err err{};
	int rc = 0;
};

Outcome backup(ModelDriver &m, const std::string &repo, int stop_at = 0)
{
	struct Hook {
		int stop_at;
		static int fn(void *ctx, int stage)
		{
			return stage == static_cast<Hook *>(ctx)->stop_at ? 2 : 0;
		}
	} hook{stop_at};
	cvb_backup_opts o{};
	o.tp = m.transport();
	o.major = 8;
	o.minor = 1;
	o.device_bytes = m.bytes();
	o.used_blocks = 0;
	o.stage_hook = Hook::fn;
	o.hook_ctx = &hook;
	Outcome r;
	r.rc = cvb_backup(repo.c_str(), &o, &r.res, &r.err);
	return r;
}

TEST(Chain, IncrementalsReadOnlyChangedBlocksAndRestoreEverySnapshot)
{
	ScratchDir d;
	const std::string repo = d / "r";
	ModelDriver m(1024, 700);
	std::mt19937 rng(3);
	for (std::uint32_t b = 0; b < 700; b++)
		m.write(b, static_cast<std::uint8_t>(rng()));
	std::vector<std::vector<std::byte>> want;
	std::vector<bool> changed(700, false);
	for (unsigned i = 1; i <= 5; i++) {
		for (int k = 0; k < 40; k++) {
			const std::uint32_t b = rng() % 700;
			m.write(b, static_cast<std::uint8_t>(rng()));
			changed[b] = true;
		}
		want.push_back(m.image());
		const unsigned before = m.reads();
		Outcome r = backup(m, repo);
		ASSERT_EQ(r.rc, 0) << r.err.msg;
		EXPECT_EQ(r.res.number, i);
		EXPECT_EQ(r.res.incremental, i > 1 ? 1 : 0);
		std::uint32_t n = 0;
		for (bool c : changed)
			n += c;
		EXPECT_EQ(r.res.blocks_read, i > 1 ? n : 700u);
		EXPECT_EQ(m.reads() - before, r.res.blocks_read);
		// Writes after the snapshot belong to the next backup.
		changed.assign(700, false);
		const std::uint32_t late = rng() % 700;
		m.write(late, 0xEE);
		changed[late] = true;
	}
	for (unsigned i = 1; i <= 5; i++)
		expect_restores(repo, i, want[i - 1], d);
	cvb_repo r{};
	cvb_err e{};
	ASSERT_EQ(cvb_repo_load(repo.c_str(), 0, &r, &e), 0);
	std::uint32_t chain[8], len = 0;
	ASSERT_EQ(cvb_chain(&r, 5, chain, &len, &e), 0);
	EXPECT_EQ(len, 5u);
	EXPECT_EQ(chain[0], 1u);
	EXPECT_EQ(r.entries[4].parent, 4u);
	cvb_repo_free(&r);
}

struct Break {
	const char *name;
	void (*event)(ModelDriver &);
	const char *why;
};

void PrintTo(const Break &b, std::ostream *os)
{
	*os << b.name;
}

class ChainBreak : public ::testing::TestWithParam<Break> {};

TEST_P(ChainBreak, NextBackupIsFullSaysWhyAndTheChainGoesOn)
{
	const Break &b = GetParam();
	ScratchDir d;
	const std::string repo = d / "r";
	ModelDriver m(4096, 300);
	m.write(1, 1);
	ASSERT_EQ(backup(m, repo).rc, 0);
	m.write(2, 2);
	ASSERT_EQ(backup(m, repo).res.incremental, 1);
	m.write(3, 3);
	b.event(m);
	const auto want = m.image();
	Outcome r = backup(m, repo);
	ASSERT_EQ(r.rc, 0) << r.err.msg;
	EXPECT_EQ(r.res.incremental, 0);
	EXPECT_EQ(r.res.blocks_read, 300u);
	EXPECT_STREQ(r.res.why_full, b.why);
	m.write(4, 4);
	const auto want4 = m.image();
	Outcome again = backup(m, repo);
	ASSERT_EQ(again.rc, 0) << again.err.msg;
	EXPECT_EQ(again.res.incremental, 1);
	EXPECT_EQ(again.res.blocks_read, 1u);
	expect_restores(repo, 3, want, d);
	expect_restores(repo, 4, want4, d);
}

INSTANTIATE_TEST_SUITE_P(
	Events, ChainBreak,
	::testing::Values(
		Break{"AnotherProgramsSnapshot",
		      [](ModelDriver &m) { m.foreign_snapshot(); },
		      "key mismatch (the partition's last backup is not "
		      "this repository's last one)"},
		Break{"TrackingLost", [](ModelDriver &m) { m.lose_tracking(); },
		      "tracking lost (session state 0)"},
		Break{"ModuleReloaded", [](ModelDriver &m) { m.unload(); },
		      "the partition is not tracked (module reloaded, or "
		      "tracking stopped)"},
		Break{"TrackingLostAtTheSnapshot",
		      [](ModelDriver &m) {
			      m.lose_tracking_at_next_snapshot();
		      },
		      "the driver handed over no change map"}),
	[](const auto &info) { return std::string(info.param.name); });

TEST(Chain, ASizeChangeMakesAFullBackup)
{
	ScratchDir d;
	const std::string repo = d / "r";
	ModelDriver m(4096, 300);
	ASSERT_EQ(backup(m, repo).rc, 0);
	m.resize(320);
	Outcome r = backup(m, repo);
	ASSERT_EQ(r.rc, 0) << r.err.msg;
	EXPECT_EQ(r.res.incremental, 0);
	EXPECT_STREQ(r.res.why_full, "size changed (300 blocks of 4096 bytes, "
				     "now 320 of 4096)");
	expect_restores(repo, 2, m.image(), d);
}

// Stopped after its snapshot, an incremental has used up the key the
// repository holds and taken the change map: its record has both, and
// the next run continues it, reading the blocks changed before the
// stopped snapshot and after it.  Stopped between the snapshot and that
// record, the next run is full and says so.
TEST(Chain, AnIncrementalStoppedAfterItsSnapshotIsContinuedByTheNextBackup)
{
	ScratchDir d;
	const std::string repo = d / "r";
	ModelDriver m(4096, 200);
	ASSERT_EQ(backup(m, repo).rc, 0);
	m.write(5, 5);
	Outcome stopped = backup(m, repo, CVB_STAGE_READING);
	EXPECT_EQ(stopped.rc, CVB_E_INTERRUPTED);
	EXPECT_STREQ(stopped.err.msg, "backup interrupted while reading; the "
				      "repository is unchanged (the next "
				      "backup continues this one)");
	m.write(6, 6);
	Outcome r = backup(m, repo);
	ASSERT_EQ(r.rc, 0) << r.err.msg;
	EXPECT_EQ(r.res.number, 2u);
	EXPECT_EQ(r.res.incremental, 1) << r.res.why_full;
	EXPECT_EQ(r.res.continued, 1);
	EXPECT_EQ(r.res.continued_blocks, 1u);
	EXPECT_EQ(r.res.blocks_read, 2u);
	expect_restores(repo, 2, m.image(), d);

	m.write(7, 7);
	Outcome window = backup(m, repo, CVB_STAGE_SNAPSHOT);
	EXPECT_EQ(window.rc, CVB_E_INTERRUPTED);
	EXPECT_STREQ(window.err.msg, "backup interrupted after SNAPSHOT; the "
				     "repository is unchanged (its change map "
				     "was not secured: the next backup is "
				     "full)");
	Outcome full = backup(m, repo);
	ASSERT_EQ(full.rc, 0) << full.err.msg;
	EXPECT_EQ(full.res.incremental, 0);
	EXPECT_STREQ(full.res.why_full, "the previous backup was interrupted "
					"between its snapshot and securing "
					"the change map");
	expect_restores(repo, 3, m.image(), d);
}

// SIGINT and SIGTERM set the stop flag: the backup ends at the next run,
// removes its temporary file and leaves the repository's backups as they
// were; only the record says that a full backup stopped after its
// snapshot.
TEST(Chain, AStopRequestEndsTheBackupAndLeavesOnlyItsRecord)
{
	ScratchDir d;
	const std::string repo = d / "r";
	ModelDriver m(1024, 2000);
	ASSERT_EQ(backup(m, repo).rc, 0);
	volatile int stop = 0;
	struct Ctx {
		volatile int *stop;
		static void progress(void *ctx, std::uint64_t, std::uint64_t)
		{
			*static_cast<Ctx *>(ctx)->stop = 1;
		}
	} ctx{&stop};
	cvb_backup_opts o{};
	o.tp = m.transport();
	o.major = 8;
	o.minor = 1;
	o.device_bytes = m.bytes();
	o.force_full = 1;
	o.stop = &stop;
	o.progress = Ctx::progress;
	o.progress_ctx = &ctx;
	cvb_backup_result res{};
	cvb_err e{};
	EXPECT_EQ(cvb_backup(repo.c_str(), &o, &res, &e), CVB_E_INTERRUPTED);
	EXPECT_STREQ(e.msg, "backup interrupted while reading; the "
			    "repository is unchanged");
	std::vector<std::string> names;
	for (const auto &f : std::filesystem::directory_iterator(repo))
		names.push_back(f.path().filename().string());
	std::sort(names.begin(), names.end());
	EXPECT_EQ(names, (std::vector<std::string>{"backup-000001.img",
						   "index", "pending"}));
	Outcome next = backup(m, repo);
	ASSERT_EQ(next.rc, 0) << next.err.msg;
	EXPECT_EQ(next.res.incremental, 0);
	EXPECT_STREQ(next.res.why_full, "the previous backup, a full one, was "
					"interrupted after its snapshot");
	names.clear();
	for (const auto &f : std::filesystem::directory_iterator(repo))
		names.push_back(f.path().filename().string());
	std::sort(names.begin(), names.end());
	EXPECT_EQ(names, (std::vector<std::string>{"backup-000001.img",
						   "backup-000002.img",
						   "index"}));
}

TEST(Chain, DamageInAChainMakesOnlyTheBackupsBuiltOnItUnrestorable)
{
	ScratchDir d;
	const std::string repo = d / "r";
	ModelDriver m(1024, 100);
	std::vector<std::vector<std::byte>> want;
	for (int i = 1; i <= 4; i++) {
		m.write(i, static_cast<std::uint8_t>(i));
		want.push_back(m.image());
		ASSERT_EQ(backup(m, repo).rc, 0);
	}
	// Damage the data of backup 2 (an incremental storing block 2).
	auto img = program_test::read_file(d / "r/backup-000002.img");
	img[256 + 13] ^= std::byte{0x40};
	program_test::write_file(d / "r/backup-000002.img", img);

	cvb_repo r{};
	cvb_err e{};
	ASSERT_EQ(cvb_repo_load(repo.c_str(), 0, &r, &e), 0);
	cvb_verify_item *v = nullptr;
	ASSERT_EQ(cvb_verify(&r, &v, nullptr, nullptr, &e), 0);
	EXPECT_TRUE(v[0].restorable);
	EXPECT_FALSE(v[1].restorable);
	EXPECT_FALSE(v[2].restorable);
	EXPECT_STREQ(v[2].problem, "backup 2 of its chain is not restorable");
	EXPECT_FALSE(v[3].restorable);
	std::free(v);
	cvb_repo_free(&r);
	expect_restores(repo, 1, want[0], d);
	cvb_restore_result rr{};
	EXPECT_EQ(program_test::restore_to(repo, 4, d / "x", &rr, &e),
		  CVB_E_CORRUPT);
}

}  // namespace
