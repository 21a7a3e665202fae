/*
 * poll.h - poll tables and event bits.
 *
 * DUPLICATED from 2.6.27: struct poll_table_struct (poll_table), the
 * poll_wait() contract (register the caller on a wait queue through the
 * table's queue procedure; nothing when the table is NULL) and the POLL*
 * event bits (the C library's, in C++).  The emulated poll() system call
 * calls fops->poll once with a NULL table and returns its mask.
 */
#ifndef _LINUX_POLL_H
#define _LINUX_POLL_H

#include <linux/wait.h>
#include <linux/fs.h>

#ifdef __cplusplus
#include <poll.h>
#else
#define POLLIN		0x0001
#define POLLPRI		0x0002
#define POLLOUT		0x0004
#define POLLERR		0x0008
#define POLLHUP		0x0010
#define POLLNVAL	0x0020
#define POLLRDNORM	0x0040
#define POLLRDBAND	0x0080
#define POLLWRNORM	0x0100
#define POLLWRBAND	0x0200
#define POLLMSG		0x0400
#define POLLREMOVE	0x1000
#define POLLRDHUP	0x2000
#endif

struct poll_table_struct;

typedef void (*poll_queue_proc)(struct file *, wait_queue_head_t *,
				struct poll_table_struct *);

typedef struct poll_table_struct {
	poll_queue_proc qproc;
} poll_table;

static inline void poll_wait(struct file *filp, wait_queue_head_t *wait_address,
			     poll_table *p)
{
	if (p && wait_address)
		p->qproc(filp, wait_address, p);
}

static inline void init_poll_funcptr(poll_table *pt, poll_queue_proc qproc)
{
	pt->qproc = qproc;
}

#endif /* _LINUX_POLL_H */
