// A stand-in kernel for the transport and console tests, launched as
// "name -X socket-path". It plays the steps in the file $TAMIX_SCRIPT, one a
// line, appends every byte it receives to $TAMIX_RECORD, and writes its
// arguments to $TAMIX_RECORD.args and its process id to $TAMIX_RECORD.pid.
// Steps (in TEXT, \n stands for a newline):
//   listen | accept | wait_for TEXT | drain | send TEXT | sleep_ms N | close
//   exit N | kill | poke FD | wait_zombie PIDFILE | repeat N TEXT | ignore_term
//   ready
// All but listen work on the latest accepted connection; wait_for reads until
// TEXT has arrived after the end of the previous match. poke writes one byte
// to an inherited descriptor; wait_zombie waits until the process whose id
// the file holds has ended (and is not yet reaped). repeat sends TEXT N
// times, each "%n" in it replaced by the repetition's number, and stops early
// when the peer has gone; ignore_term ignores SIGTERM from then on; ready
// signals readiness without listening anywhere.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

int main(int argc, char** argv)
{
    const char* record = getenv("TAMIX_RECORD");
    std::ifstream script(getenv("TAMIX_SCRIPT") ? getenv("TAMIX_SCRIPT") : "");
    if (argc != 3 || !record || !script)
        return 98;
    alarm(30); // a test gone wrong does not leave this process behind
    std::ofstream(std::string(record) + ".args") << argv[0] << ' ' << argv[1] << ' ' << argv[2];
    std::ofstream(std::string(record) + ".pid") << getpid();

    int rec = open(record, O_WRONLY | O_CREAT | O_APPEND, 0600), listener = -1, fd = -1;
    std::string got;
    size_t matched = 0;
    // One more read from the connection; false at its end.
    auto readMore = [&] {
        char buf[4096];
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0)
            return false;
        got.append(buf, static_cast<size_t>(n));
        return write(rec, buf, static_cast<size_t>(n)) == n;
    };
    for (std::string line; std::getline(script, line);) {
        size_t sp = line.find(' ');
        std::string op = line.substr(0, sp),
                    arg = sp == std::string::npos ? "" : line.substr(sp + 1);
        for (size_t at = 0; (at = arg.find("\\n", at)) != std::string::npos; ++at)
            arg.replace(at, 2, "\n");
        if (op == "listen") {
            sockaddr_un addr{};
            addr.sun_family = AF_UNIX;
            strncpy(addr.sun_path, argv[2], sizeof addr.sun_path - 1);
            listener = socket(AF_UNIX, SOCK_STREAM, 0);
            if (bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) ||
                listen(listener, 8))
                return 97;
            kill(getppid(), SIGUSR1);
        } else if (op == "accept") {
            fd = accept(listener, nullptr, nullptr);
            got.clear();
            matched = 0;
        } else if (op == "wait_for") {
            size_t at;
            while ((at = got.find(arg, matched)) == std::string::npos) {
                if (!readMore())
                    return 96;
            }
            matched = at + arg.size();
        } else if (op == "drain") {
            while (readMore())
                continue;
        } else if (op == "send") {
            send(fd, arg.data(), arg.size(), MSG_NOSIGNAL);
        } else if (op == "repeat") {
            sp = arg.find(' ');
            const long n = std::stol(arg.substr(0, sp));
            const std::string text = arg.substr(sp + 1);
            std::string block;
            for (long i = 0; i < n; ++i) {
                std::string one = text;
                for (size_t at = 0; (at = one.find("%n", at)) != std::string::npos;)
                    one.replace(at, 2, std::to_string(i));
                block += one;
                if ((block.size() >= 65536 || i + 1 == n) &&
                    send(fd, block.data(), block.size(), MSG_NOSIGNAL) < 0)
                    break;
                if (block.size() >= 65536)
                    block.clear();
            }
        } else if (op == "ready") {
            kill(getppid(), SIGUSR1);
        } else if (op == "ignore_term") {
            signal(SIGTERM, SIG_IGN);
        } else if (op == "sleep_ms") {
            usleep(static_cast<useconds_t>(std::stoul(arg)) * 1000);
        } else if (op == "close") {
            close(fd);
        } else if (op == "exit") {
            _exit(std::stoi(arg));
        } else if (op == "kill") {
            raise(SIGKILL);
        } else if (op == "poke") {
            if (write(std::stoi(arg), "!", 1) != 1)
                return 94;
        } else if (op == "wait_zombie") {
            std::string pid;
            std::ifstream(arg) >> pid;
            for (std::string stat; stat.find(") Z") == std::string::npos; usleep(1000)) {
                std::ifstream in("/proc/" + pid + "/stat");
                if (!std::getline(in, stat))
                    return 93;
            }
        } else {
            return 95;
        }
    }
    return 0;
}
