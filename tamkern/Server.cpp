#include "tamkern/Server.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <poll.h>
#include <unistd.h>

#include "tamkern/Capture.h"

namespace tamkern {

namespace {

int gWakeRead = -1;
int gWakeWrite = -1;
volatile sig_atomic_t gTerminate = 0;

void wake()
{
    if (gWakeWrite >= 0) {
        char c = 1;
        // A full pipe already holds a wake-up.
        ssize_t r = ::write(gWakeWrite, &c, 1);
        (void)r;
    }
}

bool openWakePipe()
{
    int wp[2];
    if (::pipe2(wp, O_CLOEXEC | O_NONBLOCK) != 0) {
        klog("pipe: %s", std::strerror(errno));
        return false;
    }
    gWakeRead = wp[0];
    gWakeWrite = wp[1];
    return true;
}

void drainWakePipe()
{
    char buf[256];
    while (::read(gWakeRead, buf, sizeof buf) > 0) {
    }
}

void closeWakePipe()
{
    ::close(gWakeRead);
    ::close(gWakeWrite);
    gWakeRead = gWakeWrite = -1;
}

} // namespace

Server::Server(ServerOptions options, const EngineFactory& makeEngine)
    : options_(std::move(options)), listener_(options_.path), engine_(makeEngine(*this)),
      dispatcher_(*this, *engine_)
{
}

Server::~Server() = default;

void Server::terminate()
{
    gTerminate = 1;
    wake();
}

int Server::run()
{
    if (!openWakePipe() || !listener_.open())
        return 1;
    engine_->start();
    if (!options_.standalone)
        ::kill(::getppid(), SIGUSR1);
    serve();
    shutDown();
    return 0;
}

void Server::serve()
{
    std::vector<pollfd> fds;
    std::vector<int> ids;
    while (!dispatcher_.quitting()) {
        if (gTerminate) {
            klog("terminated by signal");
            return;
        }
        pollSet(fds, ids);
        int r = ::poll(fds.data(), fds.size(), pollTimeoutMs());
        listener_.resume();
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0) {
            klog("poll: %s", std::strerror(errno));
            return;
        }
        if (fds[0].revents)
            drainWakePipe();
        handleEvents();
        if (fds[1].revents)
            acceptAll();
        listener_.keepListening();
        serveConnections(fds, ids);
        reapClosed();
        dispatcher_.dispatch();
        dispatcher_.checkStopped(Dispatcher::Clock::now());
        if (shouldEnd())
            return;
    }
}

// Until the listener must look again, or a stopped command's time is up.
int Server::pollTimeoutMs() const
{
    int ms = listener_.pollTimeoutMs();
    Dispatcher::Clock::time_point deadline = dispatcher_.stopDeadline();
    if (deadline == Dispatcher::Clock::time_point::max())
        return ms;
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Dispatcher::Clock::now());
    int untilDeadline = static_cast<int>(std::max<long long>(0, left.count()));
    return ms < 0 ? untilDeadline : std::min(ms, untilDeadline);
}

// The wake-up pipe, the listening socket, the watch on its directory, then
// the connections in the order of ids.
void Server::pollSet(std::vector<pollfd>& fds, std::vector<int>& ids) const
{
    fds.clear();
    ids.clear();
    fds.push_back(pollfd{gWakeRead, POLLIN, 0});
    fds.push_back(pollfd{listener_.pollFd(), POLLIN, 0});
    fds.push_back(pollfd{listener_.watchFd(), POLLIN, 0});
    for (const auto& kv : conns_) {
        fds.push_back(pollfd{kv.second.fd(), kv.second.pollEvents(), 0});
        ids.push_back(kv.first);
    }
}

void Server::acceptAll()
{
    for (int fd : listener_.acceptAll()) {
        int id = nextConnId_++;
        conns_.try_emplace(
            id, id, fd, [this](Connection& c, Request& req) { dispatcher_.request(c.id(), req); },
            [this](Connection& c) { dispatcher_.connectionClosed(c.id()); });
        everConnected_ = true;
    }
}

void Server::serveConnections(const std::vector<pollfd>& fds, const std::vector<int>& ids)
{
    for (std::size_t i = 0; i < ids.size() && !dispatcher_.quitting(); ++i) {
        auto it = conns_.find(ids[i]);
        if (it == conns_.end() || it->second.closed())
            continue;
        short re = fds[i + 3].revents;
        if (re & POLLOUT)
            it->second.flush();
        if (re & (POLLIN | POLLHUP | POLLERR))
            it->second.readAvailable();
    }
}

// Closed connections stay until here: one may close while its own reader is
// on the stack.
void Server::reapClosed()
{
    for (auto it = conns_.begin(); it != conns_.end();)
        it = it->second.closed() ? conns_.erase(it) : std::next(it);
}

bool Server::shouldEnd() const
{
    const Session& session = dispatcher_.session();
    if (options_.standalone || session.stayAlive())
        return false;
    // A launched kernel lives for its clients: it ends when the last one has
    // left, or when every connection is gone after there was one.
    if (session.everHadClient() && session.empty())
        return true;
    return everConnected_ && conns_.empty();
}

void Server::pushEvent(Event ev)
{
    {
        std::lock_guard<std::mutex> lock(eventMutex_);
        events_.push_back(std::move(ev));
    }
    wake();
}

void Server::post(long client, std::string message)
{
    pushEvent(Event{Event::Message, client, std::move(message), {}});
}

void Server::names(std::vector<std::string> names)
{
    pushEvent(Event{Event::Names, -1, std::string(), std::move(names)});
}

void Server::jobDone()
{
    pushEvent(Event{Event::Done, -1, std::string(), {}});
}

void Server::handleEvents()
{
    std::vector<Event> events;
    {
        std::lock_guard<std::mutex> lock(eventMutex_);
        events.swap(events_);
    }
    for (Event& ev : events) {
        switch (ev.kind) {
        case Event::Message:
            dispatcher_.deliver(ev.client, std::move(ev.message));
            break;
        case Event::Names:
            dispatcher_.names(std::move(ev.names));
            break;
        case Event::Done:
            dispatcher_.jobDone();
            break;
        }
    }
}

void Server::send(int conn, std::string bytes)
{
    auto it = conns_.find(conn);
    if (it != conns_.end())
        it->second.send(std::move(bytes));
}

void Server::sendLastToAll(std::string bytes)
{
    for (auto& kv : conns_)
        kv.second.sendLast(bytes);
}

void Server::requestQueued(int conn)
{
    auto it = conns_.find(conn);
    if (it != conns_.end())
        it->second.requestQueued();
}

void Server::requestTaken(int conn)
{
    auto it = conns_.find(conn);
    if (it != conns_.end())
        it->second.requestTaken();
}

void Server::flushAll(int timeoutMs)
{
    // Messages already queued (the quit above all) still go out, but a
    // client that does not read cannot hold the kernel up for long.
    for (int waited = 0;; waited += 50) {
        handleEvents();
        std::vector<pollfd> fds;
        std::vector<Connection*> unsent;
        for (auto& kv : conns_) {
            if (!kv.second.closed() && kv.second.hasUnsent()) {
                fds.push_back(pollfd{kv.second.fd(), POLLOUT, 0});
                unsent.push_back(&kv.second);
            }
        }
        if (fds.empty() || waited >= timeoutMs)
            return;
        if (::poll(fds.data(), fds.size(), 50) <= 0)
            continue;
        for (std::size_t i = 0; i < fds.size(); ++i)
            if (fds[i].revents)
                unsent[i]->flush();
    }
}

void Server::shutDown()
{
    flushAll(2000);
    conns_.clear();
    listener_.close();
    engineStuck_ = !engine_->shutdown(2000);
    handleEvents();
    closeWakePipe();
    // The worker is inside a computation that does not look at the
    // interrupt flag; nothing else is left to do.
    if (engineStuck_)
        klog("evaluation did not stop; exiting anyway");
}

} // namespace tamkern
