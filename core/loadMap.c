/*
 * loadMap.c - loading the set of blocks the backup program will read as
 * the backup's block map, and dropping cached blocks outside it.
 */
#include <linux/kernel.h>

#include "kivlib.h"

int ioctlLoadBlockMap(Backup *b, struct UserBlockMap *userBM)
{
	/* pending: build blockMap from the user bitmap, clean the cache */
	return 3;
}
