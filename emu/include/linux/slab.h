/*
 * slab.h - kmalloc and the object caches.
 *
 * DUPLICATED from 2.6.27: the SLAB_* flags, ZERO_SIZE_PTR, the signatures
 * (kmem_cache_create's constructor takes the object only: 2.6.27 removed
 * the cache argument), kzalloc/kcalloc/kmem_cache_zalloc as __GFP_ZERO
 * forms.  CUSTOMISED: each object is host memory, accounted with the call
 * site that allocated it; new objects are filled with POISON_INUSE unless
 * __GFP_ZERO, freed ones with POISON_FREE before release.
 *
 * kmalloc: size 0 gives ZERO_SIZE_PTR; sizes above KMALLOC_MAX_SIZE fail;
 * a sleeping allocation (__GFP_WAIT) calls might_sleep(); __GFP_HIGHMEM
 * is a fatal error (GFP_SLAB_BUG_MASK).  kfree(NULL) and
 * kfree(ZERO_SIZE_PTR) do nothing; freeing anything that kmalloc did not
 * hand out (or twice) is fatal, as is freeing memory that contains a held
 * lock.  ksize() is the requested size.
 *
 * Caches (as mm/slab.c in 2.6.27): kmem_cache_create() with an existing
 * name logs "kmem_cache_create: duplicate cache NAME" and fails (NULL);
 * the name is not copied (the caller keeps it alive while the cache
 * exists, as in the kernel); a constructor runs on every object handed out
 * (the kernel runs it when the slab is built, and objects must be returned
 * constructed, so the difference is not observable to a correct user).
 * Destroying a cache that still has objects is fatal.  Failure injection:
 * emu::Alloc::Kmalloc for kmalloc/kzalloc/kcalloc/kstrdup, Alloc::Slab
 * for kmem_cache_alloc, Alloc::SlabCreate for kmem_cache_create.
 */
#ifndef _LINUX_SLAB_H
#define _LINUX_SLAB_H

#include <linux/gfp.h>
#include <linux/kernel.h>
#include <linux/types.h>
#include <linux/emu_runtime.h>

#define SLAB_DEBUG_FREE		0x00000100UL	/* DEBUG: Perform (expensive) checks on free */
#define SLAB_RED_ZONE		0x00000400UL	/* DEBUG: Red zone objs in a cache */
#define SLAB_POISON		0x00000800UL	/* DEBUG: Poison objects */
#define SLAB_HWCACHE_ALIGN	0x00002000UL	/* Align objs on cache lines */
#define SLAB_CACHE_DMA		0x00004000UL	/* Use GFP_DMA memory */
#define SLAB_STORE_USER		0x00010000UL	/* DEBUG: Store the last owner for bug hunting */
#define SLAB_PANIC		0x00040000UL	/* Panic if kmem_cache_create() fails */
#define SLAB_DESTROY_BY_RCU	0x00080000UL	/* Defer freeing slabs to RCU */
#define SLAB_MEM_SPREAD		0x00100000UL	/* Spread some memory over cpuset */
#define SLAB_TRACE		0x00200000UL	/* Trace allocations and frees */
#define SLAB_DEBUG_OBJECTS	0x00000000UL
#define SLAB_RECLAIM_ACCOUNT	0x00020000UL	/* Objects are reclaimable */
#define SLAB_TEMPORARY		SLAB_RECLAIM_ACCOUNT	/* Objects are short-lived */

#define ZERO_SIZE_PTR ((void *)16)
#define ZERO_OR_NULL_PTR(x) ((unsigned long)(x) <= \
				(unsigned long)ZERO_SIZE_PTR)

/* The largest kmalloc: 2^(MAX_ORDER - 1) pages. */
#define KMALLOC_SHIFT_HIGH	(MAX_ORDER + 12 - 1)
#define KMALLOC_MAX_SIZE	(1UL << KMALLOC_SHIFT_HIGH)

struct kmem_cache;

EMU_BEGIN_DECLS
void *emu_kmalloc(size_t size, gfp_t flags, EMU_SITE_PARAMS);
void emu_kfree(const void *objp, EMU_SITE_PARAMS);
size_t ksize(const void *objp);
char *emu_kstrdup(const char *s, gfp_t gfp, EMU_SITE_PARAMS);
void *emu_kmemdup(const void *src, size_t len, gfp_t gfp, EMU_SITE_PARAMS);

struct kmem_cache *emu_kmem_cache_create(const char *name, size_t size,
					 size_t align, unsigned long flags,
					 void (*ctor)(void *),
					 EMU_SITE_PARAMS);
void emu_kmem_cache_destroy(struct kmem_cache *cachep, EMU_SITE_PARAMS);
void *emu_kmem_cache_alloc(struct kmem_cache *cachep, gfp_t flags,
			   EMU_SITE_PARAMS);
void emu_kmem_cache_free(struct kmem_cache *cachep, void *objp,
			 EMU_SITE_PARAMS);
unsigned int kmem_cache_size(struct kmem_cache *cachep);
const char *kmem_cache_name(struct kmem_cache *cachep);
int kmem_cache_shrink(struct kmem_cache *cachep);
EMU_END_DECLS

#define kmalloc(size, flags)	emu_kmalloc((size), (flags), EMU_SITE)
#define kzalloc(size, flags) \
	emu_kmalloc((size), (flags) | __GFP_ZERO, EMU_SITE)
#define kcalloc(n, size, flags) \
	((size) != 0 && (n) > ULONG_MAX / (size) ? NULL : \
	 emu_kmalloc((n) * (size), (flags) | __GFP_ZERO, EMU_SITE))
#define kfree(objp)		emu_kfree((objp), EMU_SITE)
#define kstrdup(s, gfp)		emu_kstrdup((s), (gfp), EMU_SITE)
#define kmemdup(src, len, gfp)	emu_kmemdup((src), (len), (gfp), EMU_SITE)
#define kmalloc_node(size, flags, node) kmalloc(size, flags)

#define kmem_cache_create(name, size, align, flags, ctor) \
	emu_kmem_cache_create((name), (size), (align), (flags), (ctor), \
			      EMU_SITE)
#define kmem_cache_destroy(cachep) emu_kmem_cache_destroy((cachep), EMU_SITE)
#define kmem_cache_alloc(cachep, flags) \
	emu_kmem_cache_alloc((cachep), (flags), EMU_SITE)
#define kmem_cache_zalloc(cachep, flags) \
	emu_kmem_cache_alloc((cachep), (flags) | __GFP_ZERO, EMU_SITE)
#define kmem_cache_free(cachep, objp) \
	emu_kmem_cache_free((cachep), (objp), EMU_SITE)

/*
 * Please use this macro to create slab caches. Simply specify the
 * name of the structure and maybe some flags that are listed above.
 */
#define KMEM_CACHE(__struct, __flags) kmem_cache_create(#__struct,\
		sizeof(struct __struct), __alignof__(struct __struct),\
		(__flags), NULL)

#endif	/* _LINUX_SLAB_H */
