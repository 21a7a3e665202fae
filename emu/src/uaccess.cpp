// The user half of an address space: resolving user addresses, page
// faults on driver mappings (vm_ops->fault, copy-on-write of private
// mappings), and the kernel's user-memory accessors (copy_from_user and
// friends), with 2.6.27 x86's results.
#include "process_internal.hpp"

namespace emu::proc {

Mapping *find_mapping(emu_mm *mm, std::uint32_t addr)
{
	auto it = mm->maps.upper_bound(addr);
	if (it == mm->maps.begin())
		return nullptr;
	--it;
	Mapping *m = it->second.get();
	return addr < m->vma->vm_end ? m : nullptr;
}

namespace {

bool vma_allows(unsigned long vm_flags, bool write)
{
	// x86 cannot map a page writable or executable but not readable.
	return write ? (vm_flags & VM_WRITE) != 0
		     : (vm_flags & (VM_READ | VM_WRITE | VM_EXEC)) != 0;
}

bool prot_allows(int prot, bool write)
{
	return write ? (prot & PROT_WRITE_) != 0
		     : (prot & (PROT_READ_ | PROT_WRITE_ | PROT_EXEC_)) != 0;
}

unsigned char *private_copy(Mapping *m, unsigned long idx,
			    const unsigned char *from)
{
	auto &slot = m->private_pages[idx];
	if (!slot) {
		slot = std::make_unique<unsigned char[]>(PAGE_SIZE);
		if (from)
			std::memcpy(slot.get(), from, PAGE_SIZE);
		else
			std::memset(slot.get(), 0, PAGE_SIZE);
	}
	return slot.get();
}

// The page-fault path of a file mapping: __do_fault() of 2.6.27.
unsigned char *fault_in(emu_mm *mm, Mapping *m, unsigned long idx, bool write)
{
	vm_area_struct *vma = m->vma.get();
	bool shared = (vma->vm_flags & VM_SHARED) != 0;
	if (!vma->vm_ops) {
		// No operations: anonymous zero-filled pages.
		std::lock_guard lk(mm->ptl);
		return private_copy(m, idx, nullptr);
	}
	if (!vma->vm_ops->fault)
		return nullptr;   // SIGBUS
	struct vm_fault vmf {};
	vmf.flags = write ? FAULT_FLAG_WRITE : 0;
	vmf.pgoff = idx + vma->vm_pgoff;
	vmf.virtual_address = reinterpret_cast<void __user *>(
		static_cast<std::uintptr_t>(vma->vm_start + (idx << PAGE_SHIFT)));
	vmf.page = nullptr;
	int ret = vma->vm_ops->fault(vma, &vmf);
	if (ret & VM_FAULT_ERROR)
		return nullptr;
	if (ret & VM_FAULT_NOPAGE) {
		// The handler installed the page itself (vm_insert_page).
		std::lock_guard lk(mm->ptl);
		auto it = m->pages.find(idx);
		return it == m->pages.end() ? nullptr : page_data(it->second);
	}
	struct page *page = vmf.page;
	if (!page)
		violation(Site{"vm_ops->fault", 0},
			  "fault handler returned success without a page");
	if (ret & VM_FAULT_LOCKED)
		clear_bit(PG_locked, &page->flags);
	unsigned char *data = page_data(page);
	struct page *drop = nullptr;
	unsigned char *result;
	{
		std::lock_guard lk(mm->ptl);
		if (write && !shared) {
			// Copy-on-write: the process gets a private copy
			// and the driver's page is released.
			result = private_copy(m, idx, data);
			drop = page;
		} else if (m->pages.count(idx)) {
			// Another fault of the same page got there first.
			result = page_data(m->pages[idx]);
			drop = page;
		} else {
			m->pages[idx] = page;
			atomic_inc(&page->_mapcount);
			result = data;
		}
	}
	if (drop)
		emu_put_page(drop, "(page fault)", 0);
	return result;
}

}  // namespace

unsigned char *resolve(emu_mm *mm, std::uint32_t addr, bool write)
{
	Mapping *m = find_mapping(mm, addr);
	if (!m)
		return nullptr;
	vm_area_struct *vma = m->vma.get();
	unsigned long off = addr - vma->vm_start;
	unsigned long idx = off >> PAGE_SHIFT;
	if (m->anon) {
		if (!prot_allows(m->prot[idx], write))
			return nullptr;
		return &m->anon_data[off];
	}
	if (!vma_allows(vma->vm_flags, write))
		return nullptr;
	unsigned long in_page = addr & ~PAGE_MASK;
	struct page *cow = nullptr;
	unsigned char *result = nullptr;
	{
		std::lock_guard lk(mm->ptl);
		auto p = m->private_pages.find(idx);
		if (p != m->private_pages.end())
			return p->second.get() + in_page;
		auto it = m->pages.find(idx);
		if (it != m->pages.end()) {
			if (write && !(vma->vm_flags & VM_SHARED)) {
				cow = it->second;
				result = private_copy(m, idx, page_data(cow));
				m->pages.erase(it);
				atomic_dec(&cow->_mapcount);
			} else {
				return page_data(it->second) + in_page;
			}
		}
	}
	if (cow) {
		emu_put_page(cow, "(copy-on-write)", 0);
		return result + in_page;
	}
	unsigned char *data = fault_in(mm, m, idx, write);
	return data ? data + in_page : nullptr;
}

void zap_pages(emu_mm *mm, Mapping *m, std::uint32_t start, std::uint32_t end)
{
	if (m->anon)
		return;
	std::vector<struct page *> drop;
	unsigned long first = (start - m->vma->vm_start) >> PAGE_SHIFT;
	unsigned long last = (end - m->vma->vm_start) >> PAGE_SHIFT;
	{
		std::lock_guard lk(mm->ptl);
		for (auto it = m->pages.lower_bound(first);
		     it != m->pages.end() && it->first < last;) {
			atomic_dec(&it->second->_mapcount);
			drop.push_back(it->second);
			it = m->pages.erase(it);
		}
		for (auto it = m->private_pages.lower_bound(first);
		     it != m->private_pages.end() && it->first < last;)
			it = m->private_pages.erase(it);
	}
	for (struct page *p : drop)
		emu_put_page(p, "(unmap)", 0);
}

}  // namespace emu::proc

using emu::proc::resolve;

namespace {

// Copy between the current task's user memory and a kernel buffer, page by
// page; returns the number of bytes not copied.  The access stops at the
// first byte that faults.
unsigned long user_copy(std::uint32_t uaddr, unsigned char *kbuf,
			unsigned long n, bool to_user, const char *what,
			const char *file, int line)
{
	emu::check_may_sleep(emu::site(file, line), what);
	struct mm_struct *mm = current->mm;
	if (!mm)
		return n;
	emu_mm *emm = mm->emu;
	unsigned long done = 0;
	emu_down_read(&mm->mmap_sem, file, line);
	while (done < n) {
		std::uint32_t addr = uaddr + static_cast<std::uint32_t>(done);
		unsigned long chunk = PAGE_SIZE - (addr & ~PAGE_MASK);
		if (chunk > n - done)
			chunk = n - done;
		unsigned char *p = resolve(emm, addr, to_user);
		if (!p)
			break;
		if (!kbuf)
			std::memset(p, 0, chunk);
		else if (to_user)
			std::memcpy(p, kbuf + done, chunk);
		else
			std::memcpy(kbuf + done, p, chunk);
		done += chunk;
	}
	emu_up_read(&mm->mmap_sem, file, line);
	return n - done;
}

bool range_ok(const void *uptr, unsigned long n)
{
	auto addr = reinterpret_cast<std::uintptr_t>(uptr);
	return addr <= TASK_SIZE && n <= TASK_SIZE - addr;
}

// access_ok, then user_copy: a range reaching past TASK_SIZE copies
// nothing, though the call still counts as one that may sleep.
unsigned long access_user(const void *uptr, unsigned char *kbuf,
			  unsigned long n, bool to_user, const char *what,
			  const char *file, int line)
{
	if (!range_ok(uptr, n)) {
		emu::check_may_sleep(emu::site(file, line), what);
		return n;
	}
	return user_copy(static_cast<std::uint32_t>(
				 reinterpret_cast<std::uintptr_t>(uptr)),
			 kbuf, n, to_user, what, file, line);
}

}  // namespace

extern "C" unsigned long emu_copy_from_user(void *to, const void __user *from,
					    unsigned long n, const char *file,
					    int line)
{
	auto *kbuf = static_cast<unsigned char *>(to);
	unsigned long left = access_user(from, kbuf, n, false,
					 "copy_from_user", file, line);
	// As 2.6.27: the part of the destination not copied is zeroed.
	if (left)
		std::memset(kbuf + (n - left), 0, left);
	return left;
}

extern "C" unsigned long emu_copy_to_user(void __user *to, const void *from,
					  unsigned long n, const char *file,
					  int line)
{
	return access_user(to,
			   static_cast<unsigned char *>(const_cast<void *>(from)),
			   n, true, "copy_to_user", file, line);
}

extern "C" unsigned long emu_clear_user(void __user *to, unsigned long n,
					const char *file, int line)
{
	return access_user(to, nullptr, n, true, "clear_user", file, line);
}

// strncpy_from_user(): copies up to the terminating NUL (not counted) or
// `count` bytes; returns the length, or -EFAULT on a fault.
extern "C" long emu_strncpy_from_user(char *dst, const char __user *src,
				      long count, const char *file, int line)
{
	if (count <= 0)
		return 0;
	auto base = reinterpret_cast<std::uintptr_t>(src);
	for (long i = 0; i < count; i++) {
		char c;
		if (!range_ok(reinterpret_cast<const void *>(base + i), 1) ||
		    user_copy(static_cast<std::uint32_t>(base + i),
			      reinterpret_cast<unsigned char *>(&c), 1, false,
			      "strncpy_from_user", file, line))
			return -EFAULT;
		dst[i] = c;
		if (!c)
			return i;
	}
	return count;
}

// vm_insert_page(): install a driver page at `addr` of the mapping, taking
// a reference (dropped at unmap).
extern "C" int emu_vm_insert_page(struct vm_area_struct *vma,
				  unsigned long addr, struct page *page,
				  const char *file, int line)
{
	if (addr < vma->vm_start || addr >= vma->vm_end)
		return -EFAULT;
	if (!page_count(page))
		return -EINVAL;
	vma->vm_flags |= VM_INSERTPAGE;
	emu_mm *mm = vma->vm_mm->emu;
	emu::proc::Mapping *m =
		emu::proc::find_mapping(mm, static_cast<std::uint32_t>(addr));
	if (!m || m->vma.get() != vma)
		return -EFAULT;
	unsigned long idx = (addr - vma->vm_start) >> PAGE_SHIFT;
	emu_get_page(page, file, line);
	{
		std::lock_guard lk(mm->ptl);
		if (!m->pages.count(idx)) {
			m->pages[idx] = page;
			atomic_inc(&page->_mapcount);
			return 0;
		}
	}
	emu_put_page(page, file, line);
	return -EBUSY;
}
