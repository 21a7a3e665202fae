// The repository format: CRC-32C's standard vectors, the fixed
// little-endian layouts of the image header and of the record of an
// interrupted backup, and seeded fuzz tests of the readers: damaged,
// truncated, swapped, missing and foreign files give a clear error (never
// a crash, never wrong data), and backups the damage does not touch stay
// restorable; a damaged record is always refused.  CORVALIN_SEED=<seed>
// replays one seed in every case.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "support.hpp"
#include "crc32c.h"
#include "test_program_util.hpp"

namespace {

using program_test::ScratchDir;
namespace fs = std::filesystem;

TEST(Crc32c, StandardTestVectors)
{
	EXPECT_EQ(cvb_crc32c(0, "123456789", 9), 0xE3069283u);
	unsigned char buf[32];
	std::memset(buf, 0, sizeof(buf));
	EXPECT_EQ(cvb_crc32c(0, buf, 32), 0x8A9136AAu);
	std::memset(buf, 0xFF, sizeof(buf));
	EXPECT_EQ(cvb_crc32c(0, buf, 32), 0x62A8AB43u);
	for (int i = 0; i < 32; i++)
		buf[i] = static_cast<unsigned char>(i);
	EXPECT_EQ(cvb_crc32c(0, buf, 32), 0x46DD794Eu);
	for (int i = 0; i < 32; i++)
		buf[i] = static_cast<unsigned char>(31 - i);
	EXPECT_EQ(cvb_crc32c(0, buf, 32), 0x113FDB5Cu);
	EXPECT_EQ(cvb_crc32c(0, buf, 0), 0u);
	// Continued over pieces, the same as in one go.
	EXPECT_EQ(cvb_crc32c(cvb_crc32c(0, "1234", 4), "56789", 5),
		  0xE3069283u);
}

cvb_header sample_header()
{
	cvb_header h{};
	h.version = CVB_FORMAT_VERSION;
	h.number = 3;
	h.kind = CVB_KIND_INCREMENTAL;
	h.parent = 2;
	h.flags = CVB_FLAG_KEY;
	h.major = 8;
	h.minor = 17;
	h.block_size = 4096;
	h.block_count = 100003;
	h.id = 0x0102030405060708ull;
	h.parent_id = 0x1112131415161718ull;
	h.time = 1700000000;
	h.partition_kb = 400012;
	h.present_count = 513;
	for (unsigned i = 0; i < CVB_KEY_SIZE; i++)
		h.key[i] = static_cast<unsigned char>(i * 7);
	cvb_header_layout(&h);
	return h;
}

TEST(RepoFormat, HeaderFieldsAreLittleEndianAtFixedOffsets)
{
	cvb_header h = sample_header();
	unsigned char b[CVB_HEADER_SIZE];
	cvb_header_encode(&h, b);
	EXPECT_EQ(std::memcmp(b, "CVLNIMG\0", 8), 0);
	EXPECT_EQ(b[8], 1);                       // version
	EXPECT_EQ(b[12], 0x00); EXPECT_EQ(b[13], 0x01);  // header size 256
	EXPECT_EQ(b[16], 3);                      // number
	EXPECT_EQ(b[44], 0xA3); EXPECT_EQ(b[45], 0x86);  // 100003 = 0x186A3
	EXPECT_EQ(b[46], 0x01);
	EXPECT_EQ(b[48], 0x08); EXPECT_EQ(b[55], 0x01);  // id, low byte first
	EXPECT_EQ(b[128 + 55], 55 * 7 % 256);     // key's last byte
	EXPECT_EQ(h.bitmap_offset, 256u);
	EXPECT_EQ(h.data_offset, 256u + 12501u);
	EXPECT_EQ(h.file_size, 256u + 12501u + 513u * 4096 + 12501u + 3 * 4);

	cvb_header back{};
	char why[160] = "";
	ASSERT_EQ(cvb_header_decode(b, h.file_size, &back, why, sizeof(why)),
		  0) << why;
	EXPECT_EQ(std::memcmp(&back, &h, sizeof(h)), 0);
	// One byte more or less on disk is refused.
	EXPECT_EQ(cvb_header_decode(b, h.file_size - 1, &back, why,
				    sizeof(why)), -1);
	EXPECT_STREQ(why, "file is truncated");
	EXPECT_EQ(cvb_header_decode(b, h.file_size + 1, &back, why,
				    sizeof(why)), -1);
	EXPECT_STREQ(why, "file has trailing bytes");
	// A field changed without its checksum.
	b[16] = 4;
	EXPECT_EQ(cvb_header_decode(b, h.file_size, &back, why, sizeof(why)),
		  -1);
	EXPECT_STREQ(why, "header checksum mismatch");
	// A field changed with its checksum: the layout no longer adds up.
	h.present_count = 514;
	cvb_header_encode(&h, b);
	EXPECT_EQ(cvb_header_decode(b, h.file_size, &back, why, sizeof(why)),
		  -1);
	EXPECT_STREQ(why, "inconsistent layout");
}

// An incremental's SECURED record of a partition of 100003 blocks, 17 of
// them changed.
struct SampleRecord {
	cvb_pending p{};
	std::vector<unsigned char> map;
	SampleRecord()
	{
		p.state = CVB_PENDING_SECURED;
		p.flags = CVB_PENDING_KEY | CVB_PENDING_MAP;
		p.kind = CVB_KIND_INCREMENTAL;
		p.parent = 5;
		p.parent_id = 0x2122232425262728ull;
		p.major = 8;
		p.minor = 17;
		p.block_size = 4096;
		p.block_count = 100003;
		for (unsigned i = 0; i < CVB_KEY_SIZE; i++)
			p.key[i] = static_cast<unsigned char>(i * 5 + 1);
		map.assign(cvb_bitmap_bytes(p.block_count), 0);
		for (unsigned i = 0; i < 17; i++)
			cvb_set_bit(map.data(), i * 5881);
		p.map = map.data();
		p.marked = 17;
	}
	std::vector<unsigned char> encode() const
	{
		std::vector<unsigned char> b(cvb_pending_size(&p));
		cvb_pending_encode(&p, b.data());
		return b;
	}
};

TEST(RepoFormat, PendingRecordFieldsAreLittleEndianAtFixedOffsets)
{
	SampleRecord s;
	std::vector<unsigned char> b = s.encode();
	ASSERT_EQ(b.size(), 128u + 12501u);
	EXPECT_EQ(std::memcmp(b.data(), "CVLNPND\0", 8), 0);
	EXPECT_EQ(b[8], 1);                       // version
	EXPECT_EQ(b[12], 128);                    // header size
	EXPECT_EQ(b[16], 2);                      // SECURED
	EXPECT_EQ(b[20], 3);                      // key and map
	EXPECT_EQ(b[24], 2);                      // incremental
	EXPECT_EQ(b[28], 5);                      // parent
	EXPECT_EQ(b[32], 0x28); EXPECT_EQ(b[39], 0x21);  // parent's id
	EXPECT_EQ(b[44], 17);                     // minor
	EXPECT_EQ(b[52], 0xA3); EXPECT_EQ(b[54], 0x01);  // 100003 blocks
	EXPECT_EQ(b[56], 17);                     // blocks marked
	EXPECT_EQ(b[60], 0xD5); EXPECT_EQ(b[61], 0x30);  // 12501 map bytes
	EXPECT_EQ(b[64 + 55], (55 * 5 + 1) % 256);  // key's last byte
	EXPECT_EQ(b[128 + 5881 / 8], 1u << (5881 % 8));
	EXPECT_EQ(cvb_get32(b.data() + 124),
		  cvb_crc32c(cvb_crc32c(0, b.data(), 124), b.data() + 128,
			     12501));

	cvb_pending back{};
	char why[160] = "";
	ASSERT_EQ(cvb_pending_decode(b.data(), b.size(), &back, why,
				     sizeof(why)),
		  0) << why;
	EXPECT_EQ(back.map, b.data() + 128);
	back.map = s.p.map;
	EXPECT_EQ(std::memcmp(&back, &s.p, sizeof(back)), 0);
	// A record without a map: its header alone.
	SampleRecord full;
	full.p.kind = CVB_KIND_FULL;
	full.p.flags = 0;
	full.p.parent = 0;
	full.p.parent_id = 0;
	full.p.marked = 0;
	std::memset(full.p.key, 0, sizeof(full.p.key));
	b = full.encode();
	ASSERT_EQ(b.size(), 128u);
	ASSERT_EQ(cvb_pending_decode(b.data(), b.size(), &back, why,
				     sizeof(why)),
		  0) << why;
	EXPECT_EQ(back.map, nullptr);
	// Fields that do not hang together, checksum or not.
	full.p.parent = 3;
	b = full.encode();
	EXPECT_EQ(cvb_pending_decode(b.data(), b.size(), &back, why,
				     sizeof(why)),
		  -1);
	EXPECT_STREQ(why, "it is inconsistent (inconsistent parent)");
	SampleRecord beyond;
	beyond.map.back() |= 0x80;  // block 100007 of 100003
	beyond.p.marked = 18;
	b = beyond.encode();
	EXPECT_EQ(cvb_pending_decode(b.data(), b.size(), &back, why,
				     sizeof(why)),
		  -1);
	EXPECT_STREQ(why, "it is inconsistent (map does not match its block "
			  "count)");
}

class PendingRecordFuzz : public ::testing::TestWithParam<unsigned> {};

std::vector<std::uint64_t> seeds(std::uint64_t first, unsigned n);

// Any change to a record's bytes (a CRC-32C over all of them), any other
// length, random bytes: refused with a reason, never read past its end.
TEST_P(PendingRecordFuzz, DamagedRecordsAreRefusedWithAReason)
{
	const std::vector<unsigned char> good = SampleRecord().encode();
	for (std::uint64_t seed : seeds(GetParam() * 500, 500)) {
		SCOPED_TRACE("seed " + std::to_string(seed));
		std::mt19937_64 r(seed);
		std::vector<unsigned char> b = good;
		switch (r() % 4) {
		case 0: {
			const std::size_t n = 1 + r() % 4;
			const std::size_t at = r() % (b.size() - n);
			for (std::size_t i = 0; i < n; i++)
				b[at + i] ^= static_cast<unsigned char>(
					1 + r() % 255);
			break;
		}
		case 1:
			b.resize(r() % b.size());
			break;
		case 2:
			b.resize(b.size() + 1 + r() % 64);
			break;
		default:
			for (auto &c : b)
				c = static_cast<unsigned char>(r());
			b.resize(r() % (b.size() + 1));
		}
		// Exactly as long as the data: a reader must not look past.
		std::vector<unsigned char> exact(b.begin(), b.end());
		cvb_pending p{};
		char why[160] = "";
		EXPECT_EQ(cvb_pending_decode(exact.data(), exact.size(), &p,
					     why, sizeof(why)),
			  -1);
		EXPECT_NE(std::strlen(why), 0u);
	}
}

INSTANTIATE_TEST_SUITE_P(Seeds, PendingRecordFuzz, ::testing::Range(0u, 2u));

// A repository of three backups (full, incremental, full), made once per
// process.
struct Fixture {
	ScratchDir dir;
	std::string repo;
	std::vector<std::vector<std::byte>> images;  // restored contents
};

Fixture &fixture()
{
	static Fixture f;
	static const bool made = [] {
		f.repo = f.dir / "repo";
		corvalin::tool::EmuWorld::Config c;
		c.block_size = 1024;
		c.blocks = 600;
		c.per_group = 256;
		c.ext2 = false;
		corvalin::tool::EmuWorld w(c);
		for (int i = 0; i < 3; i++) {
			// Full, incremental, full: damage to the first
			// also makes the second unrestorable.
			program_test::BackupRun b(w);
			b.force_full = i == 2;
			if (b.run(f.repo) != 0)
				ADD_FAILURE() << b.err.msg;
			f.images.push_back(b.frozen);
			// Change some blocks between backups.
			std::vector<std::byte> blk(1024, std::byte(i + 1));
			for (int k = 0; k < 20; k++)
				(void)w.fs().write_block(k * 29 + i, blk);
			(void)w.fs().sync();
		}
		(void)w.new_log_lines();
		return true;
	}();
	(void)made;
	return f;
}

std::vector<std::uint64_t> seeds(std::uint64_t first, unsigned n)
{
	if (const char *env = std::getenv("CORVALIN_SEED"))
		return {std::strtoull(env, nullptr, 0)};
	std::vector<std::uint64_t> v;
	for (unsigned i = 0; i < n; i++)
		v.push_back(first + i);
	return v;
}

// Damage one file of a copy of the repository as seed says; returns
// which file (its name) and what was done.
std::string damage(const std::string &repo, std::uint64_t seed)
{
	std::mt19937_64 r(seed);
	const char *files[] = {"index", "backup-000001.img",
			       "backup-000002.img", "backup-000003.img"};
	const std::string name = files[r() % 4];
	const std::string path = repo + "/" + name;
	auto data = program_test::read_file(path);
	std::string what;
	switch (r() % 6) {
	case 0:
	case 1: {  // flip bits of one byte (the most common damage)
		std::size_t at = r() % data.size();
		if (r() % 2)
			at %= 300;  // headers and index entries more often
		data[at] ^= static_cast<std::byte>(1 + r() % 255);
		what = "byte " + std::to_string(at) + " changed";
		break;
	}
	case 2:
		data.resize(r() % data.size());
		what = "truncated to " + std::to_string(data.size());
		break;
	case 3:
		data.push_back(std::byte{0});
		what = "a byte appended";
		break;
	case 4:
		for (auto &b : data)
			b = static_cast<std::byte>(r());
		data.resize(r() % 4 ? data.size() : r() % 64);
		what = "replaced by random bytes";
		break;
	default:
		if (name == "index") {
			data.assign({std::byte{'#'}, std::byte{'!'}});
			what = "replaced by a foreign file";
		} else {
			fs::remove(path);
			return name + " removed";
		}
	}
	program_test::write_file(path, data);
	return name + " " + what;
}

class FormatFuzz : public ::testing::TestWithParam<unsigned> {};

TEST_P(FormatFuzz, DamagedFilesGiveAClearErrorAndNoWrongData)
{
	Fixture &f = fixture();
	ASSERT_EQ(f.images.size(), 3u);
	for (std::uint64_t seed : seeds(GetParam() * 50, 50)) {
		ScratchDir d;
		const std::string repo = d / "repo";
		fs::copy(f.repo, repo);
		const std::string what = damage(repo, seed);
		SCOPED_TRACE("seed " + std::to_string(seed) + ": " + what);

		cvb_repo r{};
		cvb_err e{};
		const int lr = cvb_repo_load(repo.c_str(), 0, &r, &e);
		if (what.rfind("index", 0) == 0) {
			ASSERT_TRUE(lr == CVB_E_CORRUPT || lr == CVB_E_FOREIGN)
				<< lr;
			EXPECT_NE(std::strlen(e.msg), 0u);
			continue;
		}
		ASSERT_EQ(lr, 0) << e.msg;
		const unsigned hit = static_cast<unsigned>(
			what[std::strlen("backup-00000")] - '0');
		cvb_verify_item *items = nullptr;
		ASSERT_EQ(cvb_verify(&r, &items, nullptr, nullptr, &e), 0);
		for (unsigned n = 1; n <= 3; n++) {
			cvb_restore_result rr{};
			cvb_err re{};
			const int rc = program_test::restore_to(
				repo, n, d / "out", &rr, &re);
			if (n == hit || (n == 2 && hit == 1)) {
				EXPECT_FALSE(items[n - 1].restorable);
				EXPECT_NE(std::strlen(items[n - 1].problem), 0u);
				EXPECT_TRUE(rc == CVB_E_CORRUPT) << rc << " "
								 << re.msg;
				EXPECT_NE(std::strlen(re.msg), 0u);
			} else {
				EXPECT_TRUE(items[n - 1].restorable)
					<< items[n - 1].problem;
				ASSERT_EQ(rc, 0) << re.msg;
				EXPECT_TRUE(program_test::read_file(d / "out") ==
					    f.images[n - 1]);
			}
		}
		std::free(items);
		cvb_repo_free(&r);
	}
}

INSTANTIATE_TEST_SUITE_P(Seeds, FormatFuzz, ::testing::Range(0u, 4u));

TEST(RepoFormat, ANonRepositoryDirectoryIsRefusedClearly)
{
	ScratchDir d;
	cvb_repo r{};
	cvb_err e{};
	EXPECT_EQ(cvb_repo_load((d / "none").c_str(), 0, &r, &e), CVB_E_ARG);
	EXPECT_EQ(cvb_repo_load((d / "none").c_str(), 1, &r, &e), 0);
	EXPECT_EQ(r.count, 0u);
	program_test::write_file(d / "plain", {std::byte{1}});
	EXPECT_EQ(cvb_repo_load((d / "plain").c_str(), 1, &r, &e),
		  CVB_E_FOREIGN);
	EXPECT_NE(std::string(e.msg).find("not a directory"),
		  std::string::npos);
	fs::create_directories(d / "imgs");
	program_test::write_file(d / "imgs/backup-000001.img", {std::byte{1}});
	EXPECT_EQ(cvb_repo_load((d / "imgs").c_str(), 1, &r, &e),
		  CVB_E_CORRUPT);
	EXPECT_NE(std::string(e.msg).find("backup images but no index"),
		  std::string::npos);
}

}  // namespace
