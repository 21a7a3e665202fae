// What the suites of interrupted backups share: the emulated machine they
// run in, the partition's contents at a backup's frozen instant, writers'
// changes, the repository's record of an interrupted backup read and
// rewritten, and a backup killed at a stage.
#ifndef CORVALIN_TEST_INTERRUPTED_UTIL_HPP
#define CORVALIN_TEST_INTERRUPTED_UTIL_HPP

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support.hpp"
#include "test_program_util.hpp"

namespace interrupted_test {

using corvalin::tool::EmuWorld;
using program_test::BackupRun;
using program_test::Cli;
using program_test::Rewriter;
using program_test::ScratchDir;
using program_test::expect_restores;
using program_test::read_file;
using program_test::write_file;

inline const char *const kWindow = "the previous backup was interrupted between "
			    "its snapshot and securing the change map";
inline const char *const kFullStopped = "the previous backup, a full one, was "
				 "interrupted after its snapshot";
#define NOT_USED "the record of an interrupted backup was not used: "

inline EmuWorld::Config config()
{
	EmuWorld::Config c;
	c.block_size = 1024;
	c.blocks = 2048;
	c.per_group = 512;
	c.seed = 31;
	return c;
}

// The partition at a backup's frozen instant as the chain restores it
// (the first, full backup stores the allocated blocks only).
inline std::vector<std::byte> want(EmuWorld &w, const BackupRun &b)
{
	return program_test::allocated_only(b.frozen, w.allocated(), 1024);
}

// Rewrites file blocks k .. k + n - 1 (of the file-data blocks) with
// `fill`; different k give different blocks.
inline void change(EmuWorld &w, std::size_t k, std::size_t n, std::uint8_t fill)
{
	const auto &files = w.file_blocks();
	std::vector<std::byte> data(w.block_size(), std::byte{fill});
	for (std::size_t i = k; i < k + n; i++)
		ASSERT_EQ(w.fs().write_block(files.at(i), data), 0);
}

inline void wait_writes(EmuWorld &w, std::uint64_t n)
{
	const auto until = w.writes() + n;
	while (w.writes() < until)
		std::this_thread::yield();
}

inline std::vector<std::string> names(const std::string &dir)
{
	std::vector<std::string> v;
	for (const auto &f : std::filesystem::directory_iterator(dir))
		v.push_back(f.path().filename().string());
	std::sort(v.begin(), v.end());
	return v;
}

inline std::vector<std::string> images(unsigned n, bool with_record = false)
{
	std::vector<std::string> v;
	for (unsigned i = 1; i <= n; i++) {
		char name[64];
		cvb_image_name(i, name, sizeof(name));
		v.emplace_back(name);
	}
	v.emplace_back("index");
	if (with_record)
		v.emplace_back("pending");
	return v;
}

// The repository's record as the engine reads it (its map left out).
struct Record {
	int rc = 0;
	bool found = false;
	cvb_pending p{};
	std::string why;
};

inline Record load_record(const std::string &repo)
{
	Record r;
	cvb_err e{};
	int found = 0;
	r.rc = cvb_pending_load(repo.c_str(), &r.p, &found, &e);
	r.found = found != 0;
	r.why = e.msg;
	cvb_pending fields = r.p;
	fields.map = nullptr;
	fields.raw = nullptr;
	cvb_pending_free(&r.p);
	r.p = fields;
	return r;
}

// Re-encodes the record after `edit` changed its fields or map: a record
// whose checksum holds.
template <class Edit>
inline void rewrite_record(const std::string &repo, Edit edit)
{
	const auto raw = read_file(repo + "/pending");
	std::vector<unsigned char> in(raw.size());
	std::memcpy(in.data(), raw.data(), raw.size());
	cvb_pending p{};
	char why[160] = "";
	ASSERT_EQ(cvb_pending_decode(in.data(), in.size(), &p, why,
				     sizeof(why)),
		  0)
		<< why;
	std::vector<unsigned char> map;
	if (p.map != nullptr)
		map.assign(p.map, p.map + cvb_bitmap_bytes(p.block_count));
	edit(p, map);
	p.map = map.empty() ? nullptr : map.data();
	std::vector<unsigned char> out(cvb_pending_size(&p));
	cvb_pending_encode(&p, out.data());
	std::vector<std::byte> bytes(out.size());
	std::memcpy(bytes.data(), out.data(), out.size());
	write_file(repo + "/pending", bytes);
}

// A backup killed at `stage` (every file left as it is); its message.
inline std::string kill_at(EmuWorld &w, const std::string &repo, int stage,
		    bool full = false)
{
	BackupRun b(w);
	b.stop_at = stage;
	b.how = 2;
	b.force_full = full;
	EXPECT_EQ(b.run(repo), CVB_E_INTERRUPTED) << b.err.msg;
	(void)w.new_log_lines();
	return b.err.msg;
}

// Another program's snapshot of the partition: the session gets a key
// of its own.
inline void other_snapshot(EmuWorld &w)
{
	emu::Process other("other");
	corvalin::EmuTransport t(other);
	cv_device dev;
	ASSERT_EQ(cv_open(&dev, t.get(), nullptr), 0);
	ASSERT_EQ(cv_start_backup(&dev, 8, 1, w.blocks(), w.blocks()), 0);
	ASSERT_EQ(cv_no_load_from_automap(&dev), 0);
	ASSERT_EQ(cv_snapshot(&dev, nullptr, 0), 0);
	ASSERT_EQ(cv_close(&dev), 0);
}

// Rewrites the bytes of the record as `edit` says (no checksum fixed).
inline void edit_bytes(const std::string &repo,
		void (*edit)(std::vector<std::byte> &raw))
{
	auto raw = read_file(repo + "/pending");
	edit(raw);
	write_file(repo + "/pending", raw);
}

}  // namespace interrupted_test

#endif
