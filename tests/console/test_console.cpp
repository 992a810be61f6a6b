// tamcon end to end: the console runs in a scratch directory whose ./tamkern
// is the scripted stand-in kernel, with standard input from a file.

#include "common/Run.h"
#include "common/ScriptedKernel.h"

using namespace tamixtest;

namespace {

const std::string kGreeting = "Tamix Kernel Console. Quit with the quit command.\n";
// Every session starts with the announcement and the init.
const std::string kOpening = newClient("", "can_quit ") +
                             "<init cl=\"1\"><iarg value=\"-l\"/><iarg value=\"../lib\"/></init>";
const std::string kQuit = "<quit cl=\"1\"/>";

std::string cmd(const std::string& text)
{
    return "<cmd cl=\"1\" cid=\"0\"><text format=\"_lan\">" + text + "</text></cmd>";
}

// The kernel asks for init, says it is ready, then plays steps.
std::string script(const std::string& steps)
{
    return "listen\naccept\nwait_for features=\"can_quit \"/>\nsend <sendinit cl=\"1\"/>\n"
           "wait_for </init>\nsend <ready cl=\"1\"/>\n" +
           steps;
}

// The next command, answered with output text and "finished", or with
// "finished" alone.
std::string answer(const std::string& text)
{
    return "wait_for </cmd>\nsend <output cl=\"1\" cid=\"0\" type=\"result\"><text "
           "format=\"_lan\">" +
           text + "</text></output><finished cl=\"1\" cid=\"0\"/>\n";
}
const std::string kFinished = "wait_for </cmd>\nsend <finished cl=\"1\" cid=\"0\"/>\n";

// The console with the stand-in kernel as its ./tamkern.
RunResult runConsole(const Scenario& s, const std::string& input)
{
    EXPECT_EQ(symlink(TAMIX_SCRIPTED_KERNEL, (s.dir + "/tamkern").c_str()), 0);
    return runProgram(std::string("'") + TAMIX_CONSOLE + "'", s.dir, input, s.dir);
}

} // namespace

TEST(Console, SessionEndedByQuit)
{
    const std::string a(1022, 'a'), b(1023, 'b'), c(1500, 'c');
    std::string steps = answer("42") + answer("two\\nlines\\n");
    for (int i = 0; i < 8; ++i)
        steps += kFinished;
    // Output after "quit" is never read.
    Scenario s(script(steps +
                      "wait_for </cmd>\nsend <output cl=\"1\" cid=\"0\" type=\"result\">"
                      "<text format=\"_lan\">too late</text></output>\nwait_for " +
                      kQuit + "\ndrain\n"));
    // 1022 characters fit with their newline; 1023 fill the buffer and the
    // newline comes as an empty command; longer lines go in 1023-character
    // pieces. Only the exact word "quit" ends the session.
    RunResult r = runConsole(s, "6*7\n" + a + "\n" + b + "\n" + c +
                                    "\n\n quit\nquit \nQUIT\nquit\nnever read\n");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    // Every text gets exactly one newline.
    EXPECT_EQ(r.out, kGreeting + ">> 42\n>> two\nlines\n\n>> >> >> >> >> >> >> >> >> ");
    EXPECT_EQ(s.received(), kOpening + cmd("6*7") + cmd(a) + cmd(b) + cmd("") +
                                cmd(c.substr(0, 1023)) + cmd(c.substr(1023)) + cmd("") +
                                cmd(" quit") + cmd("quit ") + cmd("QUIT") + cmd("quit") + kQuit);
}

TEST(Console, NoKernelEndOfInputAndTheKernelsQuit)
{
    Scenario none(""); // no ./tamkern to start
    RunResult r = runProgram(std::string("'") + TAMIX_CONSOLE + "'", none.dir, "quit\n", none.dir);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "can not create kernel object\n");
    EXPECT_EQ(r.out, "");

    // At the end of input the session ends as if "quit" had been typed.
    Scenario eof(script("wait_for " + kQuit + "\ndrain\n"));
    r = runConsole(eof, "");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, kGreeting + ">> ");
    EXPECT_EQ(eof.received(), kOpening + cmd("quit") + kQuit);

    Scenario quits(script("wait_for </cmd>\nsend <quit/>\nwait_for " + kQuit + "\n"));
    r = runConsole(quits, "1+1\n2+2\n");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "Tamix: The kernel quits.\n");
    EXPECT_EQ(r.out, kGreeting + ">> ");
    EXPECT_EQ(quits.received(), kOpening + cmd("1+1") + kQuit);
}

TEST(ConsoleRealKernel, DifferentiatesWithGiac)
{
    const std::string bin = TAMIX_BIN_DIR;
    if (access((bin + "/tamkern").c_str(), X_OK) != 0)
        GTEST_SKIP() << "no " << bin << "/tamkern in this build";
    Scenario io("");
    RunResult r = runProgram("./tamcon", bin, "diff(sin(x)*x,x)\nquit\n", io.dir);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind(kGreeting, 0), 0u) << r.out;
    EXPECT_NE(r.out.find("cos(x)*x+sin(x)\n"), std::string::npos) << r.out;
}
