#include "Shell.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>

namespace tamix {

namespace {

// In a child: the signals as a fresh program expects them.
void defaultSignals()
{
    signal(SIGINT, SIG_DFL);
    signal(SIGPIPE, SIG_DFL);
    signal(SIGTSTP, SIG_DFL);
    signal(SIGWINCH, SIG_DFL);
}

void stdinFrom(const char* path)
{
    int fd = open(path, O_RDONLY);
    if (fd > 0) {
        dup2(fd, STDIN_FILENO);
        close(fd);
    }
}

} // namespace

long runShell(const std::string& command, bool stdinFromNull)
{
    pid_t pid = fork();
    if (pid < 0)
        return 127;
    if (pid == 0) {
        defaultSignals();
        if (stdinFromNull)
            stdinFrom("/dev/null");
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return 127;
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::string findViewer()
{
    const char* path = getenv("PATH");
    std::istringstream dirs(path ? path : "/usr/bin:/bin");
    for (std::string dir; std::getline(dirs, dir, ':');) {
        std::string candidate = (dir.empty() ? "." : dir) + "/xdg-open";
        if (access(candidate.c_str(), X_OK) == 0)
            return candidate;
    }
    return "";
}

bool openWith(const std::string& viewer, const std::string& path)
{
    pid_t pid = fork();
    if (pid < 0)
        return false;
    if (pid == 0) {
        // The grandchild is adopted by init, so nobody has to wait for it.
        if (fork() != 0)
            _exit(0);
        setsid();
        defaultSignals();
        stdinFrom("/dev/null");
        int null = open("/dev/null", O_WRONLY);
        if (null >= 0) {
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
        }
        execl(viewer.c_str(), viewer.c_str(), path.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return true;
}

} // namespace tamix
