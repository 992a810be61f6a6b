// The kernel as a real process, spoken to over its socket with the bytes a
// client library writes.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "tamkern/KernelClient.h"

using namespace kt;

namespace {

const char kLongLoop[] = "s:=0; for k from 1 to 10^9 do s:=s+k; od; s";

struct Session {
    TempDir dir;
    std::unique_ptr<Kernel> kernel;
    std::unique_ptr<Conn> conn;
    long cl = -1;

    explicit Session(bool standalone = false, const std::string& features = "can_quit ")
    {
        kernel = standalone ? Kernel::standalone(dir) : Kernel::launch(dir);
        if (!kernel)
            return;
        conn = std::make_unique<Conn>(kernel->socketPath());
        cl = conn->newClient(features);
        if (cl >= 0)
            conn->init(cl, {"-l", TAMKERN_LIBDIR});
    }
    bool ok() const { return kernel && conn && conn->connected() && cl >= 0; }
    std::vector<Msg> cmd(const std::string& text, long long cid = 5) { return conn->cmd(cl, text, cid); }
    std::string request(const char* name, const std::string& rest = "")
    {
        return "<" + std::string(name) + " cl=\"" + std::to_string(cl) + "\"" + rest;
    }
};

std::string single(const std::vector<std::string>& v)
{
    return v.size() == 1 ? v[0] : "<" + std::to_string(v.size()) + " outputs>";
}

// The kernel writes its log asynchronously to what a client sees.
bool logShows(Kernel& k, const std::string& needle, int timeoutMs = 3000)
{
    for (int waited = 0;; waited += 20) {
        if (k.log().find(needle) != std::string::npos)
            return true;
        if (waited >= timeoutMs)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

bool endsWithFinished(const std::vector<Msg>& m, long long cid)
{
    return !m.empty() && m.back().name == "finished" && m.back().num("cid") == cid;
}

} // namespace

TEST(TamkernStartup, LaunchSignalsParentAndListensOwnerOnly)
{
    TempDir dir;
    auto k = Kernel::launch(dir);
    ASSERT_TRUE(k) << "no SIGUSR1 from the kernel";
    struct stat st;
    ASSERT_EQ(::lstat(k->socketPath().c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 077, 0u) << std::oct << st.st_mode;
    EXPECT_EQ(st.st_uid, ::geteuid());

    Conn c(k->socketPath());
    ASSERT_TRUE(c.connected());
    long id = c.newClient();
    EXPECT_GE(id, 0);
    std::vector<Msg> m = c.init(id, {"-l", TAMKERN_LIBDIR});
    ASSERT_FALSE(m.empty());
    EXPECT_EQ(m.back().name, "ready");
    EXPECT_EQ(m.back().num("cl"), id);
    // The shipped start-up file is valid: it causes no warnings.
    EXPECT_TRUE(outputs(m, "warning").empty()) << describe(m);
}

TEST(TamkernStartup, InitFileArgumentsAndWarnings)
{
    TempDir lib;
    ASSERT_EQ(::mkdir(lib.file("tamkern").c_str(), 0700), 0);
    {
        std::ofstream f(lib.file("tamkern/init"));
        f << "# comment\ninitvalue:=123\n\nprint(\"not shown\")\n1+*2\n";
    }
    TempDir dir;
    auto k = Kernel::launch(dir);
    ASSERT_TRUE(k);
    Conn c(k->socketPath());
    long id = c.newClient();
    std::vector<Msg> m = c.init(id, {"-l", lib.path(), "-zz"});
    ASSERT_FALSE(m.empty());
    EXPECT_EQ(m.back().name, "ready");
    std::vector<std::string> w = outputs(m, "warning");
    ASSERT_EQ(w.size(), 2u) << describe(m);
    EXPECT_NE(w[0].find("init:5: syntax error"), std::string::npos) << w[0];
    EXPECT_EQ(w[1], "unknown argument: -zz");
    EXPECT_TRUE(outputs(m, "print").empty()) << "start-up commands are silent";
    EXPECT_EQ(single(outputs(c.cmd(id, "initvalue+1"), "result")), "124");
}

TEST(TamkernClients, IdsForTwoConnectionsWithTwoClientsEach)
{
    TempDir dir;
    auto k = Kernel::launch(dir);
    ASSERT_TRUE(k);
    Conn a(k->socketPath()), b(k->socketPath());
    long a1 = a.newClient();
    long b1 = b.newClient();
    // Two announcements in one write: ids in the order they arrive.
    a.send("<newclient name =\"x\" frame=\"\" longfmt=\"text\" floatfmt=\"ieee\" coding=\"ident \" features=\"\"/>"
           "<newclient name =\"y\" frame=\"\" longfmt=\"text\" floatfmt=\"ieee\" coding=\"ident \" features=\"\"/>");
    std::vector<Msg> ma = a.until("sendinit");
    std::vector<Msg> mb = a.until("sendinit");
    ASSERT_EQ(ma.size(), 1u);
    ASSERT_EQ(mb.size(), 1u);
    long a2 = static_cast<long>(ma[0].num("cl"));
    long a3 = static_cast<long>(mb[0].num("cl"));
    long b2 = b.newClient();
    EXPECT_EQ(b1, a1 + 1);
    EXPECT_EQ(a2, b1 + 1);
    EXPECT_EQ(a3, a2 + 1);
    EXPECT_EQ(b2, a3 + 1);

    for (long id : {a1, a2, a3})
        EXPECT_EQ(a.init(id, {}).back().num("cl"), id);
    for (long id : {b1, b2})
        EXPECT_EQ(b.init(id, {}).back().num("cl"), id);

    // One Giac session for all: what one client defines, the others see.
    EXPECT_EQ(single(outputs(a.cmd(a2, "shared:=41", 1), "result")), "41");
    std::vector<Msg> r = b.cmd(b2, "shared+1", 2);
    for (const Msg& m : r)
        EXPECT_EQ(m.num("cl"), b2);
    EXPECT_EQ(single(outputs(r, "result")), "42");
    // The other connection heard nothing of it.
    EXPECT_FALSE(a.next(300).has_value());
    // A client may not speak for another connection's client.
    b.send("<cmd cl=\"" + std::to_string(a1) + "\" cid=\"3\"><text format=\"_lan\">1</text></cmd>");
    EXPECT_FALSE(b.next(500).has_value());
    EXPECT_FALSE(a.next(100).has_value());
    EXPECT_TRUE(logShows(*k, "unknown client " + std::to_string(a1))) << k->log();
}

TEST(TamkernCommands, RealGiacResultsWithTheCookie)
{
    Session s;
    ASSERT_TRUE(s.ok());
    std::vector<Msg> m = s.cmd("diff(sin(x)*x,x)", 17);
    ASSERT_EQ(m.size(), 2u) << describe(m);
    EXPECT_EQ(m[0].name, "output");
    EXPECT_EQ(m[0].num("cl"), s.cl);
    EXPECT_EQ(m[0].num("cid"), 17);
    EXPECT_EQ(m[0].textFormat, "text");
    EXPECT_EQ(m[0].text, "cos(x)*x+sin(x)");
    EXPECT_TRUE(endsWithFinished(m, 17));

    EXPECT_EQ(single(outputs(s.cmd("factor(x^4-1)"), "result")), "(x-1)*(x+1)*(x^2+1)");
    EXPECT_EQ(single(outputs(s.cmd("integrate(1/(1+x^2),x)"), "result")), "atan(x)");
    // Escaped markup in both directions.
    EXPECT_EQ(single(outputs(s.cmd("\"a&lt;b&amp;c\""), "result")), "\"a<b&c\"");
    EXPECT_EQ(single(outputs(s.cmd("1&lt;2"), "result")), "true");
    // Printed lines come first, each as its own output.
    m = s.cmd("print(\"one\");print(\"two\");7");
    EXPECT_EQ(outputs(m, "print"), (std::vector<std::string>{"one", "two"})) << describe(m);
    ASSERT_EQ(outputs(m, "result").size(), 1u);
    EXPECT_EQ(m[0].attr("type"), "print");
    // An empty line asks for nothing but is finished all the same.
    m = s.cmd("", 9);
    EXPECT_EQ(m.size(), 1u) << describe(m);
    EXPECT_TRUE(endsWithFinished(m, 9));
    // A negative cookie comes back as it was sent.
    EXPECT_TRUE(endsWithFinished(s.cmd("1", -140737488355328LL), -140737488355328LL));
}

TEST(TamkernCommands, ErrorsAndDiagnosticsBecomeErrorOutputs)
{
    Session s;
    ASSERT_TRUE(s.ok());
    std::vector<Msg> m = s.cmd("1+*2");
    EXPECT_EQ(single(outputs(m, "error")), "syntax error line 1 col 3 at *") << describe(m);
    EXPECT_TRUE(outputs(m, "result").empty());
    EXPECT_TRUE(endsWithFinished(m, 5));

    m = s.cmd("factor(");
    EXPECT_EQ(single(outputs(m, "error")), "factor(seq[]) Error: Bad Argument Value") << describe(m);
    EXPECT_TRUE(endsWithFinished(m, 5));

    // Giac's debugging remarks go to std::cerr; they must reach the client,
    // not the front end's terminal.
    s.cmd("debug_infolevel:=2");
    m = s.cmd("factor(x^4-1)");
    s.cmd("debug_infolevel:=0");
    ASSERT_FALSE(outputs(m, "error").empty()) << describe(m);
    EXPECT_NE(outputs(m, "error")[0].find("Gcdheu"), std::string::npos);
    EXPECT_EQ(single(outputs(m, "result")), "(x-1)*(x+1)*(x^2+1)");
    EXPECT_EQ(s.kernel->log(), "");
    EXPECT_EQ(s.kernel->stdoutText(), "");
}

TEST(TamkernCommands, StopInterruptsALongComputation)
{
    Session s;
    ASSERT_TRUE(s.ok());
    s.conn->send(s.request("cmd", " cid=\"8\"><text format=\"_lan\">") + kLongLoop + "</text></cmd>");
    EXPECT_FALSE(s.conn->next(700).has_value()) << "the loop should still run";
    // Status is answered while the computation runs.
    s.conn->send(s.request("sendstatus", "/>"));
    std::optional<Msg> st = s.conn->next(3000);
    ASSERT_TRUE(st.has_value());
    EXPECT_EQ(st->name, "status");
    EXPECT_GT(st->num("used"), 1000);         // KiB resident
    EXPECT_GT(st->num("res"), st->num("used"));  // KiB virtual
    EXPECT_GE(st->num("sec"), 0);

    auto t0 = std::chrono::steady_clock::now();
    s.conn->send(s.request("stop", "/>"));
    std::vector<Msg> m = s.conn->until("finished", 10000);
    double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_LT(took, 5.0);
    EXPECT_EQ(single(outputs(m, "error")), "interrupted") << describe(m);
    EXPECT_TRUE(outputs(m, "result").empty());
    EXPECT_TRUE(endsWithFinished(m, 8));
    // The interrupt does not linger into the next command.
    EXPECT_EQ(single(outputs(s.cmd("2^10"), "result")), "1024");
    EXPECT_EQ(s.kernel->log(), "");
}

TEST(TamkernCommands, StopFromAnotherClientDoesNotTouchTheComputation)
{
    Session s;
    ASSERT_TRUE(s.ok());
    Conn other(s.kernel->socketPath());
    long o = other.newClient();
    s.conn->send(s.request("cmd", " cid=\"8\"><text format=\"_lan\">") +
                 "s:=0; for k from 1 to 4*10^6 do s:=s+k; od; s</text></cmd>");
    other.send("<stop cl=\"" + std::to_string(o) + "\"/>");
    std::vector<Msg> m = s.conn->until("finished", 60000);
    // Giac shows the values of all three statements.
    EXPECT_EQ(single(outputs(m, "result")), "0,8000002000000,8000002000000") << describe(m);
}

TEST(TamkernFrontEnd, InputAnsweredAndCanceled)
{
    Session s;
    ASSERT_TRUE(s.ok());
    s.conn->send(s.request("cmd", " cid=\"4\"><text format=\"_lan\">input(\"n?\")+1</text></cmd>"));
    std::optional<Msg> q = s.conn->next();
    ASSERT_TRUE(q.has_value());
    EXPECT_EQ(q->name, "sendinput");
    EXPECT_EQ(q->attr("text"), "0");
    EXPECT_EQ(q->num("cid"), 4);
    EXPECT_EQ(q->text, "n?");
    s.conn->send(s.request("input", " canceled=\"0\"><text format=\"_lan\">41</text></input>"));
    std::vector<Msg> m = s.conn->until("finished");
    EXPECT_EQ(single(outputs(m, "result")), "42") << describe(m);

    s.conn->send(s.request("cmd", " cid=\"4\"><text format=\"_lan\">input(\"again?\")</text></cmd>"));
    q = s.conn->next();
    ASSERT_TRUE(q.has_value());
    EXPECT_EQ(q->name, "sendinput");
    s.conn->send(s.request("input", " canceled=\"1\"><text format=\"_lan\"></text></input>"));
    m = s.conn->until("finished");
    EXPECT_EQ(single(outputs(m, "error")), "input canceled") << describe(m);

    s.conn->send(s.request("cmd", " cid=\"4\"><text format=\"_lan\">textinput(\"name?\")</text></cmd>"));
    q = s.conn->next();
    ASSERT_TRUE(q.has_value());
    EXPECT_EQ(q->name, "sendinput");
    EXPECT_EQ(q->attr("text"), "1");
    EXPECT_EQ(q->text, "name?");
    // A text answer is a string, not an expression.
    s.conn->send(s.request("textinput", " canceled=\"0\">x+1</textinput>"));
    m = s.conn->until("finished");
    EXPECT_EQ(single(outputs(m, "result")), "\"x+1\"") << describe(m);

    s.conn->send(s.request("cmd", " cid=\"4\"><text format=\"_lan\">textinput(\"name?\")</text></cmd>"));
    ASSERT_TRUE(s.conn->next().has_value());
    s.conn->send(s.request("textinput", " canceled=\"1\"></textinput>"));
    m = s.conn->until("finished");
    EXPECT_EQ(single(outputs(m, "error")), "input canceled") << describe(m);

    // Stop also ends a wait for an answer.
    s.conn->send(s.request("cmd", " cid=\"6\"><text format=\"_lan\">input(\"x\")</text></cmd>"));
    ASSERT_TRUE(s.conn->next().has_value());
    s.conn->send(s.request("stop", "/>"));
    m = s.conn->until("finished");
    EXPECT_EQ(single(outputs(m, "error")), "interrupted") << describe(m);
    // An answer nobody asked for is ignored.
    s.conn->send(s.request("input", " canceled=\"0\"><text format=\"_lan\">5</text></input>"));
    EXPECT_EQ(single(outputs(s.cmd("3"), "result")), "3");
}

TEST(TamkernFrontEnd, SystemCallbackAndHelp)
{
    Session s;
    ASSERT_TRUE(s.ok());
    s.conn->send(s.request("cmd", " cid=\"2\"><text format=\"_lan\">system(\"ls -l\")*2</text></cmd>"));
    std::optional<Msg> q = s.conn->next();
    ASSERT_TRUE(q.has_value());
    EXPECT_EQ(q->name, "system");
    EXPECT_EQ(q->attr("value"), "ls -l");
    s.conn->send(s.request("sysresult", " value=\"21\"/>"));
    EXPECT_EQ(single(outputs(s.conn->until("finished"), "result")), "42");

    s.conn->send(s.request("cmd", " cid=\"3\"><text format=\"_lan\">callback(x^2+1)*2</text></cmd>"));
    q = s.conn->next();
    ASSERT_TRUE(q.has_value());
    EXPECT_EQ(q->name, "callback");
    EXPECT_EQ(q->num("cid"), 3);
    ASSERT_TRUE(q->hasMcode);
    EXPECT_EQ(q->mcodeFormat, "utf8");
    EXPECT_EQ(inflateBase64(q->mcodeData), "x^2+1");
    s.conn->send(s.request("callresult", " error=\"0\"><mcode format=\"utf8\">") + deflateBase64("y-1") +
                 "</mcode></callresult>");
    EXPECT_EQ(single(outputs(s.conn->until("finished"), "result")), "2*(y-1)");

    s.conn->send(s.request("cmd", " cid=\"3\"><text format=\"_lan\">callback(1)</text></cmd>"));
    ASSERT_TRUE(s.conn->next().has_value());
    s.conn->send(s.request("callresult", " error=\"1\"></callresult>"));
    EXPECT_EQ(single(outputs(s.conn->until("finished"), "error")), "callback failed");

    for (const char* h : {"?diff", "help(diff)"}) {
        std::vector<Msg> m = s.cmd(h, 12);
        ASSERT_EQ(m.size(), 2u) << describe(m);
        EXPECT_EQ(m[0].name, "help");
        EXPECT_NE(m[0].attr("value").find("derivative"), std::string::npos) << m[0].attr("value");
        // Line breaks survive the attribute.
        EXPECT_NE(m[0].attr("value").find("\nExamples:"), std::string::npos);
        EXPECT_TRUE(endsWithFinished(m, 12));
    }
    EXPECT_EQ(s.kernel->log(), "");
}

TEST(TamkernRequests, CompletionOfFunctionsAndVariables)
{
    Session s;
    ASSERT_TRUE(s.ok());
    s.cmd("factorvar:=3");
    s.conn->send(s.request("complete", " value=\"facto\"/>"));
    std::optional<Msg> m = s.conn->next();
    ASSERT_TRUE(m.has_value());
    EXPECT_EQ(m->name, "completion");
    EXPECT_EQ(m->attr("pref"), "facto");
    std::string list = " " + m->attr("list") + " ";
    EXPECT_NE(list.find(" factor "), std::string::npos) << list;
    EXPECT_NE(list.find(" factorial "), std::string::npos) << list;
    EXPECT_NE(list.find(" factorvar "), std::string::npos) << list;
    EXPECT_EQ(list.find("  "), std::string::npos) << "single blanks";
    EXPECT_EQ(list.find(" ifactor "), std::string::npos) << "prefix, not substring";

    s.conn->send(s.request("complete", " value=\"zzqq\"/>"));
    m = s.conn->next();
    ASSERT_TRUE(m.has_value());
    EXPECT_EQ(m->attr("list"), "");
}

TEST(TamkernRequests, ResultFormats)
{
    Session s(false, "can_quit can_typeset ");
    ASSERT_TRUE(s.kernel);
    ASSERT_TRUE(s.conn);
    // A typesetting client is offered the result formats at start-up.
    Conn c2(s.kernel->socketPath());
    c2.send("<newclient name =\"\" frame=\"\" longfmt=\"text\" floatfmt=\"ieee\" coding=\"ident \" "
            "features=\"can_typeset \"/>");
    std::vector<Msg> start = c2.until("selformat");
    ASSERT_FALSE(start.empty());
    EXPECT_EQ(start.front().name, "sendinit");
    EXPECT_EQ(start.back().name, "selformat");
    EXPECT_EQ(start.back().attr("type"), "result");
    EXPECT_EQ(start.back().fmts, (std::vector<std::string>{"text", "tex", "mathml", "utf8"}));

    ASSERT_GE(s.cl, 0);
    auto choose = [&](const char* f) {
        s.conn->send(s.request("format", std::string(" type=\"result\" value=\"") + f + "\"/>"));
        std::optional<Msg> m = s.conn->next();
        return m && m->name == "format" && m->attr("type") == "result" && m->fmts.size() == 1
                   ? m->fmts[0] : std::string("?");
    };
    // The start-up selformat came before ready and was left unanswered.
    EXPECT_EQ(choose("tex"), "tex");
    std::vector<Msg> m = s.cmd("x^2/3");
    ASSERT_EQ(outputs(m, "result").size(), 1u);
    EXPECT_EQ(m[0].textFormat, "tex");
    EXPECT_EQ(m[0].text, "\\frac{x^{2}}{3}");

    EXPECT_EQ(choose("mathml"), "mathml");
    m = s.cmd("x^2/3");
    EXPECT_EQ(m[0].textFormat, "mathml");
    EXPECT_EQ(m[0].text.rfind("<math", 0), 0u) << m[0].text;
    EXPECT_NE(m[0].text.find("<mfrac>"), std::string::npos) << m[0].text;

    EXPECT_EQ(choose("utf8"), "utf8");
    m = s.cmd("x^2/3");
    ASSERT_TRUE(m[0].hasMcode) << describe(m);
    EXPECT_EQ(m[0].mcodeFormat, "utf8");
    EXPECT_EQ(inflateBase64(m[0].mcodeData), "x^2/3");
    // Only results change: errors stay text.
    m = s.cmd("1+*2");
    EXPECT_TRUE(m[0].hasText);

    // A format the kernel cannot produce leaves the choice as it was.
    EXPECT_EQ(choose("png"), "utf8");
    EXPECT_EQ(choose("text"), "text");
    EXPECT_EQ(s.cmd("x^2/3")[0].text, "x^2/3");
}

TEST(TamkernRequests, CommandsAsPayloads)
{
    Session s;
    ASSERT_TRUE(s.ok());
    std::string cmd = s.request("cmd", " cid=\"11\"><mcode format=\"utf8\">") + deflateBase64("factor(x^2-1)") +
                      "</mcode></cmd>";
    s.conn->send(cmd);
    std::vector<Msg> m = s.conn->until("finished");
    ASSERT_EQ(m.size(), 2u) << describe(m);
    EXPECT_TRUE(m[0].hasText) << "results as text until the client chooses utf8";
    EXPECT_EQ(m[0].text, "(x-1)*(x+1)");

    s.conn->send(s.request("format", " type=\"result\" value=\"utf8\"/>"));
    ASSERT_TRUE(s.conn->next().has_value());
    s.conn->send(cmd);
    m = s.conn->until("finished");
    ASSERT_TRUE(m[0].hasMcode) << describe(m);
    EXPECT_EQ(inflateBase64(m[0].mcodeData), "(x-1)*(x+1)");

    // A payload that does not decode costs that command only.
    s.conn->send(s.request("cmd", " cid=\"12\"><mcode format=\"utf8\">eJxLTEoGAAJN!!!!garbage</mcode></cmd>"));
    m = s.conn->until("finished");
    EXPECT_EQ(single(outputs(m, "error")), "the command's payload does not decode") << describe(m);
    s.conn->send(s.request("cmd", " cid=\"13\"><mcode format=\"binary\">eJwDAAAAAAE=</mcode></cmd>"));
    m = s.conn->until("finished");
    EXPECT_EQ(single(outputs(m, "error")), "unsupported payload format \"binary\"") << describe(m);
    s.conn->send(s.request("format", " type=\"result\" value=\"text\"/>"));
    ASSERT_TRUE(s.conn->next().has_value());
    EXPECT_EQ(single(outputs(s.cmd("1+1"), "result")), "2");
}

TEST(TamkernRequests, SettingsAreConfirmedAndHonoured)
{
    Session s;
    ASSERT_TRUE(s.ok());
    s.conn->send(s.request("textwidth", " value=\"20\"/>"));
    std::optional<Msg> m = s.conn->next();
    ASSERT_TRUE(m.has_value());
    EXPECT_EQ(m->name, "textwidth");
    EXPECT_EQ(m->attr("value"), "20");
    std::string r = single(outputs(s.cmd("expand((x+y)^6)"), "result"));
    std::size_t lines = 0, start = 0;
    for (;;) {
        std::size_t nl = r.find('\n', start);
        std::string line = r.substr(start, nl == std::string::npos ? std::string::npos : nl - start);
        EXPECT_LE(line.size(), 20u) << line;
        ++lines;
        if (nl == std::string::npos)
            break;
        start = nl + 1;
    }
    EXPECT_GT(lines, 2u) << r;
    std::string joined;
    for (char ch : r)
        if (ch != '\n')
            joined += ch;
    EXPECT_EQ(joined, "x^6+y^6+6*x*y^5+15*x^2*y^4+20*x^3*y^3+15*x^4*y^2+6*x^5*y");

    s.conn->send(s.request("textwidth", " value=\"0\"/>"));
    ASSERT_TRUE(s.conn->next().has_value());
    s.conn->send(s.request("prettyprint", " value=\"1\"/>"));
    m = s.conn->next();
    ASSERT_TRUE(m.has_value());
    EXPECT_EQ(m->name, "prettyprint");
    EXPECT_EQ(m->attr("value"), "1");
    EXPECT_EQ(single(outputs(s.cmd("[[1,2],[3,4]]"), "result")), "[1,2]\n[3,4]");

    s.conn->send(s.request("abbreviateoutput", " value=\"1\"/>"));
    m = s.conn->next();
    ASSERT_TRUE(m.has_value());
    EXPECT_EQ(m->name, "abbreviateoutput");
    EXPECT_EQ(m->attr("value"), "1");
    r = single(outputs(s.cmd("2^5000"), "result"));
    EXPECT_LT(r.size(), 600u);
    EXPECT_NE(r.find("characters omitted"), std::string::npos) << r;
    EXPECT_EQ(r.substr(0, 10), "1412467032");

    // Settings belong to one client.
    Conn c2(s.kernel->socketPath());
    long o = c2.newClient();
    EXPECT_EQ(single(outputs(c2.cmd(o, "[[1,2],[3,4]]"), "result")), "[[1,2],[3,4]]");
    // A setting waits its turn behind a running command of the client.
    s.conn->send(s.request("cmd", " cid=\"1\"><text format=\"_lan\">[[5]]</text></cmd>") +
                 s.request("prettyprint", " value=\"0\"/>"));
    std::vector<Msg> seq = s.conn->until("prettyprint");
    ASSERT_EQ(seq.size(), 3u) << describe(seq);
    EXPECT_EQ(seq[0].text, "[5]");
    EXPECT_EQ(seq[1].name, "finished");
}

TEST(TamkernBadInput, MalformedStreamCostsOnlyThatConnection)
{
    Session s;
    ASSERT_TRUE(s.ok());
    Conn bad(s.kernel->socketPath());
    long b = bad.newClient();
    ASSERT_GE(b, 0);
    // A request that is running when the stream breaks goes with its
    // connection.
    bad.send("<cmd cl=\"" + std::to_string(b) + "\" cid=\"1\"><text format=\"_lan\">" + kLongLoop +
             "</text></cmd><<<>>");
    EXPECT_TRUE(bad.waitClosed());
    EXPECT_EQ(single(outputs(s.cmd("6*7"), "result")), "42");
    EXPECT_TRUE(logShows(*s.kernel, "malformed request stream")) << s.kernel->log();
    EXPECT_TRUE(s.kernel->running());
}

TEST(TamkernBadInput, UnknownElementsAndClientsAreSkipped)
{
    Session s;
    ASSERT_TRUE(s.ok());
    s.conn->send("<frobnicate cl=\"1\"><cmd cl=\"1\" cid=\"1\"><text>2</text></cmd></frobnicate>");
    s.conn->send("<cmd cl=\"999\" cid=\"1\"><text format=\"_lan\">3</text></cmd>");
    s.conn->send("<cmd cl=\"abc\" cid=\"1\"><text format=\"_lan\">3</text></cmd>");
    // Unknown parts inside a request are skipped with their text.
    s.conn->send(s.request("cmd", " cid=\"2\"><text format=\"_lan\">1+<b>100</b>4</text></cmd>"));
    std::vector<Msg> m = s.conn->until("finished");
    ASSERT_EQ(m.size(), 2u) << describe(m);
    EXPECT_EQ(m[0].text, "5");
    EXPECT_EQ(m[0].num("cid"), 2);
    std::string log = s.kernel->log();
    EXPECT_NE(log.find("unknown request <frobnicate>"), std::string::npos) << log;
    EXPECT_NE(log.find("unknown client 999"), std::string::npos) << log;
    EXPECT_NE(log.find("unknown client (not a number)"), std::string::npos) << log;
    EXPECT_TRUE(s.kernel->running());
}

TEST(TamkernBadInput, ClientThatDisconnectsMidCommand)
{
    TempDir dir;
    auto k = Kernel::launch(dir);
    ASSERT_TRUE(k);
    Conn stay(k->socketPath());
    long keep = stay.newClient();
    {
        Conn gone(k->socketPath());
        long g = gone.newClient();
        gone.send("<cmd cl=\"" + std::to_string(g) + "\" cid=\"1\"><text format=\"_lan\">" + kLongLoop +
                  "</text></cmd>");
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    // The orphaned computation is interrupted, so the next command runs.
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(single(outputs(stay.cmd(keep, "2+2"), "result")), "4");
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(), 5.0);

    // A connection that ends in the middle of a request.
    {
        Conn half(k->socketPath());
        long h = half.newClient();
        half.send("<cmd cl=\"" + std::to_string(h) + "\" cid=\"1\"><text format=\"_lan\">1+");
    }
    EXPECT_EQ(single(outputs(stay.cmd(keep, "3+3"), "result")), "6");
    EXPECT_TRUE(logShows(*k, "connection closed in the middle of a request")) << k->log();
    EXPECT_TRUE(k->running());
}

TEST(TamkernBadInput, ClientThatStopsReadingDelaysNobody)
{
    Session s;
    ASSERT_TRUE(s.ok());
    Conn lazy(s.kernel->socketPath());
    long l = lazy.newClient();
    // Several megabytes of results that this client never reads.
    std::string burst;
    for (int i = 0; i < 40; ++i)
        burst += "<cmd cl=\"" + std::to_string(l) + "\" cid=\"" + std::to_string(i) +
                 "\"><text format=\"_lan\">2^300000</text></cmd>";
    lazy.send(burst);
    std::vector<Msg> m = s.cmd("5*5");
    EXPECT_EQ(single(outputs(m, "result")), "25") << describe(m);
    // The lazy client still gets every message, in order, when it reads.
    int finished = 0;
    for (;;) {
        std::optional<Msg> x = lazy.next(20000);
        if (!x)
            break;
        if (x->name == "finished") {
            EXPECT_EQ(x->num("cid"), finished);
            ++finished;
        }
        if (finished == 40)
            break;
    }
    EXPECT_EQ(finished, 40);
}

TEST(TamkernSecurity, RefusesPeersOfAnotherUser)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to connect as another user";
    Session s;
    ASSERT_TRUE(s.ok());
    // Open the file system path so that only the credential check remains.
    ASSERT_EQ(::chmod(s.dir.path().c_str(), 0711), 0);
    ASSERT_EQ(::chmod(s.kernel->socketPath().c_str(), 0666), 0);
    pid_t child = ::fork();
    if (child == 0) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0)
            ::_exit(10);
        Conn c(s.kernel->socketPath());
        if (!c.connected())
            ::_exit(11);
        c.send("<newclient name =\"\" frame=\"\" longfmt=\"text\" floatfmt=\"ieee\" coding=\"ident \" features=\"\"/>");
        std::optional<Msg> m = c.next(3000);
        ::_exit(m ? 12 : (c.waitClosed(3000) ? 0 : 13));
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "10: setuid failed, 11: no connect, 12: was served, 13: not closed";
    EXPECT_TRUE(logShows(*s.kernel, "refused a connection from uid 65534")) << s.kernel->log();
    EXPECT_EQ(single(outputs(s.cmd("1+2"), "result")), "3");
}

TEST(TamkernLifetime, LastClientLeavingEndsALaunchedKernel)
{
    TempDir dir;
    auto k = Kernel::launch(dir);
    ASSERT_TRUE(k);
    Conn c(k->socketPath());
    long a = c.newClient();
    long b = c.newClient();
    c.send("<quit cl=\"" + std::to_string(a) + "\"/>");
    EXPECT_EQ(k->waitExit(500), -1) << "one client is left";
    c.send("<quit cl=\"" + std::to_string(b) + "\"/>");
    EXPECT_EQ(k->waitExit(10000), 0);
    EXPECT_TRUE(c.waitClosed());
    struct stat st;
    EXPECT_NE(::lstat(k->socketPath().c_str(), &st), 0) << "socket file removed";
    EXPECT_EQ(k->log(), "");
}

TEST(TamkernLifetime, StayAliveKeepsTheKernel)
{
    TempDir dir;
    auto k = Kernel::launch(dir);
    ASSERT_TRUE(k);
    {
        Conn c(k->socketPath());
        long a = c.newClient("stay_alive can_quit ");
        c.send("<quit cl=\"" + std::to_string(a) + "\"/>");
    }
    EXPECT_EQ(k->waitExit(700), -1);
    Conn again(k->socketPath());
    long id = again.newClient();
    EXPECT_EQ(single(outputs(again.cmd(id, "10!"), "result")), "3628800");
}

TEST(TamkernLifetime, QuitCommandTellsEveryConnection)
{
    TempDir dir;
    auto k = Kernel::launch(dir);
    ASSERT_TRUE(k);
    Conn a(k->socketPath()), b(k->socketPath());
    long ia = a.newClient();
    long ib = b.newClient();
    ASSERT_GE(ib, 0);
    a.send("<cmd cl=\"" + std::to_string(ia) + "\" cid=\"0\"><text format=\"_lan\">quit</text></cmd>");
    for (Conn* c : {&a, &b}) {
        std::optional<Msg> m = c->next();
        ASSERT_TRUE(m.has_value());
        EXPECT_EQ(m->name, "quit");
        EXPECT_TRUE(m->attrs.empty());
        EXPECT_TRUE(c->waitClosed());
    }
    EXPECT_EQ(k->waitExit(10000), 0);
}

TEST(TamkernLifetime, StandaloneOutlivesClientsUntilSigterm)
{
    Session s(true);
    ASSERT_TRUE(s.ok());
    s.conn->send(s.request("quit", "/>"));
    s.conn->close();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_TRUE(s.kernel->running());
    Conn c(s.kernel->socketPath());
    long id = c.newClient();
    EXPECT_EQ(single(outputs(c.cmd(id, "gcd(12,18)"), "result")), "6");
    ::kill(s.kernel->pid(), SIGTERM);
    EXPECT_EQ(s.kernel->waitExit(10000), 0);
    struct stat st;
    EXPECT_NE(::lstat(s.kernel->socketPath().c_str(), &st), 0) << "socket file removed";
}

TEST(TamkernLifetime, StandaloneEndsWithTheQuitCommand)
{
    Session s(true);
    ASSERT_TRUE(s.ok());
    s.conn->send(s.request("cmd", " cid=\"0\"><text format=\"_lan\">quit</text></cmd>"));
    std::optional<Msg> m = s.conn->next();
    ASSERT_TRUE(m.has_value());
    EXPECT_EQ(m->name, "quit");
    EXPECT_EQ(s.kernel->waitExit(10000), 0);
    struct stat st;
    EXPECT_NE(::lstat(s.kernel->socketPath().c_str(), &st), 0);
}
