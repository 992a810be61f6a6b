// Test support: a temporary directory, a scenario for the scripted stand-in
// kernel, and running a program with bounded time.
#ifndef TAMIX_TESTS_UDS_SCRIPTEDKERNEL_H
#define TAMIX_TESTS_UDS_SCRIPTEDKERNEL_H

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tamix/tamix.h"

namespace tamixtest {

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

inline size_t countOf(const std::string& hay, const std::string& needle) {
    size_t n = 0;
    for (size_t at = hay.find(needle); at != std::string::npos; at = hay.find(needle, at + 1))
        ++n;
    return n;
}

class TempDir {
public:
    TempDir() {
        char tmpl[] = "/tmp/tamixtestXXXXXX";
        const char* d = mkdtemp(tmpl);
        path_ = d ? d : "/tmp";
    }
    ~TempDir() {
        std::string cmd = "rm -rf '" + path_ + "'";
        if (path_ != "/tmp" && system(cmd.c_str()) != 0) {
        }
    }
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// A scenario for the stand-in kernel. The environment it sets is inherited
// by every kernel launched afterwards, until another scenario replaces it.
class Scenario {
public:
    explicit Scenario(const std::string& steps, const std::string& tag = "k") {
        script_ = dir_.file(tag + ".script");
        record_ = dir_.file(tag + ".rec");
        writeFile(script_, steps);
        activate();
    }
    void activate() const {
        setenv("TAMIX_SCRIPT", script_.c_str(), 1);
        setenv("TAMIX_RECORD", record_.c_str(), 1);
        setenv("TAMIX_KERNEL_TIMEOUT_MS", "8000", 1);
    }
    // What the kernel received on its connection n.
    std::string received(int n = 0) const {
        return readFile(n == 0 ? record_ : record_ + "." + std::to_string(n));
    }
    std::vector<std::string> args() const {
        std::vector<std::string> out;
        std::istringstream in(readFile(record_ + ".args"));
        for (std::string line; std::getline(in, line);)
            out.push_back(line);
        return out;
    }
    pid_t pid() const { return static_cast<pid_t>(atol(readFile(record_ + ".pid").c_str())); }
    const TempDir& dir() const { return dir_; }

    static const char* kernelPath() { return TAMIX_SCRIPTED_KERNEL; }

private:
    TempDir dir_;
    std::string script_;
    std::string record_;
};

// Polls the input loop until cond holds or the time is up.
inline bool pumpUntil(const std::function<bool()>& cond, int timeoutMs = 5000) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        TAM_handle_uds_input(0);
        if (cond())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// True while a process with this id exists (also as an unreaped zombie).
inline bool processExists(pid_t pid) {
    return pid > 0 && kill(pid, 0) == 0;
}

// The file a client socket is bound to; the library leaves these behind, so
// tests remove theirs.
inline std::string boundPath(int fd) {
    sockaddr_un addr;
    socklen_t len = sizeof addr;
    memset(&addr, 0, sizeof addr);
    if (fd < 0 || getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
        return std::string();
    return addr.sun_path;
}

struct RunResult {
    int status = -1;      // exit status, or -1 when it did not exit normally
    bool timedOut = false;
    std::string out;
    std::string err;
};

// Runs program in dir with input as standard input; kills it (and its
// process group) when it takes longer than timeoutMs. The standard streams
// go through files in ioDir (dir if empty).
inline RunResult runProgram(const std::string& program, const std::string& dir,
                            const std::string& input, int timeoutMs,
                            const std::string& ioDir = std::string()) {
    RunResult r;
    const std::string& io = ioDir.empty() ? dir : ioDir;
    std::string in = io + "/.stdin", out = io + "/.stdout", err = io + "/.stderr";
    writeFile(in, input);
    pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        if (chdir(dir.c_str()) != 0)
            _exit(126);
        int i = open(in.c_str(), O_RDONLY);
        int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (i < 0 || o < 0 || e < 0)
            _exit(126);
        dup2(i, 0);
        dup2(o, 1);
        dup2(e, 2);
        execl(program.c_str(), program.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int status = 0;
    for (;;) {
        pid_t w = waitpid(pid, &status, WNOHANG);
        if (w == pid)
            break;
        if (std::chrono::steady_clock::now() > end) {
            r.timedOut = true;
            kill(-pid, SIGKILL);
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!r.timedOut && WIFEXITED(status))
        r.status = WEXITSTATUS(status);
    r.out = readFile(out);
    r.err = readFile(err);
    return r;
}

} // namespace tamixtest

#endif
