/*
 * asm/types.h - fixed-width integer types.
 *
 * DUPLICATED from 2.6.27 (asm-generic/int-ll64.h, as x86 uses it): the
 * kernel's u8..u64 / s8..s64 and the exported __u8..__u64 / __s8..__s64.
 * 64-bit quantities are long long on every architecture, which is what
 * makes "%llu" right for them on the host too.
 */
#ifndef _ASM_X86_TYPES_H
#define _ASM_X86_TYPES_H

typedef unsigned short umode_t;

typedef __signed__ char __s8;
typedef unsigned char __u8;
typedef __signed__ short __s16;
typedef unsigned short __u16;
typedef __signed__ int __s32;
typedef unsigned int __u32;
__extension__ typedef __signed__ long long __s64;
__extension__ typedef unsigned long long __u64;

typedef signed char s8;
typedef unsigned char u8;
typedef signed short s16;
typedef unsigned short u16;
typedef signed int s32;
typedef unsigned int u32;
typedef signed long long s64;
typedef unsigned long long u64;

#define BITS_PER_LONG	(__SIZEOF_LONG__ * 8)

/* DMA addresses and physical addresses: as wide as a pointer here. */
typedef unsigned long dma_addr_t;
typedef u64 dma64_addr_t;

#endif /* _ASM_X86_TYPES_H */
