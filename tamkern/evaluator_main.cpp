// tamkern-evaluator: the reference kernel's evaluator process, which the
// kernel starts beside itself and talks to over a socket it hands down.
// Not for running by hand.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tamkern/Capture.h"
#include "tamkern/Evaluator.h"

int main(int argc, char** argv)
{
    int fd = -1;
    std::string log, plots;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string a = argv[i];
        if (a == "--socket")
            fd = std::atoi(argv[i + 1]);
        else if (a == "--log")
            log = argv[i + 1];
        else if (a == "--plots")
            plots = argv[i + 1];
    }
    if (fd < 0 || argc % 2 == 0) {
        std::fprintf(stderr,
                     "usage: %s --socket FD [--log FILE|-] [--plots DIR]\n"
                     "The kernel tamkern starts this program; it is not run by hand.\n",
                     argv[0]);
        return 2;
    }
    if (!log.empty() && log != "-")
        tamkern::logToFile(log);
    return tamkern::runEvaluator(fd, plots);
}
