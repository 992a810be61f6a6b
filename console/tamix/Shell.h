// Processes the console starts for the kernel and the user: shell commands
// that the kernel asks for, and the desktop's viewer for plots.
#ifndef TAMIX_CONSOLE_SHELL_H
#define TAMIX_CONSOLE_SHELL_H

#include <string>

namespace tamix {

// Runs command with /bin/sh in the current directory and waits for it. Its
// standard output and error are the console's; its standard input too, or
// /dev/null with stdinFromNull (when the console's input is a script). The
// result: the command's exit status, 128 + N after signal N, 127 when no
// shell could be started.
long runShell(const std::string& command, bool stdinFromNull);

// The program in PATH that opens files with the desktop's viewer
// (xdg-open), or empty if there is none.
std::string findViewer();
// Starts viewer on path without waiting for it; it outlives nothing of the
// console's and leaves no zombie.
bool openWith(const std::string& viewer, const std::string& path);

} // namespace tamix

#endif
