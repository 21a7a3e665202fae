/*
 * string.h - string and memory functions.
 *
 * DUPLICATED from 2.6.27's declarations: the functions with the same names
 * as the C library's are the C library's (same contracts); strlcpy,
 * strlcat and strnicmp are the kernel's own (lib/string.c semantics) and
 * are spelled emu_* underneath, because a C library may have its own.
 * kstrdup/kmemdup are in linux/slab.h.
 */
#ifndef _LINUX_STRING_H_
#define _LINUX_STRING_H_

#include <linux/types.h>
#include <linux/stddef.h>
#include <linux/emu_runtime.h>

#ifdef __cplusplus
#include <string.h>
#else
void *memcpy(void *dest, const void *src, size_t n);
void *memmove(void *dest, const void *src, size_t n);
void *memset(void *s, int c, size_t n);
int memcmp(const void *s1, const void *s2, size_t n);
void *memchr(const void *s, int c, size_t n);
size_t strlen(const char *s);
size_t strnlen(const char *s, size_t maxlen);
char *strcpy(char *dest, const char *src);
char *strncpy(char *dest, const char *src, size_t n);
char *strcat(char *dest, const char *src);
char *strncat(char *dest, const char *src, size_t n);
int strcmp(const char *s1, const char *s2);
int strncmp(const char *s1, const char *s2, size_t n);
char *strchr(const char *s, int c);
char *strrchr(const char *s, int c);
char *strstr(const char *haystack, const char *needle);
char *strpbrk(const char *s, const char *accept);
char *strsep(char **stringp, const char *delim);
size_t strspn(const char *s, const char *accept);
size_t strcspn(const char *s, const char *reject);
int strcasecmp(const char *s1, const char *s2);
int strncasecmp(const char *s1, const char *s2, size_t n);
#endif

EMU_BEGIN_DECLS
size_t emu_strlcpy(char *dest, const char *src, size_t size);
size_t emu_strlcat(char *dest, const char *src, size_t count);
int emu_strnicmp(const char *s1, const char *s2, size_t len);
EMU_END_DECLS

#define strlcpy(dest, src, size)	emu_strlcpy((dest), (src), (size))
#define strlcat(dest, src, count)	emu_strlcat((dest), (src), (count))
#define strnicmp(s1, s2, len)		emu_strnicmp((s1), (s2), (len))

#endif /* _LINUX_STRING_H_ */
