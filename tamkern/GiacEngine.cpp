#include "tamkern/GiacEngine.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "tamkern/GiacSession.h"

namespace tamkern {

// A job's way back to its client, through the engine.
class GiacEngine::Channel : public JobChannel {
public:
    Channel(GiacEngine& engine, long client) : engine_(engine), client_(client) {}

    void post(std::string message) override { engine_.host_.post(client_, std::move(message)); }
    Answer ask(Question q, std::string message) override
    {
        return engine_.ask(client_, q, std::move(message));
    }
    bool interrupted() override { return engine_.interruptRequested(); }

private:
    GiacEngine& engine_;
    long client_;
};

GiacEngine::GiacEngine(EngineHost& host, OutputCapture* capture, std::string plotDir)
    : host_(host), capture_(capture), plotDir_(std::move(plotDir))
{
}

GiacEngine::~GiacEngine()
{
    shutdown(2000);
}

void GiacEngine::start()
{
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, WorkerStack);
    int rc = pthread_create(&thread_, &attr, &GiacEngine::threadMain, this);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        // A smaller stack only makes deep recursion fail sooner.
        rc = pthread_create(&thread_, nullptr, &GiacEngine::threadMain, this);
    }
    if (rc != 0)
        throw std::runtime_error("cannot start the evaluation thread");
    started_ = true;
}

void* GiacEngine::threadMain(void* self)
{
    static_cast<GiacEngine*>(self)->run();
    return nullptr;
}

void GiacEngine::submit(Job job)
{
    std::lock_guard<std::mutex> lock(mutex_);
    jobs_.push_back(Queued{std::move(job)});
    cond_.notify_all();
}

void GiacEngine::raiseInterruptLocked()
{
    interruptRequested_ = true;
    GiacSession::setInterrupt(true);
    cond_.notify_all();
}

void GiacEngine::interrupt(long client)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (running_ && runningClient_ == client && runningKind_ == Job::Command) {
        raiseInterruptLocked();
        return;
    }
    for (Queued& q : jobs_) {
        if (q.job.client == client && q.job.kind == Job::Command) {
            q.stopped = true;
            return;
        }
    }
}

void GiacEngine::clientGone(long client)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        gone_.push_back(client);
    }
    interrupt(client);
}

void GiacEngine::answer(long client, Question kind, Answer a)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (!asking_ || question_ != kind || questionClient_ != client || answered_)
        return;
    answer_ = std::move(a);
    answered_ = true;
    cond_.notify_all();
}

bool GiacEngine::shutdown(int timeoutMs)
{
    if (!started_)
        return true;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        quit_ = true;
        if (running_)
            raiseInterruptLocked();
        cond_.notify_all();
        if (!cond_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                            [this] { return finished_; }))
            return false;
    }
    pthread_join(thread_, nullptr);
    started_ = false;
    return true;
}

// The worker: the Giac session is made, used and destroyed on this thread.
void GiacEngine::run()
{
    {
        GiacSession session(capture_, plotDir_,
                            [this](std::vector<std::string> n) { host_.names(std::move(n)); });
        Queued next;
        bool gone = false;
        while (take(next, gone)) {
            std::string last;
            if (!gone) {
                Channel channel(*this, next.job.client);
                last = session.run(next.job, channel);
            }
            // Free before the client hears that its command has finished:
            // a stop it sends then is for its next command.
            endJob();
            host_.jobDone();
            if (!last.empty())
                host_.post(next.job.client, std::move(last));
        }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    finished_ = true;
    cond_.notify_all();
}

// Waits for the next job and makes it the running one; false once the
// engine is to end. clientGone tells whether its client has left already.
bool GiacEngine::take(Queued& next, bool& clientGone)
{
    std::unique_lock<std::mutex> lock(mutex_);
    cond_.wait(lock, [this] { return quit_ || !jobs_.empty(); });
    if (quit_)
        return false;
    next = std::move(jobs_.front());
    jobs_.erase(jobs_.begin());
    running_ = true;
    runningClient_ = next.job.client;
    runningKind_ = next.job.kind;
    interruptRequested_ = next.stopped;
    GiacSession::setInterrupt(next.stopped);
    // Start-up files are the session's: they run whoever asked for them.
    clientGone = next.job.kind == Job::Command &&
                 std::find(gone_.begin(), gone_.end(), runningClient_) != gone_.end();
    return true;
}

void GiacEngine::endJob()
{
    std::lock_guard<std::mutex> lock(mutex_);
    running_ = false;
    runningClient_ = -1;
    asking_ = false;
    GiacSession::setInterrupt(false);
}

Answer GiacEngine::ask(long client, Question kind, std::string message)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (interruptRequested_)
        throw Failure("interrupted");
    asking_ = true;
    question_ = kind;
    questionClient_ = client;
    answered_ = false;
    lock.unlock();
    host_.post(client, std::move(message));
    lock.lock();
    cond_.wait(lock, [this] { return answered_ || interruptRequested_; });
    asking_ = false;
    if (!answered_)
        throw Failure("interrupted");
    answered_ = false;
    return std::move(answer_);
}

bool GiacEngine::interruptRequested()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return interruptRequested_;
}

} // namespace tamkern
