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
#include <string>
#include <vector>

#include "support.hpp"
#include "test_program_util.hpp"

namespace {

using corvalin::tool::EmuWorld;
using program_test::BackupRun;
using program_test::Rewriter;
using program_test::ScratchDir;
using program_test::change_files;
using program_test::expect_restores;

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
