// User processes: an address space (mm_struct with its mappings), a
// file-descriptor table, and the system calls of 2.6.27 that reach a
// character driver (open, close, ioctl, read, write, poll, mmap2, munmap).
//
// A system call runs on the calling host thread, whose task becomes the
// process's for the duration (pid, comm, current->mm), exactly what the
// driver sees as `current` in process context.
#include <climits>

#include "process_internal.hpp"
#include "lockdep.hpp"

namespace emu {

using proc::Mapping;
using proc::OpenFile;

namespace {

constexpr std::uint32_t kUnmappedBase = 0x40000000;   // TASK_UNMAPPED_BASE
constexpr int kMapFixed = 0x10;
constexpr int kMapAnonymous = 0x20;
constexpr int kMapType = 0x0f;

unsigned long calc_vm_prot_bits(int prot)
{
	return ((prot & PROT_READ_) ? VM_READ : 0) |
		((prot & PROT_WRITE_) ? VM_WRITE : 0) |
		((prot & PROT_EXEC_) ? VM_EXEC : 0);
}

}  // namespace

struct Process::Impl {
	std::shared_ptr<emu_mm> mm;
	std::mutex fd_mutex;                 // files->file_lock
	std::map<int, OpenFile *> fds;
	int pid;
	std::string comm;
	std::atomic<bool> dead{false};
	std::mutex in_call_mutex;
	std::set<emu_task *> in_call;        // tasks inside a system call

	// Find a free range of `len` bytes (get_unmapped_area, bottom-up
	// from TASK_UNMAPPED_BASE; a free hint is taken as is).  mmap_sem
	// held.
	long long unmapped_area(std::uint32_t hint, std::uint64_t len)
	{
		auto is_free = [&](std::uint64_t start) {
			if (start + len > TASK_SIZE)
				return false;
			for (auto &[s, m] : mm->maps)
				if (start < m->vma->vm_end && s < start + len)
					return false;
			return true;
		};
		if (hint && !(hint & ~PAGE_MASK) && is_free(hint))
			return hint;
		std::uint64_t start = kUnmappedBase;
		for (auto &[s, m] : mm->maps) {
			if (m->vma->vm_end <= start)
				continue;
			if (s >= start + len)
				break;
			start = m->vma->vm_end;
		}
		if (start + len > TASK_SIZE)
			return -ENOMEM;
		return static_cast<long long>(start);
	}

	// A new mapping of [start, start + size), anonymous ones zero-filled
	// with `prot` on every page.  mmap_sem held for writing.
	Mapping *add_mapping(std::uint32_t start, std::uint64_t size,
			     unsigned long vm_flags, int prot, bool anon)
	{
		auto m = std::make_unique<Mapping>();
		m->anon = anon;
		m->vma = std::make_unique<vm_area_struct>();
		m->vma->vm_mm = &mm->mm;
		m->vma->vm_start = start;
		m->vma->vm_end = static_cast<unsigned long>(start + size);
		m->vma->vm_flags = vm_flags;
		if (anon) {
			m->anon_data.assign(size, 0);
			m->prot.assign(size / PAGE_SIZE, prot);
		}
		Mapping *mp = m.get();
		mm->maps[start] = std::move(m);
		mm->mm.map_count++;
		return mp;
	}

	// remove_vma_list for [start, end): pages are dropped first, then
	// vm_ops->close and the file reference of each removed mapping, as
	// do_munmap does.  A mapping cut in two gets vm_ops->open for the
	// new part (__split_vma).  mmap_sem held for writing.
	void unmap_range(std::uint32_t start, std::uint32_t end)
	{
		std::vector<std::unique_ptr<Mapping>> removed;
		for (auto it = mm->maps.begin(); it != mm->maps.end();) {
			Mapping *m = it->second.get();
			vm_area_struct *vma = m->vma.get();
			if (vma->vm_end <= start || vma->vm_start >= end) {
				++it;
				continue;
			}
			if (vma->vm_start < start) {
				split(m, start);
				++it;
				continue;
			}
			if (vma->vm_end > end) {
				split(m, end);
				it = mm->maps.find(static_cast<std::uint32_t>(
					vma->vm_start));
			}
			proc::zap_pages(mm.get(), m, static_cast<std::uint32_t>(
						vma->vm_start),
					static_cast<std::uint32_t>(vma->vm_end));
			removed.push_back(std::move(it->second));
			it = mm->maps.erase(it);
			mm->mm.map_count--;
		}
		for (auto &m : removed) {
			vm_area_struct *vma = m->vma.get();
			if (vma->vm_ops && vma->vm_ops->close)
				vma->vm_ops->close(vma);
			if (vma->vm_file)
				proc::fput(container_of(vma->vm_file, OpenFile,
							file));
		}
	}

	// __split_vma: the part from `at` becomes a mapping of its own.
	void split(Mapping *m, std::uint32_t at)
	{
		vm_area_struct *vma = m->vma.get();
		auto tail = std::make_unique<Mapping>();
		tail->vma = std::make_unique<vm_area_struct>(*vma);
		tail->anon = m->anon;
		unsigned long cut = (at - vma->vm_start) >> PAGE_SHIFT;
		tail->vma->vm_start = at;
		tail->vma->vm_pgoff += cut;
		if (m->anon) {
			tail->anon_data.assign(m->anon_data.begin() +
					       static_cast<long>(cut * PAGE_SIZE),
					       m->anon_data.end());
			m->anon_data.resize(cut * PAGE_SIZE);
			tail->prot.assign(m->prot.begin() + static_cast<long>(cut),
					  m->prot.end());
			m->prot.resize(cut);
		} else {
			std::lock_guard lk(mm->ptl);
			for (auto it = m->pages.lower_bound(cut);
			     it != m->pages.end();) {
				tail->pages[it->first - cut] = it->second;
				it = m->pages.erase(it);
			}
			for (auto it = m->private_pages.lower_bound(cut);
			     it != m->private_pages.end();) {
				tail->private_pages[it->first - cut] =
					std::move(it->second);
				it = m->private_pages.erase(it);
			}
		}
		vma->vm_end = at;
		if (tail->vma->vm_file)
			proc::get_file(container_of(tail->vma->vm_file,
						    OpenFile, file));
		vm_area_struct *nv = tail->vma.get();
		mm->maps[at] = std::move(tail);
		mm->mm.map_count++;
		if (nv->vm_ops && nv->vm_ops->open)
			nv->vm_ops->open(nv);
	}

	// do_exit: exit_mm (every mapping), then exit_files (every file).
	void exit_process()
	{
		if (mm) {
			emu_down_write(&mm->mm.mmap_sem, __FILE__, __LINE__);
			unmap_range(0, static_cast<std::uint32_t>(TASK_SIZE));
			emu_up_write(&mm->mm.mmap_sem, __FILE__, __LINE__);
		}
		std::map<int, OpenFile *> files;
		{
			std::lock_guard lk(fd_mutex);
			files.swap(fds);
		}
		for (auto &[fd, f] : files)
			proc::fput(f);
	}
};

// The process's internals, for the helpers of this file.
struct ProcessAccess {
	using Impl = Process::Impl;
};
using ProcImpl = ProcessAccess::Impl;

namespace {

// The calling thread acts as the process for one system call.
class Syscall {
public:
	explicit Syscall(ProcImpl &p) : p_(p), t_(cur())
	{
		saved_mm_ = t_->task.mm;
		saved_active_ = t_->task.active_mm;
		saved_ref_ = t_->mm_ref;
		saved_pid_ = t_->task.pid;
		saved_tgid_ = t_->task.tgid;
		std::memcpy(saved_comm_, t_->task.comm, sizeof(saved_comm_));
		t_->task.mm = &p.mm->mm;
		t_->task.active_mm = &p.mm->mm;
		t_->mm_ref = p.mm;
		t_->task.pid = p.pid;
		t_->task.tgid = p.pid;
		std::snprintf(t_->task.comm, sizeof(t_->task.comm), "%s",
			      p.comm.c_str());
		std::lock_guard lk(p.in_call_mutex);
		p.in_call.insert(t_);
	}
	~Syscall()
	{
		{
			std::lock_guard lk(p_.in_call_mutex);
			p_.in_call.erase(t_);
		}
		flush_signals(&t_->task);
		t_->task.mm = saved_mm_;
		t_->task.active_mm = saved_active_;
		t_->mm_ref = saved_ref_;
		t_->task.pid = saved_pid_;
		t_->task.tgid = saved_tgid_;
		std::memcpy(t_->task.comm, saved_comm_, sizeof(saved_comm_));
	}
	Syscall(const Syscall &) = delete;
	Syscall &operator=(const Syscall &) = delete;

private:
	ProcImpl &p_;
	emu_task *t_;
	struct mm_struct *saved_mm_, *saved_active_;
	std::shared_ptr<void> saved_ref_;
	pid_t saved_pid_, saved_tgid_;
	char saved_comm_[TASK_COMM_LEN];
};

std::atomic<int> g_next_process_pid{1000};

}  // namespace

Process::Process() : Process("backup")
{
}

Process::Process(const char *comm) : impl_(std::make_unique<Impl>())
{
	impl_->mm = std::make_shared<emu_mm>();
	struct mm_struct &mm = impl_->mm->mm;
	mm.emu = impl_->mm.get();
	mm.task_size = TASK_SIZE;
	atomic_set(&mm.mm_users, 1);
	atomic_set(&mm.mm_count, 1);
	emu_init_rwsem_key(&mm.mmap_sem, "&mm->mmap_sem", __FILE__, __LINE__);
	impl_->pid = g_next_process_pid.fetch_add(1);
	impl_->comm = comm;
}

Process::~Process()
{
	if (!impl_->dead) {
		Syscall sc(*impl_);
		impl_->exit_process();
	}
}

int Process::pid() const
{
	return impl_->pid;
}

bool Process::killed() const
{
	return impl_->dead;
}

void Process::kill(int sig)
{
	std::lock_guard lk(impl_->in_call_mutex);
	for (emu_task *t : impl_->in_call)
		send_sig(sig, &t->task, 0);
}

void Process::run_as(const std::function<void()> &fn)
{
	Syscall sc(*impl_);
	fn();
}

struct ::file *Process::file(int fd) const
{
	std::lock_guard lk(impl_->fd_mutex);
	auto it = impl_->fds.find(fd);
	return it == impl_->fds.end() ? nullptr : &it->second->file;
}

// ---- memory ---------------------------------------------------------------------

uaddr Process::map_anon(std::size_t len, int prot)
{
	if (impl_->dead || len == 0 || len > TASK_SIZE)
		return 0;
	Syscall sc(*impl_);
	std::uint64_t size = PAGE_ALIGN(len);
	emu_down_write(&impl_->mm->mm.mmap_sem, __FILE__, __LINE__);
	long long addr = impl_->unmapped_area(0, size);
	if (addr >= 0)
		impl_->add_mapping(static_cast<std::uint32_t>(addr), size,
				   calc_vm_prot_bits(prot) | VM_MAYREAD |
				   VM_MAYWRITE | VM_MAYEXEC, prot, true);
	emu_up_write(&impl_->mm->mm.mmap_sem, __FILE__, __LINE__);
	return addr < 0 ? 0 : static_cast<uaddr>(addr);
}

int Process::protect(uaddr addr, std::size_t len, int prot)
{
	if (impl_->dead)
		return SYSCALL_KILLED;
	if (addr & ~PAGE_MASK)
		return -EINVAL;
	Syscall sc(*impl_);
	std::uint64_t end = addr + PAGE_ALIGN(len);
	int ret = 0;
	emu_down_write(&impl_->mm->mm.mmap_sem, __FILE__, __LINE__);
	for (std::uint64_t a = addr; a < end && !ret; a += PAGE_SIZE) {
		Mapping *m = proc::find_mapping(impl_->mm.get(),
						static_cast<std::uint32_t>(a));
		if (!m) {
			ret = -ENOMEM;
		} else if (m->anon) {
			m->prot[(a - m->vma->vm_start) >> PAGE_SHIFT] = prot;
		} else {
			unsigned long want = calc_vm_prot_bits(prot);
			unsigned long may = (m->vma->vm_flags >> 4) &
				(VM_READ | VM_WRITE | VM_EXEC);
			if (want & ~may)
				ret = -EACCES;
			else
				m->vma->vm_flags = (m->vma->vm_flags &
						    ~(VM_READ | VM_WRITE |
						      VM_EXEC)) | want;
		}
	}
	emu_up_write(&impl_->mm->mm.mmap_sem, __FILE__, __LINE__);
	return ret;
}

namespace {

bool user_access(ProcImpl &p, uaddr addr, unsigned char *buf,
		 std::size_t len, bool write)
{
	if (p.dead)
		return false;
	if (addr > TASK_SIZE || len > TASK_SIZE - addr)
		return false;
	Syscall sc(p);
	emu_mm *mm = p.mm.get();
	bool ok = true;
	std::size_t done = 0;
	emu_down_read(&mm->mm.mmap_sem, __FILE__, __LINE__);
	while (done < len) {
		std::uint32_t a = addr + static_cast<std::uint32_t>(done);
		std::size_t chunk = PAGE_SIZE - (a & ~PAGE_MASK);
		if (chunk > len - done)
			chunk = len - done;
		unsigned char *host = proc::resolve(mm, a, write);
		if (!host) {
			ok = false;
			break;
		}
		if (write)
			std::memcpy(host, buf + done, chunk);
		else
			std::memcpy(buf + done, host, chunk);
		done += chunk;
	}
	emu_up_read(&mm->mm.mmap_sem, __FILE__, __LINE__);
	return ok;
}

}  // namespace

bool Process::peek(uaddr addr, void *dst, std::size_t len)
{
	return user_access(*impl_, addr, static_cast<unsigned char *>(dst), len,
			   false);
}

bool Process::poke(uaddr addr, const void *src, std::size_t len)
{
	return user_access(*impl_, addr,
			   static_cast<unsigned char *>(const_cast<void *>(src)),
			   len, true);
}

uaddr Process::unmapped_address() const
{
	emu_mm *mm = impl_->mm.get();
	for (uaddr a = 0x00010000; a < kUnmappedBase; a += 0x00100000)
		if (!proc::find_mapping(mm, a))
			return a;
	return 0x00001000;
}

// ---- files ----------------------------------------------------------------------

int Process::open(const char *path)
{
	if (impl_->dead)
		return SYSCALL_KILLED;
	Syscall sc(*impl_);
	emu::check_may_sleep(Site{"sys_open", 0}, "open");
	int err = 0;
	OpenFile *f = proc::open_node(path, &err);
	if (!f && err > 0) {
		// __dentry_open returned ERR_PTR(err) for a positive err,
		// which IS_ERR() does not recognise: do_sys_open goes on
		// with "file" 0x0000000<err> and faults reading its
		// f_path.dentry (offset 12 on i386: after the 8-byte f_u
		// and f_path.mnt).
		printk(KERN_ALERT "BUG: unable to handle kernel NULL pointer "
		       "dereference at %08x\n", static_cast<unsigned>(err + 12));
		impl_->dead = true;
		impl_->exit_process();
		return SYSCALL_KILLED;
	}
	if (!f)
		return err;
	std::lock_guard lk(impl_->fd_mutex);
	int fd = 0;
	while (impl_->fds.count(fd))
		fd++;
	impl_->fds[fd] = f;
	return fd;
}

namespace {

OpenFile *fget(ProcImpl &p, int fd)
{
	std::lock_guard lk(p.fd_mutex);
	auto it = p.fds.find(fd);
	if (it == p.fds.end())
		return nullptr;
	proc::get_file(it->second);
	return it->second;
}

}  // namespace

int Process::close(int fd)
{
	if (impl_->dead)
		return SYSCALL_KILLED;
	Syscall sc(*impl_);
	OpenFile *f;
	{
		std::lock_guard lk(impl_->fd_mutex);
		auto it = impl_->fds.find(fd);
		if (it == impl_->fds.end())
			return -EBADF;
		f = it->second;
		impl_->fds.erase(it);
	}
	proc::fput(f);
	return 0;
}

// sys_ioctl -> do_vfs_ioctl -> vfs_ioctl: the locked ->ioctl runs under the
// big kernel lock; its int result is the system call's result.
long Process::ioctl(int fd, unsigned cmd, unsigned long arg)
{
	if (impl_->dead)
		return SYSCALL_KILLED;
	Syscall sc(*impl_);
	OpenFile *f = fget(*impl_, fd);
	if (!f)
		return -EBADF;
	long error = -ENOTTY;
	const struct file_operations *fops = f->file.f_op;
	if (fops && fops->unlocked_ioctl) {
		error = fops->unlocked_ioctl(&f->file, cmd, arg);
		if (error == -ENOIOCTLCMD)
			error = -EINVAL;
	} else if (fops && fops->ioctl) {
		emu_lock_kernel(__FILE__, __LINE__);
		error = fops->ioctl(f->file.f_path.dentry->d_inode, &f->file,
				    cmd, arg);
		emu_unlock_kernel(__FILE__, __LINE__);
	}
	proc::fput(f);
	lockdep::syscall_exit();
	return error;
}

namespace {

// vfs_read / vfs_write: the file must be open in that direction and have
// the method; rw_verify_area refuses a count over INT_MAX and access_ok a
// range past TASK_SIZE, before the driver is called.
template <typename Method>
long read_write(ProcImpl &p, int fd, uaddr buf, std::size_t count,
		mode_t mode, Method file_operations::*method)
{
	if (p.dead)
		return SYSCALL_KILLED;
	Syscall sc(p);
	OpenFile *f = fget(p, fd);
	if (!f)
		return -EBADF;
	long ret;
	const struct file_operations *fops = f->file.f_op;
	if (!(f->file.f_mode & mode))
		ret = -EBADF;
	else if (!fops || !(fops->*method))
		ret = -EINVAL;
	else if (count > INT_MAX || buf > TASK_SIZE || count > TASK_SIZE - buf)
		ret = count > INT_MAX ? -EINVAL : -EFAULT;
	else
		ret = (fops->*method)(&f->file, reinterpret_cast<char __user *>(
						static_cast<std::uintptr_t>(buf)),
				      count, &f->file.f_pos);
	proc::fput(f);
	return ret;
}

}  // namespace

long Process::read(int fd, uaddr buf, std::size_t count)
{
	return read_write(*impl_, fd, buf, count, FMODE_READ,
			  &file_operations::read);
}

long Process::write(int fd, uaddr buf, std::size_t count)
{
	return read_write(*impl_, fd, buf, count, FMODE_WRITE,
			  &file_operations::write);
}

// do_fsync: the file's ->fsync, -EINVAL without one.
int Process::fsync(int fd)
{
	if (impl_->dead)
		return SYSCALL_KILLED;
	Syscall sc(*impl_);
	OpenFile *f = fget(*impl_, fd);
	if (!f)
		return -EBADF;
	int ret = -EINVAL;
	const struct file_operations *fops = f->file.f_op;
	if (fops && fops->fsync)
		ret = fops->fsync(&f->file, f->file.f_path.dentry, 0);
	proc::fput(f);
	return ret;
}

// do_pollfd with a zero timeout: ->poll gets no poll table; without ->poll
// the mask is DEFAULT_POLLMASK.
unsigned Process::poll(int fd)
{
	if (impl_->dead)
		return POLLNVAL;
	Syscall sc(*impl_);
	OpenFile *f = fget(*impl_, fd);
	if (!f)
		return POLLNVAL;
	unsigned mask = POLLIN | POLLOUT | POLLRDNORM | POLLWRNORM;
	if (f->file.f_op && f->file.f_op->poll)
		mask = f->file.f_op->poll(&f->file, nullptr);
	proc::fput(f);
	return mask;
}

// sys_mmap2 -> do_mmap_pgoff -> mmap_region, with 2.6.27's checks in
// 2.6.27's order.
long long Process::mmap(uaddr addr, std::size_t len, int prot, int flags,
			int fd, unsigned long pgoff)
{
	if (impl_->dead)
		return SYSCALL_KILLED;
	Syscall sc(*impl_);
	OpenFile *f = nullptr;
	if (!(flags & kMapAnonymous)) {
		f = fget(*impl_, fd);
		if (!f)
			return -EBADF;
	}
	emu_mm *mm = impl_->mm.get();
	emu_down_write(&mm->mm.mmap_sem, __FILE__, __LINE__);
	long long ret = 0;
	unsigned long vm_flags = 0;
	std::uint64_t size = PAGE_ALIGN(static_cast<std::uint64_t>(len));
	if (!len) {
		ret = -EINVAL;
	} else if (size == 0 || size > TASK_SIZE) {
		ret = -ENOMEM;
	} else if (pgoff + (size >> PAGE_SHIFT) < pgoff) {
		ret = -EOVERFLOW;
	} else if ((flags & kMapFixed) && (addr & ~PAGE_MASK)) {
		ret = -EINVAL;
	} else {
		if (flags & kMapFixed) {
			if (addr + size > TASK_SIZE)
				ret = -ENOMEM;
			else
				impl_->unmap_range(addr, static_cast<std::uint32_t>(
							   addr + size));
			ret = ret ? ret : addr;
		} else {
			ret = impl_->unmapped_area(addr & PAGE_MASK, size);
		}
	}
	if (ret >= 0) {
		vm_flags = calc_vm_prot_bits(prot) | VM_MAYREAD | VM_MAYWRITE |
			VM_MAYEXEC;
		if (f) {
			switch (flags & kMapType) {
			case MAP_SHARED_:
				if ((prot & PROT_WRITE_) &&
				    !(f->file.f_mode & FMODE_WRITE)) {
					ret = -EACCES;
					break;
				}
				vm_flags |= VM_SHARED | VM_MAYSHARE;
				if (!(f->file.f_mode & FMODE_WRITE))
					vm_flags &= ~(VM_MAYWRITE | VM_SHARED);
				[[fallthrough]];
			case MAP_PRIVATE_:
				if (!(f->file.f_mode & FMODE_READ))
					ret = -EACCES;
				else if (!f->file.f_op || !f->file.f_op->mmap)
					ret = -ENODEV;
				break;
			default:
				ret = -EINVAL;
			}
		} else {
			switch (flags & kMapType) {
			case MAP_SHARED_:
				pgoff = 0;
				vm_flags |= VM_SHARED | VM_MAYSHARE;
				break;
			case MAP_PRIVATE_:
				pgoff = static_cast<unsigned long>(ret) >> PAGE_SHIFT;
				break;
			default:
				ret = -EINVAL;
			}
		}
	}
	if (ret >= 0) {
		// mmap_region: the mapping exists (page tables included)
		// while the driver's ->mmap runs; on failure it is undone.
		auto start = static_cast<std::uint32_t>(ret);
		Mapping *mp = impl_->add_mapping(start, size, vm_flags, prot,
						 f == nullptr);
		vm_area_struct *vma = mp->vma.get();
		vma->vm_page_prot = __pgprot(vm_flags & 0xf);
		vma->vm_pgoff = pgoff;
		int error = 0;
		if (f) {
			vma->vm_file = &f->file;
			proc::get_file(f);
			error = f->file.f_op->mmap(&f->file, vma);
		}
		if (error) {
			proc::zap_pages(mm, mp, start,
					static_cast<std::uint32_t>(vma->vm_end));
			mm->maps.erase(start);
			mm->mm.map_count--;
			proc::fput(f);
			ret = error;
		} else {
			ret = static_cast<long long>(vma->vm_start);
		}
	}
	emu_up_write(&mm->mm.mmap_sem, __FILE__, __LINE__);
	if (f)
		proc::fput(f);
	return ret;
}

int Process::munmap(uaddr addr, std::size_t len)
{
	if (impl_->dead)
		return SYSCALL_KILLED;
	Syscall sc(*impl_);
	if ((addr & ~PAGE_MASK) || addr > TASK_SIZE || len > TASK_SIZE - addr)
		return -EINVAL;
	std::uint64_t size = PAGE_ALIGN(static_cast<std::uint64_t>(len));
	if (size == 0)
		return -EINVAL;
	emu_down_write(&impl_->mm->mm.mmap_sem, __FILE__, __LINE__);
	impl_->unmap_range(addr, static_cast<std::uint32_t>(
				   std::min<std::uint64_t>(addr + size,
							   TASK_SIZE)));
	emu_up_write(&impl_->mm->mm.mmap_sem, __FILE__, __LINE__);
	return 0;
}

}  // namespace emu
