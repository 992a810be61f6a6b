// The kernel message reader: every message of the vocabulary reaches the
// right handler of the right client with its arguments, however the stream
// is cut; payloads, lists, the defaults' answers, and failures.
#include <gtest/gtest.h>
#include <zlib.h>

#include <clocale>
#include <stdexcept>

#include "ReaderHarness.h"
#include "support/TKbase64.h"

using namespace rh;

namespace {

class Reader : public ::testing::Test {
protected:
    void SetUp() override { std::setlocale(LC_ALL, ""); }
};

std::string deflated(const std::string& bytes, int level = Z_DEFAULT_COMPRESSION)
{
    uLongf n = compressBound(bytes.size());
    std::string out(n, '\0');
    compress2(reinterpret_cast<Bytef*>(&out[0]), &n, reinterpret_cast<const Bytef*>(bytes.data()),
              bytes.size(), level);
    out.resize(n);
    return out;
}

std::string base64(const std::string& bytes)
{
    std::string out(TK_base64_encoded_length(bytes.size()), '\0');
    out.resize(TK_base64_encode(reinterpret_cast<unsigned char*>(&out[0]), out.size(),
                                reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()));
    return out;
}

std::string callback(const std::string& b64, const std::string& format = "f")
{
    return "<callback cl=\"1\" cid=\"2\"><mcode format=\"" + format + "\">" + b64 + "</mcode></callback>";
}

const char kAbc64[] = "eJxLTEoGAAJNASc=";  // "abc"
const std::string kAbcCall = "#1 callback cid=2 fmt='f' len=3 data=abc";

TEST_F(Reader, MessagesDeliveredAtTheirStartTag)
{
    expectCallsAllSplits(
        "<ready cl=\"1\"/>\n<sendinit cl=\"2\"/>\n<reset cl=\"1\"/>\n"
        "<finished cl=\"1\" cid=\"-42\"/><finished cl=\"2\" cid=\"140724910839416\"/>"
        "<complete cid=\"7\" cl=\"2\"/><senddbgcmd cl=\"1\" cid=\"9\"/>"
        "<plotfile cl=\"1\" cid=\"3\" name=\"/tmp/p q.eps\"/>"
        "<completion cl=\"1\" list=\"sin sinh\" pref=\"si\"/><completion cl=\"2\" list=\"x\"/>"
        "<dbginfo cl=\"1\" cmd=\"step\" fname=\"f.g\" fpos=\"12\" expr=\"a&lt;b &amp; c\" "
        "level=\"2\" depth=\"5\"/><dbginfo cl=\"1\" cmd=\"\"/>"
        "<frame cl=\"1\" value=\"main\"/><help cl=\"2\" value=\"Usage: &quot;f(x)&quot;\"/>"
        "<system cl=\"1\" value=\"ls -l\"/>"
        "<prettyprint cl=\"1\" value=\"2\"/><prettyprint cl=\"1\" value=\"x\"/>"
        "<abbreviateoutput cl=\"1\" value=\"-1\"/><abbreviateoutput cl=\"1\"/>"
        "<textwidth cl=\"1\" value=\"-5\"/><textwidth cl=\"2\" value=\" 80cols\"/>"
        "<status cl=\"1\" sec=\"3\" res=\"2\" used=\"100\"/>"
        "<status cl=\"1\" enc=\"1\" Used=\"4\" used=\"abc\"/>"
        "<ready cl=\"abc\"/><ready cl=\" 2\"/>",
        {"#1 ready", "#2 init_wanted", "#1 reset", "#1 finished cid=-42",
         "#2 finished cid=140724910839416", "#2 complete cid=7", "#1 dbgcmd cid=9",
         "#1 plotfile cid=3 '/tmp/p q.eps'", "#1 completion list='sin sinh' pref='si'",
         "#2 completion list='x' pref=''",
         "#1 dbginfo cmd=115 fname='f.g' fpos=12 expr='a<b & c' level=2 depth=5",
         "#1 dbginfo cmd=0 fname='' fpos=0 expr='' level=0 depth=0", "#1 frame 'main'",
         "#2 help 'Usage: \"f(x)\"'", "#1 system 'ls -l'", "#1 prettyprint 1", "#1 prettyprint 0",
         "#1 abbreviate 1", "#1 abbreviate 0", "#1 textwidth -5", "#2 textwidth 80",
         "#1 status 100 2 3", "#1 status 0 0 0", "#0 ready", "#2 ready"});
}

TEST_F(Reader, MessagesDeliveredAtTheirEndTag)
{
    std::string longText;
    for (int i = 0; longText.size() < 5000; ++i)
        longText += "line " + std::to_string(i) + " ";
    expectCallsAllSplits(
        "stray<output cl=\"1\" cid=\"17\" type=\"a\" x=\"y\">junk<text format=\"b\" enc=\"q\">Hello</text>"
        "more</output><output cl=\"2\"/>"
        "<output cl=\"1\" type=\"t\"><text>a&lt;b&amp;c\nline 2</text></output>"
        "<output cl=\"1\"><text>" + longText + "</text></output>"
        "<sendinput cl=\"1\" cid=\"4\" text=\"1\"><text>Name? </text></sendinput>"
        "<sendinput cl=\"2\" text=\"0\">no prompt</sendinput>"
        "<sendinput cl=\"1\" text=\"7\"><mcode format=\"m\">eJxLTEoGAAJNASc=</mcode></sendinput>"
        "<callback cl=\"1\" cid=\"5\"><mcode format=\"abc\">eJxLTEoGAAJNASc=</mcode></callback>"
        "<callback cl=\"2\"/><callback cl=\"2\"><mcode format=\"e\">eJwDAAAAAAE=</mcode></callback>"
        "<output cl=\"2\" type=\"t\"><mcode></mcode></output>"
        "<output cl=\"1\" type=\"y\"><text format=\"t\">xy</text><mcode format=\"m\">eJxLTEoGAAJNASc=</mcode>"
        "</output><output cl=\"1\" type=\"z\"><mcode format=\"m\">eJxLTEoGAAJNASc=</mcode>"
        "<text format=\"t\">xy</text></output>"
        "<format cl=\"1\" type=\"real\"><fmt name=\"f1\"/><fmt name=\"f2\"/></format>"
        "<format cl=\"1\" type=\"none\"/><format cl=\"2\"><fmt/></format>"
        "<selformat cl=\"2\" type=\"t\"><fmt name=\"a\"/><fmt name=\"b\"/><fmt name=\"c\"/></selformat>"
        "<selformat cl=\"1\" type=\"u\"><fmt name=\"c\"/></selformat><selformat cl=\"1\" type=\"w\"/>"
        "<breakpoints cl=\"1\"><breakpt fname=\"f.g\" fpos=\"3\" cond=\"x&gt;1\"/><breakpt/>"
        "<breakpt fname=\"h.g\" fpos=\"-30\"/></breakpoints>"
        "<csframe fname=\"stray\"/><callstack cl=\"2\" level=\"2\"><csframe fname=\"a\" fpos=\"1\" proc=\"p\"/>"
        "<csframe fname=\"b\" fpos=\"2\" proc=\"q\"/></callstack>"
        "<display cl=\"1\"><dispvar name=\"x\" value=\"1\"/><dispvar value=\"[2]\"/></display>"
        "<breakpoints cl=\"1\"/><callstack cl=\"2\" level=\"4\"></callstack><display cl=\"1\"/>",
        {"#1 output cid=17 type='a' format='b' text='Hello'",
         "#2 output cid=0 type='' format='' text=''",
         "#1 output cid=0 type='t' format='' text='a<b&c\\x0Aline 2'",
         "#1 output cid=0 type='' format='' text='" + longText + "'",
         "#1 input_wanted cid=4 text=1 prompt='Name? '", "#2 input_wanted cid=0 text=0 prompt=''",
         "#1 input_wanted cid=0 text=1 prompt=''", "#1 callback cid=5 fmt='abc' len=3 data=abc",
         "#2 callback cid=0 fmt='' len=0 data=", "#2 callback cid=0 fmt='e' len=0 data=",
         "#2 output_data cid=0 type='t' fmt='' len=0 data=",
         // the later of text and mcode wins
         "#1 output_data cid=0 type='y' fmt='m' len=3 data=abc",
         "#1 output cid=0 type='z' format='t' text='xy'",
         "#1 format type='real' 'f1'", "#2 format type='' ''",
         "#2 selformat type='t' n=3 ['a','b','c']", "#1 selformat type='u' n=1 ['c']",
         "#1 selformat type='w' n=0 null",
         "#1 breakpoints n=3 ['f.g','','h.g'] [3,0,-30] ['x>1','','']",
         "#2 callstack level=2 n=2 ['a','b'] [1,2] ['p','q']", "#1 display n=2 ['x',''] ['1','[2]']",
         "#1 breakpoints n=0 null null null", "#2 callstack level=4 n=0 null null null",
         "#1 display n=0 null null"});
}

TEST_F(Reader, UnknownElementsClientsAndEmptySlots)
{
    expectCallsAllSplits(
        "<output cl=\"1\"><text>Hel<b>bold <i>it</i><ready cl=\"2\"/></b>lo</text></output>"
        "<foo><ready cl=\"1\"/></foo><Ready cl=\"1\"/><readyx cl=\"1\"/><rea cl=\"1\"/>"
        "<output cl=\"2\"><unknown/><text>t</text><x>y</x></output>",
        {"#1 output cid=0 type='' format='' text='Hello'", "#2 output cid=0 type='' format='' text='t'"});

    Session s;
    EXPECT_TRUE(s.feed("<ready cl=\"7\"/><ready/>"
                       "<output cl=\"9\" cid=\"1\" type=\"q\"><text format=\"f\">lost</text></output>"
                       "<format cl=\"9\" type=\"q\"><fmt name=\"f\"/></format>"
                       "<breakpoints cl=\"9\"><breakpt fname=\"x\"/></breakpoints>"
                       "<callback cl=\"9\"><mcode>" + base64(deflated(std::string(3000, 'u'), Z_NO_COMPRESSION).substr(0, 1500)) +
                       "</mcode></callback>"));
    EXPECT_TRUE(gCalls.empty());
    EXPECT_EQ(s.reader.lookups, (std::vector<long>{7, 9, 9, 9, 9}));
    EXPECT_TRUE(s.reader.dbgNames_.empty());
    EXPECT_TRUE(s.reader.fmtNames_.empty()) << "parts of an ignored message are not read";
    // Nothing of them shows in the next messages; an empty slot is skipped
    // but its message still resets what it collected.
    s.clients[1].on_output = nullptr;
    EXPECT_TRUE(s.feed("<output cl=\"1\" type=\"q\"><text format=\"f\">x</text></output><output cl=\"2\"/>"
                       "<selformat cl=\"1\"/>" + callback(kAbc64)));
    EXPECT_EQ(gCalls, (std::vector<std::string>{"#2 output cid=0 type='' format='' text=''",
                                                "#1 selformat type='' n=0 null", kAbcCall}));
}

TEST_F(Reader, QuitWithAndWithoutClientKeepsTheCurrentClient)
{
    Session s;
    EXPECT_TRUE(s.feed("<ready cl=\"2\"/><quit/><quit cl=\"1\"/><quit cl=\"55\" foo=\"1\"></quit>"));
    EXPECT_EQ(s.reader.kernel_, &s.clients[2]);
    EXPECT_EQ(s.reader.lookups, (std::vector<long>{2})) << "quit never looks up a client";
    EXPECT_EQ(gCalls, (std::vector<std::string>{"#2 ready", "onQuit", "onQuit", "onQuit"}));
}

TEST_F(Reader, ListsOfUnequalLengthAreNotDelivered)
{
    Session s;
    EXPECT_TRUE(s.feed("<breakpoints cl=\"1\"><breakpt fname=\"a\"/><dispvar name=\"x\"/></breakpoints>"
                       "<callstack cl=\"1\" level=\"1\"><dispvar name=\"x\"/><csframe/></callstack>"));
    EXPECT_TRUE(gCalls.empty());
    EXPECT_TRUE(s.reader.dbgNames_.empty() && s.reader.dbgTexts_.empty() && s.reader.dbgPositions_.empty());
    // A display needs names and values only; positions do not count.
    EXPECT_TRUE(s.feed("<display cl=\"1\"><dispvar name=\"x\" value=\"1\"/><breakpt fname=\"y\" cond=\"2\"/>"
                       "</display>"));
    EXPECT_EQ(gCalls, (std::vector<std::string>{"#1 display n=2 ['x','y'] ['1','2']"}));
}

TEST_F(Reader, FormatNamesAreInternedForTheHandlersLife)
{
    static std::vector<const char*> seen;
    Session s;
    s.clients[1].on_select_format = [](K*, const char*, long n, const char** f) { seen.assign(f, f + n); };
    s.clients[1].on_format_changed = [](K*, const char*, const char* f) { seen.assign(1, f); };
    EXPECT_TRUE(s.feed("<selformat cl=\"1\"><fmt name=\"a\"/><fmt name=\"b\"/><fmt name=\"a\"/></selformat>"));
    ASSERT_EQ(seen.size(), 3u);
    const std::vector<const char*> first = seen;
    EXPECT_EQ(first[0], first[2]);
    EXPECT_TRUE(s.feed("<format cl=\"1\"><fmt name=\"b\"/></format>"));
    EXPECT_EQ(seen, std::vector<const char*>{first[1]});
    EXPECT_STREQ(first[0], "a");
    EXPECT_EQ(s.reader.formatName("a"), first[0]);
    EXPECT_EQ(s.reader.fmtNames_.size(), 2u);
}

// What a client with only the default handlers sends back.
TEST_F(Reader, DefaultHandlersAnswerTheKernel)
{
    const struct {
        const char* message;
        const char* answer;
    } rows[] = {
        {"<sendinit cl=\"1\"/>", "<init cl=\"1\"></init>"},
        {"<sendinput cl=\"1\" cid=\"3\"><text>?</text></sendinput>",
         "<input cl=\"1\" canceled=\"1\"><text format=\"_lan\"></text></input>"},
        {"<sendinput cl=\"1\" text=\"5\"/>", "<textinput cl=\"1\" canceled=\"1\"></textinput>"},
        {"<callback cl=\"1\"><mcode>eJxLTEoGAAJNASc=</mcode></callback>",
         "<callresult cl=\"1\" error=\"1\"></callresult>"},
        {"<system cl=\"1\" value=\"rm -rf /\"/>", "<sysresult cl=\"1\" value=\"1\"/>"},
        {"<senddbgcmd cl=\"1\" cid=\"2\"/>", "<dbgcmd cl=\"1\" cmd=\"q\" fname=\"\" fpos=\"0\" expr=\"\"/>"},
        {"<selformat cl=\"1\" type=\"real\"><fmt name=\"b\"/><fmt name=\"c\"/></selformat>",
         "<format cl=\"1\" type=\"real\" value=\"b\"/>"},
        {"<selformat cl=\"1\" type=\"real\"/>", "<format cl=\"1\" type=\"real\" value=\"\"/>"},
        {"<ready cl=\"1\"/><output cl=\"1\"><text>x</text></output><finished cl=\"1\"/>"
         "<help cl=\"1\" value=\"h\"/>", ""},
    };
    for (const auto& r : rows) {
        Session s;
        s.clients[1].reset_message_handler();
        EXPECT_TRUE(s.feed(r.message));
        EXPECT_TRUE(gCalls.empty());
        EXPECT_EQ(s.clients[1].text(), r.answer);
    }
}

// ---- payloads ------------------------------------------------------------------

TEST_F(Reader, PayloadSplitAtEveryPosition)
{
    const std::string msg = callback(kAbc64);
    for (std::size_t cut = 1; cut < msg.size(); ++cut) {
        Session s;
        EXPECT_TRUE(s.feed(msg.substr(0, cut)) && s.feed(msg.substr(cut)));
        EXPECT_EQ(gCalls, std::vector<std::string>{kAbcCall}) << cut;
    }
    const std::string b64 = kAbc64;  // and in three pieces
    for (std::size_t i = 1; i < b64.size(); ++i)
        for (std::size_t j = i + 1; j < b64.size(); ++j) {
            Session s;
            s.feed("<callback cl=\"1\"><mcode>" + b64.substr(0, i));
            s.feed(b64.substr(i, j - i));
            s.feed(b64.substr(j) + "</mcode></callback>");
            EXPECT_EQ(gPayload, "abc") << i << "," << j;
        }
}

TEST_F(Reader, PayloadTextWithBlanksEntitiesAndTrailingBytes)
{
    expectCallsAllSplits(callback("eJx LTE\noGA\r\n  AJN\tASc=\n") + callback("eJxLTEoG&#10;AAJNASc&#61;") +
                             callback(base64(deflated("abc") + deflated("zzz"))),
                         {kAbcCall, kAbcCall, kAbcCall});
}

TEST_F(Reader, CorruptOrCutShortPayloadDeliversWhatInflatedAndTheNextIsWhole)
{
    std::string bad = deflated(std::string(2000, 'q'), Z_NO_COMPRESSION);
    bad.back() ^= 1;  // wrong check sum: the data are there, the stream is corrupt
    std::string cut = deflated(std::string(2000, 'q'), Z_NO_COMPRESSION);
    cut.resize(cut.size() - 500);
    expectCallsAllSplits(callback(base64(bad)) + callback(kAbc64) + callback("AAAAAAAAAAAA") +
                             callback(kAbc64),
                         {"#1 callback cid=2 fmt='f' len=2000", kAbcCall,
                          "#1 callback cid=2 fmt='f' len=0 data=", kAbcCall});
    Session s;
    EXPECT_TRUE(s.feed(callback(base64(cut))));
    EXPECT_GT(gPayload.size(), 1000u);
    EXPECT_EQ(gPayload, std::string(gPayload.size(), 'q'));
    EXPECT_TRUE(s.feed(callback(kAbc64)));
    EXPECT_EQ(gCalls.back(), kAbcCall);
}

TEST_F(Reader, LargePayloads)
{
    // 100 000 bytes inflate from one small chunk.
    const std::string zeros(100000, '\0'), zb64 = base64(deflated(zeros));
    ASSERT_LT(zb64.size(), 200u);
    for (Split how : {Split::Whole, Split::Bytes}) {
        Session s;
        EXPECT_TRUE(s.feed(callback(zb64) + callback(kAbc64), how));
        EXPECT_EQ(gCalls, (std::vector<std::string>{"#1 callback cid=2 fmt='f' len=100000", kAbcCall}));
    }
    // Bytes that do not compress, in chunks of at most 1024 as the input loop reads.
    std::string data;
    for (unsigned x = 12345; data.size() < 20000;)
        data += static_cast<char>((x = x * 1103515245u + 12345u) >> 24);
    const std::string msg = callback(base64(deflated(data)));
    Session s;
    for (std::size_t pos = 0; pos < msg.size(); pos += 1024)
        EXPECT_TRUE(s.feed(msg.substr(pos, 1024)));
    EXPECT_EQ(gCalls.size(), 1u);
    EXPECT_TRUE(gPayload == data);
    EXPECT_TRUE(s.feed(callback(zb64)));
    EXPECT_TRUE(gPayload == zeros);
}

// ---- failures ------------------------------------------------------------------

TEST_F(Reader, ThrowingHandlerThenNormalMessages)
{
    for (Split how : {Split::Whole, Split::Random, Split::Bytes}) {
        Session s;
        s.clients[1].on_kernel_ready = [](K* k) {
            add(k, "ready throws");
            throw std::runtime_error("handler failure");
        };
        EXPECT_FALSE(s.feed("<ready cl=\"1\"/>", how));
        EXPECT_TRUE(s.feed("<finished cl=\"1\" cid=\"5\"/><finished cl=\"2\" cid=\"6\"/>", how));
        EXPECT_EQ(s.reader.cleanups, 1);
        // Messages after a throw in the same chunk are delivered too.
        EXPECT_FALSE(s.feed("<ready cl=\"1\"/><finished cl=\"2\" cid=\"1\"/><ready cl=\"1\"/>"
                            "<output cl=\"2\"><text>t</text></output>"));
        EXPECT_EQ(s.reader.cleanups, 3);
        EXPECT_EQ(gCalls, (std::vector<std::string>{"#1 ready throws", "#1 finished cid=5",
                                                    "#2 finished cid=6", "#1 ready throws",
                                                    "#2 finished cid=1", "#1 ready throws",
                                                    "#2 output cid=0 type='' format='' text='t'"}));
    }
}

TEST_F(Reader, ThrowAtAnEndTagDropsTheMessageState)
{
    Session s;
    s.clients[1].on_output = [](K*, void*, const char*, const char*, const char*) { throw std::bad_alloc(); };
    s.clients[1].on_breakpoint_list = [](K*, long, const char**, const long*, const char**) { throw 42; };
    EXPECT_FALSE(s.feed("<output cl=\"1\" cid=\"9\" type=\"ty\"><text format=\"fo\">first</text></output>"));
    EXPECT_EQ(s.reader.content_.length(), 0u);
    EXPECT_EQ(s.reader.type_ + s.reader.format_, "");
    EXPECT_EQ(s.reader.cookie_, 0);
    EXPECT_FALSE(s.feed("<breakpoints cl=\"1\"><breakpt fname=\"a\"/></breakpoints>"));
    EXPECT_TRUE(s.reader.dbgNames_.empty() && s.reader.dbgTexts_.empty() && s.reader.dbgPositions_.empty());
    EXPECT_TRUE(s.feed("<output cl=\"2\"><text>ok</text></output>"));
    EXPECT_EQ(gCalls, std::vector<std::string>{"#2 output cid=0 type='' format='' text='ok'"});
}

TEST_F(Reader, MalformedInputCleansUpAndFailsEveryLaterChunk)
{
    for (const char* bad : {"<?xml version=\"1.0\"?>", "</TamixXMsgClientMessage><ready cl=\"1\"/>",
                            "<output cl=\"1\"></text>", "<ready cl=\"1\" cl=\"2\"/>", "<ready cl=1/>",
                            "&nosuchentity;", "\xff\xfe"}) {
        Session s;
        EXPECT_TRUE(s.feed("<ready cl=\"1\"/>"));
        EXPECT_FALSE(s.feed(bad)) << bad;
        EXPECT_FALSE(s.feed("<ready cl=\"2\"/>")) << bad;
        EXPECT_EQ(s.reader.cleanups, 2) << "once per failing chunk: " << bad;
        EXPECT_EQ(gCalls, std::vector<std::string>{"#1 ready"}) << bad;
    }
    // What cleanup empties and what it keeps.
    Session s;
    EXPECT_TRUE(s.feed("<selformat cl=\"1\"><fmt name=\"a\"/></selformat><output cl=\"2\" cid=\"5\" "
                       "type=\"t\"><text format=\"f\">abc<breakpt fname=\"x\"/><fmt name=\"b\"/>"));
    ASSERT_EQ(s.reader.dbgNames_.size() + s.reader.fmtCount_ + s.reader.content_.length(), 5u);
    EXPECT_FALSE(s.feed("</oops>"));
    EXPECT_EQ(s.reader.type_ + s.reader.format_, "");
    EXPECT_EQ(s.reader.cookie_, 0);
    EXPECT_EQ(s.reader.fmtCount_, 0);
    EXPECT_EQ(s.reader.content_.length(), 0u);
    EXPECT_TRUE(s.reader.dbgNames_.empty());
    EXPECT_EQ(s.reader.kernel_, &s.clients[2]);
    EXPECT_EQ(s.reader.fmtNames_.size(), 2u) << "interned names stay";
}

} // namespace
