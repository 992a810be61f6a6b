// The Giac engine. This header is Giac-free: Giac's headers are slow to
// compile and are seen by GiacSession.cpp, GiacFunctions.cpp and
// GiacRender.cpp only.
#ifndef TAMKERN_GIACENGINE_H
#define TAMKERN_GIACENGINE_H

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <pthread.h>
#include <string>
#include <vector>

#include "tamkern/Engine.h"

namespace tamkern {

class OutputCapture;

// Computes with Giac on a worker thread of this process, so that the
// server's loop stays responsive. The Engine calls hand over under a lock and
// return at once; the worker reports through the host.
class GiacEngine final : public Engine {
public:
    // Reports to host; what a command writes to descriptors 1 and 2 is
    // collected through capture (none if null); plot files go to plotDir
    // (none if empty: graphics stay text).
    GiacEngine(EngineHost& host, OutputCapture* capture, std::string plotDir);
    // Shuts down as shutdown(2000) does.
    ~GiacEngine() override;
    GiacEngine(const GiacEngine&) = delete;
    GiacEngine& operator=(const GiacEngine&) = delete;

    void start() override;
    void submit(Job job) override;
    void interrupt(long client) override;
    void clientGone(long client) override;
    void answer(long client, Question kind, Answer answer) override;
    bool shutdown(int timeoutMs) override;

    // The worker's stack: the session's recursion limit stops user
    // functions far from its end (some tens of KiB a level at most, more in
    // a sanitizer build). Address space only; pages are used as deep as a
    // computation goes.
    static const std::size_t WorkerStack = std::size_t(256) << 20;

private:
    class Channel;
    struct Queued {
        Job job;
        bool stopped = false; // stop arrived before the worker took it
    };

    static void* threadMain(void* self);
    void run();
    bool take(Queued& next, bool& clientGone);
    void endJob();
    void raiseInterruptLocked();
    Answer ask(long client, Question kind, std::string message);
    bool interruptRequested();

    EngineHost& host_;
    OutputCapture* capture_;
    std::string plotDir_;
    pthread_t thread_{};
    bool started_ = false;

    std::mutex mutex_;
    std::condition_variable cond_;
    std::vector<Queued> jobs_;
    std::vector<long> gone_; // clients that left; their jobs are dropped
    bool quit_ = false;
    bool finished_ = false;
    // The running job and its question.
    long runningClient_ = -1;
    Job::Kind runningKind_ = Job::Command;
    bool running_ = false;
    bool interruptRequested_ = false;
    bool asking_ = false;
    Question question_ = Question::Input;
    long questionClient_ = -1;
    bool answered_ = false;
    Answer answer_;
};

} // namespace tamkern

#endif
