/*
 * fileio.h - whole-buffer file I/O and atomic replacement, for the engine.
 * Results: 0 or an errno value (EIO for a short read at end of file).
 */
#ifndef CVB_FILEIO_H
#define CVB_FILEIO_H

#include <stddef.h>
#include <stdint.h>

struct cvb_err;

int cvb_file_size(int fd, uint64_t *size);
int cvb_read_at(int fd, void *buf, size_t len, uint64_t off);
int cvb_write_at(int fd, const void *buf, size_t len, uint64_t off);
/* "dir/name" into out; -1 when it does not fit. */
int cvb_path(const char *dir, const char *name, char *out, size_t len);
/* fsync of a directory, so that a rename in it is durable. */
int cvb_fsync_dir(const char *dir);
/*
 * Replace dir/name with `len` bytes atomically: write "name.tmp", fsync,
 * rename over name, fsync the directory.  0 or a CVB_E_* code.
 */
int cvb_replace_file(const char *dir, const char *name, const void *buf,
		     size_t len, struct cvb_err *err);

#endif /* CVB_FILEIO_H */
