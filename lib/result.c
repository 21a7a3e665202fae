/*
 * result.c - names and meanings of the results libcorvalin returns: the
 * driver's own codes, negative errnos (Linux numbering, the driver's
 * platform) and the library's CV_E_* failures.
 */
#include <stddef.h>
#include <stdint.h>

#include "corvalin_client.h"

struct cv_result_desc {
	int code;
	const char *name;
	const char *text;
};

static const struct cv_result_desc cv_results[] = {
	{ KIV_OK, "KIV_OK", "success" },
	{ KIV_ERR_NOT_INIT, "KIV_ERR_NOT_INIT",
	  "driver not initialised, or no real request function for the device" },
	{ KIV_ERR_INVALID, "KIV_ERR_INVALID",
	  "no backup record, or not valid in this state or with these "
	  "arguments" },
	{ KIV_ERR_REFUSED, "KIV_ERR_REFUSED", "refused by the driver" },
	{ KIV_ERR_UNKNOWN, "KIV_ERR_UNKNOWN", "unknown command code" },
	{ KIV_ERR_NOMEM, "KIV_ERR_NOMEM", "the driver ran out of memory" },
	{ KIV_ERR_COPY_IN, "KIV_ERR_COPY_IN",
	  "the driver could not copy the argument from user memory" },
	{ KIV_ERR_COPY_OUT, "KIV_ERR_COPY_OUT",
	  "the driver could not copy the answer to user memory" },
	{ KIV_ERR_NO_FS, "KIV_ERR_NO_FS",
	  "the device has no mounted file system, or does not exist" },
	{ KIV_ERR_BUSY, "KIV_ERR_BUSY", "another backup holds the backup slot" },
	{ KIV_ERR_STARTED, "KIV_ERR_STARTED",
	  "this file's backup record already has a backup" },
	{ KIV_ERR_IO, "KIV_ERR_IO", "blocks could not be read from the disk" },
	/* Linux errno values, negated. */
	{ -1, "-EPERM", "operation not permitted (or the driver's result -1)" },
	{ -2, "-ENOENT", "no such file or directory" },
	{ -4, "-EINTR", "interrupted system call" },
	{ -5, "-EIO", "input/output error" },
	{ -6, "-ENXIO", "no such device or address" },
	{ -9, "-EBADF", "bad file descriptor" },
	{ -11, "-EAGAIN", "resource temporarily unavailable" },
	{ -12, "-ENOMEM", "out of memory" },
	{ -13, "-EACCES", "permission denied" },
	{ -14, "-EFAULT", "bad address" },
	{ -16, "-EBUSY", "device or resource busy" },
	{ -17, "-EEXIST", "file exists" },
	{ -19, "-ENODEV", "no such device" },
	{ -22, "-EINVAL", "invalid argument" },
	{ -24, "-EMFILE", "too many open files" },
	{ -25, "-ENOTTY", "inappropriate ioctl for device" },
	{ -38, "-ENOSYS", "function not implemented" },
	{ -95, "-EOPNOTSUPP", "operation not supported" },
	/* The library's own. */
	{ CV_E_ADDR32, "CV_E_ADDR32",
	  "the real device needs 32-bit user addresses, but this program's "
	  "pointers are wider: build it for 32-bit x86 (i386) to use "
	  "/dev/corvalin" },
	{ CV_E_NOMEM, "CV_E_NOMEM", "no user memory for the command's records" },
	{ CV_E_FAULT, "CV_E_FAULT",
	  "the library could not access user memory" },
	{ CV_E_ARG, "CV_E_ARG", "invalid argument to the library" },
	{ CV_E_CLOSED, "CV_E_CLOSED", "the device handle is not open" },
	{ CV_E_NOSYS, "CV_E_NOSYS", "the transport lacks this operation" },
	{ CV_E_KILLED, "CV_E_KILLED",
	  "the kernel oopsed in this system call and killed the process" },
};

static const struct cv_result_desc *cv_find(int result)
{
	size_t i;

	for (i = 0; i < sizeof(cv_results) / sizeof(cv_results[0]); i++)
		if (cv_results[i].code == result)
			return &cv_results[i];
	return NULL;
}

const char *cv_result_name(int result)
{
	const struct cv_result_desc *d = cv_find(result);

	if (d != NULL)
		return d->name;
	if (result > 0)
		return "KIV_ERR_UNDEFINED";
	if (result >= -4095)
		return "-E?";
	return "CV_E_UNDEFINED";
}

const char *cv_result_text(int result)
{
	const struct cv_result_desc *d = cv_find(result);

	if (d != NULL)
		return d->text;
	if (result > 0)
		return "a result code the driver does not define";
	if (result >= -4095)
		return "a kernel error without a name in this library";
	return "a library failure without a name";
}

const char *cv_backup_state_name(uint32_t state)
{
	switch (state) {
	case BU_STATE_IDLE:
		return "idle";
	case BU_STATE_STARTING:
		return "starting";
	case BU_STATE_STARTED:
		return "started";
	case BU_STATE_SNAPSHOT:
		return "snapshot";
	case BU_STATE_LOADING_MAP:
		return "loading map";
	case BU_STATE_MAP_LOADED:
		return "map loaded";
	case BU_STATE_CLOSING:
		return "closing";
	case BU_STATE_READ_ERROR:
		return "read error";
	case BU_STATE_MAP_ERROR:
		return "map error";
	case BU_STATE_CACHE_ERROR:
		return "cache error";
	case BU_STATE_REFUSED:
		return "refused";
	case BU_STATE_QUEUE_ERROR:
		return "queue error";
	default:
		return "undefined";
	}
}
