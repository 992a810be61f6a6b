// Runs the benchmarks, then checks each measured path against its baseline
// from the same run. Budgets are ratios, so they hold on any machine; the
// program exits 1 when one is exceeded.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

#include "bench_budgets.h"

namespace {

class RecordingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred)
                continue;
            std::string name = run.benchmark_name();
            times[name] = run.GetAdjustedCPUTime(); // CPU time: steadier on a shared machine
            for (const auto& counter : run.counters)
                counters[name + ":" + counter.first] = counter.second;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> times;
    std::map<std::string, double> counters;
};

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    RecordingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    int failed = 0;
    std::printf("\n%-44s %10s %10s  %s\n", "budget (measured / baseline)", "ratio", "limit", "");
    for (const RatioBudget& b : ratioBudgets()) {
        auto m = reporter.times.find(b.measured);
        auto base = reporter.times.find(b.baseline);
        if (m == reporter.times.end() || base == reporter.times.end() || base->second <= 0)
            continue;
        double ratio = m->second / base->second;
        bool ok = ratio <= b.limit;
        failed += !ok;
        std::printf("%-44s %10.2f %10.2f  %s\n", b.measured, ratio, b.limit,
                    ok ? "ok" : "EXCEEDED");
    }
    for (const CounterBudget& b : counterBudgets()) {
        auto c = reporter.counters.find(std::string(b.benchmark) + ":" + b.counter);
        if (c == reporter.counters.end())
            continue;
        bool ok = c->second <= b.limit;
        failed += !ok;
        std::printf("%-44s %10.2f %10.2f  %s\n",
                    (std::string(b.benchmark) + " " + b.counter).c_str(), c->second, b.limit,
                    ok ? "ok" : "EXCEEDED");
    }
    return failed ? 1 : 0;
}
