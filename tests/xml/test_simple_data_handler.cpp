#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "xml/Parser.h"
#include "xml/SimpleDataHandler.h"

namespace {

// Wants the text of every element named in want_; records at each end tag
// "name=text" (or "name=-" when no text was wanted).
struct Collector : Xml::SimpleDataHandler {
    std::set<std::string> want{"t"};
    bool trim = false;
    bool stripCr = false;
    std::vector<std::string> seen;
    std::vector<bool> inEndSeen;
    std::map<std::string, int> ids;
    std::map<int, std::string> names;

    bool elementName(const char*, const char* name, int& nsId, int& id) override
    {
        nsId = 0;
        id = ids.emplace(name, static_cast<int>(ids.size()) + 1).first->second;
        names[id] = name;
        return true;
    }
    bool attributeName(const char*, const char*, int&, int&) override { return false; }
    void startElement(int, int id, const std::vector<Xml::Attribute>&) override
    {
        inEndSeen.push_back(inEnd_);
        if (want.count(names[id]))
            wantData();
    }
    void endElement(int, int id) override
    {
        inEndSeen.push_back(inEnd_);
        std::string s = names[id] + "=";
        if (!wantData_) {
            seen.push_back(s + "-");
            return;
        }
        ASSERT_NE(data(), nullptr);
        if (trim)
            trimTextData();
        seen.push_back(s + data());
    }
    void onCharacterData(const char* d, int len) override
    {
        if (stripCr)
            appendTextData(d, static_cast<unsigned long>(len));
        else
            Xml::SimpleDataHandler::onCharacterData(d, len);
    }
};

using V = std::vector<std::string>;

void feed(Collector& h, const std::string& doc, bool byteByByte = false)
{
    Xml::Parser p(&h, false, "UTF-8");
    if (byteByByte) {
        for (char c : doc)
            ASSERT_TRUE(p.parse(&c, 1, false));
        ASSERT_TRUE(p.parse(nullptr, 0, true));
    } else {
        ASSERT_TRUE(p.parse(doc.data(), static_cast<int>(doc.size()), true));
    }
}

TEST(SimpleDataHandler, TextIsNulTerminatedDuringEndElementAndTrims)
{
    Collector h;
    feed(h, "<r><t>  abc \n</t></r>");
    EXPECT_EQ(h.seen, (V{"t=  abc \n", "r=-"}));

    Collector t;
    t.trim = true;
    // Bytes above 127 (UTF-8 e-acute) stop the trim; only-blank text empties.
    feed(t, "<r><t>  abc \n</t><t> \t\n </t><t>x\xC3\xA9 \t</t><t/></r>");
    EXPECT_EQ(t.seen, (V{"t=  abc", "t=", "t=x\xC3\xA9", "t=", "r=-"}));
}

TEST(SimpleDataHandler, CollectsTextArrivingInManyChunks)
{
    Collector h;
    feed(h, "<r><t>one &amp; two\xE2\x82\xAC</t></r>", true);
    EXPECT_EQ(h.seen, (V{"t=one & two\xE2\x82\xAC", "r=-"}));
}

TEST(SimpleDataHandler, CollectionStopsAtNextEndTagAndRestartsEmpty)
{
    Collector h;
    feed(h, "<r><t>ab<c/>cd</t><o>zz</o><t>ef</t><t>gh</t></r>");
    EXPECT_EQ(h.seen, (V{"c=ab", "t=-", "o=-", "t=ef", "t=gh", "r=-"}));
}

TEST(SimpleDataHandler, DataIsNullUntilSomethingCollectedAndInEndOnlyInEndElement)
{
    Collector h;
    EXPECT_EQ(h.data(), nullptr);
    h.want.clear();
    feed(h, "<r><t>x</t></r>");
    EXPECT_EQ(h.data(), nullptr);
    EXPECT_EQ(h.inEndSeen, (std::vector<bool>{false, false, true, true}));
}

TEST(SimpleDataHandler, AppendTextDataDropsCarriageReturns)
{
    // expat turns a literal CR LF into LF, so the CRs come from references.
    const std::string doc = "<r><t>a&#13;\nb&#13;&#13;</t></r>";
    Collector plain;
    feed(plain, doc);
    EXPECT_EQ(plain.seen[0], "t=a\r\nb\r\r");

    Collector strip;
    strip.stripCr = true;
    feed(strip, doc, true);
    EXPECT_EQ(strip.seen[0], "t=a\nb");
}

} // namespace
