/*
 * types.h - the kernel's basic types.
 *
 * CUSTOMISED: the names and meanings of 2.6.27's types, with the widths of
 * the host (the emulated kernel is a 64-bit one: long and pointers are 64
 * bits wide).  Exceptions kept from the kernel on every architecture:
 * dev_t is 32 bits (major in the top 12 bits, minor in the low 20), gfp_t
 * is an unsigned int, loff_t is 64 bits.  sector_t and blkcnt_t are unsigned
 * long, as 2.6.27 builds them without CONFIG_LBD (the configuration of the
 * boot-test kernel).
 *
 * When the header is compiled as C++ (the runtime, the tests), the C
 * library has already declared some of these names; those of the same
 * width are not redeclared, and dev_t, whose C-library width differs, is a
 * macro naming the kernel's type, so that structures have the same layout
 * in C and C++.  C++ sources include the standard library's headers before
 * the kernel's.
 */
#ifndef _LINUX_TYPES_H
#define _LINUX_TYPES_H

#include <asm/types.h>
#include <linux/compiler.h>

typedef __u32 __kernel_dev_t;
typedef unsigned long __kernel_ino_t;
typedef unsigned int __kernel_mode_t;
typedef long __kernel_off_t;
typedef int __kernel_pid_t;
typedef unsigned int __kernel_uid32_t;
typedef unsigned int __kernel_gid32_t;
typedef __SIZE_TYPE__ __kernel_size_t;
typedef long __kernel_ssize_t;
typedef __PTRDIFF_TYPE__ __kernel_ptrdiff_t;
typedef long __kernel_time_t;
typedef long __kernel_suseconds_t;
typedef long __kernel_clock_t;
typedef int __kernel_clockid_t;
typedef long long __kernel_loff_t;

#ifdef __cplusplus
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#define dev_t __kernel_dev_t
typedef unsigned char unchar;
#else
typedef __kernel_dev_t dev_t;
typedef __kernel_ino_t ino_t;
typedef __kernel_mode_t mode_t;
typedef __kernel_off_t off_t;
typedef __kernel_pid_t pid_t;
typedef __kernel_uid32_t uid_t;
typedef __kernel_gid32_t gid_t;
typedef __kernel_size_t size_t;
typedef __kernel_ssize_t ssize_t;
typedef __kernel_ptrdiff_t ptrdiff_t;
typedef __kernel_time_t time_t;
typedef __kernel_clock_t clock_t;
typedef __kernel_clockid_t clockid_t;
typedef __kernel_suseconds_t suseconds_t;
typedef __kernel_loff_t loff_t;
typedef unsigned long uintptr_t;
typedef _Bool bool;

typedef __u8 u_int8_t;
typedef __s8 int8_t;
typedef __u16 u_int16_t;
typedef __s16 int16_t;
typedef __u32 u_int32_t;
typedef __s32 int32_t;
typedef __u8 uint8_t;
typedef __u16 uint16_t;
typedef __u32 uint32_t;
typedef __u64 uint64_t;
typedef __u64 u_int64_t;
typedef __s64 int64_t;

typedef unsigned char unchar;
typedef unsigned short ushort;
typedef unsigned int uint;
typedef unsigned long ulong;
typedef unsigned char u_char;
typedef unsigned short u_short;
typedef unsigned int u_int;
typedef unsigned long u_long;
#endif /* !__cplusplus */

typedef unsigned long sector_t;
#ifndef __cplusplus
typedef unsigned long blkcnt_t;
#endif

typedef __u16 __le16;
typedef __u16 __be16;
typedef __u32 __le32;
typedef __u32 __be32;
typedef __u64 __le64;
typedef __u64 __be64;
typedef __u16 __sum16;
typedef __u32 __wsum;

typedef unsigned int gfp_t;

#ifndef pgoff_t
#define pgoff_t unsigned long
#endif
typedef u64 resource_size_t;

struct ustat;

#endif /* _LINUX_TYPES_H */
