// What the kernel does with the clients' requests.
#ifndef TAMKERN_DISPATCHER_H
#define TAMKERN_DISPATCHER_H

#include <chrono>
#include <cstddef>
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
        // A request of connection conn, holding bytes, starts or stops
        // waiting for its turn. Either may close the connection.
        virtual void requestQueued(int conn, std::size_t bytes) = 0;
        virtual void requestTaken(int conn, std::size_t bytes) = 0;
        // A client of connection conn is announced or leaves. Either may
        // close the connection.
        virtual void clientAdded(int conn) = 0;
        virtual void clientRemoved(int conn) = 0;
    };

    using Clock = std::chrono::steady_clock;
    // How long a stopped command may take to end before its client hears
    // that the computation does not respond, and before the evaluator is
    // restarted to end it (also when its client has left).
    static constexpr std::chrono::milliseconds StopWarning{3000};
    static constexpr std::chrono::milliseconds StopGrace{5000};
    // The texts of that warning, of the command's error when the evaluator
    // had to be restarted, and of the warning the other clients then get.
    static constexpr const char* NotResponding =
        "the computation does not respond to stop; the evaluator is restarted if it has not "
        "stopped in 2 more seconds";
    static constexpr const char* RestartedAfterStop =
        "interrupted; the computation did not respond to stop, so the evaluator was restarted: "
        "the session's variables and history are lost";
    static constexpr const char* Restarted =
        "the evaluator was restarted: the session's variables and history are lost";
    // How the error of a command whose evaluator crashed begins; the
    // engine's account of the crash and the loss follow.
    static constexpr const char* Crashed = "the evaluator crashed";

    // Sends through host; jobs go to engine, which must have been started.
    // stopWarning and stopGrace as above.
    Dispatcher(Host& host, Engine& engine, std::chrono::milliseconds stopWarning = StopWarning,
               std::chrono::milliseconds stopGrace = StopGrace);

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
    // The engine's evaluator died (why says how) and a fresh one took its
    // place: the running job's client hears so, the others are warned, and
    // the start-up files run again first.
    void evaluatorLost(const std::string& why);
    // Runs queued requests until one goes to the engine or none is left.
    void dispatch();
    // When a stopped command that still runs is next to be seen to: its
    // client warned, or the evaluator restarted; Clock::time_point::max()
    // if there is none.
    Clock::time_point stopDeadline() const;
    // Does that if now is past that time.
    void checkStopped(Clock::time_point now);

    // Completions waiting for the engine's first names at most; later ones
    // are answered with none.
    static constexpr std::size_t MaxWaitingCompletions = 256;
    // A prefix longer than any name completes to nothing at once.
    static constexpr std::size_t MaxPrefix = 256;
    // Payloads of commands inflating to this much at most are read by the
    // server; longer ones by the evaluator.
    static constexpr std::size_t InlinePayload = 4096;

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
        Clock::time_point stopped = Clock::time_point::max(); // when stop came
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
    bool answerAtOnce(Client& cl, Request& req);
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
    void stopRunning(long client);
    void restartStopped();
    void afterRestart(long except);
    void quit();

    Host& host_;
    Engine& engine_;
    std::chrono::milliseconds stopWarning_, stopGrace_;
    Session session_;
    std::deque<Pending> queue_;
    Running running_;
    bool quitting_ = false;
    std::vector<std::string> names_;
    bool haveNames_ = false;
    std::vector<std::pair<long, std::string>> waitingCompletions_; // until names come
    std::set<std::string> loadedFiles_, loadingFiles_;
    std::vector<std::string> reloadFiles_; // evaluated whole, in order: again after a restart
    std::vector<WaitingInit> waitingInits_;
};

} // namespace tamkern

#endif
