/*
 * asm/uaccess.h - access to user-space memory.
 *
 * CUSTOMISED with 2.6.27 x86's contracts.  A user pointer (void __user *)
 * carries a 32-bit user address of the process whose system call is
 * running (current->mm); it is never dereferenced directly: the runtime
 * resolves every byte through that address space, faulting in pages of
 * driver mappings (vm_ops->fault) as the kernel's page-fault handler would.
 *
 * copy_from_user/copy_to_user return the number of bytes NOT copied (0 on
 * success): a copy stops at the first byte that is unmapped or not
 * accessible that way (read for from, write for to); copy_from_user then
 * zero-fills the rest of the destination, as 2.6.27 does.  clear_user
 * likewise.  put_user/get_user return 0 or -EFAULT; get_user stores 0 in x
 * on a fault.  access_ok only checks the range lies below TASK_SIZE.
 * All of them may sleep (a fault may), and call might_sleep().  A task with
 * no address space (a kernel thread) faults on every user address.
 */
#ifndef _ASM_X86_UACCESS_H
#define _ASM_X86_UACCESS_H

#include <linux/compiler.h>
#include <linux/errno.h>
#include <linux/types.h>
#include <linux/emu_runtime.h>

#define VERIFY_READ 0
#define VERIFY_WRITE 1

/* The user half of the 32-bit address space. */
#define TASK_SIZE	0xC0000000UL

EMU_BEGIN_DECLS
unsigned long emu_copy_from_user(void *to, const void __user *from,
				 unsigned long n, EMU_SITE_PARAMS);
unsigned long emu_copy_to_user(void __user *to, const void *from,
			       unsigned long n, EMU_SITE_PARAMS);
unsigned long emu_clear_user(void __user *to, unsigned long n,
			     EMU_SITE_PARAMS);
long emu_strncpy_from_user(char *dst, const char __user *src, long count,
			   EMU_SITE_PARAMS);
EMU_END_DECLS

#define access_ok(type, addr, size)					\
	((void)(type),							\
	 (unsigned long)(addr) <= TASK_SIZE &&				\
	 (unsigned long)(size) <= TASK_SIZE - (unsigned long)(addr))

#define copy_from_user(to, from, n) \
	emu_copy_from_user((to), (from), (n), EMU_SITE)
#define copy_to_user(to, from, n) \
	emu_copy_to_user((to), (from), (n), EMU_SITE)
#define __copy_from_user(to, from, n)	copy_from_user(to, from, n)
#define __copy_to_user(to, from, n)	copy_to_user(to, from, n)
#define __copy_from_user_inatomic(to, from, n) copy_from_user(to, from, n)
#define __copy_to_user_inatomic(to, from, n)	copy_to_user(to, from, n)
#define clear_user(to, n)	emu_clear_user((to), (n), EMU_SITE)
#define __clear_user(to, n)	emu_clear_user((to), (n), EMU_SITE)
#define strncpy_from_user(dst, src, count) \
	emu_strncpy_from_user((dst), (src), (count), EMU_SITE)

#define put_user(x, ptr)						\
({									\
	__typeof__(*(ptr)) __pu_val = (x);				\
	emu_copy_to_user((ptr), &__pu_val, sizeof(*(ptr)), EMU_SITE)	\
		? -EFAULT : 0;						\
})
#define __put_user(x, ptr) put_user(x, ptr)

#define get_user(x, ptr)						\
({									\
	__typeof__(*(ptr)) __gu_val;					\
	int __gu_err = emu_copy_from_user(&__gu_val, (ptr),		\
					  sizeof(*(ptr)), EMU_SITE)	\
		? -EFAULT : 0;						\
	(x) = __gu_val;							\
	__gu_err;							\
})
#define __get_user(x, ptr) get_user(x, ptr)

#endif /* _ASM_X86_UACCESS_H */
