#!/usr/bin/env bash
# Install what the project needs on a fresh Debian machine, and nothing when
# it is already there (so every make target can call it cheaply).
#
#   scripts/install-deps.sh host   compilers, CMake, GoogleTest, Benchmark,
#                                  and the target's toolchain (i386, musl)
#                                  for the test of the target's program
#   scripts/install-deps.sh vm     + QEMU and what builds 2.6.27
#   scripts/install-deps.sh fuzz   + clang and its libFuzzer and sanitizer
#                                  runtimes (make fuzz)
set -euo pipefail

want=${1:-host}

host_pkgs=(cmake ninja-build g++ gcc make libgtest-dev libgmock-dev googletest
           libbenchmark-dev e2fsprogs gcc-12-multilib musl-dev:i386)
vm_pkgs=(qemu-system-x86 xz-utils perl patch kmod)
fuzz_pkgs=(clang libclang-rt-dev)

missing() {
	local p out=()
	for p in "$@"; do
		dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' ||
			out+=("$p")
	done
	printf '%s\n' "${out[@]}"
}

as_root() {
	if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

pkgs=("${host_pkgs[@]}")
if [ "$want" = vm ]; then
	pkgs+=("${vm_pkgs[@]}")
fi
if [ "$want" = fuzz ]; then
	pkgs+=("${fuzz_pkgs[@]}")
fi
if ! dpkg --print-foreign-architectures | grep -qx i386; then
	as_root dpkg --add-architecture i386
fi

mapfile -t need < <(missing "${pkgs[@]}" | sed '/^$/d')
[ ${#need[@]} -eq 0 ] && exit 0

echo "install-deps: installing ${need[*]}" >&2
# After adding i386, one of its indexes may fail to verify while the others
# load; apt-get update then exits 100 although what we need is available.
as_root apt-get update -qq || echo "install-deps: apt-get update reported errors; going on" >&2
as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${need[@]}"
