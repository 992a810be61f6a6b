// The evaluator as the server sees it. Everything crosses as values: jobs
// and answers go in, messages for the clients (complete wire bytes) and the
// end of each job come back through the host, so that an engine can as well
// run elsewhere, behind a pipe, as on a thread of this process.
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
};

// The result formats an engine produces.
inline constexpr const char* ResultFormats[] = {"text", "tex", "mathml", "utf8"};

// One piece of work.
struct Job {
    enum Kind { Init, Command, Complete };
    Kind kind = Command;
    long client = -1;
    long long cid = 0;
    std::string text;              // command text, or the completion prefix
    std::vector<std::string> args; // init arguments
    ResultStyle style;
};

// The questions a running command may put to its client, and the answers.
enum class Question { Input, TextInput, System, Callback };
struct Answer {
    bool canceled = false; // input canceled, callback error
    std::string text;      // input text, callback payload bytes
    long long value = 0;   // system result
};

// What the engine reports to the server. Either call may come from any
// thread.
class EngineHost {
public:
    virtual ~EngineHost() = default;
    // Queues one message for a client; messages keep their order.
    virtual void post(long client, std::string message) = 0;
    // The job submitted last has ended; all its messages have been posted.
    virtual void jobDone() = 0;
};

// Runs the jobs of all clients in one shared session, one job at a time.
// Called on the server's thread only; no call but shutdown() waits for a
// computation.
class Engine {
public:
    virtual ~Engine() = default;

    // Sets up the session; jobs, interrupts and answers come only after.
    virtual void start() = 0;
    // Hands over the next job. The server submits one only after jobDone()
    // for the one before.
    virtual void submit(Job job) = 0;
    // Stops the client's running job, or its command submitted but not yet
    // begun: it ends as interrupted, and a question it has asked is given
    // up. Nothing happens if the client has neither.
    virtual void interrupt(long client) = 0;
    // The client has left: its job is interrupted, or dropped if not yet
    // begun. Messages still posted for it are the server's to drop.
    virtual void clientGone(long client) = 0;
    // The client's answer to the question its job has asked. Ignored unless
    // that job is waiting for an answer of this kind.
    virtual void answer(long client, Question kind, Answer answer) = 0;
    // Ends the session: interrupts what runs and waits up to timeoutMs for
    // it to stop. false if it is still running, busy in code that ignores
    // interrupts; the engine must then not be destroyed.
    virtual bool shutdown(int timeoutMs) = 0;
};

} // namespace tamkern

#endif
