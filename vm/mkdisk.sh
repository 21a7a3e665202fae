#!/usr/bin/env bash
# Make the guest's disk: a raw image with an MSDOS label and two primary
# partitions, sda1 with ext2 and sda2 with ext3, laid out as the scenario
# expects them (the SCN_DISK_* / SCN_P* values of vm/scenario/scenario.h).
#
#   vm/mkdisk.sh IMAGE
#
# The file systems are made on the host with options 2.6.27 understands
# (vm_mkfs of vm/common.sh).
set -euo pipefail
. "$(dirname "$0")/common.sh"

image=${1:?usage: mkdisk.sh IMAGE}
header=$VM_DIR/scenario/scenario.h

val() {
	vm_define "$1" "$header"
}

disk=$(val SCN_DISK_SECTORS)
p1_start=$(val SCN_P1_START) p1_len=$(val SCN_P1_SECTORS) p1_block=$(val SCN_P1_BLOCK)
p2_start=$(val SCN_P2_START) p2_len=$(val SCN_P2_SECTORS) p2_block=$(val SCN_P2_BLOCK)
[ $((p1_start + p1_len)) -le "$p2_start" ] && [ $((p2_start + p2_len)) -le "$disk" ] ||
	vm_die "the partitions of $header do not fit the disk"

rm -f "$image" "$image.p1" "$image.p2"
truncate -s $((disk * 512)) "$image"
vm_label "$image" c0b7a11a "$p1_start" "$p1_len" "$p2_start" "$p2_len"
vm_mkfs "$image.p1" ext2 "$p1_block" "$p1_len" corvalin-p1
vm_mkfs "$image.p2" ext3 "$p2_block" "$p2_len" corvalin-p2
dd if="$image.p1" of="$image" bs=512 seek="$p1_start" conv=notrunc status=none
dd if="$image.p2" of="$image" bs=512 seek="$p2_start" conv=notrunc status=none
rm -f "$image.p1" "$image.p2"
vm_log "disk: $image ($disk sectors: sda1 ext2 ${p1_block}-byte blocks, sda2 ext3 ${p2_block}-byte blocks)"
