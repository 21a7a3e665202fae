// Character devices, device nodes and open files: register_chrdev,
// unregister_chrdev, emu::mknod, and the open/release halves of the file
// system (chrdev_open, __dentry_open, __fput) of 2.6.27.
#include "process_internal.hpp"
#include "block_internal.hpp"

namespace {

std::mutex g_dev_mutex;   // chrdevs_lock / the node table

std::map<unsigned, emu::proc::Chrdev> &chrdevs()
{
	static auto *m = new std::map<unsigned, emu::proc::Chrdev>;
	return *m;
}

// Device nodes: path -> inode (never freed; an inode outlives its files).
std::map<std::string, struct inode *> &nodes()
{
	static auto *m = new std::map<std::string, struct inode *>;
	return *m;
}

}  // namespace

// register_chrdev(): major 0 asks for a free major, searched downward from
// 254 as __register_chrdev_region does; a major in use gives -EBUSY.  The
// device covers minors 0..255, and its cdev is owned by fops->owner.
extern "C" int register_chrdev(unsigned int major, const char *name,
			       const struct file_operations *fops)
{
	emu::check_may_sleep(emu::Site{"register_chrdev", 0}, "register_chrdev");
	std::lock_guard lk(g_dev_mutex);
	unsigned chosen = major;
	if (major == 0) {
		for (chosen = CHRDEV_MAJOR_HASH_SIZE - 1; chosen > 0; chosen--)
			if (!chrdevs().count(chosen))
				break;
		if (chosen == 0)
			return -EBUSY;
	} else if (chrdevs().count(major)) {
		return -EBUSY;
	}
	chrdevs()[chosen] = emu::proc::Chrdev{name ? name : "", fops,
					      fops ? fops->owner : nullptr};
	return major == 0 ? static_cast<int>(chosen) : 0;
}

// unregister_chrdev(): finds the registration by major (minors 0..255)
// alone, as 2.6.27 does; the name is not compared.  Open files keep their
// file operations.
extern "C" void unregister_chrdev(unsigned int major, const char *name)
{
	(void)name;
	std::lock_guard lk(g_dev_mutex);
	chrdevs().erase(major);
}

namespace emu {

void mknod(const char *path, unsigned major, unsigned minor)
{
	std::lock_guard lk(g_dev_mutex);
	struct inode *&inode = nodes()[path];
	if (!inode) {
		inode = new struct inode();
		emu_mutex_init_key(&inode->i_mutex, "&inode->i_mutex",
				   __FILE__, __LINE__);
		atomic_set(&inode->i_count, 1);
		inode->i_nlink = 1;
		inode->i_mode = S_IFCHR | 0600;
	}
	inode->i_rdev = MKDEV(major, minor);
}

void mknod_block(const char *path, unsigned major, unsigned minor)
{
	mknod(path, major, minor);
	std::lock_guard lk(g_dev_mutex);
	nodes()[path]->i_mode = S_IFBLK | 0600;
}

}  // namespace emu

namespace emu::proc {

namespace {

// A struct file as __dentry_open makes it for an open(O_RDWR) of inode,
// with one reference and no f_op yet.
OpenFile *new_open_file(struct inode *inode)
{
	auto *f = new OpenFile;
	f->inode = inode;
	f->dentry.d_inode = inode;
	f->file.f_path.dentry = &f->dentry;
	f->file.f_flags = 02;   // O_RDWR
	f->file.f_mode = FMODE_READ | FMODE_WRITE | FMODE_LSEEK |
		FMODE_PREAD | FMODE_PWRITE;
	atomic_long_set(&f->file.f_count, 1);
	INIT_LIST_HEAD(&f->file.fu_list);
	return f;
}

// A block device node: the block device files' operations (no module
// reference: the emulated disks belong to no module).
OpenFile *open_block_node(struct inode *inode, int *err)
{
	OpenFile *f = new_open_file(inode);
	f->file.f_op = emu::blk::block_fops();
	int ret = f->file.f_op->open(inode, &f->file);
	if (ret) {
		delete f;
		*err = ret;
		return nullptr;
	}
	*err = 0;
	return f;
}

}  // namespace

OpenFile *open_node(const char *path, int *err)
{
	struct inode *inode = nullptr;
	Chrdev dev{};
	bool found = false;
	{
		std::lock_guard lk(g_dev_mutex);
		auto n = nodes().find(path);
		if (n == nodes().end()) {
			*err = -ENOENT;
			return nullptr;
		}
		inode = n->second;
		if (S_ISBLK(inode->i_mode))
			found = true;
		auto c = chrdevs().find(MAJOR(inode->i_rdev));
		if (c != chrdevs().end() && MINOR(inode->i_rdev) < 256) {
			dev = c->second;
			found = true;
		}
	}
	if (found && S_ISBLK(inode->i_mode))
		return open_block_node(inode, err);
	// chrdev_open: find the cdev, take its reference, then the file
	// operations' (both pin the owner module).
	if (!found) {
		*err = -ENXIO;
		return nullptr;
	}
	if (!try_module_get(dev.owner)) {
		*err = -ENXIO;
		return nullptr;
	}
	OpenFile *f = new_open_file(inode);
	f->cdev_owner = dev.owner;
	f->file.f_op = fops_get(dev.fops);
	if (!f->file.f_op) {
		module_put(dev.owner);
		delete f;
		*err = -ENXIO;
		return nullptr;
	}
	int ret = 0;
	if (f->file.f_op->open)
		ret = f->file.f_op->open(inode, &f->file);
	if (ret) {
		// chrdev_open's cdev_put, then __dentry_open's cleanup_all.
		module_put(dev.owner);
		fops_put(f->file.f_op);
		delete f;
		*err = ret;
		return nullptr;
	}
	*err = 0;
	return f;
}

void get_file(OpenFile *f)
{
	atomic_long_inc(&f->file.f_count);
}

// fput(): the last reference runs __fput: ->release, then the cdev's and
// the file operations' module references are dropped.
void fput(OpenFile *f)
{
	if (__atomic_sub_fetch(&f->file.f_count.counter, 1, __ATOMIC_SEQ_CST))
		return;
	emu::check_may_sleep(emu::Site{"fput", 0}, "__fput");
	const struct file_operations *fops = f->file.f_op;
	if (fops && fops->release)
		fops->release(f->inode, &f->file);
	module_put(f->cdev_owner);
	fops_put(fops);
	delete f;
}

}  // namespace emu::proc
