// bench_backup_memory: the memory a backup holds, read from the emulated
// kernel's allocation accounting (every kmalloc, vmalloc, page and slab
// object the driver holds, with the call site that allocated it; objects
// allocated in core/ or kernel/ only).
//
//   per cached block   a backup in state 4 of a 64 MiB partition; kCached
//                      first writes to distinct blocks make kbackupd copy
//                      kCached blocks into the block cache.  The driver's
//                      holdings after the writes minus before, by kind,
//                      divided by the blocks cached.  For 4096- and
//                      1024-byte blocks.
//   largest allocation the biggest single kmalloc (physically contiguous)
//                      and the biggest single vmalloc (virtually
//                      contiguous) a backup holds, over its life: after the
//                      open and START_BACKUP, after the mmap of the largest
//                      read buffer, after SNAPSHOT with change tracking
//                      starting (its session map), after a first write
//                      (a cache entry) and after a READ_BLOCKS run; for
//                      1 GiB and 2 TiB partitions of 4096- and 1024-byte
//                      blocks.
//
// The host is 64-bit: arrays of pointers (the bitmaps' page tables, the
// bucket table, the read requests' table, the read buffers' page arrays
// in the backup record) are twice their size on i386.  The sites printed
// say which is which; docs/PERFORMANCE.md gives the i386 figures.
#include <map>

#include "backup_bench.hpp"

namespace {

struct Object {
	std::string kind;   // kmalloc, vmalloc, pages, slab:<cache>, other
	long bytes = 0;
	std::string site;
};

// Whether s starts with prefix; then *rest is what follows it.
bool starts(const std::string &s, const char *prefix, std::string *rest)
{
	const std::size_t n = std::strlen(prefix);
	if (s.compare(0, n, prefix) != 0)
		return false;
	*rest = s.substr(n);
	return true;
}

// The driver's objects now, from emu::leaks() ("<what> at <site>"):
// "kmalloc N bytes", "vmalloc N bytes", "slab object of NAME (N bytes)",
// "pages order N[ (highmem)]", or another kind (bio, buffer_head, ...).
std::vector<Object> census()
{
	std::vector<Object> out;
	for (const std::string &l : emu::leaks()) {
		const auto at = l.rfind(" at ");
		if (at == std::string::npos)
			continue;
		Object o;
		o.site = l.substr(at + 4);
		if (o.site.rfind("core/", 0) != 0 &&
		    o.site.rfind("kernel/", 0) != 0)
			continue;
		const std::string what = l.substr(0, at);
		std::string rest;
		if (starts(what, "kmalloc ", &rest) ||
		    starts(what, "vmalloc ", &rest)) {
			o.kind = what.substr(0, 7);
			o.bytes = std::stol(rest);
		} else if (starts(what, "slab object of ", &rest)) {
			const auto paren = rest.rfind(" (");
			o.kind = "slab " + rest.substr(0, 5);
			o.bytes = paren == std::string::npos
					  ? 0
					  : std::stol(rest.substr(paren + 2));
		} else if (starts(what, "pages order ", &rest)) {
			o.kind = "pages";
			o.bytes = 4096L << std::stol(rest);
		} else {
			o.kind = what.substr(0, what.find(' '));
		}
		out.push_back(o);
	}
	return out;
}

std::map<std::string, long> bytes_by_kind(const std::vector<Object> &objs)
{
	std::map<std::string, long> m;
	for (const Object &o : objs)
		m[o.kind] += o.bytes;
	return m;
}

void per_cached_block(unsigned block_size)
{
	constexpr std::uint32_t kCached = 2048;
	bb::MachineConfig c;
	c.block_size = block_size;
	c.fill = false;
	bb::Machine m(c);
	bb::Backup b(m);
	b.snapshot();
	const auto before = bytes_by_kind(census());
	std::vector<std::byte> data(block_size, std::byte{0x5a});
	for (std::uint32_t n = 0; n < kCached; n++)
		if (m.fs->write_block(n, data) != 0)
			bb::die("bench: write_block failed");
	if (m.fs->sync() != 0)
		bb::die("bench: sync failed");
	const auto after = bytes_by_kind(census());
	const bb::CloseStats s = b.close();
	if (s.total_cached != long(kCached))
		bb::die("bench: kbackupd did not cache every block written");

	std::printf("%u-byte blocks, %u blocks cached (state 4, 64 MiB "
		    "partition):\n", block_size, kCached);
	long total = 0;
	std::map<std::string, long> kinds = before;
	kinds.insert(after.begin(), after.end());
	for (const auto &[kind, unused] : kinds) {
		(void)unused;
		const long d = (after.count(kind) ? after.at(kind) : 0) -
			       (before.count(kind) ? before.at(kind) : 0);
		if (!d)
			continue;
		total += d;
		std::printf("  %-12s %8.1f bytes per cached block\n",
			    kind.c_str(), double(d) / kCached);
	}
	std::printf("  total        %8.1f bytes per cached block (%.3f x the "
		    "block size)\n", double(total) / kCached,
		    double(total) / kCached / block_size);
}

struct Largest {
	long bytes = 0;
	std::string site;
	std::string when;
};

void largest_allocation(std::uint64_t sectors, unsigned block_size,
			const char *label)
{
	bb::MachineConfig c;
	c.p1_sectors = sectors;
	c.block_size = block_size;
	c.fill = false;
	bb::Machine m(c);

	Largest km, vm;
	long peak_total = 0;
	auto look = [&](const char *when) {
		long total = 0;
		for (const Object &o : census()) {
			total += o.bytes;
			Largest *l = o.kind == "kmalloc"   ? &km
				     : o.kind == "vmalloc" ? &vm
							   : nullptr;
			if (l && o.bytes > l->bytes)
				*l = {o.bytes, o.site, when};
		}
		peak_total = std::max(peak_total, total);
	};

	{
		bb::Backup b(m, 1024);
		look("after START_BACKUP and mmap");
		b.snapshot();
		look("after SNAPSHOT");
		std::vector<std::byte> data(block_size, std::byte{0x5a});
		if (m.fs->write_block(0, data) != 0 || m.fs->sync() != 0)
			bb::die("bench: write failed");
		look("after a first write");
		if (b.dev.read_blocks(0, b.run_blocks, b.map.address()) !=
		    corvalin::Result::Ok)
			bb::die("bench: READ_BLOCKS failed");
		look("after READ_BLOCKS");
		(void)b.close();
	}
	std::printf("%s partition, %u-byte blocks (%u blocks):\n", label,
		    block_size, m.blocks);
	std::printf("  largest kmalloc %8ld bytes at %s (%s)\n", km.bytes,
		    km.site.c_str(), km.when.c_str());
	std::printf("  largest vmalloc %8ld bytes at %s (%s)\n", vm.bytes,
		    vm.site.c_str(), vm.when.c_str());
	std::printf("  all the driver held at its peak: %.1f MiB\n",
		    double(peak_total) / (1 << 20));
}

}  // namespace

int main()
{
	bb::print_header("bench_backup_memory",
			 "memory per cached block, largest contiguous "
			 "allocation");
	per_cached_block(4096);
	per_cached_block(1024);
	constexpr std::uint64_t GiB = 2097152;   // sectors
	largest_allocation(1 * GiB, 4096, "1 GiB");
	largest_allocation(1 * GiB, 1024, "1 GiB");
	largest_allocation(2048 * GiB, 4096, "2 TiB");
	largest_allocation(2048 * GiB, 1024, "2 TiB");
	return 0;
}
