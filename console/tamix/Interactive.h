// The interactive session: one event loop that waits on the terminal, the
// kernel's socket and the signals together, shows every output the moment
// it arrives, and answers each of the kernel's requests on the terminal.
#ifndef TAMIX_CONSOLE_INTERACTIVE_H
#define TAMIX_CONSOLE_INTERACTIVE_H

#include <chrono>
#include <string>
#include <vector>

#include "Input.h"
#include "Kernel.h"
#include "Meta.h"
#include "Options.h"
#include "Signals.h"
#include "Terminal.h"

namespace tamix {

class Interactive : public KernelListener, public MetaHost {
public:
    explicit Interactive(const Options& options);
    // Runs the session; the program's exit status.
    int run();

    // KernelListener
    void onReady() override;
    void onOutput(const std::string& type, const std::string& format,
                  const std::string& text) override;
    void onFinished() override;
    void onInputWanted(bool text, const std::string& prompt) override;
    void onSystem(const std::string& command) override;
    void onHelp(const std::string& text) override;
    void onPlotFile(const std::string& path) override;
    void onCompletions(const std::string& prefix, const std::vector<std::string>& names) override;
    void onNotice(const std::string& text) override;
    void onGone(const std::string& why) override;

    // MetaHost
    KernelLink& link() override { return link_; }
    void say(const std::string& text, Style style) override;
    void restartKernel() override;
    void quit() override;

private:
    // What the next line the user enters is for.
    enum class Mode { Command, Input, Confirm };

    void waitOnce();
    void handleSignals();
    void onLine(const char* line);
    void commandLine(const char* line);
    void submit(const std::string& command);
    void interruptKey();
    void ask(Mode mode, const std::string& prompt);
    void endQuestion();
    void updatePrompt();
    std::vector<std::string> complete(const std::string& word);
    // Waits for the kernel's completions of word; false after the time
    // limit or when the kernel has gone.
    bool awaitCompletions(const std::string& word);

    Options options_;
    SignalPipe signals_;
    Terminal term_;
    KernelLink link_;
    InputAccumulator input_;
    Mode mode_ = Mode::Command;
    bool inputIsText_ = false;
    bool done_ = false;
    int status_ = 0;
    // The first Ctrl-C of the running command, when it came.
    bool interrupting_ = false;
    std::chrono::steady_clock::time_point interruptedAt_;
    // Names the kernel knows, kept for completion while it is busy.
    std::vector<std::string> names_;
    std::string completionWord_;
    bool completionsCame_ = false;
    std::vector<std::string> completions_;
};

} // namespace tamix

#endif
