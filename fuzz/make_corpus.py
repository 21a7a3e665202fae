#!/usr/bin/env python3
"""Writes the seed corpus of the command-sequence fuzzer (fuzz/corpus/).

Each seed is a short, mostly well-formed program in the fuzzer's input
format (fuzz/fuzz_commands.cpp says it byte by byte): a backup read whole,
an incremental chain, the checked point in time in its modes, two files
and the backup slot, a module reload, a partition re-read, an operation on
another thread, injected allocation failures, hostile addresses and
lengths.  libFuzzer mutates from these; the files are also the regression
inputs `make fuzz-regress` and CI run.

    fuzz/make_corpus.py [DIR]     (default: fuzz/corpus beside this script)
"""
import os
import struct
import sys

# The sixteen commands, by their index in the fuzzer's table.
(GET_BLOCK_SIZE, START_BACKUP, SNAPSHOT, GET_STATE, GET_AUTOMAP_STATE,
 NO_LOAD, NO_START, LOAD_BLOCK_MAP, GET_AUTOMAP, GET_DIRTY_BLOCK,
 READ_BLOCKS, VERSION_MAJOR, VERSION_MINOR, SYNC, UNLOAD,
 COMMAND_16) = range(16)

# The other operations, from 0xa0.
(OPEN, CLOSE, MMAP, MUNMAP, PEEK, FS_WRITE, FS_SYNC, RAW_IO, WRITER,
 UMOUNT, MOUNT, RESCAN, MODULE, ASYNC, FAULT, PIT, ODD_IOCTL, SIGNAL,
 REOPEN, DISK_FAIL) = (0xa0 + i for i in range(20))

# Header bits.
BS_4096, BS_2048 = 1, 2
BIO, HARDIRQ, JOURNAL, WRITER_ON, RACES, PROLOGUE = 4, 8, 16, 32, 64, 128

# Fault kinds.
KMALLOC, VMALLOC, PAGES, SLAB, SLAB_CREATE, BIO_ALLOC, BH, THREAD = range(8)


def op(code, slot=0, s=(), raw=0):
    s = list(s) + [0] * (6 - len(s))
    return bytes([code, slot] + s) + struct.pack('<I', raw & 0xffffffff)


def seed(header, rnd, *ops):
    return bytes([header, rnd]) + b''.join(ops)


def reads(n, slot=0):
    return b''.join(op(READ_BLOCKS, slot) for _ in range(n))


def backup(slot=0):
    """A full backup of sda1 on `slot`: open, start, snapshot, map, read."""
    return (op(OPEN, slot) + op(START_BACKUP, slot) + op(SNAPSHOT, slot) +
            op(GET_AUTOMAP_STATE, slot) + op(MMAP, slot) + reads(4, slot))


def incremental(slot=0):
    """The next backup of the chain: the key the last GET_AUTOMAP_STATE
    answered, the change map exported and loaded, its blocks read."""
    return (op(OPEN, slot) + op(START_BACKUP, slot) + op(SNAPSHOT, slot) +
            op(GET_STATE, slot) + op(GET_AUTOMAP, slot) +
            op(LOAD_BLOCK_MAP, slot) + op(GET_AUTOMAP_STATE, slot) +
            op(MMAP, slot) + reads(3, slot) + op(GET_DIRTY_BLOCK, slot))


def writes(*blocks, mount=0):
    return b''.join(op(FS_WRITE, s=(mount, 0x40 + i), raw=b)
                    for i, b in enumerate(blocks)) + op(FS_SYNC, s=(mount,))


SEEDS = {
    'prologue-read-all': seed(PROLOGUE, 1, reads(5), op(SYNC),
                              op(GET_STATE), op(GET_DIRTY_BLOCK)),
    'prologue-4096-journal-writer': seed(
        PROLOGUE | BS_4096 | JOURNAL | WRITER_ON, 2, reads(3),
        op(LOAD_BLOCK_MAP, s=(0, 0, 0, 1)), reads(2), op(GET_DIRTY_BLOCK)),
    'full-backup': seed(0, 3, backup(), op(CLOSE)),
    'chain': seed(0, 4, backup(), op(CLOSE), writes(5, 77, 300),
                  incremental(), op(CLOSE)),
    'chain-4096-writer': seed(BS_4096 | WRITER_ON, 5, backup(), op(CLOSE),
                              writes(1, 2, 200), incremental(), op(CLOSE),
                              writes(9), op(PIT, s=(1, 1), raw=21)),
    'chain-stale-key': seed(0, 6, backup(), op(CLOSE), writes(3),
                            op(OPEN), op(START_BACKUP),
                            op(SNAPSHOT, s=(0, 0, 1), raw=17),
                            op(GET_STATE), op(NO_LOAD), op(SNAPSHOT),
                            op(GET_STATE), op(CLOSE)),
    'chain-no-start': seed(0, 7, backup(), op(CLOSE), op(OPEN),
                           op(START_BACKUP), op(NO_START), op(SNAPSHOT),
                           op(GET_AUTOMAP_STATE), op(CLOSE)),
    'chain-sda2-and-sdb': seed(WRITER_ON, 8,
                               op(OPEN), op(START_BACKUP, s=(1,)),
                               op(SNAPSHOT), op(GET_AUTOMAP_STATE),
                               op(MMAP), reads(4), op(CLOSE),
                               writes(4, 5, mount=1),
                               op(OPEN), op(START_BACKUP, s=(4,)),
                               op(SNAPSHOT), op(MMAP), reads(2), op(CLOSE)),
    'pit-full-1024': seed(WRITER_ON, 9, op(PIT, s=(0, 0), raw=1)),
    'pit-key-4096': seed(BS_4096 | WRITER_ON, 10,
                         op(PIT, s=(0, 0), raw=2), op(PIT, s=(1, 1), raw=3)),
    'pit-untracked-2048-bio': seed(BS_2048 | BIO, 11,
                                   op(PIT, s=(2, 1), raw=4),
                                   op(PIT, s=(1, 0), raw=5)),
    'pit-journal-hardirq': seed(BS_4096 | JOURNAL | HARDIRQ, 12,
                                op(PIT, s=(0, 1), raw=6),
                                op(PIT, s=(1, 1), raw=7)),
    'pit-races': seed(RACES | WRITER_ON, 13, op(PIT, s=(1, 0), raw=8),
                      op(PIT, s=(0, 1), raw=9)),
    'pit-after-chain': seed(0, 14, backup(), op(CLOSE), writes(8, 9),
                            op(PIT, s=(1, 1), raw=10)),
    'two-files-busy': seed(0, 15, op(OPEN, 0), op(OPEN, 1),
                           op(START_BACKUP, 0), op(START_BACKUP, 1),
                           op(GET_STATE, 1), op(CLOSE, 1),
                           op(SNAPSHOT, 0), op(MMAP, 0), reads(1, 0),
                           op(OPEN, 2), op(START_BACKUP, 2),
                           op(CLOSE, 0), op(CLOSE, 2)),
    'close-idle-frees-slot': seed(WRITER_ON, 16, op(OPEN, 0),
                                  op(START_BACKUP, 0), op(SNAPSHOT, 0),
                                  op(MMAP, 0), op(OPEN, 1), op(CLOSE, 1),
                                  reads(2, 0), op(OPEN, 2),
                                  op(START_BACKUP, 2, s=(1,)),
                                  op(SNAPSHOT, 2), reads(1, 0)),
    'second-process': seed(PROLOGUE, 17, op(OPEN, 1, s=(1,)),
                           op(GET_STATE, 1), op(START_BACKUP, 1),
                           op(MMAP, 1), op(PEEK, 0), op(PEEK, 1, s=(0, 3)),
                           op(SIGNAL, s=(1,)), op(CLOSE, 1), reads(1)),
    'module-reload': seed(0, 18, backup(), op(UNLOAD), op(CLOSE),
                          op(MODULE, s=(2,)), backup(1), op(CLOSE, 1),
                          op(MODULE, s=(0,)), op(OPEN), op(MODULE, s=(1,)),
                          op(OPEN)),
    'unload-command': seed(0, 19, backup(), op(CLOSE), op(OPEN),
                           op(UNLOAD), op(GET_AUTOMAP_STATE),
                           op(START_BACKUP), op(GET_AUTOMAP_STATE),
                           op(CLOSE)),
    'rescan-grown': seed(0, 20, backup(), op(CLOSE), op(UMOUNT, s=(0,)),
                         op(UMOUNT, s=(1,)), op(RESCAN, s=(2,)),
                         op(MOUNT, s=(0,)), op(MOUNT, s=(1,)),
                         op(OPEN), op(START_BACKUP, s=(1,)), op(SNAPSHOT),
                         op(MMAP), reads(2), op(CLOSE), incremental(1)),
    'rescan-busy-and-back': seed(WRITER_ON, 21, op(RESCAN),
                                 op(UMOUNT, s=(1,)), op(UMOUNT, s=(0,)),
                                 op(RESCAN, s=(4,)), op(RESCAN, s=(1,)),
                                 op(MOUNT, s=(1, 2)), op(MOUNT, s=(0,)),
                                 op(PIT, s=(0, 0), raw=11)),
    'umount-while-backup': seed(PROLOGUE | WRITER_ON, 22, reads(1),
                                op(UMOUNT, s=(0,)), reads(1),
                                op(MOUNT, s=(0, 3)), op(SYNC),
                                op(START_BACKUP, 1), op(CLOSE)),
    'unload-unmounted': seed(WRITER_ON, 41, backup(), op(CLOSE),
                             op(UMOUNT, s=(0,)), op(MODULE, s=(0,)),
                             op(RAW_IO), op(MODULE, s=(1,)),
                             op(MOUNT, s=(0,)), backup(1), op(CLOSE, 1),
                             op(UMOUNT, s=(1,)), op(MODULE, s=(2,))),
    'async-read-munmap': seed(PROLOGUE | WRITER_ON, 23, op(ASYNC),
                              op(READ_BLOCKS), op(MUNMAP), op(MMAP),
                              op(ASYNC), op(READ_BLOCKS), op(CLOSE)),
    'async-snapshot-writes': seed(WRITER_ON, 24, op(OPEN), op(START_BACKUP),
                                  op(ASYNC), op(SNAPSHOT),
                                  op(FS_WRITE, raw=3), op(ASYNC),
                                  op(GET_STATE), op(OPEN, 1), op(MMAP),
                                  reads(2)),
    'async-close-during-read': seed(PROLOGUE, 25, op(ASYNC), op(READ_BLOCKS),
                                    op(CLOSE), op(OPEN), op(START_BACKUP)),
    'fault-start': seed(0, 26, op(OPEN), op(FAULT, s=(KMALLOC,), raw=0),
                        op(START_BACKUP), op(CLOSE), op(OPEN),
                        op(FAULT, s=(SLAB,), raw=2000), op(START_BACKUP),
                        op(CLOSE), op(OPEN), op(FAULT, s=(VMALLOC,)),
                        op(START_BACKUP), op(CLOSE), op(PIT, raw=12)),
    'fault-snapshot-map': seed(0, 27, op(OPEN), op(START_BACKUP),
                               op(FAULT, s=(PAGES,), raw=1), op(SNAPSHOT),
                               op(SNAPSHOT), op(FAULT, s=(PAGES,)),
                               op(MMAP), op(MMAP), op(FAULT, s=(BIO_ALLOC,)),
                               reads(1), op(FAULT, s=(BH,), raw=3),
                               reads(1)),
    'fault-thread': seed(0, 28, op(OPEN), op(FAULT, s=(THREAD,)),
                         op(START_BACKUP), op(START_BACKUP), op(CLOSE),
                         op(MODULE, s=(2,)), backup()),
    'hostile-addresses': seed(PROLOGUE, 29,
                              op(GET_STATE, s=(3,)), op(GET_STATE, s=(2,)),
                              op(GET_STATE, s=(4,)), op(GET_STATE, s=(7,)),
                              op(GET_BLOCK_SIZE, s=(0, 5)),
                              op(GET_AUTOMAP_STATE, s=(10,)),
                              op(SNAPSHOT, s=(6, 5)),
                              op(READ_BLOCKS, s=(0, 0, 8)),
                              op(READ_BLOCKS, s=(0, 0, 0, 0, 0, 7)),
                              op(GET_DIRTY_BLOCK, s=(11,)),
                              op(VERSION_MAJOR, s=(4,)),
                              op(VERSION_MINOR), op(COMMAND_16),
                              op(LOAD_BLOCK_MAP, s=(0, 0, 3)),
                              op(GET_AUTOMAP, s=(12,), raw=0x1000)),
    'hostile-lengths': seed(PROLOGUE, 30,
                            op(READ_BLOCKS, s=(5, 5)),
                            op(READ_BLOCKS, s=(4, 3), raw=1020),
                            op(READ_BLOCKS, s=(6, 2)),
                            op(READ_BLOCKS, s=(2, 6)),
                            op(LOAD_BLOCK_MAP, s=(0, 5)),
                            op(LOAD_BLOCK_MAP, s=(0, 4), raw=0x30000),
                            op(GET_AUTOMAP, s=(0, 2)),
                            op(GET_STATE, s=(0, 5)),
                            op(GET_BLOCK_SIZE, s=(0, 0, 7), raw=3)),
    'odd-devices': seed(0, 31, op(OPEN), op(GET_BLOCK_SIZE, s=(2,)),
                        op(GET_BLOCK_SIZE, s=(4,)), op(GET_BLOCK_SIZE, s=(9,)),
                        op(START_BACKUP, s=(3,)), op(CLOSE), op(OPEN),
                        op(START_BACKUP, s=(8,)), op(CLOSE), op(OPEN),
                        op(START_BACKUP, s=(0, 1)), op(SNAPSHOT), op(MMAP),
                        reads(2), op(CLOSE), op(OPEN),
                        op(START_BACKUP, s=(0, 6)), op(CLOSE), op(OPEN),
                        op(START_BACKUP, s=(0, 7, 2)), op(SNAPSHOT),
                        op(MMAP), reads(3)),
    'odd-commands': seed(0, 32, op(OPEN), op(ODD_IOCTL, s=(1,)),
                         op(ODD_IOCTL, s=(2, 10, 7)), op(ODD_IOCTL, s=(3, 1)),
                         op(ODD_IOCTL, s=(4, 3)), op(ODD_IOCTL, s=(5,)),
                         op(ODD_IOCTL, raw=0xc0102a01), op(NO_LOAD),
                         op(NO_START), op(SYNC), op(UNLOAD)),
    'mappings': seed(0, 33, op(OPEN), op(MMAP), op(START_BACKUP),
                     op(MMAP, s=(1,)), op(MMAP, s=(0, 1)), op(MMAP, s=(0, 2)),
                     op(MMAP, s=(0, 0, 1)), op(MMAP, s=(6,)), op(MMAP, s=(2,)),
                     op(MMAP, s=(3,)), op(MMAP), op(SNAPSHOT),
                     op(MUNMAP, s=(0, 1)), op(PEEK, s=(0, 1)),
                     op(READ_BLOCKS), op(MUNMAP, s=(1, 2)),
                     op(MUNMAP, s=(0, 4)), op(MUNMAP, s=(0, 3), raw=1),
                     op(READ_BLOCKS, s=(0, 0, 9)), op(CLOSE)),
    'raw-writes-tracked': seed(0, 34, backup(), op(CLOSE),
                               op(RAW_IO, s=(0, 15), raw=100),
                               op(RAW_IO, s=(2, 3), raw=70),
                               op(RAW_IO, s=(1, 7), raw=5),
                               op(RAW_IO, s=(0, 4, 0x80)),
                               op(RAW_IO, s=(3, 8, 1), raw=9),
                               incremental(), op(CLOSE)),
    'cache-limit': seed(WRITER_ON | BS_4096, 35, op(OPEN),
                        op(START_BACKUP, s=(0, 0, 2)), op(SNAPSHOT),
                        op(MMAP), writes(1, 2, 3, 4, 5, 6), reads(2),
                        op(GET_STATE), op(LOAD_BLOCK_MAP, s=(0, 0, 0, 1)),
                        reads(1), op(CLOSE)),
    'remount-block-sizes': seed(0, 36, op(UMOUNT, s=(1,)),
                                op(MOUNT, s=(1, 5)), op(OPEN),
                                op(GET_BLOCK_SIZE, s=(1,)),
                                op(START_BACKUP, s=(1,)), op(CLOSE),
                                op(UMOUNT, s=(1,)), op(MOUNT, s=(1, 3)),
                                op(OPEN), op(START_BACKUP, s=(1,)),
                                op(SNAPSHOT), op(MMAP), reads(2)),
    'chain-resized': seed(0, 37, backup(), op(CLOSE), op(OPEN),
                          op(START_BACKUP, s=(0, 1)), op(SNAPSHOT),
                          op(GET_AUTOMAP_STATE), op(MMAP), reads(2),
                          op(RAW_IO, s=(0, 3), raw=2040), op(CLOSE),
                          op(OPEN), op(START_BACKUP, s=(0, 2)),
                          op(SNAPSHOT), op(CLOSE), op(UMOUNT, s=(1,)),
                          op(UMOUNT, s=(0,)), op(RESCAN, s=(2,)),
                          op(MOUNT, s=(1,)), op(MOUNT, s=(0,)),
                          writes(1000, mount=1)),
    'fault-snapshot-session': seed(0, 38, op(OPEN), op(START_BACKUP),
                                   op(FAULT, s=(KMALLOC,)), op(SNAPSHOT),
                                   op(FAULT, s=(VMALLOC,)), op(SNAPSHOT),
                                   op(FAULT, s=(PAGES,)), op(SNAPSHOT),
                                   op(SNAPSHOT), op(CLOSE), op(OPEN),
                                   op(START_BACKUP), op(NO_LOAD),
                                   op(FAULT, s=(KMALLOC,)), op(SNAPSHOT),
                                   op(CLOSE), op(OPEN),
                                   op(FAULT, s=(SLAB_CREATE,), raw=1),
                                   op(START_BACKUP), op(CLOSE), op(OPEN),
                                   op(FAULT, s=(SLAB_CREATE,), raw=2),
                                   op(START_BACKUP), op(CLOSE)),
    'fault-copy-before-write': seed(WRITER_ON, 39, op(OPEN),
                                    op(START_BACKUP), op(SNAPSHOT),
                                    op(MMAP), op(FAULT, s=(SLAB,), raw=3),
                                    op(READ_BLOCKS),
                                    op(FAULT, s=(KMALLOC,), raw=1),
                                    op(READ_BLOCKS),
                                    op(FAULT, s=(PAGES,), raw=2),
                                    op(READ_BLOCKS), op(GET_STATE),
                                    op(CLOSE)),
    'disk-failures': seed(0, 40, op(OPEN), op(START_BACKUP), op(SNAPSHOT),
                          op(MMAP), op(DISK_FAIL, s=(1, 40), raw=100),
                          reads(2), op(FS_WRITE, raw=30),
                          op(FS_WRITE, raw=31), op(FS_SYNC),
                          op(GET_STATE), op(DISK_FAIL, s=(0,)), reads(1),
                          op(CLOSE), op(OPEN), op(START_BACKUP),
                          op(DISK_FAIL, s=(3, 63, 1), raw=0),
                          op(SNAPSHOT), op(MMAP), reads(2),
                          op(DISK_FAIL, s=(2, 8), raw=500),
                          writes(250, 251), op(CLOSE)),
}


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(
        os.path.dirname(os.path.abspath(__file__)), 'corpus')
    os.makedirs(out, exist_ok=True)
    for name, data in sorted(SEEDS.items()):
        assert len(data) <= 2 + 40 * 12, (name, (len(data) - 2) // 12)
        with open(os.path.join(out, 'seed-' + name), 'wb') as f:
            f.write(data)
    print(f'{len(SEEDS)} seeds in {out}')


if __name__ == '__main__':
    main()
