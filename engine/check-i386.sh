#!/usr/bin/env bash
# The engine as the 32-bit target builds it (static i386, musl, -Werror
# -pedantic), run on a repository the 64-bit host wrote: verify, and a
# restore of an incremental byte for byte equal to the host's restore.
#
#   engine/check-i386.sh HOST_CORVALIN WORKDIR
set -euo pipefail
host=${1:?usage: check-i386.sh HOST_CORVALIN WORKDIR}
work=${2:?usage: check-i386.sh HOST_CORVALIN WORKDIR}
src=$(cd "$(dirname "$0")/.." && pwd)
specs=/usr/lib/i386-linux-musl/musl-gcc.specs
rm -rf "$work"
mkdir -p "$work/obj"
for f in "$src"/engine/*.c "$src"/lib/client.c "$src"/lib/result.c \
	 "$src"/lib/transport_real.c; do
	gcc -m32 -specs="$specs" -fno-pie -std=c99 -O2 -g0 -Wall -Wextra \
	    -Werror -pedantic -D_FILE_OFFSET_BITS=64 -I"$src/lib" \
	    -I"$src/include" -I"$src/engine" -c "$f" \
	    -o "$work/obj/$(basename "${f%.c}").o"
done
gcc -m32 -specs="$specs" -fno-pie -static -no-pie -Wl,-m,elf_i386 -s \
    "$work"/obj/*.o -o "$work/corvalin"
"$host" demo "$work" > "$work/demo.log"
run=$(ls -d "$work"/corvalin-demo.*)
"$work/corvalin" verify "$run/repo"
"$work/corvalin" restore "$run/repo" "$work/r3.img" --backup 3
cmp "$run/restore-3.img" "$work/r3.img"
echo "i386 program reads the host's repository: backup 3 restored identically"
rm -rf "$work"
