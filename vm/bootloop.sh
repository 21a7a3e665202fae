#!/usr/bin/env bash
# Boot the boot test's kernel and guest many times over, each boot only as
# far as /init's first line on the serial console, and count the boots in
# which the guest never spoke.  This is the check of the harness itself:
# the boot test and the benchmarks boot once and must be able to trust
# that a silent guest is a real hang.
#
#   vm/bootloop.sh [BOOTS]      (default 50; make vmbootloop)
#
# Settings (environment): VM_START_LIMIT (seconds for the first line,
# default 60), VM_KERNEL (the bzImage to boot, default the boot test's),
# KSRC as for vm/build-kernel.sh.  Consoles land in $VM_OUT/bootloop/.
# Fails when any boot stayed silent, or did not power off by itself.
set -euo pipefail
. "$(dirname "$0")/common.sh"

boots=${1:-50}
VM_TIMEOUT_S=${VM_TIMEOUT:-120}
VM_START_LIMIT=${VM_START_LIMIT:-60}
VM_FIRST_LINE='^==== corvalin guest: self-test boot ====$'
kdir=$KDIR_DEFAULT
out=$VM_OUT/bootloop
VM_INITRAMFS=$out/initramfs.cpio

if [ -z "${VM_KERNEL:-}" ]; then
	"$VM_DIR/build-kernel.sh"
	VM_KERNEL=$kdir/arch/x86/boot/bzImage
fi
"$VM_DIR/build-guest.sh"
mkdir -p "$out"
rm -f "$out"/console.*.log
vm_initramfs "$VM_INITRAMFS" "$VM_OUT/guest/init" < /dev/null

# Four disks, as the boot test has: their probe and partition scan run
# while /init starts, and take their share of the CPUs and interrupts.
disks=()
for d in a b c d; do
	truncate -s 64M "$out/sd$d.img"
	disks+=("$out/sd$d.img")
done

silent=0 stuck=0 start=$SECONDS
for i in $(seq 1 "$boots"); do
	console=$out/console.$i.log
	vm_boot_once "$console" "corvalin.selftest=boot" "${disks[@]}"
	if [ "$vm_silent" = 1 ]; then
		silent=$((silent + 1))
		vm_log "boot $i: the guest printed nothing within $VM_START_LIMIT s (console: $console)"
		tail -3 "$console" >&2
	elif [ "$vm_rc" -ne 0 ]; then
		stuck=$((stuck + 1))
		vm_log "boot $i: QEMU ended with status $vm_rc (console: $console)"
	fi
done
vm_log "bootloop: $boots boots in $((SECONDS - start)) s, $silent silent, $stuck not powered off"
[ "$silent" -eq 0 ] && [ "$stuck" -eq 0 ]
