// The module model: insmod/rmmod, references, module information.  The
// module is the driver linked into this program.
#include <string>

#include "test_emu_util.hpp"

#include <linux/fs.h>
#include <linux/module.h>

TEST(Module, UnloadOfAModuleNotLoadedIsEnoent)
{
	EXPECT_FALSE(emu::module_loaded());
	EXPECT_EQ(emu::module_unload(), -ENOENT);
}

TEST(Module, LoadTwiceIsEexist)
{
	ASSERT_EQ(emu::module_load(), 0);
	EXPECT_TRUE(emu::module_loaded());
	EXPECT_EQ(emu::module_load(), -EEXIST);
	EXPECT_EQ(emu::module_unload(), 0);
	EXPECT_FALSE(emu::module_loaded());
	emu::log_clear();
}

TEST(Module, AReferenceRefusesTheUnload)
{
	ASSERT_EQ(emu::module_load(), 0);
	EXPECT_EQ(emu::module_refcount(), 0);
	EXPECT_EQ(try_module_get(THIS_MODULE), 1);
	EXPECT_EQ(emu::module_refcount(), 1);
	EXPECT_EQ(module_refcount(THIS_MODULE), 1u);
	EXPECT_EQ(emu::module_unload(), -EWOULDBLOCK);
	EXPECT_TRUE(emu::module_loaded());
	module_put(THIS_MODULE);
	EXPECT_EQ(emu::module_unload(), 0);
	emu::log_clear();
}

TEST(Module, AGoingModuleRefusesNewReferences)
{
	ASSERT_EQ(emu::module_load(), 0);
	EXPECT_EQ(try_module_get(THIS_MODULE), 1);
	emu::module_begin_removal();
	EXPECT_EQ(try_module_get(THIS_MODULE), 0);
	EXPECT_EQ(module_is_live(THIS_MODULE), 0);
	EXPECT_EQ(emu::module_unload(), -EWOULDBLOCK);   // still referenced
	module_put(THIS_MODULE);
	EXPECT_EQ(emu::module_unload(), 0);
	emu::log_clear();
}

TEST(Module, NullModuleIsAlwaysAvailable)
{
	EXPECT_EQ(try_module_get(nullptr), 1);
	module_put(nullptr);
}

TEST(Module, InformationFromTheModuleTags)
{
	EXPECT_FALSE(emu::module_info("license").empty());
	EXPECT_FALSE(emu::module_info("description").empty());
	EXPECT_EQ(emu::module_info("vermagic"), "2.6.27 SMP mod_unload 686 ");
	EXPECT_EQ(emu::module_info("no such tag"), "");
}

class ModuleFixture : public support::ModuleTest {};

TEST_F(ModuleFixture, OpenFilesPinTheModule)
{
	int fd = open_device();
	ASSERT_GE(fd, 0);
	EXPECT_GT(emu::module_refcount(), 0);
	EXPECT_EQ(emu::module_unload(), -EWOULDBLOCK);
	EXPECT_EQ(proc->close(fd), 0);
	EXPECT_EQ(emu::module_refcount(), 0);
}

TEST(Module, EveryLoadStartsFromTheModulesInitialData)
{
	// The driver sets its initDone flag when it registers its device and
	// never clears it; a fresh load must not see the previous load's 1.
	static struct file_operations blocker_fops;
	const std::string loaded =
		"<6>kivInit: corvalin version 3.1.0 build 9504 loaded";
	const std::string failed =
		"<6>kivInit: corvalin version 3.1.0 build 9504 load FAILED";

	ASSERT_EQ(emu::module_load(), 0);
	ExpectLog({loaded});
	ASSERT_EQ(emu::module_unload(), 0);
	emu::log_clear();

	ASSERT_EQ(register_chrdev(120, "blocker", &blocker_fops), 0);
	EXPECT_EQ(emu::module_load(), -EBUSY);
	EXPECT_FALSE(emu::module_loaded());
	ExpectLog({failed});
	unregister_chrdev(120, "blocker");
}
