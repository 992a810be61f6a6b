// tamix_test_relay LISTEN TARGET: forwards connections, one at a time, from
// the Unix socket LISTEN to the Unix socket TARGET through a TCP connection
// over the loopback interface, as an SSH tunnel would, and writes each
// direction in random pieces of 1 to 7 bytes with short pauses, so that no
// reader gets whole messages by luck.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>

namespace {

int unixSocket(const char* path, bool listening)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path, sizeof addr.sun_path - 1);
    int s = socket(AF_UNIX, SOCK_STREAM, 0);
    auto* a = reinterpret_cast<sockaddr*>(&addr);
    if (listening ? bind(s, a, sizeof addr) != 0 || listen(s, 4) != 0
                  : connect(s, a, sizeof addr) != 0)
        return -1;
    return s;
}

// A connected pair of TCP sockets over the loopback interface.
bool tcpPair(int& near, int& far)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    int l = socket(AF_INET, SOCK_STREAM, 0);
    auto* a = reinterpret_cast<sockaddr*>(&addr);
    if (bind(l, a, len) != 0 || listen(l, 1) != 0 || getsockname(l, a, &len) != 0)
        return false;
    near = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(near, a, len) != 0)
        return false;
    far = accept(l, nullptr, nullptr);
    close(l);
    int one = 1;
    setsockopt(near, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    setsockopt(far, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return far >= 0;
}

// One direction of one hop: bytes read from `from`, waiting for `to`.
struct Hop {
    int from, to;
    std::string pending;
    bool ended = false;
};

// Forwards until either end has closed and everything read has gone on.
void relay(Hop (&hops)[4], std::mt19937& rng)
{
    std::uniform_int_distribution<size_t> piece(1, 7);
    std::uniform_int_distribution<int> pause(0, 200);
    for (;;) {
        pollfd fds[8];
        int n = 0;
        bool flushed = true;
        for (Hop& h : hops) {
            fds[n++] = {h.ended ? -1 : h.from, POLLIN, 0};
            fds[n++] = {h.pending.empty() ? -1 : h.to, POLLOUT, 0};
            flushed &= h.pending.empty();
        }
        // Once the console or the kernel has closed, what is on its way
        // still goes on, then the connection ends.
        if ((hops[0].ended || hops[2].ended) && flushed)
            return;
        if (poll(fds, n, 1000) < 0)
            return;
        for (int i = 0; i < 4; ++i) {
            Hop& h = hops[i];
            if (fds[2 * i].revents) {
                char buf[4096];
                ssize_t got = read(h.from, buf, sizeof buf);
                if (got <= 0)
                    h.ended = true;
                else
                    h.pending.append(buf, static_cast<size_t>(got));
            }
            if (fds[2 * i + 1].revents & POLLOUT) {
                size_t len = std::min(piece(rng), h.pending.size());
                ssize_t put = write(h.to, h.pending.data(), len);
                if (put <= 0)
                    return;
                h.pending.erase(0, static_cast<size_t>(put));
                usleep(static_cast<useconds_t>(pause(rng)));
            }
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        return 2;
    alarm(300); // a test gone wrong does not leave this process behind
    signal(SIGPIPE, SIG_IGN);
    unlink(argv[1]);
    int listener = unixSocket(argv[1], true);
    if (listener < 0)
        return 1;
    std::mt19937 rng(std::random_device{}());
    for (;;) {
        int console = accept(listener, nullptr, nullptr);
        int near = -1, far = -1;
        int kernel = unixSocket(argv[2], false);
        if (console < 0 || kernel < 0 || !tcpPair(near, far))
            return 1;
        // console -> near ~TCP~ far -> kernel, and back.
        Hop hops[4] = {{console, near, "", false},
                       {far, kernel, "", false},
                       {kernel, far, "", false},
                       {near, console, "", false}};
        relay(hops, rng);
        for (int fd : {console, near, far, kernel})
            close(fd);
    }
}
