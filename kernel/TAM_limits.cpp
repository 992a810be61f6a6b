// TAM_set_limit and TAM_get_limit: the table behind the library's bounds.
#include "kernel/TAM_Limits.h"

#include <cstdint>

namespace {

struct Limit {
    int64_t fallback; // the default
    int64_t least;    // the smallest value accepted
    int64_t most;     // larger values are taken as this one
};

// Time-outs stay far from overflowing when added to a clock reading.
constexpr int64_t kLongestWait = int64_t(1) << 40;
constexpr int64_t kLargest = INT64_MAX;

// Defaults that no well-behaved kernel reaches: the reference kernel sends
// results of 10^7 characters and more, as text or as payloads.
constexpr Limit kLimits[TAM_Limits::kSlots] = {
    {0, 0, 0},                         // no limit 0
    {int64_t(256) << 20, 1, kLargest}, // TAM_LIMIT_MESSAGE_BYTES
    {int64_t(256) << 20, 1, kLargest}, // TAM_LIMIT_PAYLOAD_BYTES
    {256, 1, kLargest},                // TAM_LIMIT_DEPTH
    {100000, 1, kLargest},             // TAM_LIMIT_LIST_ENTRIES
    {1024, 1, kLargest},               // TAM_LIMIT_FORMAT_NAMES
    {30000, 0, kLongestWait},          // TAM_LIMIT_READY_WAIT_MS
    {30000, 0, kLongestWait},          // TAM_LIMIT_SEND_TIMEOUT_MS
    {5000, 0, kLongestWait},           // TAM_LIMIT_DELETE_GRACE_MS
};

bool known(int which)
{
    return which >= 1 && which < TAM_Limits::kSlots;
}

} // namespace

namespace TAM_Limits {

int64_t gValues[kSlots] = {
    kLimits[0].fallback, kLimits[1].fallback, kLimits[2].fallback,
    kLimits[3].fallback, kLimits[4].fallback, kLimits[5].fallback,
    kLimits[6].fallback, kLimits[7].fallback, kLimits[8].fallback,
};
static_assert(kSlots == 9, "one default per limit");

} // namespace TAM_Limits

extern "C" {

int TAM_set_limit(int which, int64_t value)
{
    if (!known(which))
        return 0;
    if (value < 0)
        value = kLimits[which].fallback;
    if (value < kLimits[which].least)
        return 0;
    if (value > kLimits[which].most)
        value = kLimits[which].most;
    TAM_Limits::gValues[which] = value;
    return 1;
}

int64_t TAM_get_limit(int which)
{
    return known(which) ? TAM_Limits::gValues[which] : -1;
}

} // extern "C"
