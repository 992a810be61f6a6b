// Test support: heap allocations of the whole process. An executable that
// links alloc_count.cpp interposes malloc and its kin, so every allocation
// counts, whoever makes it: the library, QtCore (the text conversion),
// expat, zlib or the C++ runtime (operator new reaches malloc). Under
// AddressSanitizer, which owns malloc, nothing is interposed and nothing
// can be counted.
#ifndef TAMIX_TESTS_COMMON_ALLOCCOUNT_H
#define TAMIX_TESTS_COMMON_ALLOCCOUNT_H

namespace tamixtest {

// False where allocations cannot be counted (sanitizer builds).
bool allocationsCounted();
void startCountingAllocations();
long stopCountingAllocations();

// The allocations of the whole process while f runs.
template <typename F>
long allocationsDuring(F f)
{
    startCountingAllocations();
    f();
    return stopCountingAllocations();
}

} // namespace tamixtest

#endif
