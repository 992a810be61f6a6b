#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "xml/Parser.h"

namespace {

// Records every event as a line of text. Names are keyed as "local" or
// "{uri}local"; ids are handed out in order of first sight.
struct Recorder : Xml::Handler {
    std::set<std::string> unknown;      // names elementName/attributeName reject
    std::set<std::string> skipContent;  // known, but startElement skips the content
    std::vector<std::string> ev;
    int cleanups = 0;
    std::map<std::string, int> ids;
    std::map<int, std::string> names;

    static std::string key(const char* ns, const char* name)
    {
        return ns ? "{" + std::string(ns) + "}" + name : std::string(name);
    }
    bool lookup(const std::string& what, const char* ns, const char* name, int& nsId, int& id)
    {
        std::string k = key(ns, name);
        ev.push_back(what + " " + k);
        if (unknown.count(k))
            return false;
        nsId = ns ? 7 : 0;
        auto it = ids.emplace(k, static_cast<int>(ids.size()) + 1).first;
        id = it->second;
        names[id] = k;
        return true;
    }
    bool elementName(const char* ns, const char* name, int& nsId, int& id) override
    {
        return lookup("elementName", ns, name, nsId, id);
    }
    bool attributeName(const char* ns, const char* name, int& nsId, int& id) override
    {
        return lookup("attributeName", ns, name, nsId, id);
    }
    std::string tag(int nsId, int id) { return names[id] + " " + std::to_string(nsId); }
    void startElement(int nsId, int id, const std::vector<Xml::Attribute>& attrs) override
    {
        std::string s = "start " + tag(nsId, id) + " [";
        for (const Xml::Attribute& a : attrs)
            s += names[a.id] + ":" + std::to_string(a.nsId) + "=" + a.value + ";";
        ev.push_back(s + "]");
        if (skipContent.count(names[id]))
            ignoreElement();
    }
    void endElement(int nsId, int id) override { ev.push_back("end " + tag(nsId, id)); }
    void onEndElement(int nsId, int id) override
    {
        ev.push_back("onEnd " + tag(nsId, id));
        Xml::Handler::onEndElement(nsId, id);
    }
    void characterData(const char* data, int len) override
    {
        ev.push_back("chars " + std::string(data, static_cast<std::size_t>(len)));
    }
    void cleanup() override { ++cleanups; }
    bool skipping() const { return ignoringElement(); }
};

// Text may come in any number of chunks; join neighbouring ones.
std::vector<std::string> joinChars(const std::vector<std::string>& ev)
{
    std::vector<std::string> out;
    for (const std::string& e : ev) {
        if (e.rfind("chars ", 0) == 0 && !out.empty() && out.back().rfind("chars ", 0) == 0)
            out.back() += e.substr(6);
        else
            out.push_back(e);
    }
    return out;
}

std::vector<std::string> parseWhole(Recorder& h, const std::string& doc, bool ns = false)
{
    Xml::Parser p(&h, ns, "UTF-8");
    EXPECT_TRUE(p.parse(doc.data(), static_cast<int>(doc.size()), true));
    return joinChars(h.ev);
}

using V = std::vector<std::string>;

std::string firstWith(const V& ev, const std::string& prefix)
{
    for (const std::string& e : ev)
        if (e.rfind(prefix, 0) == 0)
            return e;
    return "(no " + prefix + ")";
}

TEST(XmlParser, EventOrderForElementWithAttributesAndText)
{
    Recorder h;
    Xml::Parser p(&h, false, "UTF-8");
    const char doc[] = "<a x=\"1\" y=\"2\">hi</a>";
    ASSERT_TRUE(p.parse(doc, static_cast<int>(std::strlen(doc)), true));
    EXPECT_EQ(h.ev, (V{"elementName a", "attributeName x", "attributeName y",
                       "start a 0 [x:0=1;y:0=2;]", "chars hi", "elementName a",
                       "onEnd a 0", "end a 0"}));
    EXPECT_EQ(h.cleanups, 0);
}

TEST(XmlParser, UnknownElementsAreSkippedWhole)
{
    Recorder h;
    h.unknown = {"u", "u2"};
    // Known k inside the unknown elements must not surface either.
    V ev = parseWhole(h, "<r><u a=\"1\">t<u2 b=\"2\"><k>x</k>y</u2>z</u><k c=\"3\">next</k></r>");
    EXPECT_EQ(ev, (V{"elementName r", "start r 0 []", "elementName u",
                     "elementName k", "attributeName c", "start k 0 [c:0=3;]", "chars next",
                     "elementName k", "onEnd k 0", "end k 0",
                     "elementName r", "onEnd r 0", "end r 0"}));
    EXPECT_FALSE(h.skipping());
}

TEST(XmlParser, UnknownElementInsideKnownOneKeepsSurroundingText)
{
    Recorder h;
    h.unknown = {"u"};
    V ev = parseWhole(h, "<k>a<u>b<u>c</u></u>d</k>");
    EXPECT_EQ(ev, (V{"elementName k", "start k 0 []", "chars a", "elementName u",
                     "chars d", "elementName k", "onEnd k 0", "end k 0"}));
}

TEST(XmlParser, AttributesDroppedAndEmptiedPerTag)
{
    Recorder h;
    h.unknown = {"bad"};
    V ev = parseWhole(h, "<r><a z=\"1\" bad=\"2\" y=\"3\" x=\"4\"/><b/><c bad=\"5\"/></r>");
    EXPECT_EQ(firstWith(ev, "start a"), "start a 0 [z:0=1;y:0=3;x:0=4;]");
    EXPECT_EQ(firstWith(ev, "start b"), "start b 0 []");
    EXPECT_EQ(firstWith(ev, "start c"), "start c 0 []");
}

TEST(XmlParser, NamespacesSplitIntoUriAndLocalName)
{
    Recorder h;
    V ev = parseWhole(h,
                      "<r xmlns=\"urn:d\" xmlns:p=\"urn:p\"><p:e p:at=\"v\" plain=\"w\"/>"
                      "<n xmlns=\"\"/></r>",
                      true);
    EXPECT_EQ(ev, (V{"elementName {urn:d}r", "start {urn:d}r 7 []",
                     "elementName {urn:p}e", "attributeName {urn:p}at", "attributeName plain",
                     "start {urn:p}e 7 [{urn:p}at:7=v;plain:0=w;]",
                     "elementName {urn:p}e", "onEnd {urn:p}e 7", "end {urn:p}e 7",
                     "elementName n", "start n 0 []", "elementName n", "onEnd n 0", "end n 0",
                     "elementName {urn:d}r", "onEnd {urn:d}r 7", "end {urn:d}r 7"}));
}

TEST(XmlParser, WithoutNamespacesPrefixedNamesArriveAsWritten)
{
    Recorder h;
    V ev = parseWhole(h, "<p:e xmlns:p=\"urn:p\" p:at=\"v\"/>");
    EXPECT_EQ(ev[0], "elementName p:e");
    EXPECT_EQ(ev[3], "start p:e 0 [xmlns:p:0=urn:p;p:at:0=v;]");
}

TEST(XmlParser, SplitNameKeepsLastSeparatorAndBufferOnlyGrows)
{
    struct Probe : Xml::Parser {
        using Xml::Parser::Parser;
        std::size_t cap() const { return nameBuf_.capacity(); }
    };
    Recorder h;
    Probe p(&h, true, nullptr);
    const char* ns = "x";
    const char* local = nullptr;
    p.splitName("plain", ns, local);
    EXPECT_EQ(ns, nullptr);
    EXPECT_STREQ(local, "plain");
    p.splitName("urn:a\x01" "b\x01" "loc", ns, local);
    EXPECT_STREQ(ns, "urn:a");
    EXPECT_STREQ(local, "loc");
    std::size_t big = p.cap();
    p.splitName("s", ns, local);
    EXPECT_STREQ(local, "s");
    EXPECT_GE(p.cap(), big);
}

TEST(XmlParser, OneByteFeedsGiveSameEventsAsWhole)
{
    // Multi-byte UTF-8 in names, values and text: e-acute, euro, a 4-byte clef.
    const std::string doc =
        "<?xml version=\"1.0\"?>\n<r a=\"\xC3\xA9\xE2\x82\xAC\"><k\xC3\xA9 b=\"1\">t\xF0\x9D\x84\x9E"
        "x &amp; y</k\xC3\xA9><u>skip</u>\n<k2/>tail\xE2\x82\xAC</r>";
    Recorder whole;
    whole.unknown = {"u"};
    V expected = parseWhole(whole, doc);

    Recorder bytes;
    bytes.unknown = {"u"};
    Xml::Parser p(&bytes, false, "UTF-8");
    for (char c : doc)
        ASSERT_TRUE(p.parse(&c, 1, false));
    ASSERT_TRUE(p.parse(nullptr, 0, true));
    EXPECT_EQ(joinChars(bytes.ev), expected);
    EXPECT_NE(std::find(expected.begin(), expected.end(), "chars t\xF0\x9D\x84\x9Ex & y"),
              expected.end());
}

TEST(XmlParser, MultiByteCharacterSplitAcrossFeeds)
{
    Recorder h;
    Xml::Parser p(&h, false, "UTF-8");
    ASSERT_TRUE(p.parse("<a>\xE2\x82", 5, false));
    ASSERT_TRUE(p.parse("\xAC</a>", 5, true));
    EXPECT_EQ(joinChars(h.ev)[2], "chars \xE2\x82\xAC");
}

TEST(XmlParser, EntitiesResolvedInValuesAndText)
{
    Recorder h;
    V ev = parseWhole(h, "<a v=\"a&amp;b&lt;&#x41;&quot;&#233;\">x &gt; y&#10;&apos;</a>");
    EXPECT_EQ(ev[2], "start a 0 [v:0=a&b<A\"\xC3\xA9;]");
    EXPECT_EQ(ev[3], "chars x > y\n'");
}

TEST(XmlParser, CommentsAndProcessingInstructionsAreDropped)
{
    Recorder h;
    V ev = parseWhole(h, "<a><!-- c --><?pi d?>t<![CDATA[<b>]]></a>");
    EXPECT_EQ(ev, (V{"elementName a", "start a 0 []", "chars t<b>", "elementName a",
                     "onEnd a 0", "end a 0"}));
}

TEST(XmlParser, EncodingArgumentOverridesDeclaration)
{
    Recorder h;
    Xml::Parser p(&h, false, "ISO-8859-1");
    const char doc[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><a>\xE9</a>";
    ASSERT_TRUE(p.parse(doc, static_cast<int>(std::strlen(doc)), true));
    EXPECT_EQ(joinChars(h.ev)[2], "chars \xC3\xA9");
}

TEST(XmlParser, MalformedInputFailsCallsCleanupAndStaysFailed)
{
    Recorder h;
    Xml::Parser p(&h, false, "UTF-8");
    EXPECT_EQ(p.errorCode(), XML_ERROR_NONE);
    ASSERT_TRUE(p.parse("<a>\n  <b>", 9, false));
    EXPECT_EQ(h.cleanups, 0);
    EXPECT_FALSE(p.parse("</a>", 4, false));
    EXPECT_EQ(h.cleanups, 1);
    EXPECT_EQ(p.errorCode(), XML_ERROR_TAG_MISMATCH);
    EXPECT_EQ(p.line(), 2u);
    EXPECT_EQ(p.column(), 7u);  // expat points at the name in "</a>"
    // Events before the error were delivered; nothing after it.
    std::size_t before = h.ev.size();
    EXPECT_FALSE(p.parse("</b></a>", 8, true));
    EXPECT_EQ(h.cleanups, 2);
    EXPECT_EQ(h.ev.size(), before);
    EXPECT_EQ(p.errorCode(), XML_ERROR_TAG_MISMATCH);
}

TEST(XmlParser, IncompleteDocumentFailsOnlyWhenFinal)
{
    Recorder h;
    Xml::Parser p(&h, false, "UTF-8");
    ASSERT_TRUE(p.parse("<a>", 3, false));
    EXPECT_FALSE(p.parse(nullptr, 0, true));
    EXPECT_EQ(h.cleanups, 1);
    EXPECT_NE(p.errorCode(), XML_ERROR_NONE);
}

TEST(XmlParser, WithoutHandlerEventsAreDropped)
{
    Xml::Parser p(nullptr, true, "UTF-8");
    EXPECT_TRUE(p.parse("<a x=\"1\">t</a>", 14, true));
    Xml::Parser bad(nullptr, false, "UTF-8");
    EXPECT_FALSE(bad.parse("<a></b>", 7, true));
}

TEST(XmlParser, HandlerMaySkipKnownElementFromStartElement)
{
    Recorder h;
    h.skipContent = {"s"};
    V ev = parseWhole(h, "<r><s>a<k>b</k></s><k>c</k></r>");
    EXPECT_EQ(ev, (V{"elementName r", "start r 0 []", "elementName s", "start s 0 []",
                     "elementName k", "start k 0 []", "chars c", "elementName k",
                     "onEnd k 0", "end k 0", "elementName r", "onEnd r 0", "end r 0"}));
    EXPECT_FALSE(h.skipping());
}

} // namespace
