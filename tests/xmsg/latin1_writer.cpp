// Under a Latin-1 locale user text is converted to UTF-8 while protocol
// words go out byte for byte.
#include <gtest/gtest.h>

#include <clocale>

#include "WriterTestKernel.h"

using writertest::TestKernel;

namespace {

class Latin1Writer : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(std::setlocale(LC_ALL, ""), nullptr); }
};

TEST_F(Latin1Writer, TextIsConvertedWordsAreNot)
{
    TestKernel k(1);
    k.fresh();
    k.xput_cdata("\xE9");
    EXPECT_EQ(k.text(), "\xC3\xA9");
    k.fresh();
    k.xput_ascii_cdata("\xE9");
    EXPECT_EQ(k.text(), "\xE9");

    // Escaping happens on the converted text.
    k.fresh();
    k.xput_cdata("<\xE9\xFF>");
    EXPECT_EQ(k.text(), "&lt;\xC3\xA9\xC3\xBF&gt;");
}

TEST_F(Latin1Writer, RequestsConvertOnlyUserText)
{
    TestKernel k(1);
    k.send_format("t\xE9", "f\xE9");
    EXPECT_EQ(k.text(), "<format cl=\"1\" type=\"t\xE9\" value=\"f\xE9\"/>");

    k.send_cmd(nullptr, "caf\xE9", 0, "x\xE9");
    EXPECT_EQ(k.text(), "<cmd cl=\"1\" cid=\"0\" format=\"x\xE9\"><text "
                        "format=\"_lan\">caf\xC3\xA9</text></cmd>");

    const char* argv[] = {"\xE9t\xE9"};
    k.send_init(1, argv);
    EXPECT_EQ(k.text(), "<init cl=\"1\"><iarg value=\"\xC3\xA9t\xC3\xA9\"/></init>");

    k.send_new_client("n\xE9", "\xE9", 0, 2, 1, 4);
    EXPECT_EQ(k.text().rfind("<newclient cl=\"1\" name =\"n\xC3\xA9\" frame=\"\xC3\xA9\"", 0), 0u);

    // A debugger command byte above ASCII is a locale character like the
    // file name and expression beside it.
    k.send_dbg_cmd(0xE9, "\xE9", 1, "\xE9");
    EXPECT_EQ(k.text(), "<dbgcmd cl=\"1\" cmd=\"\xC3\xA9\" fname=\"\xC3\xA9\" fpos=\"1\" "
                        "expr=\"\xC3\xA9\"/>");

    // Payload format names are protocol words too.
    const unsigned char abc[] = {'a', 'b', 'c'};
    TAM_DataTAG rec = {"\xE9", abc, 3};
    k.send_call_result(0, &rec);
    EXPECT_EQ(k.text(), "<callresult cl=\"1\" error=\"0\"><mcode format=\"\xE9\">eJxLTEoGAAJNASc="
                        "</mcode></callresult>");
}

} // namespace
