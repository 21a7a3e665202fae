/*
 * module.h - the module object, references and module information.
 *
 * CUSTOMISED: one module per program, `__this_module`, defined by the
 * runtime (in the kernel, modpost generates it).  The reference count and
 * the state follow 2.6.27: try_module_get() fails (returns 0) once the
 * module is going away (MODULE_STATE_GOING) and otherwise takes a
 * reference; module_put() drops one; a module with references cannot be
 * unloaded (see emu/src/emu/module.hpp for insmod/rmmod).  A NULL module
 * (built-in code) always succeeds, as in the kernel.  MODULE_LICENSE and
 * the other MODULE_* tags record their text for emu::module_info();
 * EXPORT_SYMBOL and module parameters are STUBBED (one module: nothing to
 * export to, nothing passed at load).
 */
#ifndef _LINUX_MODULE_H
#define _LINUX_MODULE_H

#include <linux/list.h>
#include <linux/stat.h>
#include <linux/compiler.h>
#include <linux/init.h>
#include <linux/kernel.h>
#include <linux/stddef.h>
#include <linux/types.h>
#include <linux/emu_runtime.h>
#include <asm/atomic.h>

#define MODULE_NAME_LEN (64 - sizeof(unsigned long))

enum module_state {
	MODULE_STATE_LIVE,
	MODULE_STATE_COMING,
	MODULE_STATE_GOING,
};

struct module {
	enum module_state state;
	struct list_head list;
	char name[MODULE_NAME_LEN];
	atomic_t refcount;		/* the per-CPU counts, summed */
	int (*init)(void);
	void (*exit)(void);
};

#ifdef __cplusplus
extern "C" struct module __this_module;
#else
extern struct module __this_module;
#endif
#define THIS_MODULE (&__this_module)

EMU_BEGIN_DECLS
int try_module_get(struct module *module);
void module_put(struct module *module);
void __module_get(struct module *module);
unsigned int module_refcount(struct module *mod);
int module_is_live(struct module *mod);
void emu_module_info(const char *tag, const char *info);
EMU_END_DECLS

#define __EMU_MOD_CAT2(a, b) a##b
#define __EMU_MOD_CAT(a, b) __EMU_MOD_CAT2(a, b)

#define __MODULE_INFO(tag, info)					\
	static void __attribute__((constructor, used))			\
	__EMU_MOD_CAT(__emu_modinfo_##tag##_, __LINE__)(void)		\
	{ emu_module_info(#tag, info); }

#define MODULE_INFO(tag, info) __MODULE_INFO(tag, info)
#define MODULE_LICENSE(_license) __MODULE_INFO(license, _license)
#define MODULE_AUTHOR(_author) __MODULE_INFO(author, _author)
#define MODULE_DESCRIPTION(_description) __MODULE_INFO(description, _description)
#define MODULE_VERSION(_version) __MODULE_INFO(version, _version)
#define MODULE_ALIAS(_alias) __MODULE_INFO(alias, _alias)
#define MODULE_PARM_DESC(_parm, desc) __MODULE_INFO(parm, #_parm ":" desc)
#define MODULE_SUPPORTED_DEVICE(name)
#define MODULE_DEVICE_TABLE(type, name)
#define MODULE_ALIAS_CHARDEV_MAJOR(major)

#define EXPORT_SYMBOL(sym)
#define EXPORT_SYMBOL_GPL(sym)
#define EXPORT_SYMBOL_GPL_FUTURE(sym)

#define module_param(name, type, perm)
#define module_param_named(name, value, type, perm)
#define module_param_array(name, type, nump, perm)
#define module_param_string(name, string, len, perm)

#endif /* _LINUX_MODULE_H */
