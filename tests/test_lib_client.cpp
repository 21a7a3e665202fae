// libcorvalin's own behaviour, against a scripted transport: where each
// command places its records in user memory, what the driver is told, how
// answers come back (also truncated ones), how results pass through, and
// the real transport's refusal on hosts whose pointers exceed 32 bits.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "corvalin.hpp"
#include "corvalin_client.h"

namespace {

// A process with a sparse 32-bit address space made of allocations, and a
// device whose ioctl/mmap answers are scripted by the test.
struct FakeProcess {
	std::map<cv_uaddr, std::vector<unsigned char>> regions;
	cv_uaddr next = 0x10000000;
	int opens = 0, closes = 0, frees = 0, munmaps = 0;
	std::string opened_path;
	int open_result = 3;
	struct Call {
		uint32_t code;
		cv_uaddr arg;
	};
	std::vector<Call> calls;
	std::function<long(uint32_t, cv_uaddr)> on_ioctl = [](uint32_t,
							      cv_uaddr) {
		return 0L;
	};
	int64_t mmap_result = 0x40000000;
	bool fail_reads = false;

	unsigned char *at(cv_uaddr a, uint32_t len)
	{
		auto it = regions.upper_bound(a);
		if (it == regions.begin())
			return nullptr;
		--it;
		const uint64_t off = a - it->first;
		if (off + len > it->second.size())
			return nullptr;
		return it->second.data() + off;
	}
	bool read(cv_uaddr a, void *dst, uint32_t len)
	{
		unsigned char *p = at(a, len);
		if (p == nullptr || fail_reads)
			return false;
		std::memcpy(dst, p, len);
		return true;
	}
	bool write(cv_uaddr a, const void *src, uint32_t len)
	{
		unsigned char *p = at(a, len);
		if (p == nullptr)
			return false;
		std::memcpy(p, src, len);
		return true;
	}
	template <class T> T get(cv_uaddr a)
	{
		T v{};
		EXPECT_TRUE(read(a, &v, sizeof(v))) << std::hex << a;
		return v;
	}
	bool region_starts_at(cv_uaddr a) const { return regions.count(a) != 0; }

	cv_transport transport();
};

FakeProcess &fp(void *ctx) { return *static_cast<FakeProcess *>(ctx); }

const cv_transport_ops fake_ops = {
	[](void *ctx, const char *path) {
		fp(ctx).opens++;
		fp(ctx).opened_path = path;
		return fp(ctx).open_result;
	},
	[](void *ctx, int) {
		fp(ctx).closes++;
		return 0;
	},
	[](void *ctx, int, uint32_t code, cv_uaddr arg) {
		fp(ctx).calls.push_back({code, arg});
		return fp(ctx).on_ioctl(code, arg);
	},
	[](void *ctx, int, uint32_t, int, int, uint32_t) {
		return fp(ctx).mmap_result;
	},
	[](void *ctx, cv_uaddr, uint32_t) {
		fp(ctx).munmaps++;
		return 0;
	},
	[](void *ctx, uint32_t len, cv_uaddr *addr) {
		FakeProcess &p = fp(ctx);
		*addr = p.next;
		p.regions[p.next].assign(len, 0);
		p.next += (len + 0xFFFFu) & ~0xFFFFu;
		return 0;
	},
	[](void *ctx, cv_uaddr addr, uint32_t) {
		fp(ctx).frees++;
		return fp(ctx).regions.erase(addr) == 1 ? 0 : CV_E_FAULT;
	},
	[](void *ctx, cv_uaddr addr, void *dst, uint32_t len) {
		return fp(ctx).read(addr, dst, len) ? 0 : CV_E_FAULT;
	},
	[](void *ctx, cv_uaddr addr, const void *src, uint32_t len) {
		return fp(ctx).write(addr, src, len) ? 0 : CV_E_FAULT;
	},
};

cv_transport FakeProcess::transport() { return {&fake_ops, this, "fake"}; }

class Client : public ::testing::Test {
protected:
	void SetUp() override
	{
		tp = proc.transport();
		ASSERT_EQ(cv_open(&dev, &tp, nullptr), 0);
		scratch = dev.scratch;
	}
	FakeProcess proc;
	cv_transport tp{};
	cv_device dev{};
	cv_uaddr scratch = 0;
};

TEST(ClientOpen, OpensDefaultPathAndAllocatesOneScratchPage)
{
	FakeProcess proc;
	cv_transport tp = proc.transport();
	cv_device dev;
	ASSERT_EQ(cv_open(&dev, &tp, nullptr), 0);
	EXPECT_EQ(proc.opened_path, "/dev/corvalin");
	EXPECT_EQ(dev.fd, 3);
	ASSERT_EQ(proc.regions.size(), 1u);
	EXPECT_EQ(proc.regions.begin()->first, dev.scratch);
	EXPECT_EQ(proc.regions.begin()->second.size(), CV_SCRATCH_SIZE);
	EXPECT_EQ(cv_close(&dev), 0);
	EXPECT_EQ(proc.closes, 1);
	EXPECT_TRUE(proc.regions.empty());
	EXPECT_EQ(dev.fd, -1);
}

TEST(ClientOpen, FailedOpenReturnsTheErrorAndLeavesHandleClosed)
{
	FakeProcess proc;
	proc.open_result = -6;  // -ENXIO
	cv_transport tp = proc.transport();
	cv_device dev;
	EXPECT_EQ(cv_open(&dev, &tp, "/dev/elsewhere"), -6);
	EXPECT_EQ(proc.opened_path, "/dev/elsewhere");
	EXPECT_EQ(dev.fd, -1);
	EXPECT_TRUE(proc.regions.empty());
	State st{};
	EXPECT_EQ(cv_get_state(&dev, &st, sizeof(st)), CV_E_CLOSED);
	EXPECT_EQ(cv_close(&dev), CV_E_CLOSED);
	EXPECT_TRUE(proc.calls.empty());
}

TEST_F(Client, GetStatePlacesArgumentAtScratchStartAndAnswerAfterIt)
{
	proc.on_ioctl = [&](uint32_t, cv_uaddr arg) {
		const GetState g = proc.get<GetState>(arg);
		EXPECT_EQ(g.s, scratch + CV_SCRATCH_ANSWER);
		EXPECT_EQ(g.len, 20u);
		const State answer{8, 1, 2, 4096, 1048576};
		proc.write(g.s, &answer, sizeof(answer));
		return 0L;
	};
	State st{};
	EXPECT_EQ(cv_get_state(&dev, &st, sizeof(st)), KIV_OK);
	ASSERT_EQ(proc.calls.size(), 1u);
	EXPECT_EQ(proc.calls[0].code, KIV_IOC_GET_STATE);
	EXPECT_EQ(proc.calls[0].arg, scratch);
	EXPECT_EQ(st.major, 8u);
	EXPECT_EQ(st.minor, 1u);
	EXPECT_EQ(st.state, 2u);
	EXPECT_EQ(st.blockSize, 4096);
	EXPECT_EQ(st.mmapSize, 1048576);
}

// A driver that honours len: copies min(len, record) bytes of its answer.
std::function<long(uint32_t, cv_uaddr)> truncating_state(FakeProcess &proc)
{
	return [&proc](uint32_t, cv_uaddr arg) {
		const GetState g = proc.get<GetState>(arg);
		const State answer{8, 1, 2, 4096, 65536};
		proc.write(g.s, &answer, std::min<uint32_t>(g.len, sizeof(answer)));
		return 0L;
	};
}

TEST_F(Client, TruncatedAnswerKeepsTheCallersBytesBeyondLen)
{
	proc.on_ioctl = truncating_state(proc);
	State st;
	std::memset(&st, 0xAA, sizeof(st));
	EXPECT_EQ(cv_get_state(&dev, &st, 8), KIV_OK);
	EXPECT_EQ(st.major, 8u);
	EXPECT_EQ(st.minor, 1u);
	EXPECT_EQ(st.state, 0xAAAAAAAAu);
	EXPECT_EQ(static_cast<uint32_t>(st.blockSize), 0xAAAAAAAAu);
	EXPECT_EQ(static_cast<uint32_t>(st.mmapSize), 0xAAAAAAAAu);
}

TEST_F(Client, ZeroLengthAnswerLeavesRecordAsTheCallerFilledIt)
{
	proc.on_ioctl = truncating_state(proc);
	State st{1, 2, 3, 4, 5};
	EXPECT_EQ(cv_get_state(&dev, &st, 0), KIV_OK);
	EXPECT_EQ(proc.get<GetState>(scratch).len, 0u);
	EXPECT_EQ(st.major, 1u);
	EXPECT_EQ(st.mmapSize, 5);
}

TEST_F(Client, AnswerAreaLongerThanRecordIsZeroFilledBeyondIt)
{
	proc.on_ioctl = [&](uint32_t, cv_uaddr arg) {
		const GetState g = proc.get<GetState>(arg);
		EXPECT_EQ(g.len, 64u);
		std::array<unsigned char, 64> area{};
		EXPECT_TRUE(proc.read(g.s, area.data(), 64));
		for (int i = 0; i < 20; i++)
			EXPECT_EQ(area[i], 0x11) << i;
		for (int i = 20; i < 64; i++)
			EXPECT_EQ(area[i], 0) << i;
		return 0L;
	};
	// Leave rubbish in the scratch page first: the area must be cleared.
	std::vector<unsigned char> junk(CV_SCRATCH_SIZE, 0xEE);
	ASSERT_TRUE(proc.write(scratch, junk.data(), CV_SCRATCH_SIZE));
	State st;
	std::memset(&st, 0x11, sizeof(st));
	EXPECT_EQ(cv_get_state(&dev, &st, 64), KIV_OK);
	EXPECT_EQ(proc.calls.size(), 1u);
}

TEST_F(Client, AnswerAreaTooLargeForScratchGetsOwnMemoryFreedAfterwards)
{
	cv_uaddr area = 0;
	proc.on_ioctl = [&](uint32_t, cv_uaddr arg) {
		const GetState g = proc.get<GetState>(arg);
		area = g.s;
		EXPECT_EQ(g.len, 8192u);
		EXPECT_TRUE(proc.region_starts_at(g.s));
		EXPECT_EQ(proc.regions.at(g.s).size(), 8192u);
		const State answer{3, 4, 0, 0, 0};
		proc.write(g.s, &answer, sizeof(answer));
		return 0L;
	};
	State st{};
	EXPECT_EQ(cv_get_state(&dev, &st, 8192), KIV_OK);
	EXPECT_EQ(st.major, 3u);
	EXPECT_NE(area, 0u);
	EXPECT_FALSE(proc.region_starts_at(area));
	EXPECT_EQ(proc.regions.size(), 1u);  // the scratch page alone
}

TEST_F(Client, AnswerIsReadBackEvenWhenTheDriverFails)
{
	proc.on_ioctl = [&](uint32_t, cv_uaddr arg) {
		const GetState g = proc.get<GetState>(arg);
		const uint32_t major = 77;
		proc.write(g.s, &major, 4);
		return 7L;
	};
	State st{};
	EXPECT_EQ(cv_get_state(&dev, &st, sizeof(st)), KIV_ERR_COPY_OUT);
	EXPECT_EQ(st.major, 77u);
}

TEST_F(Client, FailedReadBackIsReportedAsLibraryFault)
{
	proc.on_ioctl = [&](uint32_t, cv_uaddr) {
		proc.fail_reads = true;
		return 0L;
	};
	State st{};
	EXPECT_EQ(cv_get_state(&dev, &st, sizeof(st)), CV_E_FAULT);
}

TEST_F(Client, GetBlockSizeCarriesDeviceNumbersAndAnswerArea)
{
	proc.on_ioctl = [&](uint32_t code, cv_uaddr arg) {
		EXPECT_EQ(code, KIV_IOC_GET_BLOCK_SIZE);
		const GetBlockSize g = proc.get<GetBlockSize>(arg);
		EXPECT_EQ(g.major, 8u);
		EXPECT_EQ(g.minor, 17u);
		EXPECT_EQ(g.bs, scratch + CV_SCRATCH_ANSWER);
		EXPECT_EQ(g.len, 16u);
		const BlockSize answer{8, 17, 4096, 500000};
		proc.write(g.bs, &answer, sizeof(answer));
		return 0L;
	};
	BlockSize bs{};
	EXPECT_EQ(cv_get_block_size(&dev, 8, 17, &bs, sizeof(bs)), KIV_OK);
	EXPECT_EQ(bs.blockSize, 4096);
	EXPECT_EQ(bs.partitionSizeKB, 500000u);
}

TEST_F(Client, StartBackupPassesItsFourFields)
{
	proc.on_ioctl = [&](uint32_t code, cv_uaddr arg) {
		EXPECT_EQ(code, KIV_IOC_START_BACKUP);
		const StartBackup s = proc.get<StartBackup>(arg);
		EXPECT_EQ(s.major, 8u);
		EXPECT_EQ(s.minor, 1u);
		EXPECT_EQ(s.totalBlocks, 125000u);
		EXPECT_EQ(s.maxCacheBlocks, 1000u);
		return 9L;
	};
	EXPECT_EQ(cv_start_backup(&dev, 8, 1, 125000, 1000), KIV_ERR_BUSY);
	EXPECT_EQ(proc.calls.at(0).arg, scratch);
}

TEST_F(Client, SnapshotPresentsTheKeyInAnAreaOfLenBytes)
{
	AMSessionKey key;
	for (int i = 0; i < KIV_AMS_KEY_LEN; i++)
		key.key[i] = static_cast<unsigned char>(i + 1);
	proc.on_ioctl = [&](uint32_t code, cv_uaddr arg) {
		EXPECT_EQ(code, KIV_IOC_SNAPSHOT);
		const SnapShot s = proc.get<SnapShot>(arg);
		EXPECT_EQ(s.len, 60u);
		std::array<unsigned char, 60> area{};
		EXPECT_TRUE(proc.read(s.amsKey, area.data(), 60));
		EXPECT_EQ(std::memcmp(area.data(), key.key, 56), 0);
		EXPECT_EQ(area[56] | area[57] | area[58] | area[59], 0);
		return 0L;
	};
	EXPECT_EQ(cv_snapshot(&dev, &key, 60), KIV_OK);
	EXPECT_EQ(proc.calls.size(), 1u);
}

TEST_F(Client, SnapshotWithoutKeyPresentsZeros)
{
	proc.on_ioctl = [&](uint32_t, cv_uaddr arg) {
		const SnapShot s = proc.get<SnapShot>(arg);
		EXPECT_EQ(s.len, 56u);
		const AMSessionKey k = proc.get<AMSessionKey>(s.amsKey);
		for (unsigned char c : k.key)
			EXPECT_EQ(c, 0);
		return 2L;
	};
	// Rubbish in the scratch page must not leak into the key.
	std::vector<unsigned char> junk(CV_SCRATCH_SIZE, 0xEE);
	ASSERT_TRUE(proc.write(scratch, junk.data(), CV_SCRATCH_SIZE));
	EXPECT_EQ(cv_snapshot(&dev, nullptr, 56), KIV_ERR_INVALID);
}

TEST_F(Client, AutomapStateComesBackWhole)
{
	proc.on_ioctl = [&](uint32_t code, cv_uaddr arg) {
		EXPECT_EQ(code, KIV_IOC_GET_AUTOMAP_STATE);
		const GetAutoMapState g = proc.get<GetAutoMapState>(arg);
		EXPECT_EQ(g.len, 76u);
		AutoMapState a{};
		a.major = 8;
		a.state = AM_STATE_IN_SYNC;
		a.mapLen = 1000;
		a.mapSize = 125;
		a.amsKey.key[55] = 0x5A;
		proc.write(g.ams, &a, sizeof(a));
		return 0L;
	};
	AutoMapState a{};
	EXPECT_EQ(cv_get_automap_state(&dev, &a, sizeof(a)), KIV_OK);
	EXPECT_EQ(a.major, 8u);
	EXPECT_EQ(a.mapLen, 1000u);
	EXPECT_EQ(a.mapSize, 125u);
	EXPECT_EQ(a.amsKey.key[55], 0x5A);
}

TEST_F(Client, LoadBlockMapChainsOuterRecordInnerRecordAndBits)
{
	const std::array<unsigned char, 3> bits{0x05, 0x80, 0x01};
	proc.on_ioctl = [&](uint32_t code, cv_uaddr arg) {
		EXPECT_EQ(code, KIV_IOC_LOAD_BLOCK_MAP);
		EXPECT_EQ(arg, scratch);
		const LoadBlockMap outer = proc.get<LoadBlockMap>(arg);
		EXPECT_EQ(outer.bm, scratch + CV_SCRATCH_INNER);
		EXPECT_EQ(outer.len, 8u);
		const UserBlockMap inner = proc.get<UserBlockMap>(outer.bm);
		EXPECT_EQ(inner.mapLen, 17u);
		std::array<unsigned char, 3> seen{};
		EXPECT_TRUE(proc.read(inner.map, seen.data(), 3));
		EXPECT_EQ(seen, bits);
		EXPECT_EQ(proc.regions.at(inner.map).size(), 3u);
		return 0L;
	};
	EXPECT_EQ(cv_load_block_map(&dev, bits.data(), 17), KIV_OK);
	EXPECT_EQ(proc.calls.size(), 1u);
	EXPECT_EQ(proc.regions.size(), 1u);  // the bitmap's memory is freed
}

TEST_F(Client, LoadBlockMapAtPassesTheUserAddressUntouched)
{
	proc.on_ioctl = [&](uint32_t, cv_uaddr arg) {
		const LoadBlockMap outer = proc.get<LoadBlockMap>(arg);
		const UserBlockMap inner = proc.get<UserBlockMap>(outer.bm);
		EXPECT_EQ(inner.map, 0xBFFFF000u);
		EXPECT_EQ(inner.mapLen, 0xFFFFFFFFu);
		return 2L;
	};
	EXPECT_EQ(cv_load_block_map_at(&dev, 0xBFFFF000u, 0xFFFFFFFFu),
		  KIV_ERR_INVALID);
}

TEST_F(Client, GetAutomapReadsTheDriversBitsBack)
{
	proc.on_ioctl = [&](uint32_t code, cv_uaddr arg) {
		EXPECT_EQ(code, KIV_IOC_GET_AUTOMAP);
		const GetAutoMap outer = proc.get<GetAutoMap>(arg);
		const UserBlockMap inner = proc.get<UserBlockMap>(outer.bm);
		EXPECT_EQ(inner.mapLen, 9u);
		const unsigned char bits[2] = {0x81, 0x01};
		proc.write(inner.map, bits, 2);
		return 0L;
	};
	std::array<unsigned char, 2> map{};
	EXPECT_EQ(cv_get_automap(&dev, map.data(), 9), KIV_OK);
	EXPECT_EQ(map[0], 0x81);
	EXPECT_EQ(map[1], 0x01);
	EXPECT_EQ(proc.regions.size(), 1u);
}

TEST(ClientBitmap, ByteCountRoundsUpWithoutOverflow)
{
	EXPECT_EQ(cv_bitmap_bytes(0), 0u);
	EXPECT_EQ(cv_bitmap_bytes(1), 1u);
	EXPECT_EQ(cv_bitmap_bytes(8), 1u);
	EXPECT_EQ(cv_bitmap_bytes(9), 2u);
	EXPECT_EQ(cv_bitmap_bytes(0xFFFFFFF9u), 0x20000000u);
	EXPECT_EQ(cv_bitmap_bytes(0xFFFFFFFFu), 0x20000000u);
}

TEST_F(Client, DirtyBlockPointsAtTheAnswerWord)
{
	proc.on_ioctl = [&](uint32_t code, cv_uaddr arg) {
		EXPECT_EQ(code, KIV_IOC_GET_DIRTY_BLOCK);
		const DirtyBlock d = proc.get<DirtyBlock>(arg);
		EXPECT_EQ(d.blockNum, scratch + CV_SCRATCH_ANSWER);
		const uint32_t n = 4242;
		proc.write(d.blockNum, &n, 4);
		return 0L;
	};
	uint32_t n = 0;
	EXPECT_EQ(cv_get_dirty_block(&dev, &n), KIV_OK);
	EXPECT_EQ(n, 4242u);
}

TEST_F(Client, NegativeKernelErrorsPassThrough)
{
	proc.on_ioctl = [](uint32_t, cv_uaddr) { return -14L; };
	uint32_t n = 0;
	EXPECT_EQ(cv_get_dirty_block(&dev, &n), -14);
	EXPECT_STREQ(cv_result_name(-14), "-EFAULT");
}

TEST_F(Client, ReadBlocksPassesRangeAndBufferAddress)
{
	proc.on_ioctl = [&](uint32_t code, cv_uaddr arg) {
		EXPECT_EQ(code, KIV_IOC_READ_BLOCKS);
		const ReadBlocks rb = proc.get<ReadBlocks>(arg);
		EXPECT_EQ(rb.startBlockNum, 100u);
		EXPECT_EQ(rb.numBlocks, 16u);
		EXPECT_EQ(rb.data, 0x40000000u);
		return 12L;
	};
	EXPECT_EQ(cv_read_blocks(&dev, 100, 16, 0x40000000u), KIV_ERR_IO);
}

TEST_F(Client, VersionCommandsTakeTheAnswerAddressItself)
{
	proc.on_ioctl = [&](uint32_t code, cv_uaddr arg) {
		EXPECT_EQ(arg, scratch + CV_SCRATCH_ANSWER);
		const uint32_t v = code == KIV_IOC_GET_VERSION_MAJOR ? 3 : 1;
		proc.write(arg, &v, 4);
		return 0L;
	};
	uint32_t major = 0, minor = 0;
	EXPECT_EQ(cv_get_version_major(&dev, &major), KIV_OK);
	EXPECT_EQ(cv_get_version_minor(&dev, &minor), KIV_OK);
	EXPECT_EQ(major, 3u);
	EXPECT_EQ(minor, 1u);
	ASSERT_EQ(proc.calls.size(), 2u);
	EXPECT_EQ(proc.calls[0].code, KIV_IOC_GET_VERSION_MAJOR);
	EXPECT_EQ(proc.calls[1].code, KIV_IOC_GET_VERSION_MINOR);
}

TEST_F(Client, CommandsWithoutArgumentsUseTheirExactCodes)
{
	proc.on_ioctl = [](uint32_t code, cv_uaddr) {
		return code == KIV_IOC_COMMAND_16 ? 3L : 0L;
	};
	EXPECT_EQ(cv_no_load_from_automap(&dev), 0);
	EXPECT_EQ(cv_no_start_automap(&dev), 0);
	EXPECT_EQ(cv_sync(&dev), 0);
	EXPECT_EQ(cv_unload(&dev), 0);
	EXPECT_EQ(cv_command_16(&dev), KIV_ERR_REFUSED);
	ASSERT_EQ(proc.calls.size(), 5u);
	EXPECT_EQ(proc.calls[0].code, 0x2a05u);
	EXPECT_EQ(proc.calls[0].arg, 0u);
	EXPECT_EQ(proc.calls[1].code, 0x2a06u);
	EXPECT_EQ(proc.calls[1].arg, 0u);
	EXPECT_EQ(proc.calls[2].code, 0x40042a0eu);
	EXPECT_EQ(proc.calls[3].code, 0x40042a0fu);
	EXPECT_EQ(proc.calls[4].code, 0x40042a10u);
	EXPECT_EQ(proc.calls[4].arg, scratch);
}

TEST_F(Client, RawIoctlPassesCodeAndAddressAndResultUnchanged)
{
	proc.on_ioctl = [](uint32_t, cv_uaddr) { return 4L; };
	EXPECT_EQ(cv_ioctl(&dev, 0x2a0c, 0x12345678u), KIV_ERR_UNKNOWN);
	ASSERT_EQ(proc.calls.size(), 1u);
	EXPECT_EQ(proc.calls[0].code, 0x2a0cu);
	EXPECT_EQ(proc.calls[0].arg, 0x12345678u);
}

TEST_F(Client, MmapReturnsPageAlignedAddress)
{
	cv_uaddr addr = 0;
	proc.mmap_result = 0x40001000;
	EXPECT_EQ(cv_map_read_buffer(&dev, 8192, &addr), 0);
	EXPECT_EQ(addr, 0x40001000u);
}

TEST_F(Client, MmapSmallUnalignedValueIsTheDriversRefusal)
{
	cv_uaddr addr = 0x1234;
	proc.mmap_result = 2;
	EXPECT_EQ(cv_map_read_buffer(&dev, 8192, &addr), KIV_ERR_INVALID);
	proc.mmap_result = 5;
	EXPECT_EQ(cv_map_read_buffer(&dev, 8192, &addr), KIV_ERR_NOMEM);
	EXPECT_EQ(addr, 0x1234u);
}

TEST_F(Client, MmapErrnoPassesThrough)
{
	cv_uaddr addr = 0;
	proc.mmap_result = -22;
	EXPECT_EQ(cv_map_read_buffer(&dev, 8192, &addr), -22);
}

TEST(Results, DriverCodesHaveNamesAndTexts)
{
	EXPECT_STREQ(cv_result_name(0), "KIV_OK");
	EXPECT_STREQ(cv_result_name(1), "KIV_ERR_NOT_INIT");
	EXPECT_STREQ(cv_result_name(4), "KIV_ERR_UNKNOWN");
	EXPECT_STREQ(cv_result_name(7), "KIV_ERR_COPY_OUT");
	EXPECT_STREQ(cv_result_name(11), "KIV_ERR_STARTED");
	EXPECT_STREQ(cv_result_name(12), "KIV_ERR_IO");
	EXPECT_STREQ(cv_result_text(9), "another backup holds the backup slot");
	for (int r = 0; r <= 12; r++)
		EXPECT_NE(std::string(cv_result_text(r)), "") << r;
}

TEST(Results, UndefinedValuesAreNamedAsSuch)
{
	EXPECT_STREQ(cv_result_name(10), "KIV_ERR_UNDEFINED");
	EXPECT_STREQ(cv_result_name(99), "KIV_ERR_UNDEFINED");
	EXPECT_STREQ(cv_result_name(-3000), "-E?");
	EXPECT_STREQ(cv_result_name(CV_E_BASE - 100), "CV_E_UNDEFINED");
}

TEST(Results, ErrnosAndLibraryFailuresAreNamed)
{
	EXPECT_STREQ(cv_result_name(-1), "-EPERM");
	EXPECT_STREQ(cv_result_name(-25), "-ENOTTY");
	EXPECT_STREQ(cv_result_name(CV_E_ADDR32), "CV_E_ADDR32");
	EXPECT_STREQ(cv_result_name(CV_E_CLOSED), "CV_E_CLOSED");
	EXPECT_LT(CV_E_NOSYS, -4095);
}

TEST(Results, BackupStatesHaveNames)
{
	EXPECT_STREQ(cv_backup_state_name(BU_STATE_IDLE), "idle");
	EXPECT_STREQ(cv_backup_state_name(BU_STATE_SNAPSHOT), "snapshot");
	EXPECT_STREQ(cv_backup_state_name(BU_STATE_REFUSED), "refused");
	EXPECT_STREQ(cv_backup_state_name(3), "undefined");
	EXPECT_STREQ(cv_backup_state_name(11), "undefined");
}

// On this host the real transport either works (32-bit pointers) or
// refuses everything with CV_E_ADDR32; both outcomes are checked.
TEST(RealTransport, RefusesClearlyWhenPointersExceed32Bits)
{
	cv_device dev;
	const int r = cv_open(&dev, cv_transport_real(),
			      "/nonexistent/corvalin-test");
	if (sizeof(void *) > 4) {
		EXPECT_EQ(cv_real_transport_usable(), 0);
		EXPECT_EQ(r, CV_E_ADDR32);
		EXPECT_EQ(dev.fd, -1);
		const std::string text = cv_result_text(r);
		EXPECT_NE(text.find("32-bit"), std::string::npos) << text;
		const cv_transport *tp = cv_transport_real();
		cv_uaddr addr = 0;
		EXPECT_EQ(tp->ops->mem_alloc(tp->ctx, 16, &addr), CV_E_ADDR32);
		EXPECT_EQ(tp->ops->ioctl(tp->ctx, 0, KIV_IOC_GET_STATE, 0),
			  CV_E_ADDR32);
		EXPECT_EQ(tp->ops->mmap(tp->ctx, 0, 4096, CV_PROT_READ,
					CV_MAP_PRIVATE, 0),
			  CV_E_ADDR32);
	} else {
		EXPECT_EQ(cv_real_transport_usable(), 1);
		EXPECT_EQ(r, -2);  // -ENOENT
	}
	EXPECT_STREQ(cv_transport_real()->name, "real");
}

// --- the C++ layer --------------------------------------------------------

using corvalin::Device;
using corvalin::Mapping;
using corvalin::Result;
using corvalin::UserMemory;

TEST(ClientCxx, DeviceClosesItsFileWhenDestroyed)
{
	FakeProcess proc;
	cv_transport tp = proc.transport();
	{
		Device dev;
		ASSERT_EQ(dev.open(&tp), Result::Ok);
		EXPECT_TRUE(dev.is_open());
		Device moved = std::move(dev);
		EXPECT_FALSE(dev.is_open());
		EXPECT_TRUE(moved.is_open());
		EXPECT_EQ(proc.closes, 0);
	}
	EXPECT_EQ(proc.opens, 1);
	EXPECT_EQ(proc.closes, 1);
	EXPECT_TRUE(proc.regions.empty());
}

TEST(ClientCxx, ResultsKeepTheCoresValues)
{
	EXPECT_EQ(corvalin::to_int(Result::Started), 11);
	EXPECT_EQ(corvalin::to_int(Result::Io), 12);
	EXPECT_EQ(corvalin::to_result(-14), Result::Fault);
	EXPECT_EQ(corvalin::name(Result::CopyOut), "KIV_ERR_COPY_OUT");
	EXPECT_EQ(corvalin::name(corvalin::to_result(-25)), "-ENOTTY");
	EXPECT_EQ(corvalin::text(Result::Addr32), cv_result_text(CV_E_ADDR32));
}

// A C++ Device open on a fake process.
class ClientCxxOpen : public ::testing::Test {
protected:
	void SetUp() override { ASSERT_EQ(dev.open(&tp), Result::Ok); }
	FakeProcess proc;
	cv_transport tp = proc.transport();
	Device dev;
};

TEST_F(ClientCxxOpen, MappingUnmapsWhenDestroyedAndReadsThroughTheTransport)
{
	cv_uaddr mem = 0;
	ASSERT_EQ(fake_ops.mem_alloc(&proc, 8192, &mem), 0);
	proc.mmap_result = mem;  // reads of the mapping land in this region
	const unsigned char pattern[4] = {1, 2, 3, 4};
	ASSERT_TRUE(proc.write(mem + 4096, pattern, 4));
	{
		Mapping m;
		ASSERT_EQ(dev.map(8192, m), Result::Ok);
		EXPECT_EQ(m.address(), mem);
		std::array<std::byte, 4> got{};
		EXPECT_EQ(m.read(4096, got), Result::Ok);
		EXPECT_EQ(std::to_integer<int>(got[3]), 4);
		EXPECT_EQ(m.read(8190, got), Result::LibArg);
	}
	EXPECT_EQ(proc.munmaps, 1);
}

TEST_F(ClientCxxOpen, RefusedMappingOwnsNothing)
{
	proc.mmap_result = 2;
	Mapping m;
	EXPECT_EQ(dev.map(4096, m), Result::Invalid);
	EXPECT_FALSE(m);
	EXPECT_EQ(m.unmap(), Result::Ok);
	EXPECT_EQ(proc.munmaps, 0);
}

TEST_F(ClientCxxOpen, UserMemoryIsFreedWhenDestroyed)
{
	{
		UserMemory mem;
		ASSERT_EQ(dev.allocate(100, mem), Result::Ok);
		EXPECT_EQ(proc.regions.size(), 2u);
		const std::array<std::byte, 2> in{std::byte{7}, std::byte{9}};
		EXPECT_EQ(mem.write(98, in), Result::Ok);
		std::array<std::byte, 2> out{};
		EXPECT_EQ(mem.read(98, out), Result::Ok);
		EXPECT_EQ(out, in);
		EXPECT_EQ(mem.write(99, in), Result::LibArg);
	}
	EXPECT_EQ(proc.regions.size(), 1u);
}

TEST_F(ClientCxxOpen, BitmapSpansShorterThanTheMapAreRefused)
{
	std::array<std::uint8_t, 2> map{};
	EXPECT_EQ(dev.load_block_map(map, 17), Result::LibArg);
	EXPECT_EQ(dev.automap(map, 17), Result::LibArg);
	EXPECT_TRUE(proc.calls.empty());
	EXPECT_EQ(dev.load_block_map(map, 16), Result::Ok);
}

}  // namespace
