// Helpers of the backup program's suites (test_program_*): a scratch
// directory, whole files, a backup run against the emulated machine that
// records the partition at its frozen instant, the command line, and a
// transport that rewrites the driver's answers.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
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
// tests).  `tp`: the transport (default: the machine's own).  `at_stage`:
// called at every stage first (before the partition is recorded).
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
	std::function<void(int stage)> at_stage;
	cvb_backup_result res{};
	cvb_err err{};

	static int hook(void *ctx, int stage)
	{
		auto *r = static_cast<BackupRun *>(ctx);
		r->stages.push_back(stage);
		if (r->at_stage)
			r->at_stage(stage);
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

// A transport passing every call to another one; `after` sees each
// command's code, argument and result once the driver answered, and
// returns the result the program gets (it may rewrite the answer in the
// process's memory first).
class Rewriter {
public:
	explicit Rewriter(const cv_transport *inner) : inner_(inner) {}

	std::function<long(std::uint32_t code, cv_uaddr arg, long r)> after;
	const cv_transport *get() { return &tp_; }

	template <class T> T read(cv_uaddr a)
	{
		T v{};
		EXPECT_EQ(inner_->ops->mem_read(inner_->ctx, a, &v, sizeof(v)),
			  0);
		return v;
	}
	template <class T> void write(cv_uaddr a, const T &v)
	{
		EXPECT_EQ(inner_->ops->mem_write(inner_->ctx, a, &v, sizeof(v)),
			  0);
	}

private:
	static Rewriter &self(void *ctx) { return *static_cast<Rewriter *>(ctx); }
	static const cv_transport &in(void *ctx) { return *self(ctx).inner_; }

	static int op_open(void *ctx, const char *path)
	{
		return in(ctx).ops->open(in(ctx).ctx, path);
	}
	static int op_close(void *ctx, int fd)
	{
		return in(ctx).ops->close(in(ctx).ctx, fd);
	}
	static long op_ioctl(void *ctx, int fd, std::uint32_t code,
			     cv_uaddr arg)
	{
		const long r = in(ctx).ops->ioctl(in(ctx).ctx, fd, code, arg);
		return self(ctx).after ? self(ctx).after(code, arg, r) : r;
	}
	static std::int64_t op_mmap(void *ctx, int fd, std::uint32_t len,
				    int prot, int flags, std::uint32_t pgoff)
	{
		return in(ctx).ops->mmap(in(ctx).ctx, fd, len, prot, flags,
					 pgoff);
	}
	static int op_munmap(void *ctx, cv_uaddr a, std::uint32_t len)
	{
		return in(ctx).ops->munmap(in(ctx).ctx, a, len);
	}
	static int op_alloc(void *ctx, std::uint32_t len, cv_uaddr *a)
	{
		return in(ctx).ops->mem_alloc(in(ctx).ctx, len, a);
	}
	static int op_free(void *ctx, cv_uaddr a, std::uint32_t len)
	{
		return in(ctx).ops->mem_free(in(ctx).ctx, a, len);
	}
	static int op_read(void *ctx, cv_uaddr a, void *dst, std::uint32_t len)
	{
		return in(ctx).ops->mem_read(in(ctx).ctx, a, dst, len);
	}
	static int op_write(void *ctx, cv_uaddr a, const void *src,
			    std::uint32_t len)
	{
		return in(ctx).ops->mem_write(in(ctx).ctx, a, src, len);
	}

	static constexpr cv_transport_ops ops_ = {
		op_open, op_close, op_ioctl, op_mmap, op_munmap,
		op_alloc, op_free, op_read, op_write};

	const cv_transport *inner_;
	cv_transport tp_{&ops_, this, "rewriter"};
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
