/*
 * emu_runtime.h - glue between the emulated kernel headers and the runtime.
 *
 * CUSTOMISED: not a 2.6.27 header.  The emulated headers declare the
 * kernel's interfaces with 2.6.27's names and argument lists; where the
 * runtime needs the caller's location (allocation accounting, context
 * checks), the interface is a macro that adds __FILE__ and __LINE__ and calls
 * an emu_-prefixed C function of the runtime (emu/src).  The driver never
 * includes this header itself.
 */
#ifndef _LINUX_EMU_RUNTIME_H
#define _LINUX_EMU_RUNTIME_H

#ifdef __cplusplus
#define EMU_BEGIN_DECLS	extern "C" {
#define EMU_END_DECLS	}
#else
#define EMU_BEGIN_DECLS
#define EMU_END_DECLS
#endif

/* The call site handed to the runtime by the wrapping macros. */
#define EMU_SITE	__FILE__, __LINE__
#define EMU_SITE_PARAMS	const char *emu_file, int emu_line

/*
 * The member name `private` of 2.6.27's structures is a C++ keyword: the
 * member is spelled private_ when the header is compiled as C++ (same
 * layout).
 */
#ifdef __cplusplus
#define EMU_PRIVATE private_
#else
#define EMU_PRIVATE private
#endif

/*
 * Storage for one host mutex inside a kernel structure.  All-zero bytes are
 * an unlocked mutex, so static initialisers need not mention it; the
 * runtime checks at start-up that the host's mutex fits.
 */
struct emu_raw_lock {
	unsigned long long opaque[6];
};

/*
 * The lock validator's key of a lock (lockdep's lock_class_key): where the
 * lock was initialised (spin_lock_init, mutex_init, init_rwsem, sema_init
 * or a static initialiser such as DEFINE_SPINLOCK), and the expression
 * that named it.  Every lock initialised at one site belongs to one class;
 * `cls` caches the class once the runtime has resolved it (0: not yet).
 * A lock that is all-zero memory (kzalloc'ed) has no site: its class is
 * the site of its first acquisition.  `flags` bit 0 marks a semaphore that
 * is a signal rather than a lock (initialised with a count other than 1).
 */
struct emu_lock_key {
	const char *name;
	const char *file;
	int line;
	int cls;
	int flags;
};

#define EMU_LOCK_KEY_INIT(lockname)	{ #lockname, __FILE__, __LINE__, 0, 0 }
#define EMU_LOCK_KEY_SIGNAL	1

#endif /* _LINUX_EMU_RUNTIME_H */
