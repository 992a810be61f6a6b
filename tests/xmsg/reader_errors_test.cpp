// Failures while reading: handlers that throw, malformed input, and what
// cleanup() leaves behind.
#include <gtest/gtest.h>

#include <clocale>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "ReaderHarness.h"

using rh::Session;
using rh::Split;

namespace {

class ReaderErrors : public ::testing::Test {
protected:
    void SetUp() override { std::setlocale(LC_ALL, ""); }
};

void throwingReady(TAM_KernelImpl* k)
{
    rh::add(k, "ready throws");
    throw std::runtime_error("handler failure");
}

void throwingOutput(TAM_KernelImpl* k, void*, const char*, const char*, const char* text)
{
    rh::add(k, std::string("output throws ") + text);
    throw std::bad_alloc();
}

void throwingList(TAM_KernelImpl* k, long, const char**, const long*, const char**)
{
    rh::add(k, "breakpoints throws");
    throw 42;  // not even a std::exception
}

} // namespace

TEST_F(ReaderErrors, ThrowingHandlerThenNormalMessages)
{
    for (Split how : {Split::Whole, Split::Random, Split::Bytes}) {
        Session s;
        s.client(1).on_kernel_ready = throwingReady;
        EXPECT_FALSE(s.feed("<ready cl=\"1\"/>", how));
        EXPECT_EQ(s.reader.cleanups, 1);
        EXPECT_TRUE(s.feed("<finished cl=\"1\" cid=\"5\"/>", how));
        EXPECT_TRUE(s.feed("<finished cl=\"2\" cid=\"6\"/>", how));
        EXPECT_EQ(s.reader.cleanups, 1);
        EXPECT_EQ(s.rec.calls, (std::vector<std::string>{"#1 ready throws", "#1 finished cid=5",
                                                         "#2 finished cid=6"}));
    }
}

TEST_F(ReaderErrors, MessagesAfterTheThrowInTheSameChunkAreDelivered)
{
    Session s;
    s.client(1).on_kernel_ready = throwingReady;
    EXPECT_FALSE(s.feed("<ready cl=\"1\"/><finished cl=\"2\" cid=\"1\"/><ready cl=\"1\"/>"
                        "<output cl=\"2\"><text>t</text></output>"));
    EXPECT_EQ(s.reader.cleanups, 2);
    EXPECT_EQ(s.rec.calls, (std::vector<std::string>{"#1 ready throws", "#2 finished cid=1",
                                                     "#1 ready throws",
                                                     "#2 output cid=0 type='' format='' text='t'"}));
}

TEST_F(ReaderErrors, ThrowAtAnEndTagDropsTheMessageState)
{
    Session s;
    s.client(1).on_output = throwingOutput;
    EXPECT_FALSE(s.feed("<output cl=\"1\" cid=\"9\" type=\"ty\"><text format=\"fo\">first</text>"
                        "</output>"));
    // cleanup emptied what the resets after the call would have emptied
    EXPECT_EQ(s.reader.contentLength(), 0u);
    EXPECT_EQ(s.reader.type(), "");
    EXPECT_EQ(s.reader.format(), "");
    EXPECT_EQ(s.reader.cookie(), 0);
    EXPECT_TRUE(s.feed("<output cl=\"2\"><text>ok</text></output>"));
    EXPECT_EQ(s.rec.calls, (std::vector<std::string>{
                               "#1 output throws first",
                               "#2 output cid=0 type='' format='' text='ok'",
                           }));
}

TEST_F(ReaderErrors, ThrowingListHandlerFreesTheLists)
{
    Session s;
    s.client(1).on_breakpoint_list = throwingList;
    EXPECT_FALSE(s.feed("<breakpoints cl=\"1\"><breakpt fname=\"a\"/><breakpt fname=\"b\"/>"
                        "</breakpoints>"));
    EXPECT_EQ(s.reader.dbgNames(), 0u);
    EXPECT_EQ(s.reader.dbgTexts(), 0u);
    EXPECT_EQ(s.reader.dbgPositions(), 0u);
    EXPECT_TRUE(s.feed("<breakpoints cl=\"2\"><breakpt fname=\"c\"/></breakpoints>"));
    EXPECT_EQ(s.rec.calls, (std::vector<std::string>{"#1 breakpoints throws",
                                                     "#2 breakpoints n=1 ['c'] [0] ['']"}));
}

TEST_F(ReaderErrors, ThrowingLookupIsContained)
{
    struct ThrowingReader : rh::TestReader {
        TAM_KernelImpl* kernel(long id) override
        {
            if (id == 13)
                throw std::runtime_error("no such client");
            return rh::TestReader::kernel(id);
        }
    };
    rh::Record rec;
    rh::record() = &rec;
    ThrowingReader r;
    rh::TestClient c(1);
    c.recordAll();
    r.clients[1] = &c;
    TAM_XmsgParser p(&r);
    EXPECT_TRUE(p.init());
    const std::string text = "<output cl=\"13\"><text>x</text></output><ready cl=\"1\"/>";
    EXPECT_FALSE(p.saveParse(text.data(), static_cast<int>(text.size())));
    EXPECT_EQ(r.cleanups, 1);
    EXPECT_EQ(rec.calls, (std::vector<std::string>{"#1 ready"}));
    rh::record() = nullptr;
}

TEST_F(ReaderErrors, MalformedInputFailsEveryLaterChunk)
{
    const char* const broken[] = {
        "<?xml version=\"1.0\"?>",
        "</TamixXMsgClientMessage><ready cl=\"1\"/>",
        "<output cl=\"1\"></text>",
        "<ready cl=\"1\" cl=\"2\"/>",
        "<ready cl=1/>",
        "&nosuchentity;",
        "\xff\xfe",
    };
    for (const char* bad : broken) {
        Session s;
        EXPECT_TRUE(s.feed("<ready cl=\"1\"/>"));
        EXPECT_FALSE(s.feed(bad)) << bad;
        EXPECT_EQ(s.reader.cleanups, 1) << bad;
        EXPECT_FALSE(s.feed("<ready cl=\"2\"/>")) << bad;
        EXPECT_FALSE(s.feed("<finished cl=\"2\"/>")) << bad;
        EXPECT_EQ(s.reader.cleanups, 3) << "once per failing chunk: " << bad;
        EXPECT_EQ(s.rec.calls, (std::vector<std::string>{"#1 ready"})) << bad;
    }
}

TEST_F(ReaderErrors, CleanupEmptiesTheMessageStateButKeepsTheClient)
{
    Session s;
    EXPECT_TRUE(s.feed("<output cl=\"2\" cid=\"5\" type=\"t\"><text format=\"f\">abc"));
    EXPECT_EQ(s.reader.type(), "t");
    EXPECT_EQ(s.reader.format(), "f");
    EXPECT_EQ(s.reader.cookie(), 5);
    EXPECT_EQ(s.reader.contentLength(), 3u);
    EXPECT_FALSE(s.feed("</oops>"));
    EXPECT_EQ(s.reader.cleanups, 1);
    EXPECT_EQ(s.reader.type(), "");
    EXPECT_EQ(s.reader.format(), "");
    EXPECT_EQ(s.reader.cookie(), 0);
    EXPECT_EQ(s.reader.contentLength(), 0u);
    EXPECT_EQ(s.reader.current(), &s.client(2));
    EXPECT_TRUE(s.rec.calls.empty());

    Session t;
    EXPECT_TRUE(t.feed("<callstack cl=\"1\"><csframe fname=\"x\"/>"
                       "<selformat cl=\"1\"><fmt name=\"a\"/>"));
    EXPECT_EQ(t.reader.dbgNames(), 1u);
    EXPECT_EQ(t.reader.fmtCount(), 1);
    t.reader.cleanup();
    EXPECT_EQ(t.reader.dbgNames(), 0u);
    EXPECT_EQ(t.reader.fmtCount(), 0);
    EXPECT_EQ(t.reader.fmtNames().size(), 1u) << "interned names stay";
}
