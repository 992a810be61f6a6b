// Test support: waiting on observable state instead of on time.
#ifndef TAMIX_TESTS_COMMON_WAIT_H
#define TAMIX_TESTS_COMMON_WAIT_H

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>

namespace tamixtest {

using Clock = std::chrono::steady_clock;

// Milliseconds until end, never negative.
inline int msLeft(Clock::time_point end)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    return std::max(0, static_cast<int>(left.count()));
}

// Polls cond every few milliseconds until it holds or ms have passed;
// whether it held.
inline bool waitFor(const std::function<bool()>& cond, int ms)
{
    for (auto end = Clock::now() + std::chrono::milliseconds(ms); !cond();) {
        if (msLeft(end) == 0)
            return false;
        ::usleep(2000);
    }
    return true;
}

} // namespace tamixtest

#endif
