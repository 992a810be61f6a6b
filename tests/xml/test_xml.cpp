#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "xml/Parser.h"
#include "xml/SimpleDataHandler.h"

namespace {

using V = std::vector<std::string>;

// Hands out ids in order of first sight; names are keyed "local" or "{uri}local".
template <class Base>
struct Names : Base {
    std::set<std::string> unknown; // names elementName/attributeName reject
    V names, ev;
    bool lookup(const char* what, const char* ns, const char* name, int& nsId, int& id)
    {
        std::string k = ns ? "{" + std::string(ns) + "}" + name : std::string(name);
        ev.push_back(what + k);
        if (unknown.count(k))
            return false;
        nsId = ns ? 7 : 0;
        id = static_cast<int>(std::find(names.begin(), names.end(), k) - names.begin()) + 1;
        if (id > static_cast<int>(names.size()))
            names.push_back(k);
        return true;
    }
    bool elementName(const char* ns, const char* name, int& nsId, int& id) override
    {
        return lookup("name ", ns, name, nsId, id);
    }
    bool attributeName(const char* ns, const char* name, int& nsId, int& id) override
    {
        return lookup("attr ", ns, name, nsId, id);
    }
    std::string tag(int nsId, int id) { return names[id - 1] + " " + std::to_string(nsId); }
};

// Records every event as a line of text, neighbouring text chunks joined.
struct Recorder : Names<Xml::Handler> {
    int cleanups = 0;
    void startElement(int nsId, int id, const std::vector<Xml::Attribute>& attrs) override
    {
        std::string s = "start " + tag(nsId, id) + " [";
        for (const Xml::Attribute& a : attrs)
            s += names[a.id - 1] + ":" + std::to_string(a.nsId) + "=" + a.value + ";";
        ev.push_back(s + "]");
    }
    void endElement(int nsId, int id) override { ev.push_back("end " + tag(nsId, id)); }
    void onEndElement(int nsId, int id) override
    {
        ev.push_back("onEnd");
        Xml::Handler::onEndElement(nsId, id);
    }
    void characterData(const char* data, int len) override
    {
        if (ev.empty() || ev.back().compare(0, 6, "chars ") != 0)
            ev.push_back("chars ");
        ev.back().append(data, static_cast<std::size_t>(len));
    }
    void cleanup() override { ++cleanups; }
};

// Feeds doc whole or one byte at a time; both must succeed.
template <class H>
V parse(H& h, const std::string& doc, bool ns = false, bool byteByByte = false)
{
    Xml::Parser p(&h, ns, "UTF-8");
    for (std::size_t i = 0; byteByByte && i < doc.size(); ++i)
        EXPECT_TRUE(p.parse(&doc[i], 1, false));
    EXPECT_TRUE(p.parse(byteByByte ? nullptr : doc.data(),
                        byteByByte ? 0 : static_cast<int>(doc.size()), true));
    return h.ev;
}

TEST(XmlParser, UnknownElementsAndAttributesAreSkippedWithAllTheyHold)
{
    Recorder h;
    h.unknown = {"u", "u2", "bad"};
    EXPECT_EQ(parse(h, "<r>a<u x=\"1\">t<u2><k>x</k>y</u2>z</u>b<k c=\"3\" bad=\"2\" "
                       "d=\"4\">c</k><k bad=\"5\"/></r>"),
              (V{"name r",   "start r 0 []", "chars a",  "name u",  "chars b",
                 "name k",   "attr c",       "attr bad", "attr d",  "start k 0 [c:0=3;d:0=4;]",
                 "chars c",  "name k",       "onEnd",    "end k 0", "name k",
                 "attr bad", "start k 0 []", "name k",   "onEnd",   "end k 0",
                 "name r",   "onEnd",        "end r 0"}));
    EXPECT_FALSE(h.ignoringElement());
    EXPECT_EQ(h.cleanups, 0);
}

TEST(XmlParser, NamespacesSplitIntoUriAndLocalName)
{
    Recorder h, plain;
    EXPECT_EQ(
        parse(
            h,
            "<r xmlns=\"urn:d\" xmlns:p=\"urn:p\"><p:e p:at=\"v\" plain=\"w\"/><n xmlns=\"\"/></r>",
            true),
        (V{"name {urn:d}r", "start {urn:d}r 7 []", "name {urn:p}e", "attr {urn:p}at", "attr plain",
           "start {urn:p}e 7 [{urn:p}at:7=v;plain:0=w;]", "name {urn:p}e", "onEnd",
           "end {urn:p}e 7", "name n", "start n 0 []", "name n", "onEnd", "end n 0",
           "name {urn:d}r", "onEnd", "end {urn:d}r 7"}));
    // Without namespace processing names arrive as written.
    EXPECT_EQ(parse(plain, "<p:e xmlns:p=\"urn:p\" p:at=\"v\"/>").at(3),
              "start p:e 0 [xmlns:p:0=urn:p;p:at:0=v;]");
}

TEST(XmlParser, OneByteFeedsGiveTheSameEventsAsWhole)
{
    // Multi-byte UTF-8 in names, values and text; entities, comments, CDATA.
    const std::string doc =
        "<?xml version=\"1.0\"?>\n<r a=\"\xC3\xA9\xE2\x82\xAC&amp;&lt;&#x41;&#233;\"><k\xC3\xA9 "
        "b=\"1\">t\xF0\x9D\x84\x9E"
        "x &amp; y&#10;</k\xC3\xA9><!-- c --><?pi d?><u>skip</u><![CDATA[<b>]]></r>";
    Recorder whole, bytes;
    whole.unknown = bytes.unknown = {"u"};
    const V expected = parse(whole, doc);
    EXPECT_EQ(parse(bytes, doc, false, true), expected);
    EXPECT_EQ(expected.at(2), "start r 0 [a:0=\xC3\xA9\xE2\x82\xAC&<A\xC3\xA9;]");
    EXPECT_EQ(expected.at(6), "chars t\xF0\x9D\x84\x9Ex & y\n");
    EXPECT_EQ(expected.at(11), "chars <b>");
}

TEST(XmlParser, MalformedInputCallsCleanupAndStaysFailed)
{
    Recorder h;
    Xml::Parser p(&h, false, "UTF-8");
    EXPECT_EQ(p.errorCode(), XML_ERROR_NONE);
    ASSERT_TRUE(p.parse("<a>\n  <b>", 9, false));
    EXPECT_FALSE(p.parse("</a>", 4, false));
    EXPECT_EQ(h.cleanups, 1);
    EXPECT_EQ(p.errorCode(), XML_ERROR_TAG_MISMATCH);
    EXPECT_EQ(p.line(), 2u);
    EXPECT_EQ(p.column(), 7u); // expat points at the name in "</a>"
    const std::size_t before = h.ev.size();
    EXPECT_FALSE(p.parse("</b></a>", 8, true));
    EXPECT_EQ(h.cleanups, 2);
    EXPECT_EQ(h.ev.size(), before);

    Recorder cut;
    Xml::Parser q(&cut, false, "UTF-8");
    ASSERT_TRUE(q.parse("<a>", 3, false)); // incomplete fails only when final
    EXPECT_FALSE(q.parse(nullptr, 0, true));
    EXPECT_EQ(cut.cleanups, 1);

    Xml::Parser none(nullptr, true, "UTF-8"),
        bad(nullptr, false, "UTF-8"); // no handler: events dropped
    EXPECT_TRUE(none.parse("<a x=\"1\">t</a>", 14, true));
    EXPECT_FALSE(bad.parse("<a></b>", 7, true));

    // The encoding argument wins over the declaration.
    Recorder latin;
    Xml::Parser l(&latin, false, "ISO-8859-1");
    const char doc[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><a>\xE9</a>";
    ASSERT_TRUE(l.parse(doc, sizeof doc - 1, true));
    EXPECT_EQ(latin.ev[2], "chars \xC3\xA9");
}

// Wants the text of every element named in want; records "name=text" (or
// "name=-" when no text was wanted) at each end tag.
struct Collector : Names<Xml::SimpleDataHandler> {
    std::set<std::string> want{"t"};
    bool trim = false, stripCr = false;
    std::vector<bool> inEndSeen;
    void startElement(int, int id, const std::vector<Xml::Attribute>&) override
    {
        inEndSeen.push_back(inEnd_);
        if (want.count(names[id - 1]))
            wantData();
    }
    void endElement(int, int id) override
    {
        inEndSeen.push_back(inEnd_);
        if (wantData_ && trim)
            trimTextData();
        ev.push_back(names[id - 1] + "=" + (wantData_ ? data() : "-"));
    }
    void onCharacterData(const char* d, int len) override
    {
        stripCr ? appendTextData(d, static_cast<unsigned long>(len))
                : SimpleDataHandler::onCharacterData(d, len);
    }
};

V ends(const V& ev)
{
    V out;
    std::copy_if(ev.begin(), ev.end(), std::back_inserter(out),
                 [](const std::string& e) { return e.find('=') != std::string::npos; });
    return out;
}

TEST(SimpleDataHandler, CollectsTextUntilTheNextEndTag)
{
    Collector h, t, none, plain, cr;
    EXPECT_EQ(h.data(), nullptr);
    EXPECT_EQ(ends(parse(
                  h, "<r><t>  one &amp; two\xE2\x82\xAC\n</t><t>ab<c/>cd</t><o>zz</o><t>ef</t></r>",
                  false, true)),
              (V{"t=  one & two\xE2\x82\xAC\n", "c=ab", "t=-", "o=-", "t=ef", "r=-"}));
    t.trim = true; // bytes above 127 stop the trim; blank text empties
    EXPECT_EQ(ends(parse(t, "<r><t>  abc \n</t><t> \t\n </t><t>x\xC3\xA9 \t</t><t/></r>")),
              (V{"t=  abc", "t=", "t=x\xC3\xA9", "t=", "r=-"}));
    none.want.clear();
    parse(none, "<r><t>x</t></r>");
    EXPECT_EQ(none.data(), nullptr); // nothing ever collected
    EXPECT_EQ(none.inEndSeen, (std::vector<bool>{false, false, true, true}));

    // expat turns a literal CR LF into LF, so the CRs come from references.
    const std::string doc = "<r><t>a&#13;\nb&#13;&#13;</t></r>";
    cr.stripCr = true;
    EXPECT_EQ(ends(parse(plain, doc))[0], "t=a\r\nb\r\r");
    EXPECT_EQ(ends(parse(cr, doc, false, true))[0], "t=a\nb");
}

} // namespace
