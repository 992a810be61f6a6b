// The kernel message reader: every message of the vocabulary reaches the
// right handler of the right client with converted arguments, whichever way
// the stream is cut into chunks.
#include <gtest/gtest.h>

#include <clocale>
#include <string>
#include <vector>

#include "ReaderHarness.h"

using rh::Session;
using rh::Split;

namespace {

class Reader : public ::testing::Test {
protected:
    void SetUp() override { std::setlocale(LC_ALL, ""); }
};

} // namespace

TEST_F(Reader, RootIsInjectedAndAcceptsMessages)
{
    Session s;
    EXPECT_TRUE(s.ok);
    EXPECT_TRUE(s.feed("<ready cl=\"1\"/><ready cl=\"2\"/>"));
    EXPECT_EQ(s.rec.calls, (std::vector<std::string>{"#1 ready", "#2 ready"}));
}

TEST_F(Reader, MessagesDeliveredAtTheirStartTag)
{
    const std::string stream =
        "<ready cl=\"1\"/>\n"
        "<sendinit cl=\"2\"/>\n"
        "<reset cl=\"1\"/>\n"
        "<finished cl=\"1\" cid=\"-42\"/>\n"
        "<complete cid=\"7\" cl=\"2\"/>\n"
        "<senddbgcmd cl=\"1\" cid=\"9\"/>\n"
        "<plotfile cl=\"1\" cid=\"3\" name=\"/tmp/p q.eps\"/>\n"
        "<completion cl=\"1\" list=\"sin sinh\" pref=\"si\"/>\n"
        "<completion cl=\"2\" list=\"x\"/>\n"
        "<dbginfo cl=\"1\" cmd=\"step\" fname=\"f.g\" fpos=\"12\" expr=\"a&lt;b &amp; c\" "
        "level=\"2\" depth=\"5\"/>\n"
        "<dbginfo cl=\"1\" cmd=\"\"/>\n"
        "<frame cl=\"1\" value=\"main\"/>\n"
        "<help cl=\"2\" value=\"Usage: &quot;f(x)&quot;\"/>\n"
        "<system cl=\"1\" value=\"ls -l\"/>\n"
        "<prettyprint cl=\"1\" value=\"2\"/>\n"
        "<prettyprint cl=\"1\" value=\"x\"/>\n"
        "<prettyprint cl=\"1\" value=\"-1\"/>\n"
        "<abbreviateoutput cl=\"1\" value=\"1\"/>\n"
        "<abbreviateoutput cl=\"1\"/>\n"
        "<textwidth cl=\"1\" value=\"-5\"/>\n"
        "<textwidth cl=\"2\" value=\" 80cols\"/>\n"
        "<status cl=\"1\" sec=\"3\" res=\"2\" used=\"100\"/>\n"
        "<status cl=\"1\" used=\"abc\"/>\n";
    EXPECT_CALLS_ALL_SPLITS(stream, {
        "#1 ready",
        "#2 init_wanted",
        "#1 reset",
        "#1 finished cid=-42",
        "#2 complete cid=7",
        "#1 dbgcmd cid=9",
        "#1 plotfile cid=3 '/tmp/p q.eps'",
        "#1 completion list='sin sinh' pref='si'",
        "#2 completion list='x' pref=''",
        "#1 dbginfo cmd=115 fname='f.g' fpos=12 expr='a<b & c' level=2 depth=5",
        "#1 dbginfo cmd=0 fname='' fpos=0 expr='' level=0 depth=0",
        "#1 frame 'main'",
        "#2 help 'Usage: \"f(x)\"'",
        "#1 system 'ls -l'",
        "#1 prettyprint 1",
        "#1 prettyprint 0",
        "#1 prettyprint 1",
        "#1 abbreviate 1",
        "#1 abbreviate 0",
        "#1 textwidth -5",
        "#2 textwidth 80",
        "#1 status 100 2 3",
        "#1 status 0 0 0",
    });
}

TEST_F(Reader, MessagesDeliveredAtTheirEndTag)
{
    const std::string stream =
        "<output cl=\"1\" cid=\"17\" type=\"a\"><text format=\"b\">Hello</text></output>"
        "<output cl=\"2\"/>"
        "<output cl=\"1\" type=\"t\"><text>a&lt;b&amp;c\nline 2</text></output>"
        "<sendinput cl=\"1\" cid=\"4\" text=\"1\"><text>Name? </text></sendinput>"
        "<sendinput cl=\"2\" text=\"0\"/>"
        "<sendinput cl=\"1\" text=\"7\"><mcode format=\"m\">eJxLTEoGAAJNASc=</mcode></sendinput>"
        "<callback cl=\"1\" cid=\"5\"><mcode format=\"abc\">eJxLTEoGAAJNASc=</mcode></callback>"
        "<callback cl=\"2\"/>"
        "<format cl=\"1\" type=\"real\"><fmt name=\"f1\"/><fmt name=\"f2\"/></format>"
        "<format cl=\"1\" type=\"none\"/>"
        "<selformat cl=\"2\" type=\"t\"><fmt name=\"a\"/><fmt name=\"b\"/></selformat>"
        "<breakpoints cl=\"1\"><breakpt fname=\"f.g\" fpos=\"3\" cond=\"x&gt;1\"/>"
        "<breakpt fname=\"h.g\" fpos=\"30\"/></breakpoints>"
        "<callstack cl=\"2\" level=\"2\"><csframe fname=\"a\" fpos=\"1\" proc=\"p\"/>"
        "<csframe fname=\"b\" fpos=\"2\" proc=\"q\"/><csframe fname=\"c\" fpos=\"3\" proc=\"r\"/>"
        "</callstack>"
        "<display cl=\"1\"><dispvar name=\"x\" value=\"1\"/><dispvar name=\"y\" value=\"[2]\"/>"
        "</display>";
    EXPECT_CALLS_ALL_SPLITS(stream, {
        "#1 output cid=17 type='a' format='b' text='Hello'",
        "#2 output cid=0 type='' format='' text=''",
        "#1 output cid=0 type='t' format='' text='a<b&c\\x0Aline 2'",
        "#1 input_wanted cid=4 text=1 prompt='Name? '",
        "#2 input_wanted cid=0 text=0 prompt=''",
        "#1 input_wanted cid=0 text=1 prompt=''",
        "#1 callback cid=5 fmt='abc' len=3 data=abc",
        "#2 callback cid=0 fmt='' len=0 data=",
        "#1 format type='real' 'f1'",
        "#2 selformat type='t' n=2 ['a','b']",
        "#1 breakpoints n=2 ['f.g','h.g'] [3,30] ['x>1','']",
        "#2 callstack level=2 n=3 ['a','b','c'] [1,2,3] ['p','q','r']",
        "#1 display n=2 ['x','y'] ['1','[2]']",
    });
}

TEST_F(Reader, OutputTakesTheLaterOfTextAndMcode)
{
    EXPECT_CALLS_ALL_SPLITS(
        "<output cl=\"1\" type=\"y\"><text format=\"t\">xy</text>"
        "<mcode format=\"m\">eJxLTEoGAAJNASc=</mcode></output>"
        "<output cl=\"1\" type=\"z\"><mcode format=\"m\">eJxLTEoGAAJNASc=</mcode>"
        "<text format=\"t\">xy</text></output>",
        {
            "#1 output_data cid=0 type='y' fmt='m' len=3 data=abc",
            "#1 output cid=0 type='z' format='t' text='xy'",
        });
}

TEST_F(Reader, UnknownClientsGetNothingAndLeaveNoState)
{
    Session s;
    EXPECT_TRUE(s.feed("<ready cl=\"7\"/><ready/>"
                       "<output cl=\"9\" cid=\"1\" type=\"q\"><text format=\"f\">lost</text></output>"
                       "<format cl=\"9\" type=\"q\"><fmt name=\"f\"/></format>"
                       "<breakpoints cl=\"9\"><breakpt fname=\"x\"/></breakpoints>"));
    EXPECT_TRUE(s.rec.calls.empty());
    EXPECT_EQ(s.reader.lookups, (std::vector<long>{7, 9, 9, 9}));
    EXPECT_EQ(s.reader.current(), nullptr);
    EXPECT_EQ(s.reader.dbgNames(), 0u);
    EXPECT_EQ(s.reader.fmtCount(), 0);
    EXPECT_TRUE(s.reader.fmtNames().empty()) << "parts of an ignored message are not read";

    // Nothing of the ignored messages shows up in the next ones.
    EXPECT_TRUE(s.feed("<output cl=\"1\"/><selformat cl=\"1\"/>"));
    EXPECT_EQ(s.rec.calls, (std::vector<std::string>{
                               "#1 output cid=0 type='' format='' text=''",
                               "#1 selformat type='' n=0 null",
                           }));
}

TEST_F(Reader, NonNumericClientIdIsClientZero)
{
    Session s(true);
    EXPECT_TRUE(s.feed("<ready cl=\"abc\"/><ready cl=\" 2\"/><finished cl=\"1x\" cid=\"zz\"/>"));
    EXPECT_EQ(s.reader.lookups, (std::vector<long>{0, 2, 1}));
    EXPECT_EQ(s.rec.calls,
              (std::vector<std::string>{"#0 ready", "#2 ready", "#1 finished cid=0"}));
}

TEST_F(Reader, CookieIsHandedBackAsThePointerValue)
{
    static void* seen = nullptr;
    Session s;
    s.client(1).on_finished = [](TAM_KernelImpl*, void* c) { seen = c; };
    long value = 0x7ffd12345678L;
    EXPECT_TRUE(s.feed("<finished cl=\"1\" cid=\"" + std::to_string(value) + "\"/>"));
    EXPECT_EQ(seen, reinterpret_cast<void*>(value));
}

TEST_F(Reader, QuitWithAndWithoutClientKeepsTheCurrentClient)
{
    Session s;
    EXPECT_TRUE(s.feed("<ready cl=\"2\"/><quit/>"));
    EXPECT_EQ(s.reader.quits, 1);
    EXPECT_EQ(s.reader.current(), &s.client(2));
    EXPECT_TRUE(s.feed("<quit cl=\"1\"/>"));
    EXPECT_EQ(s.reader.quits, 2);
    EXPECT_EQ(s.reader.current(), &s.client(2));
    EXPECT_TRUE(s.feed("<quit cl=\"55\" foo=\"1\"></quit>"));
    EXPECT_EQ(s.reader.quits, 3);
    // quit never looks up a client
    EXPECT_EQ(s.reader.lookups, (std::vector<long>{2}));
    EXPECT_EQ(s.rec.calls, (std::vector<std::string>{"#2 ready", "onQuit", "onQuit", "onQuit"}));
}

TEST_F(Reader, UnknownElementsAreSkippedWithTheirContent)
{
    EXPECT_CALLS_ALL_SPLITS(
        "<output cl=\"1\"><text>Hel<b>bold <i>it</i><ready cl=\"2\"/></b>lo</text></output>"
        "<foo><ready cl=\"1\"/></foo>"
        "<Ready cl=\"1\"/><readyx cl=\"1\"/><rea cl=\"1\"/>"
        "<output cl=\"2\"><unknown/><text>t</text><x>y</x></output>",
        {
            "#1 output cid=0 type='' format='' text='Hello'",
            "#2 output cid=0 type='' format='' text='t'",
        });
}

TEST_F(Reader, UnknownAttributesAndEncChangeNothing)
{
    EXPECT_CALLS_ALL_SPLITS(
        "<output enc=\"latin1\" cl=\"1\" Type=\"no\" cid=\"3\" x=\"y\">"
        "<text enc=\"q\" format=\"f\" formats=\"g\">t</text></output>"
        "<status cl=\"1\" enc=\"1\" Used=\"4\" used=\"5\"/>",
        {
            "#1 output cid=3 type='' format='f' text='t'",
            "#1 status 5 0 0",
        });
}

TEST_F(Reader, TextOutsideTextElementsIsIgnored)
{
    EXPECT_CALLS_ALL_SPLITS(
        "stray<output cl=\"1\">junk<text>in</text>more</output>between"
        "<sendinput cl=\"1\">no prompt</sendinput>",
        {
            "#1 output cid=0 type='' format='' text='in'",
            "#1 input_wanted cid=0 text=0 prompt=''",
        });
}

TEST_F(Reader, EmptySlotsAreSkipped)
{
    Session s;
    s.client(1).on_output = nullptr;
    s.client(1).on_kernel_ready = nullptr;
    EXPECT_TRUE(s.feed("<ready cl=\"1\"/><output cl=\"1\" type=\"q\"><text>x</text></output>"
                       "<output cl=\"2\"/>"));
    EXPECT_EQ(s.rec.calls,
              (std::vector<std::string>{"#2 output cid=0 type='' format='' text=''"}))
        << "the skipped output still resets its text, type and format";
}

TEST_F(Reader, LongTextArrivesWhole)
{
    // Larger than the content buffer's inline part and than the conversion
    // scratch buffer.
    std::string text;
    for (int i = 0; text.size() < 5000; ++i)
        text += "line " + std::to_string(i) + "\n";
    for (Split how : {Split::Whole, Split::Random, Split::Bytes}) {
        static std::string got;
        got.clear();
        Session s;
        s.client(1).on_output = [](TAM_KernelImpl*, void*, const char*, const char*,
                                   const char* t) { got = t; };
        EXPECT_TRUE(s.feed("<output cl=\"1\"><text>" + text + "</text></output>", how));
        EXPECT_EQ(got, text);
    }
}

TEST_F(Reader, ValuesAreDeliveredBeforeTheNextMessageResetsThem)
{
    // A handler that keeps what it got would see it overwritten later; this
    // checks the type and format are emptied after output, so a following
    // output without them reads as empty again.
    EXPECT_CALLS_ALL_SPLITS(
        "<output cl=\"1\" type=\"long type name over fifteen\"><text format=\"fmt\">1</text>"
        "</output><output cl=\"1\"><text>2</text></output>",
        {
            "#1 output cid=0 type='long type name over fifteen' format='fmt' text='1'",
            "#1 output cid=0 type='' format='' text='2'",
        });
}
