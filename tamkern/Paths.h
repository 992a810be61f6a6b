// Where the kernel keeps its files: the user's base directories as the XDG
// conventions name them.
#ifndef TAMKERN_PATHS_H
#define TAMKERN_PATHS_H

#include <string>

namespace tamkern {

// The directory that the environment variable var names if it is an
// absolute path, else $HOME/fallback; empty if neither is known.
std::string baseDir(const char* var, const char* fallback);

// The kernel's log file: $XDG_STATE_HOME/tamkern/tamkern.log.
std::string defaultLogFile();
// The directory for the plot files of the kernel with process id pid:
// $XDG_RUNTIME_DIR/tamkern/plots-PID, or under $XDG_CACHE_HOME without a
// runtime directory.
std::string plotDirFor(long pid);

// The directory of the running program (from /proc/self/exe); "." if it
// cannot be told.
std::string programDir();

// Makes dir and whatever parents are missing, owner-only. false (errno set)
// if it cannot be made or is no directory.
bool makeDirs(const std::string& dir);
// Removes the files in dir, then dir itself; what it cannot remove stays.
void removeDir(const std::string& dir);

} // namespace tamkern

#endif
