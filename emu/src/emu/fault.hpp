// Failure injection for the emulated kernel's allocators.
//
// Every allocator of the emulation counts its calls per kind and can be told
// to fail: the Nth call from now, or every call after the first N.  A failed
// call behaves as the real kernel's does (NULL, or the negative error of the
// operation) and leaves nothing allocated.
#pragma once

namespace emu {

enum class Alloc {
	Kmalloc,     // kmalloc, kzalloc
	Vmalloc,     // vmalloc
	Pages,       // alloc_pages, alloc_page, __get_free_pages
	Slab,        // kmem_cache_alloc
	SlabCreate,  // kmem_cache_create
	Bio,         // bio_alloc
	BufferHead,  // alloc_buffer_head
	Thread,      // kernel_thread (fails with -ENOMEM)
	Count_
};

// The nth call of that kind from now on fails (n >= 1); once.
void fail_nth(Alloc kind, unsigned n);
// Every call of that kind after the next n calls fails, until reset.
void fail_after(Alloc kind, unsigned n);
// No more injected failures of that kind / of any kind.
void fail_clear(Alloc kind);
void fail_reset();
// Calls of that kind made so far (failed ones included).
unsigned long alloc_calls(Alloc kind);

// RAII: fail_nth / fail_after for one scope, cleared at its end.
class FailScope {
public:
	static FailScope nth(Alloc kind, unsigned n);
	static FailScope after(Alloc kind, unsigned n);
	FailScope(FailScope &&) noexcept;
	FailScope(const FailScope &) = delete;
	FailScope &operator=(const FailScope &) = delete;
	~FailScope();
private:
	explicit FailScope(Alloc kind) : kind_(kind) {}
	Alloc kind_;
	bool active_ = true;
};

}  // namespace emu
