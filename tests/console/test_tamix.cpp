// tamix as its users meet it: a whole session in a pseudo-terminal against
// the real kernel (editing, history, completion, the kernel's questions,
// Ctrl-C, a killed kernel); the scripted kernel for what the real one does
// not do; scripts through a pipe, directly and through a relay that cuts
// the stream into small pieces.
#include <dirent.h>

#include <cstring>
#include <regex>

#include "common/Run.h"
#include "common/ScriptedKernel.h"
#include "console/Pty.h"

using namespace tamixtest;

namespace {

const std::string kBin = TAMIX_BIN_DIR;
const std::string kTamix = kBin + "/tamix";

bool haveKernel()
{
    return access((kBin + "/tamkern").c_str(), X_OK) == 0;
}

#define NEEDS_KERNEL() \
    if (!haveKernel()) \
    GTEST_SKIP() << "no " << kBin << "/tamkern in this build"

// A terminal session's environment, with its home and history in dir.
std::vector<std::string> ttyEnv(const std::string& dir, std::vector<std::string> more = {})
{
    std::vector<std::string> env = {
        "TERM=xterm-256color", "HOME=" + dir,        "XDG_STATE_HOME=" + dir + "/state",
        "INPUTRC=/dev/null",   "LC_ALL=en_US.UTF-8", "PAGER=cat"};
    env.insert(env.end(), more.begin(), more.end());
    return env;
}

// The first child process of pid (the kernel a console launched), or -1.
pid_t childOf(pid_t pid)
{
    DIR* proc = opendir("/proc");
    pid_t found = -1;
    while (dirent* e = proc ? readdir(proc) : nullptr) {
        std::string stat = readFile(std::string("/proc/") + e->d_name + "/stat");
        size_t close = stat.rfind(')');
        int ppid = 0;
        if (close != std::string::npos && sscanf(stat.c_str() + close + 2, "%*c %d", &ppid) == 1 &&
            ppid == pid) {
            found = atoi(e->d_name);
            break;
        }
    }
    if (proc)
        closedir(proc);
    return found;
}

// Processor time used by pid, in clock ticks.
long cpuTicks(pid_t pid)
{
    std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    size_t close = stat.rfind(')');
    long user = 0, sys = 0;
    if (close == std::string::npos ||
        sscanf(stat.c_str() + close + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld",
               &user, &sys) != 2)
        return -1;
    return user + sys;
}

// Processor time used by a kernel and its evaluator process, in clock ticks.
long kernelTicks(pid_t kernel)
{
    pid_t evaluator = childOf(kernel);
    return cpuTicks(kernel) + (evaluator > 0 ? std::max(0L, cpuTicks(evaluator)) : 0);
}

// Types a command and waits for its echo, its answer and the next prompt.
::testing::AssertionResult answers(Pty& t, const std::string& command, const std::string& answer)
{
    t.type(command + "\r");
    if (t.expect(command + "\n" + answer + "\n>> "))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << command << " did not show " << answer << "; after it:\n"
                                         << t.rest();
}

} // namespace

TEST(TamixTerminal, ReadmeSessionLongInputPasteAndCompletion)
{
    NEEDS_KERNEL();
    Scenario home("");
    Pty t({kTamix}, ttyEnv(home.dir));
    ASSERT_TRUE(t.expect(">> ")) << t.rest();
    EXPECT_TRUE(answers(t, "diff(sin(x)*x,x)", "cos(x)*x+sin(x)"));
    EXPECT_TRUE(answers(t, "factor(x^4-1)", "(x-1)*(x+1)*(x^2+1)"));
    EXPECT_TRUE(answers(t, "integrate(1/(1+x^2),x)", "atan(x)"));
    // Errors in red.
    EXPECT_TRUE(answers(t, "inv([[1,2],[2,4]])", "Not invertible Error: Bad Argument Value"));
    EXPECT_NE(t.raw().find("\033[31mNot invertible Error: Bad Argument Value\033[0m"),
              std::string::npos);
    EXPECT_TRUE(answers(t, "1+*2", "syntax error line 1 col 3 at *"));

    // 2000 characters in one line.
    std::string sum = "1";
    for (int i = 1; i < 1000; ++i)
        sum += "+1";
    sum += ' ';
    ASSERT_EQ(sum.size(), 2000u);
    t.type(sum + "\r");
    EXPECT_TRUE(t.expect("\n1000\n>> ")) << t.rest();

    // A pasted program of three lines, and one typed over two lines with
    // the continuation prompt.
    t.type("\033[200~f(x):={\n  return x^2+1;\n}\n\033[201~\r");
    EXPECT_TRUE(t.expect("return(x^2+1);")) << t.rest();
    EXPECT_TRUE(answers(t, "f(3)", "10"));
    t.type("g(x):={\r");
    EXPECT_TRUE(t.expect("\n.. ")) << t.rest();
    EXPECT_TRUE(answers(t, "x*2}", "(x)->{ \n  x*2;  \n}"));
    EXPECT_TRUE(answers(t, "g(21)", "42"));

    // Tab lists the kernel's names; once the word is unique it completes.
    t.type("facto\t");
    EXPECT_TRUE(t.expect("factorial")) << t.rest();
    EXPECT_TRUE(t.expect("factor_xn")) << t.rest();
    t.type("ia\t(5)\r");
    EXPECT_TRUE(t.expect("factorial(5)\n120\n>> ")) << t.rest();

    t.type("quit\r");
    EXPECT_EQ(t.exitStatus(), 0);
}

TEST(TamixTerminal, QuestionsHelpAndHistoryAcrossSessions)
{
    NEEDS_KERNEL();
    Scenario home("");
    {
        Pty t({kTamix}, ttyEnv(home.dir));
        ASSERT_TRUE(t.expect(">> ")) << t.rest();
        t.type("help(diff)\r");
        EXPECT_TRUE(t.expect("Returns the derivative")) << t.rest();
        // input asks with the kernel's prompt; Ctrl-C and Ctrl-D cancel.
        t.type("input(\"n\")+1\r");
        EXPECT_TRUE(t.expect("input(\"n\")+1\nn ")) << t.rest();
        EXPECT_TRUE(answers(t, "41", "42"));
        for (const char* key : {"\003", "\004"}) {
            t.type("textinput(\"t\")\r");
            EXPECT_TRUE(t.expect("\nt ")) << t.rest();
            t.type(key);
            EXPECT_TRUE(t.expect("input canceled\n>> ")) << t.rest();
        }
        // The shell command's output, then its status as the value.
        EXPECT_TRUE(answers(t, "system(\"echo hi; exit 3\")", "hi\n3"));
        EXPECT_TRUE(answers(t, "callback(7*z)", "7*z"));
        t.type(":status\r");
        EXPECT_TRUE(t.expect("kernel memory ")) << t.rest();
        EXPECT_TRUE(t.expect(" KiB reserved; CPU time ")) << t.rest();
        t.type(":help\r");
        EXPECT_TRUE(t.expect(":format text|tex|mathml")) << t.rest();
        EXPECT_TRUE(answers(t, "6*7", "42"));
        t.type("\004");
        EXPECT_EQ(t.exitStatus(), 0);
    }
    // The history is back; a help text taller than the terminal goes
    // through the pager.
    Pty t({kTamix}, ttyEnv(home.dir, {"PAGER=sed s/^/paged:/"}), 4);
    ASSERT_TRUE(t.expect(">> ")) << t.rest();
    t.type("\033[A");
    EXPECT_TRUE(t.expect("6*7")) << t.rest();
    t.type("\r");
    EXPECT_TRUE(t.expect("42\n")) << t.rest();
    t.type("\022echo\r");
    EXPECT_TRUE(t.expect("hi\n3\n")) << t.rest();
    t.type("help(diff)\r");
    EXPECT_TRUE(t.expect("paged:Description: Returns the derivative")) << t.rest();
    t.type("quit\r");
    EXPECT_EQ(t.exitStatus(), 0);
}

TEST(TamixTerminal, CtrlCStopsTheCommandAndAKilledKernelIsReported)
{
    NEEDS_KERNEL();
    Scenario home("");
    Pty t({kTamix}, ttyEnv(home.dir));
    ASSERT_TRUE(t.expect(">> ")) << t.rest();
    pid_t kernel = -1;
    ASSERT_TRUE(waitFor([&] { return (kernel = childOf(t.pid())) > 0; }, 5000));
    const long idle = kernelTicks(kernel);
    t.type("s:=0; for(k:=1;k<10^9;k++){s:=s+k;}\r");
    // The loop runs once the kernel has computed for a while.
    ASSERT_TRUE(waitFor([&] { return kernelTicks(kernel) > idle + 20; }, 20000));
    // Completion goes on meanwhile, from the names the kernel knew at start.
    t.type("facto\t");
    EXPECT_TRUE(t.expect("factorial")) << t.rest();
    t.type("\003");
    EXPECT_TRUE(t.expect("interrupting\u2026\n")) << t.rest();
    EXPECT_TRUE(t.expect("interrupted\n")) << t.rest();
    EXPECT_TRUE(t.expect(">> factor")) << t.rest();
    // What was typed meanwhile is still there.
    t.type("ial(5)\r");
    EXPECT_TRUE(t.expect("\n120\n>> ")) << t.rest();
    // The session and its variables survive.
    t.type("s\r");
    ASSERT_TRUE(t.expect("s\n")) << t.rest();
    ASSERT_TRUE(t.expect("\n>> ")) << t.rest();
    EXPECT_TRUE(std::regex_search(t.screen(), std::regex(">> s\n[1-9][0-9]*\n>> $"))) << t.screen();
    EXPECT_TRUE(answers(t, "1+1", "2"));
    // Ctrl-C at the prompt only clears the line.
    t.type("1+\003");
    EXPECT_TRUE(t.expect("^C\n>> ")) << t.rest();

    ASSERT_EQ(kill(kernel, SIGKILL), 0);
    EXPECT_TRUE(t.expect("the kernel died (signal 9); :restart starts a new one\n", 1000))
        << t.rest();
    t.type("1+1\r");
    EXPECT_TRUE(t.expect("no kernel; :restart starts a new one")) << t.rest();
    t.type(":restart\r");
    EXPECT_TRUE(t.expect("starting a new kernel")) << t.rest();
    EXPECT_TRUE(answers(t, "s", "s")); // a new session
    EXPECT_TRUE(answers(t, "1+1", "2"));
    t.type("quit()\r");
    EXPECT_EQ(t.exitStatus(), 0);
}

// The scripted kernel: a plot file opened by a viewer, and a command that
// ignores the stop request, so that a second Ctrl-C offers a restart.
TEST(TamixTerminal, PlotFileAndARestartWhenTheKernelDoesNotStop)
{
    Scenario s("");
    const std::string plot = s.dir + "/plot 1.svg";
    s.play("listen\naccept\nwait_for can_plot \nsend <sendinit cl=\"1\"/>\nwait_for </init>\n"
           "send <ready cl=\"1\"/>\nwait_for </cmd>\n"
           "send <plotfile cl=\"1\" cid=\"1\" name=\"" +
           plot +
           "\"/><finished cl=\"1\" cid=\"1\"/>\n"
           "wait_for </cmd>\ndrain\n");
    // A desktop viewer that notes what it was asked to open.
    const std::string viewer = s.dir + "/bin/xdg-open";
    std::filesystem::create_directories(s.dir + "/bin");
    std::ofstream(viewer) << "#!/bin/sh\nprintf '%s' \"$1\" > '" << s.dir << "/opened'\n";
    std::filesystem::permissions(viewer, std::filesystem::perms::owner_all);
    Pty t({kTamix, "--kernel", TAMIX_SCRIPTED_KERNEL, "--open-plots"},
          ttyEnv(s.dir, {"PATH=" + s.dir + "/bin:" + getenv("PATH")}));
    ASSERT_TRUE(t.expect(">> ")) << t.rest();
    t.type("plot(x)\r");
    EXPECT_TRUE(t.expect("plot: " + plot + "\n>> ")) << t.rest();
    EXPECT_TRUE(waitFor([&] { return readFile(s.dir + "/opened") == plot; }, 5000));

    t.type("loop()\r");
    EXPECT_TRUE(t.expect("loop()\n")) << t.rest();
    t.type("\003");
    EXPECT_TRUE(t.expect("interrupting\u2026")) << t.rest();
    // Ctrl-C again: at first the kernel gets more time, after a few seconds
    // the restart is offered.
    bool offered = false;
    for (int i = 0; i < 40 && !offered; ++i) {
        t.type("\003");
        offered = t.expect("Restart it (all its variables are lost)? [y/N] ", 250);
    }
    ASSERT_TRUE(offered) << t.rest();
    EXPECT_NE(t.screen().find("still interrupting"), std::string::npos);
    const pid_t first = s.pid();
    t.type("y\r");
    EXPECT_TRUE(t.expect("starting a new kernel")) << t.rest();
    // The new kernel writes its pid file as it starts: read it with care.
    EXPECT_TRUE(waitFor(
        [&] {
            const int now = atoi(readFile(s.dir + "/rec.pid").c_str());
            return now > 0 && now != first && !alive(first);
        },
        5000));
    // The console announced what it can do, and asked for the stop.
    EXPECT_NE(s.received().find("features=\"can_plot can_input can_textinput can_help "
                                "can_exec_system can_quit can_callback \""),
              std::string::npos)
        << s.received();
    EXPECT_NE(s.received().find("<stop cl=\"1\"/>"), std::string::npos);
    t.type("quit\r");
    EXPECT_EQ(t.exitStatus(), 0);
}

// Scripts through a pipe: results on standard output, errors (with the line
// the command began on) on standard error, status 1 when a command failed.
TEST(TamixPipe, ExactOutputsAndExitStatus)
{
    NEEDS_KERNEL();
    Scenario io("");
    const std::string tamix = "'" + kTamix + "'";
    struct Case {
        std::string args, input;
        RunResult want;
    };
    const Case cases[] = {
        {"",
         "a:=6*7\nfactor(x^4-1)\n1+*2\nf(x):={\n  return x^2+a;\n}\nf(2)\n\nquit\n1/0\n",
         {1, "42\n(x-1)*(x+1)*(x^2+1)\n(x)->{ \n  return(x^2+a);  \n}\n46\n",
          "line 3: syntax error line 1 col 3 at *\n"
          "line 4: // Warning: a, declared as global variable(s). If symbolic variables are "
          "required, declare them as local and run purge\n"}},
        {"",
         "print(\"hi\")\nsystem(\"echo sh; read x || echo eof\")\n:width x\n",
         {1, "hi\n0\nsh\neof\n0\n", "line 3: usage: :width N\n"}},
        // Brackets in strings and comments do not count; a final backslash
        // joins lines. The console's own commands.
        {"",
         "t:=\"a(b\" ; length(t)\n/* [ */ 2+3 // (\n7*\\\n6\n:format tex\nx^2/3\n"
         ":format text\n:width 10\nexpand((x+1)^4)\n",
         {0,
          "\"a(b\",3\n5\n42\nresults in format tex\n\\frac{x^{2}}{3}\nresults in format "
          "text\nresults wrapped at 10 characters\nx^4+4*x^3+\n6*x^2+4*x+\n1\n",
          ""}},
        {"-e 'diff(x^3,x)' -e 'input(\"n\")*2'", "21\n", {0, "3*x^2\n42\n", ""}},
        {"--bogus", "", {2, "", "tamix: unknown option --bogus\nTry tamix --help.\n"}},
        {"--kernel /nonexistent -e 1",
         "",
         {1, "", "tamix: cannot run the kernel /nonexistent: No such file or directory\n"}},
        {"--version",
         "",
         {0,
          std::string("tamix ") + TAMIX_VERSION_STRING + " (library " + TAMIX_VERSION_STRING +
              ")\n",
          ""}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args + " < " + c.input);
        // From a directory of its own: the kernel is found beside tamix.
        RunResult r = runProgram(tamix + " " + c.args, io.dir, c.input, io.dir);
        EXPECT_EQ(r.out, c.want.out);
        EXPECT_EQ(r.err, c.want.err);
        EXPECT_EQ(r.status, c.want.status);
    }
    // A plot of the reference kernel arrives as a file; its path comes first,
    // the kernel's short result line after it.
    RunResult r = runProgram(tamix + " -e 'plot(x^2,x=-1..1)'", io.dir, "", io.dir);
    EXPECT_TRUE(
        std::regex_match(r.out, std::regex("plot: /.*/plot-1\\.svg\n2-D plot: plot-1\\.svg\n")))
        << r.out;
    EXPECT_EQ(r.status, 0);
}

// A kernel of its own, joined by its socket: directly, and through a relay
// that goes over TCP and delivers the stream in pieces of a few bytes. The
// console leaves the kernel joinable by the same path.
TEST(TamixPipe, JoinsAKernelDirectlyAndThroughARelay)
{
    NEEDS_KERNEL();
    Scenario io("");
    const std::string sock = io.dir + "/kernel.sock", relaySock = io.dir + "/relay.sock";
    auto spawn = [](std::vector<std::string> argv) {
        pid_t pid = fork();
        if (pid == 0) {
            std::vector<char*> args;
            for (std::string& a : argv)
                args.push_back(a.data());
            args.push_back(nullptr);
            execv(args[0], args.data());
            _exit(127);
        }
        return pid;
    };
    const pid_t kernel = spawn({kBin + "/tamkern", "--listen", sock});
    ASSERT_TRUE(waitFor([&] { return access(sock.c_str(), F_OK) == 0; }, 10000));
    // Long output (over 2500 digits), help, an error, a question.
    const std::string script = "factorial(1000)\nhelp(factor)\n1/\ninput(\"n\")+1\n41\n";
    RunResult direct =
        runProgram("'" + kTamix + "' --connect '" + sock + "'", io.dir, script, io.dir);
    EXPECT_EQ(direct.status, 1) << direct.err;
    EXPECT_NE(direct.out.find("Description: Factorizes a polynomial."), std::string::npos);
    EXPECT_TRUE(std::regex_search(direct.out, std::regex("^402387260077[0-9]{2556}\n")))
        << direct.out.substr(0, 100);
    EXPECT_NE(direct.out.find("\n42\n"), std::string::npos) << direct.out;
    EXPECT_EQ(direct.err.rfind("line 3: ", 0), 0u) << direct.err;
    ASSERT_EQ(access(sock.c_str(), F_OK), 0) << "the kernel's socket file went";

    const pid_t relay = spawn({TAMIX_TEST_RELAY, relaySock, sock});
    ASSERT_TRUE(waitFor([&] { return access(relaySock.c_str(), F_OK) == 0; }, 10000));
    RunResult relayed =
        runProgram("'" + kTamix + "' --connect '" + relaySock + "'", io.dir, script, io.dir);
    EXPECT_EQ(relayed.status, direct.status);
    EXPECT_EQ(relayed.out, direct.out);
    EXPECT_EQ(relayed.err, direct.err);
    for (pid_t p : {relay, kernel}) {
        kill(p, SIGTERM);
        waitpid(p, nullptr, 0);
    }
}

// A kernel that goes in the middle of a command ends a script at once, with
// what became of it.
TEST(TamixPipe, AKernelThatGoesEndsTheScript)
{
    Scenario s("");
    const std::string ready = "listen\naccept\nwait_for can_quit\nsend <sendinit cl=\"1\"/>\n"
                              "wait_for </init>\nsend <ready cl=\"1\"/>\nwait_for </cmd>\n";
    const struct {
        std::string steps, err;
    } cases[] = {
        {"kill\n", "tamix: the kernel died (signal 9)\n"},
        {"exit 4\n", "tamix: the kernel ended (status 4)\n"},
        {"send <quit/>\ndrain\n", "tamix: the kernel quit\n"},
        {"send <<oops>\ndrain\n", "tamix: the kernel broke the protocol\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.steps);
        s.play(ready + c.steps);
        RunResult r = runProgram("'" + kTamix + "' --kernel '" + TAMIX_SCRIPTED_KERNEL + "'", s.dir,
                                 "1+1\n2+2\n", s.dir);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, c.err);
        // Only the first command was sent.
        EXPECT_EQ(s.received().find("2+2"), std::string::npos);
        std::filesystem::remove(s.dir + "/rec");
    }
}
