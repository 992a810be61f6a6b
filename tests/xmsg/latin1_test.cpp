// Under a Latin-1 locale: user text goes out converted to UTF-8 and comes
// in converted back; protocol words (type, format names) stay as they are.
#include <gtest/gtest.h>
#include <langinfo.h>

#include <clocale>

#include "common/ReaderHarness.h"

namespace {

class Latin1 : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::setlocale(LC_ALL, "");
        ASSERT_STREQ(nl_langinfo(CODESET), "ISO-8859-1") << "run under en_US.ISO-8859-1";
    }
};

#define E_UTF8 "\xC3\xA9" // e with acute accent, as the kernel sends it

TEST_F(Latin1, RequestsConvertOnlyUserText)
{
    writertest::TestKernel k(1);
    k.send_format("t\xE9", "f\xE9");
    EXPECT_EQ(k.text(), "<format cl=\"1\" type=\"t\xE9\" value=\"f\xE9\"/>");
    // Escaping happens on the converted text.
    k.send_cmd(nullptr, "<caf\xE9\xFF>", 0, "x\xE9");
    EXPECT_EQ(k.text(),
              "<cmd cl=\"1\" cid=\"0\" format=\"x\xE9\"><text format=\"_lan\">&lt;caf" E_UTF8
              "\xC3\xBF&gt;</text></cmd>");
    const char* argv[] = {"\xE9t\xE9"};
    k.send_init(1, argv);
    EXPECT_EQ(k.text(), "<init cl=\"1\"><iarg value=\"" E_UTF8 "t" E_UTF8 "\"/></init>");
    k.send_new_client("n\xE9", "\xE9", 0, 2, 1, 4);
    EXPECT_EQ(k.text().rfind("<newclient cl=\"1\" name =\"n" E_UTF8 "\" frame=\"" E_UTF8 "\"", 0),
              0u);
    // A debugger command byte above ASCII is a locale character like the rest.
    k.send_dbg_cmd(0xE9, "\xE9", 1, "\xE9");
    EXPECT_EQ(k.text(), "<dbgcmd cl=\"1\" cmd=\"" E_UTF8 "\" fname=\"" E_UTF8
                        "\" fpos=\"1\" expr=\"" E_UTF8 "\"/>");
    const unsigned char abc[] = {'a', 'b', 'c'};
    const TAM_DataTAG rec = {"\xE9", abc, 3};
    k.send_call_result(0, &rec);
    EXPECT_EQ(k.text(), "<callresult cl=\"1\" error=\"0\"><mcode "
                        "format=\"\xE9\">eJxLTEoGAAJNASc=</mcode></callresult>");
}

TEST_F(Latin1, MessagesConvertTextAndTextAttributes)
{
    std::string utf8, latin1; // beyond the conversion's inline scratch space
    for (int i = 0; i < 700; ++i)
        utf8 += E_UTF8 "x", latin1 += "\\xE9x";
    rh::expectCallsAllSplits(
        "<output cl=\"1\" type=\"t" E_UTF8 "\"><text format=\"f" E_UTF8 "\">caf" E_UTF8
        " &#233;t" E_UTF8 "</text></output><output cl=\"1\"><text>" +
            utf8 +
            "</text></output>"
            "<sendinput cl=\"1\"><text>r" E_UTF8 "ponse? </text></sendinput>"
            "<help cl=\"1\" value=\"" E_UTF8 "\"/><system cl=\"1\" value=\"echo " E_UTF8 "\"/>"
            "<frame cl=\"1\" value=\"&#233;\"/><plotfile cl=\"1\" name=\"/tmp/" E_UTF8 ".eps\"/>"
            "<completion cl=\"1\" list=\"" E_UTF8 "a " E_UTF8 "b\" pref=\"" E_UTF8 "\"/>"
            "<dbginfo cl=\"1\" cmd=\"s\" fname=\"" E_UTF8 ".g\" expr=\"x" E_UTF8 "\"/>"
            "<dbginfo cl=\"2\" cmd=\"" E_UTF8 "\"/>"
            "<breakpoints cl=\"1\"><breakpt fname=\"" E_UTF8 "\" cond=\"" E_UTF8
            "\"/></breakpoints>"
            "<callstack cl=\"1\"><csframe fname=\"" E_UTF8 "\" proc=\"p" E_UTF8 "\"/></callstack>"
            "<display cl=\"1\"><dispvar name=\"" E_UTF8 "\" value=\"" E_UTF8 "\"/></display>"
            "<selformat cl=\"1\" type=\"" E_UTF8 "\"><fmt name=\"" E_UTF8 "\"/></selformat>"
            "<format cl=\"1\" type=\"" E_UTF8 "\"><fmt name=\"g" E_UTF8 "\"/></format>"
            "<callback cl=\"1\"><mcode format=\"m" E_UTF8 "\">eJxLTEoGAAJNASc=</mcode></callback>",
        {"#1 output 0 't\\xC3\\xA9' 'f\\xC3\\xA9' 'caf\\xE9 \\xE9t\\xE9'",
         "#1 output 0 '' '' '" + latin1 + "'", "#1 input_wanted 0 0 'r\\xE9ponse? '",
         "#1 help '\\xE9'", "#1 system 'echo \\xE9'", "#1 frame '\\xE9'",
         "#1 plotfile 0 '/tmp/\\xE9.eps'", "#1 completion '\\xE9a \\xE9b' '\\xE9'",
         "#1 dbginfo 115 '\\xE9.g' 0 'x\\xE9' 0 0",
         "#2 dbginfo 195 '' 0 '' 0 0", // the command character is the first byte as received
         "#1 breakpoints 1 ['\\xE9'] [0] ['\\xE9']", "#1 callstack 0 1 ['\\xE9'] [0] ['p\\xE9']",
         "#1 display 1 ['\\xE9'] ['\\xE9']", "#1 selformat '\\xC3\\xA9' 1 ['\\xC3\\xA9']",
         "#1 format '\\xC3\\xA9' 'g\\xC3\\xA9'", "#1 callback 0 'm\\xC3\\xA9' 3 'abc'"});
}

// Text is converted under the locale of the moment it arrives: after a
// handler or the caller between two pieces of input has switched it.
TEST_F(Latin1, TextFollowsALocaleChangedMidStream)
{
    static bool utf8;
    auto use = [](bool u) { std::setlocale(LC_ALL, u ? "en_US.UTF-8" : ""), utf8 = u; };
    rh::Session s;
    s.clients[1].on_finished = [](rh::K*, void*) {
        utf8 = !utf8;
        std::setlocale(LC_ALL, utf8 ? "en_US.UTF-8" : "");
    };
    use(true);
    const std::string text = "<output cl=\"1\"><text>" E_UTF8 "</text></output>";
    const std::string finished = "<finished cl=\"1\"/>";
    s.feed(text + finished + text + finished + "<output cl=\"1\"><text>a" E_UTF8);
    use(false);
    s.feed(E_UTF8 "</text></output>");
    EXPECT_EQ(rh::gCalls, (std::vector<std::string>{"#1 output 0 '' '' '\\xC3\\xA9'",
                                                    "#1 output 0 '' '' '\\xE9'",
                                                    "#1 output 0 '' '' 'a\\xC3\\xA9\\xE9'"}));
}

} // namespace
