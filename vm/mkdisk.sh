#!/usr/bin/env bash
# Make the guest's disk: a raw image with an MSDOS label and two primary
# partitions, sda1 with ext2 and sda2 with ext3, laid out as the scenario
# expects them (the SCN_DISK_* / SCN_P* values of vm/scenario/scenario.h).
#
#   vm/mkdisk.sh IMAGE
#
# The file systems are made on the host with options 2.6.27 understands:
# our own mke2fs.conf (vm/mke2fs.conf: the host's may add newer features),
# an explicit feature list, 128-byte inodes, and for ext3 a plain journal.
set -euo pipefail
. "$(dirname "$0")/common.sh"

image=${1:?usage: mkdisk.sh IMAGE}
header=$VM_DIR/scenario/scenario.h

val() {
	local v
	v=$(sed -n "s/^#define $1[[:space:]]\{1,\}\([0-9]\{1,\}\).*/\1/p" "$header")
	[ -n "$v" ] || vm_die "no $1 in $header"
	echo "$v"
}

disk=$(val SCN_DISK_SECTORS)
p1_start=$(val SCN_P1_START) p1_len=$(val SCN_P1_SECTORS) p1_block=$(val SCN_P1_BLOCK)
p2_start=$(val SCN_P2_START) p2_len=$(val SCN_P2_SECTORS) p2_block=$(val SCN_P2_BLOCK)
[ $((p1_start + p1_len)) -le "$p2_start" ] && [ $((p2_start + p2_len)) -le "$disk" ] ||
	vm_die "the partitions of $header do not fit the disk"

rm -f "$image" "$image.p1" "$image.p2"
truncate -s $((disk * 512)) "$image"

# The label: 446 bytes of (empty) boot code, four 16-byte entries, 0x55aa.
# An entry: status, CHS of the first sector, type (0x83 Linux), CHS of the
# last sector, first sector and sector count (little-endian).  2.6.27 reads
# only the type and the two LBA fields; the CHS fields say "use LBA".
perl -e '
	my ($s1, $n1, $s2, $n2) = @ARGV;
	my $entry = sub { pack("C C3 C C3 V V", 0, 0xfe, 0xff, 0xff, 0x83,
			       0xfe, 0xff, 0xff, $_[0], $_[1]) };
	my $mbr = ("\0" x 440) . pack("V", 0xc0b7a11a) . "\0\0"
		. $entry->($s1, $n1) . $entry->($s2, $n2) . ("\0" x 32)
		. "\x55\xaa";
	length($mbr) == 512 or die "label size\n";
	print $mbr;
' "$p1_start" "$p1_len" "$p2_start" "$p2_len" |
	dd of="$image" conv=notrunc status=none

mkfs() {	# image-file type block-size sectors label [extra options]
	local file=$1 type=$2 block=$3 sectors=$4 label=$5
	shift 5
	truncate -s $((sectors * 512)) "$file"
	local out
	# mke2fs warns that 128-byte inodes end in 2038: so does 2.6.27.
	out=$(MKE2FS_CONFIG=$VM_DIR/mke2fs.conf mke2fs -q -F -t "$type" \
		-b "$block" -I 128 -L "$label" "$@" "$file" \
		$((sectors * 512 / block)) 2>&1) ||
		{ printf '%s\n' "$out" >&2; vm_die "mke2fs $type failed"; }
	printf '%s\n' "$out" | grep -v -e '128-byte inodes' -e '^$' >&2 || true
}
mkfs "$image.p1" ext2 "$p1_block" "$p1_len" corvalin-p1
mkfs "$image.p2" ext3 "$p2_block" "$p2_len" corvalin-p2
dd if="$image.p1" of="$image" bs=512 seek="$p1_start" conv=notrunc status=none
dd if="$image.p2" of="$image" bs=512 seek="$p2_start" conv=notrunc status=none
rm -f "$image.p1" "$image.p2"
vm_log "disk: $image ($disk sectors: sda1 ext2 ${p1_block}-byte blocks, sda2 ext3 ${p2_block}-byte blocks)"
