// The kernel's main loop.
#ifndef TAMKERN_SERVER_H
#define TAMKERN_SERVER_H

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tamkern/Connection.h"
#include "tamkern/Dispatcher.h"
#include "tamkern/Engine.h"
#include "tamkern/Listener.h"

struct pollfd;

namespace tamkern {

struct ServerOptions {
    std::string path;        // where to listen
    bool standalone = false; // --listen: outlive the clients, no SIGUSR1
};

// One poll() over the listening socket, the connections and a wake-up pipe,
// through which the engine's messages and the SIGTERM handler reach it.
// Everything but post() and jobDone(), which the engine may call from any
// thread, runs on the thread that calls run().
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
    // After run(): the engine did not stop when told to, being busy in code
    // that ignores interrupts. The process must then end without destroying
    // the server.
    bool engineStuck() const { return engineStuck_; }

    // Called from the SIGTERM handler: ends run() soon.
    static void terminate();

private:
    struct Event {
        enum Kind { Message, Names, Done } kind;
        long client;
        std::string message;
        std::vector<std::string> names;
    };

    void post(long client, std::string message) override;
    void names(std::vector<std::string> names) override;
    void jobDone() override;
    void pushEvent(Event ev);
    void send(int conn, std::string bytes) override;
    void sendLastToAll(std::string bytes) override;
    void requestQueued(int conn) override;
    void requestTaken(int conn) override;

    void serve();
    int pollTimeoutMs() const;
    void pollSet(std::vector<pollfd>& fds, std::vector<int>& ids) const;
    void acceptAll();
    void serveConnections(const std::vector<pollfd>& fds, const std::vector<int>& ids);
    void reapClosed();
    void handleEvents();
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
    bool engineStuck_ = false;

    std::mutex eventMutex_;
    std::vector<Event> events_; // from the engine, in order
};

} // namespace tamkern

#endif
