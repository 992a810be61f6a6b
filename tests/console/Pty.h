// Test support: a program driven through a pseudo-terminal as a person
// would, typing keys and waiting for what appears on the screen.
#ifndef TAMIX_TESTS_CONSOLE_PTY_H
#define TAMIX_TESTS_CONSOLE_PTY_H

#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/Wait.h"

namespace tamixtest {

// Appends to out the text of raw from `from` on without its control
// sequences (colours, cursor movement, mode switches), carriage returns and
// bells; returns where it stopped: before a sequence not yet complete.
inline size_t appendScreenText(const std::string& raw, size_t from, std::string& out)
{
    size_t i = from;
    while (i < raw.size()) {
        const char c = raw[i];
        if (c != '\033') {
            if (c != '\r' && c != '\a')
                out += c;
            ++i;
            continue;
        }
        size_t end = i + 1;
        if (end >= raw.size())
            return i;
        if (raw[end] == '[') { // CSI: parameters, then a final byte
            ++end;
            while (end < raw.size() && !(raw[end] >= 0x40 && raw[end] <= 0x7e))
                ++end;
        } else if (raw[end] == ']') { // OSC, up to BEL or ST
            while (end < raw.size() && raw[end] != '\a' && raw.compare(end, 2, "\033\\") != 0)
                ++end;
        }
        if (end >= raw.size())
            return i;
        i = end + 1;
    }
    return i;
}

inline std::string screenText(const std::string& raw)
{
    std::string out;
    appendScreenText(raw, 0, out);
    return out;
}

class Pty {
public:
    // Starts argv in a terminal of rows x cols, with env added to the
    // environment.
    Pty(const std::vector<std::string>& argv, const std::vector<std::string>& env, int rows = 24,
        int cols = 80)
    {
        winsize ws{};
        ws.ws_row = static_cast<unsigned short>(rows);
        ws.ws_col = static_cast<unsigned short>(cols);
        pid_ = forkpty(&fd_, nullptr, nullptr, &ws);
        if (pid_ == 0) {
            for (const std::string& e : env)
                putenv(const_cast<char*>(e.c_str()));
            std::vector<char*> args;
            for (const std::string& a : argv)
                args.push_back(const_cast<char*>(a.c_str()));
            args.push_back(nullptr);
            execv(args[0], args.data());
            _exit(127);
        }
    }
    ~Pty()
    {
        if (pid_ > 0 && status_ < 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (fd_ >= 0)
            close(fd_);
    }
    Pty(const Pty&) = delete;
    Pty& operator=(const Pty&) = delete;

    pid_t pid() const { return pid_; }

    void type(const std::string& keys)
    {
        for (size_t done = 0; done < keys.size();) {
            ssize_t n = write(fd_, keys.data() + done, keys.size() - done);
            if (n <= 0)
                return;
            done += static_cast<size_t>(n);
        }
    }

    // Waits until text appears after what earlier calls found; true if it
    // did within ms, and what follows is looked at next.
    bool expect(const std::string& text, int ms = 20000)
    {
        const auto end = Clock::now() + std::chrono::milliseconds(ms);
        for (;;) {
            const size_t at = screen_.find(text, mark_);
            if (at != std::string::npos) {
                mark_ = at + text.size();
                return true;
            }
            // Nothing more within the time, or the program has ended.
            if (!pump(msLeft(end)))
                return false;
        }
    }

    // What the terminal showed after what expect found last.
    std::string rest() const { return screen_.substr(mark_); }
    // Everything the terminal showed.
    const std::string& screen() const { return screen_; }
    // Everything, control sequences included.
    const std::string& raw() const { return raw_; }

    // The exit status once the program has ended within ms, else -1.
    int exitStatus(int ms = 20000)
    {
        waitFor(
            [this] {
                pump(0);
                int st;
                if (waitpid(pid_, &st, WNOHANG) == pid_)
                    status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
                return status_ >= 0;
            },
            ms);
        return status_;
    }

private:
    // Reads what comes within ms; false when nothing came.
    bool pump(int ms)
    {
        pollfd p = {fd_, POLLIN, 0};
        if (poll(&p, 1, ms) <= 0)
            return false;
        char buf[4096];
        ssize_t n = read(fd_, buf, sizeof buf);
        if (n <= 0)
            return false; // the program has ended
        raw_.append(buf, static_cast<size_t>(n));
        cleaned_ = appendScreenText(raw_, cleaned_, screen_);
        return true;
    }

    pid_t pid_ = -1;
    int fd_ = -1;
    int status_ = -1;
    std::string raw_;
    std::string screen_; // raw_ up to cleaned_ as screenText
    size_t cleaned_ = 0;
    size_t mark_ = 0; // in screen_
};

} // namespace tamixtest

#endif
