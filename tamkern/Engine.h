// The Giac session that all clients share, evaluated on a worker thread so
// that the socket loop stays responsive. This header is Giac-free: Giac's
// headers are slow to compile and are seen by Engine.cpp only.
#ifndef TAMKERN_ENGINE_H
#define TAMKERN_ENGINE_H

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tamkern {

class OutputCapture;

// How a client wants its results.
struct ResultStyle {
    long textWidth = 0;        // < 1: no wrapping
    bool prettyPrint = false;  // matrices one row per line
    bool abbreviate = false;   // shorten very long results
    std::string format = "text";  // text, tex, mathml or utf8
};

// The result formats an engine produces; ResultStyle::format is one of them.
inline constexpr const char* ResultFormats[] = {"text", "tex", "mathml", "utf8"};

// One piece of work for the worker.
struct Job {
    enum Kind { Init, Command, Complete };
    Kind kind = Command;
    long client = -1;
    long long cid = 0;
    std::string text;               // command text, or the completion prefix
    std::string error;              // a command that failed before Giac saw it
    std::vector<std::string> args;  // init arguments
    ResultStyle style;
    bool stopped = false;           // stop arrived before the worker took it
};

// The kernel's questions to the front end, and their answers.
enum class Question { None, Input, TextInput, System, Callback };
struct Answer {
    bool canceled = false;  // input canceled, callback error
    std::string text;       // input text, callback payload bytes
    long long value = 0;    // system result
};

// What the worker needs from the socket side. Called on the worker thread.
class EngineHost {
public:
    virtual ~EngineHost() = default;
    // Queues one message for a client, in order.
    virtual void post(long client, std::string message) = 0;
    // The current job has ended; its last message has been posted.
    virtual void jobDone() = 0;
};

class Engine {
public:
    Engine(EngineHost& host, OutputCapture* capture);
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    // Starts the worker, which creates the Giac session.
    void start();
    // Hands the worker its next job; the host calls it only after jobDone()
    // for the previous one.
    void submit(Job job);
    // Interrupts the running job if it belongs to client (Giac's interrupt
    // flag, and any pending question is canceled). false if there was none.
    bool interrupt(long client);
    // The client has gone: its running job is interrupted and no question
    // waits for it any more.
    void clientGone(long client);
    // Delivers an answer; false if no question of that kind from that client
    // is pending (then nothing happens).
    bool answer(long client, Question kind, Answer a);
    // Ends the worker: interrupts what runs and waits up to timeoutMs. false
    // if the worker is stuck in code that ignores interrupts.
    bool shutdown(int timeoutMs);

    // Worker-side helpers used by the Giac glue; not for the socket side.
    struct Impl;

private:
    void run();

    EngineHost& host_;
    OutputCapture* capture_;
    std::unique_ptr<Impl> impl_;
    std::thread thread_;

    std::mutex mutex_;
    std::condition_variable cond_;
    std::vector<Job> jobs_;
    std::vector<long> gone_;  // clients that left; their jobs are dropped
    bool quit_ = false;
    bool finished_ = false;
    // The running job and its question.
    long runningClient_ = -1;
    bool running_ = false;
    bool interruptRequested_ = false;
    Question question_ = Question::None;
    long questionClient_ = -1;
    bool answered_ = false;
    Answer answer_;

    friend struct EngineAccess;
};

} // namespace tamkern

#endif
