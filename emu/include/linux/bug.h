/* bug.h - DUPLICATED by name: BUG/WARN are in linux/kernel.h. */
#ifndef _LINUX_BUG_H
#define _LINUX_BUG_H
#include <linux/kernel.h>
#endif
