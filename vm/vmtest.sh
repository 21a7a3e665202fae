#!/usr/bin/env bash
# The boot test: corvalin.ko on a real Linux 2.6.27 kernel under QEMU.
#
#   vm/vmtest.sh                (make vmtest installs its packages first)
#
# 1. Builds or reuses the kernel (vm/build-kernel.sh), corvalin.ko and the
#    blocker module (vm/build-module.sh: no warning in our sources, no
#    symbol 2.6.27 does not export), the guest's /init (vm/build-guest.sh),
#    an initramfs (vm/mkinitramfs.pl) and the disk (vm/mkdisk.sh).
# 2. Boots qemu-system-i386 with software emulation (TCG; never KVM), two
#    CPUs, 256 MiB, under a hard time limit, and keeps the serial console.
# 3. Fails on any oops, BUG, warning trace or panic in the console, when
#    the guest did not finish, or when the scenario reported a failure.
# 4. Runs the same scenario in the emulated kernel (tests/test_scenario.cpp,
#    built with CMake) and compares the two transcripts line by line: every
#    result and every kernel log line of the module must be identical.
# 5. Checks the disk afterwards on the host: e2fsck finds both file
#    systems clean, and the file the guest wrote on each is there.
#
# Everything lands in $VM_OUT (build/vm): console.log, transcript.vm,
# transcript.emu, the images.  Settings (environment):
#   KSRC=...            kernel tarball or tree (default: /work/shared's)
#   VM_TIMEOUT=SECS     hard limit of the QEMU run (default 240)
#   CORVALIN_BUILD=DIR  the project's build directory (default: build)
#   HOST_BUILD=DIR      CMake build directory for the emulated run
#                       (default: build/asan when `make test` configured
#                       it, else build/vm/host)
set -euo pipefail
. "$(dirname "$0")/common.sh"

timeout_s=${VM_TIMEOUT:-240}
kdir=$KDIR_DEFAULT
console=$VM_OUT/console.log
vm_transcript=$VM_OUT/transcript.vm
emu_transcript=$VM_OUT/transcript.emu
disk=$VM_OUT/disk.img
initramfs=$VM_OUT/initramfs.cpio

fail() {
	vm_log "FAILED: $*"
	vm_log "console: $console"
	exit 1
}

# ---- 1. build -----------------------------------------------------------
"$VM_DIR/build-kernel.sh"
KDIR=$kdir "$VM_DIR/build-module.sh" corvalin
KDIR=$kdir "$VM_DIR/build-module.sh" blocker
"$VM_DIR/build-guest.sh"

"$VM_DIR/mkinitramfs.pl" "$initramfs" <<EOF
dir /dev 0755
nod /dev/console 0600 c 5 1
nod /dev/null 0666 c 1 3
dir /proc 0755
dir /sys 0755
dir /mnt 0755
dir /lib 0755
dir /lib/modules 0755
file /lib/modules/corvalin.ko 0644 $VM_OUT/modules/corvalin.ko
file /lib/modules/blocker.ko 0644 $VM_OUT/modules/blocker.ko
file /init 0755 $VM_OUT/guest/init
EOF
"$VM_DIR/mkdisk.sh" "$disk"
cp "$disk" "$disk.orig"		# the emulated run starts from this

# ---- 2. boot --------------------------------------------------------------
qemu=(qemu-system-i386 -accel tcg -smp 2 -m 256 -nographic -no-reboot -net none
      -kernel "$kdir/arch/x86/boot/bzImage" -initrd "$initramfs"
      -drive "file=$disk,format=raw,if=ide,index=0,media=disk"
      -append "console=ttyS0 panic=-1")
vm_log "booting: $(printf '%q ' "${qemu[@]}")"
start=$SECONDS
set +e
timeout --kill-after=10 "$timeout_s" "${qemu[@]}" < /dev/null > "$console" 2>&1
rc=$?
set -e
# The serial console ends its lines with CR LF.
sed -i 's/\r$//' "$console"
vm_log "QEMU ended with status $rc after $((SECONDS - start)) s"
[ $rc -ne 124 ] && [ $rc -ne 137 ] ||
	{ tail -20 "$console" >&2; fail "the guest did not power off within $timeout_s s"; }
[ $rc -eq 0 ] ||
	{ tail -20 "$console" >&2; fail "QEMU failed (status $rc)"; }

# ---- 3. the guest's own verdict ---------------------------------------------
# Kernel trouble, whoever caused it.  "BUG:" covers "sleeping function
# called from invalid context", spin lock and slab debugging reports.
if grep -n -E 'WARNING: at|Call Trace|Oops|BUG:|kernel BUG|Kernel panic|general protection fault|INFO: (task|possible)' "$console" >&2; then
	fail "the kernel reported trouble (lines above)"
fi
grep -q '^==== corvalin guest: scenario ====$' "$console" ||
	fail "the guest never started the scenario"
grep -q '^==== corvalin guest done: ' "$console" ||
	fail "the guest did not finish the scenario"
sed -n 's/^SCN //p' "$console" > "$vm_transcript"
if grep -n '  FAIL ' "$vm_transcript" >&2; then
	fail "the scenario failed in the guest (lines above)"
fi
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
# are not the module's and are not compared.  The diff comes first even
# when the emulated run failed: it shows where the two worlds part.
if ! diff -u --label emulated --label guest \
	<(grep -v '^  kernel ' "$emu_transcript") \
	<(grep -v '^  kernel ' "$vm_transcript") >&2; then
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

vm_log "PASSED: corvalin.ko on Linux $KVERSION (console: $console)"
