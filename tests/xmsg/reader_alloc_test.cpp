// Steady-state allocations of the reader.
//
// Method: this executable interposes malloc, calloc, realloc and the plain
// operator new (forwarding to glibc's __libc_* functions). While counting is
// on, each call is attributed by its return address: a call from
// libtamclient's text counts; a call from the C or C++ runtime (libc,
// libstdc++) is followed up the stack with backtrace() to the first frame
// outside the runtime, so an allocation through strdup or std::string made
// by libtamclient counts too; a call from QtCore (the text conversion's
// temporaries), expat, zlib or the test itself does not. The text ranges
// come from dl_iterate_phdr, matched by the objects' file names.
//
// AddressSanitizer replaces malloc itself, so in a sanitizer build the
// interposer is left out and the cases are skipped.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "ReaderHarness.h"

#if defined(__SANITIZE_ADDRESS__)
#define TAMIX_COUNTING_ALLOCATOR 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TAMIX_COUNTING_ALLOCATOR 0
#endif
#endif
#ifndef TAMIX_COUNTING_ALLOCATOR
#define TAMIX_COUNTING_ALLOCATOR 1
#endif

#if TAMIX_COUNTING_ALLOCATOR

#include <execinfo.h>
#include <link.h>

extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_calloc(size_t, size_t);
extern "C" void* __libc_realloc(void*, size_t);
extern "C" void __libc_free(void*);

namespace {

struct Range {
    uintptr_t lo = 0;
    uintptr_t hi = 0;
    bool has(uintptr_t a) const { return a >= lo && a < hi; }
};

enum Obj { Lib, Runtime1, Runtime2, ObjCount };
Range gRanges[ObjCount];
bool gCounting = false;
thread_local bool tInHook = false;
long gLibAllocs = 0;

bool nameHas(const char* name, const char* part)
{
    return name && std::strstr(name, part) != nullptr;
}

int findRanges(struct dl_phdr_info* info, size_t, void*)
{
    int which = -1;
    if (nameHas(info->dlpi_name, "libtamclient"))
        which = Lib;
    else if (nameHas(info->dlpi_name, "libstdc++"))
        which = Runtime1;
    else if (nameHas(info->dlpi_name, "libc.so"))
        which = Runtime2;
    if (which < 0)
        return 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        if (ph.p_type == PT_LOAD && (ph.p_flags & PF_X)) {
            gRanges[which].lo = info->dlpi_addr + ph.p_vaddr;
            gRanges[which].hi = gRanges[which].lo + ph.p_memsz;
        }
    }
    return 0;
}

bool inRuntime(uintptr_t a)
{
    return gRanges[Runtime1].has(a) || gRanges[Runtime2].has(a);
}

// ra: the return address of the hook, that is, the caller of malloc or new.
void note(void* ra)
{
    if (!gCounting || tInHook)
        return;
    const uintptr_t caller = reinterpret_cast<uintptr_t>(ra);
    if (gRanges[Lib].has(caller)) {
        ++gLibAllocs;
        return;
    }
    if (!inRuntime(caller))
        return;
    // Called from strdup, std::string and the like: the first frame above
    // the runtime decides.
    tInHook = true;
    void* frames[16];
    const int n = backtrace(frames, 16);
    int i = 0;
    while (i < n && frames[i] != ra)
        ++i;
    for (++i; i < n; ++i) {
        const uintptr_t a = reinterpret_cast<uintptr_t>(frames[i]);
        if (inRuntime(a))
            continue;
        if (gRanges[Lib].has(a))
            ++gLibAllocs;
        break;
    }
    tInHook = false;
}

} // namespace

// noinline: the return address must be that of the real caller, also for
// callers in this file.
extern "C" __attribute__((noinline)) void* malloc(size_t n)
{
    note(__builtin_return_address(0));
    return __libc_malloc(n);
}

extern "C" __attribute__((noinline)) void* calloc(size_t n, size_t m)
{
    note(__builtin_return_address(0));
    return __libc_calloc(n, m);
}

extern "C" __attribute__((noinline)) void* realloc(void* p, size_t n)
{
    note(__builtin_return_address(0));
    return __libc_realloc(p, n);
}

__attribute__((noinline)) void* operator new(size_t n)
{
    note(__builtin_return_address(0));
    if (void* p = __libc_malloc(n ? n : 1))
        return p;
    throw std::bad_alloc();
}

void operator delete(void* p) noexcept
{
    __libc_free(p);
}

void operator delete(void* p, size_t) noexcept
{
    __libc_free(p);
}

namespace {

// Counts library allocations while f runs.
template <typename F>
long libAllocsDuring(F f)
{
    gLibAllocs = 0;
    gCounting = true;
    f();
    gCounting = false;
    return gLibAllocs;
}

class ReaderAlloc : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::setlocale(LC_ALL, "");
        dl_iterate_phdr(findRanges, nullptr);
        ASSERT_NE(gRanges[Lib].lo, 0u) << "libtamclient not found";
        ASSERT_NE(gRanges[Runtime1].lo, 0u) << "libstdc++ not found";
        ASSERT_NE(gRanges[Runtime2].lo, 0u) << "libc not found";
        // backtrace loads its unwinder on first use
        void* f[2];
        backtrace(f, 2);
    }
};

} // namespace

#define SKIP_WITHOUT_COUNTER() (void)0

#else

namespace {
class ReaderAlloc : public ::testing::Test {};
template <typename F>
long libAllocsDuring(F f)
{
    f();
    return 0;
}
} // namespace

#define SKIP_WITHOUT_COUNTER() \
    GTEST_SKIP() << "AddressSanitizer owns malloc here; the counting allocator is left out"

#endif

TEST_F(ReaderAlloc, CounterSeesTheLibrarysOwnAllocations)
{
    SKIP_WITHOUT_COUNTER();
    rh::Session s;
    // Debugger strings are copied with strdup, lists grow, new format names
    // are interned, a long type is stored: all of these are the library's.
    EXPECT_GE(libAllocsDuring([&] {
                  s.feed("<breakpoints cl=\"1\"><breakpt fname=\"a\" cond=\"b\"/></breakpoints>");
              }),
              2);
    EXPECT_GE(libAllocsDuring([&] { s.reader.formatName("a-new-format-name"); }), 1);
    EXPECT_GE(libAllocsDuring([&] {
                  s.feed("<output cl=\"1\" type=\"a type that does not fit a short string\"/>");
              }),
              1)
        << "std::string's allocation inside libstdc++ is traced back to the library";
    // The text conversion's QtCore temporaries are not counted; with a
    // handler that allocates in the executable nothing is counted either.
    s.client(1).on_output = [](TAM_KernelImpl*, void*, const char*, const char*, const char* t) {
        std::string* copy = new std::string(t);
        delete copy;
    };
    for (int i = 0; i < 3; ++i)
        s.feed("<output cl=\"1\"><text>warm</text></output>");
    EXPECT_EQ(libAllocsDuring([&] { s.feed("<output cl=\"1\"><text>warm</text></output>"); }), 0);
}

TEST_F(ReaderAlloc, OutputMessagesAllocateNothingAfterWarmUp)
{
    SKIP_WITHOUT_COUNTER();
    static long delivered = 0;
    rh::Session s;
    s.client(1).on_output = [](TAM_KernelImpl*, void*, const char*, const char*, const char*) {
        ++delivered;
    };
    s.client(1).on_output_data = [](TAM_KernelImpl*, void*, const char*, const TAM_DataTAG*) {
        ++delivered;
    };
    const std::string msgs[] = {
        "<output cl=\"1\" cid=\"17\" type=\"a\"><text format=\"b\">Hello</text></output>",
        "<output cl=\"1\" cid=\"18\" type=\"a-type-name-longer-than-a-short-string\">"
        "<text format=\"a-format-name-longer-than-a-short-string\">Hello, world\n</text>"
        "</output>",
        "<output cl=\"1\" type=\"m\"><mcode format=\"abc\">eJxLTEoGAAJNASc=</mcode></output>",
        "<finished cl=\"1\" cid=\"17\"/>",
    };
    for (int i = 0; i < 3; ++i)
        for (const std::string& m : msgs)
            s.feed(m);
    delivered = 0;
    const long count = libAllocsDuring([&] {
        for (int i = 0; i < 100; ++i)
            for (const std::string& m : msgs)
                s.feed(m);
        // in pieces, the way the socket delivers them
        for (unsigned seed = 1; seed <= 20; ++seed)
            s.feed(msgs[0] + msgs[1], rh::Split::Random, seed);
    });
    EXPECT_EQ(count, 0);
    EXPECT_EQ(delivered, 300 + 40);
}
