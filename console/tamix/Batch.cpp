#include "Batch.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>

#include "Shell.h"

namespace tamix {

Batch::Batch(const Options& options) : options_(options), link_(*this)
{
}

int Batch::run()
{
    std::string error;
    if (!link_.start(kernelConfig(options_), error)) {
        fprintf(stderr, "tamix: %s\n", error.c_str());
        return 1;
    }
    pumpWhile([this] { return !link_.ready(); });
    std::string command;
    while (!quit_ && link_.alive() && nextCommand(command))
        run(command);
    fflush(stdout);
    const bool failed = failed_ || !link_.alive();
    link_.end(false);
    return failed ? 1 : 0;
}

bool Batch::readLine(std::string& line)
{
    if (!std::getline(std::cin, line))
        return false;
    ++lines_;
    // Scripts written on other systems end their lines with CR LF.
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return true;
}

bool Batch::nextCommand(std::string& command)
{
    if (!options_.expressions.empty()) {
        if (nextExpression_ >= options_.expressions.size())
            return false;
        command = options_.expressions[nextExpression_++];
        return true;
    }
    std::string line;
    while (readLine(line)) {
        if (!input_.pending())
            commandLine_ = lines_;
        if (input_.add(line)) {
            command = input_.take();
            return true;
        }
    }
    // Unfinished at the end of the input: the kernel says what is wrong.
    if (!input_.pending())
        return false;
    command = input_.take();
    return true;
}

void Batch::run(const std::string& command)
{
    if (trim(command).empty())
        return;
    if (isMeta(command)) {
        failed_ |= !runMeta(command, *this);
        pumpWhile([this] { return link_.awaitingAnswer(); });
    } else if (isQuitCommand(command)) {
        quit_ = true;
    } else {
        link_.submit(command);
        pumpWhile([this] { return link_.busy(); });
    }
}

void Batch::pumpWhile(const std::function<bool()>& cond)
{
    while (link_.alive() && cond()) {
        pollfd p = {link_.watchFd(), POLLIN, 0};
        int n = poll(&p, 1, -1);
        if (n < 0 && errno != EINTR) {
            perror("tamix: poll");
            failed_ = true;
            return;
        }
        if (n > 0)
            link_.read();
    }
}

void Batch::complain(const std::string& text)
{
    fflush(stdout);
    if (options_.expressions.empty())
        fprintf(stderr, "line %ld: %s\n", commandLine_, text.c_str());
    else
        fprintf(stderr, "%s\n", text.c_str());
}

void Batch::onOutput(const std::string& type, const std::string&, const std::string& text)
{
    if (type == "error") {
        failed_ = true;
        complain(text);
    } else if (type == "warning") {
        complain(text);
    } else {
        fprintf(stdout, "%s\n", text.c_str());
    }
}

void Batch::onInputWanted(bool text, const std::string& prompt)
{
    // The answer is the next line of the input; at its end, none.
    if (isatty(STDIN_FILENO)) {
        fprintf(stderr, "%s ", prompt.c_str());
        fflush(stderr);
    }
    std::string answer;
    const bool got = readLine(answer);
    link_.answerInput(text, !got, answer);
}

void Batch::onSystem(const std::string& command)
{
    fflush(stdout);
    // A script's own lines are not the shell command's input.
    link_.answerSystem(runShell(command, !isatty(STDIN_FILENO)));
}

void Batch::onHelp(const std::string& text)
{
    fprintf(stdout, "%s\n", text.c_str());
}

void Batch::onPlotFile(const std::string& path)
{
    fprintf(stdout, "plot: %s\n", path.c_str());
    if (!options_.openPlots)
        return;
    const std::string viewer = findViewer();
    if (viewer.empty() || !openWith(viewer, path))
        fprintf(stderr, "tamix: no viewer (xdg-open) to open %s\n", path.c_str());
}

void Batch::onNotice(const std::string& text)
{
    fprintf(stdout, "%s\n", text.c_str());
}

void Batch::onGone(const std::string& why)
{
    fflush(stdout);
    fprintf(stderr, "tamix: %s\n", why.c_str());
    failed_ = true;
}

void Batch::say(const std::string& text, Style style)
{
    if (style == Style::Error) {
        failed_ = true;
        complain(text);
    } else {
        fprintf(stdout, "%s\n", text.c_str());
    }
}

void Batch::restartKernel()
{
    std::string error;
    if (!link_.restart(error)) {
        fprintf(stderr, "tamix: %s\n", error.c_str());
        failed_ = true;
        return;
    }
    pumpWhile([this] { return !link_.ready(); });
}

} // namespace tamix
