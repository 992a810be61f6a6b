// One client connection of the kernel.
#ifndef TAMKERN_CONNECTION_H
#define TAMKERN_CONNECTION_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "tamkern/Limits.h"
#include "tamkern/Requests.h"
#include "tamkern/SendQueue.h"

namespace tamkern {

// A connected client socket: its request reader, the bytes waiting to be
// sent in order, and the limits that keep one client from costing the
// others.
class Connection {
public:
    using RequestSink = std::function<void(Connection&, Request&)>;
    using CloseSink = std::function<void(Connection&)>;
    using Clock = std::chrono::steady_clock;

    // Takes over fd, a non-blocking stream socket. Complete requests go to
    // onRequest while the connection is open; onClose is told once, at the
    // moment it closes. limits must outlive the connection.
    Connection(int id, int fd, RequestSink onRequest, CloseSink onClose,
               const Limits& limits = defaultLimits());
    // Shuts the socket down and closes it.
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // The id given at construction, and the socket.
    int id() const { return id_; }
    int fd() const { return fd_; }
    // close() has been called: nothing more is read, sent or heard.
    bool closed() const { return closed_; }
    // The poll() events it waits for: input unless it reads no more or has
    // as many requests waiting as its limits allow, output while bytes are
    // unsent.
    short pollEvents() const;
    // Bytes are queued that the socket has not taken yet.
    bool hasUnsent() const { return !out_.empty(); }

    // Reads what the peer has sent, a bounded amount so that one busy peer
    // cannot starve the others, and hands on the requests it completes. The
    // end of the stream, a malformed stream and a read error close it.
    void readAvailable();
    // Sends queued bytes until the socket takes no more; a write error
    // closes the connection.
    void flush();
    // Queues bytes behind those already queued and sends what the socket
    // takes at once. Nothing happens once closed.
    void send(std::string bytes);
    // Queues the kernel's last message; from now on nothing is read.
    void sendLast(std::string bytes);
    // Marks the connection closed (logging why, if given) and tells the close
    // sink. The socket stays open, and nothing is sent, until it is destroyed.
    void close(const char* why);

    // A request of this connection, holding bytes, starts or stops waiting
    // for the engine.
    void requestQueued(std::size_t bytes);
    void requestTaken(std::size_t bytes);
    // A client record of this connection is made or removed.
    void clientAdded(std::size_t bytes);
    void clientRemoved(std::size_t bytes);

    // What it costs the kernel that counts against its own budget: the
    // request being read, its waiting requests, its clients.
    std::size_t ownCost() const;
    // That and the messages waiting to be sent beyond the largest.
    std::size_t cost() const;
    // Closes it if ownCost() is beyond its budget.
    void checkBudget();
    // When it is to be closed for silence in the middle of a request;
    // Clock::time_point::max() if it is not in the middle of one.
    Clock::time_point idleDeadline() const;
    // Closes it if now is past that time.
    void checkIdle(Clock::time_point now);

    // What it held when it closed.
    std::size_t releasedBytes() const { return released_; }

    static const Limits& defaultLimits();

    // Bytes a connection may have waiting to be sent before the kernel gives
    // up on it (a client that never reads), besides the biggest message in
    // the queue: one huge result must not cost a client that does read.
    static constexpr std::size_t MaxQueued = 64u << 20;
    // Requests of one connection that may wait for the engine before the
    // kernel stops reading from it until some have run: a client that sends
    // without pause must not fill the kernel's memory.
    static constexpr std::size_t MaxWaiting = 10000;

private:
    void readSome();
    void deliver(Request& req);
    void release();

    int id_;
    int fd_;
    RequestSink onRequest_;
    CloseSink onClose_;
    const Limits& limits_;
    std::unique_ptr<RequestReader> reader_;
    SendQueue out_;           // bytes not yet sent
    std::size_t largest_ = 0; // biggest message queued since out_ was empty
    std::size_t waiting_ = 0; // requests waiting for the engine
    std::size_t waitingBytes_ = 0;
    std::size_t clientBytes_ = 0;
    Clock::time_point lastInput_ = Clock::now();
    bool reading_ = true;
    bool closed_ = false;
    bool inReader_ = false; // the reader is on the stack
    std::size_t released_ = 0;
};

} // namespace tamkern

#endif
