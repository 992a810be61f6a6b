// A stand-in kernel for the transport and console tests. The library launches
// it as its kernel executable ("name -X socket-path"); it plays the scenario
// in the file named by TAMIX_SCRIPT and records every byte it receives.
//
// Environment:
//   TAMIX_SCRIPT   scenario file (required)
//   TAMIX_RECORD   record file prefix: connection 0 appends what it receives
//                  to <prefix>, connection n > 0 to <prefix>.<n>; the
//                  arguments go to <prefix>.args, one a line, and the
//                  process id to <prefix>.pid (optional)
//   TAMIX_KERNEL_TIMEOUT_MS  limit for every wait (default 10000); when it
//                  runs out the kernel exits with status 99, so a test that
//                  goes wrong never hangs on this process
//
// Scenario steps, one a line; blank lines and lines starting with '#' are
// skipped. TEXT runs to the end of the line and understands the escapes \n,
// \r, \t, \\ and \xHH.
//   listen            create the socket at the given path, listen, SIGUSR1 to the parent
//   accept            accept one more connection and make it the current one
//   conn N            make connection N (in order of acceptance) the current one
//   wait_for TEXT     read until TEXT has arrived on the current connection
//                     after the end of the previous match
//   wait_bytes N      read until N bytes in all have arrived on it
//   drain             read until the peer closes the current connection
//   send TEXT         send TEXT on the current connection
//   sendrep N TEXT    send TEXT N times, in one piece
//   sleep_ms N        pause
//   close             close the current connection
//   exit N            exit with status N
//   kill              die by SIGKILL
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <poll.h>
#include <stddef.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

struct Conn {
    int fd = -1;
    std::string received;
    size_t matched = 0;  // end of the last wait_for match
    std::string record;  // file that gets every received byte
};

std::vector<Conn> conns;
int current = -1;
int listenFd = -1;
std::string recordPrefix;
long timeoutMs = 10000;
std::chrono::steady_clock::time_point deadline;

[[noreturn]] void die(const char* what) {
    fprintf(stderr, "scripted_kernel: %s\n", what);
    _exit(98);
}

void armDeadline() {
    deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
}

int msLeft() {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                    deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0) {
        fprintf(stderr, "scripted_kernel: timed out\n");
        _exit(99);
    }
    return static_cast<int>(left);
}

std::string unescape(const std::string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '\\' || i + 1 == s.size()) {
            out += s[i];
            continue;
        }
        char c = s[++i];
        switch (c) {
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case '\\': out += '\\'; break;
        case 'x':
            if (i + 2 < s.size()) {
                out += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16));
                i += 2;
            }
            break;
        default: out += '\\'; out += c; break;
        }
    }
    return out;
}

Conn& cur() {
    if (current < 0 || current >= static_cast<int>(conns.size()))
        die("no current connection");
    return conns[current];
}

void appendRecord(const Conn& c, const char* data, size_t len) {
    if (c.record.empty())
        return;
    FILE* f = fopen(c.record.c_str(), "ab");
    if (!f)
        die("cannot open record file");
    fwrite(data, 1, len, f);
    fclose(f);
}

// One read with the remaining time as limit; false at end of stream.
bool readSome(Conn& c) {
    pollfd p{c.fd, POLLIN, 0};
    int r = poll(&p, 1, msLeft());
    if (r < 0 && errno == EINTR)
        return true;
    if (r <= 0)
        return true;  // msLeft() ends the process on the next turn
    char buf[4096];
    ssize_t n = read(c.fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR)
        return true;
    if (n <= 0)
        return false;
    c.received.append(buf, static_cast<size_t>(n));
    appendRecord(c, buf, static_cast<size_t>(n));
    return true;
}

void sendAll(const std::string& data) {
    Conn& c = cur();
    size_t off = 0;
    while (off < data.size()) {
        ssize_t n = send(c.fd, data.data() + off, data.size() - off, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            // The client may be gone; the test will see what it missed.
            return;
        }
        off += static_cast<size_t>(n);
    }
}

void doListen(const char* path) {
    listenFd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (listenFd < 0)
        die("socket");
    sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof addr.sun_path)
        die("socket path too long");
    strcpy(addr.sun_path, path);
    unlink(path);
    socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(path) + 1);
    if (bind(listenFd, reinterpret_cast<sockaddr*>(&addr), len) < 0)
        die("bind");
    if (listen(listenFd, 8) < 0)
        die("listen");
    kill(getppid(), SIGUSR1);
}

void doAccept() {
    if (listenFd < 0)
        die("accept before listen");
    pollfd p{listenFd, POLLIN, 0};
    for (;;) {
        int r = poll(&p, 1, msLeft());
        if (r > 0)
            break;
    }
    int fd = accept(listenFd, nullptr, nullptr);
    if (fd < 0)
        die("accept");
    Conn c;
    c.fd = fd;
    if (!recordPrefix.empty()) {
        c.record = conns.empty() ? recordPrefix
                                 : recordPrefix + "." + std::to_string(conns.size());
    }
    conns.push_back(c);
    current = static_cast<int>(conns.size()) - 1;
}

void writeArgs(int argc, char** argv) {
    if (recordPrefix.empty())
        return;
    std::ofstream out(recordPrefix + ".args", std::ios::binary);
    for (int i = 0; i < argc; ++i)
        out << argv[i] << '\n';
    std::ofstream(recordPrefix + ".pid") << getpid() << '\n';
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3 || strcmp(argv[1], "-X") != 0)
        die("usage: kernel -X socket-path");
    const char* script = getenv("TAMIX_SCRIPT");
    if (!script)
        die("TAMIX_SCRIPT not set");
    if (const char* rec = getenv("TAMIX_RECORD"))
        recordPrefix = rec;
    if (const char* t = getenv("TAMIX_KERNEL_TIMEOUT_MS"))
        timeoutMs = atol(t);
    writeArgs(argc, argv);

    std::ifstream in(script);
    if (!in)
        die("cannot read the scenario");
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#')
            continue;
        size_t sp = line.find(' ');
        std::string op = line.substr(0, sp);
        std::string arg = sp == std::string::npos ? std::string() : line.substr(sp + 1);
        armDeadline();
        if (op == "listen") {
            doListen(argv[2]);
        } else if (op == "accept") {
            doAccept();
        } else if (op == "conn") {
            current = atoi(arg.c_str());
            cur();
        } else if (op == "wait_for") {
            std::string text = unescape(arg);
            Conn& c = cur();
            size_t at;
            while ((at = c.received.find(text, c.matched)) == std::string::npos) {
                if (!readSome(c))
                    die(("connection closed while waiting for " + arg).c_str());
            }
            c.matched = at + text.size();
        } else if (op == "wait_bytes") {
            size_t n = static_cast<size_t>(atol(arg.c_str()));
            Conn& c = cur();
            while (c.received.size() < n) {
                if (!readSome(c))
                    die("connection closed while waiting for bytes");
            }
        } else if (op == "drain") {
            Conn& c = cur();
            while (readSome(c)) {
            }
        } else if (op == "send") {
            sendAll(unescape(arg));
        } else if (op == "sendrep") {
            size_t sp2 = arg.find(' ');
            long n = atol(arg.substr(0, sp2).c_str());
            std::string piece = sp2 == std::string::npos ? std::string() : unescape(arg.substr(sp2 + 1));
            std::string all;
            for (long i = 0; i < n; ++i)
                all += piece;
            sendAll(all);
        } else if (op == "sleep_ms") {
            usleep(static_cast<useconds_t>(atol(arg.c_str())) * 1000);
        } else if (op == "close") {
            Conn& c = cur();
            if (c.fd >= 0) {
                close(c.fd);
                c.fd = -1;
            }
        } else if (op == "exit") {
            _exit(atoi(arg.c_str()));
        } else if (op == "kill") {
            raise(SIGKILL);
        } else {
            die(("unknown step: " + op).c_str());
        }
    }
    return 0;
}
