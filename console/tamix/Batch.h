// Commands from a pipe, a file or -e, one after the other: no prompts and
// no colours, results on standard output, errors on standard error, and an
// exit status that says whether any command failed.
#ifndef TAMIX_CONSOLE_BATCH_H
#define TAMIX_CONSOLE_BATCH_H

#include <functional>
#include <string>

#include "Input.h"
#include "Kernel.h"
#include "Meta.h"
#include "Options.h"

namespace tamix {

class Batch : public KernelListener, public MetaHost {
public:
    explicit Batch(const Options& options);
    // Runs every command; 0, or 1 when one failed or the kernel went.
    int run();

    // KernelListener
    void onOutput(const std::string& type, const std::string& format,
                  const std::string& text) override;
    void onFinished() override {}
    void onInputWanted(bool text, const std::string& prompt) override;
    void onSystem(const std::string& command) override;
    void onHelp(const std::string& text) override;
    void onPlotFile(const std::string& path) override;
    void onNotice(const std::string& text) override;
    void onGone(const std::string& why) override;

    // MetaHost
    KernelLink& link() override { return link_; }
    void say(const std::string& text, Style style) override;
    void restartKernel() override;
    void quit() override { quit_ = true; }

private:
    // The next command, from -e or standard input; false at the end.
    bool nextCommand(std::string& command);
    bool readLine(std::string& line);
    void run(const std::string& command);
    // Reads the kernel while cond holds and the kernel is there.
    void pumpWhile(const std::function<bool()>& cond);
    // An error or warning of the command, told with the line it began on.
    void complain(const std::string& text);

    Options options_;
    KernelLink link_;
    InputAccumulator input_;
    size_t nextExpression_ = 0;
    long lines_ = 0;       // lines read from standard input
    long commandLine_ = 0; // the line the current command began on
    bool failed_ = false;
    bool quit_ = false;
};

} // namespace tamix

#endif
