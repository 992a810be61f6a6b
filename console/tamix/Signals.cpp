#include "Signals.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace tamix {

namespace {

int gWriteEnd = -1;

void onSignal(int signo)
{
    const int saved = errno;
    const unsigned char byte = static_cast<unsigned char>(signo);
    // A full pipe already holds enough to wake the loop.
    if (write(gWriteEnd, &byte, 1) < 0) {
    }
    errno = saved;
}

struct sigaction catching()
{
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    // Reads and writes go on after the handler; poll returns to the loop.
    sa.sa_flags = SA_RESTART;
    return sa;
}

} // namespace

SignalPipe::SignalPipe(std::initializer_list<int> signals)
{
    if (pipe2(pipe_, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    gWriteEnd = pipe_[1];
    const struct sigaction sa = catching();
    for (int s : signals) {
        struct sigaction old {};
        if (sigaction(s, &sa, &old) == 0)
            previous_.emplace_back(s, old);
    }
}

void SignalPipe::catchAgain(int signo)
{
    const struct sigaction sa = catching();
    sigaction(signo, &sa, nullptr);
}

SignalPipe::~SignalPipe()
{
    for (const auto& [signo, old] : previous_)
        sigaction(signo, &old, nullptr);
    gWriteEnd = -1;
    for (int fd : pipe_)
        if (fd >= 0)
            close(fd);
}

std::vector<int> SignalPipe::take()
{
    std::vector<int> got;
    unsigned char buf[64];
    ssize_t n;
    while ((n = read(pipe_[0], buf, sizeof buf)) > 0)
        got.insert(got.end(), buf, buf + n);
    return got;
}

} // namespace tamix
