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

#endif /* _LINUX_EMU_RUNTIME_H */
