# Shared settings of the boot-test scripts; sourced, not run.
#
# Everything the scripts produce lives under $VM_OUT: the vm/ directory of
# the project's build directory ($CORVALIN_BUILD, build/ of the source tree
# unless set), so `make clean` removes it and the source tree stays clean.

VM_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
SRC_ROOT=$(cd "$VM_DIR/.." && pwd)
CORVALIN_BUILD=${CORVALIN_BUILD:-$SRC_ROOT/build}
VM_OUT=${VM_OUT:-$CORVALIN_BUILD/vm}

# The kernel the module targets, and how it is built on today's toolchain:
# Debian's gcc defaults to PIE, which 2.6.27's inline assembly cannot take.
KTARBALL_DEFAULT=/work/shared/linux-2.6.27/linux-2.6.27.tar.xz
KTARBALL_SHA256=1a2345b19fd545ec28d7d5aa641e4af105ac85c7049ac27983827ef3123a5772
KVERSION=2.6.27
KDIR_DEFAULT=$VM_OUT/linux-$KVERSION
KMAKE_ARGS=(ARCH=i386 "CC=gcc -m32 -fno-pie")

# At most two jobs: the machines that run this have two cores, shared.
VM_JOBS=${VM_JOBS:-2}

vm_log() {
	printf '%s: %s\n' "$(basename "$0")" "$*" >&2
}

vm_die() {
	vm_log "$*"
	exit 1
}

# sha256 of the named files' contents, in the given order.
vm_hash_files() {
	cat "$@" | sha256sum | cut -d' ' -f1
}

# The value of `#define NAME <decimal>` in header $2, or die.
vm_define() {
	local v
	v=$(sed -n "s/^#define $1[[:space:]]\{1,\}\([0-9]\{1,\}\).*/\1/p" "$2")
	[ -n "$v" ] || vm_die "no $1 in $2"
	echo "$v"
}

# Write the initramfs $1: what every guest needs (the directories, the
# console and null nodes, corvalin.ko at /lib/modules, /init from $2), then
# the entries of mkinitramfs.pl's list on stdin.
vm_initramfs() {
	local out=$1 init=$2
	{
		cat <<EOF
dir /dev 0755
nod /dev/console 0600 c 5 1
nod /dev/null 0666 c 1 3
dir /proc 0755
dir /sys 0755
dir /mnt 0755
dir /lib 0755
dir /lib/modules 0755
file /lib/modules/corvalin.ko 0644 $VM_OUT/modules/corvalin.ko
file /init 0755 $init
EOF
		cat
	} | "$VM_DIR/mkinitramfs.pl" "$out"
}

# An MSDOS label on image $1 (signature $2, hex): then pairs of first
# sector and sector count, one primary Linux partition (type 0x83) each,
# at most four.  2.6.27 reads only the type and the two LBA fields of an
# entry; its CHS fields say "use LBA".
vm_label() {
	local image=$1 sig=$2
	shift 2
	perl -e '
		my $sig = hex(shift @ARGV);
		my @e;
		while (@ARGV) {
			my ($s, $n) = splice(@ARGV, 0, 2);
			push @e, pack("C C3 C C3 V V", 0, 0xfe, 0xff, 0xff,
				      0x83, 0xfe, 0xff, 0xff, $s, $n);
		}
		push @e, "\0" x 16 while @e < 4;
		my $mbr = ("\0" x 440) . pack("V", $sig) . "\0\0" . join("", @e)
			. "\x55\xaa";
		length($mbr) == 512 or die "label size\n";
		print $mbr;
	' "$sig" "$@" | dd of="$image" conv=notrunc status=none
}

# An ext2 or ext3 file system that 2.6.27 mounts, on file $1 (made or
# truncated to $4 sectors): type $2, block size $3, label $5, then extra
# mke2fs options.  Our own mke2fs.conf (the host's may add newer
# features), 128-byte inodes (mke2fs's warning that they end in 2038 is
# dropped: so does 2.6.27).
vm_mkfs() {
	local file=$1 type=$2 block=$3 sectors=$4 label=$5 out
	shift 5
	truncate -s $((sectors * 512)) "$file"
	out=$(MKE2FS_CONFIG=$VM_DIR/mke2fs.conf mke2fs -q -F -t "$type" \
		-b "$block" -I 128 -L "$label" "$@" "$file" \
		$((sectors * 512 / block)) 2>&1) ||
		{ printf '%s\n' "$out" >&2; vm_die "mke2fs $type failed"; }
	printf '%s\n' "$out" | grep -v -e '128-byte inodes' -e '^$' >&2 || true
}

# Kernel trouble in console log $1, whoever caused it: prints the lines
# and succeeds when there is any.  "BUG:" covers "sleeping function called
# from invalid context", spin lock and slab debugging reports; the lock
# validator's reports are "[ INFO: ... ]" and "[ BUG: ... ]" headlines
# ("possible recursive locking detected", "inconsistent lock state",
# "possible circular locking dependency detected", "bad unlock balance
# detected!", ...); the hang detector's is "INFO: task ... blocked for more
# than ... seconds."; "INFO: lockdep is turned off." follows a report.
vm_kernel_trouble() {
	grep -n -E 'WARNING: at|Call Trace|Oops|BUG:|kernel BUG|Kernel panic|general protection fault|INFO: |soft lockup' "$1"
}

# Boot the guest once under QEMU (TCG, two CPUs, 256 MiB; never KVM, see
# docs/TESTING.md): console to $1, extra kernel arguments $2, then the raw
# disk images, sda first.  The PIIX's IDE channels take four; the ones
# after them go on an AHCI controller (the guest loads ahci.ko for them).
# Uses $VM_KERNEL, $VM_INITRAMFS, $VM_TIMEOUT_S
# (hard limit), $VM_START_LIMIT (time for the guest's first line) and
# $VM_FIRST_LINE (a grep pattern of that line).  QEMU's status goes to
# $vm_rc; $vm_silent is 1 when QEMU was stopped because the guest never
# printed its first line.
vm_boot_once() {
	local console=$1 args=$2 i=0 disk
	shift 2
	local qemu=(qemu-system-i386 -accel tcg -smp 2 -m 256 -nographic -no-reboot -net none
		-kernel "$VM_KERNEL" -initrd "$VM_INITRAMFS")
	for disk in "$@"; do
		if [ $i -lt 4 ]; then
			qemu+=(-drive "file=$disk,format=raw,if=ide,index=$i,media=disk")
		else
			[ $i -eq 4 ] && qemu+=(-device ich9-ahci,id=ahci)
			qemu+=(-drive "file=$disk,format=raw,if=none,id=disk$i"
				-device "ide-hd,drive=disk$i,bus=ahci.$((i - 4))")
		fi
		i=$((i + 1))
	done
	qemu+=(-append "console=ttyS0 panic=-1${args:+ $args}")
	vm_log "booting: $(printf '%q ' "${qemu[@]}")"
	local start=$SECONDS pid
	vm_silent=0
	timeout --kill-after=10 "$VM_TIMEOUT_S" "${qemu[@]}" < /dev/null > "$console" 2>&1 &
	pid=$!
	while kill -0 "$pid" 2> /dev/null; do
		if [ $((SECONDS - start)) -ge "$VM_START_LIMIT" ] &&
			! grep -aq "$VM_FIRST_LINE" "$console"; then
			vm_silent=1
			kill "$pid" 2> /dev/null || true
			break
		fi
		sleep 1
	done
	set +e
	wait "$pid"
	vm_rc=$?
	set -e
	# The serial console ends its lines with CR LF.
	sed -i 's/\r$//' "$console"
	vm_log "QEMU ended with status $vm_rc after $((SECONDS - start)) s"
}

# Boot the guest (arguments of vm_boot_once) and fail unless it powered
# off by itself.  A guest that never prints its first line is a failure
# like any other: the serial driver's lost transmit interrupt that used to
# silence about one boot in twenty is fixed in the kernel we build
# (vm/patches/0007-*), and vm/bootloop.sh checks that boots stay fixed.
vm_boot() {
	local console=$1
	vm_boot_once "$@"
	[ "$vm_silent" = 0 ] ||
		{ tail -20 "$console" >&2; vm_die "the guest printed nothing within $VM_START_LIMIT s (console: $console)"; }
	[ $vm_rc -ne 124 ] && [ $vm_rc -ne 137 ] ||
		{ tail -20 "$console" >&2; vm_die "the guest did not power off within $VM_TIMEOUT_S s (console: $console)"; }
	[ $vm_rc -eq 0 ] ||
		{ tail -20 "$console" >&2; vm_die "QEMU failed (status $vm_rc, console: $console)"; }
}
