#include "common/AllocCount.h"

#include <cstddef>

namespace {

bool gCounting = false;
long gAllocs = 0;

} // namespace

#ifndef __SANITIZE_ADDRESS__

extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_calloc(size_t, size_t);
extern "C" void* __libc_realloc(void*, size_t);
extern "C" void* __libc_memalign(size_t, size_t);

#define NOTE (gAllocs += gCounting)
extern "C" void* malloc(size_t n)
{
    return NOTE, __libc_malloc(n);
}
extern "C" void* calloc(size_t n, size_t m)
{
    return NOTE, __libc_calloc(n, m);
}
extern "C" void* realloc(void* p, size_t n)
{
    return NOTE, __libc_realloc(p, n);
}
extern "C" void* memalign(size_t align, size_t n)
{
    return NOTE, __libc_memalign(align, n);
}
extern "C" void* aligned_alloc(size_t align, size_t n)
{
    return NOTE, __libc_memalign(align, n);
}
extern "C" int posix_memalign(void** p, size_t align, size_t n)
{
    NOTE;
    *p = __libc_memalign(align, n);
    return *p ? 0 : 12; // ENOMEM
}

#endif

namespace tamixtest {

bool allocationsCounted()
{
#ifdef __SANITIZE_ADDRESS__
    return false;
#else
    return true;
#endif
}

void startCountingAllocations()
{
    gAllocs = 0;
    gCounting = true;
}

long stopCountingAllocations()
{
    gCounting = false;
    return gAllocs;
}

} // namespace tamixtest
