// tamkern: the reference kernel. Computes with Giac and speaks the kernel's
// side of the client protocol over a Unix-domain socket.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <unistd.h>

#include "tamkern/Capture.h"
#include "tamkern/GiacEngine.h"
#include "tamkern/Paths.h"
#include "tamkern/Server.h"

namespace {

const char kUsage[] = "usage: %s (-X PATH | --listen PATH) [--log FILE] [--keep-plots]\n"
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

// 0 if the arguments are complete, else the status to exit with (-1: help).
int parse(int argc, char** argv, Options& o)
{
    bool mode = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        bool hasValue = i + 1 < argc;
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
        } else {
            return 2;
        }
    }
    return mode ? 0 : 2;
}

// A launched kernel shares the front end's terminal: its log goes to a file.
void openLog(const Options& o)
{
    std::string file = o.log;
    if (file.empty() && !o.server.standalone)
        file = tamkern::defaultLogFile();
    if (!file.empty() && file != "-")
        tamkern::logToFile(file);
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
    openLog(o);
    installSignals(o.server.standalone);
    const std::string plotDir = tamkern::plotDirFor(::getpid());
    auto removePlots = [&] {
        if (!o.keepPlots && !plotDir.empty())
            tamkern::removeDir(plotDir);
    };

    tamkern::OutputCapture capture;
    capture.start();
    int status;
    {
        tamkern::Server server(o.server, [&](tamkern::EngineHost& host) {
            return std::make_unique<tamkern::GiacEngine>(host, &capture, plotDir);
        });
        status = server.run();
        // Destroying a stuck engine would wait for it again, in vain.
        if (server.engineStuck()) {
            capture.stop();
            removePlots();
            ::_exit(0);
        }
    }
    capture.stop();
    removePlots();
    return status;
}
