#!/usr/bin/env bash
# The boot test: corvalin.ko on a real Linux 2.6.27 kernel under QEMU.
#
#   vm/vmtest.sh                (make vmtest installs its packages first)
#
# 1. Builds or reuses the kernel (vm/build-kernel.sh), corvalin.ko and the
#    blocker module (vm/build-module.sh: no warning in our sources, no
#    symbol 2.6.27 does not export), the guest's /init and the backup
#    program /bin/corvalin (vm/build-guest.sh),
#    an initramfs (vm/mkinitramfs.pl), the scenario's disk sda
#    (vm/mkdisk.sh) and the guest's other disks (vm/guest/disks.h: sdb
#    for the backup images, sdc for restores, sdd an ext2 repository, sde
#    the unpaused writer's partition and its chain's images).
# 2. Boots qemu-system-i386 with software emulation (TCG; never KVM), two
#    CPUs, 256 MiB, under a hard time limit, and keeps the serial console
#    (vm_boot of vm/common.sh).
# 3. Fails on any oops, BUG, warning trace or panic in the console (but
#    the one warning the driver is allowed, see allowed_warning), when the
#    guest did not finish, or when the scenario or the guest's backups
#    (vm/guest/backup.c, chain.c, race.c) reported a failure.
# 4. Runs the same scenario in the emulated kernel (tests/test_scenario.cpp,
#    built with CMake) and compares the two transcripts line by line: every
#    result and every kernel log line of the module must be identical.
# 5. Checks the disks afterwards on the host: e2fsck finds both file
#    systems clean, and the file the guest wrote on each is there; the
#    guest's backup images on the second disk (sdb) are clean file systems
#    whose files hold what they held at the frozen instant
#    (vm/check-image.c); each image of the chain taken on sde under a
#    writer that never paused is exactly the partition after one of the
#    writer's writes (vm/check-stamps.c), and check-stamps finds a block
#    set back by hand in a copy.
# 6. Checks the check: boots once more with corvalin.selftest=lockdep, where
#    the guest loads lockbug.ko (a lock order inversion on purpose), and
#    expects step 3's verdict to find the validator's report.
#
# Everything lands in $VM_OUT (build/vm): console.log, transcript.vm,
# transcript.emu, the images.  Settings (environment):
#   KSRC=...            kernel tarball or tree (default: /work/shared's)
#   VM_TIMEOUT=SECS     hard limit of the QEMU run (default 300)
#   VM_START_LIMIT=SECS time for /init's first line (default 90)
#   CORVALIN_BUILD=DIR  the project's build directory (default: build)
#   HOST_BUILD=DIR      CMake build directory for the emulated run
#                       (default: build/asan when `make test` configured
#                       it, else build/vm/host)
set -euo pipefail
. "$(dirname "$0")/common.sh"

VM_TIMEOUT_S=${VM_TIMEOUT:-300}
# /init's first line comes 8-12 s (guest time) after the start.
VM_START_LIMIT=${VM_START_LIMIT:-90}
VM_FIRST_LINE='^==== corvalin guest'
kdir=$KDIR_DEFAULT
VM_KERNEL=$kdir/arch/x86/boot/bzImage
console=$VM_OUT/console.log
vm_transcript=$VM_OUT/transcript.vm
emu_transcript=$VM_OUT/transcript.emu
disk=$VM_OUT/disk.img
sdb=$VM_OUT/sdb.img
sdc=$VM_OUT/sdc.img
sdd=$VM_OUT/sdd.img
sde=$VM_OUT/sde.img
sde1_orig=$VM_OUT/sde1.orig
initramfs=$VM_OUT/initramfs.cpio
VM_INITRAMFS=$initramfs
disks_h=$VM_DIR/guest/disks.h
check_image=$VM_OUT/check-image
check_stamps=$VM_OUT/check-stamps

fail() {
	vm_log "FAILED: $*"
	vm_log "console: $console"
	exit 1
}

# Console log $1 without the one kernel warning the driver is allowed, on
# stdout.  The change-tracking registry's unsetQueueMRFAMS returns with
# interrupts off (kept on purpose), so the close of a backup that takes
# the queue's interception away sleeps next with interrupts off and
# 2.6.27 prints "BUG: sleeping function called from invalid context",
# its held locks, irq events and stack, up to the line of '='.  That
# block is dropped only when it lies between the guest's marks of the
# close of a snapshotted backup (vm/guest/backup.c), its stack runs
# through closeBackup, and it is the first in that close; any other
# stays, and kernel_trouble finds it.  The guest's copy of the kernel log
# at the end repeats the block, with the same time stamp and a level
# prefix: that copy of a dropped block goes too.  The number of blocks
# dropped goes to $1.allowed.
allowed_warning() {
	awk -v count="$1.allowed" '
	function flush(   i) { for (i = 1; i <= n; i++) print held[i]; n = 0 }
	/==== corvalin guest: close of a snapshotted backup ====$/ {
		flush(); inside = 1; used = 0; print; next
	}
	/==== corvalin guest: close of a snapshotted backup done ====$/ {
		flush(); inside = 0; print; next
	}
	n > 0 {
		held[++n] = $0
		# a reliable frame of the stack (not a held lock, not "? ")
		if ($0 ~ /\] +\[<[0-9a-f]+>\] closeBackup\+0x/)
			through = 1
		if ($0 ~ /(^|\]) +=+$/) {
			if (through) {
				n = 0; used = 1; dropped++
				allowed[held[1]] = 1
			} else
				flush()
		}
		next
	}
	inside && !used && /BUG: sleeping function called from invalid context/ {
		n = 1; held[1] = $0; through = 0; next
	}
	copy {
		if ($0 ~ /(^|\]) +=+$/)
			copy = 0
		next
	}
	/^<[0-9]>\[/ && (substr($0, 4) in allowed) { copy = 1; next }
	{ print }
	END { flush(); print dropped + 0 > count }' "$1"
}

# Boot the guest with its five disks: console to $1, extra kernel
# arguments $2.
boot() {
	vm_boot "$1" "${2:-}" "$disk" "$sdb" "$sdc" "$sdd" "$sde"
}

# ---- 1. build -----------------------------------------------------------
"$VM_DIR/build-kernel.sh"
KDIR=$kdir "$VM_DIR/build-module.sh" corvalin
KDIR=$kdir "$VM_DIR/build-module.sh" blocker
KDIR=$kdir "$VM_DIR/build-module.sh" lockbug
"$VM_DIR/build-guest.sh"
"$VM_DIR/build-guest.sh" program

vm_initramfs "$initramfs" "$VM_OUT/guest/init" <<EOF
file /lib/modules/blocker.ko 0644 $VM_OUT/modules/blocker.ko
file /lib/modules/lockbug.ko 0644 $VM_OUT/modules/lockbug.ko
file /lib/modules/ahci.ko 0644 $kdir/drivers/ata/ahci.ko
dir /bin 0755
file /bin/corvalin 0755 $VM_OUT/guest/program/corvalin
dir /tmp 01777
EOF
"$VM_DIR/mkdisk.sh" "$disk"
cp "$disk" "$disk.orig"		# the emulated run starts from this
# The second disk, sdb: the guest writes its backup images there.
rm -f "$sdb" "$sdc" "$sdd" "$sdd.fs" "$sde" "$sde1_orig"
truncate -s $(($(vm_define GUEST_SDB_SECTORS "$disks_h") * 512)) "$sdb"
# The third, sdc: the restore targets, two partitions of sda2's size.
p2_sectors=$(vm_define SCN_P2_SECTORS "$VM_DIR/scenario/scenario.h")
truncate -s $(($(vm_define GUEST_SDC_SECTORS "$disks_h") * 512)) "$sdc"
vm_label "$sdc" c0b7a11c \
	"$(vm_define GUEST_SDC_P1_START "$disks_h")" "$p2_sectors" \
	"$(vm_define GUEST_SDC_P2_START "$disks_h")" "$p2_sectors"
# The fourth, sdd: the backup program's repository, ext2 on the whole disk.
vm_mkfs "$sdd" ext2 4096 "$(vm_define GUEST_SDD_SECTORS "$disks_h")" corvalin-repo
# The fifth, sde: an MSDOS label, sde1 a small ext2 with 4 KiB blocks (the
# guest mounts it read-only: the driver wants a mounted file system, and
# only the writer's raw writes may change it), then the chain's slots.
# sde1's first contents stay in $sde1_orig for the check.
sde1_start=$(vm_define GUEST_SDE_P1_START "$disks_h")
sde1_sectors=$(vm_define GUEST_SDE_P1_SECTORS "$disks_h")
truncate -s $(($(vm_define GUEST_SDE_SECTORS "$disks_h") * 512)) "$sde"
vm_label "$sde" c0b7a11e "$sde1_start" "$sde1_sectors"
vm_mkfs "$sde1_orig" ext2 4096 "$sde1_sectors" corvalin-race
dd if="$sde1_orig" of="$sde" bs=512 seek="$sde1_start" conv=notrunc status=none
# The host's check of those images.
gcc -std=c99 -D_DEFAULT_SOURCE -O2 -Wall -Wextra -Werror -I"$VM_DIR" \
	"$VM_DIR/check-image.c" -o "$check_image" ||
	fail "building vm/check-image.c"
gcc -std=c99 -D_DEFAULT_SOURCE -O2 -Wall -Wextra -Werror -I"$VM_DIR" \
	"$VM_DIR/check-stamps.c" -o "$check_stamps" ||
	fail "building vm/check-stamps.c"

# ---- 2. boot --------------------------------------------------------------
boot "$console"

# ---- 3. the guest's own verdict ---------------------------------------------
allowed_warning "$console" > "$console.judged"
if vm_kernel_trouble "$console.judged" >&2; then
	fail "the kernel reported trouble (lines above, numbered as in $console.judged)"
fi
vm_log "the driver's one allowed warning (close path of a snapshotted backup): $(cat "$console.allowed") time(s)"
rm -f "$console.allowed" "$console.judged"
# The validator turns itself off after its first report (or when its
# tables overflow): it must still be on when the scenario ends.
grep -qx '==== corvalin guest: lock validator debug_locks 1 ====' "$console" ||
	fail "the kernel's lock validator did not watch the whole scenario (debug_locks is not 1)"
grep -q '^==== corvalin guest: scenario ====$' "$console" ||
	fail "the guest never started the scenario"
grep -q '^==== corvalin guest done: ' "$console" ||
	fail "the guest did not finish the scenario"
sed -n 's/^SCN //p' "$console" > "$vm_transcript"
if grep -n '  FAIL ' "$vm_transcript" >&2; then
	fail "the scenario failed in the guest (lines above)"
fi
grep -qx '==== corvalin guest: backups done: 0 failures ====' "$console" ||
	{ grep -n '^BKP FAIL ' "$console" >&2; fail "the guest's backups with writers failed (lines above)"; }
grep -qx '==== corvalin guest: race done: 0 failures ====' "$console" ||
	{ sed -n '/^==== corvalin guest: race ====$/,$p' "$console" | grep -n '^BKP FAIL ' >&2
	  fail "the guest's chain under an unpaused writer failed (lines above)"; }
grep -qx '==== corvalin guest done: 0 failures ====' "$console" ||
	fail "the guest reported failures"
grep -qx 'result 0 failures' "$vm_transcript" ||
	fail "the transcript does not end in success"

# ---- 4. the same scenario in the emulated kernel ----------------------------
# The test build of `make test` when there is one (CI has just built it),
# else a plain build of our own.
if [ -z "${HOST_BUILD:-}" ]; then
	if [ -f "$CORVALIN_BUILD/asan/CMakeCache.txt" ]; then
		HOST_BUILD=$CORVALIN_BUILD/asan
	else
		HOST_BUILD=$VM_OUT/host
	fi
fi
if [ "$HOST_BUILD" = "$VM_OUT/host" ] || [ ! -f "$HOST_BUILD/CMakeCache.txt" ]; then
	gen=()
	command -v ninja > /dev/null && gen=(-G Ninja)
	cmake -S "$SRC_ROOT" -B "$HOST_BUILD" "${gen[@]}" -DCORVALIN_SANITIZER= \
		> "$VM_OUT/host-configure.log" 2>&1 ||
		{ tail -20 "$VM_OUT/host-configure.log" >&2; fail "cmake configure"; }
fi
vm_log "building the emulated scenario in $HOST_BUILD"
cmake --build "$HOST_BUILD" --target test_scenario -j "$VM_JOBS" \
	> "$VM_OUT/host-build.log" 2>&1 ||
	{ tail -30 "$VM_OUT/host-build.log" >&2; fail "building test_scenario"; }
bin=$(find "$HOST_BUILD" -type f -name test_scenario -perm -u+x | head -1)
[ -n "$bin" ] || fail "no test_scenario binary in $HOST_BUILD"
rm -f "$emu_transcript"
set +e
CORVALIN_SCENARIO_TRANSCRIPT=$emu_transcript CORVALIN_SCENARIO_DISK=$disk.orig \
	"$bin" --gtest_filter='BootScenario.*' > "$VM_OUT/emu-run.log" 2>&1
emu_rc=$?
set -e
[ -f "$emu_transcript" ] ||
	{ tail -30 "$VM_OUT/emu-run.log" >&2; fail "the emulated run wrote no transcript (log: $VM_OUT/emu-run.log)"; }

# Lines the kernel itself printed ("  kernel ...": mounts and the like)
# are not the module's and are not compared, nor are the measured times
# of the statistics ("  timing ...").  The diff comes first even when the
# emulated run failed: it shows where the two worlds part.
if ! diff -u --label emulated --label guest \
	<(grep -v -E '^  (kernel|timing) ' "$emu_transcript") \
	<(grep -v -E '^  (kernel|timing) ' "$vm_transcript") >&2; then
	fail "the guest and the emulated kernel disagree (diff above: - emulated, + guest)"
fi
[ $emu_rc -eq 0 ] ||
	{ tail -30 "$VM_OUT/emu-run.log" >&2; fail "the scenario failed in the emulated kernel (log: $VM_OUT/emu-run.log)"; }
vm_log "transcripts identical: $(grep -c '^  klog ' "$vm_transcript") module log lines, $(wc -l < "$vm_transcript") lines"

# ---- 5. the disk, back on the host -----------------------------------------
. <(sed -n 's/^#define \(SCN_P[12]_START\|SCN_P[12]_SECTORS\)[[:space:]]\{1,\}\([0-9]\{1,\}\).*/\1=\2/p' \
	"$VM_DIR/scenario/scenario.h")
for p in 1 2; do
	start_var=SCN_P${p}_START len_var=SCN_P${p}_SECTORS
	part=$VM_OUT/disk.p$p
	dd if="$disk" of="$part" bs=512 skip="${!start_var}" count="${!len_var}" status=none
	e2fsck -fn "$part" > "$VM_OUT/e2fsck.p$p.log" 2>&1 ||
		{ cat "$VM_OUT/e2fsck.p$p.log" >&2; fail "e2fsck: sda$p is not clean"; }
	got=$(debugfs -R 'cat /guest-was-here' "$part" 2>/dev/null)
	[ "$got" = "corvalin boot test, sda$p $([ $p = 1 ] && echo ext2 || echo ext3)" ] ||
		fail "sda$p: the guest's file reads '$got'"
	rm -f "$part"
done
rm -f "$disk.orig"

# The guest's backup images on sdb: the full backups of both partitions
# and the images of sda2's incremental chain (each the one before it
# patched with the incremental's blocks); on sdc the backup program's
# restores of its full and its incremental backup of sda2.  Each is a
# clean file system
# whose writers' files hold what they held at its frozen instant, and
# nothing else is in w/.
check_image_at() {	# label fs disk-image first-sector sectors
	local label=$1 fs=$2 from=$3 start=$4 count=$5
	local image=$VM_OUT/image.$label
	dd if="$from" of="$image" bs=512 skip="$start" count="$count" status=none
	e2fsck -fn "$image" > "$VM_OUT/e2fsck.image.$label.log" 2>&1 ||
		{ cat "$VM_OUT/e2fsck.image.$label.log" >&2; fail "e2fsck: the backup image $label ($fs) is not clean"; }
	rm -rf "$image.files"
	mkdir -p "$image.files"
	debugfs -R "rdump /w $image.files" "$image" > "$VM_OUT/debugfs.image.$label.log" 2>&1 ||
		{ cat "$VM_OUT/debugfs.image.$label.log" >&2; fail "debugfs could not read the backup image $label"; }
	sed -n "s/^BKP \(file $label .*\)/\1/p" "$console" > "$image.expected"
	"$check_image" "$image.files" < "$image.expected" > "$VM_OUT/check-image.$label.log" 2>&1 ||
		{ cat "$VM_OUT/check-image.$label.log" >&2; fail "the backup image $label does not hold its frozen instant (above)"; }
	vm_log "backup image $label ($fs): e2fsck clean; $(tail -1 "$VM_OUT/check-image.$label.log")"
	rm -rf "$image" "$image.files" "$image.expected"
}
images=0
for want in sda2 sda2-incr1 sda2-incr2 sda2-restore1 sda2-restore2 sda1; do
	line=$(grep "^BKP image $want " "$console") ||
		fail "the guest wrote no backup image $want"
	read -r _ _ label fs from start _ count <<< "$line"
	len_var=SCN_P${label:3:1}_SECTORS
	[ "$count" = "${!len_var}" ] ||
		fail "the image $label has $count sectors, the partition ${!len_var}"
	check_image_at "$label" "$fs" "$VM_OUT/${from%-sector}.img" "$start" "$count"
	images=$((images + 1))
done

# The chain of sde1 under the writer that never paused: every image is
# state(S) of the writer's sequence for its S, S grows from image to
# image, and sde1 itself ends as state(all writes).
race_lines=$VM_OUT/race.lines
sed -n 's/^BKP race //p' "$console" > "$race_lines"
"$check_stamps" "$sde" "$sde1_orig" < "$race_lines" > "$VM_OUT/check-stamps.log" 2>&1 ||
	{ cat "$VM_OUT/check-stamps.log" >&2; fail "an image of the chain under an unpaused writer is not the partition after one write (above)"; }
sed 's/^/  /' "$VM_OUT/check-stamps.log" >&2
vm_log "race chain: $(tail -1 "$VM_OUT/check-stamps.log")"
# The check of that check: a copy of sde with one block of a middle image
# set back to the image before it (a write lost across a frozen instant)
# must be reported, that block and nothing else.
forged=$VM_OUT/sde.forged.img
forge_k=$(($(vm_define GUEST_RACE_IMAGES "$disks_h") / 2))
cp --sparse=always "$sde" "$forged"
"$check_stamps" --forge "$forge_k" "$forged" < "$race_lines" > "$VM_OUT/check-stamps.forge.log" 2>&1 ||
	{ cat "$VM_OUT/check-stamps.forge.log" >&2; fail "check-stamps could not forge a lost write"; }
forged_block=$(sed -n 's/^forged image [0-9]* block \([0-9]*\):.*/\1/p' "$VM_OUT/check-stamps.forge.log")
set +e
"$check_stamps" "$forged" "$sde1_orig" < "$race_lines" >> "$VM_OUT/check-stamps.forge.log" 2>&1
forged_rc=$?
set -e
rm -f "$forged"
[ $forged_rc -eq 1 ] &&
	grep -q "^image $forge_k block $forged_block: .* lost" "$VM_OUT/check-stamps.forge.log" &&
	grep -q '^check-stamps: .*, 1 faults$' "$VM_OUT/check-stamps.forge.log" ||
	{ cat "$VM_OUT/check-stamps.forge.log" >&2; fail "self-test: check-stamps missed a block set back by hand (status $forged_rc)"; }
vm_log "self-test: check-stamps finds a write lost in image $forge_k ($(head -1 "$VM_OUT/check-stamps.forge.log"))"

# ---- 6. the verdict catches the validator ------------------------------------
selftest_console=$VM_OUT/console.selftest.log
boot "$selftest_console" corvalin.selftest=lockdep
grep -qx '==== corvalin guest: lockbug loaded: 0 ====' "$selftest_console" ||
	fail "self-test: lockbug.ko did not load (console: $selftest_console)"
grep -q 'INFO: possible circular locking dependency detected' "$selftest_console" ||
	fail "self-test: the kernel's lock validator did not report lockbug's inversion (console: $selftest_console)"
vm_kernel_trouble "$selftest_console" > /dev/null ||
	fail "self-test: the verdict of step 3 misses the validator's report (console: $selftest_console)"
vm_log "self-test: the verdict fails on the lock validator's report, as it must"

vm_log "PASSED: corvalin.ko on Linux $KVERSION (console: $console)"
