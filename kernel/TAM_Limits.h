// The bounds and time-outs of TAM_set_limit: process-wide, read where the
// library receives, sends and waits. Each value is one load, so that the
// hot paths pay nothing for asking.
#ifndef TAMIX_KERNEL_TAM_LIMITS_H
#define TAMIX_KERNEL_TAM_LIMITS_H

#include <cstdint>

#include "tamix/tamix.h"

namespace TAM_Limits {

// Slot 0 is unused: the TAM_LIMIT_... values start at 1.
constexpr int kSlots = TAM_LIMIT_DELETE_GRACE_MS + 1;
extern int64_t gValues[kSlots];

// The value in force; which must be one of the TAM_LIMIT_... values.
inline int64_t get(int which)
{
    return gValues[which];
}

} // namespace TAM_Limits

#endif
