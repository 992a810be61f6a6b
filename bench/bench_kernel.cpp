// The trivial kernel of the transport benchmarks: it does no computing, so
// that a round trip measures the client side and the sockets alone.
//
//   tamix_bench_kernel -X PATH        launched by the library: listens at
//                                     PATH, sends SIGUSR1 to its parent and
//                                     ends when its last connection closes
//   tamix_bench_kernel --listen PATH  standalone, until SIGTERM
//
// Every connection that announces itself gets the next client id and a
// ready message at once. A command "big N" is answered with a result of N
// characters (bench_wire.h), any other command with its own text as result;
// each answer goes out with its finished message in one piece.
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "bench_wire.h"

namespace {

struct Conn {
    int fd;
    long id = -1;
    std::string in;
};

bool sendAll(int fd, const std::string& s)
{
    for (size_t off = 0; off < s.size();) {
        ssize_t n = send(fd, s.data() + off, s.size() - off, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        off += static_cast<size_t>(n);
    }
    return true;
}

// The value of attribute name in the start tag at the front of element.
std::string attribute(const std::string& element, const char* name)
{
    const std::string key = std::string(" ") + name + "=\"";
    size_t at = element.find(key);
    if (at == std::string::npos)
        return "";
    at += key.size();
    return element.substr(at, element.find('"', at) - at);
}

// Results by size; the benchmarks' sizes are made before the kernel is
// ready, so that no timed answer waits for its text to be made.
std::map<long, std::string> gBodies;

std::string answer(const Conn& c, const std::string& cmd)
{
    const std::string cid = attribute(cmd, "cid");
    const size_t from = cmd.find('>', cmd.find("<text")) + 1;
    const std::string text = cmd.substr(from, cmd.find("</text>") - from);
    if (text.rfind("big ", 0) == 0) {
        const long n = std::atol(text.c_str() + 4);
        auto it = gBodies.find(n);
        if (it == gBodies.end())
            it = gBodies.emplace(n, benchwire::resultBody(n)).first;
        return benchwire::resultMessage(c.id, cid, it->second);
    }
    return benchwire::resultMessage(c.id, cid, text);
}

// Handles the complete requests at the front of c.in; false when the
// connection is to end.
bool serve(Conn& c, long& nextId)
{
    for (;;) {
        const size_t start = c.in.find('<');
        if (start == std::string::npos)
            return true;
        const size_t nameEnd = c.in.find_first_of(" />", start + 1);
        if (nameEnd == std::string::npos)
            return true;
        const std::string name = c.in.substr(start + 1, nameEnd - start - 1);
        // Requests with content end with their end tag, the others with "/>"
        // (markup in values is escaped, so neither occurs inside a value).
        const bool hasContent = name == "cmd" || name == "init" || name == "input";
        const std::string close = hasContent ? "</" + name + ">" : "/>";
        const size_t end = c.in.find(close, start);
        if (end == std::string::npos)
            return true;
        const std::string element = c.in.substr(start, end + close.size() - start);
        c.in.erase(0, end + close.size());
        if (name == "newclient") {
            c.id = nextId++;
            if (!sendAll(c.fd, "<ready cl=\"" + std::to_string(c.id) + "\"/>"))
                return false;
        } else if (name == "cmd") {
            if (!sendAll(c.fd, answer(c, element)))
                return false;
        } else if (name == "quit") {
            return false;
        }
    }
}

int listenAt(const char* path)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path, sizeof addr.sun_path - 1);
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(fd, 16) != 0)
        return -1;
    return fd;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        return 2;
    const bool launched = std::strcmp(argv[1], "-X") == 0;
    for (long n : benchwire::kResultSizes)
        gBodies.emplace(n, benchwire::resultBody(n));
    const int listener = listenAt(argv[2]);
    if (listener < 0)
        return 1;
    if (launched)
        kill(getppid(), SIGUSR1);

    std::vector<Conn> conns;
    long nextId = 1;
    bool everConnected = false;
    while (!launched || !everConnected || !conns.empty()) {
        std::vector<pollfd> fds{{listener, POLLIN, 0}};
        for (const Conn& c : conns)
            fds.push_back({c.fd, POLLIN, 0});
        if (poll(fds.data(), fds.size(), -1) < 0)
            continue;
        for (size_t i = conns.size(); i-- > 0;) {
            if (!fds[i + 1].revents)
                continue;
            char buf[65536];
            ssize_t n = read(conns[i].fd, buf, sizeof buf);
            if (n > 0)
                conns[i].in.append(buf, static_cast<size_t>(n));
            if (n <= 0 || !serve(conns[i], nextId)) {
                close(conns[i].fd);
                conns.erase(conns.begin() + static_cast<long>(i));
            }
        }
        if (fds[0].revents) {
            int fd = accept(listener, nullptr, nullptr);
            if (fd >= 0) {
                conns.push_back(Conn{fd, -1, {}});
                everConnected = true;
            }
        }
    }
    unlink(argv[2]);
    return 0;
}
