/* version.h - DUPLICATED from a 2.6.27 build: the kernel's version code. */
#define LINUX_VERSION_CODE 132635
#define KERNEL_VERSION(a,b,c) (((a) << 16) + ((b) << 8) + (c))
