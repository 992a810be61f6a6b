// Budgets of the benchmarks, and the pairing of a measured path with its
// baseline.
//
// Every budget row names a benchmark and one of its counters. Rows that
// compare a path with a baseline measure both in the same benchmark, in
// rounds that alternate which of the two runs first, so that both see the
// same machine; the row's figure is the median over the rounds of the
// per-round ratio. bench_main prints the table and fails when a row misses
// its goal.
#ifndef TAMIX_BENCH_BENCH_BUDGETS_H
#define TAMIX_BENCH_BENCH_BUDGETS_H

#include <benchmark/benchmark.h>

#include <chrono>
#include <vector>

enum class Goal {
    AtMost, // time ratio (measured / baseline) or count: at most the limit
    AtLeast // throughput ratio (baseline time / measured time): at least the limit
};

struct Budget {
    const char* row;       // what the table calls it
    const char* benchmark; // the benchmark that reports it
    const char* counter;   // "ratio" for paired rows, else a counter of its own
    Goal goal;
    double limit;
};

// Adds a row to the table; returns true, so that a file can register its
// rows when it initialises a static.
bool addBudget(const Budget& b);
const std::vector<Budget>& budgets();

// Thread CPU time for work inside this process (steady while other
// processes take the machine), wall time for work across processes.
enum class Clock { Cpu, Wall };
double now(Clock clock);

// Rounds of a measured path and its baseline. Reports, as counters of the
// benchmark: "measured_us" and "baseline_us", the medians per unit of work,
// and "ratio", the median of the rounds' ratios, oriented by the goal.
class Pairs {
public:
    Pairs(benchmark::State& state, Clock clock) : state_(state), clock_(clock) {}

    // Times one call of each, the baseline first in every other round.
    template <class Measured, class Baseline>
    void round(Measured measured, Baseline baseline)
    {
        double m, b;
        if (measuredSeconds_.size() % 2) {
            m = timed(measured);
            b = timed(baseline);
        } else {
            b = timed(baseline);
            m = timed(measured);
        }
        add(m, b);
    }
    // A round timed by the caller (for paths with set-up that must not count).
    void add(double measuredSeconds, double baselineSeconds);
    // units: the work one call does (messages, bytes), to report per unit.
    void report(Goal goal, double units = 1);

    template <class F>
    double timed(F f)
    {
        const double t0 = now(clock_);
        f();
        return now(clock_) - t0;
    }

private:
    benchmark::State& state_;
    Clock clock_;
    std::vector<double> measuredSeconds_, baselineSeconds_;
};

#endif
