#!/usr/bin/env bash
# Build a module of ours against a configured 2.6.27 tree, with the
# kernel's own flags, and hold it to our rules:
#
#   - not a single compiler warning (or error) in a file of ours;
#   - modpost finds every symbol the module uses among the kernel's exports
#     (no "undefined!"), and no section mismatch;
#   - modinfo shows a one-line description and the vermagic of that tree.
#
#   vm/build-module.sh corvalin     core/ + kernel/ + include/ -> corvalin.ko
#   vm/build-module.sh blocker      vm/blocker/ -> blocker.ko
#   vm/build-module.sh lockbug      vm/lockbug/ -> lockbug.ko (the validator self-check)
#   KDIR=/path/to/linux-2.6.27 vm/build-module.sh corvalin
#
# The sources are copied to a fresh directory under $VM_OUT and built
# there, so every file is compiled every time (an incremental build would
# not repeat the warnings of unchanged files) and the source tree gets no
# build products.  The module ends up in $VM_OUT/modules/NAME.ko.
set -euo pipefail
. "$(dirname "$0")/common.sh"

name=${1:?usage: build-module.sh corvalin|blocker|lockbug}
kdir=${KDIR:-$KDIR_DEFAULT}
[ -f "$kdir/.config" ] && [ -f "$kdir/Module.symvers" ] ||
	vm_die "$kdir is not a configured and built kernel tree (run vm/build-kernel.sh or set KDIR)"
kdir=$(cd "$kdir" && pwd)

shadow=$VM_OUT/module-$name
rm -rf "$shadow"
mkdir -p "$shadow" "$VM_OUT/modules"
case $name in
corvalin)
	for d in include core kernel; do
		mkdir -p "$shadow/$d"
		# Sources and headers only: build products of an in-place
		# `make -C KDIR M=kernel` must not leak into this build.
		find "$SRC_ROOT/$d" -maxdepth 1 -type f \
			\( -name '*.c' -o -name '*.h' -o -name Kbuild \) \
			! -name '*.mod.c' -exec cp -p {} "$shadow/$d/" \;
	done
	mdir=$shadow/kernel
	ours='(include|core|kernel)/[^/]+'
	;;
blocker|lockbug)
	mkdir -p "$shadow/$name"
	cp -p "$VM_DIR/$name/$name.c" "$VM_DIR/$name/Kbuild" "$shadow/$name/"
	mdir=$shadow/$name
	ours="$name/[^/]+"
	;;
*)
	vm_die "unknown module '$name'"
	;;
esac
[ -f "$mdir/Kbuild" ] || vm_die "no Kbuild in $mdir"

log=$VM_OUT/module-$name.log
vm_log "building $name.ko against $kdir"
set +e
make -C "$kdir" "${KMAKE_ARGS[@]}" M="$mdir" modules > "$log" 2>&1
rc=$?
set -e

# Diagnostics that name a file of ours: gcc prints the path it was given,
# "$mdir/../core/x.c" for the core, so normalise before matching.  A
# warning inside a kernel macro used by our code is reported at the
# kernel's header with a note "in expansion of macro" at our line: ours too.
ours_re="^$shadow/$ours:[0-9]+(:[0-9]+)?: (warning|error|note: in expansion of macro)"
sed -e "s#$mdir/\.\./#$shadow/#g" "$log" > "$log.norm"
if grep -q -E "$ours_re" "$log.norm"; then
	# With the lines before each: the warning of a macro note.
	grep -E -B6 "$ours_re" "$log.norm" | sed -e "s#$shadow/##" | head -80 >&2
	vm_die "$name: the compiler warned about our sources (log: $log)"
fi
if [ $rc -ne 0 ]; then
	tail -40 "$log" >&2
	vm_die "$name: module build failed (log: $log)"
fi
if grep -E 'undefined!|[Ss]ection mismatch' "$log" >&2; then
	vm_die "$name: modpost: symbols 2.6.27 does not export, or a section mismatch (log: $log)"
fi

ko=$mdir/$name.ko
[ -f "$ko" ] || vm_die "$name: no $name.ko after the build"
cp "$ko" "$VM_OUT/modules/$name.ko"

krel=$(cat "$kdir/include/config/kernel.release")
desc=$(modinfo -F description "$ko")
magic=$(modinfo -F vermagic "$ko")
[ -n "$desc" ] || vm_die "$name: modinfo shows no description"
[ "$(printf '%s\n' "$desc" | wc -l)" -eq 1 ] ||
	vm_die "$name: the description is not one line"
case $magic in
"$krel "*) ;;
*) vm_die "$name: vermagic '$magic' is not of kernel $krel" ;;
esac
vm_log "$name.ko: \"$desc\", vermagic \"$magic\" -> $VM_OUT/modules/$name.ko"
