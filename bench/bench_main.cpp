// Runs the benchmarks, then prints the budget table: for each row the
// measured figure, its baseline from the same run, the ratio, the goal and
// the verdict. Exits 1 when a row misses its goal or could not be measured.
// Budgets are ratios against baselines, so they hold on any machine.
//
// With the argument --child, the program is a helper that another run of it
// started (bench_clients.h): nothing is benchmarked.
#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include "bench_budgets.h"
#include "bench_clients.h"

namespace {

std::vector<Budget>& budgetList()
{
    static std::vector<Budget> list;
    return list;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n == 0 ? 0 : n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

class RecordingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            const std::string name = run.benchmark_name();
            if (run.error_occurred) {
                errors[name] = run.error_message;
                continue;
            }
            for (const auto& counter : run.counters)
                counters[name + ":" + counter.first] = counter.second;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    const double* counter(const std::string& benchmark, const std::string& name) const
    {
        auto it = counters.find(benchmark + ":" + name);
        return it == counters.end() ? nullptr : &it->second;
    }
    std::map<std::string, double> counters;
    std::map<std::string, std::string> errors;
};

std::string figure(const double* v, const char* unit)
{
    if (!v)
        return "-";
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3g %s", *v, unit);
    return buf;
}

// Prints the table; the number of rows that missed their goal or could not
// be measured.
int printTable(const RecordingReporter& r)
{
    int failed = 0;
    std::printf("\n%-62s %12s %12s %7s %9s  %s\n", "budget", "measured", "baseline", "ratio",
                "goal", "verdict");
    for (const Budget& b : budgets()) {
        const double* value = r.counter(b.benchmark, b.counter);
        const bool paired = std::strcmp(b.counter, "ratio") == 0;
        const char* verdict;
        if (!value) {
            verdict = r.errors.count(b.benchmark) ? "FAILED TO RUN" : "not run";
            failed += r.errors.count(b.benchmark) ? 1 : 0;
        } else {
            const bool ok = b.goal == Goal::AtMost ? *value <= b.limit : *value >= b.limit;
            verdict = ok ? "ok" : "MISSED";
            failed += ok ? 0 : 1;
        }
        char goal[16];
        std::snprintf(goal, sizeof goal, "%s %.2f", b.goal == Goal::AtMost ? "<=" : ">=", b.limit);
        char ratio[16] = "-";
        if (value && paired)
            std::snprintf(ratio, sizeof ratio, "%.3f", *value);
        std::printf(
            "%-62s %12s %12s %7s %9s  %s\n", b.row,
            figure(paired ? r.counter(b.benchmark, "measured_us") : value, paired ? "us" : "")
                .c_str(),
            paired ? figure(r.counter(b.benchmark, "baseline_us"), "us").c_str() : "-", ratio, goal,
            verdict);
    }
    return failed;
}

} // namespace

bool addBudget(const Budget& b)
{
    budgetList().push_back(b);
    return true;
}

const std::vector<Budget>& budgets()
{
    return budgetList();
}

double now(Clock clock)
{
    timespec t;
    clock_gettime(clock == Clock::Cpu ? CLOCK_THREAD_CPUTIME_ID : CLOCK_MONOTONIC, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

void Pairs::add(double measuredSeconds, double baselineSeconds)
{
    measuredSeconds_.push_back(measuredSeconds);
    baselineSeconds_.push_back(baselineSeconds);
    state_.SetIterationTime(measuredSeconds);
}

void Pairs::report(Goal goal, double units)
{
    std::vector<double> ratios;
    for (size_t i = 0; i < measuredSeconds_.size(); ++i)
        ratios.push_back(goal == Goal::AtMost ? measuredSeconds_[i] / baselineSeconds_[i]
                                              : baselineSeconds_[i] / measuredSeconds_[i]);
    state_.counters["measured_us"] = median(measuredSeconds_) * 1e6 / units;
    state_.counters["baseline_us"] = median(baselineSeconds_) * 1e6 / units;
    state_.counters["ratio"] = median(ratios);
}

int main(int argc, char** argv)
{
    // A front end works in its user's locale, nowadays a UTF-8 one; the
    // benchmarks take the same conditions wherever they run.
    if (!std::setlocale(LC_ALL, "C.UTF-8"))
        std::setlocale(LC_ALL, "");
    if (argc > 1 && std::strcmp(argv[1], "--child") == 0)
        return runChild(argc - 2, argv + 2);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    RecordingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return printTable(reporter) ? 1 : 0;
}
