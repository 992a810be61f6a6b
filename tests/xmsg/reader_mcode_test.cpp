// Reading mcode payloads: base64 of a zlib stream, decoded and inflated
// piece by piece while the text arrives.
#include <gtest/gtest.h>
#include <zlib.h>

#include <clocale>
#include <string>
#include <vector>

#include "ReaderHarness.h"
#include "support/TKbase64.h"

using rh::Session;
using rh::Split;

namespace {

class ReaderMcode : public ::testing::Test {
protected:
    void SetUp() override { std::setlocale(LC_ALL, ""); }
};

std::string deflated(const std::string& bytes, int level = Z_DEFAULT_COMPRESSION)
{
    uLongf n = compressBound(static_cast<uLong>(bytes.size()));
    std::string out(n, '\0');
    EXPECT_EQ(compress2(reinterpret_cast<Bytef*>(&out[0]), &n,
                        reinterpret_cast<const Bytef*>(bytes.data()),
                        static_cast<uLong>(bytes.size()), level),
              Z_OK);
    out.resize(n);
    return out;
}

std::string base64(const std::string& bytes)
{
    std::string out(static_cast<std::size_t>(TK_base64_encoded_length(static_cast<long>(bytes.size()))),
                    '\0');
    long n = TK_base64_encode(reinterpret_cast<unsigned char*>(&out[0]),
                              static_cast<long>(out.size()),
                              reinterpret_cast<const unsigned char*>(bytes.data()),
                              static_cast<long>(bytes.size()));
    out.resize(static_cast<std::size_t>(n));
    return out;
}

std::string callback(const std::string& b64, const std::string& format = "f")
{
    return "<callback cl=\"1\" cid=\"2\"><mcode format=\"" + format + "\">" + b64 +
           "</mcode></callback>";
}

// Payload bytes of the single callback in the stream.
std::string payloadOf(const std::string& stream, Split how = Split::Whole, unsigned seed = 1)
{
    Session s;
    EXPECT_TRUE(s.feed(stream, how, seed));
    EXPECT_EQ(s.rec.calls.size(), 1u);
    return s.rec.lastPayload;
}

} // namespace

TEST_F(ReaderMcode, KnownPayloadSplitAtEveryPosition)
{
    const std::string msg = callback("eJxLTEoGAAJNASc=", "abc");
    for (std::size_t cut = 1; cut < msg.size(); ++cut) {
        Session s;
        EXPECT_TRUE(s.feed(msg.substr(0, cut)));
        EXPECT_TRUE(s.feed(msg.substr(cut)));
        EXPECT_EQ(s.rec.calls, (std::vector<std::string>{"#1 callback cid=2 fmt='abc' len=3 data=abc"}))
            << "cut at " << cut;
    }
    // and every position pair: three pieces
    const std::string b64 = "eJxLTEoGAAJNASc=";
    for (std::size_t i = 1; i < b64.size(); ++i)
        for (std::size_t j = i + 1; j < b64.size(); ++j) {
            Session s;
            EXPECT_TRUE(s.feed("<callback cl=\"1\"><mcode>" + b64.substr(0, i)));
            EXPECT_TRUE(s.feed(b64.substr(i, j - i)));
            EXPECT_TRUE(s.feed(b64.substr(j) + "</mcode></callback>"));
            EXPECT_EQ(s.rec.lastPayload, "abc") << i << "," << j;
        }
    EXPECT_EQ(payloadOf(msg, Split::Bytes), "abc");
}

TEST_F(ReaderMcode, BlanksAndLineBreaksInsideTheText)
{
    EXPECT_EQ(payloadOf(callback("eJx LTE\noGA\r\n  AJN\tASc=\n")), "abc");
    EXPECT_EQ(payloadOf(callback("e J x L T E o G A A J N A S c = = ="), Split::Bytes), "abc");
    // an entity reference is text too
    EXPECT_EQ(payloadOf(callback("eJxLTEoG&#10;AAJNASc&#61;")), "abc");
}

TEST_F(ReaderMcode, EmptyPayloads)
{
    // zlib's stream of no data
    EXPECT_CALLS_ALL_SPLITS(callback("eJwDAAAAAAE=", "abc"),
                            {"#1 callback cid=2 fmt='abc' len=0 data="});
    // no text at all, and no format
    EXPECT_CALLS_ALL_SPLITS("<callback cl=\"1\"><mcode/></callback>"
                            "<output cl=\"2\" type=\"t\"><mcode></mcode></output>",
                            {"#1 callback cid=0 fmt='' len=0 data=",
                             "#2 output_data cid=0 type='t' fmt='' len=0 data="});
}

// A zlib stream that holds n bytes of x in a stored block and then a block
// of the reserved type, which inflate rejects.
std::string storedThenInvalid(std::size_t n)
{
    std::string z = "\x78\x01";
    z += '\0';  // not final, stored
    z += static_cast<char>(n & 0xff);
    z += static_cast<char>(n >> 8);
    z += static_cast<char>(~n & 0xff);
    z += static_cast<char>((~n >> 8) & 0xff);
    z += std::string(n, 'x');
    z += '\x07';  // final, reserved block type
    z += std::string(600, '\x5a');
    return z;
}

TEST_F(ReaderMcode, CorruptPayloadThenAGoodOne)
{
    const std::string stream =
        callback(base64(storedThenInvalid(1200))) + callback("eJxLTEoGAAJNASc=", "abc");
    for (Split how : {Split::Whole, Split::Random, Split::Bytes}) {
        Session s;
        EXPECT_TRUE(s.feed(stream, how, 3));
        EXPECT_EQ(s.rec.calls, (std::vector<std::string>{
                                   "#1 callback cid=2 fmt='f' len=1200",
                                   "#1 callback cid=2 fmt='abc' len=3 data=abc",
                               }));
        EXPECT_EQ(s.rec.lastPayload, "abc");
    }
    // What inflated before the damage is delivered; nothing after it.
    EXPECT_EQ(payloadOf(callback(base64(storedThenInvalid(1200)))), std::string(1200, 'x'));

    // Garbage from the first byte gives an empty payload; the next is fine.
    EXPECT_CALLS_ALL_SPLITS(callback("AAAAAAAAAAAA") + callback("eJxLTEoGAAJNASc="),
                            {"#1 callback cid=2 fmt='f' len=0 data=",
                             "#1 callback cid=2 fmt='f' len=3 data=abc"});
}

TEST_F(ReaderMcode, CutShortStreamDeliversWhatInflated)
{
    std::string z = deflated(std::string(2000, 'q'), Z_NO_COMPRESSION);
    z.resize(z.size() - 500);  // no end of stream
    std::string p = payloadOf(callback(base64(z)));
    EXPECT_GT(p.size(), 1000u);
    EXPECT_EQ(p, std::string(p.size(), 'q'));
    // The next payload starts fresh.
    Session s;
    EXPECT_TRUE(s.feed(callback(base64(z)) + callback("eJxLTEoGAAJNASc=")));
    EXPECT_EQ(s.rec.calls.size(), 2u);
    EXPECT_EQ(s.rec.lastPayload, "abc");
}

TEST_F(ReaderMcode, LargePayloadFromOneSmallChunk)
{
    const std::string zeros(100000, '\0');
    const std::string b64 = base64(deflated(zeros));
    ASSERT_LT(b64.size(), 200u) << "compresses to one small chunk";
    const std::string msg = callback(b64, "zero");
    for (Split how : {Split::Whole, Split::Bytes}) {
        Session s;
        EXPECT_TRUE(s.feed(msg, how));
        EXPECT_EQ(s.rec.calls, (std::vector<std::string>{"#1 callback cid=2 fmt='zero' len=100000"}));
        EXPECT_TRUE(s.rec.lastPayload == zeros);
    }
}

TEST_F(ReaderMcode, VariedPayloadInKernelSizedChunks)
{
    // Pseudo-random bytes do not compress: many full decode blocks, fed the
    // way the input loop does (at most 1024 bytes per chunk).
    std::string data;
    unsigned x = 12345;
    for (int i = 0; i < 20000; ++i) {
        x = x * 1103515245u + 12345u;
        data += static_cast<char>(x >> 24);
    }
    const std::string msg = callback(base64(deflated(data)));
    Session s;
    for (std::size_t pos = 0; pos < msg.size(); pos += 1024)
        EXPECT_TRUE(s.feed(msg.substr(pos, 1024)));
    ASSERT_EQ(s.rec.calls.size(), 1u);
    EXPECT_TRUE(s.rec.lastPayload == data);
    EXPECT_EQ(payloadOf(msg, Split::Random, 9).size(), data.size());
}

TEST_F(ReaderMcode, ShorterPayloadAfterALongerOne)
{
    const std::string longer = base64(deflated(std::string(5000, 'L')));
    EXPECT_CALLS_ALL_SPLITS(
        "<output cl=\"1\"><mcode format=\"a\">" + longer + "</mcode></output>" +
            "<output cl=\"1\"><mcode format=\"b\">eJxLTEoGAAJNASc=</mcode></output>"
            "<output cl=\"1\"><mcode format=\"c\">eJwDAAAAAAE=</mcode></output>"
            "<output cl=\"1\"><text>t</text></output>",
        {"#1 output_data cid=0 type='' fmt='a' len=5000",
         "#1 output_data cid=0 type='' fmt='b' len=3 data=abc",
         "#1 output_data cid=0 type='' fmt='c' len=0 data=",
         "#1 output cid=0 type='' format='' text='t'"});
}

TEST_F(ReaderMcode, BytesAfterTheStreamEndAreIgnored)
{
    // Two streams in one element: the second inflates to nothing.
    const std::string z = deflated("abc") + deflated("zzz");
    EXPECT_EQ(payloadOf(callback(base64(z))), "abc");
}

TEST_F(ReaderMcode, PayloadOfAnUnknownClientStillResetsTheDecoder)
{
    std::string z = deflated(std::string(3000, 'u'), Z_NO_COMPRESSION);
    z.resize(z.size() / 2);
    EXPECT_CALLS_ALL_SPLITS("<callback cl=\"9\"><mcode>" + base64(z) + "</mcode></callback>" +
                                callback("eJxLTEoGAAJNASc="),
                            {"#1 callback cid=2 fmt='f' len=3 data=abc"});
}

TEST_F(ReaderMcode, DecodeMCodeDrainsTheDecoder)
{
    rh::Record rec;
    rh::record() = &rec;
    rh::TestReader r;
    EXPECT_EQ(r.decodeDirect("eJxLTEoGAAJNASc="), "abc");
    const std::string big(4000, 'b');
    EXPECT_EQ(r.decodeDirect(base64(deflated(big))), big);
    rh::record() = nullptr;
}
