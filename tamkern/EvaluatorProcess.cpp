#include "tamkern/EvaluatorProcess.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "tamkern/Capture.h"
#include "tamkern/Messages.h"

namespace tamkern {

namespace {

// Waits up to ms for the process to end; its wait status, or -1.
int reap(pid_t pid, int ms)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        int status = 0;
        pid_t r = ::waitpid(pid, &status, WNOHANG);
        if (r == pid)
            return status;
        if (r < 0 && errno != EINTR)
            return 0; // not ours to wait for any more
        if (std::chrono::steady_clock::now() >= end)
            return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

// Ends the process by force if it has not ended within ms; its wait status.
int endProcess(pid_t pid, int ms)
{
    int status = reap(pid, ms);
    if (status != -1)
        return status;
    ::kill(pid, SIGKILL);
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

// Forks; in the child (pid 0) fd is the child's end of the socket pair.
ChildProcess forkEvaluator()
{
    int sv[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) {
        klog("cannot make the evaluator's socket: %s", std::strerror(errno));
        return {};
    }
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid < 0) {
        klog("cannot start an evaluator: %s", std::strerror(errno));
        ::close(sv[0]);
        ::close(sv[1]);
        return {};
    }
    if (pid == 0) {
        ::close(sv[0]);
        // A runaway computation must not outlive the kernel.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent)
            ::_exit(0);
        std::signal(SIGINT, SIG_IGN);
        std::signal(SIGPIPE, SIG_IGN);
        std::signal(SIGTERM, SIG_DFL);
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        return {0, sv[1]};
    }
    ::close(sv[1]);
    ::fcntl(sv[0], F_SETFL, O_NONBLOCK);
    return {pid, sv[0]};
}

} // namespace

ChildProcess spawnEvaluator(const std::vector<std::string>& argv)
{
    ChildProcess c = forkEvaluator();
    if (c.pid != 0)
        return c;
    // The server has no other threads: allocating here is safe.
    ::fcntl(c.fd, F_SETFD, 0);
    std::vector<std::string> args = argv;
    args.push_back("--socket");
    args.push_back(std::to_string(c.fd));
    std::vector<char*> raw;
    for (std::string& a : args)
        raw.push_back(&a[0]);
    raw.push_back(nullptr);
    ::execv(raw[0], raw.data());
    klog("cannot execute %s: %s", raw[0], std::strerror(errno));
    ::_exit(127);
}

std::string describeExit(int status)
{
    if (WIFSIGNALED(status)) {
        int sig = WTERMSIG(status);
        const char* name = ::strsignal(sig);
        return "signal " + std::to_string(sig) + (name ? std::string(", ") + name : "");
    }
    return "exit status " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : status);
}

EvaluatorProcess::EvaluatorProcess(EngineHost& host, std::vector<std::string> argv,
                                   ChildProcess first)
    : host_(host), argv_(std::move(argv)), child_(first)
{
}

EvaluatorProcess::~EvaluatorProcess()
{
    shutdown(0);
}

void EvaluatorProcess::start()
{
    if (child_.pid < 0)
        launch();
}

// Starts evaluators until one runs or too many failed.
void EvaluatorProcess::launch()
{
    while (child_.pid < 0 && !broken_ && !ended_) {
        child_ = spawnEvaluator(argv_);
        ready_ = false;
        if (child_.pid < 0 && ++failedStarts_ >= MaxFailedStarts)
            broken_ = true;
    }
}

short EvaluatorProcess::pollEvents() const
{
    return static_cast<short>(POLLIN | (out_.pending() ? POLLOUT : 0));
}

void EvaluatorProcess::send(Frame f)
{
    out_.queue(std::move(f));
    if (!out_.flush(child_.fd))
        lose("it stopped reading");
}

void EvaluatorProcess::submit(Job job)
{
    if (broken_ || child_.pid < 0) {
        failJob(job);
        return;
    }
    const int seq = nextSeq_;
    nextSeq_ = nextSeq_ == 0x7fffffff ? 1 : nextSeq_ + 1;
    running_ = Running{true, seq, job.client, job.kind, false};
    FieldWriter w;
    w.num(job.kind)
        .num(job.cid)
        .num(job.history)
        .num(job.encoded)
        .num(job.style.textWidth)
        .num(job.style.prettyPrint)
        .num(job.style.abbreviate)
        .num(job.style.plots)
        .str(job.style.format)
        .strs(job.initFiles);
    Frame h;
    h.type = Frame::Job;
    h.a = seq;
    h.b = job.client;
    out_.queue(h, w.take(), std::move(job.text));
    if (!out_.flush(child_.fd))
        lose("it stopped reading");
}

// Without an evaluator a command fails at once, in the order of the others.
void EvaluatorProcess::failJob(const Job& job)
{
    host_.jobDone();
    if (job.kind == Job::Command) {
        host_.post(job.client, msgOutputText(job.client, job.cid, "error", "text",
                                             "no evaluator: it cannot be started"));
        host_.post(job.client, msgFinished(job.client, job.cid));
    }
}

void EvaluatorProcess::interrupt(long client)
{
    Running& r = running_;
    if (!r.active || r.client != client || r.kind != Job::Command || r.interrupted)
        return;
    r.interrupted = true;
    // The frame reaches a job that has not begun yet or waits for an
    // answer; the signal one that computes.
    Frame f;
    f.type = Frame::Interrupt;
    f.a = r.seq;
    send(std::move(f));
    if (child_.pid > 0) {
        sigval v{};
        v.sival_int = r.seq;
        ::sigqueue(child_.pid, SIGUSR2, v);
    }
}

void EvaluatorProcess::clientGone(long client)
{
    interrupt(client);
}

void EvaluatorProcess::answer(long client, Question kind, Answer a)
{
    if (!asking_.active || asking_.client != client || asking_.kind != kind)
        return;
    asking_.active = false;
    FieldWriter w;
    w.num(a.canceled).num(a.encoded).num(a.value);
    Frame h;
    h.type = Frame::Answer;
    h.kind = static_cast<unsigned char>(kind);
    h.a = asking_.seq;
    out_.queue(h, w.take(), std::move(a.text));
    if (!out_.flush(child_.fd))
        lose("it stopped reading");
}

void EvaluatorProcess::serve(short revents)
{
    if (child_.fd < 0)
        return;
    if ((revents & POLLOUT) && !out_.flush(child_.fd)) {
        lose("it stopped reading");
        return;
    }
    if (!(revents & (POLLIN | POLLHUP | POLLERR)))
        return;
    // A bounded amount per turn, so that a flood of output does not keep
    // the clients' requests waiting.
    std::vector<Frame> frames;
    FrameReader::Status status = FrameReader::Open;
    for (int i = 0; i < 64 && status == FrameReader::Open; ++i) {
        bool wouldBlock = false;
        status = in_.readOnce(child_.fd, frames, wouldBlock);
        if (wouldBlock)
            break;
    }
    const pid_t pid = child_.pid;
    for (Frame& f : frames)
        if (child_.pid == pid)
            handle(f);
    if (child_.pid != pid)
        return;
    if (status == FrameReader::Oversized)
        lose("a message beyond the limit");
    else if (status != FrameReader::Open)
        lose(status == FrameReader::Closed ? "its socket closed" : std::strerror(errno));
}

void EvaluatorProcess::handle(Frame& f)
{
    switch (f.type) {
    case Frame::Ready:
        ready_ = true;
        failedStarts_ = 0;
        break;
    case Frame::Post:
        host_.post(static_cast<long>(f.a), std::move(f.payload));
        break;
    case Frame::Names: {
        std::vector<std::string> names;
        if (!FieldReader(f.payload).strs(names)) {
            lose("a damaged message");
            return;
        }
        host_.names(std::move(names));
        break;
    }
    case Frame::Ask:
        asking_ = Asking{true, static_cast<int>(f.a), static_cast<long>(f.b),
                         static_cast<Question>(f.kind)};
        host_.post(asking_.client, std::move(f.payload));
        break;
    case Frame::Done:
        if (!running_.active || f.a != running_.seq)
            break;
        running_ = Running();
        asking_ = Asking();
        host_.jobDone();
        if (!f.payload.empty())
            host_.post(static_cast<long>(f.b), std::move(f.payload));
        break;
    default:
        lose("a damaged message");
        break;
    }
}

// Ends the current process (at once if force, else after a moment to end
// by itself) and forgets everything about it.
void EvaluatorProcess::stop(bool force)
{
    if (child_.pid > 0) {
        if (force)
            ::kill(child_.pid, SIGKILL);
        endProcess(child_.pid, force ? 0 : 100);
    }
    if (child_.fd >= 0)
        ::close(child_.fd);
    child_ = ChildProcess();
    in_.reset();
    out_.clear();
    running_ = Running();
    asking_ = Asking();
}

void EvaluatorProcess::lose(const std::string& why)
{
    const pid_t pid = child_.pid;
    // A process that closed its socket is ending; one that broke the
    // protocol is ended.
    int status = pid > 0 ? reap(pid, 200) : -1;
    if (status == -1 && pid > 0) {
        ::kill(pid, SIGKILL);
        status = endProcess(pid, 1000);
    }
    if (child_.fd >= 0)
        ::close(child_.fd);
    child_ = ChildProcess();
    std::string how = status != -1 && (WIFSIGNALED(status) || WEXITSTATUS(status) != 0)
                          ? describeExit(status)
                          : why;
    if (ended_) {
        stop(false);
        return;
    }
    if (!ready_ && ++failedStarts_ >= MaxFailedStarts)
        broken_ = true;
    klog("evaluator %d ended (%s); %s", static_cast<int>(pid), how.c_str(),
         broken_ ? "no more are started" : "a fresh one takes its place");
    stop(false);
    launch();
    host_.lost(how);
}

bool EvaluatorProcess::restart()
{
    stop(true);
    failedStarts_ = 0;
    launch();
    return !broken_;
}

bool EvaluatorProcess::shutdown(int timeoutMs)
{
    if (ended_)
        return true;
    ended_ = true;
    if (child_.pid > 0)
        interrupt(running_.client);
    if (child_.pid > 0) {
        Frame q;
        q.type = Frame::Quit;
        out_.queue(std::move(q));
        out_.flush(child_.fd);
        ::shutdown(child_.fd, SHUT_WR);
        endProcess(child_.pid, timeoutMs);
        child_.pid = -1;
    }
    stop(false);
    return true;
}

} // namespace tamkern
