// The emulated driver driven through libcorvalin, as a backup program
// drives it: open, versions, state, the automap flags, unknown codes,
// faults in user memory, UNLOAD, geometry of a mounted partition, the read
// buffer before a backup, module references held by open files.
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "corvalin.hpp"
#include "corvalin_emu.hpp"
#include "emu/block.hpp"
#include "emu/emu.hpp"

namespace {

using corvalin::Device;
using corvalin::EmuTransport;
using corvalin::Result;
using corvalin::UserMemory;
using Lines = std::vector<std::string>;

// The module loaded and /dev/corvalin opened by one process through the
// library; everything is closed and unloaded again at the end.
class LibDriver : public ::testing::Test {
protected:
	void SetUp() override
	{
		ASSERT_EQ(emu::module_load(), 0);
		emu::mknod(CV_DEVICE_PATH, KIV_MAJOR, 0);
		ASSERT_EQ(dev.open(transport.get()), Result::Ok);
		emu::log_clear();
	}
	void TearDown() override
	{
		mem.reset();
		EXPECT_EQ(dev.close(), Result::Ok);
		EXPECT_EQ(emu::module_unload(), 0);
	}
	// User memory of the process, filled with `fill`.
	cv_uaddr user_area(std::uint32_t len, unsigned char fill)
	{
		EXPECT_EQ(dev.allocate(len, mem), Result::Ok);
		const std::vector<std::byte> bytes(len, std::byte{fill});
		EXPECT_EQ(mem.write(0, bytes), Result::Ok);
		return mem.address();
	}
	std::vector<unsigned char> user_bytes(std::uint32_t len)
	{
		std::vector<unsigned char> out(len);
		EXPECT_EQ(mem.read(0, std::as_writable_bytes(std::span(out))),
			  Result::Ok);
		return out;
	}

	emu::Process process;
	EmuTransport transport{process};
	Device dev;
	UserMemory mem;
};

TEST_F(LibDriver, VersionIsThreeOne)
{
	std::uint32_t major = 0, minor = 0;
	EXPECT_EQ(dev.version_major(major), Result::Ok);
	EXPECT_EQ(dev.version_minor(minor), Result::Ok);
	EXPECT_EQ(major, 3u);
	EXPECT_EQ(minor, 1u);
	EXPECT_EQ(emu::log_strings(), Lines{});
}

TEST_F(LibDriver, StateOfAFreshRecordIsAllZero)
{
	State st;
	std::memset(&st, 0xAA, sizeof(st));
	EXPECT_EQ(dev.state(st), Result::Ok);
	EXPECT_EQ(st.major, 0u);
	EXPECT_EQ(st.minor, 0u);
	EXPECT_EQ(st.state, 0u);
	EXPECT_EQ(st.blockSize, 0);
	EXPECT_EQ(st.mmapSize, 0);
}

TEST_F(LibDriver, StateWithLengthEightDeliversOnlyMajorAndMinor)
{
	State st;
	std::memset(&st, 0xAA, sizeof(st));
	EXPECT_EQ(dev.state(st, 8), Result::Ok);
	EXPECT_EQ(st.major, 0u);
	EXPECT_EQ(st.minor, 0u);
	EXPECT_EQ(st.state, 0xAAAAAAAAu);
	EXPECT_EQ(static_cast<std::uint32_t>(st.blockSize), 0xAAAAAAAAu);
	EXPECT_EQ(static_cast<std::uint32_t>(st.mmapSize), 0xAAAAAAAAu);
}

TEST_F(LibDriver, StateWithLengthZeroCopiesNothing)
{
	State st;
	std::memset(&st, 0xAA, sizeof(st));
	EXPECT_EQ(dev.state(st, 0), Result::Ok);
	EXPECT_EQ(st.major, 0xAAAAAAAAu);
	EXPECT_EQ(static_cast<std::uint32_t>(st.mmapSize), 0xAAAAAAAAu);
}

TEST_F(LibDriver, StateWithLongLengthCopiesTwentyBytes)
{
	const cv_uaddr area = user_area(64, 0xAA);
	const cv_uaddr arg = area + 32;
	const GetState g{area, 64};
	ASSERT_EQ(cv_mem_write(dev.raw(), arg, &g, sizeof(g)), 0);
	EXPECT_EQ(dev.ioctl(KIV_IOC_GET_STATE, arg), Result::Ok);
	const auto bytes = user_bytes(32);
	for (int i = 0; i < 20; i++)
		EXPECT_EQ(bytes[i], 0) << i;
	for (int i = 20; i < 32; i++)
		EXPECT_EQ(bytes[i], 0xAA) << i;
}

TEST_F(LibDriver, AutomapFlagCommandsSucceedSilently)
{
	EXPECT_EQ(dev.no_load_from_automap(), Result::Ok);
	EXPECT_EQ(dev.no_start_automap(), Result::Ok);
	// Neither can be undone, and repeating them is harmless.
	EXPECT_EQ(dev.no_load_from_automap(), Result::Ok);
	EXPECT_EQ(dev.no_start_automap(), Result::Ok);
	EXPECT_EQ(emu::log_strings(), Lines{});
}

TEST_F(LibDriver, UnknownCodesReturnFourWithOneLogLineEach)
{
	const std::uint32_t codes[] = {
		0x2a0c,      // number 12 without size and direction
		0x40042a0b,  // number 11 is not assigned
		0x40082a0c,  // right number, wrong size
		0x80042a0c,  // right number, wrong direction
		0x40042b0c,  // wrong type
	};
	for (const std::uint32_t code : codes) {
		emu::log_clear();
		EXPECT_EQ(dev.ioctl(code, 0), Result::Unknown) << std::hex << code;
		EXPECT_EQ(emu::log_strings(),
			  Lines{"<3>kivIOCTL: ioctl command not found"})
		    << std::hex << code;
	}
}

TEST_F(LibDriver, CommandSixteenIsRefusedSilently)
{
	EXPECT_EQ(dev.command_16(), Result::Refused);
	EXPECT_EQ(emu::log_strings(), Lines{});
	State st{};
	EXPECT_EQ(dev.state(st), Result::Ok);
	EXPECT_EQ(st.state, 0u);
}

TEST_F(LibDriver, UnloadCommandKeepsModuleAndDeviceUsable)
{
	EXPECT_EQ(dev.unload(), Result::Ok);
	EXPECT_TRUE(emu::module_loaded());
	std::uint32_t major = 0;
	EXPECT_EQ(dev.version_major(major), Result::Ok);
	EXPECT_EQ(major, 3u);
	// The device is still registered: a new file opens.
	Device other;
	EXPECT_EQ(other.open(transport.get()), Result::Ok);
	EXPECT_EQ(other.close(), Result::Ok);
	EXPECT_EQ(emu::log_strings(), Lines{});
}

TEST_F(LibDriver, UnreadableArgumentReturnsSixSilently)
{
	const cv_uaddr nowhere = process.unmapped_address();
	EXPECT_EQ(dev.ioctl(KIV_IOC_GET_STATE, nowhere), Result::CopyIn);
	EXPECT_EQ(dev.ioctl(KIV_IOC_GET_BLOCK_SIZE, nowhere), Result::CopyIn);
	EXPECT_EQ(dev.ioctl(KIV_IOC_LOAD_BLOCK_MAP, nowhere), Result::CopyIn);
	EXPECT_EQ(emu::log_strings(), Lines{});
}

TEST_F(LibDriver, UnreadableInnerBlockMapRecordReturnsSix)
{
	// The outer record is readable, the UserBlockMap it names is not.
	const cv_uaddr area = user_area(4096, 0);
	const LoadBlockMap outer{process.unmapped_address(), 8};
	ASSERT_EQ(cv_mem_write(dev.raw(), area, &outer, sizeof(outer)), 0);
	EXPECT_EQ(dev.ioctl(KIV_IOC_LOAD_BLOCK_MAP, area), Result::CopyIn);
	EXPECT_EQ(dev.ioctl(KIV_IOC_GET_AUTOMAP, area), Result::CopyIn);
	EXPECT_EQ(emu::log_strings(), Lines{});
}

TEST_F(LibDriver, UnwritableVersionAnswerReturnsSevenAndLogs)
{
	const cv_uaddr area = user_area(4096, 0x55);
	ASSERT_EQ(process.protect(area, 4096, emu::PROT_READ_), 0);
	EXPECT_EQ(dev.ioctl(KIV_IOC_GET_VERSION_MAJOR, area), Result::CopyOut);
	EXPECT_EQ(emu::log_strings(),
		  Lines{"<3>kivIOCTL: copy to user space failed"});
	EXPECT_EQ(user_bytes(4)[0], 0x55);
	ASSERT_EQ(process.protect(area, 4096,
				  emu::PROT_READ_ | emu::PROT_WRITE_),
		  0);
}

TEST_F(LibDriver, UnwritableStateAnswerReturnsSevenAndLogs)
{
	const cv_uaddr area = user_area(4096, 0);
	const GetState g{area + 64, sizeof(State)};
	ASSERT_EQ(cv_mem_write(dev.raw(), area, &g, sizeof(g)), 0);
	ASSERT_EQ(process.protect(area, 4096, emu::PROT_READ_), 0);
	EXPECT_EQ(dev.ioctl(KIV_IOC_GET_STATE, area), Result::CopyOut);
	EXPECT_EQ(emu::log_strings(),
		  Lines{"<3>ioctlGetState: copy to user space failed"});
	ASSERT_EQ(process.protect(area, 4096,
				  emu::PROT_READ_ | emu::PROT_WRITE_),
		  0);
}

TEST_F(LibDriver, TwoProcessesHaveIndependentFiles)
{
	emu::Process second;
	EmuTransport second_transport(second);
	Device other;
	ASSERT_EQ(other.open(second_transport.get()), Result::Ok);
	EXPECT_EQ(other.no_start_automap(), Result::Ok);
	State a{}, b{};
	EXPECT_EQ(dev.state(a), Result::Ok);
	EXPECT_EQ(other.state(b), Result::Ok);
	EXPECT_EQ(a.state, 0u);
	EXPECT_EQ(b.state, 0u);
	EXPECT_EQ(other.close(), Result::Ok);
}

// An open the driver cannot serve fails with the kernel's error, which
// the library passes on; the process lives on.
TEST_F(LibDriver, OpenOutOfMemoryFailsWithNoMemoryAndTheProcessLivesOn)
{
	emu::Process second;
	EmuTransport second_transport(second);
	Device other;
	const emu::Usage before = emu::usage();
	{
		auto fail = emu::FailScope::nth(emu::Alloc::Kmalloc, 1);
		EXPECT_EQ(corvalin::to_int(other.open(second_transport.get())),
			  -ENOMEM);
	}
	EXPECT_FALSE(other.is_open());
	EXPECT_FALSE(second.killed());
	EXPECT_EQ(emu::usage(), before);
	EXPECT_TRUE(emu::log_strings().empty());
	EXPECT_EQ(other.open(second_transport.get()), Result::Ok);
	EXPECT_EQ(other.close(), Result::Ok);
	// The first process is unaffected.
	std::uint32_t major = 0;
	EXPECT_EQ(dev.version_major(major), Result::Ok);
}

TEST_F(LibDriver, OpenFilesPinTheModule)
{
	EXPECT_GE(emu::module_refcount(), 1);
	EXPECT_EQ(emu::module_unload(), -EWOULDBLOCK);
	EXPECT_TRUE(emu::module_loaded());
	EXPECT_EQ(emu::log_strings(), Lines{});
}

TEST_F(LibDriver, ReadBufferCannotBeMappedBeforeABackupStarts)
{
	corvalin::Mapping m;
	EXPECT_EQ(dev.map(4096, m), Result::Invalid);
	EXPECT_FALSE(m);
}

TEST_F(LibDriver, BlockSizeOfAMountedPartition)
{
	emu::DiskConfig config;
	config.sectors = 2000000;
	emu::Disk disk(config);
	ASSERT_EQ(disk.add_partition(1, 63, 1000000), 0);
	{
		emu::FileSystem fs(disk, 1, 4096);
		BlockSize bs;
		std::memset(&bs, 0xAA, sizeof(bs));
		EXPECT_EQ(dev.block_size(8, 1, bs), Result::Ok);
		EXPECT_EQ(bs.major, 8u);
		EXPECT_EQ(bs.minor, 1u);
		EXPECT_EQ(bs.blockSize, 4096);
		EXPECT_EQ(bs.partitionSizeKB, 500000u);

		std::memset(&bs, 0xAA, sizeof(bs));
		EXPECT_EQ(dev.block_size(8, 1, bs, 8), Result::Ok);
		EXPECT_EQ(bs.minor, 1u);
		EXPECT_EQ(static_cast<std::uint32_t>(bs.blockSize), 0xAAAAAAAAu);
	}
	EXPECT_EQ(emu::log_strings(), Lines{});
}

TEST_F(LibDriver, BlockSizeOfADeviceWithoutFileSystemIsEight)
{
	BlockSize bs;
	std::memset(&bs, 0x55, sizeof(bs));
	EXPECT_EQ(dev.block_size(3, 1, bs), Result::NoFs);
	EXPECT_EQ(bs.major, 0x55555555u);
	EXPECT_EQ(bs.partitionSizeKB, 0x55555555u);
	EXPECT_EQ(emu::log_strings(),
		  Lines{"<3>getDiskInfo: device major=3 minor=1 not found, "
			"getting super block failed"});
}

}  // namespace
