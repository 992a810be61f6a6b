// What the kernel does with the clients' requests.
#ifndef TAMKERN_DISPATCHER_H
#define TAMKERN_DISPATCHER_H

#include <chrono>
#include <deque>
#include <set>
#include <string>
#include <vector>

#include "tamkern/Engine.h"
#include "tamkern/Requests.h"
#include "tamkern/Session.h"

namespace tamkern {

// The completions of prefix among sorted names, blank-separated.
std::string completionList(const std::vector<std::string>& names, const std::string& prefix);

// Announces clients and answers at once everything that needs no evaluation:
// settings, format choices, completions (from the names the engine last
// posted), status, stop, quit, the answers to the engine's questions, and an
// init whose start-up files the session has evaluated already. Only commands
// and start-up files that are still to be evaluated wait, in one queue in
// arrival order, and go to the engine one job at a time.
//
// Start-up files: each file is evaluated once per kernel, by the job of the
// first init that names it. A client is ready once every file its init names
// has been evaluated: at once if they all have been, else when the last job
// that evaluates one of them ends.
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

    using Clock = std::chrono::steady_clock;
    // How long a stopped command may take to end before its client hears
    // that the computation does not respond.
    static constexpr std::chrono::milliseconds StopGrace{3000};
    // The text of that warning.
    static constexpr const char* NotResponding =
        "the computation does not respond to stop; restart the kernel to end it";

    // Sends through host; jobs go to engine, which must have been started.
    Dispatcher(Host& host, Engine& engine, std::chrono::milliseconds stopGrace = StopGrace);

    // A complete request from connection conn. Ignored once quitting.
    void request(int conn, Request& req);
    // Connection conn has closed: its clients leave.
    void connectionClosed(int conn);
    // A message from the engine for a client; dropped if the client has left.
    void deliver(long client, std::string message);
    // The engine's current names for completion, sorted.
    void names(std::vector<std::string> names);
    // The engine has finished its job and takes the next one.
    void jobDone();
    // Runs queued requests until one goes to the engine or none is left.
    void dispatch();
    // When the client of a stopped command that still runs is to be told
    // that it does not respond; Clock::time_point::max() if there is none.
    Clock::time_point stopDeadline() const;
    // Tells that client, once, if now is past that time.
    void checkStopped(Clock::time_point now);

    // A client asked the kernel to quit: every connection has been told.
    bool quitting() const { return quitting_; }
    // The clients, for the server to judge whether the kernel should end.
    const Session& session() const { return session_; }

private:
    struct Pending {
        int conn;
        Job job;
        std::string error; // a command that fails without evaluation
    };
    // The job the engine has.
    struct Running {
        bool active = false;
        Job::Kind kind = Job::Command;
        long client = -1;
        long long cid = 0;
        std::vector<std::string> initFiles;
        Clock::time_point deadline = Clock::time_point::max();
        bool warned = false;
    };
    // A client whose init waits for start-up files.
    struct WaitingInit {
        long client;
        std::vector<std::string> files;
        std::vector<std::string> warnings;
    };

    void announce(int conn, const Request& req);
    Client* resolve(int conn, const Request& req);
    bool answerAtOnce(Client& cl, const Request& req);
    void removeClient(long id);
    void enqueue(int conn, Job job, std::string error = std::string());
    void runQueued(Pending& p);
    void applySetting(Client& cl, const Request& req);
    void chooseFormat(Client& cl, const Request& req);
    void complete(const Client& cl, const std::string& prefix);
    void init(Client& cl, const Request& req);
    void releaseReadyInits();
    void command(Client& cl, Request& req);
    void stop(const Client& cl);
    void quit();

    Host& host_;
    Engine& engine_;
    std::chrono::milliseconds stopGrace_;
    Session session_;
    std::deque<Pending> queue_;
    Running running_;
    bool quitting_ = false;
    std::vector<std::string> names_;
    bool haveNames_ = false;
    std::vector<std::pair<long, std::string>> waitingCompletions_; // until names come
    std::set<std::string> loadedFiles_, loadingFiles_;
    std::vector<WaitingInit> waitingInits_;
};

} // namespace tamkern

#endif
