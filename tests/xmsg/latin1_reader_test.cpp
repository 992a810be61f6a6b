// The reader in a Latin-1 locale: text and text attributes arrive in the
// locale's encoding, protocol words (type, format names) stay UTF-8.
#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <langinfo.h>
#include <string>
#include <vector>

#include "ReaderHarness.h"

namespace {

class ReaderLatin1 : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::setlocale(LC_ALL, "");
        ASSERT_STREQ(nl_langinfo(CODESET), "ISO-8859-1") << "run under en_US.ISO-8859-1";
    }
};

// e with acute accent, as the kernel sends it
#define E_UTF8 "\xC3\xA9"

} // namespace

TEST_F(ReaderLatin1, TextAndTextAttributesAreConverted)
{
    EXPECT_CALLS_ALL_SPLITS(
        "<output cl=\"1\" type=\"t" E_UTF8 "\"><text format=\"f" E_UTF8 "\">caf" E_UTF8
        " &#233;t" E_UTF8 "</text></output>"
        "<sendinput cl=\"1\"><text>r" E_UTF8 "ponse? </text></sendinput>"
        "<help cl=\"1\" value=\"" E_UTF8 "\"/>"
        "<system cl=\"1\" value=\"echo " E_UTF8 "\"/>"
        "<frame cl=\"1\" value=\"&#233;\"/>"
        "<plotfile cl=\"1\" name=\"/tmp/" E_UTF8 ".eps\"/>"
        "<completion cl=\"1\" list=\"" E_UTF8 "a " E_UTF8 "b\" pref=\"" E_UTF8 "\"/>"
        "<dbginfo cl=\"1\" cmd=\"s\" fname=\"" E_UTF8 ".g\" expr=\"x" E_UTF8 "\"/>"
        "<breakpoints cl=\"1\"><breakpt fname=\"" E_UTF8 "\" cond=\"" E_UTF8 "\"/></breakpoints>"
        "<callstack cl=\"1\"><csframe fname=\"" E_UTF8 "\" proc=\"p" E_UTF8 "\"/></callstack>"
        "<display cl=\"1\"><dispvar name=\"" E_UTF8 "\" value=\"" E_UTF8 "\"/></display>"
        "<selformat cl=\"1\" type=\"" E_UTF8 "\"><fmt name=\"" E_UTF8 "\"/></selformat>"
        "<format cl=\"1\" type=\"" E_UTF8 "\"><fmt name=\"g" E_UTF8 "\"/></format>"
        "<callback cl=\"1\"><mcode format=\"m" E_UTF8 "\">eJxLTEoGAAJNASc=</mcode></callback>",
        {
            "#1 output cid=0 type='t\\xC3\\xA9' format='f\\xC3\\xA9' text='caf\\xE9 \\xE9t\\xE9'",
            "#1 input_wanted cid=0 text=0 prompt='r\\xE9ponse? '",
            "#1 help '\\xE9'",
            "#1 system 'echo \\xE9'",
            "#1 frame '\\xE9'",
            "#1 plotfile cid=0 '/tmp/\\xE9.eps'",
            "#1 completion list='\\xE9a \\xE9b' pref='\\xE9'",
            "#1 dbginfo cmd=115 fname='\\xE9.g' fpos=0 expr='x\\xE9' level=0 depth=0",
            "#1 breakpoints n=1 ['\\xE9'] [0] ['\\xE9']",
            "#1 callstack level=0 n=1 ['\\xE9'] [0] ['p\\xE9']",
            "#1 display n=1 ['\\xE9'] ['\\xE9']",
            "#1 selformat type='\\xC3\\xA9' n=1 ['\\xC3\\xA9']",
            "#1 format type='\\xC3\\xA9' 'g\\xC3\\xA9'",
            "#1 callback cid=0 fmt='m\\xC3\\xA9' len=3 data=abc",
        });
}

TEST_F(ReaderLatin1, DebuggerCommandIsTheFirstRawByte)
{
    // The command character is a byte of the attribute as received.
    EXPECT_CALLS_ALL_SPLITS("<dbginfo cl=\"2\" cmd=\"" E_UTF8 "\"/>",
                            {"#2 dbginfo cmd=195 fname='' fpos=0 expr='' level=0 depth=0"});
}

TEST_F(ReaderLatin1, LongLatin1Text)
{
    // Beyond the conversion's inline scratch space, split at every size.
    std::string utf8;
    std::string latin1;
    for (int i = 0; i < 700; ++i) {
        utf8 += E_UTF8 "x";
        latin1 += "\xE9x";
    }
    for (rh::Split how : {rh::Split::Whole, rh::Split::Random, rh::Split::Bytes}) {
        static std::string got;
        got.clear();
        rh::Session s;
        s.client(1).on_output = [](TAM_KernelImpl*, void*, const char*, const char*,
                                   const char* t) { got = t; };
        EXPECT_TRUE(s.feed("<output cl=\"1\"><text>" + utf8 + "</text></output>", how));
        EXPECT_EQ(got, latin1);
    }
}
