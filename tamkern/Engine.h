// The evaluator as the server sees it. Everything crosses as values: jobs
// and answers go in, messages for the clients (complete wire bytes) and the
// end of each job come back through the host, so that the engine can run
// elsewhere: the kernel runs it in a process of its own, behind a socket.
#ifndef TAMKERN_ENGINE_H
#define TAMKERN_ENGINE_H

#include <string>
#include <vector>

namespace tamkern {

// How a client wants its results.
struct ResultStyle {
    long textWidth = 0;          // < 1: no wrapping
    bool prettyPrint = false;    // matrices one row per line
    bool abbreviate = false;     // shorten very long results
    std::string format = "text"; // one of ResultFormats
    bool plots = false;          // graphics as plot files (the client can_plot)
};

// The result formats an engine produces.
inline constexpr const char* ResultFormats[] = {"text", "tex", "mathml", "utf8"};

// One piece of work: a command of a client, or the start-up files that a
// client's init named and that the session has not evaluated yet (their
// failures are that client's warnings).
struct Job {
    enum Kind { Init, Command };
    Kind kind = Command;
    long client = -1;
    long long cid = 0;
    std::string text;                   // command text
    bool encoded = false;               // text is still the base64 of a zlib stream
    std::vector<std::string> initFiles; // start-up files, in order
    bool history = true;                // keep the command and its result
    ResultStyle style;
};

// The questions a running command may put to its client, and the answers.
enum class Question { Input, TextInput, System, Callback };
struct Answer {
    bool canceled = false; // input canceled, callback error
    std::string text;      // input text, callback payload bytes
    bool encoded = false;  // text is still the base64 of a zlib stream
    long long value = 0;   // system result
};

// What the engine reports to the server, in order, from the server's
// thread; the host acts on it once the engine's call has returned.
class EngineHost {
public:
    virtual ~EngineHost() = default;
    // Queues one message for a client.
    virtual void post(long client, std::string message) = 0;
    // The names that completion offers (functions and variables) have
    // changed: all of them, sorted. Posted after start() and whenever a job
    // changed them, before that job's last message.
    virtual void names(std::vector<std::string> names) = 0;
    // The job submitted last has ended and the engine takes the next. All
    // its messages have been posted but for a command's last (finished),
    // which comes right after this call: a request its client sends on
    // seeing that message finds the engine free.
    virtual void jobDone() = 0;
    // The evaluator died on its own (why says how) and a fresh one with an
    // empty session has taken its place: the job it had, if any, is over
    // without jobDone(), and what it had not posted is lost.
    virtual void lost(std::string why) = 0;
};

// Runs the jobs of all clients in one shared session, one job at a time.
// Called on the server's thread only; no call waits for a computation.
class Engine {
public:
    virtual ~Engine() = default;

    // Sets up the session; jobs, interrupts and answers come only after.
    virtual void start() = 0;
    // Hands over the next job. The server submits one only after jobDone()
    // for the one before.
    virtual void submit(Job job) = 0;
    // Stops the client's running command, or its command submitted but not
    // yet begun: it ends as interrupted, and a question it has asked is given
    // up. Nothing happens if the client has neither. Start-up files are the
    // session's and are not stopped.
    virtual void interrupt(long client) = 0;
    // The client has left: its command is interrupted, or dropped if not
    // yet begun. Messages still posted for it are the server's to drop.
    virtual void clientGone(long client) = 0;
    // The client's answer to the question its job has asked. Ignored unless
    // that job is waiting for an answer of this kind.
    virtual void answer(long client, Question kind, Answer answer) = 0;
    // Ends the session: interrupts what runs and waits up to timeoutMs for
    // it to stop, then ends it by force. false if it could not be ended.
    virtual bool shutdown(int timeoutMs) = 0;
    // Ends the evaluator at once, whatever it is doing, and starts a fresh
    // one with an empty session. The job it had is over without jobDone();
    // lost() is not called. false if this engine cannot.
    virtual bool restart() = 0;

    // For the server's poll loop: the descriptor to watch (-1: none), the
    // events to watch it for, and what to do when poll() reports some.
    virtual int pollFd() const { return -1; }
    virtual short pollEvents() const { return 0; }
    virtual void serve(short /*revents*/) {}
    // The process that computes, for its figures in status; 0 if none of
    // its own.
    virtual int processId() const { return 0; }
};

} // namespace tamkern

#endif
