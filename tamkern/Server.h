// The kernel's main loop.
#ifndef TAMKERN_SERVER_H
#define TAMKERN_SERVER_H

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tamkern/Connection.h"
#include "tamkern/Dispatcher.h"
#include "tamkern/Engine.h"
#include "tamkern/Limits.h"
#include "tamkern/Listener.h"

struct pollfd;

namespace tamkern {

struct ServerOptions {
    std::string path;        // where to listen
    bool standalone = false; // --listen: outlive the clients, no SIGUSR1
    Limits limits;
};

// One poll() over a wake-up pipe (the SIGTERM handler's way in), the
// listening socket, the engine's socket and the connections, on one
// thread: the computing happens in the engine's own process.
class Server : private EngineHost, private Dispatcher::Host {
public:
    using EngineFactory = std::function<std::unique_ptr<Engine>(EngineHost&)>;

    // Makes the engine, which is started once the kernel listens.
    Server(ServerOptions options, const EngineFactory& makeEngine);
    // Closes what is still open.
    ~Server() override;

    // Listens, tells the parent (unless standalone) and serves until the
    // kernel ends. Returns the exit status.
    int run();

    // Called from the SIGTERM handler: ends run() soon.
    static void terminate();

private:
    struct Event {
        enum Kind { Message, Names, Done, Lost } kind;
        long client;
        std::string text; // the message, or how the evaluator was lost
        std::vector<std::string> names;
    };

    void post(long client, std::string message) override;
    void names(std::vector<std::string> names) override;
    void jobDone() override;
    void lost(std::string why) override;
    void send(int conn, std::string bytes) override;
    void sendLastToAll(std::string bytes) override;
    void requestQueued(int conn, std::size_t bytes) override;
    void requestTaken(int conn, std::size_t bytes) override;
    void clientAdded(int conn) override;
    void clientRemoved(int conn) override;
    Connection* find(int conn);

    void serve();
    int pollTimeoutMs() const;
    void pollSet(std::vector<pollfd>& fds, std::vector<int>& ids) const;
    void acceptAll();
    void serveConnections(const std::vector<pollfd>& fds, const std::vector<int>& ids);
    void checkConnections();
    std::size_t kernelCost() const;
    std::size_t keepKernelBudget(std::size_t total);
    void reapClosed();
    void settle();
    bool shouldEnd() const;
    void flushAll(int timeoutMs);
    void shutDown();

    ServerOptions options_;
    Listener listener_;
    std::unique_ptr<Engine> engine_;
    Dispatcher dispatcher_;
    std::map<int, Connection> conns_;
    int nextConnId_ = 1;
    bool everConnected_ = false;
    std::vector<Event> events_; // from the engine, in order
};

} // namespace tamkern

#endif
