#!/usr/bin/env bash
# Prepare a Linux 2.6.27 tree for the boot test and for out-of-tree builds
# of corvalin.ko: unpack, apply vm/patches, configure from vm/kernel.config,
# build bzImage, vmlinux, Module.symvers and the kernel's one module,
# ahci.ko (the boot test's fifth disk).
#
#   vm/build-kernel.sh                 the tarball of /work/shared
#   KSRC=/path/linux-2.6.27.tar.xz vm/build-kernel.sh
#   KSRC=/path/to/unpacked/tree vm/build-kernel.sh   (copied, never modified)
#
# The result is $VM_OUT/linux-2.6.27 (build/vm/linux-2.6.27).  A stamp in
# the tree records the hash of the source, the patches, the configuration
# fragment and the compiler; when it matches, nothing is rebuilt.
set -euo pipefail
. "$(dirname "$0")/common.sh"

ksrc=${KSRC:-$KTARBALL_DEFAULT}
kdir=$KDIR_DEFAULT
stamp=$kdir/.corvalin-stamp
patches=("$VM_DIR"/patches/*.patch)

[ -e "$ksrc" ] || vm_die "no kernel source at $ksrc (set KSRC)"

if [ -d "$ksrc" ]; then
	ksrc=$(cd "$ksrc" && pwd)
	[ -f "$ksrc/Makefile" ] || vm_die "$ksrc is not a kernel tree"
	src_key="tree:$ksrc:$(cd "$ksrc" && head -5 Makefile | tr '\n' ' ')"
else
	src_key=$(sha256sum "$ksrc" | cut -d' ' -f1)
	if [ "$ksrc" = "$KTARBALL_DEFAULT" ] &&
	   [ "$src_key" != "$KTARBALL_SHA256" ]; then
		vm_die "$ksrc: sha256 $src_key, expected $KTARBALL_SHA256"
	fi
fi

key=$( {
	echo "source $src_key"
	echo "patches $(vm_hash_files "${patches[@]}")"
	echo "config $(vm_hash_files "$VM_DIR/kernel.config")"
	echo "make ${KMAKE_ARGS[*]}"
	gcc -m32 --version | head -1
	ld --version | head -1
} | sha256sum | cut -d' ' -f1)

if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$key" ] &&
   [ -f "$kdir/arch/x86/boot/bzImage" ] && [ -f "$kdir/Module.symvers" ] &&
   [ -f "$kdir/drivers/ata/ahci.ko" ]; then
	vm_log "kernel tree $kdir is up to date"
	exit 0
fi

vm_log "preparing $kdir from $ksrc"
mkdir -p "$VM_OUT"
rm -rf "$kdir" "$kdir.unpack"
mkdir -p "$kdir.unpack"
if [ -d "$ksrc" ]; then
	cp -a "$ksrc/." "$kdir.unpack/linux-$KVERSION"
	# A reference tree may be read-only; our copy is patched and built.
	chmod -R u+w "$kdir.unpack/linux-$KVERSION"
else
	tar -xJf "$ksrc" -C "$kdir.unpack"
fi
[ -d "$kdir.unpack/linux-$KVERSION" ] ||
	vm_die "$ksrc does not unpack to linux-$KVERSION/"
mv "$kdir.unpack/linux-$KVERSION" "$kdir"
rmdir "$kdir.unpack"

for p in "${patches[@]}"; do
	vm_log "applying $(basename "$p")"
	patch -d "$kdir" -p1 --forward --batch --quiet < "$p"
done

# allnoconfig turns off all it may; KCONFIG_ALLCONFIG then forces our lines
# on.  Check that each survived: a dependency we missed would silently drop
# one, and the boot test would fail much later and less clearly.
make -C "$kdir" -s "${KMAKE_ARGS[@]}" \
	KCONFIG_ALLCONFIG="$VM_DIR/kernel.config" allnoconfig \
	> "$VM_OUT/kernel-config.log" 2>&1 ||
	{ cat "$VM_OUT/kernel-config.log" >&2; vm_die "configuration failed"; }
while IFS= read -r line; do
	case $line in CONFIG_*) ;; *) continue ;; esac
	grep -qx "$line" "$kdir/.config" ||
		vm_die "kernel.config: '$line' did not survive the configuration"
done < "$VM_DIR/kernel.config"

# `all` is vmlinux, bzImage and the modules pass, whose modpost run writes
# Module.symvers: the symbols 2.6.27 exports, which the module build checks
# corvalin.ko against.  The kernel's own warnings are not ours: keep them in
# a log instead of the terminal.
log=$VM_OUT/kernel-build.log
vm_log "building the kernel (log: $log)"
if ! make -C "$kdir" -j"$VM_JOBS" "${KMAKE_ARGS[@]}" all > "$log" 2>&1; then
	tail -40 "$log" >&2
	vm_die "kernel build failed (full log: $log)"
fi
[ -f "$kdir/arch/x86/boot/bzImage" ] || vm_die "no bzImage after the build"
[ -f "$kdir/Module.symvers" ] || vm_die "no Module.symvers after the build"
# The fifth disk's controller driver, a module the boot test's guest loads.
[ -f "$kdir/drivers/ata/ahci.ko" ] || vm_die "no drivers/ata/ahci.ko after the build"

echo "$key" > "$stamp"
vm_log "kernel ready: $kdir/arch/x86/boot/bzImage ($(grep -c 'warning:' "$log") kernel warnings in $log)"
