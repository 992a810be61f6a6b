// tamcon end to end: the console runs in a scratch directory whose ./tamkern
// is the scripted stand-in kernel, with standard input from a file.
#include <sys/stat.h>

#include "uds/ScriptedKernel.h"

using namespace tamixtest;

namespace {

const std::string kGreeting = "Tamix Kernel Console. Quit with the quit command.\n";
// What every session starts with: announcement and init.
const std::string kOpening =
    "<newclient name =\"\" frame=\"\" longfmt=\"text\" floatfmt=\"ieee\" coding=\"ident \" "
    "features=\"can_quit \"/><init cl=\"1\"><iarg value=\"-l\"/><iarg value=\"../lib\"/></init>";
const std::string kQuit = "<quit cl=\"1\"/>";

std::string cmd(const std::string& text) {
    return "<cmd cl=\"1\" cid=\"0\"><text format=\"_lan\">" + text + "</text></cmd>";
}

// The kernel's side: init on request, ready, then steps.
std::string script(const std::string& steps) {
    return "listen\naccept\nwait_for features=\"can_quit \"/>\nsend <sendinit cl=\"1\"/>\n"
           "wait_for </init>\nsend <ready cl=\"1\"/>\n" + steps;
}

// Answers the next command with output text (if any) and "finished".
std::string answer(const std::string& text = "") {
    return "wait_for </cmd>\nsend " +
           (text.empty() ? "" : "<output cl=\"1\" cid=\"0\" type=\"result\"><text format=\"_lan\">" + text + "</text></output>") +
           "<finished cl=\"1\" cid=\"0\"/>\n";
}

RunResult run(const Scenario& s, const std::string& input) {
    EXPECT_EQ(symlink(TAMIX_SCRIPTED_KERNEL, s.file("tamkern").c_str()), 0);
    return runProgram(TAMIX_CONSOLE, s.dir(), input, s.dir());
}

} // namespace

TEST(Console, SessionEndedByQuit) {
    const std::string a(1022, 'a'), b(1023, 'b'), c(1500, 'c');
    std::string steps = answer("42") + answer("two\\nlines\\n");
    for (int i = 0; i < 7; ++i)
        steps += answer();
    // Output after "quit" is never read.
    Scenario s(script(steps + "wait_for </cmd>\nsend <output cl=\"1\" cid=\"0\" type=\"result\">"
                              "<text format=\"_lan\">too late</text></output>\n"
                              "wait_for " + kQuit + "\ndrain\nexit 0\n"));
    // 1022 characters fit with their newline; 1023 fill the buffer and the
    // newline comes as an empty command; longer lines go in 1023-character
    // pieces. Only the exact word "quit" ends the session.
    RunResult r = run(s, "6*7\n" + a + "\n" + b + "\n" + c + "\n\n quit\nquit \nquit\nnever read\n");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    std::string prompts;
    for (int i = 0; i < 8; ++i)
        prompts += ">> ";
    EXPECT_EQ(r.out, kGreeting + ">> 42\n>> two\nlines\n\n" + prompts);
    EXPECT_EQ(s.received(), kOpening + cmd("6*7") + cmd(a) + cmd(b) + cmd("") + cmd(c.substr(0, 1023)) +
                                cmd(c.substr(1023)) + cmd("") + cmd(" quit") + cmd("quit ") + cmd("quit") + kQuit);
    // The kernel's socket file goes with the session.
    const Strings args = s.args();
    ASSERT_EQ(args.size(), 4u);
    EXPECT_EQ(args[0], "tamkern");
    struct stat st;
    EXPECT_NE(lstat(args[2].c_str(), &st), 0);
}

TEST(Console, EndOfInputAndTheKernelsQuit) {
    struct Case {
        const char* steps;
        std::string input;
        int status;
        std::string err, received;
    } cases[] = {
        // At the end of input the session ends as if "quit" had been typed.
        {"wait_for <quit cl=\"1\"/>\ndrain\nexit 0\n", "", 0, "", kOpening + cmd("quit") + kQuit},
        {"wait_for </cmd>\nsend <quit/>\nwait_for <quit cl=\"1\"/>\nexit 0\n", "1+1\n2+2\n", 1,
         "Tamix: The kernel quits.\n", kOpening + cmd("1+1") + kQuit},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.steps);
        Scenario s(script(c.steps));
        RunResult r = run(s, c.input);
        EXPECT_EQ(r.status, c.status) << r.err;
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.out, kGreeting + ">> ");
        EXPECT_EQ(s.received(), c.received);
    }
}

TEST(Console, NoKernelToStart) {
    Scenario dir("");
    RunResult r = runProgram(TAMIX_CONSOLE, dir.dir(), "quit\n", dir.dir());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "can not create kernel object\n");
    EXPECT_EQ(r.out, "");
}

TEST(ConsoleRealKernel, DifferentiatesWithGiac) {
    const std::string bin = TAMIX_BIN_DIR;
    if (access((bin + "/tamkern").c_str(), X_OK) != 0)
        GTEST_SKIP() << "no " << bin << "/tamkern in this build";
    Scenario io("");
    RunResult r = runProgram(bin + "/tamcon", bin, "diff(sin(x)*x,x)\nquit\n", io.dir());
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind(kGreeting, 0), 0u) << r.out;
    EXPECT_NE(r.out.find("cos(x)*x+sin(x)\n"), std::string::npos) << r.out;
}
