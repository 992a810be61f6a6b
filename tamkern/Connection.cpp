#include "tamkern/Connection.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tamkern/Capture.h"

namespace tamkern {

Connection::Connection(int id, int fd, RequestSink onRequest, CloseSink onClose)
    : id_(id), fd_(fd), onRequest_(std::move(onRequest)), onClose_(std::move(onClose)),
      reader_(std::make_unique<RequestReader>([this](Request& req) { deliver(req); }))
{
}

Connection::~Connection()
{
    ::shutdown(fd_, SHUT_RDWR);
    ::close(fd_);
}

short Connection::pollEvents() const
{
    short ev = reading_ && waiting_ < MaxWaiting ? POLLIN : 0;
    if (hasUnsent())
        ev |= POLLOUT;
    return ev;
}

void Connection::deliver(Request& req)
{
    // The rest of a chunk that closed the connection halfway is not heard:
    // its clients are gone already.
    if (!closed_ && reading_)
        onRequest_(*this, req);
}

void Connection::readAvailable()
{
    char buf[65536];
    for (int round = 0; round < 4 && !closed_ && reading_; ++round) {
        ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
        if (n > 0) {
            if (!reader_->feed(buf, static_cast<int>(n))) {
                close(reader_->fault().c_str());
                return;
            }
            if (static_cast<std::size_t>(n) < sizeof buf)
                return;
            continue;
        }
        // A peer that closes with replies still unread resets the
        // connection: that is an ordinary end too.
        if (n == 0 || errno == ECONNRESET) {
            close(reader_->midRequest() ? "connection closed in the middle of a request" : nullptr);
            return;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK)
            close(std::strerror(errno));
        return;
    }
}

void Connection::flush()
{
    while (!closed_ && hasUnsent()) {
        ssize_t n =
            ::send(fd_, out_.data() + sent_, out_.size() - sent_, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            sent_ += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        // The peer is gone; its requests were all read before, or will be
        // seen as the end of the stream.
        close((errno == EPIPE || errno == ECONNRESET) ? nullptr : std::strerror(errno));
        return;
    }
    compact();
}

// Drops what has been sent: all of it once the queue is empty, otherwise
// now and then, so that a slow reader does not make every append move the
// whole queue.
void Connection::compact()
{
    if (!hasUnsent()) {
        out_.clear();
        sent_ = 0;
        largest_ = 0;
    } else if (sent_ > (1u << 20)) {
        out_.erase(0, sent_);
        sent_ = 0;
    }
}

void Connection::send(std::string bytes)
{
    if (closed_)
        return;
    largest_ = std::max(largest_, bytes.size());
    if (out_.size() - sent_ + bytes.size() > MaxQueued + largest_) {
        close("client does not read its messages");
        return;
    }
    bool idle = !hasUnsent();
    out_ += bytes;
    if (idle)
        flush();
}

void Connection::sendLast(std::string bytes)
{
    send(std::move(bytes));
    reading_ = false;
}

void Connection::close(const char* why)
{
    if (closed_)
        return;
    if (why)
        klog("connection %d closed: %s", id_, why);
    closed_ = true;
    onClose_(*this);
}

} // namespace tamkern
