// tamcon end to end: the console runs in a scratch directory whose
// ./tamkern is the scripted stand-in kernel, with standard input from a file.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "uds/ScriptedKernel.h"

using namespace tamixtest;

namespace {

const char kGreeting[] = "Tamix Kernel Console. Quit with the quit command.\n";
const char kAnnouncement[] =
    "<newclient name =\"\" frame=\"\" longfmt=\"text\" floatfmt=\"ieee\" coding=\"ident \" "
    "features=\"can_quit \"/>";
const char kInit[] = "<init cl=\"1\"><iarg value=\"-l\"/><iarg value=\"../lib\"/></init>";

std::string cmd(const std::string& text) {
    return "<cmd cl=\"1\" cid=\"0\"><text format=\"_lan\">" + text + "</text></cmd>";
}

// Start of every session: announcement, init, ready.
const std::string kOpening =
    "listen\naccept\n"
    "wait_for features=\"can_quit \"/>\nsend <sendinit cl=\"1\"/>\n"
    "wait_for </init>\nsend <ready cl=\"1\"/>\n";

// Answers the next command with output text (escaped for the script) and
// "finished"; no output for an empty text.
std::string answer(const std::string& text) {
    std::string steps = "wait_for </cmd>\nsend ";
    if (!text.empty())
        steps += "<output cl=\"1\" cid=\"0\" type=\"result\"><text format=\"_lan\">" + text +
                 "</text></output>";
    return steps + "<finished cl=\"1\" cid=\"0\"/>\n";
}

// The console's own last words: its quit request, then the end of the
// connection.
const std::string kClosing = "wait_for </cmd>\nwait_for <quit cl=\"1\"/>\ndrain\nexit 0\n";

class Console : public ::testing::Test {
protected:
    RunResult run(const Scenario& s, const std::string& input, int timeoutMs = 30000) {
        std::string link = s.dir().file("tamkern");
        EXPECT_EQ(symlink(Scenario::kernelPath(), link.c_str()), 0);
        return runProgram(TAMIX_CONSOLE, s.dir().path(), input, timeoutMs);
    }
};

} // namespace

TEST_F(Console, SessionWithQuit) {
    Scenario s(kOpening + answer("42") + answer("two\\nlines\\n") + answer("3") + answer("4") +
               // Output after "quit" is never read.
               "wait_for </cmd>\nsend <output cl=\"1\" cid=\"0\" type=\"result\">"
               "<text format=\"_lan\">too late</text></output>\n"
               "wait_for <quit cl=\"1\"/>\ndrain\nexit 0\n");
    // Only the exact word ends the session.
    RunResult r = run(s, "6*7\n quit\nQUIT\nquit \nquit\nnever read\n");
    ASSERT_FALSE(r.timedOut) << r.out << r.err;
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, std::string(kGreeting) + ">> 42\n>> two\nlines\n\n>> 3\n>> 4\n>> ");
    EXPECT_EQ(s.received(), kAnnouncement + std::string(kInit) + cmd("6*7") + cmd(" quit") +
                                cmd("QUIT") + cmd("quit ") + cmd("quit") + "<quit cl=\"1\"/>");
    // The kernel's socket file is gone with the session.
    std::vector<std::string> args = s.args();
    ASSERT_EQ(args.size(), 3u);
    EXPECT_EQ(args[0], "tamkern");
    struct stat st;
    EXPECT_NE(lstat(args[2].c_str(), &st), 0);
}

TEST_F(Console, KernelQuits) {
    Scenario s(kOpening + "wait_for </cmd>\nsend <quit/>\nwait_for <quit cl=\"1\"/>\nexit 0\n");
    RunResult r = run(s, "1+1\n2+2\n");
    ASSERT_FALSE(r.timedOut) << r.out << r.err;
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "Tamix: The kernel quits.\n");
    EXPECT_EQ(r.out, std::string(kGreeting) + ">> ");
    EXPECT_EQ(s.received(),
              kAnnouncement + std::string(kInit) + cmd("1+1") + "<quit cl=\"1\"/>");
}

TEST_F(Console, LongLinesEmptyLineAndEndOfInput) {
    const std::string a(1022, 'a'), b(1023, 'b'), c(1500, 'c');
    std::string steps = kOpening;
    for (int i = 0; i < 6; ++i)
        steps += answer("");
    Scenario s(steps + kClosing);
    // No "quit": the end of input ends the session the same way.
    RunResult r = run(s, a + "\n" + b + "\n" + c + "\n\n");
    ASSERT_FALSE(r.timedOut) << r.out << r.err;
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    std::string prompts;
    for (int i = 0; i < 7; ++i)
        prompts += ">> ";
    EXPECT_EQ(r.out, kGreeting + prompts);
    // 1022 characters fit with their newline; 1023 fill the buffer and the
    // newline comes as an empty command; longer lines go in 1023-character
    // pieces.
    EXPECT_EQ(s.received(), kAnnouncement + std::string(kInit) + cmd(a) + cmd(b) + cmd("") +
                                cmd(c.substr(0, 1023)) + cmd(c.substr(1023)) + cmd("") +
                                cmd("quit") + "<quit cl=\"1\"/>");
}

TEST_F(Console, NoKernelToStart) {
    TempDir dir;
    RunResult r = runProgram(TAMIX_CONSOLE, dir.path(), "quit\n", 10000);
    ASSERT_FALSE(r.timedOut);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "can not create kernel object\n");
    EXPECT_EQ(r.out, "");
}

TEST(ConsoleRealKernel, DifferentiatesWithGiac) {
    const std::string bin = TAMIX_BIN_DIR;
    struct stat st;
    if (stat((bin + "/tamkern").c_str(), &st) != 0)
        GTEST_SKIP() << "no " << bin << "/tamkern in this build";
    TempDir io;
    RunResult r = runProgram(bin + "/tamcon", bin, "diff(sin(x)*x,x)\nquit\n", 60000, io.path());
    ASSERT_FALSE(r.timedOut) << r.out << r.err;
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind(kGreeting, 0), 0u) << r.out;
    EXPECT_NE(r.out.find("cos(x)*x+sin(x)\n"), std::string::npos) << r.out;
}
