#include "Interactive.h"

#include <langinfo.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "Shell.h"

namespace tamix {

namespace {

const char kPrompt[] = ">> ";
const char kContinuation[] = ".. ";
// A running command gets this long to stop before a second Ctrl-C offers
// to restart the kernel.
const auto kStopGrace = std::chrono::seconds(3);
// How long Tab waits for the kernel's completions before it falls back on
// the names it knows.
const auto kCompletionWait = std::chrono::milliseconds(1000);

// "…" where the terminal can show it.
std::string ellipsis()
{
    static const bool utf8 = std::string(nl_langinfo(CODESET)) == "UTF-8";
    return utf8 ? "\u2026" : "...";
}

std::vector<std::string> startingWith(const std::vector<std::string>& names,
                                      const std::string& word)
{
    std::vector<std::string> out;
    for (const std::string& n : names)
        if (n.compare(0, word.size(), word) == 0)
            out.push_back(n);
    return out;
}

// The kernel's prompt as the line editor shows it.
std::string questionPrompt(const std::string& prompt)
{
    if (prompt.empty())
        return "? ";
    return isspace(static_cast<unsigned char>(prompt.back())) ? prompt : prompt + " ";
}

} // namespace

Interactive::Interactive(const Options& options)
    : options_(options), signals_({SIGINT, SIGWINCH, SIGTSTP, SIGTERM, SIGHUP}),
      term_(
          options.color, [this](const char* line) { onLine(line); },
          [this](const std::string& word) { return complete(word); }),
      link_(*this)
{
}

int Interactive::run()
{
    term_.print(std::string("Tamix ") + TAMIX_VERSION_STRING +
                    ": Tab completes, :help lists the console's commands, quit or Ctrl-D ends.",
                Style::Info);
    // The prompt comes at once; what is typed while the kernel starts
    // waits for it.
    term_.start(kPrompt);
    std::string error;
    if (!link_.start(kernelConfig(options_), error)) {
        term_.stop();
        fprintf(stderr, "\ntamix: %s\n", error.c_str());
        return 1;
    }
    while (!done_)
        waitOnce();
    term_.stop();
    link_.end(false);
    return status_;
}

void Interactive::waitOnce()
{
    pollfd fds[3] = {
        {STDIN_FILENO, POLLIN, 0}, {signals_.fd(), POLLIN, 0}, {link_.watchFd(), POLLIN, 0}};
    const nfds_t n = fds[2].fd >= 0 ? 3 : 2;
    if (poll(fds, n, -1) < 0) {
        if (errno != EINTR) {
            perror("tamix: poll");
            done_ = true;
            status_ = 1;
        }
        return;
    }
    if (fds[1].revents)
        handleSignals();
    // The kernel's output before the next key, so that it is on the screen
    // before anything typed after it is answered.
    if (n == 3 && fds[2].revents && !done_)
        link_.read();
    if (fds[0].revents & (POLLERR | POLLNVAL)) {
        done_ = true; // the terminal has gone
        return;
    }
    if (fds[0].revents && !done_)
        term_.readKeys();
}

void Interactive::handleSignals()
{
    for (int s : signals_.take()) {
        switch (s) {
        case SIGINT:
            interruptKey();
            break;
        case SIGWINCH:
            term_.resized();
            break;
        case SIGTSTP:
            // Stop for real, with the terminal as the shell expects it.
            term_.suspend();
            signal(SIGTSTP, SIG_DFL);
            raise(SIGTSTP);
            signals_.catchAgain(SIGTSTP);
            term_.resume();
            break;
        default: // SIGTERM, SIGHUP
            done_ = true;
            status_ = 128 + s;
            break;
        }
    }
}

// ---- Lines ---------------------------------------------------------------------

void Interactive::onLine(const char* line)
{
    const Mode mode = mode_;
    if (mode == Mode::Command) {
        commandLine(line);
        return;
    }
    endQuestion();
    if (mode == Mode::Input) {
        // Ctrl-D cancels; the kernel says so.
        link_.answerInput(inputIsText_, line == nullptr, line ? line : "");
    } else if (line && (line[0] == 'y' || line[0] == 'Y')) {
        restartKernel();
    } else {
        say("the kernel goes on", Style::Info);
    }
}

void Interactive::commandLine(const char* line)
{
    if (!line) {
        // Ctrl-D: what is unfinished goes as it is; on an empty line the
        // session ends.
        if (input_.pending()) {
            submit(input_.take());
            updatePrompt();
            return;
        }
        quit();
        return;
    }
    // A paste may bring several lines at once.
    std::string text = line;
    size_t from = 0;
    for (size_t nl; !done_ && (nl = text.find('\n', from)) != std::string::npos; from = nl + 1)
        if (input_.add(text.substr(from, nl - from)))
            submit(input_.take());
    if (!done_ && input_.add(text.substr(from)))
        submit(input_.take());
    if (!done_)
        updatePrompt();
}

void Interactive::submit(const std::string& command)
{
    if (trim(command).empty())
        return;
    term_.addHistory(command);
    if (isMeta(command)) {
        runMeta(command, *this);
    } else if (isQuitCommand(command)) {
        quit();
    } else if (!link_.alive()) {
        say("no kernel; :restart starts a new one", Style::Error);
    } else {
        link_.submit(command);
    }
}

void Interactive::updatePrompt()
{
    if (mode_ != Mode::Command || done_)
        return;
    if (input_.pending())
        term_.setPrompt(kContinuation);
    else
        term_.setPrompt(link_.busy() ? "" : kPrompt);
}

// ---- Ctrl-C and questions ----------------------------------------------------

void Interactive::interruptKey()
{
    if (mode_ != Mode::Command) {
        // Ctrl-C declines the question.
        term_.cancelLine();
        onLine(nullptr);
        return;
    }
    if (!link_.running()) {
        term_.cancelLine();
        input_.reset();
        updatePrompt();
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (!interrupting_) {
        interrupting_ = true;
        interruptedAt_ = now;
        link_.interrupt();
        const size_t dropped = link_.dropQueued();
        say("interrupting" + ellipsis() +
                (dropped ? " (" + std::to_string(dropped) + " waiting commands dropped)" : ""),
            Style::Info);
    } else if (now - interruptedAt_ < kStopGrace) {
        link_.interrupt();
        say("still interrupting" + ellipsis() +
                " If the kernel does not stop, Ctrl-C again in a few seconds offers a restart.",
            Style::Info);
    } else {
        ask(Mode::Confirm,
            "The kernel does not stop. Restart it (all its variables are lost)? [y/N] ");
    }
}

void Interactive::ask(Mode mode, const std::string& prompt)
{
    if (mode_ == Mode::Command)
        term_.stash();
    mode_ = mode;
    term_.setPrompt(prompt);
}

void Interactive::endQuestion()
{
    mode_ = Mode::Command;
    term_.unstash();
    updatePrompt();
}

// ---- The kernel's messages ---------------------------------------------------

void Interactive::onReady()
{
    // The names the kernel knows, for completion while it is busy.
    link_.requestCompletions("");
}

void Interactive::onOutput(const std::string& type, const std::string&, const std::string& text)
{
    if (type == "error")
        term_.print(text, Style::Error, !isatty(STDOUT_FILENO));
    else
        term_.print(text, type == "warning" ? Style::Warning : Style::Plain);
}

void Interactive::onFinished()
{
    interrupting_ = false;
    updatePrompt();
}

void Interactive::onInputWanted(bool text, const std::string& prompt)
{
    inputIsText_ = text;
    ask(Mode::Input, questionPrompt(prompt));
}

void Interactive::onSystem(const std::string& command)
{
    term_.suspend();
    const long result = runShell(command, false);
    term_.resume();
    // A Ctrl-C during the command was the command's.
    for (int s : signals_.take())
        if (s != SIGINT)
            raise(s);
    link_.answerSystem(result);
}

void Interactive::onHelp(const std::string& text)
{
    term_.page(text);
}

void Interactive::onPlotFile(const std::string& path)
{
    say("plot: " + path, Style::Info);
    if (!options_.openPlots)
        return;
    const std::string viewer = findViewer();
    if (viewer.empty())
        say("no viewer (xdg-open) to open it", Style::Info);
    else if (!openWith(viewer, path))
        say("could not start " + viewer, Style::Error);
}

void Interactive::onCompletions(const std::string& prefix, const std::vector<std::string>& names)
{
    if (prefix.empty())
        names_ = names;
    if (prefix == completionWord_) {
        completions_ = names;
        completionsCame_ = true;
    }
}

void Interactive::onNotice(const std::string& text)
{
    say(text, Style::Info);
}

void Interactive::onGone(const std::string& why)
{
    interrupting_ = false;
    if (mode_ != Mode::Command) {
        mode_ = Mode::Command;
        term_.unstash();
    }
    say(why + "; :restart starts a new one", Style::Error);
    updatePrompt();
}

// ---- Meta commands ------------------------------------------------------------

void Interactive::say(const std::string& text, Style style)
{
    term_.print(text, style);
}

void Interactive::restartKernel()
{
    interrupting_ = false;
    say((link_.joined() ? "joining the kernel again" : "starting a new kernel") + ellipsis(),
        Style::Info);
    std::string error;
    if (!link_.restart(error))
        say(error + "; :restart tries again", Style::Error);
    updatePrompt();
}

void Interactive::quit()
{
    term_.stop();
    done_ = true;
    status_ = 0;
}

// ---- Completion -------------------------------------------------------------------

std::vector<std::string> Interactive::complete(const std::string& word)
{
    // An idle kernel knows the user's own names too; a busy one would
    // answer only after its command, so the names known from the start
    // serve then.
    if (!link_.busy() && awaitCompletions(word)) {
        for (const std::string& n : completions_)
            if (std::find(names_.begin(), names_.end(), n) == names_.end())
                names_.push_back(n);
        return completions_;
    }
    std::vector<std::string> known = startingWith(names_, word);
    std::sort(known.begin(), known.end());
    return known;
}

bool Interactive::awaitCompletions(const std::string& word)
{
    completionWord_ = word;
    completionsCame_ = false;
    if (!link_.requestCompletions(word))
        return false;
    const auto until = std::chrono::steady_clock::now() + kCompletionWait;
    while (!completionsCame_ && link_.alive()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            until - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            break;
        pollfd p = {link_.watchFd(), POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left.count())) > 0)
            link_.read();
    }
    completionWord_.clear();
    return completionsCame_;
}

} // namespace tamix
