// The command line of tamix, and where the kernel and its library
// directory are found when the command line does not say.
#ifndef TAMIX_CONSOLE_OPTIONS_H
#define TAMIX_CONSOLE_OPTIONS_H

#include <string>
#include <vector>

namespace tamix {

struct Options {
    std::string kernelPath;               // the kernel to launch
    std::string libDir;                   // its library directory, handed over at init
    std::string connectPath;              // join this kernel instead of launching one
    std::vector<std::string> expressions; // -e: evaluate these and exit
    bool openPlots = false;
    bool color = true;
    bool help = false;
    bool version = false;
};

// Fills options from argv. False with a message in error for a bad
// command line.
bool parseOptions(int argc, char** argv, Options& options, std::string& error);

// Fills in the kernel and its library directory where the command line
// left them empty: tamkern beside this program and ../lib, as in the build
// tree and an installed prefix, else the prefix this program was built for.
void findKernel(Options& options);

// The text of --help.
std::string usage();

} // namespace tamix

#endif
