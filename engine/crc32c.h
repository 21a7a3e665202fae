/*
 * crc32c.h - CRC-32C (Castagnoli), the checksum of every repository file.
 *
 * Reflected polynomial 0x82F63B78, initial value and final xor 0xFFFFFFFF:
 * the CRC of "123456789" is 0xE3069283.  One table, built once; the same
 * code runs on the 32-bit target and on the host, so checksums written on
 * one verify on the other.
 */
#ifndef CVB_CRC32C_H
#define CVB_CRC32C_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Continue a CRC: start with crc = 0 for a new buffer; feed the previous
 * result to continue over the next piece (cvb_crc32c(cvb_crc32c(0, a), b)
 * is the CRC of a followed by b).
 */
uint32_t cvb_crc32c(uint32_t crc, const void *buf, size_t len);

#ifdef __cplusplus
}
#endif

#endif /* CVB_CRC32C_H */
