/*
 * smp.h - processor numbers.
 *
 * CUSTOMISED: the emulation has no processor affinity; every task reports
 * processor 0 of NR_CPUS 2 (the boot test runs with two).
 */
#ifndef __LINUX_SMP_H
#define __LINUX_SMP_H

#include <linux/preempt.h>

#define NR_CPUS			2
#define smp_processor_id()	0
#define raw_smp_processor_id()	0
#define get_cpu()		({ preempt_disable(); 0; })
#define put_cpu()		preempt_enable()
#define num_online_cpus()	NR_CPUS

#endif
