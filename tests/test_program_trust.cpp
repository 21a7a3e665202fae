// The backup program builds an incremental only from a change map the
// driver's session state vouches for.  Against the emulated driver, with
// its answers rewritten on the way back (the driver itself cannot be made
// to give most of them on demand): a session of another device before
// the snapshot; after it a session out of sync, of another device, of
// another size or under the key it had, or no answer at all; a map that
// marks blocks beyond the partition.  Each makes the backup full, saying
// why; the full backup restores its snapshot byte for byte and the chain
// goes on incrementally.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support.hpp"
#include "test_program_util.hpp"

namespace {

using corvalin::tool::EmuWorld;
using program_test::BackupRun;
using program_test::ScratchDir;
using program_test::change_files;
using program_test::expect_restores;

// A transport passing every call to another one; `after` sees each
// command's code, argument and result once the driver answered, and
// returns the result the program gets (it may rewrite the answer in the
// process's memory first).
class Rewriter {
public:
	explicit Rewriter(const cv_transport *inner) : inner_(inner) {}

	std::function<long(std::uint32_t code, cv_uaddr arg, long r)> after;
	const cv_transport *get() { return &tp_; }

	template <class T> T read(cv_uaddr a)
	{
		T v{};
		EXPECT_EQ(inner_->ops->mem_read(inner_->ctx, a, &v, sizeof(v)),
			  0);
		return v;
	}
	template <class T> void write(cv_uaddr a, const T &v)
	{
		EXPECT_EQ(inner_->ops->mem_write(inner_->ctx, a, &v, sizeof(v)),
			  0);
	}

private:
	static Rewriter &self(void *ctx) { return *static_cast<Rewriter *>(ctx); }
	static const cv_transport &in(void *ctx) { return *self(ctx).inner_; }

	static int op_open(void *ctx, const char *path)
	{
		return in(ctx).ops->open(in(ctx).ctx, path);
	}
	static int op_close(void *ctx, int fd)
	{
		return in(ctx).ops->close(in(ctx).ctx, fd);
	}
	static long op_ioctl(void *ctx, int fd, std::uint32_t code,
			     cv_uaddr arg)
	{
		const long r = in(ctx).ops->ioctl(in(ctx).ctx, fd, code, arg);
		return self(ctx).after ? self(ctx).after(code, arg, r) : r;
	}
	static std::int64_t op_mmap(void *ctx, int fd, std::uint32_t len,
				    int prot, int flags, std::uint32_t pgoff)
	{
		return in(ctx).ops->mmap(in(ctx).ctx, fd, len, prot, flags,
					 pgoff);
	}
	static int op_munmap(void *ctx, cv_uaddr a, std::uint32_t len)
	{
		return in(ctx).ops->munmap(in(ctx).ctx, a, len);
	}
	static int op_alloc(void *ctx, std::uint32_t len, cv_uaddr *a)
	{
		return in(ctx).ops->mem_alloc(in(ctx).ctx, len, a);
	}
	static int op_free(void *ctx, cv_uaddr a, std::uint32_t len)
	{
		return in(ctx).ops->mem_free(in(ctx).ctx, a, len);
	}
	static int op_read(void *ctx, cv_uaddr a, void *dst, std::uint32_t len)
	{
		return in(ctx).ops->mem_read(in(ctx).ctx, a, dst, len);
	}
	static int op_write(void *ctx, cv_uaddr a, const void *src,
			    std::uint32_t len)
	{
		return in(ctx).ops->mem_write(in(ctx).ctx, a, src, len);
	}

	static constexpr cv_transport_ops ops_ = {
		op_open, op_close, op_ioctl, op_mmap, op_munmap,
		op_alloc, op_free, op_read, op_write};

	const cv_transport *inner_;
	cv_transport tp_{&ops_, this, "rewriter"};
};

// 2045 blocks: the change map's last byte has bits beyond the partition.
EmuWorld::Config config()
{
	EmuWorld::Config c;
	c.block_size = 1024;
	c.blocks = 2045;
	c.per_group = 512;
	c.seed = 41;
	return c;
}

// What the driver's answers become in one backup (`snapped`: the
// SNAPSHOT command has succeeded in it).
struct Rewrite {
	const char *name;
	// GET_AUTOMAP_STATE's answer (in place); false: the command fails.
	bool (*state)(AutoMapState &ams, bool snapped,
		      const unsigned char *key_before);
	// GET_AUTOMAP's bitmap of map_len blocks (in place).
	void (*map)(std::vector<unsigned char> &bits, std::uint32_t map_len);
	const char *why;
	// The repository's last backup keeps the session's new key: the
	// next backup can be incremental.
	bool key_kept;
};

void PrintTo(const Rewrite &r, std::ostream *os)
{
	*os << r.name;
}

class DistrustedMap : public ::testing::TestWithParam<Rewrite> {};

TEST_P(DistrustedMap, MakesTheBackupFullAndTheChainGoesOn)
{
	const Rewrite &rw = GetParam();
	ScratchDir d;
	const std::string repo = d / "r";
	EmuWorld w(config());
	ASSERT_EQ(w.error(), "");
	auto want = [&](const BackupRun &b) {
		return program_test::allocated_only(b.frozen, w.allocated(),
						    1024);
	};

	BackupRun first(w);
	ASSERT_EQ(first.run(repo), 0) << first.err.msg;
	change_files(w, 1, 0x41);
	BackupRun second(w);
	ASSERT_EQ(second.run(repo), 0) << second.err.msg;
	ASSERT_EQ(second.res.incremental, 1) << second.res.why_full;
	change_files(w, 1, 0x42, 5);

	// The backup under test, through the rewriting transport.
	Rewriter t(w.transport());
	bool snapped = false;
	unsigned char key_before[CVB_KEY_SIZE] = {};
	t.after = [&](std::uint32_t code, cv_uaddr arg, long r) -> long {
		if (code == KIV_IOC_SNAPSHOT && r == 0)
			snapped = true;
		if (code == KIV_IOC_GET_AUTOMAP_STATE && r == 0 &&
		    rw.state != nullptr) {
			const auto g = t.read<GetAutoMapState>(arg);
			auto ams = t.read<AutoMapState>(g.ams);
			if (!snapped)
				std::memcpy(key_before, ams.amsKey.key,
					    CVB_KEY_SIZE);
			if (!rw.state(ams, snapped, key_before))
				return KIV_ERR_COPY_OUT;
			t.write(g.ams, ams);
		}
		if (code == KIV_IOC_GET_AUTOMAP && r == 0 &&
		    rw.map != nullptr) {
			const auto g = t.read<GetAutoMap>(arg);
			const auto u = t.read<UserBlockMap>(g.bm);
			std::vector<unsigned char> bits((u.mapLen + 7) / 8);
			EXPECT_EQ(t.get()->ops->mem_read(t.get()->ctx, u.map,
							 bits.data(),
							 bits.size()),
				  0);
			rw.map(bits, u.mapLen);
			EXPECT_EQ(t.get()->ops->mem_write(t.get()->ctx, u.map,
							  bits.data(),
							  bits.size()),
				  0);
		}
		return r;
	};
	BackupRun third(w);
	third.tp = t.get();
	ASSERT_EQ(third.run(repo), 0) << third.err.msg;
	EXPECT_EQ(third.res.incremental, 0);
	EXPECT_STREQ(third.res.why_full, rw.why);
	EXPECT_EQ(third.res.used_blocks, 1);
	(void)w.new_log_lines();

	// The chain goes on: incremental again at once when the session's
	// new key was kept, after one more full backup otherwise.
	change_files(w, 1, 0x43);
	BackupRun fourth(w);
	ASSERT_EQ(fourth.run(repo), 0) << fourth.err.msg;
	if (rw.key_kept) {
		EXPECT_EQ(fourth.res.incremental, 1) << fourth.res.why_full;
	} else {
		EXPECT_EQ(fourth.res.incremental, 0);
		EXPECT_STREQ(fourth.res.why_full,
			     "the last backup has no session key");
	}
	change_files(w, 1, 0x44);
	BackupRun fifth(w);
	ASSERT_EQ(fifth.run(repo), 0) << fifth.err.msg;
	EXPECT_EQ(fifth.res.incremental, 1) << fifth.res.why_full;
	(void)w.new_log_lines();

	expect_restores(repo, 3, want(third), d);
	expect_restores(repo, 4, want(fourth), d);
	expect_restores(repo, 5, want(fifth), d);
}

INSTANTIATE_TEST_SUITE_P(
	Answers, DistrustedMap,
	::testing::Values(
		Rewrite{"SessionOfAnotherDeviceBeforeTheSnapshot",
			[](AutoMapState &a, bool snapped, const unsigned char *) {
				if (!snapped)
					a.minor = 2;
				return true;
			},
			nullptr, "change tracking answers for device 8:2", true},
		Rewrite{"SessionOutOfSyncAfterTheSnapshot",
			[](AutoMapState &a, bool snapped, const unsigned char *) {
				if (snapped)
					a.state = 0;
				return true;
			},
			nullptr,
			"change map not vouched for (after the snapshot the "
			"session is in state 0)",
			false},
		Rewrite{"SessionOfAnotherDeviceAfterTheSnapshot",
			[](AutoMapState &a, bool snapped, const unsigned char *) {
				if (snapped)
					a.minor = 2;
				return true;
			},
			nullptr,
			"change map not vouched for (after the snapshot change "
			"tracking answers for device 8:2)",
			false},
		Rewrite{"SessionOfAnotherSizeAfterTheSnapshot",
			[](AutoMapState &a, bool snapped, const unsigned char *) {
				if (snapped)
					a.mapLen += 8;
				return true;
			},
			nullptr,
			"change map not vouched for (after the snapshot the "
			"session covers 2053 blocks, the partition has 2045)",
			false},
		Rewrite{"KeyNotRenewedByTheSnapshot",
			[](AutoMapState &a, bool snapped,
			   const unsigned char *before) {
				if (snapped)
					std::memcpy(a.amsKey.key, before,
						    CVB_KEY_SIZE);
				return true;
			},
			nullptr,
			"change map not vouched for (the snapshot did not "
			"renew the session key)",
			false},
		Rewrite{"NoSessionStateAfterTheSnapshot",
			[](AutoMapState &, bool snapped, const unsigned char *) {
				return !snapped;
			},
			nullptr,
			"change map not vouched for (change tracking cannot be "
			"queried after the snapshot: KIV_ERR_COPY_OUT)",
			false},
		Rewrite{"MapMarksBlocksBeyondThePartition", nullptr,
			[](std::vector<unsigned char> &bits, std::uint32_t n) {
				bits.back() |= static_cast<unsigned char>(
					0x80u);
				(void)n;
			},
			"change map not usable (it marks blocks at or beyond "
			"the partition's 2045 blocks)",
			true}),
	[](const auto &info) { return std::string(info.param.name); });

}  // namespace
