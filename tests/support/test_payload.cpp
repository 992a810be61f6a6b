// The payload codec: known texts, round trips however the text is cut,
// what is skipped, damaged and cut-short text, failing and throwing sinks,
// and the compressor's 32-bit input count.
#include "support/TKpayload.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <climits>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/TKT_stream.h"

namespace {

using Enc = TKpayloadEncoder;
using Dec = TKpayloadDecoder;

// Collects what it is given. Put number failAt (1-based) is refused with
// failCode, or throws when throws is set.
struct Sink : TKpayloadSink {
    std::string got;
    long puts = 0, failAt = 0, failCode = TKstream::Error;
    bool throws = false;

    long put(const unsigned char* data, unsigned long len) override
    {
        EXPECT_GT(len, 0u);
        if (++puts == failAt) {
            if (throws)
                throw std::runtime_error("sink fails");
            return failCode;
        }
        got.append(reinterpret_cast<const char*>(data), len);
        return TKstream::Ok;
    }
};

std::string encode(Enc& e, const std::string& bytes)
{
    Sink s;
    EXPECT_EQ(e.encode(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), s),
              Enc::Done);
    return s.got;
}

std::string encode(const std::string& bytes)
{
    Enc e;
    return encode(e, bytes);
}

// Decodes text given in pieces cut at the ascending points cuts; no piece
// may fail the sink or report the end of the text.
std::string decode(Dec& d, const std::string& text, const std::vector<std::size_t>& cuts,
                   Dec::Result& result)
{
    Sink s;
    std::size_t from = 0;
    for (std::size_t i = 0; i <= cuts.size(); ++i) {
        const std::size_t to = i < cuts.size() ? cuts[i] : text.size();
        const Dec::Result r = d.write(text.data() + from, static_cast<long>(to - from), s);
        EXPECT_TRUE(r == Dec::More || r == Dec::End || r == Dec::Damaged) << r << " at " << from;
        from = to;
    }
    result = d.finish(s);
    return s.got;
}

std::string decode(const std::string& text, Dec::Result want = Dec::End)
{
    Dec d;
    Dec::Result r;
    const std::string out = decode(d, text, {}, r);
    EXPECT_EQ(r, want);
    return out;
}

std::string randomBytes(std::size_t n, unsigned seed)
{
    std::mt19937 rng(seed);
    std::string s(n, '\0');
    for (char& c : s)
        c = static_cast<char>(rng());
    return s;
}

// Words from a small vocabulary: compresses, but not into nothing.
std::string words(std::size_t n, unsigned seed)
{
    static const char* const kWords[] = {"sin", "cos", "x^2",    "+",      "*",
                                         "(",   ")",   "factor", "expand", " "};
    std::mt19937 rng(seed);
    std::string s;
    while (s.size() < n)
        s += kWords[rng() % 10];
    return s;
}

// The zlib stream inside a text, read back with zlib's own decoder.
std::string zlibBytes(const std::string& text)
{
    std::string z(text.size(), '\0');
    TKbase64Decoder d;
    d.write(reinterpret_cast<const unsigned char*>(text.data()), static_cast<long>(text.size()));
    long n = d.read(reinterpret_cast<unsigned char*>(&z[0]), static_cast<long>(z.size()));
    d.messageEnd();
    n += d.read(reinterpret_cast<unsigned char*>(&z[n]), static_cast<long>(z.size()) - n);
    z.resize(static_cast<std::size_t>(n));
    return z;
}

// zlib's own base64 text of a payload at a level, with the last byte
// flipped (a wrong check sum) or cut bytes taken off the end.
std::string textOf(const std::string& bytes, int level, bool flip = false, std::size_t cut = 0)
{
    uLongf n = compressBound(bytes.size());
    std::string z(n, '\0');
    compress2(reinterpret_cast<Bytef*>(&z[0]), &n, reinterpret_cast<const Bytef*>(bytes.data()),
              bytes.size(), level);
    z.resize(n - cut);
    z.back() = static_cast<char>(z.back() ^ (flip ? 1 : 0));
    std::string t(static_cast<std::size_t>(TK_base64_encoded_length(static_cast<long>(z.size()))),
                  '\0');
    t.resize(static_cast<std::size_t>(TK_base64_encode(
        reinterpret_cast<unsigned char*>(&t[0]), static_cast<long>(t.size()),
        reinterpret_cast<const unsigned char*>(z.data()), static_cast<long>(z.size()))));
    return t;
}

// ---- encoding ------------------------------------------------------------------

TEST(Payload, KnownTextsAndOneIndependentStreamPerPayload)
{
    Enc e;
    EXPECT_EQ(encode(e, ""), "eJwDAAAAAAE="); // 78 9C 03 00 00 00 00 01
    EXPECT_EQ(encode(e, "abc"), "eJxLTEoGAAJNASc=");
    Sink s;
    EXPECT_EQ(e.encode(nullptr, 0, s), Enc::Done);
    EXPECT_EQ(s.got, "eJwDAAAAAAE=");
    // The same encoder gives every payload its own complete stream.
    const std::string big = words(50000, 1);
    const std::string first = encode(e, big);
    EXPECT_EQ(encode(e, big), first);
    EXPECT_EQ(encode(e, "abc"), "eJxLTEoGAAJNASc=");
    EXPECT_EQ(first.compare(0, 2, "eJ"), 0);
    EXPECT_EQ(first.size() % 4, 0u);
    EXPECT_EQ(first.find_first_not_of(
                  "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/="),
              std::string::npos);
    // zlib reads it as the payload.
    const std::string z = zlibBytes(first);
    std::string back(big.size() + 1, '\0');
    uLongf n = back.size();
    ASSERT_EQ(uncompress(reinterpret_cast<Bytef*>(&back[0]), &n,
                         reinterpret_cast<const Bytef*>(z.data()), z.size()),
              Z_OK);
    EXPECT_EQ(back.substr(0, n), big);
}

// A refused piece stops the encoder at once and leaves what came before it;
// a throwing sink passes its exception on. Either way the next payload is whole.
TEST(Payload, EncoderStopsAtAFailingSinkAndStartsCleanAfterwards)
{
    const std::string data = randomBytes(5000, 3);
    Enc e;
    Sink all;
    ASSERT_EQ(e.encode(reinterpret_cast<const unsigned char*>(data.data()), data.size(), all),
              Enc::Done);
    ASSERT_GT(all.puts, 2);
    for (long n = 1; n <= all.puts; ++n)
        for (bool throws : {false, true}) {
            Sink s;
            s.failAt = n;
            s.throws = throws;
            if (throws)
                EXPECT_THROW(
                    e.encode(reinterpret_cast<const unsigned char*>(data.data()), data.size(), s),
                    std::runtime_error);
            else
                EXPECT_EQ(
                    e.encode(reinterpret_cast<const unsigned char*>(data.data()), data.size(), s),
                    Enc::SinkFailed);
            EXPECT_EQ(s.puts, n);
            EXPECT_EQ(all.got.compare(0, s.got.size(), s.got), 0) << n;
            EXPECT_LT(s.got.size(), all.got.size());
            EXPECT_EQ(encode(e, data), all.got) << n;
        }
}

// ---- decoding ------------------------------------------------------------------

TEST(Payload, RoundTripsHoweverTheTextIsCut)
{
    for (const std::string& data : {std::string(), std::string("a"), std::string("abc"),
                                    std::string(1, '\0'), randomBytes(40, 5)}) {
        const std::string text = encode(data);
        Dec d; // reused: finish() readies it for the next payload
        Dec::Result r;
        for (std::size_t a = 0; a <= text.size(); ++a)
            for (std::size_t b = a; b <= text.size(); ++b) {
                ASSERT_EQ(decode(d, text, {a, b}, r), data) << a << ' ' << b;
                ASSERT_EQ(r, Dec::End);
            }
        std::vector<std::size_t> everyByte;
        for (std::size_t i = 1; i < text.size(); ++i)
            everyByte.push_back(i);
        EXPECT_EQ(decode(d, text, everyByte, r), data);
        EXPECT_EQ(r, Dec::End);
    }
    // Many blocks each way: text that does not compress, and zeros that
    // inflate to many buffers from a few characters.
    std::mt19937 rng(9);
    for (const std::string& data :
         {randomBytes(100000, 7), std::string(100000, '\0'), words(30000, 2)}) {
        const std::string text = encode(data);
        for (int round = 0; round < 8; ++round) {
            std::vector<std::size_t> cuts;
            for (std::size_t at = 0; (at += rng() % 3000 + 1) < text.size();)
                cuts.push_back(at);
            Dec d;
            Dec::Result r;
            ASSERT_TRUE(decode(d, text, cuts, r) == data) << round;
            EXPECT_EQ(r, Dec::End);
        }
    }
}

TEST(Payload, SkipsWhatIsNotBase64AndWhatFollowsTheStream)
{
    EXPECT_EQ(decode(" eJx LTE\noGA\r\n  AJN\tASc=\n"), "abc");
    EXPECT_EQ(decode("=eJ=xLTEo#GAA!JNASc"), "abc"); // padding and garbage anywhere
    EXPECT_EQ(decode("eJxLTEoGAAJNASc=eJyrqqoCAALfAW8="), "abc");
    // Once the stream has ended, later pieces are taken and ignored. (The
    // last group of the first text completes only with the next piece.)
    Dec d;
    Sink s;
    EXPECT_EQ(d.write("eJxLTEoGAAJNASc=", 16, s), Dec::More);
    EXPECT_EQ(d.write("eJyrqqoCAALfAW8=", 16, s), Dec::End);
    EXPECT_EQ(d.write("eJyrqqoCAALfAW8=", 16, s), Dec::End);
    EXPECT_EQ(d.write(nullptr, 0, s), Dec::End);
    EXPECT_EQ(d.finish(s), Dec::End);
    EXPECT_EQ(s.got, "abc");
    // Empty text is a stream cut short before it began.
    EXPECT_EQ(decode("", Dec::Truncated), "");
}

// A block of decoded text whose output fills the output buffer exactly
// leaves inflate without progress on its next pass; the block is used up
// and the stream goes on with the next one. Found among payloads that start
// with runs of different length.
TEST(Payload, ABlockThatFillsTheOutputExactlyIsNoError)
{
    const std::string tail = words(20000, 4);
    for (std::size_t run = 0; run < 5000; ++run) {
        const std::string data = std::string(run, 'a') + tail;
        const std::string text = encode(data);
        const std::string z = zlibBytes(text);
        z_stream in{};
        ASSERT_EQ(inflateInit(&in), Z_OK);
        std::string out(1 << 20, '\0');
        in.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(z.data()));
        in.avail_in = 1024; // the first decoded block
        in.next_out = reinterpret_cast<Bytef*>(&out[0]);
        in.avail_out = static_cast<uInt>(out.size());
        const int rc = inflate(&in, Z_SYNC_FLUSH);
        const uLong produced = in.total_out;
        inflateEnd(&in);
        if (rc != Z_OK || produced == 0 || produced % 1024 != 0)
            continue;
        EXPECT_EQ(decode(text), data) << run;
        return;
    }
    FAIL() << "no payload with a block that fills the output exactly";
}

// A wrong check sum (all data there), garbage from the first character and a
// stream cut short: each delivers what inflated, and the same decoder then
// decodes the next payload whole.
TEST(Payload, DamagedTextDeliversWhatInflated)
{
    const std::string q(2000, 'q');
    const struct {
        std::string text;
        Dec::Result result;
        std::string bytes;
    } cases[] = {
        {textOf(q, Z_NO_COMPRESSION, true), Dec::Damaged, q},
        {"AAAAAAAAAAAA", Dec::Damaged, ""},
        {"eJxLTEoGAAJN!!!!garbage", Dec::Damaged, "abc"},
        {textOf(q, Z_NO_COMPRESSION, false, 500), Dec::Truncated, q.substr(0, 1504)},
        {"eJxLTEoGAA", Dec::Truncated, "abc"},
    };
    Dec d;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 40));
        Dec::Result r;
        EXPECT_EQ(decode(d, c.text, {}, r), c.bytes);
        EXPECT_EQ(r, c.result);
        EXPECT_EQ(decode(d, "eJxLTEoGAAJNASc=", {}, r), "abc");
        EXPECT_EQ(r, Dec::End);
    }
    // After the damage every piece is ignored until the payload ends.
    Sink s;
    EXPECT_EQ(d.write("AAAAAAAA", 8, s), Dec::Damaged);
    EXPECT_EQ(d.write("eJxLTEoGAAJNASc=", 16, s), Dec::Damaged);
    EXPECT_EQ(d.finish(s), Dec::Damaged);
    EXPECT_EQ(s.puts, 0);
    d.write("eJxLTEo", 7, s);
    d.reset(); // drops the payload in progress
    Dec::Result r;
    EXPECT_EQ(decode(d, "eJwDAAAAAAE=", {}, r), "");
    EXPECT_EQ(r, Dec::End);
}

// A refused piece stops the decoder at once; the rest of that piece is
// lost but later pieces are still decoded (the payload comes out damaged),
// and a throwing sink leaves the decoder in the same state.
TEST(Payload, DecoderStopsAtAFailingSinkAndGoesOnWithTheNextPiece)
{
    const std::string data = randomBytes(20000, 11), text = textOf(data, Z_NO_COMPRESSION);
    const std::size_t half = text.size() / 2;
    for (bool throws : {false, true}) {
        Dec d;
        Sink s;
        s.failAt = 2;
        s.throws = throws;
        if (throws)
            EXPECT_THROW(d.write(text.data(), static_cast<long>(half), s), std::runtime_error);
        else
            EXPECT_EQ(d.write(text.data(), static_cast<long>(half), s), Dec::SinkFailed);
        EXPECT_EQ(s.puts, 2);
        EXPECT_EQ(s.got, data.substr(0, s.got.size()));
        const std::size_t before = s.got.size();
        const Dec::Result r = d.write(text.data() + half, static_cast<long>(text.size() - half), s);
        EXPECT_GT(s.got.size(), before) << "the next piece is decoded";
        EXPECT_NE(s.got, data);
        EXPECT_NE(r, Dec::End);
        d.finish(s);
        Dec::Result next;
        EXPECT_EQ(decode(d, text, {half}, next), data);
        EXPECT_EQ(next, Dec::End);
    }
}

// ---- zlib limits and failures (the zlib entry points the library calls are
// interposed by this executable) ---------------------------------------------------

enum class Zlib { Real, Skim, Fail } gZlib = Zlib::Real;
std::vector<std::pair<const Bytef*, uInt>> gPieces;
std::vector<int> gFlushes;

} // namespace

extern "C" int deflate(z_streamp s, int flush)
{
    static const auto real = reinterpret_cast<int (*)(z_streamp, int)>(dlsym(RTLD_NEXT, "deflate"));
    if (gZlib == Zlib::Real)
        return real(s, flush);
    if (gZlib == Zlib::Fail)
        return Z_STREAM_ERROR;
    // Takes the piece without reading it.
    gPieces.emplace_back(s->next_in, s->avail_in);
    gFlushes.push_back(flush);
    s->next_in += s->avail_in;
    s->avail_in = 0;
    return flush == Z_FINISH ? Z_STREAM_END : Z_OK;
}

extern "C" int inflateInit_(z_streamp s, const char* version, int size)
{
    static const auto real =
        reinterpret_cast<int (*)(z_streamp, const char*, int)>(dlsym(RTLD_NEXT, "inflateInit_"));
    return gZlib == Zlib::Fail ? Z_MEM_ERROR : real(s, version, size);
}

namespace {

// zlib counts input in 32 bits: 4 GiB and more reach deflate in pieces of
// at most UINT_MAX bytes, back to back, and only the last finishes the
// stream. Compressing 4 GiB for real takes half a minute; skimming does not.
TEST(Payload, FourGiBAndMoreReachZlibInPieces)
{
    const uint64_t len = (uint64_t(1) << 32) + 5;
    // Address space only: reading any of it would crash.
    void* mem = mmap(nullptr, len, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mem == MAP_FAILED)
        GTEST_SKIP() << "cannot reserve 4 GiB";
    const auto* data = static_cast<const unsigned char*>(mem);
    Enc e;
    Sink s;
    gZlib = Zlib::Skim;
    const Enc::Result r = e.encode(data, len, s);
    gZlib = Zlib::Real;
    munmap(mem, len);
    EXPECT_EQ(r, Enc::Done);
    EXPECT_EQ(gPieces,
              (std::vector<std::pair<const Bytef*, uInt>>{{data, UINT_MAX}, {data + UINT_MAX, 6}}));
    EXPECT_EQ(gFlushes, (std::vector<int>{Z_NO_FLUSH, Z_FINISH}));
    EXPECT_EQ(s.puts, 0);
    EXPECT_EQ(encode(e, "abc"), "eJxLTEoGAAJNASc=") << "the real deflate, with a clean state";
}

TEST(Payload, ZlibFailuresGiveNothingAndPassWithThePayload)
{
    Enc e;
    Sink s;
    gZlib = Zlib::Fail;
    EXPECT_EQ(e.encode(reinterpret_cast<const unsigned char*>("abc"), 3, s), Enc::Failed);
    Dec broken;
    EXPECT_EQ(broken.write("eJxLTEoGAAJNASc=", 16, s), Dec::Broken);
    EXPECT_EQ(broken.finish(s), Dec::Broken);
    gZlib = Zlib::Real;
    EXPECT_EQ(s.puts, 0);
    EXPECT_EQ(encode(e, "abc"), "eJxLTEoGAAJNASc=");
}

} // namespace
