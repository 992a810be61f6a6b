// The kernel's socket side: the listening socket, the connections with their
// request readers and ordered output queues, the clients, and the queue of
// requests that wait for the Giac worker. Runs on the main thread; only
// post() and jobDone() are called from the worker.
#ifndef TAMKERN_SERVER_H
#define TAMKERN_SERVER_H

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "tamkern/Engine.h"
#include "tamkern/Requests.h"

namespace tamkern {

class OutputCapture;

struct ServerOptions {
    std::string path;         // where to listen
    bool standalone = false;  // --listen: outlive the clients, no SIGUSR1
};

class Server : public EngineHost {
public:
    Server(ServerOptions options, OutputCapture* capture);
    ~Server() override;

    // Listens, tells the parent (unless standalone) and serves until the
    // kernel ends. Returns the exit status.
    int run();

    // Called from the SIGTERM handler: ends run() soon.
    static void terminate();

    void post(long client, std::string message) override;
    void jobDone() override;

    // Bytes a connection may have waiting to be sent before the kernel gives
    // up on it (a client that never reads), besides the biggest message in
    // the queue: one huge result must not cost a client that does read.
    static const std::size_t MaxQueued = 64u << 20;
    // Requests of one connection that may wait for the worker before the
    // kernel stops reading from it until some have run: a client that sends
    // without pause must not fill the kernel's memory.
    static const std::size_t MaxWaiting = 10000;

private:
    struct Client {
        long id = -1;
        int conn = -1;
        std::string name, frame;
        std::set<std::string> features;
        ResultStyle style;
    };
    struct Connection {
        int id = -1;
        int fd = -1;
        std::unique_ptr<RequestReader> reader;
        std::string out;        // bytes not yet sent
        std::size_t sent = 0;   // of out
        std::size_t largest = 0;  // biggest message queued since out was empty
        std::size_t waiting = 0;  // of its requests in queue_
        std::vector<long> clients;  // in announcement order
        bool dead = false;      // close at the next opportunity
        bool everHadClient = false;
    };
    struct Pending {
        int conn;
        long client;
        Request req;
    };
    struct Event {
        bool done;
        long client;
        std::string message;
    };

    bool listen();
    void acceptAll();
    void readFrom(Connection& c);
    void writeTo(Connection& c);
    void enqueue(Connection& c, std::string bytes);
    void closeConnection(int connId, const char* why);
    void reapDead();
    void handleEvents();
    void onRequest(int connId, Request& req);
    Client* resolveClient(Connection& c, const Request& req);
    void removeClient(long id);
    void dispatch();
    void runQueued(Pending& p);
    void sendStatus(Client& cl);
    void quitKernel();
    bool shouldEnd() const;
    void flushAll(int timeoutMs);

    ServerOptions options_;
    OutputCapture* capture_;
    Engine engine_;
    int listenFd_ = -1;
    // Held open so that a connection can still be taken and refused when the
    // descriptors run out; otherwise it would wait on the listening socket
    // and keep every poll() returning at once.
    int spareFd_ = -1;
    bool acceptPaused_ = false;  // out of descriptors and no spare either
    std::map<int, Connection> conns_;
    std::map<long, Client> clients_;
    std::deque<Pending> queue_;
    bool busy_ = false;  // the worker has a job
    long nextClientId_ = 1;
    int nextConnId_ = 1;
    bool everConnected_ = false;
    bool everHadClient_ = false;
    bool stayAlive_ = false;
    bool quitting_ = false;

    std::mutex eventMutex_;
    std::vector<Event> events_;
};

} // namespace tamkern

#endif
