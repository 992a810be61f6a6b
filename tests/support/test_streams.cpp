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
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

namespace {

// Sees the capacity and every recorded status code.
struct ProbeHeap : TKheapStream {
    using TKheapStream::TKheapStream;
    using TKmemoryStream::status;
    std::vector<long> log;
    long status(long code) override { log.push_back(code); return TKheapStream::status(code); }
    unsigned long capacity() const { return size_; }
    bool isInline() const { return data_ >= reinterpret_cast<const unsigned char*>(this)
                                && data_ < reinterpret_cast<const unsigned char*>(this + 1); }
};

long put(TKstream& s, const std::string& text)
{
    unsigned long count = 99;
    long rc = s.write(text.data(), text.size(), count);
    EXPECT_EQ(rc == TKstream::Ok ? text.size() : 0u, count);
    return rc;
}

std::string take(TKstream& s, unsigned long n)
{
    std::string out(n, '\0');
    unsigned long count = 0;
    EXPECT_EQ(TKstream::Ok, s.read(&out[0], n, count));
    out.resize(count);
    return out;
}

} // namespace

TEST(HeapStream, GrowsInWholeStepsPastTheInlineBuffer)
{
    ProbeHeap h;
    EXPECT_EQ(TKstream::Ok, put(h, std::string(512, 'a')));
    EXPECT_EQ(512u, h.capacity());
    EXPECT_TRUE(h.isInline());
    EXPECT_EQ(TKstream::Ok, put(h, "b"));
    EXPECT_EQ(1024u, h.capacity());
    EXPECT_FALSE(h.isInline());
    EXPECT_EQ(std::string(512, 'a') + "b", std::string(reinterpret_cast<char*>(h.data()), h.length()));

    ProbeHeap once;
    EXPECT_EQ(TKstream::Ok, put(once, std::string(1024, 'c')));
    EXPECT_EQ(1536u, once.capacity());

    ProbeHeap odd(512, 100);  // 512 + 100 * (488 / 100 + 1)
    EXPECT_EQ(TKstream::Ok, odd.set_size(1000));
    EXPECT_EQ(1012u, odd.capacity());

    EXPECT_EQ(4096u, ProbeHeap(4096, 512).capacity());
    EXPECT_EQ(512u, ProbeHeap(100, 512).capacity());
}

TEST(HeapStream, GrowthKeepsContentAndPosition)
{
    ProbeHeap h;
    put(h, std::string(500, 'x') + "0123456789");
    EXPECT_EQ(TKstream::Ok, h.discard(10));
    put(h, std::string(600, 'y'));  // overwrites the digits, then grows
    EXPECT_EQ(1536u, h.capacity());
    EXPECT_EQ(1100u, h.length());
    EXPECT_EQ(TKstream::Ok, h.discard(601));
    EXPECT_EQ("xy", take(h, 2));
}

TEST(HeapStream, EveryOperationRecordsItsResult)
{
    ProbeHeap h;
    char buf[8];
    unsigned long n;
    h.write("abc", 3, n);
    h.discard(9);
    h.read(buf, 8, n);
    h.write(std::string(600, 'z').data(), 600, n);  // set_size, then the write itself
    h.flush();
    h.rewind();
    h.clear();
    h.write("x", ULONG_MAX, n);  // only the failed growth records
    const long Ok = TKstream::Ok, Err = TKstream::Error, Oom = TKstream::OutOfMemory;
    EXPECT_EQ((std::vector<long>{Ok, Err, Ok, Ok, Ok, Ok, Ok, Ok, Oom}), h.log);
}

TEST(HeapStream, ImpossibleSizesReportOutOfMemoryAndChangeNothing)
{
    ProbeHeap h;
    put(h, "keep");
    unsigned long count = 7;
    EXPECT_EQ(TKstream::OutOfMemory, h.write("x", ULONG_MAX, count));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(TKstream::OutOfMemory, h.set_size(ULONG_MAX));
    EXPECT_EQ(TKstream::OutOfMemory, h.status());
    EXPECT_STREQ("out of memory", h.status_text());
    EXPECT_EQ(512u, h.capacity());
    EXPECT_EQ(4u, h.length());

    // A failed first allocation leaves a working stream over the inline buffer.
    ProbeHeap big(LONG_MAX, 512);
    EXPECT_EQ(TKstream::OutOfMemory, big.status());
    EXPECT_EQ(512u, big.capacity());
    EXPECT_EQ(TKstream::Ok, put(big, "still works"));
}

TEST(MemoryStream, RewindTerminatesWithoutCountingTheTerminator)
{
    TKheapStream h;
    put(h, "abc");
    EXPECT_EQ(TKstream::Ok, h.rewind());
    EXPECT_STREQ("abc", reinterpret_cast<char*>(h.data()));
    EXPECT_EQ(3u, h.length());
    EXPECT_EQ("abc", take(h, 10));  // position was back at the start
    h.rewind();
    put(h, "x");
    h.rewind();
    EXPECT_STREQ("x", reinterpret_cast<char*>(h.data()));
    EXPECT_EQ(3u, h.length());  // high-water mark

    // clear() then rewind() is how a reused stream reads as "".
    h.clear();
    EXPECT_EQ(0u, h.length());
    EXPECT_TRUE(h.eom());
    h.rewind();
    EXPECT_STREQ("", reinterpret_cast<char*>(h.data()));
}

TEST(MemoryStream, RewindAtFullCapacity)
{
    ProbeHeap h;
    put(h, std::string(512, 'q'));
    EXPECT_EQ(TKstream::Ok, h.rewind());
    EXPECT_EQ(1024u, h.capacity());
    EXPECT_EQ(512u, strlen(reinterpret_cast<char*>(h.data())));

    unsigned char mem[5] = {1, 2, 3, 4, 0x55};
    TKbufferStream b(mem, 4);
    put(b, "wxyz");
    EXPECT_EQ(TKstream::OutOfMemory, b.rewind());
    EXPECT_EQ(0x55, mem[4]);
    EXPECT_EQ(TKstream::Ok, b.discard(4));  // the position had not moved
    EXPECT_EQ(TKstream::Error, b.discard(1));
}

TEST(MemoryStream, ReadingDiscardingAndEnd)
{
    unsigned char mem[5] = {'h', 'e', 'l', 'l', 'o'};
    TKbufferStream b(mem, 5);
    EXPECT_EQ(5u, b.length());
    EXPECT_EQ("hel", take(b, 3));
    EXPECT_EQ(TKstream::Error, b.discard(4));
    EXPECT_EQ("lo", take(b, 9));
    EXPECT_TRUE(b.eom());
    EXPECT_EQ("", take(b, 9));
    EXPECT_EQ(TKstream::Ok, b.discard(5));
    EXPECT_EQ("hello", take(b, 5));
}

TEST(BufferStream, FixedCapacity)
{
    unsigned char mem[11] = {};
    mem[10] = 0x77;
    TKbufferStream b(mem, 10);
    EXPECT_EQ(TKstream::Ok, put(b, "0123456789"));
    EXPECT_EQ(TKstream::OutOfMemory, put(b, "!"));
    EXPECT_STREQ("out of memory", b.status_text());
    EXPECT_EQ(0x77, mem[10]);
    EXPECT_EQ(TKstream::Ok, b.set_size(10));
    EXPECT_EQ(TKstream::OutOfMemory, b.set_size(11));

    unsigned char other[3] = {'n', 'e', 'w'};
    b.set_buffer(other, 3);
    EXPECT_EQ(TKstream::Ok, b.status());
    EXPECT_EQ("new", take(b, 9));
}

TEST(BufferStream, CopyTakesWhatFits)
{
    unsigned char src[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
    TKbufferStream source(src, 8);
    unsigned char mem[6] = {'-', '-', '-', '-', '-', 0x33};
    TKbufferStream b(mem, 5);
    put(b, "X");
    EXPECT_EQ(TKstream::OutOfMemory, b.copy(&source));
    EXPECT_EQ(0, memcmp(mem, "Xabcd\x33", 6));
    EXPECT_EQ("efgh", take(source, 9));

    // A full buffer stream has no room for rewind's terminator.
    EXPECT_EQ(TKstream::OutOfMemory, source.rewind());
    EXPECT_EQ(TKstream::Ok, source.discard(4));
    b.set_buffer(mem, 5);
    EXPECT_EQ(TKstream::Ok, b.copy(&source));
    EXPECT_EQ(TKstream::Ok, b.status());
    EXPECT_EQ(0, memcmp(mem, "efghd", 5));
}

TEST(Stream, DefaultCopyMovesEverythingLeft)
{
    std::vector<unsigned char> src(1300);
    for (size_t i = 0; i < src.size(); ++i)
        src[i] = static_cast<unsigned char>(i * 7);
    TKbufferStream source(src.data(), src.size());
    take(source, 100);
    TKheapStream h;
    EXPECT_EQ(TKstream::Ok, h.copy(&source));
    ASSERT_EQ(1200u, h.length());
    EXPECT_EQ(0, memcmp(h.data(), src.data() + 100, 1200));

    FILE* f = tmpfile();
    ASSERT_NE(nullptr, f);
    fwrite(src.data(), 1, src.size(), f);
    fseek(f, 0, SEEK_SET);
    TKfileStream file(f);
    TKheapStream h2;
    EXPECT_EQ(TKstream::Ok, h2.copy(&file));
    ASSERT_EQ(1300u, h2.length());
    EXPECT_EQ(0, memcmp(h2.data(), src.data(), 1300));
    fclose(f);
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
    EXPECT_EQ(TKstream::Error, reader.rewind());
    EXPECT_STREQ("error", reader.status_text());

    EXPECT_EQ(TKstream::Ok, put(writer, "piped"));
    EXPECT_EQ(TKstream::Ok, writer.flush());
    fclose(out);
    EXPECT_EQ("piped", take(reader, 100));  // short read at the end is Ok
    EXPECT_TRUE(reader.eom());
    fclose(in);
}

TEST(FileStream, OverATempFile)
{
    FILE* f = tmpfile();
    ASSERT_NE(nullptr, f);
    fputs("pre:", f);
    TKfileStream s(f);
    EXPECT_EQ(TKstream::Ok, s.status());
    put(s, "hello world");
    EXPECT_EQ(TKstream::Ok, s.rewind());  // back to where the stream started
    EXPECT_EQ("hello", take(s, 5));
    EXPECT_EQ(TKstream::Ok, s.discard(2));
    EXPECT_EQ("lo world", take(s, 50));
    EXPECT_TRUE(s.eom());
    EXPECT_EQ(TKstream::Ok, s.rewind());
    EXPECT_FALSE(s.eom());
    fclose(f);
}

TEST(FileStream, LibraryFailuresRecordErrno)
{
    FILE* wo = fopen("/dev/null", "w");
    ASSERT_NE(nullptr, wo);
    TKfileStream s(wo);
    char buf[4];
    unsigned long count = 9;
    EXPECT_EQ(EBADF, s.read(buf, 4, count));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(EBADF, s.status());
    fclose(wo);

    FILE* ro = fopen("/dev/null", "r");
    ASSERT_NE(nullptr, ro);
    TKfileStream r(ro);
    EXPECT_EQ(EBADF, put(r, "x"));
    fclose(ro);
}

TEST(FileStream, StatusIs32BitAndWordedBySystem)
{
    FILE* f = tmpfile();
    ASSERT_NE(nullptr, f);
    TKfileStream s(f);
    EXPECT_EQ(2, s.status(2));
    EXPECT_EQ(std::string(strerror(2)), s.status_text());
    EXPECT_EQ(TKstream::Error, s.status(-1));
    EXPECT_STREQ("error", s.status_text());
    s.status(TKstream::OutOfMemory);
    EXPECT_STREQ("out of memory", s.status_text());
    s.status(TKstream::Ok);
    EXPECT_STREQ("ok", s.status_text());
    EXPECT_EQ(2, s.status(0x100000002L));
    EXPECT_EQ(-1, s.status(0xFFFFFFFFL));
    EXPECT_EQ(-1, s.status());
    fclose(f);
}

TEST(ReadCString, StopsAtTheTerminator)
{
    unsigned char mem[] = {'a', 'b', 0, 'c', 'd'};
    TKbufferStream b(mem, sizeof mem);
    char* s = TKreadCString(&b);
    ASSERT_NE(nullptr, s);
    EXPECT_STREQ("ab", s);
    free(s);
    EXPECT_EQ("cd", take(b, 9));

    TKbufferStream unterminated(mem, 2);
    EXPECT_EQ(nullptr, TKreadCString(&unterminated));
    EXPECT_TRUE(unterminated.eom());

    // Longer than the inline buffer of the collecting stream.
    std::string longText(2000, 'L');
    TKheapStream h;
    unsigned long n;
    h.write(longText.c_str(), longText.size() + 1, n);
    h.write("tail", 4, n);
    h.rewind();
    char* l = TKreadCString(&h);
    ASSERT_NE(nullptr, l);
    EXPECT_EQ(longText, l);
    free(l);
    EXPECT_EQ("tail", take(h, 9));
}

TEST(StreamDeathTest, PreconditionsNameTheSourceFile)
{
    EXPECT_DEATH(TKheapStream(512, 0), "TKT_stream.*Assertion `incr != 0' failed");
    EXPECT_DEATH(TKbufferStream(nullptr, 3), "TKT_stream.*`buff != 0 \\|\\| len == 0'");
    EXPECT_DEATH({ TKheapStream h; unsigned long n; h.write(nullptr, 1, n); },
                 "TKT_stream.*`\\(data != 0\\) \\|\\| \\(num_bytes == 0\\)'");
    EXPECT_DEATH({ TKheapStream h; h.copy(nullptr); }, "TKT_stream.*`source != 0'");
    EXPECT_DEATH(TKfileStream(nullptr), "TKT_stream.*`file != 0'");
}
