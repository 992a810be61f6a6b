// The protocol paths that run inside this process, each beside the least a
// program must do for the same job: plain expat with empty handlers for the
// reader; table base64 and inflate (in 1024-byte passes, straight into the
// result) for payload decoding; deflate alone on a reset state for payload
// encoding.
#include <expat.h>
#include <zlib.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "bench_budgets.h"
#include "common/AllocCount.h"
#include "support/TKT_stream.h"
#include "support/TKpayload.h"
#include "xmsg/TAM_XmsgKernel.h"
#include "xmsg/TAM_XmsgParser.h"
#include "xmsg/TAM_XmsgParserHandler.h"

namespace {

// ---- reading short messages ------------------------------------------------------

class NoTransport : public TAM_XmsgKernel {
public:
    long get_client_id() const override { return 1; }
    int set_kernel_name(const char*) override { return 0; }
    const char* get_kernel_name() const override { return nullptr; }
    TKstream* xstream() override { return &stream_; }
    TKgrowingStream stream_;
};

class OneClientHandler : public TAM_XmsgParserHandler {
public:
    TAM_KernelImpl* kernel(long id) override { return id == 1 ? &client : nullptr; }
    void onQuit() override {}
    NoTransport client;
};

long gDelivered = 0;

const int kPairs = 64;

// Output messages with a short ASCII text, each followed by its finished
// message, as a command's answer comes.
std::string shortMessages()
{
    std::string s;
    for (int i = 0; i < kPairs; ++i)
        s += "<output cl=\"1\" cid=\"" + std::to_string(1000 + i) +
             "\" type=\"result\"><text format=\"text\">cos(x)*x+sin(x)</text></output>"
             "<finished cl=\"1\" cid=\"" +
             std::to_string(1000 + i) + "\"/>";
    return s;
}

// In reads of at most 1024 bytes, as the input loop hands them over.
template <class Feed>
void feedChunks(const std::string& s, Feed feed)
{
    for (size_t off = 0; off < s.size(); off += 1024)
        feed(s.data() + off, int(std::min<size_t>(1024, s.size() - off)));
}

struct Reader {
    OneClientHandler handler;
    TAM_XmsgParser parser{&handler};
    Reader()
    {
        handler.client.on_output = [](TAM_KernelImpl*, void*, const char*, const char*,
                                      const char*) { ++gDelivered; };
        handler.client.on_finished = [](TAM_KernelImpl*, void*) { ++gDelivered; };
        parser.init();
    }
    void read(const std::string& s)
    {
        feedChunks(s, [this](const char* d, int n) { parser.saveParse(d, n); });
    }
};

struct PlainExpat {
    XML_Parser p = XML_ParserCreate("UTF-8");
    PlainExpat()
    {
        XML_SetElementHandler(
            p, [](void*, const char*, const char**) {}, [](void*, const char*) {});
        XML_SetCharacterDataHandler(p, [](void*, const char*, int) {});
        XML_Parse(p, "<TamixXMsgClientMessage>", 24, 0);
    }
    ~PlainExpat() { XML_ParserFree(p); }
    void read(const std::string& s)
    {
        feedChunks(s, [this](const char* d, int n) { XML_Parse(p, d, n, 0); });
    }
};

const int kReadsPerRound = 4;

void BM_ReadShortMessages(benchmark::State& state)
{
    Reader reader;
    PlainExpat expat;
    const std::string msgs = shortMessages();
    reader.read(msgs);
    expat.read(msgs);
    gDelivered = 0;
    long reads = 0;
    Pairs pairs(state, Clock::Cpu);
    for (auto _ : state)
        pairs.round(
            [&] {
                for (int i = 0; i < kReadsPerRound; ++i, ++reads)
                    reader.read(msgs);
            },
            [&] {
                for (int i = 0; i < kReadsPerRound; ++i)
                    expat.read(msgs);
            });
    if (gDelivered != reads * 2 * kPairs)
        return state.SkipWithError("messages were lost");
    pairs.report(Goal::AtLeast, 2.0 * kPairs * kReadsPerRound);
}
BENCHMARK(BM_ReadShortMessages)->Iterations(301)->UseManualTime();
const bool kReadBudget =
    addBudget({"reading short output+finished messages vs plain expat (throughput)",
               "BM_ReadShortMessages/iterations:301/manual_time", "ratio", Goal::AtLeast, 0.85});

// A counter that is not interposed (a sanitizer build) must not pass a
// budget of zero.
bool countsAllocations()
{
    return tamixtest::allocationsDuring([] {
               void* p = std::malloc(64);
               benchmark::DoNotOptimize(p);
               std::free(p);
           }) == 1;
}

void BM_AllocationsPerMessage(benchmark::State& state)
{
    if (!countsAllocations())
        return state.SkipWithError("allocations are not counted in this build");
    Reader reader;
    const std::string msgs = shortMessages();
    reader.read(msgs);
    long allocs = 0;
    for (auto _ : state)
        allocs += tamixtest::allocationsDuring([&] { reader.read(msgs); });
    state.counters["allocs_per_msg"] = double(allocs) / double(2 * kPairs * state.iterations());
}
BENCHMARK(BM_AllocationsPerMessage)->Iterations(100);
const bool kAllocBudget =
    addBudget({"heap allocations per short ASCII output message (whole process)",
               "BM_AllocationsPerMessage/iterations:100", "allocs_per_msg", Goal::AtMost, 0});

// ---- payloads ------------------------------------------------------------------

const size_t kPayloadSize = 1 << 20;

std::vector<unsigned char> payload(bool text)
{
    std::vector<unsigned char> p;
    p.reserve(kPayloadSize);
    if (text) {
        // An expression written out: compressible as real payloads are.
        for (int i = 0; p.size() < kPayloadSize; ++i) {
            const std::string term =
                "x^" + std::to_string(i) + "*sin(y" + std::to_string(i % 97) + ")+";
            p.insert(p.end(), term.begin(), term.end());
        }
        p.resize(kPayloadSize);
    } else {
        std::mt19937 rng(5);
        while (p.size() < kPayloadSize)
            p.push_back(static_cast<unsigned char>(rng()));
    }
    return p;
}

// Everything the codec writes goes here; cleared, not freed, between rounds.
struct Collect : TKpayloadSink {
    TKgrowingStream stream;
    long put(const unsigned char* data, unsigned long len) override
    {
        unsigned long count;
        return stream.write(data, len, count);
    }
};

std::string encodedText(const std::vector<unsigned char>& p)
{
    TKpayloadEncoder encoder;
    Collect out;
    encoder.encode(p.data(), p.size(), out);
    return std::string(reinterpret_cast<char*>(out.stream.data()), out.stream.length());
}

// Table base64 of clean text, whole.
size_t tableBase64(const std::string& text, unsigned char* out)
{
    static const std::vector<unsigned char> table = [] {
        std::vector<unsigned char> t(256, 64);
        const char a[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        for (int i = 0; i < 64; ++i)
            t[static_cast<unsigned char>(a[i])] = static_cast<unsigned char>(i);
        return t;
    }();
    const auto* in = reinterpret_cast<const unsigned char*>(text.data());
    size_t n = text.size();
    while (n > 0 && in[n - 1] == '=')
        --n;
    size_t o = 0, i = 0;
    for (; i + 4 <= n; i += 4) {
        const unsigned v =
            table[in[i]] << 18 | table[in[i + 1]] << 12 | table[in[i + 2]] << 6 | table[in[i + 3]];
        out[o++] = static_cast<unsigned char>(v >> 16);
        out[o++] = static_cast<unsigned char>(v >> 8);
        out[o++] = static_cast<unsigned char>(v);
    }
    unsigned v = 0;
    for (size_t k = i; k < n; ++k)
        v |= table[in[k]] << (18 - 6 * (k - i));
    for (size_t k = 1; k < n - i; ++k)
        out[o++] = static_cast<unsigned char>(v >> (24 - 8 * k));
    return o;
}

void decodePayload(benchmark::State& state, bool text)
{
    const std::vector<unsigned char> p = payload(text);
    const std::string encoded = encodedText(p);
    TKpayloadDecoder decoder;
    Collect ours;
    std::vector<unsigned char> decoded(encoded.size()), raw(kPayloadSize + 1024);
    z_stream z{};
    inflateInit(&z);
    unsigned long rawLength = 0;
    Pairs pairs(state, Clock::Cpu);
    for (auto _ : state)
        pairs.round(
            [&] {
                ours.stream.clear();
                // In pieces of at most 1024 characters, as they come in reads.
                for (size_t off = 0; off < encoded.size(); off += 1024)
                    decoder.write(encoded.data() + off,
                                  static_cast<long>(std::min<size_t>(1024, encoded.size() - off)),
                                  ours);
                decoder.finish(ours);
            },
            [&] {
                z.next_in = decoded.data();
                z.avail_in = static_cast<uInt>(tableBase64(encoded, decoded.data()));
                z.next_out = raw.data();
                int rc;
                do {
                    z.avail_out = 1024;
                    rc = inflate(&z, Z_SYNC_FLUSH);
                } while (rc == Z_OK);
                rawLength = z.total_out;
                inflateReset(&z);
            });
    inflateEnd(&z);
    if (ours.stream.length() != kPayloadSize || rawLength != kPayloadSize ||
        std::memcmp(ours.stream.data(), p.data(), kPayloadSize) != 0)
        return state.SkipWithError("a payload did not decode whole");
    pairs.report(Goal::AtLeast);
}

void encodePayload(benchmark::State& state, bool text)
{
    const std::vector<unsigned char> p = payload(text);
    TKpayloadEncoder encoder;
    Collect ours;
    std::vector<unsigned char> raw(deflateBound(nullptr, kPayloadSize));
    z_stream z{};
    deflateInit(&z, Z_DEFAULT_COMPRESSION);
    Pairs pairs(state, Clock::Cpu);
    for (auto _ : state)
        pairs.round(
            [&] {
                ours.stream.clear();
                encoder.encode(p.data(), p.size(), ours);
            },
            [&] {
                z.next_in = const_cast<unsigned char*>(p.data());
                z.avail_in = static_cast<uInt>(p.size());
                z.next_out = raw.data();
                z.avail_out = static_cast<uInt>(raw.size());
                deflate(&z, Z_FINISH);
                deflateReset(&z);
            });
    deflateEnd(&z);
    pairs.report(Goal::AtLeast);
}

void BM_DecodePayloadText(benchmark::State& state)
{
    decodePayload(state, true);
}
void BM_DecodePayloadRandom(benchmark::State& state)
{
    decodePayload(state, false);
}
void BM_EncodePayloadText(benchmark::State& state)
{
    encodePayload(state, true);
}
void BM_EncodePayloadRandom(benchmark::State& state)
{
    encodePayload(state, false);
}
BENCHMARK(BM_DecodePayloadText)->Iterations(31)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DecodePayloadRandom)->Iterations(31)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EncodePayloadText)->Iterations(15)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EncodePayloadRandom)->Iterations(15)->UseManualTime()->Unit(benchmark::kMillisecond);

const bool kPayloadBudgets =
    addBudget({"decoding a 1 MiB mcode payload, expression text, vs raw pipeline",
               "BM_DecodePayloadText/iterations:31/manual_time", "ratio", Goal::AtLeast, 0.9}) &&
    addBudget({"decoding a 1 MiB mcode payload, random bytes, vs raw pipeline",
               "BM_DecodePayloadRandom/iterations:31/manual_time", "ratio", Goal::AtLeast, 0.9}) &&
    addBudget({"encoding a 1 MiB mcode payload, expression text, vs deflate",
               "BM_EncodePayloadText/iterations:15/manual_time", "ratio", Goal::AtLeast, 0.95}) &&
    addBudget({"encoding a 1 MiB mcode payload, random bytes, vs deflate",
               "BM_EncodePayloadRandom/iterations:15/manual_time", "ratio", Goal::AtLeast, 0.95});

} // namespace
