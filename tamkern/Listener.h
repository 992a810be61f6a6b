// The kernel's listening socket.
#ifndef TAMKERN_LISTENER_H
#define TAMKERN_LISTENER_H

#include <string>
#include <vector>

namespace tamkern {

// A Unix-domain socket at a path that only the kernel's own user may use,
// which keeps refusing newcomers cleanly when the process runs out of
// descriptors, and which listens again at the same path when its socket file
// is removed while the kernel runs (a front end that joined a kernel removes
// the kernel's socket file when it leaves).
class Listener {
public:
    // Nothing happens before open().
    explicit Listener(std::string path);
    // Closes the socket; the socket file stays (close() removes it).
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // Binds to the path, readable and writable by the owner only, and
    // listens. A socket file left by a kernel that died is replaced; a live
    // kernel's socket or any other file is not. false with the reason logged.
    bool open();
    // Takes every waiting connection. Returns those of peers running as the
    // kernel's own user, non-blocking and close-on-exec; any other peer is
    // closed unheard, with a log line.
    std::vector<int> acceptAll();
    // The descriptor to poll for newcomers, or -1 while accepting is paused:
    // out of descriptors with no spare to refuse one with.
    int pollFd() const;
    // How long poll() may wait: paused, it must try again soon, as nothing
    // will wake it.
    int pollTimeoutMs() const;
    // Ends a pause once poll() has returned.
    void resume() { paused_ = false; }
    // A descriptor that becomes readable when an entry of the socket's
    // directory is removed or renamed (inotify), or -1 if there is none.
    int watchFd() const { return watchFd_; }
    // Called on every wake-up of the poll loop: reads what watchFd() has,
    // and if the socket file is no longer the one this listener made, makes
    // a new one at the path. After a failure it tries again only once the
    // directory has changed. Nothing happens once closed.
    void keepListening();
    // The socket file at the path is the one this listener bound.
    bool ownsPath() const;
    // Stops listening and removes the socket file if it is still ours.
    void close();

private:
    bool bindAndListen();
    bool refuseOne();
    void watchDirectory();
    bool drainWatch();

    std::string path_;
    int fd_ = -1;
    int watchFd_ = -1;
    bool closed_ = false;
    // The socket file's identity, to tell it from one made by someone else.
    unsigned long long dev_ = 0, ino_ = 0;
    // Held open so that a connection can still be taken and refused when the
    // descriptors run out; otherwise it would wait on the listening socket
    // and keep every poll() returning at once.
    int spareFd_ = -1;
    bool paused_ = false;
};

} // namespace tamkern

#endif
