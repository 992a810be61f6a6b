#include "support/TKbase64.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

// Counts global allocations, to show that the codecs make none.
static long gNews = 0;
void* operator new(std::size_t n)
{
    ++gNews;
    if (void* p = std::malloc(n ? n : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

using Bytes = std::basic_string<unsigned char>;

Bytes B(const std::string& s) { return Bytes(s.begin(), s.end()); }

const char* const kVectors[][2] = {{"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},
                                   {"foo", "Zm9v"},  {"foob", "Zm9vYg=="},  {"fooba", "Zm9vYmE="},
                                   {"foobar", "Zm9vYmFy"}};

std::string oneShot(const std::string& in)
{
    std::string out(TK_base64_encoded_length(in.size()), '?');
    long n = TK_base64_encode(reinterpret_cast<unsigned char*>(&out[0]), out.size(),
                              reinterpret_cast<const unsigned char*>(in.data()), in.size());
    EXPECT_GE(n, 0);
    out.resize(n < 0 ? 0 : n);
    return out;
}

// Drains the codec with reads of at most room bytes.
template <class Codec>
Bytes drain(Codec& c, long room)
{
    Bytes out;
    unsigned char buf[64];
    while (long n = c.read(buf, room))
        out.append(buf, n);
    return out;
}

// Feeds in as pieces cut at the given points, then ends the message.
template <class Codec>
Bytes run(Codec& c, const Bytes& in, const std::vector<size_t>& cuts = {}, long room = 64)
{
    Bytes out;
    size_t from = 0;
    for (size_t i = 0; i <= cuts.size(); ++i) {
        size_t to = i < cuts.size() ? cuts[i] : in.size();
        c.write(in.data() + from, to - from);
        out += drain(c, room);
        from = to;
    }
    c.messageEnd();
    return out + drain(c, room);
}

std::string S(const Bytes& b) { return std::string(b.begin(), b.end()); }

} // namespace

TEST(Base64OneShot, LengthBoundAndVectors)
{
    EXPECT_EQ(4, TK_base64_encoded_length(0));
    EXPECT_EQ(5, TK_base64_encoded_length(1));
    EXPECT_EQ(6, TK_base64_encoded_length(2));
    EXPECT_EQ(8, TK_base64_encoded_length(3));
    EXPECT_EQ(9, TK_base64_encoded_length(4));
    for (long n = 0; n < 200; ++n)
        EXPECT_GT(TK_base64_encoded_length(n), 4 * ((n + 2) / 3)) << n;
    for (auto& v : kVectors)
        EXPECT_EQ(v[1], oneShot(v[0]));
}

TEST(Base64OneShot, BufferRules)
{
    unsigned char dst[16] = {};
    const unsigned char src[] = "abcdef";
    EXPECT_EQ(0, TK_base64_encode(nullptr, 0, nullptr, 0));
    EXPECT_EQ(0, TK_base64_encode(nullptr, 0, nullptr, -3));
    EXPECT_EQ(-1, TK_base64_encode(nullptr, 16, src, 3));
    EXPECT_EQ(-1, TK_base64_encode(dst, 16, nullptr, 3));
    EXPECT_EQ(-1, TK_base64_encode(dst, 7, src, 6));
    EXPECT_EQ("YWJj", std::string(dst, dst + 4));  // the group that fitted stays
    EXPECT_EQ(0, dst[4]);
    EXPECT_EQ(8, TK_base64_encode(dst, 8, src, 6));
    EXPECT_EQ(-1, TK_base64_encode(dst, 7, src, 4));  // no room for the padded tail
    EXPECT_EQ(8, TK_base64_encode(dst, 8, src, 4));
    EXPECT_EQ("YWJjZA==", std::string(dst, dst + 8));
}

TEST(Base64Stream, VectorsBothWays)
{
    for (auto& v : kVectors) {
        TKbase64Encoder enc;
        EXPECT_EQ(v[1], S(run(enc, B(v[0]))));
        TKbase64Decoder dec;
        EXPECT_EQ(v[0], S(run(dec, B(v[1]))));
        EXPECT_EQ(v[0], S(run(dec, B(v[1]), {}, 1)));  // reusable, one byte per read
    }
}

TEST(Base64Stream, EncoderPiecesAndSmallReads)
{
    TKbase64Encoder enc;
    EXPECT_EQ("Zm9v", S(run(enc, B("foo"), {2})));

    unsigned char buf[4];
    const unsigned char in[] = "foo";
    enc.write(in, 3);
    EXPECT_EQ(2, enc.read(buf, 2));
    EXPECT_EQ("Zm", std::string(buf, buf + 2));
    EXPECT_EQ(0, enc.read(buf, 0));
    EXPECT_EQ(2, enc.read(buf, 4));
    EXPECT_EQ("9v", std::string(buf, buf + 2));
    enc.messageEnd();
    EXPECT_EQ(0, enc.read(buf, 4));

    // No padding before messageEnd: a partial group waits.
    enc.write(in, 2);
    EXPECT_EQ(0, enc.read(buf, 4));
    enc.messageEnd();
    EXPECT_EQ(4, enc.read(buf, 4));
    EXPECT_EQ("Zm8=", std::string(buf, buf + 4));
}

TEST(Base64Stream, EverySplitPointMatchesOneShot)
{
    std::mt19937 rng(7);
    Bytes data;
    for (int i = 0; i < 64; ++i)
        data += static_cast<unsigned char>(rng());
    std::string expected = oneShot(S(data));
    for (size_t a = 0; a <= data.size(); ++a)
        for (size_t b = a; b <= data.size(); b += 5) {
            TKbase64Encoder enc;
            ASSERT_EQ(expected, S(run(enc, data, {a, b}, 1 + (a + b) % 7))) << a << ' ' << b;
        }
    Bytes text = B(expected);
    for (size_t a = 0; a <= text.size(); ++a) {
        TKbase64Decoder dec;
        ASSERT_EQ(data, run(dec, text, {a}, 1 + a % 5)) << a;
    }
}

TEST(Base64Stream, RandomRoundTrips)
{
    std::mt19937 rng(12345);
    for (int iter = 0; iter < 300; ++iter) {
        Bytes data(rng() % 700, 0);
        for (auto& c : data)
            c = static_cast<unsigned char>(rng());
        auto cuts = [&](size_t n) {
            std::vector<size_t> v(rng() % 6);
            for (auto& c : v)
                c = n ? rng() % (n + 1) : 0;
            std::sort(v.begin(), v.end());
            return v;
        };
        TKbase64Encoder enc;
        Bytes text = run(enc, data, cuts(data.size()), 1 + rng() % 64);
        ASSERT_EQ(oneShot(S(data)), S(text));
        TKbase64Decoder dec;
        ASSERT_EQ(data, run(dec, text, cuts(text.size()), 1 + rng() % 64));
    }
}

TEST(Base64Decoder, SkipsEverythingOutsideTheAlphabet)
{
    TKbase64Decoder dec;
    EXPECT_EQ("foo", S(run(dec, B("Zm 9v\n"))));
    EXPECT_EQ("foobar", S(run(dec, B("Zm9v\r\n=Y\tm=Fy=="))));
    // Every code: an alphabet character decodes to its value, any other is
    // skipped without disturbing the groups around it.
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (int c = 0; c < 256; ++c) {
        size_t v = alphabet.find(static_cast<char>(c));
        const unsigned char u = static_cast<unsigned char>(c);
        if (v == std::string::npos)
            EXPECT_EQ(B("foo"), run(dec, B("Zm") + u + B("9v"))) << c;
        else
            EXPECT_EQ((Bytes{0, 0, static_cast<unsigned char>(v)}), run(dec, B("AAA") + u)) << c;
    }
}

TEST(Base64Decoder, TruncatedFinalGroups)
{
    unsigned char buf[8];
    for (const char* text : {"Zm8=", "Zm8"}) {
        TKbase64Decoder dec;
        dec.write(reinterpret_cast<const unsigned char*>(text), strlen(text));
        EXPECT_EQ(0, dec.read(buf, 8)) << text;
        dec.messageEnd();
        EXPECT_EQ(2, dec.read(buf, 8)) << text;
        EXPECT_EQ("fo", std::string(buf, buf + 2));
    }
    TKbase64Decoder dec;
    EXPECT_EQ("f", S(run(dec, B("Zg=="))));
    EXPECT_EQ("", S(run(dec, B("Z"))));  // six bits make no byte
    EXPECT_EQ("foo", S(run(dec, B("Zm9vZ"))));
}

TEST(Base64Codecs, ResetAndMessageEndForgetInput)
{
    const unsigned char in[] = "foobar";
    unsigned char buf[8];
    TKbase64Encoder enc;
    enc.write(in, 6);
    EXPECT_EQ(2, enc.read(buf, 2));
    enc.reset();  // drops the pending "9v" and the unread "bar"
    EXPECT_EQ(0, enc.read(buf, 8));
    enc.messageEnd();
    EXPECT_EQ(0, enc.read(buf, 8));
    EXPECT_EQ("YmFy", S(run(enc, B("bar"))));

    TKbase64Decoder dec;
    dec.write(in, 6);
    dec.messageEnd();  // the range was never read
    EXPECT_EQ(0, dec.read(buf, 8));
    dec.write(in, 2);  // "fo": a partial group
    EXPECT_EQ(0, dec.read(buf, 8));
    dec.reset();
    dec.messageEnd();
    EXPECT_EQ(0, dec.read(buf, 8));
}

TEST(Base64Codecs, ByteInterface)
{
    TKbase64Encoder enc;
    EXPECT_FALSE(enc.put('f'));
    EXPECT_FALSE(enc.put('o'));
    EXPECT_TRUE(enc.put('o'));
    std::string out;
    unsigned char c;
    while (enc.get(c))
        out += static_cast<char>(c);
    EXPECT_EQ("Zm9v", out);
    EXPECT_FALSE(enc.get(c));

    TKbase64Decoder dec;
    out.clear();
    for (char ch : std::string("Zm9v YmFy"))
        if (dec.put(static_cast<unsigned char>(ch)))
            while (dec.get(c))
                out += static_cast<char>(c);
    EXPECT_EQ("foobar", out);
    EXPECT_FALSE(dec.put('='));
}

TEST(Base64Codecs, HoldNoMemoryAndAllocateNothing)
{
    static_assert(std::is_trivially_destructible<TKbase64Encoder>::value, "");
    static_assert(std::is_trivially_destructible<TKbase64Decoder>::value, "");
    static_assert(sizeof(TKbase64Encoder) <= 64 && sizeof(TKbase64Decoder) <= 64, "");

    static unsigned char data[5000], text[7000], back[5000];
    for (size_t i = 0; i < sizeof data; ++i)
        data[i] = static_cast<unsigned char>(i * 31 + 7);
    ASSERT_GT(gNews, 0) << "the counting operator new is not in use";
    long before = gNews;
    TKbase64Encoder enc;
    long n = 0;
    for (long off = 0; off < 5000; off += 1024) {
        enc.write(data + off, std::min(1024L, 5000 - off));
        while (long k = enc.read(text + n, 1370))
            n += k;
    }
    enc.messageEnd();
    n += enc.read(text + n, 1370);
    TKbase64Decoder dec;
    dec.write(text, n);
    long m = 0;
    while (long k = dec.read(back + m, 1024))
        m += k;
    dec.messageEnd();
    m += dec.read(back + m, 1024);
    long news = gNews - before;
    EXPECT_EQ(0, news);
    EXPECT_EQ(6668, n);
    ASSERT_EQ(5000, m);
    EXPECT_EQ(0, memcmp(data, back, 5000));
}
