// Fuzzes the kernel's connection handling as its server runs it: bytes from
// one or two clients, in chunks, through socket pairs into real connections
// (request reader, budgets, idle time) and the dispatcher, with an engine
// that answers, asks, crashes and ignores stops as the input says, its
// reports queued and handled after each step as the server does. Checked:
//   - whatever the kernel sends a client parses as XML messages (one bad
//     byte would stop the client's reader for good);
//   - a connection is closed by the time its cost passes its budget by more
//     than one read can add;
//   - memory the kernel holds besides what it counts stays small (with
//     AddressSanitizer, which can tell what is allocated).
// With TAMIX_FUZZ_RESOURCE=1 the input's body is also fed 32 times over:
// processor time may grow no more than linearly, and the counted cost
// still stays within the budget.
//
// Input: two bytes of chunk sizes (FuzzCommon.h), one byte of flags, then
// the clients' bytes. Flags: 1 two clients (chunks alternate), 2 the second
// does not read, 4 the engine asks a question first, 8 every third job
// crashes the evaluator, 16 stops are ignored (the grace runs out).
#include <expat.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <map>
#include <memory>

#include "FuzzCommon.h"
#include "tamkern/Connection.h"
#include "tamkern/Dispatcher.h"
#include "tamkern/Messages.h"

namespace tamkern {
// The server's log, formatted but not written (Capture.cpp is not linked).
void klog(const char* fmt, ...)
{
    char line[1024];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
}
} // namespace tamkern

namespace {

using namespace tamkern;

enum Flags { TwoClients = 1, DeafSecond = 2, Asks = 4, Crashes = 8, IgnoresStop = 16 };

// Small budgets, so that short inputs reach them.
Limits smallLimits()
{
    Limits l;
    l.connectionBytes = 1 << 20;
    l.kernelBytes = 3 << 20;
    l.waitingBytes = 256 << 10;
    return l;
}

// The engine's reports, queued as the server queues them.
struct Event {
    enum Kind { Post, Done, Lost } kind;
    long client;
    std::string text;
};

// An engine that runs each job in a few steps: perhaps a question, an
// output echoing the job's text, the end; or a crash.
struct StepEngine : Engine {
    unsigned flags = 0;
    std::deque<Event>* events = nullptr;
    bool running = false, asking = false, stopped = false;
    Job job;
    int jobs = 0;

    void start() override {}
    void submit(Job j) override
    {
        job = std::move(j);
        running = true;
        stopped = false;
        asking = (flags & Asks) && job.kind == Job::Command;
        if (asking)
            events->push_back(
                {Event::Post, job.client, msgSendInput(job.client, job.cid, false, job.text)});
    }
    void interrupt(long client) override
    {
        if (running && job.client == client && job.kind == Job::Command && !(flags & IgnoresStop))
            stopped = true;
    }
    void clientGone(long client) override { interrupt(client); }
    void answer(long client, Question, Answer a) override
    {
        if (running && asking && client == job.client) {
            asking = false;
            job.text += a.text;
        }
    }
    bool shutdown(int) override { return true; }
    bool restart() override
    {
        running = asking = false;
        return true;
    }
    // One step of the running job, if it is not waiting for an answer.
    void step()
    {
        if (!running || (asking && !stopped))
            return;
        running = asking = false;
        if ((flags & Crashes) && ++jobs % 3 == 0) {
            events->push_back({Event::Lost, -1, "signal 11, Segmentation fault"});
            return;
        }
        if (job.kind == Job::Command)
            events->push_back(
                {Event::Post, job.client,
                 stopped ? msgOutputText(job.client, job.cid, "error", "text", "interrupted")
                         : msgOutputText(job.client, job.cid, "result", "text", job.text)});
        events->push_back({Event::Done, job.client, std::string()});
        if (job.kind == Job::Command)
            events->push_back({Event::Post, job.client, msgFinished(job.client, job.cid)});
    }
};

// The server's part: connections, the dispatcher, the engine's reports.
class Kernel : private Dispatcher::Host {
public:
    explicit Kernel(unsigned flags)
        : dispatcher_(*this, engine_, std::chrono::milliseconds(0), std::chrono::milliseconds(0))
    {
        engine_.flags = flags;
        engine_.events = &events_;
        for (int i = 0; i < 2; ++i) {
            int sv[2];
            if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0)
                std::abort();
            ::fcntl(sv[0], F_SETFL, O_NONBLOCK);
            ::fcntl(sv[1], F_SETFL, O_NONBLOCK);
            peers_[i] = sv[1];
            conns_[i] = std::make_unique<Connection>(
                i, sv[0], [this](Connection& c, Request& r) { dispatcher_.request(c.id(), r); },
                [this](Connection& c) { dispatcher_.connectionClosed(c.id()); }, limits_);
        }
    }
    ~Kernel() override
    {
        for (int fd : peers_)
            ::close(fd);
    }

    // Client i says bytes; the kernel reads what it takes, then goes round.
    void say(int i, const char* data, std::size_t len)
    {
        while (len > 0) {
            ssize_t n = ::send(peers_[i], data, len, MSG_NOSIGNAL);
            if (n <= 0)
                break; // a full socket: a real client would wait
            data += n, len -= static_cast<std::size_t>(n);
            turn();
        }
        turn();
    }
    // One turn of the server's loop.
    void turn()
    {
        for (auto& kv : conns_) {
            Connection& c = *kv.second;
            if (c.closed())
                continue;
            c.flush();
            c.readAvailable();
            checkCost(c);
        }
        engine_.step();
        while (!events_.empty()) {
            Event e = std::move(events_.front());
            events_.pop_front();
            if (e.kind == Event::Post)
                dispatcher_.deliver(e.client, std::move(e.text));
            else if (e.kind == Event::Done)
                dispatcher_.jobDone();
            else
                dispatcher_.evaluatorLost(e.text);
            dispatcher_.dispatch();
        }
        dispatcher_.dispatch();
        dispatcher_.checkStopped(Dispatcher::Clock::now());
        for (int i = 0; i < 2; ++i)
            if (!(flags() & DeafSecond) || i == 0)
                drain(i);
    }
    // What the clients heard must be messages, whole ones once all is read.
    void checkHeard()
    {
        for (int i = 0; i < 2; ++i) {
            Connection& c = *conns_[i];
            c.checkIdle(Connection::Clock::now() + std::chrono::hours(1));
            bool all = !(flags() & DeafSecond) || i == 0;
            if (all)
                drain(i);
            // A closed connection's unsent bytes are dropped, maybe in the
            // middle of a message.
            expectMessages(heard_[i], all && !c.closed() && !c.hasUnsent());
        }
    }
    // Bytes the kernel counts now.
    std::size_t counted() const
    {
        std::size_t n = 0;
        for (const auto& kv : conns_)
            n += kv.second->cost();
        return n;
    }
    const Limits& limits() const { return limits_; }

private:
    unsigned flags() const { return engine_.flags; }

    void send(int conn, std::string bytes) override
    {
        if (conns_.count(conn))
            conns_[conn]->send(std::move(bytes));
    }
    void sendLastToAll(std::string bytes) override
    {
        for (auto& kv : conns_)
            kv.second->sendLast(bytes);
    }
    void requestQueued(int conn, std::size_t bytes) override
    {
        if (conns_.count(conn))
            conns_[conn]->requestQueued(bytes);
    }
    void requestTaken(int conn, std::size_t bytes) override
    {
        if (conns_.count(conn))
            conns_[conn]->requestTaken(bytes);
    }
    void clientAdded(int conn) override
    {
        if (conns_.count(conn))
            conns_[conn]->clientAdded(Session::ClientBytes);
    }
    void clientRemoved(int conn) override
    {
        if (conns_.count(conn))
            conns_[conn]->clientRemoved(Session::ClientBytes);
    }

    // A connection is closed once its cost passes its budget by more than
    // one read (64 KiB fed to the XML parser, which may keep some 50 times
    // as much for open elements).
    void checkCost(const Connection& c) const
    {
        const std::size_t oneRead = std::size_t(4) << 20;
        std::size_t held = c.closed() ? c.releasedBytes() : c.ownCost();
        if (held > limits_.connectionBytes + oneRead) {
            std::fprintf(stderr, "connection %d holds %zu bytes\n", c.id(), held);
            __builtin_trap();
        }
    }
    void drain(int i)
    {
        char buf[65536];
        ssize_t n;
        while ((n = ::recv(peers_[i], buf, sizeof buf, MSG_DONTWAIT)) > 0)
            heard_[i].append(buf, static_cast<std::size_t>(n));
    }
    static void expectMessages(const std::string& bytes, bool whole)
    {
        XML_Parser p = XML_ParserCreate("UTF-8");
        const std::string doc = "<r>" + bytes + (whole ? "</r>" : "");
        bool ok = XML_Parse(p, doc.data(), static_cast<int>(doc.size()), whole) == XML_STATUS_OK;
        XML_ParserFree(p);
        if (!ok) {
            std::fprintf(stderr, "not messages: %s\n", bytes.substr(0, 2000).c_str());
            __builtin_trap();
        }
    }

    Limits limits_ = smallLimits();
    StepEngine engine_;
    std::deque<Event> events_;
    Dispatcher dispatcher_;
    std::map<int, std::unique_ptr<Connection>> conns_;
    int peers_[2] = {-1, -1};
    std::string heard_[2];
};

// Feeds the body times times over; the processor time it took.
double run(const uint8_t* data, std::size_t size, int times)
{
    const unsigned flags = data[2];
    std::vector<uint8_t> chunked = {data[0], data[1]};
    chunked.insert(chunked.end(), data + 3, data + size);
    const std::size_t before = fuzz::allocatedBytes();
    const double t0 = fuzz::cpuSeconds();
    {
        Kernel k(flags);
        int chunk = 0;
        for (int t = 0; t < times; ++t) {
            fuzz::feedChunks(chunked.data(), chunked.size(), [&](const char* p, int n) {
                k.say((flags & TwoClients) ? chunk++ % 2 : 0, p, static_cast<std::size_t>(n));
            });
            // What the kernel holds and does not count: the harness's own
            // copies of what the clients heard, queue entries, records.
            if (before && fuzz::allocatedBytes() >
                              before + k.counted() + 32 * (size + 1) * times + (4u << 20)) {
                std::fprintf(stderr, "%zu bytes allocated, %zu counted\n",
                             fuzz::allocatedBytes() - before, k.counted());
                __builtin_trap();
            }
        }
        for (int i = 0; i < 3; ++i)
            k.turn();
        k.checkHeard();
    }
    return fuzz::cpuSeconds() - t0;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    // FuzzCommon writes the chunk sizes in front of each seed; the flags
    // come first in the seed.
    const std::string nc = "<newclient name =\"n\" frame=\"\" features=\"can_typeset \"/>";
    std::vector<std::string> seeds = {
        nc + "<init><iarg value=\"-l\"/><iarg value=\"L\"/></init><cmd cid=\"3\"><text>1&lt;2"
             "</text></cmd><stop/><sendstatus/><complete value=\"fa\"/><quit/>",
        nc + nc +
            "<cmd cl=\"2\" cid=\"1\"><text>a</text></cmd><input cl=\"2\"><text>x</text>"
            "</input><cmd cl=\"1\" cid=\"2\"><mcode format=\"utf8\">eJxLTEoGAAJNASc=</mcode>"
            "</cmd><callresult error=\"0\"><mcode format=\"utf8\">eJxLTEoGAAJNASc=</mcode>"
            "</callresult><format type=\"result\" value=\"tex\"/>",
        nc + "<a><a><a><b x=\"1\">" + std::string(300, 'y') + "<cmd><text>" + std::string(300, 'z'),
    };
    std::vector<std::string> withFlags;
    for (const std::string& s : seeds)
        for (char f : {'\x00', '\x05', '\x1a', '\x0b'})
            withFlags.push_back(std::string(1, f) + s);
    fuzz::writeSeeds(*argc, *argv, withFlags);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size < 3)
        return 0;
    const double once = run(data, size, 1);
    if (fuzz::resourceMode())
        fuzz::expectLinear(once, run(data, size, fuzz::kResourceTimes));
    return 0;
}
