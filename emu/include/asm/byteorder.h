/*
 * asm/byteorder.h - byte order, DUPLICATED from 2.6.27 x86: little-endian,
 * so the cpu_to_le and le_to_cpu conversions are identities.
 */
#ifndef _ASM_X86_BYTEORDER_H
#define _ASM_X86_BYTEORDER_H

#include <linux/types.h>

#ifndef __LITTLE_ENDIAN
#define __LITTLE_ENDIAN 1234
#endif
#define __LITTLE_ENDIAN_BITFIELD

#define cpu_to_le64(x) ((__le64)(__u64)(x))
#define le64_to_cpu(x) ((__u64)(__le64)(x))
#define cpu_to_le32(x) ((__le32)(__u32)(x))
#define le32_to_cpu(x) ((__u32)(__le32)(x))
#define cpu_to_le16(x) ((__le16)(__u16)(x))
#define le16_to_cpu(x) ((__u16)(__le16)(x))
#define cpu_to_be32(x) ((__be32)__builtin_bswap32((__u32)(x)))
#define be32_to_cpu(x) ((__u32)__builtin_bswap32((__u32)(x)))
#define cpu_to_be16(x) ((__be16)__builtin_bswap16((__u16)(x)))
#define be16_to_cpu(x) ((__u16)__builtin_bswap16((__u16)(x)))
#define cpu_to_be64(x) ((__be64)__builtin_bswap64((__u64)(x)))
#define be64_to_cpu(x) ((__u64)__builtin_bswap64((__u64)(x)))

#endif
