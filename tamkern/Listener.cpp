#include "tamkern/Listener.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "tamkern/Capture.h"

namespace tamkern {

namespace {

int openSpare()
{
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

socklen_t addressLength(const sockaddr_un& addr)
{
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(addr.sun_path) + 1);
}

// A socket file left behind by a kernel that died can go; a live kernel or
// any other file stays. true if the path is free now.
bool clearStale(const sockaddr_un& addr)
{
    struct stat st;
    if (::lstat(addr.sun_path, &st) != 0)
        return true;
    int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool live = probe >= 0 && ::connect(probe, reinterpret_cast<const sockaddr*>(&addr),
                                        addressLength(addr)) == 0;
    if (probe >= 0)
        ::close(probe);
    if (!S_ISSOCK(st.st_mode) || live) {
        klog("%s exists and is %s", addr.sun_path,
             live ? "in use by a running kernel" : "not a socket");
        return false;
    }
    ::unlink(addr.sun_path);
    return true;
}

// Binds fd owner-only from the start: there is no moment in which another
// user could connect.
bool bindOwnerOnly(int fd, const sockaddr_un& addr)
{
    mode_t old = ::umask(077);
    int rc = ::bind(fd, reinterpret_cast<const sockaddr*>(&addr), addressLength(addr));
    ::umask(old);
    if (rc != 0) {
        klog("bind %s: %s", addr.sun_path, std::strerror(errno));
        return false;
    }
    ::chmod(addr.sun_path, 0600);
    return true;
}

// The socket's permissions keep other users out already; the credentials are
// checked as well, in case the path's directory or mode is changed.
bool fromOwner(int fd)
{
    ucred cred{};
    socklen_t len = sizeof cred;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
        klog("cannot read the peer's credentials: %s", std::strerror(errno));
        return false;
    }
    if (cred.uid != ::geteuid()) {
        klog("refused a connection from uid %u (pid %d)", static_cast<unsigned>(cred.uid),
             static_cast<int>(cred.pid));
        return false;
    }
    return true;
}

} // namespace

Listener::Listener(std::string path) : path_(std::move(path))
{
}

Listener::~Listener()
{
    for (int fd : {fd_, spareFd_, watchFd_})
        if (fd >= 0)
            ::close(fd);
}

bool Listener::open()
{
    closed_ = false;
    if (!bindAndListen())
        return false;
    watchDirectory();
    return true;
}

// The socket is bound under a name of its own beside the path and renamed
// into place once it listens: a front end that finds the file can connect
// at once. (A path too long for that is bound directly.)
bool Listener::bindAndListen()
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path_.empty() || path_.size() >= sizeof addr.sun_path) {
        klog("socket path is empty or too long: %s", path_.c_str());
        return false;
    }
    std::memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);
    if (!clearStale(addr))
        return false;
    const std::string staging = path_ + "." + std::to_string(::getpid());
    sockaddr_un bound = addr;
    if (staging.size() < sizeof bound.sun_path) {
        std::memcpy(bound.sun_path, staging.c_str(), staging.size() + 1);
        ::unlink(bound.sun_path); // left by a kernel of the same pid
    }
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        klog("socket: %s", std::strerror(errno));
        return false;
    }
    if (!bindOwnerOnly(fd, bound)) {
        ::close(fd);
        return false;
    }
    const bool staged = std::strcmp(bound.sun_path, addr.sun_path) != 0;
    if (::listen(fd, 16) != 0 || (staged && ::rename(bound.sun_path, addr.sun_path) != 0)) {
        klog("listen at %s: %s", path_.c_str(), std::strerror(errno));
        ::close(fd);
        ::unlink(bound.sun_path);
        return false;
    }
    int fl = ::fcntl(fd, F_GETFL);
    if (fl >= 0)
        ::fcntl(fd, F_SETFL, fl | O_NONBLOCK);
    struct stat st;
    if (::lstat(path_.c_str(), &st) == 0) {
        dev_ = st.st_dev;
        ino_ = st.st_ino;
    }
    fd_ = fd;
    if (spareFd_ < 0)
        spareFd_ = openSpare();
    return true;
}

// Without inotify the file is still checked on every wake-up of the loop.
void Listener::watchDirectory()
{
    if (watchFd_ >= 0)
        return;
    std::size_t slash = path_.rfind('/');
    std::string dir = slash == std::string::npos ? "." : path_.substr(0, slash ? slash : 1);
    int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0)
        return;
    // Only removals matter: of this socket's file, or of another file in its
    // place after listening there failed.
    if (::inotify_add_watch(fd, dir.c_str(), IN_DELETE | IN_MOVED_FROM) < 0) {
        ::close(fd);
        return;
    }
    watchFd_ = fd;
}

// true if the directory changed since the last call.
bool Listener::drainWatch()
{
    bool changed = false;
    alignas(inotify_event) char buf[4096];
    while (watchFd_ >= 0 && ::read(watchFd_, buf, sizeof buf) > 0)
        changed = true;
    return changed;
}

bool Listener::ownsPath() const
{
    struct stat st;
    return ::lstat(path_.c_str(), &st) == 0 && S_ISSOCK(st.st_mode) && st.st_dev == dev_ &&
           st.st_ino == ino_;
}

void Listener::keepListening()
{
    bool changed = drainWatch();
    if (closed_ || (fd_ >= 0 && ownsPath()) || (fd_ < 0 && !changed))
        return;
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
    paused_ = false;
    bindAndListen();
}

std::vector<int> Listener::acceptAll()
{
    std::vector<int> accepted;
    for (;;) {
        int fd = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0) {
            if (fromOwner(fd))
                accepted.push_back(fd);
            else
                ::close(fd);
            continue;
        }
        int err = errno;
        if (err == EINTR || err == ECONNABORTED)
            continue;
        if (err == EMFILE || err == ENFILE) {
            klog("refused a connection: %s", std::strerror(err));
            if (refuseOne())
                continue;
            paused_ = true;
        } else if (err != EAGAIN && err != EWOULDBLOCK) {
            klog("accept: %s", std::strerror(err));
        }
        return accepted;
    }
}

// Out of descriptors: gives up the spare for a moment to take the waiting
// connection and close it. false if there was nothing to refuse it with.
bool Listener::refuseOne()
{
    if (spareFd_ < 0)
        spareFd_ = openSpare();
    if (spareFd_ < 0)
        return false;
    ::close(spareFd_);
    int refused = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (refused >= 0)
        ::close(refused);
    spareFd_ = openSpare();
    return refused >= 0;
}

int Listener::pollFd() const
{
    return paused_ ? -1 : fd_;
}

int Listener::pollTimeoutMs() const
{
    return paused_ ? 200 : -1;
}

void Listener::close()
{
    closed_ = true;
    if (fd_ < 0)
        return;
    ::close(fd_);
    fd_ = -1;
    if (ownsPath())
        ::unlink(path_.c_str());
}

} // namespace tamkern
