// What the benchmark programs share: a Google Benchmark console reporter
// that keeps each run's real time per iteration, so that a program can
// print ratios between cases measured in the same run.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#ifdef CORVALIN_HAVE_GBENCH
#include <benchmark/benchmark.h>

namespace bench {

// Nanoseconds per iteration, by case name.
using Times = std::map<std::string, double>;

class RatioReporter : public benchmark::ConsoleReporter {
public:
	using Key = std::function<std::string(const Run &)>;
	using Done = std::function<void(const Times &)>;

	// `key` names a run's time in the table; `done` gets the table once
	// every run has reported.
	RatioReporter(Key key, Done done)
		: key_(std::move(key)), done_(std::move(done))
	{
	}
	void ReportRuns(const std::vector<Run> &runs) override
	{
		ConsoleReporter::ReportRuns(runs);
		for (const Run &r : runs)
			if (r.iterations > 0 && !r.error_occurred)
				ns_[key_(r)] = r.GetAdjustedRealTime();
	}
	void Finalize() override
	{
		ConsoleReporter::Finalize();
		done_(ns_);
	}

private:
	Key key_;
	Done done_;
	Times ns_;
};

// Runs the registered benchmarks through a RatioReporter.
inline int run_with_ratios(int argc, char **argv, RatioReporter::Key key,
			   RatioReporter::Done done)
{
	benchmark::Initialize(&argc, argv);
	RatioReporter reporter(std::move(key), std::move(done));
	benchmark::RunSpecifiedBenchmarks(&reporter);
	benchmark::Shutdown();
	return 0;
}

}  // namespace bench

#endif
