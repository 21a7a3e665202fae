/* spinlock_types.h - DUPLICATED by name: the types are in linux/spinlock.h. */
#ifndef __LINUX_SPINLOCK_TYPES_H
#define __LINUX_SPINLOCK_TYPES_H
#include <linux/spinlock.h>
#endif
