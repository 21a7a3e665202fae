// Helpers of the backup program's suites (test_program_*): a scratch
// directory, whole files, and a backup run against the emulated machine
// that records the partition at its frozen instant.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "emu_world.hpp"

namespace program_test {

// A fresh directory under /tmp, removed with everything in it at the end.
class ScratchDir {
public:
	ScratchDir()
	{
		std::string t = "/tmp/corvalin-test.XXXXXX";
		if (mkdtemp(t.data()) != nullptr)
			path_ = t;
	}
	~ScratchDir()
	{
		std::error_code ec;
		if (!path_.empty())
			std::filesystem::remove_all(path_, ec);
	}
	const std::string &path() const { return path_; }
	std::string operator/(const std::string &name) const
	{
		return path_ + "/" + name;
	}

private:
	std::string path_;
};

inline std::vector<std::byte> read_file(const std::string &path)
{
	std::ifstream f(path, std::ios::binary);
	std::vector<char> raw((std::istreambuf_iterator<char>(f)),
			      std::istreambuf_iterator<char>());
	std::vector<std::byte> out(raw.size());
	for (std::size_t i = 0; i < raw.size(); i++)
		out[i] = static_cast<std::byte>(raw[i]);
	return out;
}

inline void write_file(const std::string &path,
		       const std::vector<std::byte> &data)
{
	std::ofstream f(path, std::ios::binary | std::ios::trunc);
	f.write(reinterpret_cast<const char *>(data.data()),
		static_cast<std::streamsize>(data.size()));
}

// One backup of /dev/sda1 (or /dev/sda<minor>) through the engine.  At
// START_BACKUP the writer (if running) pauses and the partition is
// recorded as `frozen` (nothing is dirty then, so the freeze adds
// nothing); from the snapshot on the writer runs while the backup reads.
// `stop_at`/`how`: the stage hook's answer at that stage (interruption
// tests).  `tp`: the transport (default: the machine's own).
struct BackupRun {
	explicit BackupRun(corvalin::tool::EmuWorld &w, int partno = 1)
		: world(w), minor(partno) {}

	corvalin::tool::EmuWorld &world;
	int minor;
	const cv_transport *tp = nullptr;
	std::vector<std::byte> frozen;
	int stop_at = 0, how = 0;
	bool force_full = false, used_blocks = true;
	std::vector<int> stages;
	cvb_backup_result res{};
	cvb_err err{};

	static int hook(void *ctx, int stage)
	{
		auto *r = static_cast<BackupRun *>(ctx);
		r->stages.push_back(stage);
		if (stage == CVB_STAGE_STARTED) {
			r->world.pause_writer();
			r->frozen = r->world.partition(r->minor);
		} else if (stage == CVB_STAGE_SNAPSHOT) {
			r->world.resume_writer();
		}
		if (stage == r->stop_at) {
			r->world.resume_writer();
			return r->how;
		}
		return 0;
	}

	int run(const std::string &repo)
	{
		cvb_backup_opts o{};
		o.tp = tp != nullptr ? tp : world.transport();
		o.control_path = CV_DEVICE_PATH;
		o.major = 8;
		o.minor = static_cast<std::uint32_t>(minor);
		const std::string node = "/dev/sda" + std::to_string(minor);
		if (world.device_size(node.c_str(), &o.device_bytes) != 0)
			return CVB_E_ARG;
		o.force_full = force_full;
		o.used_blocks = used_blocks;
		o.stage_hook = hook;
		o.hook_ctx = this;
		stages.clear();
		const int r = cvb_backup(repo.c_str(), &o, &res, &err);
		world.resume_writer();
		return r;
	}
};

// Restore backup `number` (0: latest) of repo into `file`; CVB_* result.
inline int restore_to(const std::string &repo, std::uint32_t number,
		      const std::string &file, cvb_restore_result *res,
		      cvb_err *err)
{
	cvb_repo r{};
	int rc = cvb_repo_load(repo.c_str(), 0, &r, err);
	if (rc != 0)
		return rc;
	FILE *f = std::fopen(file.c_str(), "wb");
	if (f == nullptr) {
		cvb_repo_free(&r);
		return CVB_E_IO;
	}
	cvb_restore_opts o{};
	o.number = number;
	rc = cvb_restore_fd(&r, &o, fileno(f), 1, res, err);
	std::fclose(f);
	cvb_repo_free(&r);
	return rc;
}

// Restores backup `number` of repo into a file of d and expects exactly
// `want` (the partition at that backup's snapshot).
inline void expect_restores(const std::string &repo, std::uint32_t number,
			    const std::vector<std::byte> &want,
			    const ScratchDir &d)
{
	cvb_restore_result rr{};
	cvb_err e{};
	const std::string out = d / ("restore-" + std::to_string(number));
	ASSERT_EQ(restore_to(repo, number, out, &rr, &e), 0) << e.msg;
	EXPECT_EQ(rr.number, number);
	EXPECT_TRUE(read_file(out) == want)
		<< "backup " << number << " does not restore its snapshot";
}

// The partition as a used-blocks backup restores it: unallocated blocks
// zero.
inline std::vector<std::byte> allocated_only(
	const std::vector<std::byte> &image, const std::vector<bool> &alloc,
	unsigned bs)
{
	std::vector<std::byte> out(image.size());
	for (std::size_t b = 0; b < alloc.size(); b++)
		if (alloc[b])
			std::copy_n(image.begin() + b * bs, bs,
				    out.begin() + b * bs);
	return out;
}

// The command line (cvb_cli_main) over the emulated machine: its exit
// status, and what it printed on stdout and stderr.
struct Cli {
	explicit Cli(corvalin::tool::EmuWorld &world) : w(world) {}
	corvalin::tool::EmuWorld &w;
	std::string out, err;
	int run(std::vector<std::string> args)
	{
		char *ob = nullptr, *eb = nullptr;
		std::size_t on = 0, en = 0;
		FILE *o = open_memstream(&ob, &on), *e = open_memstream(&eb, &en);
		cvb_platform pf = w.platform(o, e);
		std::vector<char *> argv;
		for (auto &a : args)
			argv.push_back(a.data());
		const int r = cvb_cli_main(static_cast<int>(argv.size()),
					   argv.data(), &pf);
		std::fclose(o);
		std::fclose(e);
		out.assign(ob, on);
		err.assign(eb, en);
		std::free(ob);
		std::free(eb);
		return r;
	}
};

// Rewrites `count` file blocks of partition `partno` (the highest ones)
// with `fill`: a change the next backup must carry.
inline void change_files(corvalin::tool::EmuWorld &w, int partno,
			 std::uint8_t fill, std::size_t count = 3)
{
	const auto &files = w.file_blocks(partno);
	std::vector<std::byte> data(w.block_size(partno), std::byte{fill});
	for (std::size_t i = 0; i < count && i < files.size(); i++)
		ASSERT_EQ(w.fs(partno).write_block(
				  files[files.size() - 1 - i * 7 % files.size()],
				  data),
			  0);
}

}  // namespace program_test
