/*
 * kernel.h - printk, formatting, BUG/WARN, min/max and friends.
 *
 * DUPLICATED from 2.6.27: the limits, ALIGN, ARRAY_SIZE, DIV_ROUND_UP,
 * roundup, the KERN_* level tokens, min/max/min_t/max_t/clamp,
 * container_of, BUILD_BUG_ON, BUG_ON/WARN_ON's contracts.
 * CUSTOMISED: printk() logs into the emulation's ring with 2.6.27's line
 * discipline (see emu/src/emu/log.hpp); vsnprintf and its family follow
 * the kernel's lib/vsprintf.c, not the C library (their C symbols carry an
 * emu_ prefix so that the rest of the program keeps the C library's);
 * BUG() logs "kernel BUG at FILE:LINE!" and aborts the process; WARN_ON()
 * logs the kernel's two warning lines (no stack dump); might_sleep() is a
 * context check that is fatal when it fails.
 */
#ifndef _LINUX_KERNEL_H
#define _LINUX_KERNEL_H

#include <stdarg.h>
#include <linux/stddef.h>
#include <linux/types.h>
#include <linux/compiler.h>
#include <linux/emu_runtime.h>

#define USHORT_MAX	((u16)(~0U))
#define SHORT_MAX	((s16)(USHORT_MAX>>1))
#define SHORT_MIN	(-SHORT_MAX - 1)
#ifdef __cplusplus
#include <limits.h>
#endif
#ifndef INT_MAX
#define INT_MAX		((int)(~0U>>1))
#define INT_MIN		(-INT_MAX - 1)
#define UINT_MAX	(~0U)
#define LONG_MAX	((long)(~0UL>>1))
#define LONG_MIN	(-LONG_MAX - 1)
#define ULONG_MAX	(~0UL)
#define LLONG_MAX	((long long)(~0ULL>>1))
#define LLONG_MIN	(-LLONG_MAX - 1)
#define ULLONG_MAX	(~0ULL)
#endif

#define STACK_MAGIC	0xdeadbeef

#define ALIGN(x, a)		__ALIGN_MASK(x, (__typeof__(x))(a) - 1)
#define __ALIGN_MASK(x, mask)	(((x) + (mask)) & ~(mask))
#define PTR_ALIGN(p, a)		((__typeof__(p))ALIGN((unsigned long)(p), (a)))
#define IS_ALIGNED(x, a)	(((x) & ((__typeof__(x))(a) - 1)) == 0)

#ifdef __cplusplus
#define __emu_must_be_array(a) 0
#else
#define __emu_must_be_array(a) \
	BUILD_BUG_ON_ZERO(__builtin_types_compatible_p(__typeof__(a), \
						       __typeof__(&(a)[0])))
#endif
#define ARRAY_SIZE(arr) \
	(sizeof(arr) / sizeof((arr)[0]) + __emu_must_be_array(arr))

#define FIELD_SIZEOF(t, f) (sizeof(((t *)0)->f))
#define DIV_ROUND_UP(n, d) (((n) + (d) - 1) / (d))
#define roundup(x, y) ((((x) + ((y) - 1)) / (y)) * (y))

#define _RET_IP_	(unsigned long)__builtin_return_address(0)

#define upper_32_bits(n) ((u32)(((n) >> 16) >> 16))
#define lower_32_bits(n) ((u32)(n))

#define	KERN_EMERG	"<0>"	/* system is unusable			*/
#define	KERN_ALERT	"<1>"	/* action must be taken immediately	*/
#define	KERN_CRIT	"<2>"	/* critical conditions			*/
#define	KERN_ERR	"<3>"	/* error conditions			*/
#define	KERN_WARNING	"<4>"	/* warning conditions			*/
#define	KERN_NOTICE	"<5>"	/* normal but significant condition	*/
#define	KERN_INFO	"<6>"	/* informational			*/
#define	KERN_DEBUG	"<7>"	/* debug-level messages			*/
#define	KERN_CONT	""

EMU_BEGIN_DECLS

int printk(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
int vprintk(const char *fmt, va_list args)
	__attribute__((format(printf, 1, 0)));
int printk_ratelimit(void);

int emu_vsnprintf(char *buf, size_t size, const char *fmt, va_list args)
	__attribute__((format(printf, 3, 0)));
int emu_vscnprintf(char *buf, size_t size, const char *fmt, va_list args)
	__attribute__((format(printf, 3, 0)));
int emu_snprintf(char *buf, size_t size, const char *fmt, ...)
	__attribute__((format(printf, 3, 4)));
int emu_scnprintf(char *buf, size_t size, const char *fmt, ...)
	__attribute__((format(printf, 3, 4)));
int emu_vsprintf(char *buf, const char *fmt, va_list args)
	__attribute__((format(printf, 2, 0)));
int emu_sprintf(char *buf, const char *fmt, ...)
	__attribute__((format(printf, 2, 3)));
char *emu_kasprintf(gfp_t gfp, EMU_SITE_PARAMS, const char *fmt, ...)
	__attribute__((format(printf, 4, 5)));

unsigned long simple_strtoul(const char *cp, char **endp, unsigned int base);
long simple_strtol(const char *cp, char **endp, unsigned int base);
unsigned long long simple_strtoull(const char *cp, char **endp,
				   unsigned int base);
long long simple_strtoll(const char *cp, char **endp, unsigned int base);

void emu_bug(EMU_SITE_PARAMS) __attribute__((noreturn));
void emu_warn_on(EMU_SITE_PARAMS, const char *function);
void panic(const char *fmt, ...)
	__attribute__((noreturn, format(printf, 1, 2)));
void dump_stack(void);
void emu_might_sleep(EMU_SITE_PARAMS);
int emu_cond_resched(EMU_SITE_PARAMS);

EMU_END_DECLS

#ifndef __cplusplus
#define vsnprintf	emu_vsnprintf
#define vscnprintf	emu_vscnprintf
#define snprintf	emu_snprintf
#define scnprintf	emu_scnprintf
#define vsprintf	emu_vsprintf
#define sprintf		emu_sprintf
#endif
#define kasprintf(gfp, fmt, ...) \
	emu_kasprintf(gfp, EMU_SITE, fmt, ##__VA_ARGS__)

#define pr_emerg(fmt, arg...)	printk(KERN_EMERG fmt, ##arg)
#define pr_alert(fmt, arg...)	printk(KERN_ALERT fmt, ##arg)
#define pr_crit(fmt, arg...)	printk(KERN_CRIT fmt, ##arg)
#define pr_err(fmt, arg...)	printk(KERN_ERR fmt, ##arg)
#define pr_warning(fmt, arg...)	printk(KERN_WARNING fmt, ##arg)
#define pr_notice(fmt, arg...)	printk(KERN_NOTICE fmt, ##arg)
#define pr_info(fmt, arg...)	printk(KERN_INFO fmt, ##arg)
#define pr_debug(fmt, arg...) \
	({ if (0) printk(KERN_DEBUG fmt, ##arg); 0; })

/*
 * BUG() in 2.6.27 (x86, CONFIG_DEBUG_BUGVERBOSE) traps; the trap handler
 * logs "kernel BUG at FILE:LINE!" and kills the task.  Here it logs the
 * same lines and ends the process.
 */
#define BUG() emu_bug(EMU_SITE)
#define BUG_ON(condition) do { if (unlikely(condition)) BUG(); } while (0)
#define HAVE_ARCH_BUG
#define HAVE_ARCH_BUG_ON

#define WARN_ON(condition) ({						\
	int __ret_warn_on = !!(condition);				\
	if (unlikely(__ret_warn_on))					\
		emu_warn_on(EMU_SITE, __func__);			\
	unlikely(__ret_warn_on);					\
})
#define WARN_ON_ONCE(condition)	({				\
	static int __warned;					\
	int __ret_warn_once = !!(condition);			\
								\
	if (unlikely(__ret_warn_once))				\
		if (WARN_ON(!__warned))				\
			__warned = 1;				\
	unlikely(__ret_warn_once);				\
})
#define WARN_ON_SMP(x)	WARN_ON(x)

#ifdef __cplusplus
/* C++: a function (taking the caller's site), so that C++ code may have
 * other functions called might_sleep (the runtime's emu::might_sleep). */
static inline void might_sleep(const char *emu_file = __builtin_FILE(),
			       int emu_line = __builtin_LINE())
{
	emu_might_sleep(emu_file, emu_line);
}
#else
#define might_sleep() emu_might_sleep(EMU_SITE)
#endif
#define might_sleep_if(cond) do { if (cond) might_sleep(); } while (0)
#define cond_resched() emu_cond_resched(EMU_SITE)

/*
 * min()/max()/clamp() with the kernel's strict type check (the
 * "unnecessary" pointer comparison warns when the types differ).
 */
#ifndef __cplusplus
#define min(x, y) ({				\
	__typeof__(x) _min1 = (x);		\
	__typeof__(y) _min2 = (y);		\
	(void) (&_min1 == &_min2);		\
	_min1 < _min2 ? _min1 : _min2; })

#define max(x, y) ({				\
	__typeof__(x) _max1 = (x);		\
	__typeof__(y) _max2 = (y);		\
	(void) (&_max1 == &_max2);		\
	_max1 > _max2 ? _max1 : _max2; })

#define clamp(val, min, max) ({			\
	__typeof__(val) __val = (val);		\
	__typeof__(min) __min = (min);		\
	__typeof__(max) __max = (max);		\
	(void) (&__val == &__min);		\
	(void) (&__val == &__max);		\
	__val = __val < __min ? __min: __val;	\
	__val > __max ? __max: __val; })
#else
/* C++: the same strictness from a template (both arguments of one type). */
extern "C++" {
template <typename T> static inline T min(T x, T y) { return x < y ? x : y; }
template <typename T> static inline T max(T x, T y) { return x > y ? x : y; }
}
#endif

#define min_t(type, x, y) ({			\
	type __min1 = (x);			\
	type __min2 = (y);			\
	__min1 < __min2 ? __min1: __min2; })

#define max_t(type, x, y) ({			\
	type __max1 = (x);			\
	type __max2 = (y);			\
	__max1 > __max2 ? __max1: __max2; })

#define clamp_t(type, val, min, max) ({		\
	type __val = (val);			\
	type __min = (min);			\
	type __max = (max);			\
	__val = __val < __min ? __min: __val;	\
	__val > __max ? __max: __val; })

#ifndef __cplusplus
#define abs(x) ({				\
		long __x = (x);			\
		(__x < 0) ? -__x : __x;		\
	})
#endif

#define container_of(ptr, type, member) ({				\
	const __typeof__(((type *)0)->member) *__mptr = (ptr);		\
	(type *)((char *)__mptr - offsetof(type, member)); })

/* Force a compilation error if condition is true */
#define BUILD_BUG_ON(condition) ((void)sizeof(char[1 - 2*!!(condition)]))
#define BUILD_BUG_ON_ZERO(e) (sizeof(char[1 - 2 * !!(e)]) - 1)

#endif /* _LINUX_KERNEL_H */
