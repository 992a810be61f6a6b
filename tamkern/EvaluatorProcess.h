// The engine as the server runs it: an evaluator process of its own,
// behind a socket pair, which the server restarts when it crashes or must
// be ended.
#ifndef TAMKERN_EVALUATORPROCESS_H
#define TAMKERN_EVALUATORPROCESS_H

#include <string>
#include <sys/types.h>
#include <vector>

#include "tamkern/Engine.h"
#include "tamkern/EvalLink.h"

namespace tamkern {

// A process and the server's end of its socket.
struct ChildProcess {
    pid_t pid = -1;
    int fd = -1;
};

// Starts an evaluator: the program argv[0] with the arguments argv and
// "--socket FD", FD being its end of a new socket pair. It dies with the
// server and ignores the terminal's interrupt key, which is the front
// end's. fd is the server's end, non-blocking and close-on-exec; pid -1 on
// failure (logged).
ChildProcess spawnEvaluator(const std::vector<std::string>& argv);

// Which process ended how: "signal 11, Segmentation fault", "exit status 3".
std::string describeExit(int status);

class EvaluatorProcess final : public Engine {
public:
    // Adopts first (an evaluator started already; none if its pid is -1)
    // and starts fresh ones with spawnEvaluator(argv).
    EvaluatorProcess(EngineHost& host, std::vector<std::string> argv, ChildProcess first);
    // Ends the evaluator as shutdown(0) does.
    ~EvaluatorProcess() override;
    EvaluatorProcess(const EvaluatorProcess&) = delete;
    EvaluatorProcess& operator=(const EvaluatorProcess&) = delete;

    void start() override;
    void submit(Job job) override;
    void interrupt(long client) override;
    void clientGone(long client) override;
    void answer(long client, Question kind, Answer answer) override;
    bool shutdown(int timeoutMs) override;
    bool restart() override;
    int pollFd() const override { return child_.fd; }
    short pollEvents() const override;
    void serve(short revents) override;
    int processId() const override { return child_.pid; }

    // Bytes a frame from the evaluator may carry: its largest message.
    static const std::size_t MaxMessage = std::size_t(1) << 30;
    // Evaluators that die one after the other before they are ready; then
    // no more are started and commands fail at once.
    static const int MaxFailedStarts = 3;

private:
    struct Running {
        bool active = false;
        int seq = 0;
        long client = -1;
        Job::Kind kind = Job::Command;
        bool interrupted = false;
    };
    struct Asking {
        bool active = false;
        int seq = 0;
        long client = -1;
        Question kind = Question::Input;
    };

    void launch();
    void stop(bool force);
    void lose(const std::string& why);
    void handle(Frame& f);
    void send(Frame f);
    void failJob(const Job& job);

    EngineHost& host_;
    std::vector<std::string> argv_;
    ChildProcess child_;
    FrameReader in_{MaxMessage};
    FrameWriter out_;
    Running running_;
    Asking asking_;
    int nextSeq_ = 1;
    bool ready_ = false;
    int failedStarts_ = 0;
    bool broken_ = false; // gave up starting evaluators
    bool ended_ = false;  // shut down
};

} // namespace tamkern

#endif
