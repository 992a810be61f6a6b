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

// Sees the capacity, where the buffer lives and every recorded status code.
struct ProbeHeap : TKheapStream {
    using TKheapStream::TKheapStream;
    using TKmemoryStream::status;
    std::vector<long> log;
    long status(long code) override { log.push_back(code); return TKheapStream::status(code); }
    unsigned long capacity() const { return size_; }
    bool isInline() const { return data_ >= reinterpret_cast<const unsigned char*>(this) && data_ < reinterpret_cast<const unsigned char*>(this + 1); }
    std::string text() { return std::string(reinterpret_cast<char*>(data()), length()); }
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
    return out.substr(0, count);
}

const long Ok = TKstream::Ok, Err = TKstream::Error, Oom = TKstream::OutOfMemory;

} // namespace

TEST(HeapStream, GrowsInWholeStepsAndRecordsEveryResult)
{
    ProbeHeap h;
    EXPECT_EQ(Ok, put(h, std::string(512, 'a')));
    EXPECT_TRUE(h.isInline());
    EXPECT_EQ(Ok, h.discard(2));
    EXPECT_EQ(Ok, put(h, "bcd"));  // grows with content and position kept
    EXPECT_FALSE(h.isInline());
    EXPECT_EQ(1024u, h.capacity());
    EXPECT_EQ(std::string(510, 'a') + "bcd", h.text());
    ProbeHeap once, odd(512, 100);
    put(once, std::string(1024, 'c'));
    EXPECT_EQ(1536u, once.capacity());  // strictly above the size asked for
    EXPECT_EQ(Ok, odd.set_size(1000));
    EXPECT_EQ(1012u, odd.capacity());  // 512 + 100 * (488 / 100 + 1)
    EXPECT_EQ(4096u, ProbeHeap(4096, 512).capacity());
    EXPECT_EQ(512u, ProbeHeap(100, 512).capacity());

    char buf[8];
    unsigned long n;
    h.log.clear();
    h.discard(600);
    h.read(buf, 8, n);
    h.write(std::string(600, 'z').data(), 600, n);  // set_size, then the write itself
    h.flush();
    h.write("x", ULONG_MAX, n);  // would wrap around: only the failure records
    EXPECT_EQ(0u, n);
    h.set_size(ULONG_MAX);
    EXPECT_STREQ("out of memory", h.status_text());
    EXPECT_EQ(1113u, h.length());
    h.clear();
    EXPECT_EQ((std::vector<long>{Err, Ok, Ok, Ok, Ok, Oom, Oom, Ok}), h.log);

    ProbeHeap big(LONG_MAX, 512);  // a failed first allocation leaves the inline buffer
    EXPECT_EQ(Oom, big.status());
    EXPECT_EQ(512u, big.capacity());
    EXPECT_EQ(Ok, put(big, "still works"));
}

TEST(MemoryStream, RewindTerminatesWithoutCountingTheTerminator)
{
    ProbeHeap h;
    put(h, "abc");
    EXPECT_EQ(Ok, h.rewind());
    EXPECT_STREQ("abc", reinterpret_cast<char*>(h.data()));
    EXPECT_EQ("abc", take(h, 10));  // back at the start; the zero is not content
    h.rewind();
    put(h, "x");
    h.rewind();
    EXPECT_STREQ("x", reinterpret_cast<char*>(h.data()));
    EXPECT_EQ(3u, h.length());  // high-water mark
    h.clear();
    EXPECT_TRUE(h.eom());
    put(h, std::string(512, 'q'));  // full: a heap stream grows for the zero
    EXPECT_EQ(Ok, h.rewind());
    EXPECT_EQ(1024u, h.capacity());
    EXPECT_EQ(512u, strlen(reinterpret_cast<char*>(h.data())));

    unsigned char mem[5] = {1, 2, 3, 4, 0x55};
    TKbufferStream b(mem, 4);  // a buffer stream cannot grow
    put(b, "wxyz");
    EXPECT_EQ(Oom, b.rewind());
    EXPECT_EQ(0x55, mem[4]);
    EXPECT_EQ(Ok, b.discard(4));  // the position had not moved
    EXPECT_EQ(Err, b.discard(1));
}

TEST(BufferStream, OverflowAndCopy)
{
    unsigned char mem[11] = {'h', 'e', 'l', 'l', 'o', '-', '-', '-', '-', '-', 0x77};
    TKbufferStream b(mem, 5);  // the whole buffer starts as content
    EXPECT_EQ("hel", take(b, 3));
    EXPECT_EQ("lo", take(b, 9));
    EXPECT_TRUE(b.eom());
    b.set_buffer(mem, 10);
    EXPECT_EQ(Ok, put(b, "0123456789"));
    EXPECT_EQ(Oom, put(b, "!"));
    EXPECT_EQ(0x77, mem[10]);
    EXPECT_EQ(Ok, b.set_size(10));
    EXPECT_EQ(Oom, b.set_size(11));
    b.set_buffer(mem, 3);
    EXPECT_EQ(Ok, b.status());
    EXPECT_EQ("012", take(b, 9));

    // The buffer stream's copy() takes one read and says if the source had more.
    unsigned char src[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
    TKbufferStream source(src, 8);
    b.set_buffer(mem, 5);
    put(b, "X");
    EXPECT_EQ(Oom, b.copy(&source));
    EXPECT_EQ(0, memcmp(mem, "Xabcd56789\x77", 11));
    b.set_buffer(mem, 5);
    EXPECT_EQ(Ok, b.copy(&source));
    EXPECT_EQ(Ok, b.status());
    EXPECT_EQ(0, memcmp(mem, "efghd", 5));

    // The default copy() moves everything left, 512 bytes at a time.
    std::vector<unsigned char> big(1300);
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<unsigned char>(i * 7);
    TKbufferStream from(big.data(), big.size());
    take(from, 100);
    ProbeHeap h;
    EXPECT_EQ(Ok, h.copy(&from));
    EXPECT_EQ(std::string(big.begin() + 100, big.end()), h.text());
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
    EXPECT_EQ("piped", take(reader, 100));  // a short read at the end is Ok
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
    EXPECT_EQ("lo world", take(s, 50));
    EXPECT_TRUE(s.eom());
    EXPECT_EQ(Ok, s.rewind());
    EXPECT_FALSE(s.eom());
    EXPECT_EQ(2, s.status(0x100000002L));  // the status is 32 bits wide
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
    TKbufferStream b(reinterpret_cast<unsigned char*>(&text[0]), text.size());
    for (const std::string& expected : {std::string("ab"), std::string(2000, 'L')}) {
        char* s = TKreadCString(&b);
        ASSERT_NE(nullptr, s);
        EXPECT_EQ(expected, s);
        free(s);
    }
    EXPECT_EQ(nullptr, TKreadCString(&b));  // "tail" ends unterminated
    EXPECT_TRUE(b.eom());
}

TEST(StreamDeathTest, PreconditionsNameTheSourceFile)
{
    EXPECT_DEATH({ TKheapStream h; unsigned long n; h.write(nullptr, 1, n); },
                 "TKT_stream.*`\\(data != 0\\) \\|\\| \\(num_bytes == 0\\)'");
}
