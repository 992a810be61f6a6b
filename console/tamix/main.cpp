// tamix: the everyday console of the Tamix computer-algebra system. On a
// terminal an interactive session with line editing, history and
// completion; otherwise the commands of standard input or -e, one by one.
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdio>

#include <tamix/tamix.h>

#include "Batch.h"
#include "Interactive.h"
#include "Options.h"

int main(int argc, char** argv)
{
    setlocale(LC_ALL, "");
    // A reader that goes away (tamix ... | head) ends writes, not the
    // session with its kernel.
    signal(SIGPIPE, SIG_IGN);

    tamix::Options options;
    std::string error;
    if (!tamix::parseOptions(argc, argv, options, error)) {
        fprintf(stderr, "tamix: %s\nTry tamix --help.\n", error.c_str());
        return 2;
    }
    if (options.help) {
        fputs(tamix::usage().c_str(), stdout);
        return 0;
    }
    if (options.version) {
        printf("tamix %s (library %s)\n", TAMIX_VERSION_STRING, TAM_get_version());
        return 0;
    }
    // A joined kernel runs its own start-up; only an explicit --libdir
    // goes to it.
    if (options.connectPath.empty())
        tamix::findKernel(options);
    if (!options.expressions.empty() || !isatty(STDIN_FILENO))
        return tamix::Batch(options).run();
    return tamix::Interactive(options).run();
}
