// The kernel's Giac-free pieces, where the process tests cannot reach:
// bytes Giac never hands over through a client, stream splits, limits.
#include <gtest/gtest.h>

#include "tamkern/Messages.h"
#include "tamkern/Requests.h"
#include "tamkern/TextLayout.h"

using namespace tamkern;

TEST(TamkernUnits, EscapingKeepsTheStreamWellFormed)
{
    const struct { std::string in, out; } cases[] = {
        {"a<b>&\"c'", "a&lt;b&gt;&amp;&quot;c&apos;"},
        // Line ends survive attribute normalisation as references.
        {"1\n2\r\t3", "1&#10;2&#13;&#9;3"},
        // Control characters have no XML 1.0 form at all.
        {std::string("a\x01\x1f\x7f" "b", 5), "ab"},
        // Valid UTF-8 passes, invalid bytes become U+FFFD.
        {"\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80", "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80"},
        {"a\xff" "b", "a\xef\xbf\xbd" "b"},
        {"\xc3", "\xef\xbf\xbd"},                                              // cut short at the end
        {"\xc0\xaf", "\xef\xbf\xbd\xef\xbf\xbd"},                              // overlong
        {"\xed\xa0\x80", "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"},              // surrogate
        {"\xef\xbf\xbf\xef\xbf\xbc", "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbc"},  // U+FFFF: no XML character
    };
    for (const auto& t : cases)
        EXPECT_EQ(escaped(t.in), t.out) << t.in;
}

TEST(TamkernUnits, PayloadsDecodeAcrossWhitespaceButNotCutShortOrBeyondTheLimit)
{
    std::string bytes;
    EXPECT_TRUE(decodeMCode(" eJxLT\nEoGAA JNASc ", bytes));
    EXPECT_EQ(bytes, "abc");
    EXPECT_FALSE(decodeMCode("eJxLTEoGAA", bytes));
    EXPECT_FALSE(decodeMCode("AAAAAAAA", bytes));
    // What the kernel writes it reads back, up to 16 MiB and not a byte more.
    const std::size_t limit = std::size_t(16) << 20;
    for (std::size_t n : {std::size_t(3000), limit, limit + 1}) {
        std::string m;
        appendMCode(m, "f\"", std::string(n, 'z'));
        ASSERT_EQ(m.compare(0, 26, "<mcode format=\"f&quot;\">eJ"), 0);
        ASSERT_EQ(m.compare(m.size() - 8, 8, "</mcode>"), 0);
        EXPECT_EQ(decodeMCode(m.substr(24, m.size() - 32), bytes), n <= limit) << n;
        EXPECT_TRUE(n <= limit ? bytes.size() == n : bytes.size() <= limit) << bytes.size();
        EXPECT_EQ(bytes.find_first_not_of('z'), std::string::npos);
    }
}

TEST(TamkernUnits, RequestStreamSplitAnywhereGivesTheSameRequests)
{
    const std::string all =
        "<newclient name =\"n&amp;1\" frame=\"f\" longfmt=\"text\" floatfmt=\"ieee\" coding=\"ident \" features=\"\"/>"
        "<init cl=\"1\"><iarg value=\"-l\"/><iarg value=\"../lib\"/></init>"
        "<cmd cl=\"1\" cid=\"-5\"><text format=\"_lan\">a &lt; b &amp; \xc3\xa4</text></cmd>"
        "<cmd cl=\"1\" cid=\"6\"><mcode format=\"utf8\">eJxLTEoGAAJNASc=</mcode></cmd>"
        "<textinput cl=\"2\" canceled=\"0\">hi there</textinput><stop cl=\"1\"/>";
    auto read = [&](std::size_t cut) {
        std::string got;
        RequestReader r([&](Request& q) {
            got += std::string(requestName(q.kind)) + "|" + q.name + "|" + std::to_string(q.cid) + "|" + q.text + "|" +
                   q.payloadBase64 + "|" + (q.args.empty() ? "" : q.args.back()) + "\n";
        });
        EXPECT_TRUE(r.feed(all.data(), static_cast<int>(cut)));
        EXPECT_TRUE(r.feed(all.data() + cut, static_cast<int>(all.size() - cut)));
        return got;
    };
    const std::string whole = read(all.size());
    EXPECT_EQ(whole, "newclient|n&1|0|||\ninit||0|||../lib\ncmd||-5|a < b & \xc3\xa4||\n"
                     "cmd||6||eJxLTEoGAAJNASc=|\ntextinput||0|hi there||\nstop||0|||\n");
    for (std::size_t cut = 1; cut < all.size(); ++cut)
        ASSERT_EQ(read(cut), whole) << cut;
}

TEST(TamkernUnits, OversizedRequestFailsTheReader)
{
    // A text, and an attribute that never ends (held whole by the parser).
    for (std::string head : {"<cmd cl=\"1\"><text>", "<complete cl=\"1\" value=\""}) {
        RequestReader r([](Request&) {});
        std::string chunk(1 << 20, 'x');
        ASSERT_TRUE(r.feed(head.data(), static_cast<int>(head.size())));
        bool fed = true;
        for (int i = 0; i < 20 && fed; ++i)
            fed = r.feed(chunk.data(), static_cast<int>(chunk.size()));
        EXPECT_FALSE(fed) << head;
        EXPECT_NE(r.fault().find("larger than the limit"), std::string::npos) << r.fault();
        EXPECT_EQ(r.midRequest(), head.back() == '>');
    }
    // Elements nested without end (each one open costs the parser memory),
    // and start-up arguments without end.
    const struct { std::string head, repeated, fault; } floods[] = {
        {"", "<cmd>", "requests nested too deeply"},
        {"<init>", "<iarg value=\"a\"/>", "<init> with more arguments than the limit"},
    };
    for (const auto& f : floods) {
        RequestReader r([](Request&) {});
        std::string s = f.head;
        for (int i = 0; i < 2000; ++i)
            s += f.repeated;
        EXPECT_FALSE(r.feed(s.data(), static_cast<int>(s.size())));
        EXPECT_EQ(r.fault(), f.fault);
    }
}

TEST(TamkernUnits, LayoutWrapsCharactersAndAbbreviatesAtTheLimit)
{
    EXPECT_EQ(wrapText("abcd\nef", 2), "ab\ncd\nef");
    // Prefers a break after an operator near the end of the line.
    EXPECT_EQ(wrapText("x^6+6*x^5*y+15*x^4", 10), "x^6+6*x^5*\ny+15*x^4");
    // Characters, not bytes: a two-byte letter counts once and stays whole.
    EXPECT_EQ(wrapText("\xc3\xa4\xc3\xa4\xc3\xa4", 2), "\xc3\xa4\xc3\xa4\n\xc3\xa4");

    std::string limit(AbbreviateLimit, 'a');
    EXPECT_EQ(abbreviate(limit), limit);
    std::string head(AbbreviateHead, 'h'), tail(AbbreviateTail, 't');
    EXPECT_EQ(abbreviate(head + std::string(1000, 'm') + tail),
              head + " ...<<1000 characters omitted>>... " + tail);
}
