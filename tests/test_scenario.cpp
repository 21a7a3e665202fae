// The boot scenario of vm/scenario in the emulated kernel: the very run the
// boot test makes on a real 2.6.27 guest (vm/vmtest.sh), with the emulated
// module, two emulated processes, the disk of the scenario and its two
// mounted partitions.  The scenario checks itself; this test also keeps its
// transcript, which the boot test compares line by line with the guest's.
//
// Environment:
//   CORVALIN_SCENARIO_TRANSCRIPT=FILE  write the transcript to FILE
//   CORVALIN_SCENARIO_DISK=IMAGE       back the disk with a copy of IMAGE
//                                      (the guest's disk, made by
//                                      vm/mkdisk.sh); the mounts then take
//                                      their block sizes from its ext2/ext3
//                                      super blocks
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include <unistd.h>

#include "corvalin_emu.hpp"
#include "emu/block.hpp"
#include "emu/emu.hpp"

// The scenario itself: the C source that the guest's /init is built from,
// compiled here as it is (it is C99 that also compiles as C++).
#include "../vm/scenario/scenario.c"

// The blocker of the boot test is a module that only registers major 120;
// here the same registration is made directly.
#include <linux/fs.h>

namespace {

struct file_operations blockerFops{};

// The emulated machine as the scenario sees it.
class World {
public:
	explicit World(const std::string &image)
		: disk_(config(image)), from_image_(!image.empty())
	{
		// The partitions of the disk's label (the emulated disk does
		// not read labels).
		EXPECT_EQ(disk_.add_partition(1, SCN_P1_START, SCN_P1_SECTORS), 0);
		EXPECT_EQ(disk_.add_partition(2, SCN_P2_START, SCN_P2_SECTORS), 0);
		emu::mknod(CV_DEVICE_PATH, KIV_MAJOR, 0);
		for (int i = 0; i < SCN_PROCS; i++) {
			procs_[i].emplace();
			transports_[i].emplace(*procs_[i]);
		}
		platform_.ctx = this;
		platform_.load_module = [](void *c, int m) {
			return self(c).load(m);
		};
		platform_.unload_module = [](void *c, int m) {
			return self(c).unload(m);
		};
		platform_.mount = [](void *c, int p) { return self(c).mount(p); };
		platform_.umount = [](void *c, int p) {
			self(c).fs_[p].reset();
			return 0;
		};
		platform_.run = [](void *c, int proc, int (*fn)(int), int arg) {
			World &w = self(c);
			w.current_ = proc;
			const int r = fn(arg);
			w.current_ = 0;
			return r;
		};
		platform_.transport = [](void *c) {
			World &w = self(c);
			return w.transports_[w.current_]->get();
		};
		platform_.sys = [](void *c, int fd, int call) {
			return self(c).sys(fd, call);
		};
		platform_.unmapped = [](void *c) {
			return self(c).proc().unmapped_address();
		};
		platform_.readonly = [](void *c) {
			World &w = self(c);
			emu::uaddr &page = w.readonly_[w.current_];
			if (page == 0)
				page = w.proc().map_anon(4096, emu::PROT_READ_);
			return page;
		};
		platform_.klog = [](void *c, char *line, std::size_t size) {
			return self(c).klog(line, size);
		};
		platform_.print = [](void *c, const char *line) {
			self(c).transcript.emplace_back(line);
			std::cout << line << '\n';
		};
		platform_.disk_has_fs = from_image_ ? 1 : 0;
	}

	// Whatever a failed scenario left behind goes, in the order a
	// machine would let it go: files, module, mounts, then the disk.
	~World()
	{
		for (int i = 0; i < SCN_PROCS; i++) {
			transports_[i].reset();
			procs_[i].reset();
		}
		if (emu::module_loaded())
			emu::module_unload();
		if (blocker_)
			unregister_chrdev(KIV_MAJOR, "blocker");
		for (auto &f : fs_)
			f.reset();
	}

	const scn_platform *platform() const { return &platform_; }

	std::vector<std::string> transcript;

private:
	static World &self(void *c) { return *static_cast<World *>(c); }

	static emu::DiskConfig config(const std::string &image)
	{
		emu::DiskConfig c;
		c.major = SCN_DISK_MAJOR;
		c.sectors = image.empty() ? SCN_DISK_SECTORS : 0;
		c.image = image;
		return c;
	}

	emu::Process &proc() { return *procs_[current_]; }

	int load(int module)
	{
		if (module == SCN_MOD_CORVALIN)
			return emu::module_load();
		const int r = register_chrdev(KIV_MAJOR, "blocker", &blockerFops);
		blocker_ = r == 0;
		return r;
	}

	int unload(int module)
	{
		if (module == SCN_MOD_CORVALIN)
			return emu::module_unload();
		unregister_chrdev(KIV_MAJOR, "blocker");
		blocker_ = false;
		return 0;
	}

	int mount(int partition)
	{
		const unsigned block = from_image_ ? 0
			: partition == 1 ? SCN_P1_BLOCK : SCN_P2_BLOCK;
		fs_[partition].emplace(disk_, partition, block);
		return 0;
	}

	long sys(int fd, int call)
	{
		emu::Process &p = proc();
		if (buffer_[current_] == 0)
			buffer_[current_] = p.map_anon(4096);
		switch (call) {
		case SCN_SYS_READ:
			return p.read(fd, buffer_[current_], 16);
		case SCN_SYS_WRITE:
			return p.write(fd, buffer_[current_], 16);
		default:
			return static_cast<long>(p.poll(fd));
		}
	}

	int klog(char *line, std::size_t size)
	{
		const auto lines = emu::log_lines();
		if (log_seen_ >= lines.size() || !lines[log_seen_].complete)
			return 0;
		const auto &l = lines[log_seen_++];
		std::snprintf(line, size, "<%d>%s", l.level, l.text.c_str());
		return 1;
	}

	emu::Disk disk_;
	bool from_image_;
	std::optional<emu::FileSystem> fs_[3];
	std::optional<emu::Process> procs_[SCN_PROCS];
	std::optional<corvalin::EmuTransport> transports_[SCN_PROCS];
	emu::uaddr buffer_[SCN_PROCS] = {};
	emu::uaddr readonly_[SCN_PROCS] = {};
	int current_ = 0;
	std::size_t log_seen_ = 0;
	bool blocker_ = false;
	scn_platform platform_{};
};

// A private copy of the guest's disk image: the emulated disk may write.
std::string image_copy()
{
	const char *image = std::getenv("CORVALIN_SCENARIO_DISK");
	if (image == nullptr || *image == '\0')
		return {};
	const auto copy = std::filesystem::temp_directory_path() /
		("corvalin-scenario-" + std::to_string(::getpid()) + ".img");
	std::filesystem::copy_file(image, copy,
		std::filesystem::copy_options::overwrite_existing);
	return copy.string();
}

TEST(BootScenario, RunsCleanInTheEmulatedKernel)
{
	const std::string image = image_copy();
	std::vector<std::string> transcript;
	{
		World world(image);
		EXPECT_EQ(scn_run(world.platform()), 0)
			<< "FAIL lines of the transcript name the checks";
		transcript = world.transcript;
	}
	if (!image.empty())
		std::filesystem::remove(image);

	ASSERT_FALSE(transcript.empty());
	EXPECT_EQ(transcript.back(), "result 0 failures");
	// A failed check is a transcript line of its own, "  FAIL <what>";
	// expected log text such as "load FAILED" is not one.
	for (const auto &line : transcript)
		EXPECT_NE(line.rfind("  FAIL ", 0), 0u) << line;

	if (const char *out = std::getenv("CORVALIN_SCENARIO_TRANSCRIPT")) {
		std::ofstream f(out);
		for (const auto &line : transcript)
			f << line << '\n';
		ASSERT_TRUE(f.good()) << out;
	}
}

}  // namespace
