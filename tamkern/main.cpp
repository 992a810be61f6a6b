// tamkern: the reference kernel. Speaks the kernel's side of the client
// protocol over a Unix-domain socket and has its evaluator process,
// tamkern-evaluator beside it, compute with Giac.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <memory>
#include <string>
#include <unistd.h>

#include "tamkern/Capture.h"
#include "tamkern/EvaluatorProcess.h"
#include "tamkern/Paths.h"
#include "tamkern/Server.h"

namespace {

const char kUsage[] = "usage: %s (-X PATH | --listen PATH) [--log FILE] [--keep-plots]\n"
                      "          [--idle-timeout SECONDS] [--connection-mb N] [--kernel-mb N]\n"
                      "\n"
                      "  -X PATH        launched by a front end: listen at PATH, send SIGUSR1 to\n"
                      "                 the parent, end when the last client has left\n"
                      "  --listen PATH  standalone, for front ends that join a running kernel:\n"
                      "                 serve until the command quit or SIGTERM\n"
                      "  --log FILE     append the log to FILE; - for standard error. Default:\n"
                      "                 $XDG_STATE_HOME/tamkern/tamkern.log (~/.local/state/...)\n"
                      "                 with -X, standard error with --listen\n"
                      "  --keep-plots   leave the plot files when the kernel ends; they are in\n"
                      "                 $XDG_RUNTIME_DIR/tamkern/plots-PID (else under\n"
                      "                 $XDG_CACHE_HOME, ~/.cache)\n"
                      "  --idle-timeout SECONDS  close a connection silent this long in the\n"
                      "                 middle of a request (default 30)\n"
                      "  --connection-mb N  memory one connection may cost the kernel (48)\n"
                      "  --kernel-mb N  memory all connections together may cost it (256)\n"
                      "\n"
                      "The socket is for the kernel's own user only. Removed while the kernel\n"
                      "runs, it is made again at the same path.\n";

struct Options {
    tamkern::ServerOptions server;
    std::string log; // empty: the default of the mode
    bool keepPlots = false;
};

void onTerminate(int)
{
    tamkern::Server::terminate();
}

int usage(const char* argv0, FILE* to, int status)
{
    std::fprintf(to, kUsage, argv0);
    return status;
}

// A whole number from 1 to max, into out.
bool positive(const char* s, long max, long& out)
{
    char* end = nullptr;
    long v = std::strtol(s, &end, 10);
    if (end == s || *end != '\0' || v < 1 || v > max)
        return false;
    out = v;
    return true;
}

// Options that take a number; false if a is one and its value is bad.
bool limitOption(const std::string& a, const char* value, tamkern::Limits& l, bool& known)
{
    long v = 0;
    known = a == "--idle-timeout" || a == "--connection-mb" || a == "--kernel-mb";
    if (!known)
        return true;
    if (!positive(value, 1L << 20, v))
        return false;
    if (a == "--idle-timeout")
        l.idleTimeout = std::chrono::seconds(v);
    else if (a == "--connection-mb")
        l.connectionBytes = static_cast<std::size_t>(v) << 20;
    else
        l.kernelBytes = static_cast<std::size_t>(v) << 20;
    return true;
}

// 0 if the arguments are complete, else the status to exit with (-1: help).
int parse(int argc, char** argv, Options& o)
{
    bool mode = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        bool hasValue = i + 1 < argc;
        bool known = false;
        if (a == "--help" || a == "-h")
            return -1;
        if ((a == "-X" || a == "--listen") && hasValue && !mode) {
            o.server.standalone = a == "--listen";
            o.server.path = argv[++i];
            mode = true;
        } else if (a == "--log" && hasValue) {
            o.log = argv[++i];
        } else if (a == "--keep-plots") {
            o.keepPlots = true;
        } else if (hasValue && limitOption(a, argv[i + 1], o.server.limits, known) && known) {
            ++i;
        } else {
            return 2;
        }
    }
    return mode ? 0 : 2;
}

// A launched kernel shares the front end's terminal: its log goes to a file.
// Where it goes: a file, or - for standard error.
std::string logTarget(const Options& o)
{
    std::string file = o.log;
    if (file.empty() && !o.server.standalone)
        file = tamkern::defaultLogFile();
    return file.empty() ? "-" : file;
}

void installSignals(bool standalone)
{
    std::signal(SIGPIPE, SIG_IGN);
    struct sigaction sa {};
    sa.sa_handler = onTerminate;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    // A launched kernel shares the front end's terminal; the user's Ctrl-C is
    // meant for the front end, which stops computations with its stop request.
    if (standalone)
        sigaction(SIGINT, &sa, nullptr);
    else
        std::signal(SIGINT, SIG_IGN);
}

} // namespace

int main(int argc, char** argv)
{
    Options o;
    switch (parse(argc, argv, o)) {
    case 0:
        break;
    case -1:
        return usage(argv[0], stdout, 0);
    default:
        return usage(argv[0], stderr, 2);
    }
    const std::string log = logTarget(o);
    const std::string plotDir = tamkern::plotDirFor(::getpid());
    // The evaluator starts first, so that loading Giac, most of the start,
    // goes on beside the rest.
    const std::vector<std::string> evaluator = {tamkern::programDir() + "/tamkern-evaluator",
                                                "--log", log, "--plots", plotDir};
    tamkern::ChildProcess first = tamkern::spawnEvaluator(evaluator);
    if (log != "-")
        tamkern::logToFile(log);

    installSignals(o.server.standalone);
    // Blocks of a megabyte and more (requests, results) are the system's
    // own pages, given back when freed, whatever sizes came before.
    ::mallopt(M_MMAP_THRESHOLD, 1 << 20);
    int status;
    {
        tamkern::Server server(o.server, [&](tamkern::EngineHost& host) {
            return std::make_unique<tamkern::EvaluatorProcess>(host, evaluator, first);
        });
        status = server.run();
    }
    if (!o.keepPlots && !plotDir.empty())
        tamkern::removeDir(plotDir);
    return status;
}
