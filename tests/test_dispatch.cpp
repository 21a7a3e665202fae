// The command dispatcher kivIOCTL and its small handlers (GET_STATE,
// versions, the automap flags, COMMAND_16, unknown codes), driven through
// an emulated process's ioctl() with the exact codes of corvalin.h and raw
// user addresses: mapped, unmapped, read-only, and records straddling a
// hole.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emu/emu.hpp"
#include "test_driver_util.hpp"

#include <linux/fs.h>
#include <asm/atomic.h>

namespace {

using emu::uaddr;

const std::string kCopyOutFailed = "<3>kivIOCTL: copy to user space failed";
const std::string kNotFound = "<3>kivIOCTL: ioctl command not found";

// Commands with an argument record, and the record's size.
struct ArgCommand {
	unsigned code;
	std::size_t size;
	const char *name;
};
const ArgCommand kArgCommands[] = {
	{KIV_IOC_GET_BLOCK_SIZE, 16, "GET_BLOCK_SIZE"},
	{KIV_IOC_START_BACKUP, 16, "START_BACKUP"},
	{KIV_IOC_SNAPSHOT, 8, "SNAPSHOT"},
	{KIV_IOC_GET_STATE, 8, "GET_STATE"},
	{KIV_IOC_GET_AUTOMAP_STATE, 8, "GET_AUTOMAP_STATE"},
	{KIV_IOC_LOAD_BLOCK_MAP, 8, "LOAD_BLOCK_MAP"},
	{KIV_IOC_GET_AUTOMAP, 8, "GET_AUTOMAP"},
	{KIV_IOC_GET_DIRTY_BLOCK, 4, "GET_DIRTY_BLOCK"},
	{KIV_IOC_READ_BLOCKS, 12, "READ_BLOCKS"},
};

const unsigned kAllCodes[] = {
	KIV_IOC_GET_BLOCK_SIZE,       KIV_IOC_START_BACKUP,
	KIV_IOC_SNAPSHOT,             KIV_IOC_GET_STATE,
	KIV_IOC_GET_AUTOMAP_STATE,    KIV_IOC_NO_LOAD_FROM_AUTOMAP,
	KIV_IOC_NO_START_AUTOMAP,     KIV_IOC_LOAD_BLOCK_MAP,
	KIV_IOC_GET_AUTOMAP,          KIV_IOC_GET_DIRTY_BLOCK,
	KIV_IOC_READ_BLOCKS,          KIV_IOC_GET_VERSION_MAJOR,
	KIV_IOC_GET_VERSION_MINOR,    KIV_IOC_SYNC,
	KIV_IOC_UNLOAD,               KIV_IOC_COMMAND_16,
};

class Dispatch : public test::OpenFile {
protected:
	long ioctl(unsigned cmd, unsigned long arg)
	{
		return proc->ioctl(fd_, cmd, arg);
	}
	int count() { return atomic_read(&b_->ioctlCount); }
	void poke32(uaddr a, std::uint32_t v)
	{
		ASSERT_TRUE(proc->poke(a, &v, 4));
	}
	std::vector<unsigned char> peek(uaddr a, std::size_t n)
	{
		std::vector<unsigned char> v(n);
		EXPECT_TRUE(proc->peek(a, v.data(), n));
		return v;
	}
	void fill(uaddr a, std::size_t n, unsigned char c)
	{
		std::vector<unsigned char> v(n, c);
		ASSERT_TRUE(proc->poke(a, v.data(), n));
	}
	// A page that may be read but not written.
	uaddr read_only_page()
	{
		uaddr a = proc->map_anon(4096);
		fill(a, 4096, 0xEE);
		EXPECT_EQ(proc->protect(a, 4096, emu::PROT_READ_), 0);
		return a;
	}
	// The last `n` bytes before an inaccessible page: a record placed
	// `n` bytes before its end straddles into the hole.
	uaddr before_hole()
	{
		uaddr a = proc->map_anon(2 * 4096);
		EXPECT_EQ(proc->protect(a + 4096, 4096, emu::PROT_NONE_), 0);
		return a + 4096;
	}
};

// --------------------------------------------------------------------------
// Decoding

TEST_F(Dispatch, UnknownCodeReturnsFourLogsOnceAndCounts)
{
	EXPECT_EQ(ioctl(0x12345678u, page_), 4);
	EXPECT_EQ(count(), 1);
	ExpectLog({kNotFound});
	EXPECT_EQ(ioctl(0u, 0), 4);
	EXPECT_EQ(count(), 2);
	ExpectLog({kNotFound});
}

TEST_F(Dispatch, VersionNumberWithoutSizeAndDirectionIsUnknown)
{
	poke32(page_, 0xdeadbeef);
	EXPECT_EQ(ioctl(0x2a0cu, page_), 4);
	EXPECT_EQ(ioctl(0x2a0du, page_), 4);
	ExpectLog({kNotFound, kNotFound});
	EXPECT_EQ(peek(page_, 4), (std::vector<unsigned char>{0xef, 0xbe, 0xad,
							       0xde}));
	EXPECT_EQ(count(), 2);
}

TEST_F(Dispatch, NumberElevenIsNotAssigned)
{
	const unsigned codes[] = {0x2a0bu, 0x40042a0bu, 0x40082a0bu,
				  0x400c2a0bu, 0x40102a0bu, 0x80042a0bu,
				  0xc0042a0bu};
	for (unsigned c : codes)
		EXPECT_EQ(ioctl(c, page_), 4) << std::hex << c;
	EXPECT_EQ(count(), static_cast<int>(std::size(codes)));
	ExpectLog(std::vector<std::string>(std::size(codes), kNotFound));
}

// The whole 32-bit code is compared: the right number with another size,
// direction or type is an unknown command.
TEST_F(Dispatch, RightNumberWrongSizeDirectionOrTypeIsUnknown)
{
	int n = 0;
	for (unsigned code : kAllCodes) {
		const unsigned size = (code >> 16) & 0x3fff;
		const unsigned variants[] = {
			code ^ 0xc0000000u,                 // read+write swapped
			(code & 0x3fffffffu) | 0x80000000u,  // read
			(code & 0x3fffffffu) | 0xc0000000u,  // read and write
			(code & ~0x3fff0000u) | ((size + 4) & 0x3fff) << 16,
			(code & ~0x3fff0000u) | ((size ^ 1) & 0x3fff) << 16,
			(code & ~0xff00u) | 0x2b00u,         // another type
		};
		for (unsigned v : variants) {
			if (v == code)
				continue;
			EXPECT_EQ(ioctl(v, page_), 4) << std::hex << v;
			n++;
		}
	}
	EXPECT_EQ(count(), n);
	ExpectLog(std::vector<std::string>(n, kNotFound));
}

TEST_F(Dispatch, NoRecordReturnsTwo)
{
	struct inode inode{};
	struct file file{};
	EXPECT_EQ(kivIOCTL(&inode, &file, KIV_IOC_COMMAND_16, 0), 2);
	EXPECT_EQ(kivIOCTL(&inode, &file, 0x1234u, 0), 2);
	ExpectLog({});
}

// --------------------------------------------------------------------------
// Versions

TEST_F(Dispatch, VersionsAreThreeAndOne)
{
	fill(page_, 16, 0xCC);
	EXPECT_EQ(ioctl(KIV_IOC_GET_VERSION_MAJOR, page_ + 4), 0);
	EXPECT_EQ(ioctl(KIV_IOC_GET_VERSION_MINOR, page_ + 8), 0);
	EXPECT_EQ(peek(page_, 16),
		  (std::vector<unsigned char>{0xCC, 0xCC, 0xCC, 0xCC, 3, 0, 0,
					      0, 1, 0, 0, 0, 0xCC, 0xCC, 0xCC,
					      0xCC}));
	EXPECT_EQ(count(), 2);
	ExpectLog({});
}

TEST_F(Dispatch, VersionToUnwritableMemoryReturnsSevenWithMessage)
{
	const uaddr ro = read_only_page();
	EXPECT_EQ(ioctl(KIV_IOC_GET_VERSION_MAJOR, ro), 7);
	EXPECT_EQ(ioctl(KIV_IOC_GET_VERSION_MINOR, ro), 7);
	EXPECT_EQ(ioctl(KIV_IOC_GET_VERSION_MAJOR, proc->unmapped_address()),
		  7);
	// Straddling: two bytes writable, two not.
	EXPECT_EQ(ioctl(KIV_IOC_GET_VERSION_MINOR, before_hole() - 2), 7);
	ExpectLog({kCopyOutFailed, kCopyOutFailed, kCopyOutFailed,
		    kCopyOutFailed});
	EXPECT_EQ(peek(ro, 4), (std::vector<unsigned char>(4, 0xEE)));
	EXPECT_EQ(count(), 4);
}

// --------------------------------------------------------------------------
// Argument records that cannot be read

TEST_F(Dispatch, UnreadableArgumentReturnsSixWithoutMessage)
{
	int n = 0;
	const uaddr hole = proc->unmapped_address();
	for (const auto &c : kArgCommands) {
		EXPECT_EQ(ioctl(c.code, hole), 6) << c.name;
		n++;
		// All but the last byte readable.
		EXPECT_EQ(ioctl(c.code, before_hole() - (c.size - 1)), 6)
			<< c.name;
		n++;
		EXPECT_EQ(count(), n) << c.name;
	}
	EXPECT_EQ(b_->state, 0u);
	ExpectLog({});
}

TEST_F(Dispatch, UnreadableUserBlockMapReturnsSixWithoutMessage)
{
	for (unsigned code : {KIV_IOC_LOAD_BLOCK_MAP, KIV_IOC_GET_AUTOMAP}) {
		// Outer record readable; its bm points into nothing, or at a
		// UserBlockMap whose second word is in the hole.
		poke32(page_, proc->unmapped_address());
		poke32(page_ + 4, 8);
		EXPECT_EQ(ioctl(code, page_), 6) << std::hex << code;
		poke32(page_, before_hole() - 4);
		EXPECT_EQ(ioctl(code, page_), 6) << std::hex << code;
		// The outer len is not consulted: 0 makes no difference.
		poke32(page_, proc->unmapped_address());
		poke32(page_ + 4, 0);
		EXPECT_EQ(ioctl(code, page_), 6) << std::hex << code;
	}
	EXPECT_EQ(count(), 6);
	EXPECT_EQ(b_->state, 0u);
	ExpectLog({});
}

// Exactly the record's size is read: a record that ends at the last
// readable byte before a hole is read whole and its handler runs.
TEST_F(Dispatch, ArgumentEndingAtAHoleIsReadWhole)
{
	// A UserBlockMap that also ends at a hole, for the two commands that
	// read one more record.
	const uaddr inner = before_hole() - 8;
	poke32(inner, page_ + 1024);
	poke32(inner + 4, 64);
	int n = 0;
	std::vector<std::string> lines;
	for (const auto &c : kArgCommands) {
		const uaddr rec = before_hole() - c.size;
		std::vector<unsigned char> zero(c.size, 0);
		ASSERT_TRUE(proc->poke(rec, zero.data(), zero.size()));
		long want = -1;  // every command is given its answer below
		if (c.code == KIV_IOC_GET_BLOCK_SIZE ||
		    c.code == KIV_IOC_START_BACKUP) {
			// Device 0:0 has no file system.
			want = 8;
			lines.push_back("<3>getDiskInfo: device major=0 minor=0 "
					"not found, getting super block failed");
		} else if (c.code == KIV_IOC_GET_STATE) {
			poke32(rec, page_ + 64);
			poke32(rec + 4, 20);
			want = 0;
		} else if (c.code == KIV_IOC_SNAPSHOT) {
			want = 2;  // no backup started: refused silently
		} else if (c.code == KIV_IOC_READ_BLOCKS) {
			want = 2;
			lines.push_back("<3>ioctlReadBlocks: state (0) not "
					"valid");
		} else if (c.code == KIV_IOC_GET_AUTOMAP_STATE) {
			want = 0;  // a zero length copies nothing out
		} else if (c.code == KIV_IOC_LOAD_BLOCK_MAP) {
			poke32(rec, inner);
			want = 2;
			lines.push_back("<3>ioctlLoadBlockMap: backup error "
					"snapshot not complete");
		} else if (c.code == KIV_IOC_GET_AUTOMAP) {
			poke32(rec, inner);
			want = 2;
			lines.push_back("<3>ioctlGetAutoMap: backup error map "
					"not loaded ");
		} else if (c.code == KIV_IOC_GET_DIRTY_BLOCK) {
			want = 2;  // no block map: refused silently
		}
		EXPECT_EQ(ioctl(c.code, rec), want) << c.name;
		EXPECT_EQ(count(), ++n) << c.name;
	}
	ExpectLog(lines);
}

// --------------------------------------------------------------------------
// GET_STATE

class GetState : public Dispatch {
protected:
	// A GetState record at page_ asking for `len` bytes at page_ + 64,
	// which is prefilled with 0xAA.
	long get_state(std::uint32_t len)
	{
		fill(page_ + 64, 128, 0xAA);
		poke32(page_, page_ + 64);
		poke32(page_ + 4, len);
		return ioctl(KIV_IOC_GET_STATE, page_);
	}
	std::vector<unsigned char> answer(std::size_t n)
	{
		return peek(page_ + 64, n);
	}
	// Gives the record a running backup's identity for the duration of
	// a test; put back before the file is closed.
	void pretend_running()
	{
		b_->diskInfo.kdev = KIV_MKDEV(8, 17);
		b_->diskInfo.blockSize = 4096;
		b_->maxVMPages = 256;
		setBackupState(b_, BU_STATE_STARTED);
	}
	void back_to_idle()
	{
		b_->diskInfo.kdev = 0;
		b_->diskInfo.blockSize = 0;
		b_->maxVMPages = 0;
		setBackupState(b_, BU_STATE_IDLE);
	}
	static std::vector<unsigned char> bytes_of(const State &s)
	{
		const auto *p = reinterpret_cast<const unsigned char *>(&s);
		return {p, p + sizeof s};
	}
};

TEST_F(GetState, AllZeroBeforeABackup)
{
	EXPECT_EQ(get_state(20), 0);
	std::vector<unsigned char> expected(40, 0xAA);
	std::fill_n(expected.begin(), 20, 0);
	EXPECT_EQ(answer(40), expected);
	EXPECT_EQ(count(), 1);
	ExpectLog({});
}

TEST_F(GetState, LengthZeroCopiesNothing)
{
	pretend_running();
	EXPECT_EQ(get_state(0), 0);
	EXPECT_EQ(answer(128), std::vector<unsigned char>(128, 0xAA));
	// Not even the address is checked when nothing is copied.
	poke32(page_, proc->unmapped_address());
	poke32(page_ + 4, 0);
	EXPECT_EQ(ioctl(KIV_IOC_GET_STATE, page_), 0);
	back_to_idle();
	ExpectLog({});
}

// The answer is the smaller of len and the 20-byte State: a short length
// truncates it without error (8 gives only major and minor), a longer one
// writes 20 bytes and nothing after them.
class GetStateLength : public GetState,
		       public ::testing::WithParamInterface<std::uint32_t> {
};

TEST_P(GetStateLength, AnswerIsCutToTheLength)
{
	const std::uint32_t len = GetParam();
	pretend_running();
	EXPECT_EQ(get_state(len), 0);
	const State s{8, 17, 2, 4096, 256 * 4096};
	const auto all = bytes_of(s);
	std::vector<unsigned char> expected(80, 0xAA);
	std::copy_n(all.begin(), std::min<std::size_t>(len, sizeof s),
		    expected.begin());
	EXPECT_EQ(answer(80), expected);
	EXPECT_EQ(count(), 1);
	back_to_idle();
	ExpectLog({});
}

INSTANTIATE_TEST_SUITE_P(Lengths, GetStateLength,
			 ::testing::Values(1u, 8u, 19u, 20u, 21u, 64u));

TEST_F(GetState, UnwritableAnswerReturnsSevenWithMessage)
{
	const uaddr ro = read_only_page();
	poke32(page_, ro);
	poke32(page_ + 4, 20);
	EXPECT_EQ(ioctl(KIV_IOC_GET_STATE, page_), 7);
	poke32(page_, proc->unmapped_address());
	EXPECT_EQ(ioctl(KIV_IOC_GET_STATE, page_), 7);
	// Partly writable.
	poke32(page_, before_hole() - 12);
	EXPECT_EQ(ioctl(KIV_IOC_GET_STATE, page_), 7);
	ExpectLog({"<3>ioctlGetState: copy to user space failed",
		    "<3>ioctlGetState: copy to user space failed",
		    "<3>ioctlGetState: copy to user space failed"});
	EXPECT_EQ(peek(ro, 20), std::vector<unsigned char>(20, 0xEE));
	EXPECT_EQ(count(), 3);
}

// --------------------------------------------------------------------------
// The small commands

TEST_F(Dispatch, NoLoadFromAutoMapSetsItsFlag)
{
	EXPECT_EQ(ioctl(KIV_IOC_NO_LOAD_FROM_AUTOMAP, proc->unmapped_address()),
		  0);
	EXPECT_EQ(b_->noLoadFromAutoMap, 1);
	EXPECT_EQ(b_->noStartAutoMap, 0);
	EXPECT_EQ(ioctl(KIV_IOC_NO_LOAD_FROM_AUTOMAP, 0), 0);
	EXPECT_EQ(b_->noLoadFromAutoMap, 1);
	EXPECT_EQ(b_->state, 0u);
	EXPECT_EQ(count(), 2);
	ExpectLog({});
}

TEST_F(Dispatch, NoStartAutoMapSetsItsFlag)
{
	EXPECT_EQ(ioctl(KIV_IOC_NO_START_AUTOMAP, proc->unmapped_address()),
		  0);
	EXPECT_EQ(b_->noStartAutoMap, 1);
	EXPECT_EQ(b_->noLoadFromAutoMap, 0);
	EXPECT_EQ(b_->state, 0u);
	ExpectLog({});
}

TEST_F(Dispatch, FlagsIgnoreTheRecordState)
{
	setBackupState(b_, BU_STATE_MAP_ERROR);
	EXPECT_EQ(ioctlNoStartAutoMap(b_), 0);
	EXPECT_EQ(ioctlNoLoadFromAutoMap(b_), 0);
	EXPECT_EQ(b_->noStartAutoMap, 1);
	EXPECT_EQ(b_->noLoadFromAutoMap, 1);
	setBackupState(b_, BU_STATE_IDLE);
}

TEST_F(Dispatch, Command16RefusesAndChangesOnlyTheCount)
{
	const emu::Usage base = emu::usage();
	Backup before;
	std::memcpy(&before, b_, sizeof before);
	EXPECT_EQ(ioctl(KIV_IOC_COMMAND_16, proc->unmapped_address()), 3);
	EXPECT_EQ(count(), 1);
	atomic_set(&b_->ioctlCount, 0);
	EXPECT_EQ(std::memcmp(&before, b_, sizeof before), 0);
	EXPECT_EQ(emu::usage(), base);
	ExpectLog({});
}

TEST_F(Dispatch, EveryCommandCountsAlsoFailedOnes)
{
	const uaddr hole = proc->unmapped_address();
	ioctl(KIV_IOC_GET_STATE, hole);          // 6
	ioctl(KIV_IOC_GET_VERSION_MAJOR, hole);  // 7
	ioctl(0x99u, 0);                          // 4
	ioctl(KIV_IOC_COMMAND_16, 0);             // 3
	ioctl(KIV_IOC_NO_START_AUTOMAP, 0);       // 0
	EXPECT_EQ(count(), 5);
	ExpectLog({kCopyOutFailed, kNotFound});
}

// Each file's commands count in its own record.
TEST_F(Dispatch, CountsArePerFile)
{
	int other = proc->open("/dev/corvalin");
	ASSERT_GE(other, 0);
	Backup *ob = test::backup_of(*proc, other);
	EXPECT_EQ(proc->ioctl(other, KIV_IOC_COMMAND_16, 0), 3);
	EXPECT_EQ(proc->ioctl(other, KIV_IOC_COMMAND_16, 0), 3);
	EXPECT_EQ(ioctl(KIV_IOC_COMMAND_16, 0), 3);
	EXPECT_EQ(atomic_read(&ob->ioctlCount), 2);
	EXPECT_EQ(count(), 1);
	EXPECT_EQ(proc->close(other), 0);
}

// The change-map commands reach their handlers: on a record with no
// backup the state query answers an all-zero record, the map load and the
// export refuse with their state messages, and the dirty-block query
// refuses silently without writing its answer.
TEST_F(Dispatch, ChangeMapCommandsReachTheirHandlers)
{
	// A UserBlockMap for the two commands that read one more record.
	poke32(page_ + 512, page_ + 1024);
	poke32(page_ + 516, 64);
	poke32(page_, page_ + 512);
	poke32(page_ + 4, 8);
	const emu::Usage base = emu::usage();
	EXPECT_EQ(ioctl(KIV_IOC_LOAD_BLOCK_MAP, page_), 2);
	EXPECT_EQ(ioctl(KIV_IOC_GET_AUTOMAP, page_), 2);

	fill(page_ + 2048, 76, 0xA5);
	poke32(page_ + 8, page_ + 2048);
	poke32(page_ + 12, 76);
	EXPECT_EQ(ioctl(KIV_IOC_GET_AUTOMAP_STATE, page_ + 8), 0);
	EXPECT_EQ(peek(page_ + 2048, 76), std::vector<unsigned char>(76, 0));

	fill(page_ + 3072, 4, 0x5A);
	poke32(page_ + 16, page_ + 3072);
	EXPECT_EQ(ioctl(KIV_IOC_GET_DIRTY_BLOCK, page_ + 16), 2);
	EXPECT_EQ(peek(page_ + 3072, 4), std::vector<unsigned char>(4, 0x5A));

	EXPECT_EQ(count(), 4);
	EXPECT_EQ(b_->state, 0u);
	EXPECT_EQ(atomic_read(&busy), 0);
	EXPECT_EQ(emu::usage(), base);
	ExpectLog({"<3>ioctlLoadBlockMap: backup error snapshot not complete",
		   "<3>ioctlGetAutoMap: backup error map not loaded "});
}

}  // namespace
