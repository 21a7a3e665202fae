#!/usr/bin/env bash
# Build the guest's only program, /init: vm/guest/init.c with the boot
# scenario (vm/scenario/scenario.c) and libcorvalin's C core (lib/*.c), as
# one static i386 binary linked against musl: 2.6.27 cannot start today's
# glibc (its start-up code needs the AT_RANDOM auxiliary vector entry,
# which 2.6.29 added).
#
#   vm/build-guest.sh        -> $VM_OUT/guest/init
#
# Debian's musl-dev:i386 ships a specs file for gcc; its link rule drops
# the -m elf_i386 that `gcc -m32` gives the linker, so we pass it again.
set -euo pipefail
. "$(dirname "$0")/common.sh"

specs=/usr/lib/i386-linux-musl/musl-gcc.specs
[ -f "$specs" ] || vm_die "no $specs: install musl-dev:i386 (scripts/install-deps.sh vm)"

out=$VM_OUT/guest
mkdir -p "$out/obj"
cc=(gcc -m32 -specs="$specs" -fno-pie -std=c99 -O2 -g0
    -Wall -Wextra -Werror -pedantic
    -I"$SRC_ROOT/lib" -I"$SRC_ROOT/include" -I"$VM_DIR/scenario")

objs=()
for src in "$SRC_ROOT"/lib/*.c "$VM_DIR/scenario/scenario.c" "$VM_DIR/guest/init.c"; do
	obj=$out/obj/$(basename "${src%.c}").o
	"${cc[@]}" -c "$src" -o "$obj"
	objs+=("$obj")
done
"${cc[@]}" -static -no-pie -Wl,-m,elf_i386 -s "${objs[@]}" -o "$out/init.new"
mv "$out/init.new" "$out/init"
vm_log "guest program: $out/init ($(stat -c %s "$out/init") bytes)"
