/* moduleparam.h - STUBBED: module parameters are in linux/module.h. */
#include <linux/module.h>
