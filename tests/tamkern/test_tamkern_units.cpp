// The kernel's Giac-free pieces, where the process tests cannot reach:
// bytes Giac never hands over through a client, stream splits, limits, and
// orderings that a real engine leaves to chance.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <memory>
#include <sstream>

#include "tamkern/Connection.h"
#include "tamkern/Dispatcher.h"
#include "tamkern/Listener.h"
#include "tamkern/Messages.h"
#include "tamkern/Paths.h"
#include "tamkern/Requests.h"
#include "tamkern/Session.h"
#include "tamkern/Svg.h"
#include "tamkern/TextLayout.h"

using namespace tamkern;

TEST(TamkernUnits, EscapingKeepsTheStreamWellFormed)
{
    const struct {
        std::string in, out;
    } cases[] = {
        {"a<b>&\"c'", "a&lt;b&gt;&amp;&quot;c&apos;"},
        // Line ends survive attribute normalisation as references.
        {"1\n2\r\t3", "1&#10;2&#13;&#9;3"},
        // Control characters have no XML 1.0 form at all.
        {std::string("a\x01\x1f\x7f"
                     "b",
                     5),
         "ab"},
        // Valid UTF-8 passes, invalid bytes become U+FFFD.
        {"\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80", "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80"},
        {"a\xff"
         "b",
         "a\xef\xbf\xbd"
         "b"},
        {"\xc3", "\xef\xbf\xbd"},                                 // cut short at the end
        {"\xc0\xaf", "\xef\xbf\xbd\xef\xbf\xbd"},                 // overlong
        {"\xed\xa0\x80", "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"}, // surrogate
        {"\xef\xbf\xbf\xef\xbf\xbc",
         "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbc"}, // U+FFFF: no XML character
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
        "<newclient name =\"n&amp;1\" frame=\"f\" longfmt=\"text\" floatfmt=\"ieee\" "
        "coding=\"ident \" features=\"\"/>"
        "<init cl=\"1\"><iarg value=\"-l\"/><iarg value=\"../lib\"/></init>"
        "<cmd cl=\"1\" cid=\"-5\"><text format=\"_lan\">a &lt; b &amp; \xc3\xa4</text></cmd>"
        "<cmd cl=\"1\" cid=\"6\"><mcode format=\"utf8\">eJxLTEoGAAJNASc=</mcode></cmd>"
        "<textinput cl=\"2\" canceled=\"0\">hi there</textinput><stop cl=\"1\"/>";
    auto read = [&](std::size_t cut) {
        std::string got;
        RequestReader r([&](Request& q) {
            got += std::string(requestName(q.kind)) + "|" + q.name + "|" + std::to_string(q.cid) +
                   "|" + q.text + "|" + q.payloadBase64 + "|" +
                   (q.args.empty() ? "" : q.args.back()) + "\n";
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
        EXPECT_FALSE(r.midRequest()) << "a failed reader waits for nothing";
    }
    // Elements nested without end (each one open costs the parser memory),
    // start-up arguments without end, and arguments that are each within
    // the limits but not together.
    const struct {
        std::string head, repeated, fault;
        int times;
    } floods[] = {
        {"", "<cmd>", "requests nested too deeply", 2000},
        {"<init>", "<iarg value=\"a\"/>", "<init> with more arguments than the limit", 2000},
        {"<init>", "<iarg value=\"" + std::string(900 << 10, 'v') + "\"/>",
         "<init> request larger than the limit", 20},
    };
    for (const auto& f : floods) {
        RequestReader r([](Request&) {});
        std::string s = f.head;
        for (int i = 0; i < f.times; ++i)
            s += f.repeated;
        // As a connection feeds it.
        bool fed = true;
        for (std::size_t at = 0; fed && at < s.size(); at += 65536)
            fed = r.feed(s.data() + at,
                         static_cast<int>(std::min<std::size_t>(65536, s.size() - at)));
        EXPECT_FALSE(fed);
        EXPECT_EQ(r.fault(), f.fault);
        EXPECT_LE(r.bytes(), RequestReader::MaxRequest + (4u << 20)) << f.fault;
    }
}

TEST(TamkernUnits, GiacSvgIsMadeWellFormed)
{
    // As Giac writes it: no blank between some attributes, a label's text
    // as the user typed it.
    const std::string giac =
        "<svg xmlns=\"http://www.w3.org/2000/svg\" baseProfile=\"tiny\"width=\"1\">\n"
        "<line x1=\"0\" y2=\"5\"stroke=\"a&b\" />\n"
        "<text x=\"1\">a<b & c>d &alpha; &amp; \x01</text>\n"
        "<text x=\"2\"/>&#38;</svg>";
    EXPECT_FALSE(isWellFormedXml(giac));
    const std::string fixed = repairSvg(giac);
    EXPECT_EQ(fixed, "<svg xmlns=\"http://www.w3.org/2000/svg\" baseProfile=\"tiny\" width=\"1\">\n"
                     "<line x1=\"0\" y2=\"5\" stroke=\"a&amp;b\" />\n"
                     "<text x=\"1\">a&lt;b &amp; c&gt;d &amp;alpha; &amp;amp; </text>\n"
                     "<text x=\"2\"/>&#38;</svg>");
    EXPECT_TRUE(isWellFormedXml(fixed));
    // Other damage stays and is caught.
    EXPECT_FALSE(isWellFormedXml(repairSvg("<svg><g></svg>")));
    EXPECT_FALSE(isWellFormedXml(""));
}

TEST(TamkernUnits, KernelFilesFollowTheBaseDirectories)
{
    ::setenv("HOME", "/h", 1);
    ::setenv("XDG_STATE_HOME", "/s", 1);
    EXPECT_EQ(defaultLogFile(), "/s/tamkern/tamkern.log");
    ::setenv("XDG_STATE_HOME", "relative/is/ignored", 1);
    EXPECT_EQ(defaultLogFile(), "/h/.local/state/tamkern/tamkern.log");
    ::setenv("XDG_RUNTIME_DIR", "/r", 1);
    EXPECT_EQ(plotDirFor(7), "/r/tamkern/plots-7");
    ::unsetenv("XDG_RUNTIME_DIR");
    ::setenv("XDG_CACHE_HOME", "/c", 1);
    EXPECT_EQ(plotDirFor(7), "/c/tamkern/plots-7");
    ::unsetenv("XDG_CACHE_HOME");
    ::unsetenv("HOME");
    EXPECT_EQ(plotDirFor(7), "");

    char t[] = "/tmp/tamkern-units-XXXXXX";
    const std::string dir = ::mkdtemp(t);
    const std::string made = dir + "/a/b";
    ASSERT_TRUE(makeDirs(made));
    struct stat st;
    ASSERT_EQ(::stat((dir + "/a").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    EXPECT_TRUE(makeDirs(made)) << "already there";
    ::close(::open((made + "/f").c_str(), O_CREAT | O_WRONLY, 0600));
    EXPECT_FALSE(makeDirs(made + "/f")) << "a file is no directory";
    removeDir(made);
    EXPECT_NE(::stat(made.c_str(), &st), 0);
    removeDir(dir + "/a");
    removeDir(dir);
}

TEST(TamkernUnits, ListenerListensAgainWhenItsSocketFileIsRemoved)
{
    char t[] = "/tmp/tamkern-units-XXXXXX";
    const std::string dir = ::mkdtemp(t);
    const std::string path = dir + "/k.sock";
    Listener l(path);
    ASSERT_TRUE(l.open());
    ASSERT_TRUE(l.ownsPath());
    auto canConnect = [&] {
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
        int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
        ::close(fd);
        for (int accepted : l.acceptAll())
            ::close(accepted);
        return ok;
    };
    ::unlink(path.c_str());
    // The removal wakes the loop, which has the listener look.
    pollfd p{l.watchFd(), POLLIN, 0};
    ASSERT_EQ(::poll(&p, 1, 2000), 1);
    l.keepListening();
    EXPECT_TRUE(l.ownsPath());
    EXPECT_TRUE(canConnect());
    struct stat st;
    ASSERT_EQ(::lstat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 077, 0u);

    // Someone else's file in its place is left alone, also by close().
    ::unlink(path.c_str());
    ::close(::open(path.c_str(), O_CREAT | O_WRONLY, 0600));
    l.keepListening();
    EXPECT_FALSE(l.ownsPath());
    EXPECT_EQ(l.pollFd(), -1);
    l.close();
    EXPECT_EQ(::lstat(path.c_str(), &st), 0);
    ::unlink(path.c_str());
    ::rmdir(dir.c_str());
}

TEST(TamkernUnits, LayoutWrapsCharactersAndAbbreviatesAtTheLimit)
{
    EXPECT_EQ(wrapText("abcd\nef", 2), "ab\ncd\nef");
    // Prefers a break after an operator near the end of the line.
    EXPECT_EQ(wrapText("x^6+6*x^5*y+15*x^4", 10), "x^6+6*x^5*\ny+15*x^4");
    // Characters, not bytes: a two-byte letter counts once and stays whole.
    EXPECT_EQ(wrapText("\xc3\xa4\xc3\xa4\xc3\xa4", 2), "\xc3\xa4\xc3\xa4\n\xc3\xa4");

    for (std::string t : {" \t a b\r\n", "a b", "\n \n"}) {
        std::string inPlace = t;
        trimInPlace(inPlace);
        EXPECT_EQ(inPlace, trimmed(t));
        EXPECT_EQ(inPlace, trimmedView(t));
    }
    EXPECT_EQ(trimmed(" \t a b\r\n"), "a b");

    std::string limit(AbbreviateLimit, 'a');
    EXPECT_EQ(abbreviate(limit), limit);
    std::string head(AbbreviateHead, 'h'), tail(AbbreviateTail, 't');
    EXPECT_EQ(abbreviate(head + std::string(1000, 'm') + tail),
              head + " ...<<1000 characters omitted>>... " + tail);
}

TEST(TamkernUnits, SessionNumbersClientsInOrderAndKeepsThemToTheirConnection)
{
    Session s;
    EXPECT_FALSE(s.everHadClient());
    EXPECT_EQ(s.add(7, std::string(1000, 'n'), " can_typeset  x ").id, 1);
    EXPECT_EQ(s.add(8, "b", "").id, 2);
    EXPECT_EQ(s.add(7, "c", "stay_alive").id, 3);
    EXPECT_EQ(s.of(7), (std::vector<long>{1, 3}));
    // Only what the protocol names is kept: a record costs the same whatever
    // was announced.
    EXPECT_TRUE(s.find(1)->has("can_typeset"));
    EXPECT_FALSE(s.find(1)->has("x"));
    EXPECT_EQ(s.find(1)->name.size(), Session::MaxName);
    EXPECT_EQ(s.find(2)->conn, 8);
    EXPECT_TRUE(s.remove(3));
    EXPECT_FALSE(s.remove(3));
    EXPECT_EQ(s.of(7), (std::vector<long>{1}));
    EXPECT_TRUE(s.stayAlive()) << "asked once, for good";
    s.remove(1);
    s.remove(2);
    EXPECT_TRUE(s.empty() && s.everHadClient() && s.of(7).empty());
    EXPECT_EQ(s.find(1), nullptr);
    EXPECT_EQ(s.add(7, "d", "").id, 4) << "ids are never given twice";
}

namespace {

// A connection whose peer is the test's end of a socket pair.
struct Peer {
    int far = -1;
    std::vector<std::string> heard;
    int closes = 0;
    std::unique_ptr<Connection> conn;

    explicit Peer(const char* closeOn = "", const Limits& limits = Connection::defaultLimits())
    {
        int sv[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
        ::fcntl(sv[0], F_SETFL, O_NONBLOCK);
        far = sv[1];
        conn = std::make_unique<Connection>(
            1, sv[0],
            [this, closeOn](Connection& c, Request& r) {
                heard.push_back(requestName(r.kind));
                if (heard.back() == closeOn)
                    c.close("test");
            },
            [this](Connection&) { ++closes; }, limits);
    }
    ~Peer() { ::close(far); }
    void say(const std::string& bytes)
    {
        ASSERT_EQ(::write(far, bytes.data(), bytes.size()), ssize_t(bytes.size()));
    }
};

} // namespace

TEST(TamkernUnits, ConnectionBoundsUnreadBytesBesidesTheLargestMessage)
{
    Peer p;
    // One message larger than the bound goes to a client that reads.
    p.conn->send(std::string(Connection::MaxQueued + 1000, 'x'));
    ASSERT_FALSE(p.conn->closed());
    EXPECT_TRUE(p.conn->pollEvents() & POLLOUT);
    // Up to the bound more may wait behind it; past it the client is one
    // that does not read.
    const std::string mb(1 << 20, 'y');
    std::size_t taken = 0;
    for (; taken < 2 * Connection::MaxQueued && !p.conn->closed(); taken += mb.size())
        p.conn->send(mb);
    EXPECT_TRUE(p.conn->closed());
    EXPECT_EQ(p.closes, 1);
    EXPECT_GT(taken, Connection::MaxQueued);
    EXPECT_LT(taken, Connection::MaxQueued + (8u << 20))
        << "the socket itself holds a few hundred KB at most";
}

TEST(TamkernUnits, ConnectionStopsHearingWhenClosedWaitingOrDone)
{
    // Too many requests, or bytes, waiting: no more reading until one is
    // taken.
    Peer p;
    for (std::size_t i = 0; i < Connection::MaxWaiting; ++i)
        p.conn->requestQueued(1);
    EXPECT_EQ(p.conn->pollEvents(), 0);
    p.conn->requestTaken(1);
    EXPECT_EQ(p.conn->pollEvents(), POLLIN);
    const std::size_t waiting = Connection::defaultLimits().waitingBytes;
    p.conn->requestQueued(waiting - 10);
    EXPECT_EQ(p.conn->pollEvents(), 0);
    p.conn->requestTaken(waiting - 10);
    EXPECT_EQ(p.conn->pollEvents(), POLLIN);

    // Requests come whole however the bytes are cut; none after the last
    // message, and an end in the middle of one closes the connection once.
    p.say("<newclient/><st");
    p.conn->readAvailable();
    p.say("op/><init>");
    p.conn->readAvailable();
    EXPECT_EQ(p.heard, (std::vector<std::string>{"newclient", "stop"}));
    ::shutdown(p.far, SHUT_WR);
    p.conn->readAvailable();
    EXPECT_TRUE(p.conn->closed());
    p.conn->readAvailable();
    EXPECT_EQ(p.closes, 1);

    Peer last;
    last.conn->sendLast("<quit/>");
    last.say("<stop/>");
    last.conn->readAvailable();
    EXPECT_TRUE(last.heard.empty());
    EXPECT_EQ(last.conn->pollEvents(), 0);
    char buf[16] = {};
    EXPECT_EQ(::read(last.far, buf, sizeof buf), 7);
    EXPECT_STREQ(buf, "<quit/>");

    // A request that closes the connection is the last one heard from it:
    // the rest of the same chunk has nobody to speak for.
    Peer closing("newclient");
    closing.say("<newclient/><newclient/>");
    closing.conn->readAvailable();
    EXPECT_EQ(closing.heard, (std::vector<std::string>{"newclient"}));
}

TEST(TamkernUnits, ConnectionClosesPastItsBudgetOrWhenSilentMidRequest)
{
    Limits small;
    small.connectionBytes = 1 << 20;
    small.idleTimeout = std::chrono::seconds(1);
    // Open elements the reader skips cost only the XML parser's memory,
    // which counts all the same.
    Peer tags("", small);
    std::string chunk;
    for (int i = 0; i < 4000; ++i)
        chunk += "<a>";
    for (int i = 0; i < 200 && !tags.conn->closed(); ++i) {
        tags.say(chunk);
        tags.conn->readAvailable();
    }
    EXPECT_TRUE(tags.conn->closed());
    EXPECT_EQ(tags.closes, 1);
    // What it held went with it at once.
    EXPECT_GT(tags.conn->releasedBytes(), small.connectionBytes);
    EXPECT_EQ(tags.conn->ownCost(), 0u);
    // Clients' records and waiting requests count too.
    for (std::size_t part : {std::size_t(600) << 10, std::size_t(500) << 10}) {
        Peer p("", small);
        p.conn->clientAdded(part);
        p.conn->requestQueued(part);
        EXPECT_EQ(p.conn->closed(), 2 * part > small.connectionBytes) << part;
    }

    // Silence counts only in the middle of a request.
    Peer idle("", small);
    const auto now = Connection::Clock::now();
    EXPECT_EQ(idle.conn->idleDeadline(), Connection::Clock::time_point::max());
    idle.say("<newclient/><cmd><text>1+");
    idle.conn->readAvailable();
    EXPECT_LE(idle.conn->idleDeadline(), Connection::Clock::now() + small.idleTimeout);
    idle.conn->checkIdle(now);
    EXPECT_FALSE(idle.conn->closed());
    idle.say("1</text></cmd>");
    idle.conn->readAvailable();
    EXPECT_EQ(idle.conn->idleDeadline(), Connection::Clock::time_point::max());
    // A tag cut short is the middle of a request too.
    idle.say("<sto");
    idle.conn->readAvailable();
    idle.conn->checkIdle(now + std::chrono::seconds(2));
    EXPECT_TRUE(idle.conn->closed());
    EXPECT_EQ(idle.heard, (std::vector<std::string>{"newclient", "cmd"}));
}

namespace {

struct FakeEngine : Engine {
    std::vector<std::string> calls;
    void start() override {}
    void submit(Job j) override
    {
        std::string c = (j.kind == Job::Init ? "init " : "submit ") + std::to_string(j.client);
        for (const std::string& f : j.initFiles)
            c += " " + f;
        calls.push_back(c + (j.text.empty() ? "" : " " + j.text));
    }
    void interrupt(long c) override { calls.push_back("interrupt " + std::to_string(c)); }
    void clientGone(long c) override { calls.push_back("gone " + std::to_string(c)); }
    void answer(long c, Question, Answer a) override
    {
        calls.push_back("answer " + std::to_string(c) + " " + a.text);
    }
    bool shutdown(int) override { return true; }
    bool restart() override
    {
        calls.push_back("restart");
        return true;
    }
};

struct FakeConnections : Dispatcher::Host {
    std::map<int, std::string> sent;
    std::map<int, int> waiting, clients;
    void send(int conn, std::string bytes) override { sent[conn] += bytes; }
    void sendLastToAll(std::string bytes) override { sent[0] += bytes; }
    void requestQueued(int conn, std::size_t) override { ++waiting[conn]; }
    void requestTaken(int conn, std::size_t) override { --waiting[conn]; }
    void clientAdded(int conn) override { ++clients[conn]; }
    void clientRemoved(int conn) override { --clients[conn]; }
    // What connection conn was sent since the last look.
    std::string take(int conn)
    {
        std::string s;
        s.swap(sent[conn]);
        return s;
    }
};

void say(Dispatcher& d, int conn, const std::string& xml)
{
    RequestReader r([&](Request& q) { d.request(conn, q); });
    ASSERT_TRUE(r.feed(xml.data(), static_cast<int>(xml.size())));
}

std::string cmd(int cl, const char* text)
{
    return "<cmd cl=\"" + std::to_string(cl) + "\"><text>" + text + "</text></cmd>";
}

std::string init(int cl, const std::string& args)
{
    std::string xml = "<init cl=\"" + std::to_string(cl) + "\">";
    std::istringstream words(args);
    for (std::string w; words >> w;)
        xml += "<iarg value=\"" + w + "\"/>";
    return xml + "</init>";
}

} // namespace

TEST(TamkernUnits, DispatcherRunsOneJobAtATimeAndForgetsWhatALeavingClientQueued)
{
    FakeEngine engine;
    FakeConnections conns;
    Dispatcher d(conns, engine);
    say(d, 1, "<newclient/><newclient/>");
    say(d, 2, "<newclient/>");
    conns.take(1);
    say(d, 1, cmd(1, "a") + cmd(2, "b") + "<textwidth cl=\"2\" value=\"5\"/>");
    say(d, 2, cmd(3, "c"));
    EXPECT_EQ(engine.calls, (std::vector<std::string>{"submit 1 a"}));
    EXPECT_EQ(conns.waiting, (std::map<int, int>{{1, 1}, {2, 1}}));
    // Settings, stops and answers do not wait their turn.
    EXPECT_EQ(conns.take(1), "<textwidth cl=\"2\" value=\"5\"/>");
    say(d, 1, "<stop cl=\"2\"/><input cl=\"1\"><text>7</text></input>");
    ASSERT_EQ(engine.calls.size(), 3u);
    EXPECT_EQ(engine.calls[1], "interrupt 2");
    EXPECT_EQ(engine.calls[2], "answer 1 7");

    // A client that leaves takes its queued commands along, and its
    // connection has them no longer waiting.
    say(d, 1, "<quit cl=\"2\"/>");
    EXPECT_EQ(engine.calls.back(), "gone 2");
    EXPECT_EQ(conns.waiting, (std::map<int, int>{{1, 0}, {2, 1}}));
    d.dispatch();
    EXPECT_EQ(engine.calls.back(), "gone 2") << "busy until the job is done";
    d.jobDone();
    d.dispatch();
    EXPECT_EQ(engine.calls.back(), "submit 3 c");
}

TEST(TamkernUnits, DispatcherMakesClientsReadyOnceTheirStartUpFilesHaveRun)
{
    FakeEngine engine;
    FakeConnections conns;
    Dispatcher d(conns, engine);
    say(d, 1, "<newclient/><newclient/><newclient/><newclient/>");
    conns.take(1);
    // The first init that names a directory has its file evaluated; a second
    // one naming it waits for that, not for one of its own.
    say(d, 1, init(1, "-l A -zz") + init(2, "-l A"));
    EXPECT_EQ(engine.calls, (std::vector<std::string>{"init 1 A/tamkern/init"}));
    EXPECT_EQ(conns.take(1), "");
    say(d, 1, cmd(1, "x"));
    d.jobDone();
    EXPECT_EQ(conns.take(1),
              "<output cl=\"1\" cid=\"0\" type=\"warning\"><text format=\"text\">unknown argument: "
              "-zz</text></output><ready cl=\"1\"/><ready cl=\"2\"/>");
    d.dispatch();
    EXPECT_EQ(engine.calls.back(), "submit 1 x");
    // Loaded: ready at once, even while a command runs. A new directory waits
    // behind the command.
    say(d, 1, init(3, "-l A") + init(4, "-l A -l B"));
    EXPECT_EQ(conns.take(1), "<ready cl=\"3\"/>");
    d.jobDone();
    d.dispatch();
    EXPECT_EQ(engine.calls.back(), "init 4 B/tamkern/init");
    d.jobDone();
    EXPECT_EQ(conns.take(1), "<ready cl=\"4\"/>");
}

TEST(TamkernUnits, DispatcherCompletesFromTheEnginesNamesAndRestartsAStuckStop)
{
    EXPECT_EQ(completionList({"fa", "fac", "face", "fact", "fb", "ifac"}, "fac"), "fac face fact");
    EXPECT_EQ(completionList({"a", "b"}, "c"), "");

    FakeEngine engine;
    FakeConnections conns;
    const auto grace = std::chrono::minutes(10);
    Dispatcher d(conns, engine, std::chrono::milliseconds(0), grace);
    say(d, 1, "<newclient/><newclient/>");
    say(d, 2, "<newclient/>");
    conns.take(1), conns.take(2);
    // Before the engine has named anything a completion waits for it, unless
    // it cannot complete to anything.
    const std::string hopeless(Dispatcher::MaxPrefix + 1, 'x');
    say(d, 1, "<complete cl=\"2\" value=\"fa\"/><complete cl=\"2\" value=\"" + hopeless + "\"/>");
    EXPECT_EQ(conns.take(1), msgCompletion(2, "", hopeless));
    d.names({"fa", "fact", "gcd"});
    EXPECT_EQ(conns.take(1), msgCompletion(2, "fa fact", "fa"));

    // A start-up file the session has evaluated.
    say(d, 1, init(1, "-l A"));
    d.jobDone();
    conns.take(1);
    // Stopped and still running: its client is warned once, then the
    // evaluator is restarted; the start-up file runs again before the
    // command waiting behind.
    say(d, 1, "<cmd cl=\"1\" cid=\"9\"><text>loop</text></cmd><stop cl=\"2\"/>");
    say(d, 2, cmd(3, "next"));
    d.checkStopped(Dispatcher::Clock::now());
    EXPECT_EQ(conns.take(1), "") << "another client's stop";
    say(d, 1, "<stop cl=\"1\"/>");
    EXPECT_LE(d.stopDeadline(), Dispatcher::Clock::now());
    d.checkStopped(Dispatcher::Clock::now());
    d.checkStopped(Dispatcher::Clock::now());
    EXPECT_EQ(conns.take(1), msgOutputText(1, 9, "warning", "text", Dispatcher::NotResponding));
    EXPECT_GT(d.stopDeadline(), Dispatcher::Clock::now() + grace / 2);
    d.checkStopped(Dispatcher::Clock::now() + grace);
    EXPECT_EQ(conns.take(1), msgOutputText(1, 9, "error", "text", Dispatcher::RestartedAfterStop) +
                                 msgFinished(1, 9) +
                                 msgOutputText(2, 0, "warning", "text", Dispatcher::Restarted));
    EXPECT_EQ(conns.take(2), msgOutputText(3, 0, "warning", "text", Dispatcher::Restarted));
    ASSERT_GE(engine.calls.size(), 2u);
    EXPECT_EQ(std::vector<std::string>(engine.calls.end() - 2, engine.calls.end()),
              (std::vector<std::string>{"restart", "init -1 A/tamkern/init"}));
    EXPECT_EQ(d.stopDeadline(), Dispatcher::Clock::time_point::max());
    d.jobDone();
    d.dispatch();
    EXPECT_EQ(engine.calls.back(), "submit 3 next");
}

TEST(TamkernUnits, DispatcherAfterACrashAnswersTheCommandAndRunsTheStartUpFilesThatWorked)
{
    FakeEngine engine;
    FakeConnections conns;
    Dispatcher d(conns, engine);
    say(d, 1, "<newclient/><newclient/><newclient/>");
    say(d, 1, init(1, "-l A"));
    d.jobDone();
    say(d, 1, init(2, "-l B") + init(3, "-l B"));
    conns.take(1);
    EXPECT_EQ(engine.calls.back(), "init 2 B/tamkern/init");
    // A crash in a start-up file: whoever waits for it hears so and is
    // ready; that file is not run again, the one that worked is.
    const std::string crash = std::string(Dispatcher::Crashed) +
                              " (signal 11, Segmentation fault) and was restarted: the session's "
                              "variables and history are lost";
    d.evaluatorLost("signal 11, Segmentation fault");
    std::string want;
    for (long cl : {2, 3})
        want += msgOutputText(cl, 0, "warning", "text", "B/tamkern/init: " + crash) +
                msgEmpty("ready", cl);
    for (long cl : {1, 2, 3})
        want += msgOutputText(cl, 0, "warning", "text", Dispatcher::Restarted);
    EXPECT_EQ(conns.take(1), want);
    EXPECT_EQ(engine.calls.back(), "init -1 A/tamkern/init");
    d.jobDone();

    // A crash in a command: its client gets the error and its end.
    say(d, 1, "<cmd cl=\"2\" cid=\"4\"><text>boom</text></cmd>");
    d.evaluatorLost("exit status 3");
    EXPECT_EQ(conns.take(1), msgOutputText(2, 4, "error", "text",
                                           std::string(Dispatcher::Crashed) +
                                               " (exit status 3) and was restarted: the "
                                               "session's variables and history are lost") +
                                 msgFinished(2, 4) +
                                 msgOutputText(1, 0, "warning", "text", Dispatcher::Restarted) +
                                 msgOutputText(3, 0, "warning", "text", Dispatcher::Restarted));
    EXPECT_EQ(engine.calls.back(), "init -1 A/tamkern/init");
    EXPECT_EQ(conns.clients[1], 3);
}
