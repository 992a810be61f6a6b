// What the kernel does with the clients' requests.
#ifndef TAMKERN_DISPATCHER_H
#define TAMKERN_DISPATCHER_H

#include <deque>
#include <string>

#include "tamkern/Engine.h"
#include "tamkern/Requests.h"
#include "tamkern/Session.h"

namespace tamkern {

// Announces clients, answers at once what needs no evaluation (stop,
// status, answers to the engine's questions), and queues the rest in arrival
// order, handing them to the engine one job at a time.
class Dispatcher {
public:
    // What the dispatcher needs from the connections.
    class Host {
    public:
        virtual ~Host() = default;
        // Queues bytes on connection conn, if it is still open. A connection
        // that fails on them is closed, and its clients removed, before this
        // returns.
        virtual void send(int conn, std::string bytes) = 0;
        // Queues the kernel's last message on every connection; none of them
        // is read any more.
        virtual void sendLastToAll(std::string bytes) = 0;
        // A request of connection conn starts or stops waiting for its turn.
        virtual void requestQueued(int conn) = 0;
        virtual void requestTaken(int conn) = 0;
    };

    // Sends through host; jobs go to engine, which must have been started.
    Dispatcher(Host& host, Engine& engine);

    // A complete request from connection conn. Ignored once quitting.
    void request(int conn, Request& req);
    // Connection conn has closed: its clients leave.
    void connectionClosed(int conn);
    // A message from the engine for a client; dropped if the client has left.
    void deliver(long client, std::string message);
    // The engine has finished its job and takes the next one.
    void jobDone() { busy_ = false; }
    // Runs queued requests until one goes to the engine or none is left.
    void dispatch();

    // A client asked the kernel to quit: every connection has been told.
    bool quitting() const { return quitting_; }
    // The clients, for the server to judge whether the kernel should end.
    const Session& session() const { return session_; }

private:
    struct Pending {
        int conn;
        long client;
        Request req;
    };

    void announce(int conn, const Request& req);
    Client* resolve(int conn, const Request& req);
    bool answerAtOnce(Client& cl, const Request& req);
    void removeClient(long id);
    void runQueued(Pending& p);
    void applySetting(Client& cl, const Request& req);
    void chooseFormat(Client& cl, const Request& req);
    void runCommand(Client& cl, Request& req);
    void submit(Job job);
    void quit();

    Host& host_;
    Engine& engine_;
    Session session_;
    std::deque<Pending> queue_;
    bool busy_ = false; // the engine has a job
    bool quitting_ = false;
};

} // namespace tamkern

#endif
