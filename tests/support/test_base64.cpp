#include "support/TKbase64.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

// The codecs own no memory, and a counting operator new shows they allocate none.
static_assert(std::is_trivially_destructible<TKbase64Encoder>::value, "");
static_assert(std::is_trivially_destructible<TKbase64Decoder>::value, "");
static_assert(sizeof(TKbase64Encoder) <= 64 && sizeof(TKbase64Decoder) <= 64, "");
static long gNews = 0;
void* operator new(std::size_t n)
{
    ++gNews;
    if (void* p = std::malloc(n ? n : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept
{
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept
{
    std::free(p);
}

namespace {

using Bytes = std::basic_string<unsigned char>;
Bytes B(const std::string& s)
{
    return Bytes(s.begin(), s.end());
}

// RFC 4648, section 10.
const char* const kVectors[][2] = {{"", ""},
                                   {"f", "Zg=="},
                                   {"fo", "Zm8="},
                                   {"foo", "Zm9v"},
                                   {"foob", "Zm9vYg=="},
                                   {"fooba", "Zm9vYmE="},
                                   {"foobar", "Zm9vYmFy"}};

Bytes oneShot(const Bytes& in)
{
    Bytes out(TK_base64_encoded_length(in.size()), '?');
    long n = TK_base64_encode(&out[0], out.size(), in.data(), in.size());
    EXPECT_GE(n, 0);
    return out.substr(0, n < 0 ? 0 : n);
}

// Feeds in as pieces cut at the given points, reading at most room bytes at a
// time, then ends the message. The codec calls must not allocate.
template <class Codec>
Bytes run(Codec& c, const Bytes& in, const std::vector<size_t>& cuts = {}, long room = 64)
{
    Bytes out;
    out.reserve(2 * in.size() + 8);
    unsigned char buf[2048];
    const long before = gNews;
    for (size_t i = 0, from = 0; i <= cuts.size() + 1; ++i) {
        size_t to = i < cuts.size() ? cuts[i] : in.size();
        if (i <= cuts.size())
            c.write(in.data() + from, to - from);
        else
            c.messageEnd();
        while (long n = c.read(buf, room))
            out.append(buf, n);
        from = to;
    }
    EXPECT_EQ(before, gNews);
    return out;
}

// Byte interface: drains after every put() that completes a group.
template <class Codec>
std::string bytewise(Codec& c, const std::string& in)
{
    std::string out;
    unsigned char b;
    for (char ch : in)
        if (c.put(static_cast<unsigned char>(ch)))
            while (c.get(b))
                out += static_cast<char>(b);
    return out;
}

} // namespace

TEST(Base64, OneShotLengthAndBufferRules)
{
    EXPECT_EQ(4, TK_base64_encoded_length(0));
    EXPECT_EQ(9, TK_base64_encoded_length(4));
    for (long n = 0; n < 200; ++n)
        EXPECT_GT(TK_base64_encoded_length(n), 4 * ((n + 2) / 3)) << n;
    unsigned char dst[16] = {};
    const unsigned char src[] = "abcdef";
    EXPECT_EQ(0, TK_base64_encode(nullptr, 0, nullptr, 0));
    EXPECT_EQ(-1, TK_base64_encode(nullptr, 16, src, 3));
    EXPECT_EQ(-1, TK_base64_encode(dst, 16, nullptr, 3));
    EXPECT_EQ(-1, TK_base64_encode(dst, 7, src, 6));
    EXPECT_EQ(B("YWJj") + Bytes(1, 0), Bytes(dst, dst + 5)); // the group that fitted stays
    EXPECT_EQ(-1, TK_base64_encode(dst, 7, src, 4));         // no room for the padded tail
    EXPECT_EQ(8, TK_base64_encode(dst, 8, src, 4));
    EXPECT_EQ(B("YWJjZA=="), Bytes(dst, dst + 8));
}

TEST(Base64, VectorsInBothShapesAndEverySplit)
{
    for (auto& v : kVectors) {
        SCOPED_TRACE(v[0]);
        TKbase64Encoder enc;
        TKbase64Decoder dec;
        EXPECT_EQ(B(v[1]), oneShot(B(v[0])));
        EXPECT_EQ(B(v[1]), run(enc, B(v[0])));
        EXPECT_EQ(B(v[0]), run(dec, B(v[1])));
        EXPECT_EQ(B(v[1]), run(enc, B(v[0]), {}, 1)); // reusable, one byte per read
        EXPECT_EQ(B(v[0]), run(dec, B(v[1]), {}, 1));
    }
    std::mt19937 rng(7);
    Bytes data;
    for (int i = 0; i < 64; ++i)
        data += static_cast<unsigned char>(rng());
    const Bytes text = oneShot(data);
    ASSERT_GT(gNews, 0) << "the counting operator new is not in use";
    for (size_t a = 0; a <= text.size(); ++a)
        for (size_t b = a; b <= text.size(); b += 5) {
            long room = 1 + (a + b) % 7;
            TKbase64Encoder enc;
            TKbase64Decoder dec;
            if (b <= data.size()) {
                ASSERT_EQ(text, run(enc, data, {a, b}, room)) << a << ' ' << b;
            }
            ASSERT_EQ(data, run(dec, text, {a, b}, room)) << a << ' ' << b;
        }
}

// Long input goes through whole groups at a time; cuts, small rooms and
// stray characters send it back through the unit-wise path and out again.
TEST(Base64, LongInputCutAnywhereWithStrayCharacters)
{
    std::mt19937 rng(11);
    Bytes data;
    for (int i = 0; i < 5000; ++i)
        data += static_cast<unsigned char>(rng());
    const Bytes text = oneShot(data);
    const std::string stray = " \r\n\t=-.*\x80\xff";
    for (int round = 0; round < 40; ++round) {
        Bytes noisy;
        for (unsigned char c : text) {
            if (round % 2 && rng() % 23 == 0)
                noisy += static_cast<unsigned char>(stray[rng() % stray.size()]);
            noisy += c;
        }
        std::vector<size_t> cuts;
        for (size_t at = rng() % 900; at < data.size(); at += 1 + rng() % 900)
            cuts.push_back(at);
        const long room = round < 10 ? 1 + round : 1 + static_cast<long>(rng() % 2048);
        TKbase64Encoder enc;
        TKbase64Decoder dec;
        ASSERT_EQ(text, run(enc, data, cuts, room)) << round;
        ASSERT_EQ(data, run(dec, noisy, cuts, room)) << round;
    }
}

TEST(Base64, DecoderSkipsNonAlphabetAndKeepsWholeBytesOfTruncatedGroups)
{
    TKbase64Decoder dec;
    EXPECT_EQ(B("foobar"), run(dec, B("Zm9v\r\n=Y\tm=Fy==")));
    EXPECT_EQ(B("fo"), run(dec, B("Zm8")));
    EXPECT_EQ(B(""), run(dec, B("Z"))); // six bits make no byte
    EXPECT_EQ(B("foo"), run(dec, B("Zm9vZ")));
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

TEST(Base64, ResetMessageEndAndByteInterface)
{
    const unsigned char in[] = "foobar";
    unsigned char buf[8];
    TKbase64Encoder enc;
    TKbase64Decoder dec;
    enc.write(in, 6);
    EXPECT_EQ(2, enc.read(buf, 2));
    enc.reset(); // drops the pending "9v" and the unread "bar"
    EXPECT_EQ(0, enc.read(buf, 8));
    enc.write(in, 6);
    dec.write(in, 6);
    enc.messageEnd(); // the ranges were never read
    dec.messageEnd();
    EXPECT_EQ(0, enc.read(buf, 8));
    EXPECT_EQ(0, dec.read(buf, 8));
    dec.write(in, 2); // "fo": a partial group
    dec.reset();
    dec.messageEnd();
    EXPECT_EQ(0, dec.read(buf, 8));

    unsigned char c;
    EXPECT_EQ("Zm9vYmFy", bytewise(enc, "foobar"));
    EXPECT_FALSE(enc.get(c));
    EXPECT_EQ("foobar", bytewise(dec, "Zm9v YmFy"));
    EXPECT_FALSE(dec.put('='));
}
