// The read buffer mapping: mmap of the control device by the backup
// program (a read-only private mapping of at most maxVMPages pages, two
// per file), its fault handler and its release at munmap or exit.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "test_readpath_util.hpp"

namespace {

class ReadBuffer : public readpath::ReadPath {
protected:
	void started(unsigned block_size)
	{
		make_disk(block_size);
		ASSERT_EQ(start(), 0);
		emu::log_clear();
	}
	emu::uaddr mapped(std::uint32_t pages)
	{
		long long a = map(pages);
		EXPECT_GT(a, 0);
		return static_cast<emu::uaddr>(a);
	}
	int fault(struct vm_area_struct *vma, unsigned long address,
		  struct page **page)
	{
		struct vm_fault vmf {};
		vmf.virtual_address = reinterpret_cast<void __user *>(address);
		int r = 0;
		proc->run_as([&] { r = kivVMfault(vma, &vmf); });
		*page = vmf.page;
		return r;
	}
};

TEST_F(ReadBuffer, BeforeAStartEveryMappingIsRefused)
{
	make_disk(4096);
	const emu::Usage base = emu::usage();
	EXPECT_EQ(map(1), 2);
	EXPECT_EQ(b_->vmAreas[0].vma, nullptr);
	EXPECT_EQ(emu::usage(), base);
	ExpectLog({});
}

TEST_F(ReadBuffer, FourKilobyteBlocksAllow256PagesNot257)
{
	started(4096);
	EXPECT_EQ(b_->maxVMPages, 256);
	const int cur = atomic_read(&b_->curAllocPages);
	EXPECT_EQ(map(257), 2);
	EXPECT_EQ(atomic_read(&b_->curAllocPages), cur);
	const emu::uaddr a = mapped(256);
	EXPECT_EQ(b_->vmAreas[0].vmPages, 256);
	EXPECT_EQ(b_->vmAreas[0].vma->vm_start, a);
	EXPECT_NE(b_->vmAreas[0].mmPages[255], nullptr);
	EXPECT_EQ(atomic_read(&b_->curAllocPages), cur + 256);
	EXPECT_EQ(getVMAPageCount(b_), 256);
	ExpectLog({});
}

TEST_F(ReadBuffer, KilobyteBlocksAllow64PagesNot65)
{
	started(1024);
	EXPECT_EQ(b_->maxVMPages, 64);
	EXPECT_EQ(map(65), 2);
	mapped(64);
	EXPECT_EQ(b_->vmAreas[0].vmPages, 64);
}

TEST_F(ReadBuffer, ThirdMappingIsRefusedAndAFreedSlotIsTakenFirst)
{
	started(4096);
	const emu::uaddr a = mapped(2);
	const emu::uaddr b = mapped(3);
	EXPECT_EQ(b_->vmAreas[0].vma->vm_start, a);
	EXPECT_EQ(b_->vmAreas[1].vma->vm_start, b);
	const int cur = atomic_read(&b_->curAllocPages);
	EXPECT_EQ(map(1), 2);
	EXPECT_EQ(atomic_read(&b_->curAllocPages), cur);

	ASSERT_EQ(proc->munmap(a, 2 * 4096), 0);
	EXPECT_EQ(b_->vmAreas[0].vma, nullptr);
	EXPECT_EQ(b_->vmAreas[0].vmPages, 0);
	EXPECT_EQ(b_->vmAreas[0].mmPages[0], nullptr);
	EXPECT_EQ(atomic_read(&b_->curAllocPages), cur - 2);
	const emu::uaddr c = mapped(4);
	EXPECT_EQ(b_->vmAreas[0].vma->vm_start, c);
	EXPECT_EQ(b_->vmAreas[0].vmPages, 4);

	ASSERT_EQ(proc->munmap(b, 3 * 4096), 0);
	EXPECT_EQ(b_->vmAreas[1].vma, nullptr);
	const emu::uaddr d = mapped(1);
	EXPECT_EQ(b_->vmAreas[1].vma->vm_start, d);
	EXPECT_EQ(getVMAPageCount(b_), 5);
	ExpectLog({});
}

TEST_F(ReadBuffer, OnlyAReadOnlyPrivateMappingIsAccepted)
{
	started(4096);
	EXPECT_EQ(map(1, emu::PROT_READ_ | emu::PROT_WRITE_), 2);
	EXPECT_EQ(map(1, emu::PROT_READ_, emu::MAP_SHARED_), 2);
	EXPECT_EQ(b_->vmAreas[0].vma, nullptr);
	// Execution is not looked at.
	EXPECT_GT(map(1, emu::PROT_READ_ | emu::PROT_EXEC_), 0);
	EXPECT_NE(b_->vmAreas[0].vma, nullptr);
	EXPECT_GT(map(1), 0);
	EXPECT_NE(b_->vmAreas[1].vma, nullptr);
	ExpectLog({});
}

TEST_F(ReadBuffer, NonzeroOffsetIsRefused)
{
	started(4096);
	EXPECT_EQ(map(1, emu::PROT_READ_, emu::MAP_PRIVATE_, 1), 2);
	EXPECT_EQ(b_->vmAreas[0].vma, nullptr);
}

TEST_F(ReadBuffer, PageShortageFreesTheSlotAndIsFive)
{
	started(4096);
	const int cur = atomic_read(&b_->curAllocPages);
	const int total = atomic_read(&b_->totalAllocPages);
	const emu::Usage base = emu::usage();
	{
		auto fail = emu::FailScope::nth(emu::Alloc::Pages, 3);
		EXPECT_EQ(map(8), 5);
	}
	EXPECT_EQ(b_->vmAreas[0].vma, nullptr);
	EXPECT_EQ(b_->vmAreas[0].vmPages, 0);
	for (int j = 0; j < 8; j++)
		EXPECT_EQ(b_->vmAreas[0].mmPages[j], nullptr) << j;
	EXPECT_EQ(atomic_read(&b_->curAllocPages), cur);
	EXPECT_EQ(atomic_read(&b_->totalAllocPages), total + 2);
	EXPECT_EQ(emu::usage(), base);
	ExpectLog({});
	// The slot is usable again.
	mapped(8);
	EXPECT_EQ(b_->vmAreas[0].vmPages, 8);
}

TEST_F(ReadBuffer, LastPageFaultServesWhatWasPlacedThere)
{
	started(4096);
	const emu::uaddr a = mapped(16);
	struct page *last = b_->vmAreas[0].mmPages[15];
	std::memset(page_address(last), 0x5c, 4096);
	EXPECT_EQ(page_count(last), 1);
	auto got = peek(a + 15 * 4096, 4096);
	EXPECT_EQ(got, std::vector<std::uint8_t>(4096, 0x5c));
	// The page tables hold a reference of their own.
	EXPECT_EQ(page_count(last), 2);
	// Beyond the mapping is beyond the process's memory.
	std::uint8_t byte;
	EXPECT_FALSE(proc->peek(a + 16 * 4096, &byte, 1));
	ExpectLog({});
}

TEST_F(ReadBuffer, FaultBeyondTheSlotsPagesIsSigbus)
{
	started(4096);
	const emu::uaddr a = mapped(2);
	struct vm_area_struct *vma = b_->vmAreas[0].vma;
	struct page *page = nullptr;
	EXPECT_EQ(fault(vma, a + 2 * 4096, &page), VM_FAULT_SIGBUS);
	EXPECT_EQ(page, nullptr);
	ExpectLog({"<4>kivVMnopage: Bad vm address"});
	EXPECT_EQ(fault(vma, a + 4096 + 17, &page), 0);
	EXPECT_EQ(page, b_->vmAreas[0].mmPages[1]);
	put_page(page);
	ExpectLog({});
}

TEST_F(ReadBuffer, UnregisteredMappingFallsBackToSlotZero)
{
	started(4096);
	const emu::uaddr a = mapped(2);
	struct vm_area_struct other = *b_->vmAreas[0].vma;
	struct page *page = nullptr;
	EXPECT_EQ(fault(&other, a, &page), 0);
	EXPECT_EQ(page, b_->vmAreas[0].mmPages[0]);
	put_page(page);
	ExpectLog({});
}

TEST_F(ReadBuffer, UnregisteredMappingWithSlotZeroFreeIsSigbus)
{
	started(4096);
	const emu::uaddr a = mapped(1);
	mapped(1);
	struct vm_area_struct other = *b_->vmAreas[1].vma;
	ASSERT_EQ(proc->munmap(a, 4096), 0);
	struct page *page = nullptr;
	EXPECT_EQ(fault(&other, other.vm_start, &page), VM_FAULT_SIGBUS);
	ExpectLog({"<3>kivVMnopage: vma is not found in associated backup"});
}

TEST_F(ReadBuffer, MappingWithoutAFileIsSigbus)
{
	started(4096);
	mapped(1);
	struct vm_area_struct other = *b_->vmAreas[0].vma;
	other.vm_file = nullptr;
	struct page *page = nullptr;
	EXPECT_EQ(fault(&other, other.vm_start, &page), VM_FAULT_SIGBUS);
	ExpectLog({"<4>kivVMnopage: vma does not have associated backup"});
	// Closing such a mapping touches nothing.
	proc->run_as([&] { kivVMclose(&other); });
	EXPECT_NE(b_->vmAreas[0].vma, nullptr);
}

TEST_F(ReadBuffer, BlockPlacementIsBlockSizeStridesOverThePages)
{
	started(1024);
	mapped(4);
	BackupVMA *bvma = &b_->vmAreas[0];
	char *p0 = static_cast<char *>(page_address(bvma->mmPages[0]));
	char *p1 = static_cast<char *>(page_address(bvma->mmPages[1]));
	char *p3 = static_cast<char *>(page_address(bvma->mmPages[3]));
	EXPECT_EQ(mmPageAddr(b_, 0, bvma), p0);
	EXPECT_EQ(mmPageAddr(b_, 3, bvma), p0 + 3072);
	EXPECT_EQ(mmPageAddr(b_, 5, bvma), p1 + 1024);
	EXPECT_EQ(mmPageAddr(b_, 15, bvma), p3 + 3072);
}

TEST_F(ReadBuffer, OneBlockPerPageUsesThePageItself)
{
	started(4096);
	mapped(4);
	BackupVMA *bvma = &b_->vmAreas[0];
	EXPECT_EQ(mmPageAddr(b_, 2, bvma), page_address(bvma->mmPages[2]));
}

TEST_F(ReadBuffer, ExitWithAFaultedBufferLeavesNothing)
{
	started(4096);
	const emu::uaddr a = mapped(8);
	auto got = peek(a + 3 * 4096, 16);
	EXPECT_EQ(got.size(), 16u);
	// The process goes away: its mappings, then its files.
	proc.reset();
	EXPECT_TRUE(emu::leaks().empty());
	proc = std::make_unique<emu::Process>();
	fd_ = -1;
}

}  // namespace
