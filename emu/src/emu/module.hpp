// The one loadable module linked into a program of the emulation.
//
// The driver's module_init()/module_exit()/MODULE_* macros register with
// this model (see emu/include/linux/module.h).  Loading and unloading follow
// 2.6.27's sys_init_module / sys_delete_module: a module whose reference
// count is not zero cannot be unloaded; while being removed it is
// MODULE_STATE_GOING and try_module_get() on it fails.
#pragma once

#include <string>

namespace emu {

// insmod: runs the init function and returns its result (the module stays
// loaded only when it returned 0, as in the kernel).  -EEXIST if loaded.
int module_load();
// rmmod (non-blocking, like rmmod's O_NONBLOCK): -EWOULDBLOCK while the
// reference count is not zero, -ENOENT when not loaded; otherwise marks the
// module GOING, runs the exit function and returns 0.
int module_unload();
// First half of a blocking rmmod: mark the module GOING without waiting or
// running the exit function (what a concurrent open sees while rmmod waits
// for the last reference).  module_unload() finishes the removal.
void module_begin_removal();
bool module_loaded();
int module_refcount();
// modinfo: "description", "license", "author", "vermagic".
std::string module_info(const std::string &key);

}  // namespace emu
