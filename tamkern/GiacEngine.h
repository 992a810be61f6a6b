// The Giac engine. This header is Giac-free: Giac's headers are slow to
// compile and are seen by GiacSession.cpp, GiacFunctions.cpp and
// GiacRender.cpp only.
#ifndef TAMKERN_GIACENGINE_H
#define TAMKERN_GIACENGINE_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
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
    // collected through capture (none if null).
    GiacEngine(EngineHost& host, OutputCapture* capture);
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

private:
    class Channel;
    struct Queued {
        Job job;
        bool stopped = false; // stop arrived before the worker took it
    };

    void run();
    bool take(Queued& next, bool& clientGone);
    void endJob();
    void raiseInterruptLocked();
    Answer ask(long client, Question kind, std::string message);
    bool interruptRequested();

    EngineHost& host_;
    OutputCapture* capture_;
    std::thread thread_;

    std::mutex mutex_;
    std::condition_variable cond_;
    std::vector<Queued> jobs_;
    std::vector<long> gone_; // clients that left; their jobs are dropped
    bool quit_ = false;
    bool finished_ = false;
    // The running job and its question.
    long runningClient_ = -1;
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
