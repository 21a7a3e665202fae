#!/usr/bin/env bash
# The backup benchmarks on the real 2.6.27 kernel under QEMU (make vmbench).
#
# Reuses the boot test's kernel and module builds (vm/build-kernel.sh,
# vm/build-module.sh), builds its own guest program (vm/bench/vmbench.c
# with libcorvalin's C core, static i386 musl), its own initramfs and its
# own disk (one partition, sda1: 64 MiB of ext3 with 4096-byte blocks),
# boots QEMU (TCG, two CPUs, 256 MiB) and prints the guest's figures.
#
# Everything lands in $VM_OUT/bench (build/vm/bench): console.log,
# results.txt, the disk image.  Settings (environment): VM_TIMEOUT=SECS
# (default 900), and those of vm/common.sh.
set -euo pipefail
. "$(dirname "$0")/common.sh"

VM_TIMEOUT_S=${VM_TIMEOUT:-900}
VM_START_LIMIT=${VM_START_LIMIT:-90}
VM_FIRST_LINE='^==== corvalin vmbench'
kdir=$KDIR_DEFAULT
VM_KERNEL=$kdir/arch/x86/boot/bzImage
out=$VM_OUT/bench
console=$out/console.log
results=$out/results.txt
disk=$out/disk.img
initramfs=$out/initramfs.cpio
VM_INITRAMFS=$initramfs
mkdir -p "$out/obj"

fail() {
	vm_log "FAILED: $*"
	vm_log "console: $console"
	exit 1
}

# ---- build ------------------------------------------------------------------
"$VM_DIR/build-kernel.sh"
KDIR=$kdir "$VM_DIR/build-module.sh" corvalin

"$VM_DIR/build-guest.sh" bench

vm_initramfs "$initramfs" "$out/init" < /dev/null

# One partition from sector 2048, 131072 sectors (64 MiB), ext3.
p_start=2048 p_len=131072
rm -f "$disk" "$disk.p1"
truncate -s $(((p_start + p_len) * 512)) "$disk"
vm_label "$disk" c0b7a11b "$p_start" "$p_len"
vm_mkfs "$disk.p1" ext3 4096 "$p_len" corvalin-bench
dd if="$disk.p1" of="$disk" bs=512 seek="$p_start" conv=notrunc status=none
rm -f "$disk.p1"

# ---- boot -------------------------------------------------------------------
vm_boot "$console" "" "$disk"
if vm_kernel_trouble "$console" >&2; then
	vm_log "the kernel reported trouble (lines above): the figures below may not stand"
fi
grep -q '^==== corvalin guest error' "$console" &&
	{ grep '^==== corvalin guest error' "$console" >&2; fail "the guest stopped"; }
grep -q '^==== corvalin vmbench done ====$' "$console" ||
	{ tail -20 "$console" >&2; fail "the guest did not finish"; }
if grep -n '^KLOG ' "$console" >&2; then
	vm_log "the guest's kernel log reported trouble (lines above)"
fi
sed -n 's/^VMB //p' "$console" > "$results"
echo "== vmbench: the backup benchmarks on Linux $KVERSION under QEMU (TCG, 2 CPUs, 256 MiB)"
cat "$results"
