#include "tamkern/Connection.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tamkern/Capture.h"

namespace tamkern {

Connection::Connection(int id, int fd, RequestSink onRequest, CloseSink onClose,
                       const Limits& limits)
    : id_(id), fd_(fd), onRequest_(std::move(onRequest)), onClose_(std::move(onClose)),
      limits_(limits),
      reader_(std::make_unique<RequestReader>([this](Request& req) { deliver(req); }))
{
}

const Limits& Connection::defaultLimits()
{
    static const Limits limits;
    return limits;
}

Connection::~Connection()
{
    ::shutdown(fd_, SHUT_RDWR);
    ::close(fd_);
}

short Connection::pollEvents() const
{
    bool full = waiting_ >= MaxWaiting || waitingBytes_ >= limits_.waitingBytes;
    short ev = reading_ && !full ? POLLIN : 0;
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
    readSome();
    // A connection closed by one of its own requests could not free its
    // reader while that was on the stack.
    if (closed_)
        release();
}

void Connection::readSome()
{
    char buf[65536];
    for (int round = 0; round < 4 && !closed_ && reading_; ++round) {
        ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
        if (n > 0) {
            lastInput_ = Clock::now();
            inReader_ = true;
            bool fed = reader_->feed(buf, static_cast<int>(n));
            inReader_ = false;
            if (!fed) {
                close(reader_->fault().c_str());
                return;
            }
            checkBudget();
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
    if (closed_)
        return;
    if (!out_.flush(fd_)) {
        // The peer is gone; its requests were all read before, or will be
        // seen as the end of the stream.
        close((errno == EPIPE || errno == ECONNRESET) ? nullptr : std::strerror(errno));
        return;
    }
    if (out_.empty())
        largest_ = 0;
}

void Connection::send(std::string bytes)
{
    if (closed_)
        return;
    largest_ = std::max(largest_, bytes.size());
    if (out_.bytes() + bytes.size() > MaxQueued + largest_) {
        close("client does not read its messages");
        return;
    }
    // Queued by move: a huge result is held once.
    bool idle = out_.empty();
    out_.push(std::move(bytes));
    if (idle)
        flush();
}

void Connection::requestQueued(std::size_t bytes)
{
    ++waiting_;
    waitingBytes_ += bytes;
    checkBudget();
}

void Connection::requestTaken(std::size_t bytes)
{
    --waiting_;
    waitingBytes_ -= std::min(bytes, waitingBytes_);
}

void Connection::clientAdded(std::size_t bytes)
{
    clientBytes_ += bytes;
    checkBudget();
}

void Connection::clientRemoved(std::size_t bytes)
{
    clientBytes_ -= std::min(bytes, clientBytes_);
}

std::size_t Connection::ownCost() const
{
    return (reader_ ? reader_->bytes() : 0) + waitingBytes_ + clientBytes_;
}

std::size_t Connection::cost() const
{
    std::size_t unsent = out_.bytes();
    return ownCost() + (unsent > largest_ ? unsent - largest_ : 0);
}

void Connection::checkBudget()
{
    std::size_t c = ownCost();
    if (closed_ || c <= limits_.connectionBytes)
        return;
    char why[128];
    std::snprintf(why, sizeof why, "over its memory budget (%zu bytes, %zu allowed)", c,
                  limits_.connectionBytes);
    close(why);
}

Connection::Clock::time_point Connection::idleDeadline() const
{
    if (closed_ || !reading_ || !reader_->midRequest())
        return Clock::time_point::max();
    return lastInput_ + limits_.idleTimeout;
}

void Connection::checkIdle(Clock::time_point now)
{
    if (now >= idleDeadline())
        close("silent in the middle of a request");
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
    released_ = cost(); // its waiting requests go in onClose_
    onClose_(*this);
    if (!inReader_)
        release();
}

// What a closed connection held goes at once: many may close in one turn
// of the loop, each near its budget.
void Connection::release()
{
    reader_.reset();
    out_.clear();
    largest_ = 0;
}

} // namespace tamkern
