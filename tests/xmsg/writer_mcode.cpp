// mcode payloads as the writer puts them on the wire: deflated, base64
// encoded, one independent zlib stream per payload.
#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <random>
#include <string>
#include <sys/mman.h>

#include "WriterTestKernel.h"

using writertest::decodePayload;
using writertest::FailingStream;
using writertest::mcodeText;
using writertest::TestKernel;

namespace {

const unsigned char kAbc[] = {'a', 'b', 'c'};

class WriterMcode : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(std::setlocale(LC_ALL, ""), nullptr); }
};

// Whether zstream_ is back at the start of a fresh stream.
bool deflateIsReset(TestKernel& k)
{
    return k.zstream_.total_in == 0 && k.zstream_.total_out == 0;
}

TEST_F(WriterMcode, EmptyAndThreeBytePayloads)
{
    TestKernel k(1);
    TAM_DataTAG empty = {"abc", nullptr, 0};
    k.fresh();
    k.xput_mcode(&empty);
    EXPECT_EQ(k.text(), "<mcode format=\"abc\">eJwDAAAAAAE=</mcode>");

    TAM_DataTAG abc = {"abc", kAbc, 3};
    k.fresh();
    k.xput_mcode(&abc);
    EXPECT_EQ(k.text(), "<mcode format=\"abc\">eJxLTEoGAAJNASc=</mcode>");

    EXPECT_EQ(k.send_call_result(0, &abc), 1);
    EXPECT_EQ(k.text(), "<callresult cl=\"1\" error=\"0\"><mcode format=\"abc\">eJxLTEoGAAJNASc="
                        "</mcode></callresult>");

    EXPECT_EQ(k.send_cmd_data(reinterpret_cast<void*>(static_cast<intptr_t>(9)), &abc, 1, "fm"), 1);
    EXPECT_EQ(k.text(), "<cmd cl=\"1\" cid=\"9\" flags=\"no_history\" format=\"fm\"><mcode "
                        "format=\"abc\">eJxLTEoGAAJNASc=</mcode></cmd>");
    EXPECT_TRUE(deflateIsReset(k));
}

TEST_F(WriterMcode, FormatNamesAndNullRecord)
{
    TestKernel k(1);
    TAM_DataTAG rec = {nullptr, kAbc, 3};
    k.fresh();
    k.xput_mcode(&rec);
    EXPECT_EQ(k.text(), "<mcode format=\"\">eJxLTEoGAAJNASc=</mcode>");

    rec.format = "";
    k.fresh();
    k.xput_mcode(&rec);
    EXPECT_EQ(k.text(), "<mcode format=\"\">eJxLTEoGAAJNASc=</mcode>");

    rec.format = "a\"<b\x01";
    k.fresh();
    k.xput_mcode(&rec);
    EXPECT_EQ(k.text(), "<mcode format=\"a&quot;&lt;b\">eJxLTEoGAAJNASc=</mcode>");

    k.fresh();
    k.xput_mcode(nullptr);
    EXPECT_EQ(k.text(), "");
    EXPECT_EQ(k.stream.writes, 0);

    // A request that has already failed writes no payload at all.
    k.fresh();
    k.status_ = TKstream::Error;
    k.xput_mcode(&rec);
    EXPECT_EQ(k.stream.writes, 0);
    EXPECT_TRUE(deflateIsReset(k));
}

TEST_F(WriterMcode, LargeRandomPayloadRoundTrips)
{
    std::mt19937 rng(12345);
    std::string data(100000, '\0');
    for (char& c : data)
        c = static_cast<char>(rng());
    TAM_DataTAG rec = {"bin", reinterpret_cast<const unsigned char*>(data.data()), data.size()};

    TestKernel k(2);
    ASSERT_EQ(k.send_cmd_data(nullptr, &rec, 0, nullptr), 1);
    const std::string req = k.text();
    ASSERT_EQ(req.rfind("<cmd cl=\"2\" cid=\"0\"><mcode format=\"bin\">", 0), 0u);
    ASSERT_EQ(req.size() - req.rfind("</mcode></cmd>"), std::string("</mcode></cmd>").size());
    const std::string b64 = mcodeText(req);
    EXPECT_EQ(b64.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/="),
              std::string::npos);
    EXPECT_EQ(b64.size() % 4, 0u);
    std::string back;
    ASSERT_TRUE(decodePayload(b64, back, data.size()));
    EXPECT_EQ(back, data);
    EXPECT_TRUE(deflateIsReset(k));

    // Compressible data inflates from far fewer characters.
    std::string zeros(100000, '\0');
    rec.data = reinterpret_cast<const unsigned char*>(zeros.data());
    ASSERT_EQ(k.send_call_result(0, &rec), 1);
    const std::string zb64 = mcodeText(k.text());
    EXPECT_LT(zb64.size(), 400u);
    ASSERT_TRUE(decodePayload(zb64, back, zeros.size()));
    EXPECT_EQ(back, zeros);
}

TEST_F(WriterMcode, PayloadsAreIndependentStreams)
{
    TestKernel k(1);
    std::string first(5000, 'q'), second = "second payload";
    TAM_DataTAG a = {"f", reinterpret_cast<const unsigned char*>(first.data()), first.size()};
    TAM_DataTAG b = {"f", reinterpret_cast<const unsigned char*>(second.data()), second.size()};

    k.send_call_result(0, &a);
    const std::string t1 = mcodeText(k.text());
    k.send_call_result(0, &b);
    const std::string t2 = mcodeText(k.text());
    k.send_call_result(0, &a);
    const std::string t3 = mcodeText(k.text());

    EXPECT_EQ(t1.substr(0, 2), "eJ");
    EXPECT_EQ(t2.substr(0, 2), "eJ");
    EXPECT_EQ(t1, t3);  // no state carried over from the payload between
    std::string back;
    ASSERT_TRUE(decodePayload(t2, back, second.size()));
    EXPECT_EQ(back, second);

    // Two payloads in one request: still separate streams.
    k.fresh();
    k.xput_mcode(&b);
    k.xput_mcode(&b);
    EXPECT_EQ(mcodeText(k.text(), 0), t2);
    EXPECT_EQ(mcodeText(k.text(), 1), t2);
}

// A write failing inside the payload: the element stays open, nothing more
// is written, the deflate state is reset, and the next payload is whole.
TEST_F(WriterMcode, FailureInsideThePayload)
{
    std::mt19937 rng(7);
    std::string data(20000, '\0');
    for (char& c : data)
        c = static_cast<char>(rng());
    TAM_DataTAG rec = {"f", reinterpret_cast<const unsigned char*>(data.data()), data.size()};

    TestKernel k(1);
    ASSERT_EQ(k.send_call_result(0, nullptr), 1);
    // The element's opening takes three writes (`<mcode format="`, the name,
    // `">`) in place of nothing; the base64 batches follow.
    const long firstBatch = k.stream.writes - 1 + 3 + 1;
    ASSERT_EQ(k.send_call_result(0, &rec), 1);
    const std::string good = k.text();
    const long total = k.stream.writes;
    ASSERT_GT(total, firstBatch + 10);  // several base64 batches

    for (FailingStream::Mode mode : {FailingStream::ReturnCode, FailingStream::ThrowBadAlloc}) {
        // Batches at the start and the end, and the closing `</mcode>`.
        for (long n : {firstBatch, firstBatch + 1, total - 2, total - 1}) {
            k.stream.mode = mode;
            k.stream.failAt = n;
            int rc = -1;
            try {
                rc = k.send_call_result(0, &rec);
            } catch (const std::bad_alloc&) {
                ADD_FAILURE() << "exception escaped from the payload at write " << n;
            }
            EXPECT_EQ(rc, 0) << n;
            EXPECT_EQ(k.stream.writes, n);
            EXPECT_EQ(k.status_, TKstream::Error);
            EXPECT_EQ(k.text().find("</mcode>"), std::string::npos) << n;
            EXPECT_EQ(good.compare(0, k.text().size(), k.text()), 0);
            EXPECT_TRUE(deflateIsReset(k)) << n;

            k.stream.failAt = 0;
            ASSERT_EQ(k.send_call_result(0, &rec), 1);
            EXPECT_EQ(k.text(), good);
        }
    }
}

// A deflate state that cannot work (as after a failed set-up) fails the
// payload with Error and never closes the element.
TEST_F(WriterMcode, DeflateErrorFailsTheRequest)
{
    TestKernel k(1);
    deflateEnd(&k.zstream_);  // state freed: deflate now reports Z_STREAM_ERROR
    TAM_DataTAG rec = {"f", kAbc, 3};
    EXPECT_EQ(k.send_call_result(0, &rec), 0);
    EXPECT_EQ(k.status_, TKstream::Error);
    EXPECT_EQ(k.text(), "<callresult cl=\"1\" error=\"0\"><mcode format=\"f\">");
    EXPECT_EQ(k.send_stop(), 1);
    // Give the destructor a state it can end.
    ASSERT_EQ(deflateInit(&k.zstream_, Z_DEFAULT_COMPRESSION), Z_OK);
}

// A stream that appends into a string, so multi-megabyte output does not
// grow a heap stream 512 bytes at a time.
class StringStream : public TKstream {
public:
    std::string out;
    long read(void*, unsigned long, unsigned long& count) override
    {
        count = 0;
        return status(Error);
    }
    long write(const void* data, unsigned long len, unsigned long& count) override
    {
        out.append(static_cast<const char*>(data), len);
        count = len;
        return status(Ok);
    }
    long flush() override { return status(Ok); }
    bool eom() const override { return true; }
    long status() override { return status_; }
    long status(long code) override { return status_ = code; }

private:
    long status_ = Ok;
};

class BigKernel : public TestKernel {
public:
    StringStream big;
    TKstream* xstream() override { return &big; }
    void xbegin(const char* name, unsigned long len) override
    {
        big.out.clear();
        TAM_XmsgKernel::xbegin(name, len);
    }
};

// Lengths of 4 GiB and more are fed to zlib in pieces, not cut to 32 bits.
TEST_F(WriterMcode, PayloadBeyondFourGiB)
{
    const uint64_t len = (uint64_t(1) << 32) + 5;
    void* mem = mmap(nullptr, len, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_POPULATE, -1, 0);
    if (mem == MAP_FAILED)
        GTEST_SKIP() << "cannot map 4 GiB";
    TAM_DataTAG rec = {"z", static_cast<const unsigned char*>(mem), len};
    BigKernel k;
    int rc = k.send_call_result(0, &rec);
    std::string b64 = mcodeText(k.big.out);
    k.big.out.clear();
    munmap(mem, len);
    ASSERT_EQ(rc, 1);

    // Inflate as a stream, counting bytes and checking they are all zero.
    std::vector<unsigned char> bin;
    {
        TKbase64Decoder dec;
        unsigned char buf[4096];
        dec.write(reinterpret_cast<const unsigned char*>(b64.data()), static_cast<long>(b64.size()));
        long n;
        while ((n = dec.read(buf, sizeof buf)) > 0)
            bin.insert(bin.end(), buf, buf + n);
        dec.messageEnd();
        while ((n = dec.read(buf, sizeof buf)) > 0)
            bin.insert(bin.end(), buf, buf + n);
    }
    z_stream inf;
    std::memset(&inf, 0, sizeof inf);
    ASSERT_EQ(inflateInit(&inf), Z_OK);
    inf.next_in = bin.data();
    inf.avail_in = static_cast<uInt>(bin.size());
    std::vector<unsigned char> out(1 << 20), zero(1 << 20, 0);
    uint64_t total = 0;
    bool allZero = true;
    int zrc;
    do {
        inf.next_out = out.data();
        inf.avail_out = static_cast<uInt>(out.size());
        zrc = inflate(&inf, Z_NO_FLUSH);
        size_t got = out.size() - inf.avail_out;
        if (allZero && got > 0)
            allZero = std::memcmp(out.data(), zero.data(), got) == 0;
        total += got;
    } while (zrc == Z_OK);
    inflateEnd(&inf);
    EXPECT_EQ(zrc, Z_STREAM_END);
    EXPECT_EQ(total, len);
    EXPECT_TRUE(allZero);
}

} // namespace
