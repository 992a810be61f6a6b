// Debugger lists, format lists with interned names, and the answers of the
// default handlers when the reader dispatches to them.
#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <string>
#include <vector>

#include "ReaderHarness.h"

using rh::Session;
using rh::Split;
using rh::TestClient;

namespace {

class ReaderLists : public ::testing::Test {
protected:
    void SetUp() override { std::setlocale(LC_ALL, ""); }
};

} // namespace

TEST_F(ReaderLists, EmptyListsPassNullArrays)
{
    EXPECT_CALLS_ALL_SPLITS(
        "<breakpoints cl=\"1\"/><callstack cl=\"2\" level=\"4\"></callstack><display cl=\"1\"/>",
        {"#1 breakpoints n=0 null null null", "#2 callstack level=4 n=0 null null null",
         "#1 display n=0 null null"});
}

TEST_F(ReaderLists, ItemsInDocumentOrderWithMissingAttributes)
{
    EXPECT_CALLS_ALL_SPLITS(
        "<breakpoints cl=\"1\"><breakpt/><breakpt fname=\"b\" fpos=\"-2\" cond=\"c\"/>"
        "<breakpt cond=\"only\"/></breakpoints>"
        "<callstack cl=\"1\"><csframe fname=\"f\" proc=\"p\"/></callstack>"
        "<display cl=\"1\"><dispvar value=\"v\"/><dispvar name=\"n\"/></display>",
        {"#1 breakpoints n=3 ['','b',''] [0,-2,0] ['','c','only']",
         "#1 callstack level=0 n=1 ['f'] [0] ['p']",
         "#1 display n=2 ['','n'] ['v','']"});
}

TEST_F(ReaderLists, ListsOfUnequalLengthAreNotDelivered)
{
    Session s;
    EXPECT_TRUE(s.feed("<breakpoints cl=\"1\"><breakpt fname=\"a\"/><dispvar name=\"x\"/>"
                       "</breakpoints>"));
    EXPECT_TRUE(s.rec.calls.empty());
    EXPECT_EQ(s.reader.dbgNames(), 0u) << "the lists are freed anyway";
    EXPECT_EQ(s.reader.dbgTexts(), 0u);
    EXPECT_EQ(s.reader.dbgPositions(), 0u);

    EXPECT_TRUE(s.feed("<callstack cl=\"1\" level=\"1\"><dispvar name=\"x\"/><csframe/>"
                       "</callstack>"));
    EXPECT_TRUE(s.rec.calls.empty());
    EXPECT_EQ(s.reader.dbgNames(), 0u);

    // A display needs names and values only; positions do not count.
    EXPECT_TRUE(s.feed("<display cl=\"1\"><dispvar name=\"x\" value=\"1\"/>"
                       "<breakpt fname=\"y\" cond=\"2\"/></display>"));
    EXPECT_EQ(s.rec.calls, (std::vector<std::string>{"#1 display n=2 ['x','y'] ['1','2']"}));
}

TEST_F(ReaderLists, LateItemsGoToTheLastClientUntilTheNextListStarts)
{
    Session s;
    EXPECT_TRUE(s.feed("<breakpoints cl=\"2\"></breakpoints><breakpt fname=\"late\" fpos=\"5\"/>"));
    EXPECT_EQ(s.reader.current(), &s.client(2));
    EXPECT_EQ(s.reader.dbgNames(), 1u);
    EXPECT_EQ(s.reader.dbgPositions(), 1u);
    // the next list start empties them
    EXPECT_TRUE(s.feed("<breakpoints cl=\"1\"><breakpt fname=\"b\"/></breakpoints>"));
    EXPECT_EQ(s.rec.calls, (std::vector<std::string>{"#2 breakpoints n=0 null null null",
                                                     "#1 breakpoints n=1 ['b'] [0] ['']"}));

    // Late items after an ignored message are ignored too.
    EXPECT_TRUE(s.feed("<display cl=\"9\"></display><dispvar name=\"z\"/>"));
    EXPECT_EQ(s.reader.dbgNames(), 0u);

    // A late item is delivered with a later list only if no list start
    // came between; a callstack start clears what a stray item left.
    EXPECT_TRUE(s.feed("<ready cl=\"1\"/><csframe fname=\"stray\"/>"
                       "<callstack cl=\"1\" level=\"1\"><csframe fname=\"c\"/></callstack>"));
    EXPECT_EQ(s.rec.calls.back(), "#1 callstack level=1 n=1 ['c'] [0] ['']");
}

TEST_F(ReaderLists, FormatChangedGetsTheFirstFormatOnly)
{
    EXPECT_CALLS_ALL_SPLITS(
        "<format cl=\"1\" type=\"real\"><fmt name=\"f1\"/><fmt name=\"f2\"/></format>"
        "<format cl=\"1\" type=\"none\"></format>"
        "<format cl=\"2\"><fmt/></format>",
        {"#1 format type='real' 'f1'", "#2 format type='' ''"});
}

TEST_F(ReaderLists, FormatNamesAreInterned)
{
    Session s;
    EXPECT_TRUE(s.feed("<selformat cl=\"1\" type=\"t\"><fmt name=\"a\"/><fmt name=\"b\"/>"
                       "<fmt name=\"a\"/></selformat>"));
    ASSERT_EQ(s.rec.lastFormats.size(), 3u);
    const char* a = s.rec.lastFormats[0];
    const char* b = s.rec.lastFormats[1];
    EXPECT_EQ(a, s.rec.lastFormats[2]) << "same name, same copy";
    EXPECT_STREQ(a, "a");
    EXPECT_STREQ(b, "b");

    EXPECT_TRUE(s.feed("<format cl=\"2\" type=\"u\"><fmt name=\"b\"/></format>"));
    EXPECT_EQ(s.rec.lastFormats, (std::vector<const char*>{b}));
    EXPECT_EQ(s.reader.formatName("a"), a);
    EXPECT_EQ(s.reader.fmtNames().size(), 2u);
    // The copies outlive their messages.
    EXPECT_STREQ(a, "a");
    const char* c = s.reader.formatName("c");
    EXPECT_STREQ(c, "c");
    EXPECT_EQ(s.reader.fmtNames().size(), 3u);
    EXPECT_EQ(s.reader.formatName("c"), c);
}

TEST_F(ReaderLists, ShorterFormatListAfterALongerOne)
{
    Session s;
    EXPECT_TRUE(s.feed("<selformat cl=\"1\" type=\"t\"><fmt name=\"1\"/><fmt name=\"2\"/>"
                       "<fmt name=\"3\"/><fmt name=\"4\"/><fmt name=\"5\"/></selformat>"));
    const char** first = s.rec.lastFormatArray;
    EXPECT_TRUE(s.feed("<selformat cl=\"2\" type=\"v\"><fmt name=\"5\"/><fmt name=\"x\"/>"
                       "<fmt name=\"1\"/></selformat>"));
    EXPECT_EQ(s.rec.calls.back(), "#2 selformat type='v' n=3 ['5','x','1']");
    EXPECT_EQ(s.rec.lastFormatArray, first) << "the array is reused";
    EXPECT_EQ(s.reader.fmtCount(), 0);
    // A selformat without formats still calls, with a count of 0.
    EXPECT_TRUE(s.feed("<selformat cl=\"1\" type=\"w\"/>"));
    EXPECT_EQ(s.rec.calls.back(), "#1 selformat type='w' n=0 null");
    // clearFmtList forgets the current message's formats
    EXPECT_TRUE(s.feed("<format cl=\"1\"><fmt name=\"q\"/>"));
    EXPECT_EQ(s.reader.fmtCount(), 1);
    s.reader.clearFmtList();
    EXPECT_TRUE(s.feed("</format>"));
    EXPECT_EQ(s.rec.calls.back(), "#1 selformat type='w' n=0 null") << "no format: no call";
}

// ---- default handlers ------------------------------------------------------

namespace {

// What a client with nothing but the default handlers sends for stream.
std::string answerTo(const std::string& stream)
{
    Session s;
    s.client(1).reset_message_handler();
    EXPECT_TRUE(s.feed(stream));
    EXPECT_TRUE(s.rec.calls.empty());
    return s.client(1).sent();
}

} // namespace

TEST_F(ReaderLists, DefaultHandlersAnswerTheKernel)
{
    {
        TestClient expect(1);
        expect.send_init(0, nullptr);
        EXPECT_EQ(answerTo("<sendinit cl=\"1\"/>"), expect.sent());
    }
    {
        TestClient expect(1);
        expect.send_input(1, nullptr);
        EXPECT_EQ(answerTo("<sendinput cl=\"1\" cid=\"3\"><text>?</text></sendinput>"),
                  expect.sent());
    }
    {
        TestClient expect(1);
        expect.send_textinput(1, nullptr);
        EXPECT_EQ(answerTo("<sendinput cl=\"1\" text=\"5\"/>"), expect.sent());
    }
    {
        TestClient expect(1);
        expect.send_call_result(1, nullptr);
        EXPECT_EQ(answerTo("<callback cl=\"1\"><mcode>eJxLTEoGAAJNASc=</mcode></callback>"),
                  expect.sent());
    }
    {
        TestClient expect(1);
        expect.send_system_result(1);
        EXPECT_EQ(answerTo("<system cl=\"1\" value=\"rm -rf /\"/>"), expect.sent());
    }
    {
        TestClient expect(1);
        expect.send_dbg_cmd('q', nullptr, 0, nullptr);
        EXPECT_EQ(answerTo("<senddbgcmd cl=\"1\" cid=\"2\"/>"), expect.sent());
    }
    {
        TestClient expect(1);
        expect.send_format("real", "b");
        std::string got = answerTo(
            "<selformat cl=\"1\" type=\"real\"><fmt name=\"b\"/><fmt name=\"c\"/></selformat>");
        EXPECT_EQ(got, expect.sent());
        EXPECT_NE(got.find("<format cl=\"1\""), std::string::npos) << got;
    }
    // Messages without a default answer nothing.
    EXPECT_EQ(answerTo("<ready cl=\"1\"/><output cl=\"1\"><text>x</text></output>"
                       "<finished cl=\"1\"/><help cl=\"1\" value=\"h\"/>"),
              "");
}

TEST_F(ReaderLists, DefaultSelectFormatWithoutFormats)
{
    // Nothing to choose from: the default must not read the (null) list.
    // It still answers, so that the kernel is not left waiting.
    TestClient expect(1);
    expect.send_format("real", nullptr);
    const std::string got = answerTo("<selformat cl=\"1\" type=\"real\"/>");
    EXPECT_EQ(got, expect.sent());
    EXPECT_NE(got.find("type=\"real\""), std::string::npos) << got;
}
