/* ioctl.h - DUPLICATED from 2.6.27: the ioctl number macros. */
#ifndef _LINUX_IOCTL_H
#define _LINUX_IOCTL_H
#include <asm/ioctl.h>
#endif
