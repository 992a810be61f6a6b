#include "tamkern/Evaluator.h"

#include <csignal>
#include <cstdlib>
#include <deque>
#include <pthread.h>
#include <sys/socket.h>
#include <vector>

#include "tamkern/Capture.h"
#include "tamkern/EvalLink.h"
#include "tamkern/GiacSession.h"
#include "tamkern/Messages.h"

namespace tamkern {

namespace {

// The job that computes, and whether it is to stop. The server's interrupt
// signal carries the job's number, so that one meant for a job that has
// ended meanwhile stops nothing.
volatile sig_atomic_t gRunningSeq = 0;
volatile sig_atomic_t gStop = 0;

void onInterrupt(int, siginfo_t* info, void*)
{
    if (info->si_code == SI_QUEUE && gRunningSeq != 0 && info->si_value.sival_int == gRunningSeq) {
        gStop = 1;
        GiacSession::setInterrupt(true);
    }
}

void stopJob()
{
    gStop = 1;
    GiacSession::setInterrupt(true);
}

// Bytes a frame from the server may carry: a job's text, a callback's
// payload text, with room for their fields.
const std::size_t MaxJobFrame = (std::size_t(64) << 20);

bool readJob(Frame& f, Job& job)
{
    FieldReader r(f.payload);
    long long kind, cid, history, encoded, width, pretty, abbreviate, plots;
    bool ok = r.num(kind) && r.num(cid) && r.num(history) && r.num(encoded) && r.num(width) &&
              r.num(pretty) && r.num(abbreviate) && r.num(plots) && r.str(job.style.format) &&
              r.strs(job.initFiles);
    if (!ok)
        return false;
    job.kind = kind == Job::Init ? Job::Init : Job::Command;
    job.client = static_cast<long>(f.b);
    job.cid = cid;
    job.history = history != 0;
    job.encoded = encoded != 0;
    job.style.textWidth = static_cast<long>(width);
    job.style.prettyPrint = pretty != 0;
    job.style.abbreviate = abbreviate != 0;
    job.style.plots = plots != 0;
    f.payload.erase(0, f.payload.size() - r.left());
    job.text = std::move(f.payload);
    return true;
}

class Evaluator : public JobChannel {
public:
    Evaluator(int fd, std::string plotDir) : fd_(fd), plotDir_(std::move(plotDir)) {}

    int run();

    void post(std::string message) override
    {
        Frame f;
        f.type = Frame::Post;
        f.a = client_;
        f.payload = std::move(message);
        send(std::move(f));
    }
    Answer ask(Question kind, std::string message) override;
    bool interrupted() override { return gStop != 0; }

private:
    enum Next { Got, Woken, End };

    Next next(Frame& f, bool block);
    void send(Frame f);
    void runJob(Frame& f);
    std::string runCommand(Job& job);
    void sendNames(const std::vector<std::string>& names);
    bool control(const Frame& f);
    Answer answerOf(Frame& f);

    int fd_;
    std::string plotDir_;
    FrameReader in_{MaxJobFrame};
    FrameWriter out_;
    std::deque<Frame> pending_;
    GiacSession* session_ = nullptr;
    long client_ = -1;
    int seq_ = 0;
    bool quit_ = false;
    bool closed_ = false; // the server's end is gone
};

// The next frame from the server: Woken when a signal came first (or, not
// blocking, when nothing is there), End when the server has gone.
Evaluator::Next Evaluator::next(Frame& f, bool block)
{
    while (pending_.empty()) {
        if (closed_)
            return End;
        char c;
        if (!block && ::recv(fd_, &c, 1, MSG_PEEK | MSG_DONTWAIT) < 0)
            return Woken;
        std::vector<Frame> got;
        bool wouldBlock = false;
        FrameReader::Status s = in_.readOnce(fd_, got, wouldBlock);
        for (Frame& g : got)
            pending_.push_back(std::move(g));
        if (s != FrameReader::Open)
            closed_ = true;
        else if (pending_.empty() && (wouldBlock || !block))
            return Woken;
    }
    f = std::move(pending_.front());
    pending_.pop_front();
    return Got;
}

void Evaluator::send(Frame f)
{
    out_.queue(std::move(f));
    // The server gone, the process has nothing left to do.
    if (!out_.flush(fd_))
        std::_Exit(0);
}

// An interrupt or quit that concerns the running job; true if f was one.
bool Evaluator::control(const Frame& f)
{
    if (f.type == Frame::Interrupt && f.a == seq_)
        stopJob();
    else if (f.type == Frame::Quit)
        quit_ = true, stopJob();
    else
        return false;
    return true;
}

Answer Evaluator::answerOf(Frame& f)
{
    Answer a;
    FieldReader r(f.payload);
    long long canceled = 1, encoded = 0, value = 0;
    if (!r.num(canceled) || !r.num(encoded) || !r.num(value))
        return a;
    a.canceled = canceled != 0;
    a.value = value;
    f.payload.erase(0, f.payload.size() - r.left());
    if (!encoded) {
        a.text = std::move(f.payload);
    } else if (!a.canceled && !decodeMCode(f.payload, a.text)) {
        klog("client %ld: callback result payload does not decode", client_);
        a.canceled = true;
    }
    return a;
}

Answer Evaluator::ask(Question kind, std::string message)
{
    if (gStop)
        throw Failure("interrupted");
    Frame k;
    k.type = Frame::Ask;
    k.kind = static_cast<unsigned char>(kind);
    k.a = seq_;
    k.b = client_;
    k.payload = std::move(message);
    send(std::move(k));
    for (;;) {
        if (gStop)
            throw Failure("interrupted");
        Frame f;
        Next n = next(f, true);
        if (n == End)
            quit_ = true, stopJob();
        if (n != Got || control(f))
            continue;
        if (f.type == Frame::Answer && f.a == seq_ && f.kind == static_cast<unsigned char>(kind))
            return answerOf(f);
    }
}

std::string Evaluator::runCommand(Job& job)
{
    if (job.encoded) {
        std::string text;
        if (!decodeMCode(job.text, text)) {
            klog("client %ld: command payload does not decode", job.client);
            post(msgOutputText(job.client, job.cid, "error", "text",
                               "the command's payload does not decode"));
            return msgFinished(job.client, job.cid);
        }
        job.text = std::move(text);
        job.encoded = false;
    }
    return session_->run(job, *this);
}

void Evaluator::runJob(Frame& f)
{
    Job job;
    if (!readJob(f, job)) {
        klog("evaluator: damaged job from the server");
        std::_Exit(3);
    }
    seq_ = static_cast<int>(f.a);
    client_ = job.client;
    gStop = 0;
    GiacSession::setInterrupt(false);
    gRunningSeq = seq_;
    // A stop sent before the job began is in the socket already, or its
    // signal comes from now on.
    std::vector<Frame> other;
    for (Frame g; next(g, false) == Got;)
        if (!control(g))
            other.push_back(std::move(g));
    for (Frame& g : other)
        pending_.push_back(std::move(g));
    std::string last = job.kind == Job::Command ? runCommand(job) : session_->run(job, *this);
    gRunningSeq = 0;
    gStop = 0;
    GiacSession::setInterrupt(false);
    Frame d;
    d.type = Frame::Done;
    d.a = seq_;
    d.b = client_;
    d.payload = std::move(last);
    send(std::move(d));
    client_ = -1;
}

void Evaluator::sendNames(const std::vector<std::string>& names)
{
    Frame f;
    f.type = Frame::Names;
    f.payload = FieldWriter().strs(names).take();
    send(std::move(f));
}

int Evaluator::run()
{
    OutputCapture capture;
    capture.start();
    {
        GiacSession session(&capture, plotDir_,
                            [this](std::vector<std::string> n) { sendNames(n); });
        session_ = &session;
        Frame ready;
        ready.type = Frame::Ready;
        send(std::move(ready));
        while (!quit_) {
            Frame f;
            Next n = next(f, true);
            if (n == End)
                break;
            if (n == Got && f.type == Frame::Job)
                runJob(f);
            else if (n == Got && f.type == Frame::Quit)
                quit_ = true;
        }
        session_ = nullptr;
    }
    capture.stop();
    return 0;
}

struct ThreadArgs {
    int fd;
    std::string plotDir;
    int status = 0;
};

void* evaluatorThread(void* p)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR2);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    auto* args = static_cast<ThreadArgs*>(p);
    args->status = Evaluator(args->fd, args->plotDir).run();
    return nullptr;
}

} // namespace

int runEvaluator(int fd, const std::string& plotDir)
{
    // Only the working thread takes the interrupt, so that it wakes from a
    // read when it waits for an answer.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    struct sigaction sa {};
    sa.sa_sigaction = onInterrupt;
    sa.sa_flags = SA_SIGINFO;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGUSR2, &sa, nullptr);

    ThreadArgs args{fd, plotDir};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, EvaluatorStack);
    pthread_t thread;
    int rc = pthread_create(&thread, &attr, evaluatorThread, &args);
    pthread_attr_destroy(&attr);
    if (rc != 0) // a smaller stack only makes deep recursion fail sooner
        rc = pthread_create(&thread, nullptr, evaluatorThread, &args);
    if (rc != 0) {
        klog("evaluator: cannot start its thread");
        return 1;
    }
    pthread_join(thread, nullptr);
    return args.status;
}

} // namespace tamkern
