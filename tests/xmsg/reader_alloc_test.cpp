// Steady-state allocations of the reader, counted for the whole process
// (common/AllocCount.h); a sanitizer build skips the cases.
#include <gtest/gtest.h>

#include <clocale>

#include "common/AllocCount.h"
#include "common/ReaderHarness.h"

namespace {

using tamixtest::allocationsDuring;

class ReaderAlloc : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!tamixtest::allocationsCounted())
            GTEST_SKIP() << "AddressSanitizer owns malloc here";
        std::setlocale(LC_ALL, "");
    }
};

// The counter is not blind: strdup'd debugger strings, list growth and a
// type too long for the reader's inline text buffer are seen.
TEST_F(ReaderAlloc, CounterSeesTheLibrarysOwnAllocations)
{
    rh::Session s;
    EXPECT_GE(allocationsDuring([&] {
                  s.feed("<breakpoints cl=\"1\"><breakpt fname=\"a\" cond=\"b\"/></breakpoints>");
              }),
              2);
    EXPECT_GE(allocationsDuring(
                  [&] { s.feed("<output cl=\"1\" type=\"a type longer than a short string\"/>"); }),
              1);
}

TEST_F(ReaderAlloc, MessagesAllocateNothingAfterWarmUp)
{
    static long delivered = 0;
    rh::Session s;
    s.clients[1].on_output = [](rh::K*, void*, const char*, const char*, const char*) {
        ++delivered;
    };
    s.clients[1].on_output_data = [](rh::K*, void*, const char*, const TAM_DataTAG*) {
        ++delivered;
    };
    s.clients[1].on_select_format = [](rh::K*, const char*, long, const char**) { ++delivered; };
    s.clients[1].on_finished = [](rh::K*, void*) { ++delivered; };
    s.reader.lookups.reserve(4096); // the harness's own record of lookups
    const std::string msgs[] = {
        "<output cl=\"1\" cid=\"17\" type=\"a\"><text format=\"b\">Hello</text></output>",
        "<output cl=\"1\" type=\"a-type-name-longer-than-a-short-string\"><text "
        "format=\"a-format-name-longer-than-a-short-string\">Hello, world\n</text></output>",
        "<output cl=\"1\" type=\"m\"><mcode format=\"abc\">eJxLTEoGAAJNASc=</mcode></output>",
        "<selformat cl=\"1\"><fmt name=\"a\"/><fmt name=\"b\"/></selformat><finished cl=\"1\"/>",
        // Not ASCII, but the locale is UTF-8: no conversion either.
        "<output cl=\"1\" type=\"a\"><text format=\"b\">caf\xC3\xA9 \xE2\x88\x9A</text></output>",
    };
    const std::string pair = msgs[0] + msgs[1];
    for (int i = 0; i < 3; ++i)
        for (const std::string& m : msgs)
            s.feed(m);
    delivered = 0;
    EXPECT_EQ(allocationsDuring([&] {
                  for (int i = 0; i < 100; ++i)
                      for (const std::string& m : msgs)
                          s.feed(m);
                  for (unsigned seed = 1; seed <= 20; ++seed) // in pieces, as the socket gives them
                      s.feed(pair, rh::Split::Random, seed);
              }),
              0);
    EXPECT_EQ(delivered, 600 + 40);
}

} // namespace
