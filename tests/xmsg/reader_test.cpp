// The kernel message reader: every message of the vocabulary reaches the
// right handler of the right client with its arguments, however the stream
// is cut; payloads, lists, the defaults' answers, and failures.
#include <gtest/gtest.h>

#include <cstring>
#include <new>
#include <zlib.h>

#include <stdexcept>

#include "common/ReaderHarness.h"
#include "support/TKbase64.h"

using namespace rh;

namespace {

// cut: bytes taken off the end; flip: damage the last byte (the check sum's).
std::string base64OfDeflated(const std::string& bytes, int level = Z_DEFAULT_COMPRESSION,
                             long cut = 0, bool flip = false)
{
    uLongf n = compressBound(bytes.size());
    std::string z(n, '\0'), out(TK_base64_encoded_length(n), '\0');
    compress2(reinterpret_cast<Bytef*>(&z[0]), &n, reinterpret_cast<const Bytef*>(bytes.data()),
              bytes.size(), level);
    z.resize(n - cut);
    z.back() ^= flip;
    out.resize(TK_base64_encode(reinterpret_cast<unsigned char*>(&out[0]), out.size(),
                                reinterpret_cast<const unsigned char*>(z.data()), z.size()));
    return out;
}

std::string callback(const std::string& b64)
{
    return "<callback cl=\"1\" cid=\"2\"><mcode format=\"f\">" + b64 + "</mcode></callback>";
}

const char kAbc64[] = "eJxLTEoGAAJNASc="; // "abc"
const std::string kAbcCall = "#1 callback 2 'f' 3 'abc'";

TEST(Reader, MessagesDeliveredAtTheirStartTag)
{
    expectCallsAllSplits(
        "<ready cl=\"1\"/>\n<sendinit cl=\"2\"/>\n<reset cl=\"1\"/>\n<finished cl=\"1\" "
        "cid=\"-42\"/>"
        "<finished cl=\"2\" cid=\"140724910839416\"/><complete cid=\"7\" cl=\"2\"/><senddbgcmd "
        "cl=\"1\" cid=\"9\"/>"
        "<plotfile cl=\"1\" cid=\"3\" name=\"/tmp/p q.eps\"/>"
        "<completion cl=\"1\" list=\"sin sinh\" pref=\"si\"/><completion cl=\"2\" list=\"x\"/>"
        "<dbginfo cl=\"1\" cmd=\"step\" fname=\"f.g\" fpos=\"12\" expr=\"a&lt;b &amp; c\" "
        "level=\"2\" depth=\"5\"/>"
        "<dbginfo cl=\"1\" cmd=\"\"/><frame cl=\"1\" value=\"main\"/><help cl=\"2\" "
        "value=\"&quot;f(x)&quot;\"/>"
        "<system cl=\"1\" value=\"ls -l\"/><prettyprint cl=\"1\" value=\"2\"/><prettyprint "
        "cl=\"1\" value=\"x\"/>"
        "<abbreviateoutput cl=\"1\" value=\"-1\"/><abbreviateoutput cl=\"1\"/>"
        "<textwidth cl=\"1\" value=\"-5\"/><textwidth cl=\"2\" value=\" 80cols\"/>"
        "<status cl=\"1\" sec=\"3\" res=\"2\" used=\"100\"/><status cl=\"1\" enc=\"1\" Used=\"4\" "
        "used=\"abc\"/>"
        "<status cl=\"1\" used=\"+7\" res=\"99999999999999999999\" "
        "sec=\" -000000000000000000012x\"/>"
        "<ready cl=\"abc\"/><ready cl=\" 2\"/>",
        {"#1 ready",
         "#2 init_wanted",
         "#1 reset",
         "#1 finished -42",
         "#2 finished 140724910839416",
         "#2 complete 7",
         "#1 dbgcmd 9",
         "#1 plotfile 3 '/tmp/p q.eps'",
         "#1 completion 'sin sinh' 'si'",
         "#2 completion 'x' ''",
         "#1 dbginfo 115 'f.g' 12 'a<b & c' 2 5",
         "#1 dbginfo 0 '' 0 '' 0 0",
         "#1 frame 'main'",
         "#2 help '\"f(x)\"'",
         "#1 system 'ls -l'",
         "#1 prettyprint 1",
         "#1 prettyprint 0",
         "#1 abbreviate 1",
         "#1 abbreviate 0",
         "#1 textwidth -5",
         "#2 textwidth 80",
         "#1 status 100 2 3",
         "#1 status 0 0 0",
         "#1 status 7 9223372036854775807 -12",
         "#0 ready",
         "#2 ready"});
}

TEST(Reader, MessagesDeliveredAtTheirEndTag)
{
    std::string longText;
    for (int i = 0; longText.size() < 5000; ++i)
        longText += "line " + std::to_string(i) + " ";
    expectCallsAllSplits(
        "stray<output cl=\"1\" cid=\"17\" type=\"a\" x=\"y\">junk<text format=\"b\" "
        "enc=\"q\">Hello</text>"
        "more</output><output cl=\"2\"/><output cl=\"1\" type=\"t\"><text>a&lt;b&amp;c\nline "
        "2</text></output>"
        "<output cl=\"1\"><text>" +
            longText +
            "</text></output>"
            "<sendinput cl=\"1\" cid=\"4\" text=\"1\"><text>Name? </text></sendinput>"
            "<sendinput cl=\"2\" text=\"0\">no prompt</sendinput>"
            "<sendinput cl=\"1\" text=\"7\"><mcode "
            "format=\"m\">eJxLTEoGAAJNASc=</mcode></sendinput>"
            "<callback cl=\"1\" cid=\"5\"><mcode "
            "format=\"abc\">eJxLTEoGAAJNASc=</mcode></callback><callback cl=\"2\"/>"
            "<callback cl=\"2\"><mcode format=\"e\">eJwDAAAAAAE=</mcode></callback>"
            "<output cl=\"2\" type=\"t\"><mcode></mcode></output>"
            "<output cl=\"1\" type=\"y\"><text format=\"t\">longer</text><mcode "
            "format=\"m\">eJxLTEoGAAJNASc=</mcode>"
            "</output><output cl=\"1\" type=\"z\"><mcode>eJxLTEoGAAJNASc=</mcode><text "
            "format=\"t\">xy</text></output>"
            "<format cl=\"1\" type=\"real\"><fmt name=\"f1\"/><fmt name=\"f2\"/></format>"
            "<format cl=\"1\" type=\"none\"/><format cl=\"2\"><fmt/></format>"
            "<selformat cl=\"2\" type=\"t\"><fmt name=\"a\"/><fmt name=\"b\"/><fmt "
            "name=\"c\"/></selformat>"
            "<selformat cl=\"1\" type=\"u\"><fmt name=\"c\"/></selformat><selformat cl=\"1\" "
            "type=\"w\"/>"
            "<breakpoints cl=\"1\"><breakpt fname=\"f.g\" fpos=\"3\" cond=\"x&gt;1\"/><breakpt/>"
            "<breakpt fname=\"h.g\" fpos=\"-30\"/></breakpoints><csframe fname=\"stray\"/>"
            "<callstack cl=\"2\" level=\"2\"><csframe fname=\"a\" fpos=\"1\" proc=\"p\"/>"
            "<csframe fname=\"b\" fpos=\"2\" proc=\"q\"/></callstack>"
            "<display cl=\"1\"><dispvar name=\"x\" value=\"1\"/><dispvar value=\"[2]\"/></display>"
            "<breakpoints cl=\"1\"/><callstack cl=\"2\" level=\"4\"></callstack><display "
            "cl=\"1\"/>",
        {"#1 output 17 'a' 'b' 'Hello'", "#2 output 0 '' '' ''",
         "#1 output 0 't' '' 'a<b&c\\x0Aline 2'", "#1 output 0 '' '' '" + longText + "'",
         "#1 input_wanted 4 1 'Name? '", "#2 input_wanted 0 0 ''", "#1 input_wanted 0 1 ''",
         "#1 callback 5 'abc' 3 'abc'", "#2 callback 0 '' 0 ''", "#2 callback 0 'e' 0 ''",
         "#2 output_data 0 't' '' 0 ''",
         // the later of text and mcode decides
         "#1 output_data 0 'y' 'm' 3 'abc'", "#1 output 0 'z' 't' 'xy'", "#1 format 'real' 'f1'",
         "#2 format '' ''", "#2 selformat 't' 3 ['a','b','c']", "#1 selformat 'u' 1 ['c']",
         "#1 selformat 'w' 0 null", "#1 breakpoints 3 ['f.g','','h.g'] [3,0,-30] ['x>1','','']",
         "#2 callstack 2 2 ['a','b'] [1,2] ['p','q']", "#1 display 2 ['x',''] ['1','[2]']",
         "#1 breakpoints 0 null null null", "#2 callstack 4 0 null null null",
         "#1 display 0 null null"});
}

// Unknown elements are skipped with their content, messages for unknown
// clients (or none) go nowhere, and nothing of them shows in later messages.
TEST(Reader, UnknownElementsAndClientsGetNothing)
{
    expectCallsAllSplits(
        "<output cl=\"1\"><text>Hel<b>bold <i>it</i><ready cl=\"2\"/></b>lo</text></output>"
        "<foo><ready cl=\"1\"/></foo><Ready cl=\"1\"/><readyx cl=\"1\"/><rea cl=\"1\"/>"
        "<output cl=\"2\"><unknown/><text>t</text><x>y</x></output><ready cl=\"7\"/><ready/>"
        "<output cl=\"9\" cid=\"1\" type=\"q\"><text format=\"f\">lost</text></output>"
        "<format cl=\"9\" type=\"q\"><fmt name=\"f\"/></format><display "
        "cl=\"9\"><dispvar/></display>"
        "<callback cl=\"9\"><mcode>" +
            base64OfDeflated(std::string(3000, 'u'), 0, 1500) +
            "</mcode></callback><output cl=\"2\"/><selformat cl=\"1\"/>" + callback(kAbc64),
        {"#1 output 0 '' '' 'Hello'", "#2 output 0 '' '' 't'", "#2 output 0 '' '' ''",
         "#1 selformat '' 0 null", kAbcCall});
    Session s;
    s.clients[1].on_output = nullptr; // an empty slot is skipped
    EXPECT_TRUE(s.feed("<output cl=\"1\"><text>x</text></output><output cl=\"2\"/>"));
    EXPECT_EQ(gCalls, std::vector<std::string>{"#2 output 0 '' '' ''"});
}

// A text or mcode element after its message has ended still collects for
// that message's client, but a content message that follows starts empty.
TEST(Reader, StrayContentStaysOutOfTheNextMessage)
{
    expectCallsAllSplits("<output cl=\"1\"><text>a</text></output><text format=\"s\">stray</text>"
                         "<callback cl=\"1\" cid=\"2\"/><text>p</text><sendinput cl=\"1\"/>"
                         "<mcode format=\"m\">eJxLTEoGAAJNASc=</mcode><output cl=\"1\"/>"
                         "<output cl=\"2\"><text>u</text></output>",
                         {"#1 output 0 '' '' 'a'", "#1 callback 2 '' 0 ''",
                          "#1 input_wanted 0 0 ''", "#1 output 0 '' '' ''",
                          "#2 output 0 '' '' 'u'"});
}

// A first message without content reads as empty text, whatever the memory
// the reader was built in held before.
TEST(Reader, FirstMessageWithoutContentIsEmptyInReusedMemory)
{
    alignas(Session) unsigned char memory[sizeof(Session)];
    std::memset(memory, 'a', sizeof memory);
    Session* s = new (memory) Session;
    s->feed("<output cl=\"1\"/>");
    EXPECT_EQ(gCalls, std::vector<std::string>{"#1 output 0 '' '' ''"});
    s->~Session();
}

TEST(Reader, QuitWithAndWithoutClientKeepsTheCurrentClient)
{
    Session s;
    EXPECT_TRUE(
        s.feed("<ready cl=\"2\"/><quit/><quit cl=\"1\"/><quit cl=\"55\" foo=\"1\"></quit>"));
    EXPECT_EQ(s.reader.kernel_, &s.clients[2]);
    EXPECT_EQ(s.reader.lookups, (std::vector<long>{2})) << "quit never looks up a client";
    EXPECT_EQ(gCalls, (std::vector<std::string>{"#2 ready", "onQuit", "onQuit", "onQuit"}));
}

TEST(Reader, ListsOfUnequalLengthAreNotDelivered)
{
    Session s;
    EXPECT_TRUE(
        s.feed("<breakpoints cl=\"1\"><breakpt fname=\"a\"/><dispvar name=\"x\"/></breakpoints>"
               "<callstack cl=\"1\" level=\"1\"><dispvar name=\"x\"/><csframe/></callstack>"));
    EXPECT_TRUE(gCalls.empty());
    EXPECT_TRUE(s.reader.dbgNames_.empty() && s.reader.dbgTexts_.empty() &&
                s.reader.dbgPositions_.empty());
    // A display needs names and values only; positions do not count.
    EXPECT_TRUE(s.feed("<display cl=\"1\"><dispvar name=\"x\" value=\"1\"/><breakpt fname=\"y\" "
                       "cond=\"2\"/></display>"));
    EXPECT_EQ(gCalls, (std::vector<std::string>{"#1 display 2 ['x','y'] ['1','2']"}));
}

TEST(Reader, FormatNamesAreInternedForTheHandlersLife)
{
    static std::vector<const char*> seen;
    Session s;
    s.clients[1].on_select_format = [](K*, const char*, long n, const char** f) {
        seen.assign(f, f + n);
    };
    EXPECT_TRUE(s.feed(
        "<selformat cl=\"1\"><fmt name=\"a\"/><fmt name=\"b\"/><fmt name=\"a\"/></selformat>"));
    const std::vector<const char*> first = seen;
    EXPECT_TRUE(s.feed("<selformat cl=\"1\"><fmt name=\"b\"/></selformat>"));
    ASSERT_EQ(first.size(), 3u);
    EXPECT_EQ(first[0], first[2]);
    EXPECT_EQ(seen, std::vector<const char*>{first[1]});
    EXPECT_STREQ(first[0], "a");
}

// What a client with only the default handlers sends back.
TEST(Reader, DefaultHandlersAnswerTheKernel)
{
    const char* const rows[][2] = {
        {"<sendinit cl=\"1\"/>", "<init cl=\"1\"></init>"},
        {"<sendinput cl=\"1\" cid=\"3\"><text>?</text></sendinput>",
         "<input cl=\"1\" canceled=\"1\"><text format=\"_lan\"></text></input>"},
        {"<sendinput cl=\"1\" text=\"5\"/>", "<textinput cl=\"1\" canceled=\"1\"></textinput>"},
        {"<callback cl=\"1\"><mcode>eJxLTEoGAAJNASc=</mcode></callback>",
         "<callresult cl=\"1\" error=\"1\"></callresult>"},
        {"<system cl=\"1\" value=\"rm -rf /\"/>", "<sysresult cl=\"1\" value=\"1\"/>"},
        {"<senddbgcmd cl=\"1\" cid=\"2\"/>",
         "<dbgcmd cl=\"1\" cmd=\"q\" fname=\"\" fpos=\"0\" expr=\"\"/>"},
        {"<selformat cl=\"1\" type=\"real\"><fmt name=\"b\"/><fmt name=\"c\"/></selformat>",
         "<format cl=\"1\" type=\"real\" value=\"b\"/>"},
        {"<selformat cl=\"1\" type=\"real\"/>", "<format cl=\"1\" type=\"real\" value=\"\"/>"},
        {"<ready cl=\"1\"/><output cl=\"1\"><text>x</text></output><finished cl=\"1\"/><help "
         "cl=\"1\"/>",
         ""},
    };
    for (const auto& r : rows) {
        Session s;
        s.clients[1].reset_message_handler();
        EXPECT_TRUE(s.feed(r[0]));
        EXPECT_TRUE(gCalls.empty());
        EXPECT_EQ(s.clients[1].text(), r[1]);
    }
}

// ---- payloads ------------------------------------------------------------------

TEST(Reader, PayloadSplitAtEveryPosition)
{
    const std::string msg = callback(kAbc64);
    for (std::size_t cut = 1; cut < msg.size(); ++cut) {
        Session s;
        EXPECT_TRUE(s.feed(msg.substr(0, cut)) && s.feed(msg.substr(cut)));
        EXPECT_EQ(gCalls, std::vector<std::string>{kAbcCall}) << cut;
    }
    // Line ends (normalised by the parser), blanks and character references
    // reach the decoder as text, which skips them.
    expectCallsAllSplits(callback("eJx LTE\noGA\r\n  AJN\tASc=\n") +
                             callback("eJxLTEoG&#10;AAJNASc&#61;"),
                         {kAbcCall, kAbcCall});
}

// A wrong check sum (the data are all there), garbage from the first byte,
// and a stream cut short: each delivers what inflated; the next payload is whole.
TEST(Reader, CorruptPayloadsDeliverWhatInflatedAndTheNextIsWhole)
{
    const std::string q(2000, 'q');
    expectCallsAllSplits(callback(base64OfDeflated(q, Z_NO_COMPRESSION, 0, true)) +
                             callback(kAbc64) + callback("AAAAAAAAAAAA") + callback(kAbc64) +
                             callback(base64OfDeflated(q, Z_NO_COMPRESSION, 500)) +
                             callback(kAbc64),
                         {"#1 callback 2 'f' 2000", kAbcCall, "#1 callback 2 'f' 0 ''", kAbcCall,
                          "#1 callback 2 'f' 1504", kAbcCall});
}

TEST(Reader, LargePayloads)
{
    const std::string zeros(100000, '\0'), zb64 = base64OfDeflated(zeros);
    ASSERT_LT(zb64.size(), 200u) << "inflates from one small chunk";
    std::string data; // does not compress: many decode blocks
    for (unsigned x = 12345; data.size() < 20000;)
        data += static_cast<char>((x = x * 1103515245u + 12345u) >> 24);
    expectCallsAllSplits(callback(zb64) + callback(base64OfDeflated(data)),
                         {"#1 callback 2 'f' 100000", "#1 callback 2 'f' 20000"});
    EXPECT_TRUE(gPayload == data);
    Session s;
    EXPECT_TRUE(s.feed(callback(zb64)));
    EXPECT_TRUE(gPayload == zeros);
}

// ---- failures ------------------------------------------------------------------

// A throw at a start or an end tag drops that message's state; the rest of
// the chunk and later chunks are read as usual.
TEST(Reader, ThrowingHandlersThenNormalMessages)
{
    for (Split how : {Split::Whole, Split::Random, Split::Bytes}) {
        Session s;
        s.clients[1].on_kernel_ready = [](K* k) {
            add(k, "ready throws");
            throw std::runtime_error("handler failure");
        };
        s.clients[1].on_output = [](K*, void*, const char*, const char*, const char*) {
            throw std::bad_alloc();
        };
        s.clients[1].on_breakpoint_list = [](K*, long, const char**, const long*, const char**) {
            throw 42;
        };
        EXPECT_FALSE(s.feed("<ready cl=\"1\"/>", how));
        EXPECT_TRUE(s.feed("<finished cl=\"1\" cid=\"5\"/><finished cl=\"2\" cid=\"6\"/>", how));
        EXPECT_EQ(s.reader.cleanups, 1);
        EXPECT_FALSE(s.feed(
            "<output cl=\"1\" cid=\"9\" type=\"ty\"><text format=\"fo\">first</text></output>",
            how));
        EXPECT_EQ(s.reader.content_.length(), 0u);
        EXPECT_EQ(std::string(s.reader.type_.c_str()) + s.reader.format_.c_str(), "");
        EXPECT_EQ(s.reader.cookie_, 0);
        EXPECT_FALSE(s.feed("<breakpoints cl=\"1\"><breakpt fname=\"a\"/></breakpoints>", how));
        EXPECT_TRUE(s.reader.dbgNames_.empty() && s.reader.dbgTexts_.empty() &&
                    s.reader.dbgPositions_.empty());
        EXPECT_FALSE(s.feed("<ready cl=\"1\"/><finished cl=\"2\"/><ready cl=\"1\"/><output "
                            "cl=\"2\"><text>t</text></output>"));
        EXPECT_EQ(s.reader.cleanups, 5);
        EXPECT_EQ(gCalls,
                  (std::vector<std::string>{"#1 ready throws", "#1 finished 5", "#2 finished 6",
                                            "#1 ready throws", "#2 finished 0", "#1 ready throws",
                                            "#2 output 0 '' '' 't'"}));
    }
}

TEST(Reader, MalformedInputCleansUpAndFailsEveryLaterChunk)
{
    for (const char* bad : {"<?xml version=\"1.0\"?>", "</TamixXMsgClientMessage><ready cl=\"1\"/>",
                            "<output cl=\"1\"></text>", "<ready cl=\"1\" cl=\"2\"/>",
                            "<ready cl=1/>", "&nosuchentity;", "\xff\xfe"}) {
        Session s;
        EXPECT_TRUE(s.feed("<ready cl=\"1\"/>"));
        EXPECT_FALSE(s.feed(bad)) << bad;
        EXPECT_FALSE(s.feed("<ready cl=\"2\"/>")) << bad;
        EXPECT_EQ(s.reader.cleanups, 2) << "once per failing chunk: " << bad;
        EXPECT_EQ(gCalls, std::vector<std::string>{"#1 ready"}) << bad;
    }
    // What cleanup empties and what it keeps.
    Session s;
    EXPECT_TRUE(s.feed(
        "<selformat cl=\"1\"><fmt name=\"a\"/></selformat><output cl=\"2\" cid=\"5\" type=\"t\">"
        "<text format=\"f\">abc<breakpt fname=\"x\"/><fmt name=\"b\"/>"));
    ASSERT_EQ(s.reader.dbgNames_.size() + s.reader.fmtCount_ + s.reader.content_.length(), 5u);
    EXPECT_FALSE(s.feed("</oops>"));
    EXPECT_EQ(std::string(s.reader.type_.c_str()) + s.reader.format_.c_str(), "");
    EXPECT_EQ(s.reader.cookie_, 0);
    EXPECT_EQ(s.reader.fmtCount_, 0);
    EXPECT_EQ(s.reader.content_.length(), 0u);
    EXPECT_TRUE(s.reader.dbgNames_.empty());
    EXPECT_EQ(s.reader.kernel_, &s.clients[2]);
    EXPECT_EQ(s.reader.fmtNames_.size(), 2u) << "interned names stay";
}

} // namespace

// A message over a bound ends the stream as malformed input does, at the
// same place however the stream is cut: what came before is delivered,
// nothing after, and the reader names the bound. A message at the bound
// passes.
TEST(Reader, MessagesOverABoundEndTheStreamWhereverItIsCut)
{
    const std::string ready = "<ready cl=\"1\"/>"; // 15 bytes
    const std::string fmt = "<format cl=\"1\" type=\"t\"><fmt name=\"";
    const std::string fmtEnd = "\"/></format>";
    struct Row {
        int which;
        int64_t value;
        std::string stream;
        std::vector<std::string> calls;
    };
    const Row rows[] = {
        {TAM_LIMIT_DEPTH,
         3,
         "<output cl=\"1\"><text>a<b>b</b></text></output><output cl=\"1\"><text>a<b>b<c/>"
         "</b></text></output>" +
             ready,
         {"#1 output 0 '' '' 'a'"}},
        {TAM_LIMIT_MESSAGE_BYTES,
         15,
         ready + "\n \n" + ready + "<ready cl=\"1\" />" + ready,
         {"#1 ready", "#1 ready"}},
        // Text inside a message, and an attribute still incomplete.
        {TAM_LIMIT_MESSAGE_BYTES,
         60,
         "<output cl=\"1\"><text>" + std::string(60, 'x') + "</text></output>" + ready,
         {}},
        {TAM_LIMIT_MESSAGE_BYTES,
         60,
         ready + "<help cl=\"1\" value=\"" + std::string(80, 'x'),
         {"#1 ready"}},
        {TAM_LIMIT_LIST_ENTRIES,
         2,
         "<breakpoints cl=\"1\"><breakpt/><breakpt/></breakpoints><display cl=\"1\"><dispvar/>"
         "<dispvar/><dispvar/></display>" +
             ready,
         {"#1 breakpoints 2 ['',''] [0,0] ['','']"}},
        {TAM_LIMIT_LIST_ENTRIES,
         2,
         "<selformat cl=\"1\" type=\"t\"><fmt name=\"a\"/><fmt name=\"a\"/><fmt name=\"a\"/>"
         "</selformat>" +
             ready,
         {}},
        {TAM_LIMIT_FORMAT_NAMES,
         2,
         fmt + "a" + fmtEnd + fmt + "b" + fmtEnd + fmt + "a" + fmtEnd + fmt + "c" + fmtEnd + ready,
         {"#1 format 't' 'a'", "#1 format 't' 'b'", "#1 format 't' 'a'"}},
        {TAM_LIMIT_FORMAT_NAMES, 10, fmt + std::string(4097, 'n') + fmtEnd + ready, {}},
        {TAM_LIMIT_PAYLOAD_BYTES,
         3,
         callback(kAbc64) + callback(base64OfDeflated("abcd")) + ready,
         {kAbcCall}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE("bound " + std::to_string(row.which) + ": " + row.stream.substr(0, 60));
        ASSERT_EQ(TAM_set_limit(row.which, row.value), 1);
        for (int i = -2; i < 4; ++i) {
            Session s;
            EXPECT_FALSE(s.feed(row.stream,
                                i == -2   ? Split::Whole
                                : i == -1 ? Split::Bytes
                                          : Split::Random,
                                i));
            EXPECT_EQ(gCalls, row.calls) << "split " << i;
            EXPECT_EQ(s.reader.over_limit(), row.which);
            const int cleanups = s.reader.cleanups;
            EXPECT_FALSE(s.feed(ready));
            EXPECT_EQ(s.reader.cleanups, cleanups + 1);
            EXPECT_EQ(gCalls, row.calls);
        }
        TAM_set_limit(row.which, -1);
    }
}
