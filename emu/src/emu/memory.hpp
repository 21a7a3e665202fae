// Accounting of everything the emulated kernel hands out, so that a test can
// assert that nothing leaked.
#pragma once

#include <string>
#include <vector>

namespace emu {

struct Usage {
	long kmalloc_objects = 0;
	long kmalloc_bytes = 0;
	long vmalloc_objects = 0;
	long vmalloc_bytes = 0;
	long pages = 0;            // order-0 pages held (higher orders count 2^order)
	long slab_caches = 0;
	long slab_objects = 0;
	long bios = 0;
	long buffer_heads = 0;
	long threads = 0;          // kernel threads not yet exited
	long kmaps = 0;            // kmap() without kunmap(), all threads
	bool operator==(const Usage &) const = default;
};

Usage usage();
// One human-readable line per object still held, with the call site that
// allocated it ("kmalloc 64 bytes at core/kivlib.c:123").  Empty when clean.
std::vector<std::string> leaks();

}  // namespace emu
