#include "bench_alloc.h"

#include <cstddef>

extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_calloc(size_t, size_t);
extern "C" void* __libc_realloc(void*, size_t);
extern "C" void* __libc_memalign(size_t, size_t);

namespace {

long gAllocs = 0;
bool gCounting = false;

inline void note()
{
    gAllocs += gCounting;
}

} // namespace

// operator new reaches malloc through the runtime, so it counts here too.
extern "C" void* malloc(size_t n)
{
    note();
    return __libc_malloc(n);
}
extern "C" void* calloc(size_t n, size_t m)
{
    note();
    return __libc_calloc(n, m);
}
extern "C" void* realloc(void* p, size_t n)
{
    note();
    return __libc_realloc(p, n);
}
extern "C" void* memalign(size_t align, size_t n)
{
    note();
    return __libc_memalign(align, n);
}
extern "C" void* aligned_alloc(size_t align, size_t n)
{
    note();
    return __libc_memalign(align, n);
}
extern "C" int posix_memalign(void** p, size_t align, size_t n)
{
    note();
    *p = __libc_memalign(align, n);
    return *p ? 0 : 12; // ENOMEM
}

AllocCount::AllocCount() : start_(gAllocs)
{
    gCounting = true;
}

AllocCount::~AllocCount()
{
    gCounting = false;
}

long AllocCount::allocations() const
{
    return gAllocs - start_;
}
