// Steady-state allocations of the reader.
//
// This executable interposes malloc, calloc, realloc and operator new. While
// counting, each call is attributed with backtrace() to its caller, or, for
// a call from libc or libstdc++ (strdup, std::string), to the first frame
// above them: it counts if that is in libtamclient's code, not if it is in
// QtCore (the text conversion's temporaries), expat, zlib or the test. Code
// ranges come from dl_iterate_phdr. AddressSanitizer owns malloc, so a
// sanitizer build leaves the interposer out and skips the cases.
#include <gtest/gtest.h>

#include <clocale>

#include "ReaderHarness.h"

#ifndef __SANITIZE_ADDRESS__

#include <execinfo.h>
#include <link.h>

extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_calloc(size_t, size_t);
extern "C" void* __libc_realloc(void*, size_t);
extern "C" void __libc_free(void*);

namespace {

struct Range {
    uintptr_t lo = 0, hi = 0;
    bool has(uintptr_t a) const { return a >= lo && a < hi; }
} gLib, gRuntime[2];
bool gCounting = false, gInHook = false;
long gLibAllocs = 0;

int findRanges(dl_phdr_info* info, size_t, void*)
{
    const char* n = info->dlpi_name;
    Range* r = std::strstr(n, "libtamclient") ? &gLib
             : std::strstr(n, "libstdc++")    ? &gRuntime[0]
             : std::strstr(n, "libc.so")      ? &gRuntime[1]
                                              : nullptr;
    for (int i = 0; r && i < info->dlpi_phnum; ++i) {
        const auto& ph = info->dlpi_phdr[i];
        if (ph.p_type == PT_LOAD && (ph.p_flags & PF_X))
            *r = {info->dlpi_addr + ph.p_vaddr, info->dlpi_addr + ph.p_vaddr + ph.p_memsz};
    }
    return 0;
}

bool inRuntime(uintptr_t a) { return gRuntime[0].has(a) || gRuntime[1].has(a); }

// ra: the caller of malloc or new. The first frame from there on that is
// not in the C or C++ runtime decides.
void note(void* ra)
{
    if (!gCounting || gInHook)
        return;
    gInHook = true;
    void* frames[16];
    const int n = backtrace(frames, 16);
    int i = 0;
    while (i < n && frames[i] != ra)
        ++i;
    while (i < n && inRuntime(reinterpret_cast<uintptr_t>(frames[i])))
        ++i;
    gLibAllocs += i < n && gLib.has(reinterpret_cast<uintptr_t>(frames[i]));
    gInHook = false;
}

} // namespace

// noinline: the return address must be the real caller's.
#define NOTE note(__builtin_return_address(0))
extern "C" __attribute__((noinline)) void* malloc(size_t n) { return NOTE, __libc_malloc(n); }
extern "C" __attribute__((noinline)) void* calloc(size_t n, size_t m) { return NOTE, __libc_calloc(n, m); }
extern "C" __attribute__((noinline)) void* realloc(void* p, size_t n) { return NOTE, __libc_realloc(p, n); }
__attribute__((noinline)) void* operator new(size_t n)
{
    NOTE;
    if (void* p = __libc_malloc(n ? n : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { __libc_free(p); }
void operator delete(void* p, size_t) noexcept { __libc_free(p); }

namespace {

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
        ASSERT_TRUE(gLib.lo && gRuntime[0].lo && gRuntime[1].lo) << "code ranges not found";
        void* f[2];
        backtrace(f, 2);  // loads its unwinder on first use
    }
};

// The counter is not blind: strdup'd debugger strings, list growth and a
// type too long for std::string's inline buffer are the library's.
TEST_F(ReaderAlloc, CounterSeesTheLibrarysOwnAllocations)
{
    rh::Session s;
    EXPECT_GE(libAllocsDuring([&] { s.feed("<breakpoints cl=\"1\"><breakpt fname=\"a\" cond=\"b\"/></breakpoints>"); }),
              2);
    EXPECT_GE(libAllocsDuring([&] { s.feed("<output cl=\"1\" type=\"a type longer than a short string\"/>"); }), 1);
}

TEST_F(ReaderAlloc, MessagesAllocateNothingAfterWarmUp)
{
    static long delivered = 0;
    rh::Session s;
    s.clients[1].on_output = [](rh::K*, void*, const char*, const char*, const char*) { ++delivered; };
    s.clients[1].on_output_data = [](rh::K*, void*, const char*, const TAM_DataTAG*) { ++delivered; };
    s.clients[1].on_select_format = [](rh::K*, const char*, long, const char**) { ++delivered; };
    const std::string msgs[] = {
        "<output cl=\"1\" cid=\"17\" type=\"a\"><text format=\"b\">Hello</text></output>",
        "<output cl=\"1\" type=\"a-type-name-longer-than-a-short-string\"><text "
        "format=\"a-format-name-longer-than-a-short-string\">Hello, world\n</text></output>",
        "<output cl=\"1\" type=\"m\"><mcode format=\"abc\">eJxLTEoGAAJNASc=</mcode></output>",
        "<selformat cl=\"1\"><fmt name=\"a\"/><fmt name=\"b\"/></selformat><finished cl=\"1\"/>",
    };
    for (int i = 0; i < 3; ++i)
        for (const std::string& m : msgs)
            s.feed(m);
    delivered = 0;
    EXPECT_EQ(libAllocsDuring([&] {
                  for (int i = 0; i < 100; ++i)
                      for (const std::string& m : msgs)
                          s.feed(m);
                  for (unsigned seed = 1; seed <= 20; ++seed)  // in pieces, as the socket gives them
                      s.feed(msgs[0] + msgs[1], rh::Split::Random, seed);
              }),
              0);
    EXPECT_EQ(delivered, 400 + 40);
}

} // namespace

#else

TEST(ReaderAlloc, NeedsItsOwnAllocator) { GTEST_SKIP() << "AddressSanitizer owns malloc here"; }

#endif
