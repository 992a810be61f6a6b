// Test support: scenarios for the scripted stand-in kernel, clients whose
// handlers record what they get, the input loop run until a condition holds,
// and programs run with bounded time.
#ifndef TAMIX_TESTS_UDS_SCRIPTEDKERNEL_H
#define TAMIX_TESTS_UDS_SCRIPTEDKERNEL_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tamix/tamix.h"

namespace tamixtest {

using Strings = std::vector<std::string>;

inline std::string readFile(const std::string& path) {
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

// A scenario for the stand-in kernel in a scratch directory of its own;
// every kernel launched from now on plays it, until another scenario is made
// or activated.
class Scenario {
public:
    explicit Scenario(const std::string& steps) {
        char tmpl[] = "/tmp/tamixtestXXXXXX";
        dir_ = mkdtemp(tmpl) ? tmpl : "/nonexistent";
        std::ofstream(file("script")) << steps;
        activate();
    }
    ~Scenario() {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
    void activate() const {
        setenv("TAMIX_SCRIPT", file("script").c_str(), 1);
        setenv("TAMIX_RECORD", file("rec").c_str(), 1);
    }
    std::string file(const std::string& name) const { return dir_ + "/" + name; }
    const std::string& dir() const { return dir_; }
    // What the kernel received on its connection n.
    std::string received(int n = 0) const { return readFile(file(n ? "rec." + std::to_string(n) : "rec")); }
    // The kernel's arguments, then its process id.
    Strings args() const {
        Strings out;
        std::istringstream in(readFile(file("rec.args")));
        for (std::string line; std::getline(in, line);)
            out.push_back(line);
        return out;
    }
    pid_t pid() const { return static_cast<pid_t>(std::stol(args().back())); }

private:
    std::string dir_;
};

// The file a client socket is bound to.
inline std::string boundPath(int fd) {
    sockaddr_un addr{};
    socklen_t len = sizeof addr;
    return fd >= 0 && getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0 ? addr.sun_path : "";
}

// The library leaves client socket files behind: a test's go at its end.
inline TAM_KernelImpl* tracked(TAM_KernelImpl* k) {
    static struct Files {
        Strings paths;
        ~Files() {
            for (const std::string& p : paths)
                unlink(p.c_str());
        }
    } files;
    if (k)
        files.paths.push_back(boundPath(TAM_get_client_fd(k)));
    return k;
}

inline TAM_KernelImpl* launch(const char* name = nullptr) {
    return tracked(TAM_new_uds_kernel(TAMIX_SCRIPTED_KERNEL, name));
}

inline Strings names() {
    Strings out;
    char** n = TAM_get_uds_kernel_names();
    for (char** p = n; p && *p; ++p) {
        out.push_back(*p);
        TAM_free(*p);
    }
    TAM_free(n);
    return out;
}

// What the handlers of watched clients saw, as "<event>:<client index>".
inline Strings events;
inline std::vector<TAM_KernelImpl*> clients;

inline std::string who(TAM_KernelImpl* k) {
    for (size_t i = 0; i < clients.size(); ++i) {
        if (clients[i] == k)
            return std::to_string(i);
    }
    return "?";
}

inline TAM_KernelImpl* watch(TAM_KernelImpl* k) {
    clients.push_back(k);
    TAM_set_on_kernel_ready_handler(k, [](TAM_KernelImpl* k) { events.push_back("ready:" + who(k)); });
    TAM_set_on_output_handler(k, [](TAM_KernelImpl* k, void*, const char*, const char*, const char* text) {
        events.push_back("output:" + who(k) + ":" + text);
    });
    TAM_set_on_finished_handler(k, [](TAM_KernelImpl* k, void*) { events.push_back("finished:" + who(k)); });
    TAM_set_on_quit_handler(k, [](TAM_KernelImpl* k) { events.push_back("quit:" + who(k)); });
    return k;
}

// Polls the input loop until cond holds or the time is up.
inline bool pumpUntil(const std::function<bool()>& cond, int timeoutMs = 5000) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        TAM_handle_uds_input(0);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

inline bool alive(pid_t pid) { return pid > 0 && kill(pid, 0) == 0; }

struct RunResult {
    int status;  // exit status; 137 when killed for taking too long
    std::string out, err;
};

// Runs program in dir with input as standard input, for at most 60 s; the
// standard streams go through files in io.
inline RunResult runProgram(const std::string& program, const std::string& dir,
                            const std::string& input, const std::string& io) {
    std::ofstream(io + "/in", std::ios::binary) << input;
    std::string cmd = "cd '" + dir + "' && exec timeout -s KILL 60 '" + program + "' <'" + io +
                      "/in' >'" + io + "/out' 2>'" + io + "/err'";
    int st = system(cmd.c_str());
    return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, readFile(io + "/out"), readFile(io + "/err")};
}

// Each case runs in its own process; the fixture also keeps them apart
// when the whole program runs at once. A loop that blocks for good ends the
// process by the alarm instead of hanging the suite.
struct UdsTest : ::testing::Test {
    void SetUp() override {
        events.clear();
        clients.clear();
        alarm(20);
    }
    void TearDown() override { alarm(0); }
};

} // namespace tamixtest

#endif
