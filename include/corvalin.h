/*
 * corvalin.h - interface between the corvalin backup driver and user space.
 *
 * Every record below crosses the user/kernel boundary byte for byte: all
 * fields are 32 bits wide, little-endian, with nothing between them.  Fields
 * that hold an address are 32-bit user-space addresses (the driver runs on
 * 32-bit x86), never kernel pointers.  Sizes and offsets are part of the ABI
 * and are checked at compile time at the bottom of this file, for C and C++.
 *
 * The header is usable from the kernel (with __KERNEL__ defined) and from
 * user space (C99 or C++).
 */
#ifndef _CORVALIN_H
#define _CORVALIN_H

#ifdef __KERNEL__
#include <linux/types.h>
#include <linux/stddef.h>
typedef __u32 kiv_u32;
typedef __s32 kiv_s32;
#else
#include <stddef.h>
#include <stdint.h>
typedef uint32_t kiv_u32;
typedef int32_t kiv_s32;
#endif

/* Identity of the control device and of the driver. */
#define KIV_MAJOR		120
#define KIV_DEVICE_NAME		"corvalin"
#define KIV_VERSION_MAJOR	3
#define KIV_VERSION_MINOR	1
#define KIV_VERSION_MINOR2	0
#define KIV_BUILD		9504

/* Device numbers: major in the top 12 bits, minor in the low 20. */
#define KIV_MINORBITS		20
#define KIV_MINORMASK		0xFFFFFu
#define KIV_MKDEV(ma, mi)	(((kiv_u32)(ma) << KIV_MINORBITS) | (kiv_u32)(mi))
#define KIV_MAJOR_OF(dev)	((kiv_u32)(dev) >> KIV_MINORBITS)
#define KIV_MINOR_OF(dev)	((kiv_u32)(dev) & KIV_MINORMASK)

/*
 * Command codes: the kernel's ioctl number layout (number in bits 0-7, type
 * in bits 8-15, argument size in bits 16-29, direction in bits 30-31), type
 * '*' (42) for every command.  The dispatcher compares the whole code.
 */
#define KIV_IOC_TYPE			0x2a
#define KIV_IOC_GET_BLOCK_SIZE		0x40102a00u
#define KIV_IOC_START_BACKUP		0x40102a01u
#define KIV_IOC_SNAPSHOT		0x40082a02u
#define KIV_IOC_GET_STATE		0x40082a03u
#define KIV_IOC_GET_AUTOMAP_STATE	0x40082a04u
#define KIV_IOC_NO_LOAD_FROM_AUTOMAP	0x00002a05u
#define KIV_IOC_NO_START_AUTOMAP	0x00002a06u
#define KIV_IOC_LOAD_BLOCK_MAP		0x40082a07u
#define KIV_IOC_GET_AUTOMAP		0x40082a08u
#define KIV_IOC_GET_DIRTY_BLOCK		0x40042a09u
#define KIV_IOC_READ_BLOCKS		0x400c2a0au
#define KIV_IOC_GET_VERSION_MAJOR	0x40042a0cu
#define KIV_IOC_GET_VERSION_MINOR	0x40042a0du
#define KIV_IOC_SYNC			0x40042a0eu
#define KIV_IOC_UNLOAD			0x40042a0fu
#define KIV_IOC_COMMAND_16		0x40042a10u

/* Result codes returned by open() and by every command. */
#define KIV_OK			0
#define KIV_ERR_NOT_INIT	1	/* not initialised; no real request fn */
#define KIV_ERR_INVALID		2	/* no record, bad state/argument/size */
#define KIV_ERR_REFUSED		3
#define KIV_ERR_UNKNOWN		4	/* unknown command code */
#define KIV_ERR_NOMEM		5
#define KIV_ERR_COPY_IN		6	/* copy from user space failed */
#define KIV_ERR_COPY_OUT	7	/* copy to user space failed */
#define KIV_ERR_NO_FS		8	/* no mounted file system / no device */
#define KIV_ERR_BUSY		9	/* another backup holds the slot */
#define KIV_ERR_STARTED		11	/* this record already started */
#define KIV_ERR_IO		12	/* blocks could not be read */

/* States of a backup record, as reported by GET_STATE and Stats. */
#define BU_STATE_IDLE		0
#define BU_STATE_STARTING	1
#define BU_STATE_STARTED	2
#define BU_STATE_SNAPSHOT	4
#define BU_STATE_LOADING_MAP	5
#define BU_STATE_MAP_LOADED	6
#define BU_STATE_CLOSING	7
#define BU_STATE_READ_ERROR	8
#define BU_STATE_MAP_ERROR	9
#define BU_STATE_CACHE_ERROR	10
#define BU_STATE_REFUSED	12
#define BU_STATE_QUEUE_ERROR	13

/* States of a change-tracking session. */
#define AM_STATE_NOT_IN_SYNC	0
#define AM_STATE_IN_SYNC	1

#define KIV_AMS_KEY_LEN		56

/* One entry of the GET_BLOCK_SIZE answer. */
struct BlockSize {
	kiv_u32 major;
	kiv_u32 minor;
	kiv_s32 blockSize;		/* file-system block size in bytes */
	kiv_u32 partitionSizeKB;
};

/* GET_BLOCK_SIZE argument. */
struct GetBlockSize {
	kiv_u32 major;
	kiv_u32 minor;
	kiv_u32 bs;			/* address of a struct BlockSize */
	kiv_u32 len;			/* bytes at bs */
};

/* START_BACKUP argument. */
struct StartBackup {
	kiv_u32 major;
	kiv_u32 minor;
	kiv_u32 totalBlocks;
	kiv_u32 maxCacheBlocks;
};

/* Opaque change-tracking session key. */
struct AMSessionKey {
	unsigned char key[KIV_AMS_KEY_LEN];
};

/* SNAPSHOT argument. */
struct SnapShot {
	kiv_u32 amsKey;			/* address of a struct AMSessionKey */
	kiv_u32 len;			/* bytes at amsKey */
};

/* GET_STATE answer. */
struct State {
	kiv_u32 major;
	kiv_u32 minor;
	kiv_u32 state;
	kiv_s32 blockSize;
	kiv_s32 mmapSize;		/* maxVMPages * 4096 */
};

/* GET_STATE argument. */
struct GetState {
	kiv_u32 s;			/* address of a struct State */
	kiv_u32 len;
};

/* GET_AUTOMAP_STATE answer. */
struct AutoMapState {
	kiv_u32 major;
	kiv_u32 minor;
	kiv_u32 state;
	kiv_u32 mapLen;			/* blocks */
	kiv_u32 mapSize;		/* bytes */
	struct AMSessionKey amsKey;
};

/* GET_AUTOMAP_STATE argument. */
struct GetAutoMapState {
	kiv_u32 ams;			/* address of a struct AutoMapState */
	kiv_u32 len;
};

/* A bitmap in user memory: block N is bit N % 8 of byte N / 8. */
struct UserBlockMap {
	kiv_u32 map;			/* address of the first byte */
	kiv_u32 mapLen;			/* length in blocks (bits) */
};

/* LOAD_BLOCK_MAP argument. */
struct LoadBlockMap {
	kiv_u32 bm;			/* address of a struct UserBlockMap */
	kiv_u32 len;			/* not consulted by the driver */
};

/* GET_AUTOMAP argument. */
struct GetAutoMap {
	kiv_u32 bm;			/* address of a struct UserBlockMap */
	kiv_u32 len;			/* not consulted by the driver */
};

/* GET_DIRTY_BLOCK argument. */
struct DirtyBlock {
	kiv_u32 blockNum;		/* address of a 32-bit block number */
};

/* READ_BLOCKS argument. */
struct ReadBlocks {
	kiv_u32 startBlockNum;
	kiv_u32 numBlocks;
	kiv_u32 data;			/* start of a mapped read buffer */
};

#ifndef __KERNEL__
typedef struct BlockSize BlockSize;
typedef struct GetBlockSize GetBlockSize;
typedef struct StartBackup StartBackup;
typedef struct AMSessionKey AMSessionKey;
typedef struct SnapShot SnapShot;
typedef struct State State;
typedef struct GetState GetState;
typedef struct AutoMapState AutoMapState;
typedef struct GetAutoMapState GetAutoMapState;
typedef struct UserBlockMap UserBlockMap;
typedef struct LoadBlockMap LoadBlockMap;
typedef struct GetAutoMap GetAutoMap;
typedef struct DirtyBlock DirtyBlock;
typedef struct ReadBlocks ReadBlocks;
#endif

/* Compile-time layout checks (gnu89 has no static assertion keyword). */
#ifdef __cplusplus
#define KIV_ABI_CHECK(name, cond) static_assert(cond, #name)
#else
#define KIV_ABI_CHECK(name, cond) \
	typedef char kiv_abi_check_##name[(cond) ? 1 : -1]
#endif

KIV_ABI_CHECK(BlockSize_size, sizeof(struct BlockSize) == 16);
KIV_ABI_CHECK(BlockSize_blockSize, offsetof(struct BlockSize, blockSize) == 8);
KIV_ABI_CHECK(BlockSize_kb, offsetof(struct BlockSize, partitionSizeKB) == 12);
KIV_ABI_CHECK(GetBlockSize_size, sizeof(struct GetBlockSize) == 16);
KIV_ABI_CHECK(GetBlockSize_bs, offsetof(struct GetBlockSize, bs) == 8);
KIV_ABI_CHECK(GetBlockSize_len, offsetof(struct GetBlockSize, len) == 12);
KIV_ABI_CHECK(StartBackup_size, sizeof(struct StartBackup) == 16);
KIV_ABI_CHECK(StartBackup_total, offsetof(struct StartBackup, totalBlocks) == 8);
KIV_ABI_CHECK(StartBackup_max,
	      offsetof(struct StartBackup, maxCacheBlocks) == 12);
KIV_ABI_CHECK(AMSessionKey_size, sizeof(struct AMSessionKey) == 56);
KIV_ABI_CHECK(SnapShot_size, sizeof(struct SnapShot) == 8);
KIV_ABI_CHECK(SnapShot_len, offsetof(struct SnapShot, len) == 4);
KIV_ABI_CHECK(State_size, sizeof(struct State) == 20);
KIV_ABI_CHECK(State_state, offsetof(struct State, state) == 8);
KIV_ABI_CHECK(State_blockSize, offsetof(struct State, blockSize) == 12);
KIV_ABI_CHECK(State_mmapSize, offsetof(struct State, mmapSize) == 16);
KIV_ABI_CHECK(GetState_size, sizeof(struct GetState) == 8);
KIV_ABI_CHECK(GetState_len, offsetof(struct GetState, len) == 4);
KIV_ABI_CHECK(AutoMapState_size, sizeof(struct AutoMapState) == 76);
KIV_ABI_CHECK(AutoMapState_mapLen, offsetof(struct AutoMapState, mapLen) == 12);
KIV_ABI_CHECK(AutoMapState_mapSize,
	      offsetof(struct AutoMapState, mapSize) == 16);
KIV_ABI_CHECK(AutoMapState_key, offsetof(struct AutoMapState, amsKey) == 20);
KIV_ABI_CHECK(GetAutoMapState_size, sizeof(struct GetAutoMapState) == 8);
KIV_ABI_CHECK(UserBlockMap_size, sizeof(struct UserBlockMap) == 8);
KIV_ABI_CHECK(UserBlockMap_mapLen, offsetof(struct UserBlockMap, mapLen) == 4);
KIV_ABI_CHECK(LoadBlockMap_size, sizeof(struct LoadBlockMap) == 8);
KIV_ABI_CHECK(GetAutoMap_size, sizeof(struct GetAutoMap) == 8);
KIV_ABI_CHECK(DirtyBlock_size, sizeof(struct DirtyBlock) == 4);
KIV_ABI_CHECK(ReadBlocks_size, sizeof(struct ReadBlocks) == 12);
KIV_ABI_CHECK(ReadBlocks_num, offsetof(struct ReadBlocks, numBlocks) == 4);
KIV_ABI_CHECK(ReadBlocks_data, offsetof(struct ReadBlocks, data) == 8);

#endif /* _CORVALIN_H */
