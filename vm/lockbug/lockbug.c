/*
 * lockbug.c - a module of the boot test's self-check that commits a lock
 * order inversion on purpose: it takes lockA then lockB, and later lockB
 * then lockA, one after the other in its init function.  Nothing can
 * deadlock (one task, never both at once), but the kernel's lock validator
 * must report "possible circular locking dependency detected" on the
 * second order, and the boot test must then fail.  The guest loads it only
 * when booted with corvalin.selftest=lockdep.
 */
#include <linux/module.h>
#include <linux/init.h>
#include <linux/spinlock.h>

static DEFINE_SPINLOCK(lockA);
static DEFINE_SPINLOCK(lockB);

static int __init lockbugInit(void)
{
	spin_lock(&lockA);
	spin_lock(&lockB);
	spin_unlock(&lockB);
	spin_unlock(&lockA);

	spin_lock(&lockB);
	spin_lock(&lockA);
	spin_unlock(&lockA);
	spin_unlock(&lockB);
	return 0;
}

static void __exit lockbugExit(void)
{
}

module_init(lockbugInit);
module_exit(lockbugExit);

MODULE_DESCRIPTION("corvalin boot test: a lock order inversion for the validator");
MODULE_LICENSE("GPL");
