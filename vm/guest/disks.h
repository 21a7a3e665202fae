/*
 * disks.h - the guest's disks beyond the scenario's sda, as the host makes
 * them (vm/vmtest.sh reads the numbers below with sed: keep one #define
 * per line, the value a plain decimal number).
 *
 *   sdb  raw images: the full backups of sda1 and sda2 at the scenario's
 *        SCN_SDB_P1_START and SCN_SDB_P2_START, then the incremental
 *        chain's images of sda2, one per incremental, each the image
 *        before it patched with the incremental's blocks.
 *   sdc  the restore target of the backup program: an MSDOS label and
 *        GUEST_RESTORES partitions of sda2's size, sdc1 for the first
 *        backup, sdc2 for the second.
 *   sdd  the backup program's repository: one ext2 file system over the
 *        whole disk, mounted on /mnt/repo.
 *   sde  the unpaused writer's chain (race.c), on an AHCI controller
 *        (the PIIX's two IDE channels hold four disks), whose driver the
 *        guest loads when that phase begins: an MSDOS label, sde1 at
 *        GUEST_SDE_P1_START a small ext2 with 4 KiB blocks that is only
 *        ever mounted read-only (the driver backs up only a partition
 *        with a mounted file system), the writer's stamps from its block
 *        GUEST_RACE_FIRST_BLOCK on; then, outside any partition from
 *        GUEST_SDE_SLOT_START, GUEST_RACE_IMAGES slots of sde1's size,
 *        slot k the image of backup k (0 full, then incrementals).
 */
#ifndef CORVALIN_VM_DISKS_H
#define CORVALIN_VM_DISKS_H

#define GUEST_CHAIN_STEPS	2
#define GUEST_SDB_CHAIN_START	63488
#define GUEST_SDB_SECTORS	157696
#define GUEST_SDC_MINOR		32
#define GUEST_RESTORES		2
#define GUEST_SDC_P1_START	2048
#define GUEST_SDC_P2_START	49152
#define GUEST_SDC_SECTORS	98304
#define GUEST_SDD_MINOR		48
#define GUEST_SDD_SECTORS	131072
#define GUEST_SDE_MINOR		64
#define GUEST_SDE_P1_START	2048
#define GUEST_SDE_P1_SECTORS	16384
#define GUEST_SDE_SLOT_START	18432
#define GUEST_RACE_IMAGES	12
#define GUEST_RACE_FIRST_BLOCK	128
#define GUEST_SDE_SECTORS	215040

#endif /* CORVALIN_VM_DISKS_H */
