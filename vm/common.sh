# Shared settings of the boot-test scripts; sourced, not run.
#
# Everything the scripts produce lives under $VM_OUT: the vm/ directory of
# the project's build directory ($CORVALIN_BUILD, build/ of the source tree
# unless set), so `make clean` removes it and the source tree stays clean.

VM_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
SRC_ROOT=$(cd "$VM_DIR/.." && pwd)
CORVALIN_BUILD=${CORVALIN_BUILD:-$SRC_ROOT/build}
VM_OUT=${VM_OUT:-$CORVALIN_BUILD/vm}

# The kernel the module targets, and how it is built on today's toolchain:
# Debian's gcc defaults to PIE, which 2.6.27's inline assembly cannot take.
KTARBALL_DEFAULT=/work/shared/linux-2.6.27/linux-2.6.27.tar.xz
KTARBALL_SHA256=1a2345b19fd545ec28d7d5aa641e4af105ac85c7049ac27983827ef3123a5772
KVERSION=2.6.27
KDIR_DEFAULT=$VM_OUT/linux-$KVERSION
KMAKE_ARGS=(ARCH=i386 "CC=gcc -m32 -fno-pie")

# At most two jobs: the machines that run this have two cores, shared.
VM_JOBS=${VM_JOBS:-2}

vm_log() {
	printf '%s: %s\n' "$(basename "$0")" "$*" >&2
}

vm_die() {
	vm_log "$*"
	exit 1
}

# sha256 of the named files' contents, in the given order.
vm_hash_files() {
	cat "$@" | sha256sum | cut -d' ' -f1
}
