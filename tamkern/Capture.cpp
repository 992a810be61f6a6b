#include "tamkern/Capture.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <iostream>
#include <mutex>
#include <unistd.h>

#include "tamkern/Paths.h"

// Sanitizer reports are written to descriptor 2 and must reach the log, not
// a client's output; in a sanitizer build descriptor 2 is therefore left as
// it is, and only descriptor 1 and the C++ streams are captured.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kCaptureFd2 = false;
#else
constexpr bool kCaptureFd2 = true;
#endif

namespace tamkern {

namespace {
// Where the log goes: a file, or the original standard error, also after
// descriptor 2 has been redirected.
int gLogFd = 2;
bool gLogIsFile = false;
std::mutex gLogMutex;

// The rate limit: lines that may be written now, and those left out.
double gLogTokens = LogBurst;
std::chrono::steady_clock::time_point gLogRefilled = std::chrono::steady_clock::now();
long gLogDropped = 0;

// "tamkern: ", or for a file, which several kernels may share, the time and
// the process as well.
int linePrefix(char* line, std::size_t size)
{
    if (!gLogIsFile)
        return std::snprintf(line, size, "tamkern: ");
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    ::localtime_r(&now, &tm);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm);
    return std::snprintf(line, size, "%s tamkern[%ld]: ", stamp, static_cast<long>(::getpid()));
}
} // namespace

bool logToFile(const std::string& path)
{
    std::size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0)
        makeDirs(path.substr(0, slash));
    int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        std::fprintf(stderr, "tamkern: cannot open the log file %s: %s\n", path.c_str(),
                     std::strerror(errno));
        return false;
    }
    std::lock_guard<std::mutex> lock(gLogMutex);
    if (gLogIsFile)
        ::close(gLogFd);
    gLogFd = fd;
    gLogIsFile = true;
    return true;
}

namespace {

// Takes a line's token; false if the line is to be left out.
bool logAllowedLocked()
{
    auto now = std::chrono::steady_clock::now();
    double seconds = std::chrono::duration<double>(now - gLogRefilled).count();
    gLogRefilled = now;
    gLogTokens = std::min<double>(LogBurst, gLogTokens + seconds * LogPerSecond);
    if (gLogTokens < 1) {
        ++gLogDropped;
        return false;
    }
    gLogTokens -= 1;
    return true;
}

void writeLineLocked(const char* line, std::size_t len)
{
    std::size_t done = 0;
    while (done < len) {
        ssize_t w = ::write(gLogFd, line + done, len - done);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            break;
        done += static_cast<std::size_t>(w);
    }
}

} // namespace

void klog(const char* fmt, ...)
{
    char line[1024];
    std::lock_guard<std::mutex> lock(gLogMutex);
    if (!logAllowedLocked())
        return;
    int n = linePrefix(line, sizeof line);
    if (gLogDropped > 0) {
        int k = std::snprintf(line + n, sizeof line - n, "(%ld log lines left out)\n", gLogDropped);
        writeLineLocked(line, static_cast<std::size_t>(n + k));
        gLogDropped = 0;
    }
    va_list ap;
    va_start(ap, fmt);
    int m = std::vsnprintf(line + n, sizeof line - n - 1, fmt, ap);
    va_end(ap);
    if (m < 0)
        m = 0;
    std::size_t len = std::min<std::size_t>(n + m, sizeof line - 2);
    line[len++] = '\n';
    writeLineLocked(line, len);
}

OutputCapture::~OutputCapture()
{
    stop();
}

bool OutputCapture::start()
{
    if (pipeRead_ >= 0)
        return true;
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        klog("cannot create the output pipe: %s", std::strerror(errno));
        return false;
    }
    int out = ::fcntl(1, F_DUPFD_CLOEXEC, 3);
    int err = ::fcntl(2, F_DUPFD_CLOEXEC, 3);
    if (out < 0 || err < 0) {
        klog("cannot keep the standard descriptors: %s", std::strerror(errno));
        for (int fd : {fds[0], fds[1], out, err})
            if (fd >= 0)
                ::close(fd);
        return false;
    }
    int size = ::fcntl(fds[1], F_SETPIPE_SZ, PipeBytes);
    if (size <= 0)
        size = ::fcntl(fds[1], F_GETPIPE_SZ);
    pipeSize_ = size > 0 ? static_cast<std::size_t>(size) : 0;
    std::fflush(stdout);
    std::fflush(stderr);
    {
        std::lock_guard<std::mutex> lock(gLogMutex);
        if (!gLogIsFile)
            gLogFd = err;
    }
    ::dup2(fds[1], 1);
    if (kCaptureFd2)
        ::dup2(fds[1], 2);
    else if (gLogIsFile)
        ::dup2(gLogFd, 2); // the sanitizers' reports join the log
    std::cout.flush();
    std::cerr.flush();
    oldCout_ = std::cout.rdbuf(&streamBuf_);
    oldCerr_ = std::cerr.rdbuf(&streamBuf_);
    pipeRead_ = fds[0];
    pipeWrite_ = fds[1];
    savedOut_ = out;
    savedErr_ = err;
    return true;
}

void OutputCapture::stop()
{
    if (pipeRead_ < 0)
        return;
    std::cout.rdbuf(oldCout_);
    std::cerr.rdbuf(oldCerr_);
    std::fflush(stdout);
    std::fflush(stderr);
    drain();
    ::dup2(savedOut_, 1);
    ::dup2(savedErr_, 2);
    {
        std::lock_guard<std::mutex> lock(gLogMutex);
        if (!gLogIsFile)
            gLogFd = 2;
    }
    for (int fd : {pipeRead_, pipeWrite_, savedOut_, savedErr_})
        ::close(fd);
    pipeRead_ = pipeWrite_ = savedOut_ = savedErr_ = -1;
    std::string rest;
    rest.swap(buffer_);
    if (!rest.empty())
        klog("output after the last command: %.200s", rest.c_str());
}

// Reads the pipe empty. A pipe found full may have refused writes.
void OutputCapture::drain()
{
    char buf[4096];
    std::size_t got = 0;
    for (;;) {
        ssize_t n = ::read(pipeRead_, buf, sizeof buf);
        if (n > 0) {
            append(buf, static_cast<std::size_t>(n));
            got += static_cast<std::size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            break;
        }
    }
    if (pipeSize_ > 0 && got >= pipeSize_)
        truncated_ = true;
    std::clearerr(stdout);
    std::clearerr(stderr);
}

void OutputCapture::append(const char* data, std::size_t len)
{
    if (buffer_.size() >= Limit) {
        truncated_ = true;
        return;
    }
    std::size_t room = Limit - buffer_.size();
    if (len > room) {
        len = room;
        truncated_ = true;
    }
    buffer_.append(data, len);
}

OutputCapture::StreamBuf::int_type OutputCapture::StreamBuf::overflow(int_type c)
{
    if (c != traits_type::eof()) {
        char ch = static_cast<char>(c);
        owner_.append(&ch, 1);
    }
    return traits_type::not_eof(c);
}

std::streamsize OutputCapture::StreamBuf::xsputn(const char* s, std::streamsize n)
{
    owner_.append(s, static_cast<std::size_t>(n));
    return n;
}

std::string OutputCapture::take()
{
    std::string out;
    if (pipeRead_ < 0)
        return out;
    drain();
    out.swap(buffer_);
    if (truncated_)
        out += "\n[further output dropped]\n";
    truncated_ = false;
    return out;
}

} // namespace tamkern
