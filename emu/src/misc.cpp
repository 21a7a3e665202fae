// Clocks, jiffies, random numbers and delays.
#include <ctime>

#include "core.hpp"
#include "checks.hpp"

namespace {

const auto g_boot = std::chrono::steady_clock::now();

struct Rng {
	std::mutex m;
	unsigned long long state;
	Rng()
	{
		const char *seed = std::getenv("CORVALIN_SEED");
		state = seed ? std::strtoull(seed, nullptr, 0) : 0;
		if (!state)
			state = 0x2545F4914F6CDD1DULL;
	}
	unsigned long long next()
	{
		// xorshift64*
		state ^= state >> 12;
		state ^= state << 25;
		state ^= state >> 27;
		return state * 0x2545F4914F6CDD1DULL;
	}
};

Rng &rng()
{
	static auto *r = new Rng;
	return *r;
}

}  // namespace

extern "C" struct timespec current_kernel_time(void)
{
	struct timespec ts;
	clock_gettime(CLOCK_REALTIME, &ts);
	return ts;
}

extern "C" void getnstimeofday(struct timespec *tv)
{
	clock_gettime(CLOCK_REALTIME, tv);
}

extern "C" void do_gettimeofday(struct timeval *tv)
{
	struct timespec ts;
	clock_gettime(CLOCK_REALTIME, &ts);
	tv->tv_sec = ts.tv_sec;
	tv->tv_usec = ts.tv_nsec / 1000;
}

extern "C" unsigned long get_seconds(void)
{
	return static_cast<unsigned long>(current_kernel_time().tv_sec);
}

extern "C" unsigned long emu_jiffies(void)
{
	auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
		std::chrono::steady_clock::now() - g_boot).count();
	return INITIAL_JIFFIES + static_cast<unsigned long>(ms) * HZ / 1000;
}

extern "C" unsigned int jiffies_to_msecs(const unsigned long j)
{
	return static_cast<unsigned int>(j * (1000 / HZ));
}

extern "C" unsigned long msecs_to_jiffies(const unsigned int m)
{
	return (m + (1000 / HZ) - 1) / (1000 / HZ);
}

extern "C" void get_random_bytes(void *buf, int nbytes)
{
	emu::Invisible inv;
	std::lock_guard lk(rng().m);
	auto *p = static_cast<unsigned char *>(buf);
	for (int i = 0; i < nbytes; i += 8) {
		unsigned long long v = rng().next();
		for (int k = 0; k < 8 && i + k < nbytes; k++)
			p[i + k] = static_cast<unsigned char>(v >> (8 * k));
	}
}

extern "C" u32 random32(void)
{
	u32 v;
	get_random_bytes(&v, sizeof(v));
	return v;
}

extern "C" void srandom32(u32 seed)
{
	emu::Invisible inv;
	std::lock_guard lk(rng().m);
	rng().state ^= seed ? seed : 1;
}

extern "C" void emu_msleep(unsigned int msecs, const char *file, int line)
{
	emu::check_may_sleep(emu::site(file, line), "msleep");
	emu::schedule_enables_irqs();
	emu::Sleeping sleeping;
	std::this_thread::sleep_for(std::chrono::milliseconds(msecs));
}

extern "C" void emu_ndelay(unsigned long nsecs)
{
	auto until = std::chrono::steady_clock::now() +
		std::chrono::nanoseconds(nsecs);
	while (std::chrono::steady_clock::now() < until)
		std::this_thread::yield();
}

extern "C" loff_t no_llseek(struct file *file, loff_t offset, int origin)
{
	(void)file;
	(void)offset;
	(void)origin;
	return -ESPIPE;
}

extern "C" int nonseekable_open(struct inode *inode, struct file *filp)
{
	(void)inode;
	filp->f_mode &= ~(FMODE_LSEEK | FMODE_PREAD | FMODE_PWRITE);
	return 0;
}
