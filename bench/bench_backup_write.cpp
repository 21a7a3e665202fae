// bench_backup_write: what a running backup costs the writers of the
// partition it copies.
//
// The writes: kWrites distinct blocks of the mounted file system
// (FileSystem::write_block, then sync(): one write bio per block,
// submitted together and waited for), timed from the first write_block to
// the end of the sync.
//
//   none     the writes with no backup (the queue has its own function).
//   first    the same writes in state 4, right after SNAPSHOT: every block
//            is still preserved, so each write is held by kivMRF until
//            "kbackupd" has read the block's old contents from the disk,
//            stored them in the block cache and sent the write on.
//   rewrite  the same writes again in the same backup: the blocks are in
//            the cache map now, so kivMRF passes them straight on (after
//            looking the blocks up).
//
// One repetition, on a fresh machine: none, then a backup (START_BACKUP,
// SNAPSHOT), first, rewrite, close.  Ratios = throughput of first (rewrite) / throughput of
// none of the same repetition; median of the repetitions.  Targets:
// first >= 0.40, rewrite >= 0.95.
#include "backup_bench.hpp"

namespace {


constexpr int kReps = 7;
constexpr std::uint32_t kWrites = 4096;  // 16 MiB of 4 KiB blocks

// Writes blocks [0, kWrites) with byte `fill`, then syncs; seconds.  The
// context switches per write go to *cs.
double timed_writes(bb::Machine &m, unsigned char fill,
		    std::vector<double> &cs)
{
	const long cs0 = bb::context_switches();
	const double t = bb::timed_block_writes(m, fill, kWrites);
	cs.push_back(double(bb::context_switches() - cs0) / kWrites);
	return t;
}

void run_setting(std::chrono::microseconds latency)
{
	bb::MachineConfig c;
	c.latency = latency;
	c.fill = false;   // the disk's contents do not matter here
	std::vector<double> none_s, first_s, re_s, r_first, r_re;
	std::vector<double> none_cs, first_cs, re_cs;
	unsigned char fill = 1;
	long cached = 0;
	for (int rep = 0; rep < kReps; rep++) {
		bb::Machine m(c);
		none_s.push_back(timed_writes(m, fill++, none_cs));
		bb::Backup b(m);
		b.snapshot();
		first_s.push_back(timed_writes(m, fill++, first_cs));
		re_s.push_back(timed_writes(m, fill++, re_cs));
		const bb::CloseStats s = b.close();
		cached = s.total_cached;
		r_first.push_back(none_s.back() / first_s.back());
		r_re.push_back(none_s.back() / re_s.back());
	}

	const double mib = double(kWrites) * c.block_size / (1 << 20);
	std::printf("disk latency %lld us per request, %u completion "
		    "threads; %u writes of %u bytes (%.0f MiB) then sync; %d "
		    "repetitions\n",
		    static_cast<long long>(latency.count()), c.threads, kWrites,
		    c.block_size, mib, kReps);
	std::printf("  no backup                      %8.1f MiB/s (median "
		    "%.3f s)\n", mib / bb::median(none_s), bb::median(none_s));
	std::printf("  state 4, first writes          %8.1f MiB/s (median "
		    "%.3f s; %ld blocks copied by kbackupd in the last run)\n",
		    mib / bb::median(first_s), bb::median(first_s), cached);
	std::printf("  state 4, rewrites (cached)     %8.1f MiB/s (median "
		    "%.3f s)\n", mib / bb::median(re_s), bb::median(re_s));
	std::printf("  context switches per write: no backup %.2f, first "
		    "%.2f, rewrites %.2f (medians)\n", bb::median(none_cs),
		    bb::median(first_cs), bb::median(re_cs));
	const double a = bb::median(r_first), b = bb::median(r_re);
	std::printf("  ratio first writes / no backup: %.2f (min %.2f, max "
		    "%.2f)  target >= 0.40: %s\n", a, bb::vmin(r_first),
		    bb::vmax(r_first), bb::verdict(a >= 0.40));
	std::printf("  ratio rewrites / no backup:     %.2f (min %.2f, max "
		    "%.2f)  target >= 0.95: %s\n", b, bb::vmin(r_re),
		    bb::vmax(r_re), bb::verdict(b >= 0.95));
}

}  // namespace

int main()
{
	bb::print_header("bench_backup_write",
			 "write throughput in state 4 / without a backup");
	run_setting(std::chrono::microseconds(0));
	run_setting(std::chrono::microseconds(50));
	return 0;
}
