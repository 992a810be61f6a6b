// The kernel's listening socket.
#ifndef TAMKERN_LISTENER_H
#define TAMKERN_LISTENER_H

#include <string>
#include <vector>

namespace tamkern {

// A Unix-domain socket at a path that only the kernel's own user may use,
// which keeps refusing newcomers cleanly when the process runs out of
// descriptors.
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
    // Stops listening and removes the socket file.
    void close();

private:
    bool refuseOne();

    std::string path_;
    int fd_ = -1;
    // Held open so that a connection can still be taken and refused when the
    // descriptors run out; otherwise it would wait on the listening socket
    // and keep every poll() returning at once.
    int spareFd_ = -1;
    bool paused_ = false;
};

} // namespace tamkern

#endif
