// One kernel connection as the console uses it: launched or joined, with
// handlers that turn the kernel's messages into calls of a listener, a queue
// of commands sent one at a time, and the kernel's end found out at once.
// Only the flat interface of the library is used.
#ifndef TAMIX_CONSOLE_KERNEL_H
#define TAMIX_CONSOLE_KERNEL_H

#include <sys/types.h>

#include <deque>
#include <string>
#include <vector>

#include <tamix/tamix.h>

#include "Options.h"

namespace tamix {

// What the kernel says. Called from inside KernelLink::read().
class KernelListener {
public:
    virtual ~KernelListener() = default;
    // The kernel takes commands now.
    virtual void onReady() {}
    virtual void onOutput(const std::string& type, const std::string& format,
                          const std::string& text) = 0;
    // The command sent last has finished; all its output has come.
    virtual void onFinished() = 0;
    // The running command asks for an expression (text false) or a text;
    // answer with KernelLink::answerInput.
    virtual void onInputWanted(bool text, const std::string& prompt) = 0;
    // The running command wants a shell command run; answer with
    // KernelLink::answerSystem.
    virtual void onSystem(const std::string& command) = 0;
    virtual void onHelp(const std::string& text) = 0;
    virtual void onPlotFile(const std::string& path) = 0;
    virtual void onCompletions(const std::string& prefix, const std::vector<std::string>& names)
    {
        (void)prefix;
        (void)names;
    }
    // Status figures, confirmed settings: one line for the user.
    virtual void onNotice(const std::string& text) = 0;
    // The kernel has gone (quit, died, broke the protocol); why, in words.
    virtual void onGone(const std::string& why) = 0;
};

struct KernelConfig {
    std::string kernelPath;  // launch this kernel...
    std::string connectPath; // ...or join the one listening here
    std::string libDir;      // handed over at init; empty: no init arguments
    long features = 0;       // TAM_FEATURE_... bits to announce
};

// What the console can do, announced to the kernel.
extern const long kConsoleFeatures;
// The kernel the options name, with the console's features.
KernelConfig kernelConfig(const Options& options);

class KernelLink {
public:
    explicit KernelLink(KernelListener& listener);
    ~KernelLink();
    KernelLink(const KernelLink&) = delete;
    KernelLink& operator=(const KernelLink&) = delete;

    // Launches or joins the kernel and announces the console. False with
    // the reason in error.
    bool start(const KernelConfig& config, std::string& error);
    // Leaves the kernel; a launched one ends. force: kill a launched kernel
    // first instead of letting it end its work.
    void end(bool force);
    // end(true), then start again with the same configuration.
    bool restart(std::string& error);

    // The socket to watch for reading; -1 when there is none to watch (no
    // kernel, or it has gone).
    int watchFd() const;
    // The socket is readable: reads once and delivers what came.
    void read();

    bool alive() const { return kernel_ && !gone_; }
    bool ready() const { return alive() && ready_; }
    // A command of ours runs or waits to be sent.
    bool busy() const { return running_ || !queue_.empty(); }
    bool running() const { return running_; }
    // The kernel was joined by its socket rather than launched.
    bool joined() const { return !config_.connectPath.empty(); }

    // Sends the command when the kernel is ready and has nothing of ours to
    // run, else queues it.
    void submit(const std::string& command);
    // Forgets the commands not sent yet; how many there were.
    size_t dropQueued();
    bool interrupt();
    bool answerInput(bool text, bool canceled, const std::string& answer);
    bool answerSystem(long result);
    bool requestCompletions(const std::string& prefix);
    bool requestStatus();
    bool setFormat(const std::string& format);
    bool setWidth(long width);
    // A status or setting was asked for and its answer has not come yet.
    bool awaitingAnswer() const { return statusAsked_ || formatAsked_ || widthAsked_; }

private:
    static KernelLink* of(TAM_KernelImpl* kernel);
    void registerHandlers();
    void sendNext();
    void noticeGone();
    std::string goneReason();
    // The process id of a kernel this program launched, from its socket; 0
    // when unknown.
    pid_t kernelPid() const;

    static void onInitWanted(TAM_KernelImpl* k);
    static void onKernelReady(TAM_KernelImpl* k);
    static void onOutput(TAM_KernelImpl* k, void*, const char* type, const char* format,
                         const char* text);
    static void onOutputData(TAM_KernelImpl* k, void*, const char* type, const TAM_DataTAG* data);
    static void onFinished(TAM_KernelImpl* k, void* cookie);
    static void onInputWanted(TAM_KernelImpl* k, void*, int text, const char* prompt);
    static void onCallback(TAM_KernelImpl* k, void*, const TAM_DataTAG* data);
    static void onHelp(TAM_KernelImpl* k, const char* text);
    static void onSystem(TAM_KernelImpl* k, const char* command);
    static void onFormatChanged(TAM_KernelImpl* k, const char* type, const char* format);
    static void onTextwidthChanged(TAM_KernelImpl* k, long width);
    static void onStatus(TAM_KernelImpl* k, long used, long res, long sec);
    static void onCompletion(TAM_KernelImpl* k, const char* list, const char* prefix);
    static void onPlotFile(TAM_KernelImpl* k, void*, const char* name);

    KernelListener& listener_;
    KernelConfig config_;
    TAM_KernelImpl* kernel_ = nullptr;
    bool ready_ = false;
    bool gone_ = false;
    bool running_ = false;
    unsigned long cookie_ = 0; // the running command's, counted up
    std::deque<std::string> queue_;
    // Settings the user asked for, confirmed by the kernel with a notice.
    bool statusAsked_ = false;
    bool formatAsked_ = false;
    bool widthAsked_ = false;
    // A second name of a joined kernel's socket file, which the library
    // removes when the console leaves; restored afterwards.
};

} // namespace tamix

#endif
