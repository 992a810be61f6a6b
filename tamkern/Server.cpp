#include "tamkern/Server.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "tamkern/Capture.h"
#include "tamkern/Messages.h"
#include "tamkern/TextLayout.h"

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

void setNonBlocking(int fd)
{
    int fl = ::fcntl(fd, F_GETFL);
    if (fl >= 0)
        ::fcntl(fd, F_SETFL, fl | O_NONBLOCK);
}

const char* const kFormats[] = {"text", "tex", "mathml", "utf8"};

bool isFormat(const std::string& f)
{
    for (const char* k : kFormats)
        if (f == k)
            return true;
    return false;
}

// The command that ends the kernel, also written as "quit;" or "quit()".
bool isQuitCommand(const std::string& text)
{
    std::string t = trimmed(text);
    return t == "quit" || t == "quit;" || t == "quit()" || t == "quit();";
}

} // namespace

Server::Server(ServerOptions options, OutputCapture* capture)
    : options_(std::move(options)), capture_(capture), engine_(*this, capture)
{
}

Server::~Server()
{
    for (auto& kv : conns_)
        if (kv.second.fd >= 0)
            ::close(kv.second.fd);
    if (listenFd_ >= 0)
        ::close(listenFd_);
    if (spareFd_ >= 0)
        ::close(spareFd_);
}

void Server::terminate()
{
    gTerminate = 1;
    wake();
}

bool Server::listen()
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (options_.path.empty() || options_.path.size() >= sizeof addr.sun_path) {
        klog("socket path is empty or too long: %s", options_.path.c_str());
        return false;
    }
    std::memcpy(addr.sun_path, options_.path.c_str(), options_.path.size() + 1);
    socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + options_.path.size() + 1);

    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        klog("socket: %s", std::strerror(errno));
        return false;
    }
    struct stat st;
    if (::lstat(options_.path.c_str(), &st) == 0) {
        // A socket file left behind by a kernel that died can go; a live
        // kernel or any other file stays.
        int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        bool live = probe >= 0 && ::connect(probe, reinterpret_cast<sockaddr*>(&addr), len) == 0;
        if (probe >= 0)
            ::close(probe);
        if (!S_ISSOCK(st.st_mode) || live) {
            klog("%s exists and is %s", options_.path.c_str(),
                 live ? "in use by a running kernel" : "not a socket");
            ::close(fd);
            return false;
        }
        ::unlink(options_.path.c_str());
    }
    // Owner only from the start: there is no moment in which another user
    // could connect.
    mode_t old = ::umask(077);
    int rc = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), len);
    ::umask(old);
    if (rc != 0) {
        klog("bind %s: %s", options_.path.c_str(), std::strerror(errno));
        ::close(fd);
        return false;
    }
    ::chmod(options_.path.c_str(), 0600);
    if (::listen(fd, 16) != 0) {
        klog("listen: %s", std::strerror(errno));
        ::close(fd);
        ::unlink(options_.path.c_str());
        return false;
    }
    setNonBlocking(fd);
    listenFd_ = fd;
    spareFd_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    return true;
}

int Server::run()
{
    int wp[2];
    if (::pipe2(wp, O_CLOEXEC | O_NONBLOCK) != 0) {
        klog("pipe: %s", std::strerror(errno));
        return 1;
    }
    gWakeRead = wp[0];
    gWakeWrite = wp[1];
    if (!listen())
        return 1;
    engine_.start();
    if (!options_.standalone)
        ::kill(::getppid(), SIGUSR1);

    std::vector<pollfd> fds;
    std::vector<int> ids;
    while (!quitting_) {
        if (gTerminate) {
            klog("terminated by signal");
            break;
        }
        fds.clear();
        ids.clear();
        fds.push_back(pollfd{gWakeRead, POLLIN, 0});
        fds.push_back(pollfd{acceptPaused_ ? -1 : listenFd_, POLLIN, 0});
        for (auto& kv : conns_) {
            short ev = kv.second.waiting < MaxWaiting ? POLLIN : 0;
            if (kv.second.sent < kv.second.out.size())
                ev |= POLLOUT;
            fds.push_back(pollfd{kv.second.fd, ev, 0});
            ids.push_back(kv.first);
        }
        int r = ::poll(fds.data(), fds.size(), acceptPaused_ ? 200 : -1);
        acceptPaused_ = false;
        if (r < 0) {
            if (errno == EINTR)
                continue;
            klog("poll: %s", std::strerror(errno));
            break;
        }
        if (fds[0].revents) {
            char buf[256];
            while (::read(gWakeRead, buf, sizeof buf) > 0) {
            }
        }
        handleEvents();
        if (fds[1].revents)
            acceptAll();
        for (std::size_t i = 0; i < ids.size() && !quitting_; ++i) {
            auto it = conns_.find(ids[i]);
            if (it == conns_.end() || it->second.dead)
                continue;
            short re = fds[i + 2].revents;
            if (re & POLLOUT)
                writeTo(it->second);
            if (re & (POLLIN | POLLHUP | POLLERR))
                readFrom(it->second);
        }
        reapDead();
        dispatch();
        if (shouldEnd())
            break;
    }

    flushAll(2000);
    for (auto& kv : conns_) {
        ::shutdown(kv.second.fd, SHUT_RDWR);
        ::close(kv.second.fd);
    }
    conns_.clear();
    ::close(listenFd_);
    listenFd_ = -1;
    ::unlink(options_.path.c_str());
    bool clean = engine_.shutdown(2000);
    handleEvents();
    ::close(gWakeRead);
    ::close(gWakeWrite);
    gWakeRead = gWakeWrite = -1;
    if (!clean) {
        // The worker is inside a computation that does not look at the
        // interrupt flag; nothing else is left to do.
        klog("evaluation did not stop; exiting anyway");
        if (capture_)
            capture_->stop();
        ::_exit(0);
    }
    return 0;
}

bool Server::shouldEnd() const
{
    if (options_.standalone || stayAlive_)
        return false;
    // A launched kernel lives for its clients: it ends when the last one has
    // left, or when every connection is gone after there was one.
    if (everHadClient_ && clients_.empty())
        return true;
    return everConnected_ && conns_.empty();
}

void Server::acceptAll()
{
    for (;;) {
        int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            int err = errno;
            if (err == EINTR || err == ECONNABORTED)
                continue;
            if (err == EMFILE || err == ENFILE) {
                klog("refused a connection: %s", std::strerror(err));
                if (spareFd_ < 0)
                    spareFd_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
                if (spareFd_ >= 0) {
                    ::close(spareFd_);
                    int refused = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
                    if (refused >= 0)
                        ::close(refused);
                    spareFd_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
                    if (refused >= 0)
                        continue;
                }
                acceptPaused_ = true;
            } else if (err != EAGAIN && err != EWOULDBLOCK) {
                klog("accept: %s", std::strerror(err));
            }
            return;
        }
        ucred cred{};
        socklen_t len = sizeof cred;
        if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
            klog("cannot read the peer's credentials: %s", std::strerror(errno));
            ::close(fd);
            continue;
        }
        if (cred.uid != ::geteuid()) {
            klog("refused a connection from uid %u (pid %d)", static_cast<unsigned>(cred.uid),
                 static_cast<int>(cred.pid));
            ::close(fd);
            continue;
        }
        int id = nextConnId_++;
        Connection& c = conns_[id];
        c.id = id;
        c.fd = fd;
        c.reader = std::make_unique<RequestReader>([this, id](Request& req) { onRequest(id, req); });
        everConnected_ = true;
    }
}

void Server::readFrom(Connection& c)
{
    char buf[65536];
    for (int round = 0; round < 4 && !c.dead && !quitting_; ++round) {
        ssize_t n = ::recv(c.fd, buf, sizeof buf, 0);
        if (n > 0) {
            if (!c.reader->feed(buf, static_cast<int>(n))) {
                closeConnection(c.id, c.reader->fault().c_str());
                return;
            }
            if (static_cast<std::size_t>(n) < sizeof buf)
                return;
            continue;
        }
        // A peer that closes with replies still unread resets the
        // connection: that is an ordinary end too.
        if (n == 0 || errno == ECONNRESET) {
            closeConnection(c.id, c.reader->midRequest() ? "connection closed in the middle of a request"
                                                         : nullptr);
            return;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK)
            closeConnection(c.id, std::strerror(errno));
        return;
    }
}

void Server::writeTo(Connection& c)
{
    while (!c.dead && c.sent < c.out.size()) {
        ssize_t n = ::send(c.fd, c.out.data() + c.sent, c.out.size() - c.sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            c.sent += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        // The peer is gone; its requests were all read before, or will be
        // seen as the end of the stream.
        closeConnection(c.id, (errno == EPIPE || errno == ECONNRESET) ? nullptr : std::strerror(errno));
        return;
    }
    if (c.sent == c.out.size()) {
        c.out.clear();
        c.sent = 0;
        c.largest = 0;
    } else if (c.sent > (1u << 20)) {
        c.out.erase(0, c.sent);
        c.sent = 0;
    }
}

void Server::enqueue(Connection& c, std::string bytes)
{
    if (c.dead)
        return;
    c.largest = std::max(c.largest, bytes.size());
    if (c.out.size() - c.sent + bytes.size() > MaxQueued + c.largest) {
        closeConnection(c.id, "client does not read its messages");
        return;
    }
    bool idle = c.sent == c.out.size();
    c.out += bytes;
    if (idle)
        writeTo(c);
}

void Server::closeConnection(int connId, const char* why)
{
    auto it = conns_.find(connId);
    if (it == conns_.end() || it->second.dead)
        return;
    Connection& c = it->second;
    if (why)
        klog("connection %d closed: %s", connId, why);
    c.dead = true;
    std::vector<long> clients = c.clients;
    for (long id : clients)
        removeClient(id);
}

void Server::reapDead()
{
    for (auto it = conns_.begin(); it != conns_.end();) {
        if (it->second.dead) {
            ::shutdown(it->second.fd, SHUT_RDWR);
            ::close(it->second.fd);
            it = conns_.erase(it);
        } else {
            ++it;
        }
    }
}

void Server::removeClient(long id)
{
    auto it = clients_.find(id);
    if (it == clients_.end())
        return;
    auto ci = conns_.find(it->second.conn);
    if (ci != conns_.end()) {
        auto& v = ci->second.clients;
        v.erase(std::remove(v.begin(), v.end(), id), v.end());
    }
    clients_.erase(it);
    engine_.clientGone(id);
    for (auto q = queue_.begin(); q != queue_.end();) {
        if (q->client == id) {
            auto qc = conns_.find(q->conn);
            if (qc != conns_.end())
                --qc->second.waiting;
            q = queue_.erase(q);
        } else {
            ++q;
        }
    }
}

void Server::post(long client, std::string message)
{
    {
        std::lock_guard<std::mutex> lock(eventMutex_);
        events_.push_back(Event{false, client, std::move(message)});
    }
    wake();
}

void Server::jobDone()
{
    {
        std::lock_guard<std::mutex> lock(eventMutex_);
        events_.push_back(Event{true, -1, std::string()});
    }
    wake();
}

void Server::handleEvents()
{
    std::vector<Event> events;
    {
        std::lock_guard<std::mutex> lock(eventMutex_);
        events.swap(events_);
    }
    for (Event& ev : events) {
        if (ev.done) {
            busy_ = false;
            continue;
        }
        auto it = clients_.find(ev.client);
        if (it == clients_.end())
            continue;  // the client has left; nobody wants this
        auto ci = conns_.find(it->second.conn);
        if (ci != conns_.end())
            enqueue(ci->second, std::move(ev.message));
    }
}

Server::Client* Server::resolveClient(Connection& c, const Request& req)
{
    if (!req.hasCl) {
        // A client that does not know its id yet writes none; with one
        // client on the connection there is no doubt who it is.
        if (c.clients.size() == 1)
            return &clients_[c.clients.front()];
        klog("connection %d: <%s> without a client id", c.id, requestName(req.kind));
        return nullptr;
    }
    auto it = req.clValid ? clients_.find(req.cl) : clients_.end();
    if (it == clients_.end() || it->second.conn != c.id) {
        klog("connection %d: <%s> for unknown client %s", c.id, requestName(req.kind),
             req.clValid ? std::to_string(req.cl).c_str() : "(not a number)");
        return nullptr;
    }
    return &it->second;
}

void Server::onRequest(int connId, Request& req)
{
    auto ci = conns_.find(connId);
    if (ci == conns_.end() || ci->second.dead || quitting_)
        return;
    Connection& c = ci->second;

    if (req.kind == Request::NewClient) {
        long id = nextClientId_++;
        Client& cl = clients_[id];
        cl.id = id;
        cl.conn = connId;
        cl.name = req.name;
        cl.frame = req.frame;
        std::istringstream words(req.features);
        std::string w;
        while (words >> w)
            cl.features.insert(w);
        if (cl.features.count("stay_alive"))
            stayAlive_ = true;
        c.clients.push_back(id);
        c.everHadClient = true;
        everHadClient_ = true;
        // The first message for a new id is what tells the client its id. A
        // failed write removes the client, so nothing of it is used after.
        bool typeset = cl.features.count("can_typeset") != 0;
        enqueue(c, msgEmpty("sendinit", id));
        if (typeset)
            enqueue(c, msgFormats("selformat", id, "result",
                                  std::vector<std::string>(std::begin(kFormats), std::end(kFormats))));
        return;
    }

    Client* cl = resolveClient(c, req);
    if (!cl)
        return;
    long id = cl->id;

    switch (req.kind) {
    case Request::Stop:
        // Stops this client's running command only: in a shared session one
        // client must not cut short another's work. Commands still waiting
        // in the queue are not affected.
        engine_.interrupt(id);
        return;
    case Request::SendStatus:
        sendStatus(*cl);
        return;
    case Request::Quit:
        removeClient(id);
        return;
    case Request::DbgCmd:
        return;  // this kernel has no debugger and never asks for one
    case Request::Input:
    case Request::TextInput: {
        Answer a;
        a.canceled = req.canceled;
        a.text = req.text;
        engine_.answer(id, req.kind == Request::Input ? Question::Input : Question::TextInput, std::move(a));
        return;
    }
    case Request::SysResult: {
        Answer a;
        a.value = std::strtoll(req.value.c_str(), nullptr, 10);
        engine_.answer(id, Question::System, std::move(a));
        return;
    }
    case Request::CallResult: {
        Answer a;
        a.canceled = req.error;
        if (!req.error && req.hasPayload && !decodeMCode(req.payloadBase64, a.text)) {
            klog("client %ld: callback result payload does not decode", id);
            a.canceled = true;
        }
        engine_.answer(id, Question::Callback, std::move(a));
        return;
    }
    case Request::Cmd:
        if (req.hasText && isQuitCommand(req.text)) {
            quitKernel();
            return;
        }
        break;
    default:
        break;
    }
    queue_.push_back(Pending{connId, id, std::move(req)});
    ++c.waiting;
    dispatch();
}

void Server::dispatch()
{
    while (!busy_ && !queue_.empty() && !quitting_) {
        Pending p = std::move(queue_.front());
        queue_.pop_front();
        auto ci = conns_.find(p.conn);
        if (ci != conns_.end())
            --ci->second.waiting;
        runQueued(p);
    }
}

void Server::runQueued(Pending& p)
{
    auto it = clients_.find(p.client);
    if (it == clients_.end())
        return;
    Client& cl = it->second;
    auto ci = conns_.find(cl.conn);
    if (ci == conns_.end())
        return;
    Connection& c = ci->second;
    Request& req = p.req;

    switch (req.kind) {
    case Request::TextWidth:
        cl.style.textWidth = std::strtol(req.value.c_str(), nullptr, 10);
        enqueue(c, msgValue("textwidth", cl.id, static_cast<long long>(cl.style.textWidth)));
        return;
    case Request::PrettyPrint:
        cl.style.prettyPrint = std::strtol(req.value.c_str(), nullptr, 10) != 0;
        enqueue(c, msgValue("prettyprint", cl.id, cl.style.prettyPrint ? 1LL : 0LL));
        return;
    case Request::AbbreviateOutput:
        cl.style.abbreviate = std::strtol(req.value.c_str(), nullptr, 10) != 0;
        enqueue(c, msgValue("abbreviateoutput", cl.id, cl.style.abbreviate ? 1LL : 0LL));
        return;
    case Request::Format: {
        // Results are the one output type with a choice; a format this kernel
        // cannot produce leaves the choice as it was, and the confirmation
        // says which format is in force.
        if (req.type == "result" && isFormat(req.value))
            cl.style.format = req.value;
        else
            klog("client %ld: no format \"%.40s\" for \"%.40s\"", cl.id, req.value.c_str(), req.type.c_str());
        std::string current = req.type == "result" ? cl.style.format : std::string("text");
        enqueue(c, msgFormats("format", cl.id, req.type, {current}));
        return;
    }
    case Request::Init: {
        Job job;
        job.kind = Job::Init;
        job.client = cl.id;
        job.args = std::move(req.args);
        job.style = cl.style;
        busy_ = true;
        engine_.submit(std::move(job));
        return;
    }
    case Request::Complete: {
        Job job;
        job.kind = Job::Complete;
        job.client = cl.id;
        job.text = req.value;
        busy_ = true;
        engine_.submit(std::move(job));
        return;
    }
    case Request::Cmd: {
        Job job;
        job.kind = Job::Command;
        job.client = cl.id;
        job.cid = req.cid;
        job.style = cl.style;
        if (req.hasPayload) {
            if (req.payloadFormat != "utf8") {
                job.error = "unsupported payload format \"" + req.payloadFormat + "\"";
            } else if (!decodeMCode(req.payloadBase64, job.text)) {
                klog("client %ld: command payload does not decode", cl.id);
                job.error = "the command's payload does not decode";
            } else if (isQuitCommand(job.text)) {
                quitKernel();
                return;
            }
        } else {
            job.text = std::move(req.text);
        }
        busy_ = true;
        engine_.submit(std::move(job));
        return;
    }
    default:
        return;
    }
}

void Server::sendStatus(Client& cl)
{
    long long used = 0, res = 0, sec = 0;
    long page = ::sysconf(_SC_PAGESIZE);
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        long long size = 0, resident = 0;
        if (std::fscanf(f, "%lld %lld", &size, &resident) == 2) {
            used = resident * page / 1024;
            res = size * page / 1024;
        }
        std::fclose(f);
    }
    rusage ru{};
    if (::getrusage(RUSAGE_SELF, &ru) == 0)
        sec = ru.ru_utime.tv_sec + ru.ru_stime.tv_sec +
              (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1000000;
    auto ci = conns_.find(cl.conn);
    if (ci != conns_.end())
        enqueue(ci->second, msgStatus(cl.id, used, res, sec));
}

void Server::quitKernel()
{
    for (auto& kv : conns_)
        enqueue(kv.second, msgQuit());
    quitting_ = true;
}

void Server::flushAll(int timeoutMs)
{
    // Messages already queued (the quit above all) still go out, but a
    // client that does not read cannot hold the kernel up for long.
    int waited = 0;
    for (;;) {
        handleEvents();
        std::vector<pollfd> fds;
        std::vector<int> ids;
        for (auto& kv : conns_) {
            if (!kv.second.dead && kv.second.sent < kv.second.out.size()) {
                fds.push_back(pollfd{kv.second.fd, POLLOUT, 0});
                ids.push_back(kv.first);
            }
        }
        if (fds.empty() || waited >= timeoutMs)
            return;
        int r = ::poll(fds.data(), fds.size(), 50);
        waited += 50;
        if (r <= 0)
            continue;
        for (std::size_t i = 0; i < fds.size(); ++i)
            if (fds[i].revents) {
                auto it = conns_.find(ids[i]);
                if (it != conns_.end())
                    writeTo(it->second);
            }
    }
}

} // namespace tamkern
