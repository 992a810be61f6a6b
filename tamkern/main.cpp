// tamkern: the reference kernel. Computes with Giac and speaks the kernel's
// side of the client protocol over a Unix-domain socket.
//
//   tamkern -X PATH        launched by a front end: listen at PATH, send
//                          SIGUSR1 to the parent, end with the last client
//   tamkern --listen PATH  standalone, for front ends that join a running
//                          kernel: runs until the quit command or SIGTERM
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <unistd.h>

#include "tamkern/Capture.h"
#include "tamkern/GiacEngine.h"
#include "tamkern/Server.h"

namespace {

void onTerminate(int)
{
    tamkern::Server::terminate();
}

int usage(const char* argv0)
{
    std::fprintf(stderr, "usage: %s -X PATH | --listen PATH\n", argv0);
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    tamkern::ServerOptions options;
    if (argc != 3)
        return usage(argv[0]);
    if (std::strcmp(argv[1], "-X") == 0)
        options.standalone = false;
    else if (std::strcmp(argv[1], "--listen") == 0)
        options.standalone = true;
    else
        return usage(argv[0]);
    options.path = argv[2];

    std::signal(SIGPIPE, SIG_IGN);
    struct sigaction sa {};
    sa.sa_handler = onTerminate;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    // A launched kernel shares the front end's terminal; the user's Ctrl-C is
    // meant for the front end, which stops computations with its stop request.
    if (options.standalone)
        sigaction(SIGINT, &sa, nullptr);
    else
        std::signal(SIGINT, SIG_IGN);

    tamkern::OutputCapture capture;
    capture.start();
    int status;
    {
        tamkern::Server server(options, [&capture](tamkern::EngineHost& host) {
            return std::make_unique<tamkern::GiacEngine>(host, &capture);
        });
        status = server.run();
        // Destroying a stuck engine would wait for it again, in vain.
        if (server.engineStuck()) {
            capture.stop();
            ::_exit(0);
        }
    }
    capture.stop();
    return status;
}
