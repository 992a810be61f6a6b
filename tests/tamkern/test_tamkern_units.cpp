// The kernel's Giac-free pieces: message writing, payload coding, request
// reading and result layout.
#include <gtest/gtest.h>

#include "tamkern/Messages.h"
#include "tamkern/Requests.h"
#include "tamkern/TextLayout.h"

using namespace tamkern;

TEST(TamkernMessages, EscapingKeepsTheStreamWellFormed)
{
    EXPECT_EQ(escaped("a<b>&\"c'"), "a&lt;b&gt;&amp;&quot;c&apos;");
    // Line ends survive attribute normalisation as references.
    EXPECT_EQ(escaped("1\n2\r\t3"), "1&#10;2&#13;&#9;3");
    // Control characters have no XML 1.0 form at all.
    EXPECT_EQ(escaped(std::string("a\x01\x1f\x7f" "b", 5)), "ab");
    // Valid UTF-8 passes, invalid bytes become U+FFFD.
    EXPECT_EQ(escaped("\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80"), "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80");
    EXPECT_EQ(escaped("a\xff" "b"), "a\xef\xbf\xbd" "b");
    EXPECT_EQ(escaped("\xc3"), "\xef\xbf\xbd");                // cut short at the end
    EXPECT_EQ(escaped("\xc0\xaf"), "\xef\xbf\xbd\xef\xbf\xbd");  // overlong
    EXPECT_EQ(escaped("\xed\xa0\x80"), "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd");  // surrogate
}

TEST(TamkernMessages, MessagesAsTheClientReadsThem)
{
    EXPECT_EQ(msgOutputText(3, 17, "result", "text", "a<b"),
              "<output cl=\"3\" cid=\"17\" type=\"result\"><text format=\"text\">a&lt;b</text></output>");
    EXPECT_EQ(msgFinished(3, -17), "<finished cl=\"3\" cid=\"-17\"/>");
    EXPECT_EQ(msgEmpty("sendinit", 1), "<sendinit cl=\"1\"/>");
    EXPECT_EQ(msgStatus(2, 10, 20, 3), "<status cl=\"2\" used=\"10\" res=\"20\" sec=\"3\"/>");
    EXPECT_EQ(msgFormats("selformat", 1, "result", {"text", "tex"}),
              "<selformat cl=\"1\" type=\"result\"><fmt name=\"text\"/><fmt name=\"tex\"/></selformat>");
    EXPECT_EQ(msgSendInput(1, 4, true, "n?"),
              "<sendinput cl=\"1\" cid=\"4\" text=\"1\"><text format=\"text\">n?</text></sendinput>");
    EXPECT_EQ(msgQuit(), "<quit/>");
}

TEST(TamkernMessages, PayloadsAreZlibInBase64)
{
    // zlib at its default level, as every client of this protocol writes it.
    std::string out;
    appendMCode(out, "abc", "abc");
    EXPECT_EQ(out, "<mcode format=\"abc\">eJxLTEoGAAJNASc=</mcode>");
    out.clear();
    appendMCode(out, "", "");
    EXPECT_EQ(out, "<mcode format=\"\">eJwDAAAAAAE=</mcode>");

    std::string bytes;
    EXPECT_TRUE(decodeMCode("eJxLTEoGAAJNASc=", bytes));
    EXPECT_EQ(bytes, "abc");
    EXPECT_TRUE(decodeMCode(" eJxLT\nEoGAA JNASc ", bytes));
    EXPECT_EQ(bytes, "abc");
    // Cut short or damaged: not decoded, and what came out is a prefix.
    EXPECT_FALSE(decodeMCode("eJxLTEoGAA", bytes));
    EXPECT_FALSE(decodeMCode("AAAAAAAA", bytes));

    // Large and compressible: many inflate rounds.
    std::string big(300000, 'z');
    for (std::size_t i = 0; i < big.size(); i += 7)
        big[i] = static_cast<char>('a' + i % 13);
    out.clear();
    appendMCode(out, "utf8", big);
    std::size_t b = out.find('>') + 1, e = out.rfind('<');
    EXPECT_TRUE(decodeMCode(out.substr(b, e - b), bytes));
    EXPECT_EQ(bytes, big);
}

namespace {

std::vector<Request> readAll(const std::vector<std::string>& chunks, bool* ok = nullptr)
{
    std::vector<Request> got;
    RequestReader r([&](Request& q) { got.push_back(q); });
    bool fine = true;
    for (const std::string& c : chunks)
        fine = r.feed(c.data(), static_cast<int>(c.size())) && fine;
    if (ok)
        *ok = fine;
    return got;
}

const char kStream[] =
    "<newclient name =\"n&amp;1\" frame=\"f\" longfmt=\"text\" floatfmt=\"ieee\" coding=\"ident \" "
    "features=\"can_quit \"/>"
    "<init cl=\"1\"><iarg value=\"-l\"/><iarg value=\"../lib\"/></init>"
    "<cmd cl=\"1\" cid=\"-5\" flags=\"no_history\"><text format=\"_lan\">a &lt; b &amp; \xc3\xa4</text></cmd>"
    "<cmd cl=\"1\" cid=\"6\"><mcode format=\"utf8\">eJxLTEoGAAJNASc=</mcode></cmd>"
    "<textinput cl=\"2\" canceled=\"0\">hi there</textinput>"
    "<callresult cl=\"1\" error=\"1\"></callresult>"
    "<stop cl=\"1\"/>";

} // namespace

TEST(TamkernRequests, StreamSplitAnywhereGivesTheSameRequests)
{
    std::string all(kStream);
    bool ok = false;
    std::vector<Request> whole = readAll({all}, &ok);
    ASSERT_TRUE(ok);
    ASSERT_EQ(whole.size(), 7u);
    EXPECT_EQ(whole[0].kind, Request::NewClient);
    EXPECT_FALSE(whole[0].hasCl);
    EXPECT_EQ(whole[0].name, "n&1");
    EXPECT_EQ(whole[0].features, "can_quit ");
    EXPECT_EQ(whole[1].kind, Request::Init);
    EXPECT_EQ(whole[1].args, (std::vector<std::string>{"-l", "../lib"}));
    EXPECT_EQ(whole[2].cid, -5);
    EXPECT_EQ(whole[2].cl, 1);
    EXPECT_EQ(whole[2].text, "a < b & \xc3\xa4");
    EXPECT_TRUE(whole[3].hasPayload);
    EXPECT_EQ(whole[3].payloadFormat, "utf8");
    EXPECT_EQ(whole[3].payloadBase64, "eJxLTEoGAAJNASc=");
    EXPECT_EQ(whole[4].kind, Request::TextInput);
    EXPECT_EQ(whole[4].text, "hi there");
    EXPECT_FALSE(whole[4].canceled);
    EXPECT_TRUE(whole[5].error);
    EXPECT_EQ(whole[6].kind, Request::Stop);

    for (std::size_t cut = 1; cut < all.size(); ++cut) {
        std::vector<Request> parts = readAll({all.substr(0, cut), all.substr(cut)}, &ok);
        ASSERT_TRUE(ok) << cut;
        ASSERT_EQ(parts.size(), whole.size()) << cut;
        EXPECT_EQ(parts[2].text, whole[2].text) << cut;
        EXPECT_EQ(parts[3].payloadBase64, whole[3].payloadBase64) << cut;
        EXPECT_EQ(parts[4].text, whole[4].text) << cut;
    }
}

TEST(TamkernRequests, BadStreams)
{
    bool ok = true;
    // An XML declaration cannot follow the injected root.
    EXPECT_TRUE(readAll({"<?xml version=\"1.0\"?><stop cl=\"1\"/>"}, &ok).empty());
    EXPECT_FALSE(ok);
    // Malformed input after a good request: the good one counts, then the
    // reader stays failed.
    std::vector<Request> got = readAll({"<stop cl=\"1\"/><cmd <", "<stop cl=\"1\"/>"}, &ok);
    EXPECT_EQ(got.size(), 1u);
    EXPECT_FALSE(ok);
    // Unknown requests and parts are skipped whole.
    got = readAll({"<nope><stop cl=\"1\"/></nope><cmd cl=\"1\"><text>x<i>y</i>z</text><extra/></cmd>"}, &ok);
    EXPECT_TRUE(ok);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].text, "xz");
    // A client id that is not a number is marked, not read as 0.
    got = readAll({"<stop cl=\"x1\"/>"});
    ASSERT_EQ(got.size(), 1u);
    EXPECT_TRUE(got[0].hasCl);
    EXPECT_FALSE(got[0].clValid);
    // Over the size limit: the reader fails instead of growing without end.
    RequestReader r([](Request&) {});
    std::string head = "<cmd cl=\"1\"><text>";
    ASSERT_TRUE(r.feed(head.data(), static_cast<int>(head.size())));
    std::string chunk(1 << 20, 'x');
    bool fed = true;
    for (int i = 0; i < 20 && fed; ++i)
        fed = r.feed(chunk.data(), static_cast<int>(chunk.size()));
    EXPECT_FALSE(fed);
    EXPECT_NE(r.fault().find("larger than the limit"), std::string::npos);
    EXPECT_TRUE(r.midRequest());
}

TEST(TamkernLayout, WrapAtTheWidth)
{
    EXPECT_EQ(wrapText("abcdef", 0), "abcdef");
    EXPECT_EQ(wrapText("abcdef", 3), "abc\ndef");
    // Prefers a break after an operator near the end of the line.
    EXPECT_EQ(wrapText("x^6+6*x^5*y+15*x^4", 10), "x^6+6*x^5*\ny+15*x^4");
    // Existing lines are wrapped one by one.
    EXPECT_EQ(wrapText("abcd\nef", 2), "ab\ncd\nef");
    // Characters, not bytes: a two-byte letter counts once and stays whole.
    EXPECT_EQ(wrapText("\xc3\xa4\xc3\xa4\xc3\xa4", 2), "\xc3\xa4\xc3\xa4\n\xc3\xa4");
    EXPECT_EQ(charCount("\xc3\xa4x"), 2u);
}

TEST(TamkernLayout, AbbreviateVeryLongResults)
{
    std::string shortText(AbbreviateLimit, 'a');
    EXPECT_EQ(abbreviate(shortText), shortText);
    std::string longText = std::string(AbbreviateHead, 'h') + std::string(1000, 'm') + std::string(AbbreviateTail, 't');
    std::string a = abbreviate(longText);
    EXPECT_EQ(a, std::string(AbbreviateHead, 'h') + " ...<<1000 characters omitted>>... " +
                     std::string(AbbreviateTail, 't'));
}
