// Test support: running a program to its end with files for its standard
// streams.
#ifndef TAMIX_TESTS_COMMON_RUN_H
#define TAMIX_TESTS_COMMON_RUN_H

#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "common/ScriptedKernel.h"

namespace tamixtest {

struct RunResult {
    int status; // exit status; 137 when killed for taking too long
    std::string out, err;
};

// Runs command (a shell command line) in dir with input as standard input,
// for at most 60 s; the standard streams go through files in io.
inline RunResult runProgram(const std::string& command, const std::string& dir,
                            const std::string& input, const std::string& io)
{
    std::ofstream(io + "/in", std::ios::binary) << input;
    int st = system(("cd '" + dir + "' && exec timeout -s KILL 60 " + command + " <'" + io +
                     "/in' >'" + io + "/out' 2>'" + io + "/err'")
                        .c_str());
    return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, readFile(io + "/out"), readFile(io + "/err")};
}

} // namespace tamixtest

#endif
