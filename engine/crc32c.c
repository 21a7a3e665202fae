/*
 * crc32c.c - CRC-32C, byte-wise with a 256-entry table.
 *
 * Throughput is not the concern here (the disk and the driver's read path
 * are far slower); a portable table version keeps the engine free of CPU
 * feature tests on the 32-bit target.
 */
#include "crc32c.h"

static uint32_t table[256];
static int table_ready;

static void build_table(void)
{
	uint32_t i, j, c;

	for (i = 0; i < 256; i++) {
		c = i;
		for (j = 0; j < 8; j++)
			c = (c & 1) ? (c >> 1) ^ 0x82F63B78u : c >> 1;
		table[i] = c;
	}
	table_ready = 1;
}

uint32_t cvb_crc32c(uint32_t crc, const void *buf, size_t len)
{
	const unsigned char *p = (const unsigned char *)buf;

	/* Idempotent: two threads racing here write the same values. */
	if (!table_ready)
		build_table();
	crc = ~crc;
	while (len-- > 0)
		crc = table[(crc ^ *p++) & 0xFF] ^ (crc >> 8);
	return ~crc;
}
