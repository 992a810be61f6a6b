// Test support: scenarios for the scripted stand-in kernel, clients whose
// handlers record what they get, and the input loop run until a condition
// holds.
#ifndef TAMIX_TESTS_COMMON_SCRIPTEDKERNEL_H
#define TAMIX_TESTS_COMMON_SCRIPTEDKERNEL_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "common/Wait.h"
#include "tamix/tamix.h"

namespace tamixtest {

using Strings = std::vector<std::string>;

inline std::string readFile(const std::string& path)
{
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

// A scenario for the stand-in kernel in a scratch directory of its own;
// every kernel launched from now on plays it, until another scenario is made.
struct Scenario {
    std::string dir;
    explicit Scenario(const std::string& steps)
    {
        char tmpl[] = "/tmp/tamixtestXXXXXX";
        dir = mkdtemp(tmpl) ? tmpl : "/nonexistent";
        play(steps);
        setenv("TAMIX_SCRIPT", (dir + "/script").c_str(), 1);
        setenv("TAMIX_RECORD", (dir + "/rec").c_str(), 1);
    }
    // Replaces the steps, for steps that name files of the scenario.
    void play(const std::string& steps) const { std::ofstream(dir + "/script") << steps; }
    ~Scenario() { std::filesystem::remove_all(dir); }
    // What the kernel received, on all its connections.
    std::string received() const { return readFile(dir + "/rec"); }
    std::string args() const { return readFile(dir + "/rec.args"); }
    pid_t pid() const { return std::stoi(readFile(dir + "/rec.pid")); }
};

// The file a client socket is bound to.
inline std::string boundPath(int fd)
{
    sockaddr_un addr{};
    socklen_t len = sizeof addr;
    return fd >= 0 && getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0 ? addr.sun_path
                                                                                     : "";
}

// The library leaves client socket files behind; nothing connects to them,
// so they can go at once.
inline TAM_KernelImpl* withoutSocketFile(TAM_KernelImpl* k)
{
    if (k)
        unlink(boundPath(TAM_get_client_fd(k)).c_str());
    return k;
}

inline TAM_KernelImpl* launch(const char* name = nullptr)
{
    return withoutSocketFile(TAM_new_uds_kernel(TAMIX_SCRIPTED_KERNEL, name));
}

// The names of the registered kernel processes, separated by blanks.
inline std::string names()
{
    std::string out;
    char** n = TAM_get_uds_kernel_names();
    for (char** p = n; p && *p; TAM_free(*p++))
        out += (out.empty() ? "" : " ") + std::string(*p);
    TAM_free(n);
    return out;
}

// A client's announcement with the default formats.
inline std::string newClient(const std::string& name, const std::string& features)
{
    return "<newclient name =\"" + name +
           "\" frame=\"\" longfmt=\"text\" floatfmt=\"ieee\" coding=\"ident \" features=\"" +
           features + "\"/>";
}

// What the handlers of watched clients saw, as "<event>:<client index>".
inline Strings events;
inline std::vector<TAM_KernelImpl*> clients;

inline std::string who(TAM_KernelImpl* k)
{
    return std::to_string(std::find(clients.begin(), clients.end(), k) - clients.begin());
}

inline TAM_KernelImpl* watch(TAM_KernelImpl* k)
{
    clients.push_back(k);
    TAM_set_on_kernel_ready_handler(k,
                                    [](TAM_KernelImpl* k) { events.push_back("ready:" + who(k)); });
    TAM_set_on_output_handler(
        k, [](TAM_KernelImpl* k, void*, const char*, const char*, const char* text) {
            events.push_back("output:" + who(k) + ":" + text);
        });
    TAM_set_on_finished_handler(
        k, [](TAM_KernelImpl* k, void*) { events.push_back("finished:" + who(k)); });
    TAM_set_on_quit_handler(k, [](TAM_KernelImpl* k) { events.push_back("quit:" + who(k)); });
    return k;
}

// Polls the input loop until cond holds or the time is up.
inline bool pumpUntil(const std::function<bool()>& cond, int timeoutMs = 5000)
{
    return waitFor(
        [&] {
            if (cond())
                return true;
            TAM_handle_uds_input(0);
            return cond();
        },
        timeoutMs);
}

inline bool alive(pid_t pid)
{
    return pid > 0 && kill(pid, 0) == 0;
}

// Milliseconds since t0.
inline long msSince(Clock::time_point t0)
{
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count());
}

// Processor time of this process so far, in milliseconds.
inline long cpuMs()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return (u.ru_utime.tv_sec + u.ru_stime.tv_sec) * 1000L +
           (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1000L;
}

struct Cost {
    long wallMs, cpuMs;
};

// Runs call, which is expected to block until a signal comes, with a
// SIGALRM due after ms; what it cost. The tests' own alarm is set again
// afterwards.
inline Cost untilSignal(const std::function<void()>& call, long ms)
{
    struct sigaction wake {
    }, old{};
    wake.sa_handler = [](int) {}; // no SA_RESTART: the wait ends
    sigaction(SIGALRM, &wake, &old);
    itimerval due{};
    due.it_value.tv_sec = ms / 1000;
    due.it_value.tv_usec = ms % 1000 * 1000;
    const auto t0 = Clock::now();
    const long c0 = cpuMs();
    setitimer(ITIMER_REAL, &due, nullptr);
    call();
    const Cost cost{msSince(t0), cpuMs() - c0};
    alarm(0);
    sigaction(SIGALRM, &old, nullptr);
    alarm(20);
    return cost;
}

// Each case runs in its own process; the fixture also keeps them apart
// when the whole program runs at once. A loop that blocks for good ends the
// process by the alarm instead of hanging the suite.
struct UdsTest : ::testing::Test {
    void SetUp() override
    {
        events.clear();
        clients.clear();
        alarm(20);
    }
    void TearDown() override { alarm(0); }
};

} // namespace tamixtest

#endif
