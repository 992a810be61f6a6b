#ifndef TAMIX_BENCH_BUDGETS_H
#define TAMIX_BENCH_BUDGETS_H

#include <vector>

// A measured path may take at most `limit` times as long as its baseline.
struct RatioBudget {
    const char* measured;
    const char* baseline;
    double limit;
};

// A counter of a benchmark may not exceed `limit`.
struct CounterBudget {
    const char* benchmark;
    const char* counter;
    double limit;
};

const std::vector<RatioBudget>& ratioBudgets();
const std::vector<CounterBudget>& counterBudgets();

#endif
