// Named object caches (kmem_cache_*), with mm/slab.c's rules of 2.6.27:
// duplicate names are refused, the name is the caller's string (not
// copied), the constructor takes the object.  Each object is host memory,
// accounted per cache; destroying a cache with live objects is fatal.
#include <list>
#include <unordered_map>

#include "core.hpp"
#include "checks.hpp"

struct kmem_cache {
	const char *name;          // the creator's string, as in the kernel
	size_t size;
	size_t align;
	unsigned long flags;
	void (*ctor)(void *);
	emu::Site created;
	long live = 0;             // guarded by the cache registry
};

namespace {

struct CacheRegistry {
	std::mutex m;
	std::list<kmem_cache *> caches;
	std::unordered_map<const void *, kmem_cache *> objects;
};

CacheRegistry &creg()
{
	static auto *r = new CacheRegistry;
	return *r;
}

}  // namespace

extern "C" struct kmem_cache *
emu_kmem_cache_create(const char *name, size_t size, size_t align,
		      unsigned long flags, void (*ctor)(void *),
		      const char *file, int line)
{
	emu::Site s = emu::site(file, line);
	if (!name || emu_in_irq() || emu_in_softirq() ||
	    size < sizeof(void *) || size > KMALLOC_MAX_SIZE) {
		printk(KERN_ERR "%s: Early error in slab %s\n",
		       "kmem_cache_create", name);
		emu_bug(file, line);
	}
	emu::check_may_sleep(s, "kmem_cache_create");
	bool duplicate = false;
	{
		emu::Invisible inv;
		std::lock_guard lk(creg().m);
		for (kmem_cache *c : creg().caches)
			if (std::strcmp(c->name, name) == 0)
				duplicate = true;
	}
	if (duplicate) {
		printk(KERN_ERR "kmem_cache_create: duplicate cache %s\n", name);
		dump_stack();
		if (flags & SLAB_PANIC)
			panic("kmem_cache_create(): failed to create slab `%s'\n",
			      name);
		return nullptr;
	}
	if (emu::inject_failure(emu::Alloc::SlabCreate)) {
		if (flags & SLAB_PANIC)
			panic("kmem_cache_create(): failed to create slab `%s'\n",
			      name);
		return nullptr;
	}
	auto *c = new kmem_cache{name, size, align, flags, ctor, s};
	{
		emu::Invisible inv;
		std::lock_guard lk(creg().m);
		creg().caches.push_back(c);
	}
	emu::account_add(emu::Obj::SlabCache, c, 0, s,
			 std::string("slab cache ") + name);
	return c;
}

extern "C" void emu_kmem_cache_destroy(struct kmem_cache *cachep,
				       const char *file, int line)
{
	emu::Site s = emu::site(file, line);
	if (!cachep || emu_in_irq() || emu_in_softirq())
		emu_bug(file, line);
	emu::check_may_sleep(s, "kmem_cache_destroy");
	{
		emu::Invisible inv;
		std::lock_guard lk(creg().m);
		if (cachep->live) {
			std::string msg = std::string("kmem_cache_destroy of "
						      "cache ") + cachep->name +
				" that still has " + std::to_string(cachep->live) +
				" objects";
			emu::violation(s, msg);
		}
		creg().caches.remove(cachep);
	}
	if (!emu::account_remove(emu::Obj::SlabCache, cachep))
		emu::violation(s, "kmem_cache_destroy of a cache that does "
			       "not exist (destroyed twice?)");
	delete cachep;
}

extern "C" void *emu_kmem_cache_alloc(struct kmem_cache *cachep, gfp_t flags,
				      const char *file, int line)
{
	emu::Site s = emu::site(file, line);
	if (flags & GFP_SLAB_BUG_MASK)
		emu::violation(s, "kmem_cache_alloc with __GFP_HIGHMEM or "
			       "__GFP_DMA32");
	if (flags & __GFP_WAIT)
		emu::check_may_sleep(s, "kmem_cache_alloc");
	emu::check_alloc_context(s, flags, "kmem_cache_alloc");
	if (emu::inject_failure(emu::Alloc::Slab))
		return nullptr;
	size_t align = cachep->align > 16 ? cachep->align : 16;
	size_t bytes = (cachep->size + align - 1) / align * align;
	void *obj = std::aligned_alloc(align, bytes);
	if (!obj)
		return nullptr;
	std::memset(obj, POISON_INUSE, cachep->size);
	if (cachep->ctor)
		cachep->ctor(obj);
	if (flags & __GFP_ZERO)
		std::memset(obj, 0, cachep->size);
	{
		emu::Invisible inv;
		std::lock_guard lk(creg().m);
		creg().objects[obj] = cachep;
		cachep->live++;
	}
	emu::account_add(emu::Obj::SlabObject, obj,
			 static_cast<long>(cachep->size), s,
			 std::string("slab object of ") + cachep->name + " (" +
			 std::to_string(cachep->size) + " bytes)");
	return obj;
}

extern "C" void emu_kmem_cache_free(struct kmem_cache *cachep, void *objp,
				    const char *file, int line)
{
	emu::Site s = emu::site(file, line);
	if (!objp)
		emu::violation(s, "kmem_cache_free of NULL");
	{
		emu::Invisible inv;
		std::lock_guard lk(creg().m);
		auto it = creg().objects.find(objp);
		if (it == creg().objects.end())
			emu::violation(s, "kmem_cache_free of an object that "
				       "is not allocated (double free?)");
		if (it->second != cachep)
			emu::violation(s, std::string("kmem_cache_free to "
						      "cache ") +
				       cachep->name + " of an object of cache " +
				       it->second->name);
		creg().objects.erase(it);
		cachep->live--;
	}
	emu::check_no_held_lock_in(objp, cachep->size, s);
	emu::account_remove(emu::Obj::SlabObject, objp);
	std::memset(objp, POISON_FREE, cachep->size);
	std::free(objp);
}

extern "C" unsigned int kmem_cache_size(struct kmem_cache *cachep)
{
	return static_cast<unsigned int>(cachep->size);
}

extern "C" const char *kmem_cache_name(struct kmem_cache *cachep)
{
	return cachep->name;
}

extern "C" int kmem_cache_shrink(struct kmem_cache *cachep)
{
	(void)cachep;
	return 0;
}
