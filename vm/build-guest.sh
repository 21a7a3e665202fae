#!/usr/bin/env bash
# Build a guest program of vm/ as one static i386 binary linked against
# musl: 2.6.27 cannot start today's glibc (its start-up code needs the
# AT_RANDOM auxiliary vector entry, which 2.6.29 added).
#
#   vm/build-guest.sh          the boot test's /init -> $VM_OUT/guest/init:
#                              vm/guest/init.c, its backups (backup.c,
#                              chain.c, program.c, race.c) and the boot scenario
#                              (vm/scenario/scenario.c)
#   vm/build-guest.sh bench    the benchmark's /init -> $VM_OUT/bench/init:
#                              vm/bench/vmbench.c
#   vm/build-guest.sh program  the backup program -> $VM_OUT/guest/corvalin:
#                              engine/main.c and the engine's sources (the
#                              list of engine/CMakeLists.txt)
#
# All with libcorvalin's C core (lib/*.c); the two /init programs with the
# guest platform (vm/guest/platform.c) too.  Debian's musl-dev:i386 ships a specs file for gcc; its
# link rule drops the -m elf_i386 that `gcc -m32` gives the linker, so we
# pass it again.
set -euo pipefail
. "$(dirname "$0")/common.sh"

what=${1:-test}
name=init
flags=()
case $what in
test)
	out=$VM_OUT/guest
	main=("$VM_DIR/guest/platform.c" "$VM_DIR/guest/init.c" "$VM_DIR/guest/backup.c"
	      "$VM_DIR/guest/chain.c" "$VM_DIR/guest/program.c" "$VM_DIR/guest/race.c"
	      "$VM_DIR/scenario/scenario.c") ;;
bench)
	out=$VM_OUT/bench
	main=("$VM_DIR/guest/platform.c" "$VM_DIR/bench/vmbench.c") ;;
program)
	out=$VM_OUT/guest/program
	name=corvalin
	flags=(-D_FILE_OFFSET_BITS=64 -I"$SRC_ROOT/engine")
	list=$(sed -n '/^set(CORVALIN_ENGINE_SOURCES/,/)/p' "$SRC_ROOT/engine/CMakeLists.txt" |
		sed -e 's/^set(CORVALIN_ENGINE_SOURCES//' -e 's/)//')
	[ -n "$list" ] || vm_die "no CORVALIN_ENGINE_SOURCES in engine/CMakeLists.txt"
	main=("$SRC_ROOT/engine/main.c")
	for src in $list; do
		main+=("$SRC_ROOT/engine/$src")
	done ;;
*)	vm_die "usage: build-guest.sh [test|bench|program]" ;;
esac

specs=/usr/lib/i386-linux-musl/musl-gcc.specs
[ -f "$specs" ] || vm_die "no $specs: install musl-dev:i386 (scripts/install-deps.sh vm)"

mkdir -p "$out/obj"
cc=(gcc -m32 -specs="$specs" -fno-pie -std=c99 -O2 -g0
    -Wall -Wextra -Werror -pedantic
    -I"$SRC_ROOT/lib" -I"$SRC_ROOT/include" -I"$VM_DIR/scenario" -I"$VM_DIR/guest"
    "${flags[@]}")

objs=()
for src in "$SRC_ROOT"/lib/*.c "${main[@]}"; do
	obj=$out/obj/$(basename "${src%.c}").o
	"${cc[@]}" -c "$src" -o "$obj"
	objs+=("$obj")
done
"${cc[@]}" -static -no-pie -Wl,-m,elf_i386 -s "${objs[@]}" -o "$out/$name.new"
mv "$out/$name.new" "$out/$name"
vm_log "guest program: $out/$name ($(stat -c %s "$out/$name") bytes)"
