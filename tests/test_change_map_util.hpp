// Helpers of the change-map suites: the records of GET_AUTOMAP_STATE,
// GET_AUTOMAP, LOAD_BLOCK_MAP and GET_DIRTY_BLOCK in user memory, and
// backups of partition 1 as the backup program runs them (a full one,
// then incrementals presenting the session key).
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "test_readpath_util.hpp"

namespace changemap {

using readpath::Key;
using Bytes = std::vector<std::uint8_t>;

class Fixture : public readpath::ReadPath {
protected:
	void SetUp() override
	{
		ReadPath::SetUp();
		scratch_ = proc->map_anon(4096);
		ASSERT_NE(scratch_, 0u);
	}
	void reopen()
	{
		EXPECT_EQ(proc->close(fd_), 0);
		fd_ = open_device();
		ASSERT_GE(fd_, 0);
		b_ = test::backup_of(*proc, fd_);
		emu::log_clear();
	}
	// A full backup of partition 1 snapshotted and closed: the
	// partition keeps an in-sync session.  Returns its key.
	Key first_backup()
	{
		EXPECT_EQ(start(), 0);
		EXPECT_EQ(snapshot(), 0);
		Key k = key_of(session());
		reopen();
		return k;
	}
	// The next backup, presenting k: state 4 with the map handed over.
	void incremental(const Key &k)
	{
		ASSERT_EQ(start(), 0);
		ASSERT_TRUE(proc->poke(page_ + 1024, k.data(), 56));
		ASSERT_EQ(snapshot(56), 0);
		ASSERT_EQ(b_->state, static_cast<u32>(BU_STATE_SNAPSHOT));
		emu::log_clear();
	}
	void write_block(std::uint64_t n, unsigned char fill)
	{
		std::vector<std::byte> v(bs, std::byte{fill});
		ASSERT_EQ(fs->write_block(n, v), 0);
	}
	// A user bitmap of map_len bits with the given blocks set.
	emu::uaddr user_bitmap(std::uint32_t map_len,
			       const std::vector<std::uint32_t> &set)
	{
		const std::size_t n = (map_len + 7) / 8;
		emu::uaddr a = proc->map_anon((n + 4095) / 4096 * 4096 + 4096);
		Bytes v(n, 0);
		for (std::uint32_t b : set)
			v[b / 8] |= static_cast<std::uint8_t>(1u << (b % 8));
		EXPECT_TRUE(proc->poke(a, v.data(), v.size()));
		return a;
	}
	long load_map(emu::uaddr bitmap, std::uint32_t map_len)
	{
		return map_command<LoadBlockMap>(KIV_IOC_LOAD_BLOCK_MAP, bitmap,
						 map_len);
	}
	long get_automap(emu::uaddr dest, std::uint32_t map_len)
	{
		return map_command<GetAutoMap>(KIV_IOC_GET_AUTOMAP, dest,
					       map_len);
	}
	// A command whose record (at scratch_ + 16) names a UserBlockMap
	// {bitmap, map_len} (at scratch_).
	template <typename Record>
	long map_command(unsigned cmd, emu::uaddr bitmap, std::uint32_t map_len)
	{
		UserBlockMap ubm{static_cast<kiv_u32>(bitmap), map_len};
		Record rec{static_cast<kiv_u32>(scratch_), 8};
		EXPECT_TRUE(proc->poke(scratch_, &ubm, sizeof(ubm)));
		EXPECT_TRUE(proc->poke(scratch_ + 16, &rec, sizeof(rec)));
		return ioctl(cmd, scratch_ + 16);
	}
	long get_ams(emu::uaddr dest, std::uint32_t len)
	{
		GetAutoMapState rec{static_cast<kiv_u32>(dest), len};
		EXPECT_TRUE(proc->poke(scratch_ + 32, &rec, sizeof(rec)));
		return ioctl(KIV_IOC_GET_AUTOMAP_STATE, scratch_ + 32);
	}
	long dirty(emu::uaddr dest)
	{
		DirtyBlock rec{static_cast<kiv_u32>(dest)};
		EXPECT_TRUE(proc->poke(scratch_ + 48, &rec, sizeof(rec)));
		return ioctl(KIV_IOC_GET_DIRTY_BLOCK, scratch_ + 48);
	}
	std::uint32_t dirty_block()
	{
		std::uint32_t v = 0x12345678;
		EXPECT_TRUE(proc->poke(scratch_ + 64, &v, 4));
		EXPECT_EQ(dirty(scratch_ + 64), 0);
		EXPECT_TRUE(proc->peek(scratch_ + 64, &v, 4));
		return v;
	}
	std::vector<std::uint32_t> set_bits(const Bytes &v,
					    std::uint32_t map_len)
	{
		std::vector<std::uint32_t> r;
		for (std::uint32_t n = 0; n < map_len; n++)
			if (v[n / 8] & (1u << (n % 8)))
				r.push_back(n);
		return r;
	}
	emu::uaddr read_only_page()
	{
		emu::uaddr a = proc->map_anon(4096);
		EXPECT_EQ(proc->protect(a, 4096, emu::PROT_READ_), 0);
		return a;
	}
	std::string ptr(emu::uaddr a)
	{
		return readpath::kptr(reinterpret_cast<void *>(
			static_cast<std::uintptr_t>(a)));
	}
	std::vector<std::string> load_failed(std::uint32_t map_len)
	{
		return {"<3>ioctlLoadBlockMap: error creating map of size=" +
				std::to_string(map_len),
			"<3>ioctlLoadBlockMap: backup error failed to load "
			"device map"};
	}
	u32 state() { return b_->state; }

	// LOAD_BLOCK_MAP of the bitmap at bm, with the first allocation of
	// *kind failing when given, fails with result: the lines of want and
	// then the load's two, state 9, no map and nothing leaked.
	void expect_load_fails(emu::uaddr bm, long result,
			       std::vector<std::string> want,
			       const emu::Alloc *kind = nullptr)
	{
		emu::log_clear();
		const int cur = atomic_read(&b_->curAllocPages);
		const emu::Usage base = emu::usage();
		if (kind) {
			auto fail = emu::FailScope::nth(*kind, 1);
			EXPECT_EQ(load_map(bm, blocks), result);
		} else {
			EXPECT_EQ(load_map(bm, blocks), result);
		}
		for (auto &l : load_failed(blocks))
			want.push_back(l);
		ExpectLog(want);
		EXPECT_EQ(state(), static_cast<u32>(BU_STATE_MAP_ERROR));
		EXPECT_EQ(emu::usage(), base);
		EXPECT_EQ(atomic_read(&b_->curAllocPages), cur);
		EXPECT_EQ(b_->blockMap.map, nullptr);
	}

	// LOAD_BLOCK_MAP with the first allocation of kind failing: 5, the
	// allocator's lines and the load's, state 9, nothing leaked.
	void expect_load_without_memory(emu::Alloc kind,
					std::vector<std::string> want)
	{
		make_disk(4096);
		ASSERT_EQ(start(), 0);
		ASSERT_EQ(snapshot(), 0);
		const emu::uaddr bm = user_bitmap(blocks, {1});
		expect_load_fails(bm, 5, std::move(want), &kind);
	}

	emu::uaddr scratch_ = 0;
};

}  // namespace changemap
