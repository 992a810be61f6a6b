// Speed and memory of the protocol paths that run per message, each beside
// the cheapest thing that does the same job (plain expat, snprintf, one-shot
// zlib and base64).
#include <benchmark/benchmark.h>
#include <expat.h>
#include <zlib.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "bench_budgets.h"
#include "support/TKT_stream.h"
#include "support/TKbase64.h"
#include "xmsg/TAM_XmsgKernel.h"
#include "xmsg/TAM_XmsgParser.h"
#include "xmsg/TAM_XmsgParserHandler.h"

// Counts operator new in this program, to show the steady state allocates
// nothing per message.
static std::atomic<long> gNews{0};
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

// Limits leave about 50% headroom over what this machine measured. Writing a
// command converts its text through QtCore, hence the distance to snprintf;
// the mcode writer beats one-shot zlib because it resets one deflate state
// instead of creating one per payload.
const std::vector<RatioBudget>& ratioBudgets()
{
    static const std::vector<RatioBudget> b = {
        {"BM_ReadOutputMessages", "BM_Baseline_ExpatOnly", 2.5},
        {"BM_WriteCmd", "BM_Baseline_Snprintf", 5.0},
        {"BM_WriteMCode64K", "BM_Baseline_Compress64K", 1.3},
        {"BM_ReadMCode64K", "BM_Baseline_Uncompress64K", 1.5},
    };
    return b;
}
const std::vector<CounterBudget>& counterBudgets()
{
    static const std::vector<CounterBudget> b = {
        {"BM_ReadOutputMessages", "news_per_msg", 0.0},
        {"BM_WriteCmd", "news_per_req", 0.0},
    };
    return b;
}

namespace {

class StreamKernel : public TAM_XmsgKernel {
public:
    long get_client_id() const override { return 1; }
    int set_kernel_name(const char*) override { return 0; }
    const char* get_kernel_name() const override { return nullptr; }
    TKstream* xstream() override { return &stream_; }
    void xbegin(const char* name, unsigned long len) override
    {
        stream_.clear();
        TAM_XmsgKernel::xbegin(name, len);
    }
    TKheapStream stream_{512, 512};
};

class OneClientHandler : public TAM_XmsgParserHandler {
public:
    TAM_KernelImpl* kernel(long id) override { return id == 1 ? &client : nullptr; }
    void onQuit() override {}
    StreamKernel client;
};

long gOutputs = 0;
unsigned long gBytes = 0;
void countOutput(TAM_KernelImpl*, void*, const char*, const char*, const char*)
{
    ++gOutputs;
}
void countData(TAM_KernelImpl*, void*, const char*, const TAM_DataTAG* d)
{
    gBytes += d->length;
}

const int kMessages = 64;

std::string outputMessages()
{
    std::string s;
    for (int i = 0; i < kMessages; ++i)
        s += "<output cl=\"1\" cid=\"" + std::to_string(1000 + i) +
             "\" type=\"result\"><text format=\"text\">cos(x)*x+sin(x)</text></output>"
             "<finished cl=\"1\" cid=\"" +
             std::to_string(1000 + i) + "\"/>";
    return s;
}

// Feeds in reads of at most 1024 bytes, as the input loop does.
template <class Feed>
void feedChunks(const std::string& s, Feed feed)
{
    for (size_t off = 0; off < s.size(); off += 1024)
        feed(s.data() + off, int(std::min<size_t>(1024, s.size() - off)));
}

void BM_ReadOutputMessages(benchmark::State& state)
{
    OneClientHandler handler;
    handler.client.on_output = countOutput;
    TAM_XmsgParser parser(&handler);
    parser.init();
    const std::string msgs = outputMessages();
    feedChunks(msgs, [&](const char* d, int n) { parser.saveParse(d, n); }); // warm-up
    long news = 0;
    for (auto _ : state) {
        long before = gNews.load();
        feedChunks(msgs, [&](const char* d, int n) { parser.saveParse(d, n); });
        news += gNews.load() - before;
    }
    state.SetItemsProcessed(state.iterations() * kMessages);
    state.counters["news_per_msg"] = double(news) / double(state.iterations() * kMessages);
}
BENCHMARK(BM_ReadOutputMessages);

void BM_Baseline_ExpatOnly(benchmark::State& state)
{
    XML_Parser p = XML_ParserCreate("UTF-8");
    long events = 0;
    XML_SetUserData(p, &events);
    XML_SetElementHandler(
        p, [](void* u, const char*, const char**) { ++*static_cast<long*>(u); },
        [](void* u, const char*) { ++*static_cast<long*>(u); });
    XML_SetCharacterDataHandler(p, [](void* u, const char*, int) { ++*static_cast<long*>(u); });
    XML_Parse(p, "<TamixXMsgClientMessage>", 24, 0);
    const std::string msgs = outputMessages();
    for (auto _ : state)
        feedChunks(msgs, [&](const char* d, int n) { XML_Parse(p, d, n, 0); });
    benchmark::DoNotOptimize(events);
    state.SetItemsProcessed(state.iterations() * kMessages);
    XML_ParserFree(p);
}
BENCHMARK(BM_Baseline_ExpatOnly);

const char kCommand[] = "diff(sin(x)*x,x)";

void BM_WriteCmd(benchmark::State& state)
{
    StreamKernel k;
    k.send_cmd(nullptr, kCommand, 0, nullptr); // warm-up
    long news = 0;
    for (auto _ : state) {
        long before = gNews.load();
        benchmark::DoNotOptimize(k.send_cmd(reinterpret_cast<void*>(17), kCommand, 0, nullptr));
        news += gNews.load() - before;
    }
    state.counters["news_per_req"] = double(news) / double(state.iterations());
}
BENCHMARK(BM_WriteCmd);

void BM_Baseline_Snprintf(benchmark::State& state)
{
    char buf[512];
    for (auto _ : state) {
        int n = std::snprintf(buf, sizeof buf,
                              "<cmd cl=\"%ld\" cid=\"%ld\"><text format=\"_lan\">%s</text></cmd>",
                              1L, 17L, kCommand);
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Baseline_Snprintf);

std::vector<unsigned char> payload64K()
{
    // Text-like data: an expression written out, compressible as real payloads are.
    std::string s;
    for (int i = 0; s.size() < 65536; ++i)
        s += "x^" + std::to_string(i) + "*sin(y" + std::to_string(i % 97) + ")+";
    return std::vector<unsigned char>(s.begin(), s.begin() + 65536);
}

void BM_WriteMCode64K(benchmark::State& state)
{
    StreamKernel k;
    const std::vector<unsigned char> p = payload64K();
    TAM_DataTAG d{"utf8", p.data(), p.size()};
    for (auto _ : state)
        benchmark::DoNotOptimize(k.send_cmd_data(nullptr, &d, 0, nullptr));
    state.SetBytesProcessed(state.iterations() * int64_t(p.size()));
}
BENCHMARK(BM_WriteMCode64K);

void BM_Baseline_Compress64K(benchmark::State& state)
{
    const std::vector<unsigned char> p = payload64K();
    std::vector<unsigned char> z(compressBound(p.size()));
    std::vector<unsigned char> text(TK_base64_encoded_length(long(z.size())));
    for (auto _ : state) {
        uLongf zlen = z.size();
        compress2(z.data(), &zlen, p.data(), p.size(), Z_DEFAULT_COMPRESSION);
        benchmark::DoNotOptimize(
            TK_base64_encode(text.data(), long(text.size()), z.data(), long(zlen)));
    }
    state.SetBytesProcessed(state.iterations() * int64_t(p.size()));
}
BENCHMARK(BM_Baseline_Compress64K);

std::string encodedPayload64K()
{
    const std::vector<unsigned char> p = payload64K();
    std::vector<unsigned char> z(compressBound(p.size()));
    uLongf zlen = z.size();
    compress2(z.data(), &zlen, p.data(), p.size(), Z_DEFAULT_COMPRESSION);
    std::vector<unsigned char> text(TK_base64_encoded_length(long(zlen)));
    long n = TK_base64_encode(text.data(), long(text.size()), z.data(), long(zlen));
    return std::string(text.begin(), text.begin() + n);
}

void BM_ReadMCode64K(benchmark::State& state)
{
    OneClientHandler handler;
    handler.client.on_output_data = countData;
    TAM_XmsgParser parser(&handler);
    parser.init();
    gBytes = 0; // the framework calls this function more than once
    const std::string msg = "<output cl=\"1\" cid=\"5\" type=\"result\"><mcode format=\"utf8\">" +
                            encodedPayload64K() + "</mcode></output>";
    for (auto _ : state)
        feedChunks(msg, [&](const char* d, int n) { parser.saveParse(d, n); });
    if (gBytes != 65536UL * state.iterations())
        state.SkipWithError("payload did not decode whole");
    state.SetBytesProcessed(state.iterations() * 65536);
}
BENCHMARK(BM_ReadMCode64K);

void BM_Baseline_Uncompress64K(benchmark::State& state)
{
    const std::string text = encodedPayload64K();
    std::vector<unsigned char> z(text.size());
    std::vector<unsigned char> out(65536);
    for (auto _ : state) {
        TKbase64Decoder dec;
        dec.write(reinterpret_cast<const unsigned char*>(text.data()), long(text.size()));
        long n = dec.read(z.data(), long(z.size()));
        dec.messageEnd();
        unsigned char c;
        while (dec.get(c))
            z[n++] = c;
        uLongf outLen = out.size();
        benchmark::DoNotOptimize(uncompress(out.data(), &outLen, z.data(), uLong(n)));
    }
    state.SetBytesProcessed(state.iterations() * 65536);
}
BENCHMARK(BM_Baseline_Uncompress64K);

} // namespace
