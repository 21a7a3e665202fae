/*
 * lockdep.h - the lock validator's annotations that drivers use.
 *
 * DUPLICATED from 2.6.27: SINGLE_DEPTH_NESTING, the subclass of the inner
 * of two locks of one class taken together (spin_lock_nested and the
 * _nested forms).  The emulation's validator (emu/src/lockdep.cpp) counts
 * a subclass as a class of its own, as 2.6.27's lockdep does.
 */
#ifndef __LINUX_LOCKDEP_H
#define __LINUX_LOCKDEP_H

#define SINGLE_DEPTH_NESTING	1

#endif /* __LINUX_LOCKDEP_H */
