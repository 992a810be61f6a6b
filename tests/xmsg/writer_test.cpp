// The request writer: every request byte for byte, the words of the
// announcement, escaping, the guarded-write rule at every write position,
// and mcode payloads (deflated, base64, one zlib stream each).
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <zlib.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <random>

#include "common/ReaderHarness.h"

using writertest::TestKernel;

namespace {

const unsigned char kBytes[] = {'a', 'b', 'c'};
const TAM_DataTAG kAbc = {"abc", kBytes, 3}, kEmpty = {"abc", nullptr, 0},
                  kOdd = {"a\"<b\x01", kBytes, 3};
const char* kArgv[] = {"-l", "../lib"};

void* cookie(long v)
{
    return reinterpret_cast<void*>(static_cast<intptr_t>(v));
}

struct Req {
    int (*send)(TestKernel&);
    const char* want;
    bool contained; // writes user text or a payload, where a throwing write is caught
};
#define REQ(call, want)                                 \
    {                                                   \
        [](TestKernel& k) { return call; }, want, false \
    }
#define TXT(call, want)                                \
    {                                                  \
        [](TestKernel& k) { return call; }, want, true \
    }

// Client id 1 unless the row sets another.
const Req kRequests[] = {
    REQ((k.id_ = -1, k.send_new_client(nullptr, nullptr, 0x10000, 2, 1, 4)),
        "<newclient name =\"\" frame=\"\" longfmt=\"text\" floatfmt=\"ieee\" coding=\"ident \" "
        "features=\"can_quit \"/>"),
    TXT(k.send_new_client("a\"b", "<f>", 0, 0, 0, 0),
        "<newclient cl=\"1\" name =\"a&quot;b\" frame=\"&lt;f&gt;\" "
        "longfmt=\"\" floatfmt=\"\" coding=\"flat\" features=\"\"/>"),
    TXT(k.send_init(2, kArgv),
        "<init cl=\"1\"><iarg value=\"-l\"/><iarg value=\"../lib\"/></init>"),
    REQ((k.id_ = -1, k.send_init(-3, kArgv)), "<init></init>"),
    TXT(k.send_cmd(nullptr, "a < b & \"x\"", 0, nullptr),
        "<cmd cl=\"1\" cid=\"0\"><text format=\"_lan\">a &lt; b &amp; &quot;x&quot;</text></cmd>"),
    TXT(k.send_cmd(nullptr, "a < b & \"x\"", 1, "abc"),
        "<cmd cl=\"1\" cid=\"0\" flags=\"no_history\" format=\"abc\">"
        "<text format=\"_lan\">a &lt; b &amp; &quot;x&quot;</text></cmd>"),
    REQ(k.send_cmd(cookie(123456), nullptr, 2, ""),
        "<cmd cl=\"1\" cid=\"123456\"><text format=\"_lan\"></text></cmd>"),
    TXT(k.send_cmd(cookie(-2), "x", 3, "a&b"),
        "<cmd cl=\"1\" cid=\"-2\" flags=\"no_history\" format=\"a&amp;b\"><text "
        "format=\"_lan\">x</text></cmd>"),
    TXT(k.send_cmd_data(cookie(9), &kAbc, 1, "fm"),
        "<cmd cl=\"1\" cid=\"9\" flags=\"no_history\" format=\"fm\">"
        "<mcode format=\"abc\">eJxLTEoGAAJNASc=</mcode></cmd>"),
    REQ((k.id_ = -1, k.send_cmd_data(nullptr, nullptr, 0, nullptr)), "<cmd cid=\"0\"></cmd>"),
    TXT(k.send_completion_wanted("Int<"), "<complete cl=\"1\" value=\"Int&lt;\"/>"),
    TXT(k.send_dbg_cmd('q', nullptr, 0, nullptr),
        "<dbgcmd cl=\"1\" cmd=\"q\" fname=\"\" fpos=\"0\" expr=\"\"/>"),
    TXT(k.send_dbg_cmd('b', "f<1>.g", 17, "x>0 && y"),
        "<dbgcmd cl=\"1\" cmd=\"b\" fname=\"f&lt;1&gt;.g\" fpos=\"17\" expr=\"x&gt;0 &amp;&amp; "
        "y\"/>"),
    // A byte that would break the element is escaped; control bytes vanish.
    TXT(k.send_dbg_cmd('"', nullptr, -1, nullptr),
        "<dbgcmd cl=\"1\" cmd=\"&quot;\" fname=\"\" fpos=\"-1\" expr=\"\"/>"),
    REQ(k.send_dbg_cmd('\n', nullptr, 0, nullptr),
        "<dbgcmd cl=\"1\" cmd=\"\" fname=\"\" fpos=\"0\" expr=\"\"/>"),
    REQ(k.send_dbg_cmd(0x1F, nullptr, 0, nullptr),
        "<dbgcmd cl=\"1\" cmd=\"\" fname=\"\" fpos=\"0\" expr=\"\"/>"),
    REQ(k.send_system_result(0), "<sysresult cl=\"1\" value=\"0\"/>"),
    REQ(k.send_input(1, nullptr),
        "<input cl=\"1\" canceled=\"1\"><text format=\"_lan\"></text></input>"),
    TXT(k.send_input(0, "y & n"),
        "<input cl=\"1\" canceled=\"0\"><text format=\"_lan\">y &amp; n</text></input>"),
    REQ(k.send_textinput(5, nullptr), "<textinput cl=\"1\" canceled=\"1\"></textinput>"),
    TXT(k.send_textinput(0, "line\n2"), "<textinput cl=\"1\" canceled=\"0\">line\n2</textinput>"),
    REQ(k.send_call_result(7, nullptr), "<callresult cl=\"1\" error=\"1\"></callresult>"),
    REQ((k.id_ = -1, k.send_call_result(1, nullptr)), "<callresult error=\"1\"></callresult>"),
    TXT(k.send_call_result(0, &kAbc), "<callresult cl=\"1\" error=\"0\"><mcode "
                                      "format=\"abc\">eJxLTEoGAAJNASc=</mcode></callresult>"),
    TXT(k.send_call_result(0, &kEmpty),
        "<callresult cl=\"1\" error=\"0\"><mcode format=\"abc\">eJwDAAAAAAE=</mcode></callresult>"),
    TXT(k.send_call_result(0, &kOdd),
        "<callresult cl=\"1\" error=\"0\"><mcode "
        "format=\"a&quot;&lt;b\">eJxLTEoGAAJNASc=</mcode></callresult>"),
    REQ(k.send_textwidth(-1), "<textwidth cl=\"1\" value=\"-1\"/>"),
    REQ(k.send_pretty_print(2), "<prettyprint cl=\"1\" value=\"1\"/>"),
    REQ(k.send_abbreviate_output(-1), "<abbreviateoutput cl=\"1\" value=\"1\"/>"),
    REQ(k.send_format("Out", "text/plain"), "<format cl=\"1\" type=\"Out\" value=\"text/plain\"/>"),
    REQ(k.send_status_wanted(), "<sendstatus cl=\"1\"/>"),
    REQ(k.send_stop(), "<stop cl=\"1\"/>"),
    REQ(k.send_quit(), "<quit cl=\"1\"/>"),
    REQ((k.id_ = 0, k.send_quit()), "<quit cl=\"0\"/>"),
    REQ((k.id_ = LONG_MAX, k.send_stop()), "<stop cl=\"9223372036854775807\"/>"),
};

// Each request byte for byte. Then the guarded writes: failing write n (by a
// code or by throwing) leaves exactly writes 1..n-1, attempts no further
// write and never flushes, and the next request is whole. A throw is caught
// inside user text and payloads (the request gives 0) and reaches the caller
// elsewhere, always so at write 1. A failed flush fails the request.
TEST(Writer, EveryRequestWrittenAndGuarded)
{
    for (const Req& r : kRequests) {
        SCOPED_TRACE(r.want);
        TestKernel k(1);
        EXPECT_EQ(r.send(k), 1);
        EXPECT_EQ(k.text(), r.want);
        const bool flushes =
            std::strncmp(r.want, "<newclient", 10) != 0; // the transport sends that one itself
        EXPECT_EQ(k.stream.flushes, flushes ? 1 : 0);
        const long total = k.stream.writes;
        int caught = 0;
        for (long n = 1; n <= total; ++n)
            for (long code : {TKstream::Error, TKstream::OutOfMemory, 32L, 0L}) { // 0: throw
                k.stream.failAt = n;
                k.stream.failCode = code;
                k.stream.throws = code == 0;
                k.stream.flushes = 0;
                try {
                    EXPECT_EQ(r.send(k), 0) << n;
                    EXPECT_EQ(k.status_, code ? code : TKstream::Error);
                    EXPECT_EQ(k.xend(), 0);
                    EXPECT_TRUE(code || n > 1);
                    caught += code == 0;
                } catch (const std::bad_alloc&) {
                }
                EXPECT_EQ(k.stream.writes, n);
                EXPECT_EQ(k.stream.flushes, 0);
                EXPECT_LT(k.text().size(), std::strlen(r.want));
                EXPECT_EQ(std::string(r.want).compare(0, k.text().size(), k.text()), 0) << n;
                k.stream.failAt = 0;
                EXPECT_EQ(r.send(k), 1);
                EXPECT_EQ(k.text(), r.want);
            }
        EXPECT_EQ(caught > 0, r.contained);
        k.stream.failFlush = true;
        EXPECT_EQ(r.send(k), flushes ? 0 : 1);
    }
}

// The words of the formats and codings; each feature bit alone, then all of them in table order.
TEST(Writer, AnnouncementWords)
{
    const struct {
        unsigned char longfmt, floatfmt, coding;
        const char* want;
    } rows[] = {{3, 2, 7, "longfmt=\"gmp\" floatfmt=\"text\" coding=\"ref ident prop \""},
                {9, 9, 8, "longfmt=\"\" floatfmt=\"\" coding=\"\""},
                {2, 1, 1, "longfmt=\"text\" floatfmt=\"ieee\" coding=\"ref \""},
                {2, 1, 2, "longfmt=\"text\" floatfmt=\"ieee\" coding=\"prop \""}};
    TestKernel k;
    for (const auto& r : rows) {
        k.send_new_client(nullptr, nullptr, 0x3C0 | 0x100000, r.longfmt, r.floatfmt,
                          r.coding); // unlisted bits
        EXPECT_EQ(k.text(),
                  std::string("<newclient name =\"\" frame=\"\" ") + r.want + " features=\"\"/>");
    }
    const char* words[] = {"stay_alive",  "complete_commands", "can_debug",       "can_lazy_debug",
                           "debugger_ui", "can_plot",          "can_input",       "can_textinput",
                           "can_help",    "can_help_dvi",      "can_browse_help", "can_exec_system",
                           "can_quit",    "can_callback",      "can_typeset",     "can_protocol"};
    const long bits[] = {0x1,    0x2,    0x4,    0x8,    0x10,    0x20,    0x400,   0x800,
                         0x1000, 0x2000, 0x4000, 0x8000, 0x10000, 0x20000, 0x40000, 0x80000};
    std::string all;
    for (int i = 0; i <= 16; ++i) {
        k.send_new_client(nullptr, nullptr, i < 16 ? bits[i] : 0xFFFFF, 2, 1, 4);
        const std::string want = i < 16 ? words[i] + std::string(" ") : all;
        EXPECT_EQ(k.text().substr(k.text().find("features=")), "features=\"" + want + "\"/>");
        all += want;
    }
}

TEST(Writer, Escaping)
{
    TestKernel k(1);
    // Tab and line ends stay, other control bytes go; UTF-8 passes the UTF-8 locale whole.
    k.xput_cdata("\t\n\r|\x01\x07\x1B\x1F|'\"&<>\xC3\xA9\xE2\x82\xAC");
    EXPECT_EQ(k.text(), "\t\n\r||&apos;&quot;&amp;&lt;&gt;\xC3\xA9\xE2\x82\xAC");
    TestKernel w;
    w.xput_ascii_cdata("\x02"
                       "a'\x7F\xFF\x1F"); // protocol words: the same table, no conversion
    EXPECT_EQ(w.text(), "a&apos;\x7F\xFF");
}

// The conversion itself throws when the address space is capped just above
// what the process uses and the text is large.
TEST(Writer, ThrowingConversionFailsOnlyThatRequest)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "address-space limits do not work under AddressSanitizer";
#endif
    TestKernel k(1);
    const std::string big(64u << 20, 'x');
    ASSERT_EQ(k.send_cmd(nullptr, "warm", 0, nullptr), 1);
    unsigned long pages = 0;
    FILE* f = std::fopen("/proc/self/statm", "r");
    ASSERT_TRUE(f && std::fscanf(f, "%lu", &pages) == 1);
    std::fclose(f);
    rlimit old, cap;
    ASSERT_EQ(getrlimit(RLIMIT_AS, &old), 0);
    cap = {pages * 4096ul + (32ul << 20), old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_AS, &cap), 0);
    const int results[] = {k.send_cmd(nullptr, big.c_str(), 0, nullptr),
                           static_cast<int>(k.status_), k.send_cmd(nullptr, "after", 0, nullptr)};
    setrlimit(RLIMIT_AS, &old);
    EXPECT_EQ(std::vector<int>(results, results + 3), (std::vector<int>{0, TKstream::Error, 1}));
}

// ---- mcode ---------------------------------------------------------------------

std::string mcodeText(const std::string& req)
{
    const std::size_t start = req.find("\">", req.find("<mcode format=\"")) + 2;
    return req.substr(start, req.find("</mcode>", start) - start);
}

// Many pieces of text, read back by the reader.
TEST(Writer, LargePayloadsRoundTrip)
{
    std::mt19937 rng(12345);
    std::string random(100000, '\0');
    for (char& c : random)
        c = static_cast<char>(rng());
    TestKernel k(2);
    for (const std::string& data : {random, std::string(100000, '\0')}) {
        const TAM_DataTAG rec = {"f", reinterpret_cast<const unsigned char*>(data.data()),
                                 data.size()};
        ASSERT_EQ(k.send_call_result(0, &rec), 1);
        const std::string b64 = mcodeText(k.text());
        EXPECT_EQ(k.text(), "<callresult cl=\"2\" error=\"0\"><mcode format=\"f\">" + b64 +
                                "</mcode></callresult>");
        rh::Session s;
        EXPECT_TRUE(s.feed("<callback cl=\"1\"><mcode>" + b64 + "</mcode></callback>"));
        EXPECT_TRUE(rh::gPayload == data);
    }
    EXPECT_LT(mcodeText(k.text()).size(), 400u) << "zeros compress";
    ASSERT_EQ(k.send_call_result(0, &kAbc), 1);
    EXPECT_EQ(mcodeText(k.text()), "eJxLTEoGAAJNASc=") << "each payload is a stream of its own";
}

// A deflate that fails, as it does over a state whose set-up failed: this
// executable interposes the deflate the library calls.
bool gDeflateFails = false;

} // namespace

extern "C" int deflate(z_streamp s, int flush)
{
    static const auto real = reinterpret_cast<int (*)(z_streamp, int)>(dlsym(RTLD_NEXT, "deflate"));
    return gDeflateFails ? Z_STREAM_ERROR : real(s, flush);
}

namespace {

// A failing compressor fails the payload and leaves the element open; the
// next request, and the next payload, are whole.
TEST(Writer, DeflateErrorFailsTheRequest)
{
    TestKernel k(1);
    gDeflateFails = true;
    EXPECT_EQ(k.send_call_result(0, &kAbc), 0);
    gDeflateFails = false;
    EXPECT_EQ(k.status_, TKstream::Error);
    EXPECT_EQ(k.text(), "<callresult cl=\"1\" error=\"0\"><mcode format=\"abc\">");
    EXPECT_EQ(k.send_stop(), 1);
    EXPECT_EQ(k.send_call_result(0, &kAbc), 1);
    EXPECT_EQ(mcodeText(k.text()), "eJxLTEoGAAJNASc=");
}

} // namespace
