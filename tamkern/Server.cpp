#include "tamkern/Server.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <malloc.h>
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

// Fixed places in the poll set, before the connections.
enum { WakeFd, ListenFd, WatchFd, EngineFd, FirstConnFd };

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
        if (fds[WakeFd].revents)
            drainWakePipe();
        if (fds[EngineFd].revents)
            engine_->serve(fds[EngineFd].revents);
        settle();
        if (fds[ListenFd].revents)
            acceptAll();
        listener_.keepListening();
        serveConnections(fds, ids);
        dispatcher_.checkStopped(Dispatcher::Clock::now());
        checkConnections();
        reapClosed();
        settle();
        if (shouldEnd())
            return;
    }
}

// Until the listener must look again, a stopped command's time is up, or
// a connection's silence ends it.
int Server::pollTimeoutMs() const
{
    int ms = listener_.pollTimeoutMs();
    Dispatcher::Clock::time_point deadline = dispatcher_.stopDeadline();
    for (const auto& kv : conns_)
        deadline = std::min(deadline, kv.second.idleDeadline());
    if (deadline == Dispatcher::Clock::time_point::max())
        return ms;
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Dispatcher::Clock::now());
    int untilDeadline = static_cast<int>(
        std::min<long long>(std::max<long long>(0, left.count()), std::numeric_limits<int>::max()));
    return ms < 0 ? untilDeadline : std::min(ms, untilDeadline);
}

void Server::pollSet(std::vector<pollfd>& fds, std::vector<int>& ids) const
{
    fds.clear();
    ids.clear();
    fds.push_back(pollfd{gWakeRead, POLLIN, 0});
    fds.push_back(pollfd{listener_.pollFd(), POLLIN, 0});
    fds.push_back(pollfd{listener_.watchFd(), POLLIN, 0});
    fds.push_back(pollfd{engine_->pollFd(), engine_->pollEvents(), 0});
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
            [this](Connection& c) { dispatcher_.connectionClosed(c.id()); }, options_.limits);
        everConnected_ = true;
    }
}

// The budget is looked at after every connection's turn: each turn may
// make its parser take megabytes.
void Server::serveConnections(const std::vector<pollfd>& fds, const std::vector<int>& ids)
{
    std::size_t total = kernelCost();
    for (std::size_t i = 0; i < ids.size() && !dispatcher_.quitting(); ++i) {
        auto it = conns_.find(ids[i]);
        if (it == conns_.end() || it->second.closed())
            continue;
        Connection& c = it->second;
        std::size_t before = c.cost();
        short re = fds[i + FirstConnFd].revents;
        if (re & POLLOUT)
            c.flush();
        if (re & (POLLIN | POLLHUP | POLLERR))
            c.readAvailable();
        total = total - before + (c.closed() ? 0 : c.cost());
        if (total > options_.limits.kernelBytes)
            total = keepKernelBudget(total);
    }
}

std::size_t Server::kernelCost() const
{
    std::size_t total = 0;
    for (const auto& kv : conns_)
        if (!kv.second.closed())
            total += kv.second.cost();
    return total;
}

// Past the kernel's budget the connection that costs the most goes, until
// the rest fits. Returns what the rest costs.
std::size_t Server::keepKernelBudget(std::size_t total)
{
    while (total > options_.limits.kernelBytes) {
        Connection* worst = nullptr;
        for (auto& kv : conns_)
            if (!kv.second.closed() && (!worst || kv.second.cost() > worst->cost()))
                worst = &kv.second;
        if (!worst)
            break;
        std::size_t c = worst->cost();
        char why[160];
        std::snprintf(why, sizeof why,
                      "the kernel is over its memory budget (%zu bytes, %zu allowed) and this "
                      "connection costs the most (%zu bytes)",
                      total, options_.limits.kernelBytes, c);
        worst->close(why);
        total = kernelCost();
    }
    return total;
}

// Connections silent in the middle of a request, and the kernel's budget
// after what the engine's messages added.
void Server::checkConnections()
{
    auto now = Connection::Clock::now();
    for (auto& kv : conns_)
        kv.second.checkIdle(now);
    keepKernelBudget(kernelCost());
}

// Closed connections stay until here: one may close while its own reader is
// on the stack. What a big one held goes back to the system.
void Server::reapClosed()
{
    std::size_t freed = 0;
    for (auto it = conns_.begin(); it != conns_.end();) {
        if (it->second.closed()) {
            freed += it->second.releasedBytes();
            it = conns_.erase(it);
        } else {
            ++it;
        }
    }
    if (freed > (std::size_t(1) << 20))
        ::malloc_trim(0);
}

// Acts on what the engine reported, and on what that sets going, until
// nothing is left: an engine without an evaluator answers at once.
void Server::settle()
{
    while (!events_.empty()) {
        std::vector<Event> events;
        events.swap(events_);
        for (Event& ev : events) {
            switch (ev.kind) {
            case Event::Message:
                dispatcher_.deliver(ev.client, std::move(ev.text));
                break;
            case Event::Names:
                dispatcher_.names(std::move(ev.names));
                break;
            case Event::Done:
                dispatcher_.jobDone();
                break;
            case Event::Lost:
                dispatcher_.evaluatorLost(ev.text);
                break;
            }
        }
        dispatcher_.dispatch();
    }
    dispatcher_.dispatch();
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

void Server::post(long client, std::string message)
{
    events_.push_back(Event{Event::Message, client, std::move(message), {}});
}

void Server::names(std::vector<std::string> names)
{
    events_.push_back(Event{Event::Names, -1, std::string(), std::move(names)});
}

void Server::jobDone()
{
    events_.push_back(Event{Event::Done, -1, std::string(), {}});
}

void Server::lost(std::string why)
{
    events_.push_back(Event{Event::Lost, -1, std::move(why), {}});
}

Connection* Server::find(int conn)
{
    auto it = conns_.find(conn);
    return it == conns_.end() ? nullptr : &it->second;
}

void Server::send(int conn, std::string bytes)
{
    if (Connection* c = find(conn))
        c->send(std::move(bytes));
}

void Server::sendLastToAll(std::string bytes)
{
    for (auto& kv : conns_)
        kv.second.sendLast(bytes);
}

void Server::requestQueued(int conn, std::size_t bytes)
{
    if (Connection* c = find(conn))
        c->requestQueued(bytes);
}

void Server::requestTaken(int conn, std::size_t bytes)
{
    if (Connection* c = find(conn))
        c->requestTaken(bytes);
}

void Server::clientAdded(int conn)
{
    if (Connection* c = find(conn))
        c->clientAdded(Session::ClientBytes);
}

void Server::clientRemoved(int conn)
{
    if (Connection* c = find(conn))
        c->clientRemoved(Session::ClientBytes);
}

void Server::flushAll(int timeoutMs)
{
    // Messages already queued (the quit above all) still go out, but a
    // client that does not read cannot hold the kernel up for long.
    for (int waited = 0;; waited += 50) {
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
    // A computation that ignores the interrupt is ended by force.
    engine_->shutdown(2000);
    events_.clear();
    closeWakePipe();
}

} // namespace tamkern
