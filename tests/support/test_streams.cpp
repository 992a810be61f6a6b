#include "support/TKT_stream.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

// Let a failed huge malloc return null under AddressSanitizer too.
extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}

namespace {

const long Ok = TKstream::Ok, Err = TKstream::Error, Oom = TKstream::OutOfMemory;

// Sees where the buffer lives, its capacity and every recorded status code.
template <class Stream>
struct Probe : Stream {
    using Stream::Stream;
    using TKmemoryStream::data_;
    using TKmemoryStream::size_;
    using TKmemoryStream::status;
    std::vector<long> log;
    long status(long code) override
    {
        log.push_back(code);
        return Stream::status(code);
    }
    std::string where() const
    {
        auto* self = reinterpret_cast<const unsigned char*>(this);
        return (data_ >= self && data_ < self + sizeof *this ? "inline " : "heap ") +
               std::to_string(size_);
    }
    std::string text()
    {
        return std::string(reinterpret_cast<char*>(this->data()), this->length());
    }
    const char* cstr() { return reinterpret_cast<char*>(this->data()); }
};
using ProbeHeap = Probe<TKheapStream>;

unsigned char* bytes(std::string& s)
{
    return reinterpret_cast<unsigned char*>(&s[0]);
}

long put(TKstream& s, const std::string& text)
{
    unsigned long count = 99;
    long rc = s.write(text.data(), text.size(), count);
    EXPECT_EQ(rc == Ok ? text.size() : 0u, count);
    return rc;
}

std::string take(TKstream& s, unsigned long n)
{
    std::string out(n, '\0');
    unsigned long count = 0;
    EXPECT_EQ(Ok, s.read(&out[0], n, count));
    return out.substr(0, count);
}

} // namespace

TEST(HeapStream, GrowsInWholeStepsAndRecordsEveryResult)
{
    ProbeHeap h, once, odd(512, 100), big(LONG_MAX, 512);
    EXPECT_EQ(Ok, put(h, std::string(512, 'a')));
    EXPECT_EQ("inline 512", h.where());
    EXPECT_EQ(Ok, h.discard(2));
    EXPECT_EQ(Ok, put(h, "bcd")); // grows with content and position kept
    EXPECT_EQ("heap 1024", h.where());
    EXPECT_EQ(std::string(510, 'a') + "bcd", h.text());
    put(once, std::string(1024, 'c'));
    EXPECT_EQ("heap 1536", once.where()); // strictly above the size asked for
    EXPECT_EQ(Ok, odd.set_size(1000));
    EXPECT_EQ("heap 1012", odd.where()); // 512 + 100 * (488 / 100 + 1)
    EXPECT_EQ("heap 4096", ProbeHeap(4096, 512).where());
    EXPECT_EQ("inline 512", ProbeHeap(100, 512).where());
    EXPECT_EQ(Oom, big.status()); // a failed first allocation leaves the inline buffer
    EXPECT_EQ("inline 512", big.where());

    char buf[8];
    unsigned long n;
    h.log.clear();
    h.discard(600);
    h.read(buf, 8, n);
    h.write(std::string(600, 'z').data(), 600, n); // set_size, then the write itself
    h.flush();
    h.write("x", ULONG_MAX, n); // would wrap around: only the failure records
    EXPECT_EQ(0u, n);
    h.set_size(ULONG_MAX);
    EXPECT_STREQ("out of memory", h.status_text());
    EXPECT_EQ(1113u, h.length());
    h.clear();
    EXPECT_EQ((std::vector<long>{Err, Ok, Ok, Ok, Ok, Oom, Oom, Ok}), h.log);
}

TEST(GrowingStream, AtLeastDoublesAndKeepsContentAndPosition)
{
    Probe<TKgrowingStream> g;
    EXPECT_EQ(Ok, put(g, std::string(512, 'a')));
    EXPECT_EQ("inline 512", g.where());
    EXPECT_EQ(Ok, g.discard(2));
    EXPECT_EQ(Ok, put(g, "bcd"));
    EXPECT_EQ("heap 1024", g.where());
    EXPECT_EQ(Ok, put(g, std::string(3000, 'e'))); // more than double: straight to the size
    EXPECT_EQ("heap 3513", g.where());
    EXPECT_EQ(Ok, put(g, "f"));
    EXPECT_EQ("heap 7026", g.where());
    // append() is write() without a count: inline with room, growing without.
    g.log.clear();
    EXPECT_EQ(Ok, g.append("gh", 2));
    EXPECT_EQ(Ok, g.append(std::string(4000, 'i').data(), 4000));
    EXPECT_EQ("heap 14052", g.where());
    EXPECT_EQ((std::vector<long>{Ok, Ok, Ok}), g.log); // the growth records too
    std::string expected = std::string(510, 'a') + "bcd" + std::string(3000, 'e') + "f" + "gh" +
                           std::string(4000, 'i');
    EXPECT_EQ(expected, g.text());

    // A megabyte written in small pieces moves the buffer a few times only.
    std::vector<unsigned long> capacities;
    const std::string piece = "0123456789abcdefghijklmnopqrstuvwxyz";
    for (int i = 0; i < 30000; ++i) {
        put(g, piece);
        if (capacities.empty() || capacities.back() != g.size_)
            capacities.push_back(g.size_);
        expected += piece;
    }
    EXPECT_LE(capacities.size(), 9u);
    EXPECT_EQ(expected, g.text());
    EXPECT_EQ(Ok, g.rewind());
    EXPECT_EQ(expected, g.cstr());

    // A growth that cannot be had leaves everything as it was.
    g.log.clear();
    const unsigned char* before = g.data_;
    EXPECT_EQ(Oom, g.set_size(ULONG_MAX));
    EXPECT_EQ(before, g.data_);
    EXPECT_EQ(expected, g.text());
    EXPECT_EQ((std::vector<long>{Oom}), g.log);
}

TEST(MemoryStream, RewindTerminatesWithoutCountingTheTerminator)
{
    ProbeHeap h;
    put(h, "abc");
    EXPECT_EQ(Ok, h.rewind());
    EXPECT_STREQ("abc", h.cstr());
    EXPECT_EQ("abc", take(h, 10)); // back at the start; the zero is not content
    h.rewind();
    put(h, "x");
    h.rewind();
    EXPECT_STREQ("x", h.cstr());
    EXPECT_EQ(3u, h.length()); // high-water mark
    h.clear();
    EXPECT_TRUE(h.eom());
    put(h, std::string(512, 'q')); // full: a heap stream grows for the zero
    EXPECT_EQ(Ok, h.rewind());
    EXPECT_EQ("heap 1024", h.where());
    EXPECT_EQ(std::string(512, 'q'), h.cstr());

    std::string mem = "1234\x55";
    TKbufferStream b(bytes(mem), 4); // a buffer stream cannot grow
    put(b, "wxyz");
    EXPECT_EQ(Oom, b.rewind());
    EXPECT_EQ("wxyz\x55", mem);
    EXPECT_EQ(Ok, b.discard(4)); // the position had not moved
    EXPECT_EQ(Err, b.discard(1));
}

TEST(BufferStream, OverflowAndCopy)
{
    std::string mem = "hello-----\x77", src = "abcdefgh";
    TKbufferStream b(bytes(mem), 5), source(bytes(src), 8); // the whole buffer starts as content
    EXPECT_EQ("hello", take(b, 9));
    EXPECT_TRUE(b.eom());
    b.set_buffer(bytes(mem), 10);
    EXPECT_EQ(Ok, put(b, "0123456789"));
    EXPECT_EQ(Oom, put(b, "!"));
    EXPECT_EQ("0123456789\x77", mem);
    EXPECT_EQ(Ok, b.set_size(10));
    EXPECT_EQ(Oom, b.set_size(11));
    b.set_buffer(bytes(mem), 3);
    EXPECT_EQ(Ok, b.status());
    EXPECT_EQ("012", take(b, 9));

    // Its copy() takes one read and says if the source had more.
    b.set_buffer(bytes(mem), 5);
    put(b, "X");
    EXPECT_EQ(Oom, b.copy(&source));
    EXPECT_EQ("Xabcd56789\x77", mem);
    b.set_buffer(bytes(mem), 5);
    EXPECT_EQ(Ok, b.copy(&source));
    EXPECT_EQ(Ok, b.status());
    EXPECT_EQ("efghd56789\x77", mem);

    // The default copy() moves everything left, 512 bytes at a time.
    std::string large(1300, '\0');
    for (size_t i = 0; i < large.size(); ++i)
        large[i] = static_cast<char>(i * 7);
    TKbufferStream from(bytes(large), large.size());
    take(from, 100);
    ProbeHeap h;
    EXPECT_EQ(Ok, h.copy(&from));
    EXPECT_EQ(large.substr(100), h.text());
}

TEST(FileStream, OverAPipe)
{
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    FILE* in = fdopen(fds[0], "r");
    FILE* out = fdopen(fds[1], "w");
    TKfileStream reader(in), writer(out);
    EXPECT_EQ(ESPIPE, reader.status());
    EXPECT_EQ(strerror(ESPIPE), std::string(reader.status_text()));
    EXPECT_EQ(Err, reader.rewind());
    EXPECT_STREQ("error", reader.status_text());
    EXPECT_EQ(Ok, put(writer, "piped"));
    EXPECT_EQ(Ok, writer.flush());
    fclose(out);
    EXPECT_EQ("piped", take(reader, 100)); // a short read at the end is Ok
    EXPECT_TRUE(reader.eom());
    fclose(in);
}

TEST(FileStream, RewindGoesToTheStartingPositionAndFailuresGiveErrno)
{
    FILE* f = tmpfile();
    ASSERT_NE(nullptr, f);
    fputs("pre:", f);
    TKfileStream s(f);
    put(s, "hello world");
    EXPECT_EQ(Ok, s.rewind());
    EXPECT_EQ("hello", take(s, 5));
    EXPECT_EQ(Ok, s.discard(2));
    // Steps back too large for fseek fail and leave the position alone.
    for (unsigned long n : {ULONG_MAX, 1UL << 63})
        EXPECT_EQ(EINVAL, s.discard(n)) << n;
    EXPECT_EQ("lo world", take(s, 50));
    EXPECT_TRUE(s.eom());
    EXPECT_EQ(Ok, s.rewind());
    EXPECT_FALSE(s.eom());
    EXPECT_EQ(2, s.status(0x100000002L)); // the status is 32 bits wide
    EXPECT_EQ(std::string(strerror(2)), s.status_text());
    s.status(Ok);
    EXPECT_STREQ("ok", s.status_text());
    fclose(f);

    FILE* wo = fopen("/dev/null", "w");
    FILE* ro = fopen("/dev/null", "r");
    ASSERT_TRUE(wo && ro);
    TKfileStream w(wo), r(ro);
    char buf[4];
    unsigned long count = 9;
    EXPECT_EQ(EBADF, w.read(buf, 4, count));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(EBADF, put(r, "x"));
    EXPECT_EQ(EBADF, r.status());
    fclose(wo);
    fclose(ro);
}

TEST(ReadCString, StopsAtTheTerminator)
{
    std::string text = "ab" + std::string(1, '\0') + std::string(2000, 'L') + '\0' + "tail";
    TKbufferStream b(bytes(text), text.size());
    for (const std::string& expected : {std::string("ab"), std::string(2000, 'L')}) {
        char* s = TKreadCString(&b);
        ASSERT_NE(nullptr, s);
        EXPECT_EQ(expected, s);
        free(s);
    }
    EXPECT_EQ(nullptr, TKreadCString(&b)); // "tail" ends unterminated
    EXPECT_TRUE(b.eom());
}

TEST(StreamDeathTest, PreconditionsNameTheSourceFile)
{
    EXPECT_DEATH(
        {
            TKheapStream h;
            unsigned long n;
            h.write(nullptr, 1, n);
        },
        "TKT_stream.*`\\(data != 0\\) \\|\\| \\(num_bytes == 0\\)'");
}
