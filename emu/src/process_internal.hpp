// Internals of the process model shared by chrdev.cpp (character devices,
// nodes, open files), process.cpp (system calls) and uaccess.cpp (the
// address space: faults and user-memory access).  Include after core.hpp.
#pragma once

#include <map>
#include <memory>
#include <set>

#include "core.hpp"
#include "emu/process.hpp"

namespace emu::proc {

// An open file: the kernel's struct file and what __fput needs.  Counted
// by file.f_count (the descriptor and every mapping hold a reference);
// freed by fput() when the count reaches zero.
struct OpenFile {
	struct file file {};
	struct dentry dentry {};
	struct inode *inode = nullptr;
	struct module *cdev_owner = nullptr;   // the cdev's reference
};

// One mapping (vm_area_struct) of an address space.
struct Mapping {
	std::unique_ptr<vm_area_struct> vma;
	bool anon = false;
	std::vector<unsigned char> anon_data;  // anonymous: the whole region
	std::vector<int> prot;                 // anonymous: PROT_* per page
	// File mappings, guarded by emu_mm::ptl: pages supplied by the
	// driver (a reference held each), and private pages (copies made
	// on a write to a private mapping, or zero pages without vm_ops).
	std::map<unsigned long, struct page *> pages;
	std::map<unsigned long, std::unique_ptr<unsigned char[]>> private_pages;
};

// Character devices (register_chrdev) and device nodes (mknod).
struct Chrdev {
	std::string name;
	const struct file_operations *fops;
	struct module *owner;
};

// open(): chrdev_open + __dentry_open.  Returns the new file, or sets
// *err to the negative error, or to a positive value when the driver's
// open returned one (the caller then oopses like 2.6.27).
OpenFile *open_node(const char *path, int *err);
void get_file(OpenFile *f);
void fput(OpenFile *f);

// The address space lookups (uaccess.cpp).  Callers hold mmap_sem.
Mapping *find_mapping(emu_mm *mm, std::uint32_t addr);
// Host address of the byte at `addr` for a read or write by the process
// (faulting the page in), or nullptr when the access faults.
unsigned char *resolve(emu_mm *mm, std::uint32_t addr, bool write);
// Drop the pages of [start, end) of a file mapping (zap_page_range).
void zap_pages(emu_mm *mm, Mapping *m, std::uint32_t start, std::uint32_t end);

}  // namespace emu::proc

// The runtime's part of an address space (mm_struct.emu).
struct emu_mm {
	struct mm_struct mm {};
	std::mutex ptl;                                    // page tables
	std::map<std::uint32_t, std::unique_ptr<emu::proc::Mapping>> maps;
};
