// The request elements byte for byte, and the value encoders behind them.
#include <gtest/gtest.h>

#include <climits>
#include <clocale>

#include "WriterTestKernel.h"

using writertest::TestKernel;

namespace {

class Writer : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(std::setlocale(LC_ALL, ""), nullptr); }
};

TEST_F(Writer, ConsoleAnnouncementHasNoClientIdAndTheFixedFormats)
{
    TestKernel k(-1);
    EXPECT_EQ(k.send_new_client(nullptr, nullptr, 0x10000, 2, 1, 4), 1);
    EXPECT_EQ(k.text(), "<newclient name =\"\" frame=\"\" longfmt=\"text\" floatfmt=\"ieee\" "
                        "coding=\"ident \" features=\"can_quit \"/>");
    // The transport sends this one itself: no flush here.
    EXPECT_EQ(k.stream.flushes, 0);
}

TEST_F(Writer, NewClientWordsForFormatsCodingsAndFeatures)
{
    TestKernel k(-1);
    k.send_new_client("me", "fr", 0, 0, 0, 0);
    EXPECT_EQ(k.text(), "<newclient name =\"me\" frame=\"fr\" longfmt=\"\" floatfmt=\"\" "
                        "coding=\"flat\" features=\"\"/>");

    k.send_new_client(nullptr, nullptr, 0x1 | 0x80000, 3, 2, 7);
    EXPECT_NE(k.text().find("longfmt=\"gmp\" floatfmt=\"text\" coding=\"ref ident prop \" "
                            "features=\"stay_alive can_protocol \"/>"),
              std::string::npos)
        << k.text();

    k.send_new_client(nullptr, nullptr, 0x40 | 0x80 | 0x100 | 0x200 | 0x100000, 9, 9, 8);
    EXPECT_NE(k.text().find("longfmt=\"\" floatfmt=\"\" coding=\"\" features=\"\"/>"),
              std::string::npos)
        << k.text();

    // Every listed bit, in table order.
    k.send_new_client(nullptr, nullptr, 0xFFFFF, 2, 1, 4);
    EXPECT_NE(k.text().find("features=\"stay_alive complete_commands can_debug can_lazy_debug "
                            "debugger_ui can_plot can_input can_textinput can_help "
                            "can_help_dvi can_browse_help can_exec_system can_quit "
                            "can_callback can_typeset can_protocol \"/>"),
              std::string::npos)
        << k.text();

    // Names are user text: escaped.
    k.send_new_client("a\"b", "<f>", 0, 2, 1, 4);
    EXPECT_EQ(k.text().rfind("<newclient name =\"a&quot;b\" frame=\"&lt;f&gt;\"", 0), 0u)
        << k.text();
}

TEST_F(Writer, InitWithArgumentsAndWithout)
{
    TestKernel k(1);
    const char* argv[] = {"-l", "../lib"};
    EXPECT_EQ(k.send_init(2, argv), 1);
    EXPECT_EQ(k.text(), "<init cl=\"1\"><iarg value=\"-l\"/><iarg value=\"../lib\"/></init>");
    EXPECT_EQ(k.stream.flushes, 1);

    EXPECT_EQ(k.send_init(0, nullptr), 1);
    EXPECT_EQ(k.text(), "<init cl=\"1\"></init>");
    EXPECT_EQ(k.send_init(-3, argv), 1);
    EXPECT_EQ(k.text(), "<init cl=\"1\"></init>");

    TestKernel anon(-1);
    anon.send_init(0, nullptr);
    EXPECT_EQ(anon.text(), "<init></init>");
}

TEST_F(Writer, CommandEscapingFlagsAndFormat)
{
    TestKernel k(1);
    EXPECT_EQ(k.send_cmd(nullptr, "a < b & \"x\"", 0, nullptr), 1);
    EXPECT_EQ(k.text(),
              "<cmd cl=\"1\" cid=\"0\"><text format=\"_lan\">a &lt; b &amp; &quot;x&quot;</text></cmd>");

    EXPECT_EQ(k.send_cmd(nullptr, "a < b & \"x\"", 1, "abc"), 1);
    EXPECT_EQ(k.text(), "<cmd cl=\"1\" cid=\"0\" flags=\"no_history\" format=\"abc\"><text "
                        "format=\"_lan\">a &lt; b &amp; &quot;x&quot;</text></cmd>");

    k.send_cmd(nullptr, "x", 2, "");
    EXPECT_EQ(k.text(), "<cmd cl=\"1\" cid=\"0\"><text format=\"_lan\">x</text></cmd>");
    k.send_cmd(nullptr, "x", 3, nullptr);
    EXPECT_EQ(k.text(), "<cmd cl=\"1\" cid=\"0\" flags=\"no_history\"><text format=\"_lan\">x</text></cmd>");
    k.send_cmd(nullptr, "x", 0, "abc");
    EXPECT_EQ(k.text(), "<cmd cl=\"1\" cid=\"0\" format=\"abc\"><text format=\"_lan\">x</text></cmd>");
    // The format is a protocol word but still escaped.
    k.send_cmd(nullptr, "x", 0, "a&b");
    EXPECT_EQ(k.text(), "<cmd cl=\"1\" cid=\"0\" format=\"a&amp;b\"><text format=\"_lan\">x</text></cmd>");

    k.send_cmd(nullptr, nullptr, 0, nullptr);
    EXPECT_EQ(k.text(), "<cmd cl=\"1\" cid=\"0\"><text format=\"_lan\"></text></cmd>");
}

TEST_F(Writer, CookiesAreSignedPointerValues)
{
    TestKernel k(3);
    k.send_cmd(reinterpret_cast<void*>(static_cast<intptr_t>(123456)), "x", 0, nullptr);
    EXPECT_EQ(k.text(), "<cmd cl=\"3\" cid=\"123456\"><text format=\"_lan\">x</text></cmd>");
    k.send_cmd(reinterpret_cast<void*>(static_cast<intptr_t>(-2)), "x", 0, nullptr);
    EXPECT_EQ(k.text().rfind("<cmd cl=\"3\" cid=\"-2\">", 0), 0u) << k.text();

    k.fresh();
    k.xput_cookie(nullptr);
    EXPECT_EQ(k.text(), "0");
}

TEST_F(Writer, ClientIdDecidesTheClAttribute)
{
    TestKernel k(-1);
    k.send_quit();
    EXPECT_EQ(k.text(), "<quit/>");
    k.id_ = 0;
    k.send_quit();
    EXPECT_EQ(k.text(), "<quit cl=\"0\"/>");
    k.id_ = 12;
    k.send_quit();
    EXPECT_EQ(k.text(), "<quit cl=\"12\"/>");
    k.id_ = LONG_MAX;
    k.send_quit();
    EXPECT_EQ(k.text(), "<quit cl=\"9223372036854775807\"/>");
    k.id_ = -7;
    k.send_stop();
    EXPECT_EQ(k.text(), "<stop/>");
}

TEST_F(Writer, SimpleRequests)
{
    TestKernel k(1);
    EXPECT_EQ(k.send_stop(), 1);
    EXPECT_EQ(k.text(), "<stop cl=\"1\"/>");
    EXPECT_EQ(k.send_status_wanted(), 1);
    EXPECT_EQ(k.text(), "<sendstatus cl=\"1\"/>");
    EXPECT_EQ(k.send_quit(), 1);
    EXPECT_EQ(k.text(), "<quit cl=\"1\"/>");

    k.send_textwidth(-1);
    EXPECT_EQ(k.text(), "<textwidth cl=\"1\" value=\"-1\"/>");
    k.send_textwidth(80);
    EXPECT_EQ(k.text(), "<textwidth cl=\"1\" value=\"80\"/>");
    k.send_system_result(0);
    EXPECT_EQ(k.text(), "<sysresult cl=\"1\" value=\"0\"/>");
    k.send_system_result(-42);
    EXPECT_EQ(k.text(), "<sysresult cl=\"1\" value=\"-42\"/>");
    k.send_pretty_print(2);
    EXPECT_EQ(k.text(), "<prettyprint cl=\"1\" value=\"1\"/>");
    k.send_pretty_print(0);
    EXPECT_EQ(k.text(), "<prettyprint cl=\"1\" value=\"0\"/>");
    k.send_abbreviate_output(-1);
    EXPECT_EQ(k.text(), "<abbreviateoutput cl=\"1\" value=\"1\"/>");
    k.send_abbreviate_output(0);
    EXPECT_EQ(k.text(), "<abbreviateoutput cl=\"1\" value=\"0\"/>");

    k.send_completion_wanted("Int<");
    EXPECT_EQ(k.text(), "<complete cl=\"1\" value=\"Int&lt;\"/>");
    k.send_completion_wanted(nullptr);
    EXPECT_EQ(k.text(), "<complete cl=\"1\" value=\"\"/>");

    k.send_format("Out", "text/plain");
    EXPECT_EQ(k.text(), "<format cl=\"1\" type=\"Out\" value=\"text/plain\"/>");
    k.send_format(nullptr, "");
    EXPECT_EQ(k.text(), "<format cl=\"1\" type=\"\" value=\"\"/>");
}

TEST_F(Writer, InputAnswers)
{
    TestKernel k(1);
    EXPECT_EQ(k.send_input(1, nullptr), 1);
    EXPECT_EQ(k.text(), "<input cl=\"1\" canceled=\"1\"><text format=\"_lan\"></text></input>");
    k.send_input(0, "y & n");
    EXPECT_EQ(k.text(), "<input cl=\"1\" canceled=\"0\"><text format=\"_lan\">y &amp; n</text></input>");
    k.send_textinput(5, nullptr);
    EXPECT_EQ(k.text(), "<textinput cl=\"1\" canceled=\"1\"></textinput>");
    k.send_textinput(0, "line\n2");
    EXPECT_EQ(k.text(), "<textinput cl=\"1\" canceled=\"0\">line\n2</textinput>");
}

TEST_F(Writer, DebuggerCommands)
{
    TestKernel k(1);
    EXPECT_EQ(k.send_dbg_cmd('q', nullptr, 0, nullptr), 1);
    EXPECT_EQ(k.text(), "<dbgcmd cl=\"1\" cmd=\"q\" fname=\"\" fpos=\"0\" expr=\"\"/>");
    k.send_dbg_cmd('b', "f<1>.g", 17, "x>0 && y");
    EXPECT_EQ(k.text(), "<dbgcmd cl=\"1\" cmd=\"b\" fname=\"f&lt;1&gt;.g\" fpos=\"17\" "
                        "expr=\"x&gt;0 &amp;&amp; y\"/>");

    // Bytes that would break the element are escaped; control bytes vanish.
    k.send_dbg_cmd('"', nullptr, -1, nullptr);
    EXPECT_EQ(k.text(), "<dbgcmd cl=\"1\" cmd=\"&quot;\" fname=\"\" fpos=\"-1\" expr=\"\"/>");
    k.send_dbg_cmd('<', nullptr, 0, nullptr);
    EXPECT_EQ(k.text(), "<dbgcmd cl=\"1\" cmd=\"&lt;\" fname=\"\" fpos=\"0\" expr=\"\"/>");
    for (unsigned char c : {0x00, 0x01, 0x09, 0x0A, 0x0D, 0x1F}) {
        k.send_dbg_cmd(c, nullptr, 0, nullptr);
        EXPECT_EQ(k.text(), "<dbgcmd cl=\"1\" cmd=\"\" fname=\"\" fpos=\"0\" expr=\"\"/>")
            << int(c);
    }
}

TEST_F(Writer, CallResultWithoutPayload)
{
    TestKernel k(1);
    EXPECT_EQ(k.send_call_result(1, nullptr), 1);
    EXPECT_EQ(k.text(), "<callresult cl=\"1\" error=\"1\"></callresult>");
    k.send_call_result(7, nullptr);
    EXPECT_EQ(k.text(), "<callresult cl=\"1\" error=\"1\"></callresult>");

    TestKernel anon(-1);
    anon.send_call_result(1, nullptr);
    EXPECT_EQ(anon.text(), "<callresult error=\"1\"></callresult>");
    anon.send_cmd_data(nullptr, nullptr, 0, nullptr);
    EXPECT_EQ(anon.text(), "<cmd cid=\"0\"></cmd>");
}

TEST_F(Writer, EscapeTable)
{
    TestKernel k(1);
    k.fresh();
    k.xput_cdata("a<b & 'c' \"d\"");
    EXPECT_EQ(k.text(), "a&lt;b &amp; &apos;c&apos; &quot;d&quot;");

    k.fresh();
    k.xput_ascii_cdata("a<b & 'c' \"d\" >");
    EXPECT_EQ(k.text(), "a&lt;b &amp; &apos;c&apos; &quot;d&quot; &gt;");

    // Tab, line feed and carriage return stay; other control bytes go.
    k.fresh();
    k.xput_cdata("\t\n\r|\x01\x07\x1B|a\x1B" "b");
    EXPECT_EQ(k.text(), "\t\n\r||ab");
    k.fresh();
    k.xput_ascii_cdata("\x1F" "a\x02\x03" "b\x7F");
    EXPECT_EQ(k.text(), "ab\x7F");

    // Every byte of the table once, ascii path (no conversion involved).
    std::string all, want;
    for (int c = 1; c < 256; ++c) {
        all += static_cast<char>(c);
        switch (c) {
        case '"': want += "&quot;"; break;
        case '&': want += "&amp;"; break;
        case '\'': want += "&apos;"; break;
        case '<': want += "&lt;"; break;
        case '>': want += "&gt;"; break;
        default:
            if (c >= 0x20 || c == 9 || c == 10 || c == 13)
                want += static_cast<char>(c);
        }
    }
    k.fresh();
    k.xput_ascii_cdata(all.c_str());
    EXPECT_EQ(k.text(), want);

    // UTF-8 passes whole through the UTF-8 locale's conversion.
    k.fresh();
    k.xput_cdata("\xC3\xA9<\xE2\x82\xAC");
    EXPECT_EQ(k.text(), "\xC3\xA9&lt;\xE2\x82\xAC");

    for (const char* empty : {static_cast<const char*>(nullptr), ""}) {
        k.fresh();
        k.xput_cdata(empty);
        k.xput_ascii_cdata(empty);
        EXPECT_EQ(k.text(), "");
        EXPECT_EQ(k.stream.writes, 0);
        EXPECT_EQ(k.status_, TKstream::Ok);
    }
}

TEST_F(Writer, NumbersAndBooleans)
{
    TestKernel k(1);
    k.fresh();
    k.xput_int(-5);
    EXPECT_EQ(k.text(), "-5");
    k.fresh();
    k.xput_int(LONG_MIN);
    EXPECT_EQ(k.text(), "-9223372036854775808");
    k.fresh();
    k.xput_int(0);
    k.xput_bool(0);
    k.xput_bool(-3);
    EXPECT_EQ(k.text(), "001");
}

TEST_F(Writer, LongTextsUseTheHeapPathOfTheConversion)
{
    TestKernel k(1);
    std::string cmd, want;
    for (int i = 0; i < 2000; ++i) {
        cmd += "x<";
        want += "x&lt;";
    }
    EXPECT_EQ(k.send_cmd(nullptr, cmd.c_str(), 0, nullptr), 1);
    EXPECT_EQ(k.text(), "<cmd cl=\"1\" cid=\"0\"><text format=\"_lan\">" + want + "</text></cmd>");
}

} // namespace
