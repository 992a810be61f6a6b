#include "Terminal.h"

#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

// readline's headers need stdio first.
#include <readline/history.h>
#include <readline/readline.h>

namespace tamix {

namespace {

// The one terminal of the program; readline's callbacks are plain functions.
Terminal* gTerminal = nullptr;

const int kHistoryEntries = 1000;

// Characters that end a word for completion: everything but the letters,
// digits and underscores of names.
const char kWordBreaks[] = " \t\n\"\\'`@$><=;|&{(+-*/^,[]:)}!%~?.#";

std::string historyPath()
{
    std::string dir;
    if (const char* state = getenv("XDG_STATE_HOME"); state && *state == '/')
        dir = state;
    else if (const char* home = getenv("HOME"); home && *home)
        dir = std::string(home) + "/.local/state";
    else
        return "";
    dir += "/tamix";
    // mkdir -p for the last levels; a failure leaves the history unsaved.
    for (size_t at = 1; (at = dir.find('/', at)) != std::string::npos; ++at)
        mkdir(dir.substr(0, at).c_str(), 0700);
    mkdir(dir.c_str(), 0700);
    return dir + "/history";
}

} // namespace

Terminal::Terminal(bool color, LineHandler onLine, Completer complete)
    : outColor_(color && colorTerminal(stdout)), errColor_(color && colorTerminal(stderr)),
      onLine_(std::move(onLine)), complete_(std::move(complete))
{
    gTerminal = this;
    // The event loop handles the signals; readline must neither catch them
    // nor keep handlers of its own around.
    rl_catch_signals = 0;
    rl_catch_sigwinch = 0;
    rl_readline_name = "tamix";
    rl_attempted_completion_function = completion;
    rl_completer_word_break_characters = const_cast<char*>(kWordBreaks);
    // The line editor draws where the user looks: standard error when
    // standard output goes elsewhere.
    rl_outstream = isatty(STDOUT_FILENO) ? stdout : stderr;
    // A Tab that cannot complete further lists the candidates at once; the
    // user's inputrc, read later, may say otherwise.
    rl_variable_bind("show-all-if-ambiguous", "on");
    loadHistory();
}

Terminal::~Terminal()
{
    stop();
    gTerminal = nullptr;
}

void Terminal::loadHistory()
{
    using_history();
    stifle_history(kHistoryEntries);
    // Time stamps delimit the entries, so that a command of several lines
    // comes back as one.
    history_write_timestamps = 1;
    history_multiline_entries = 1;
    history_comment_char = '#';
    historyFile_ = historyPath();
    if (!historyFile_.empty())
        read_history(historyFile_.c_str());
}

void Terminal::start(const std::string& prompt)
{
    rl_callback_handler_install(prompt.c_str(), lineCallback);
    active_ = true;
}

void Terminal::stop()
{
    if (!active_)
        return;
    rl_callback_handler_remove();
    active_ = false;
    if (!historyFile_.empty())
        history_truncate_file(historyFile_.c_str(), kHistoryEntries);
}

void Terminal::readKeys()
{
    rl_callback_read_char();
    if (unstashPending_) {
        unstashPending_ = false;
        unstash();
        rl_redisplay();
    }
    // What came during a completion is shown now that its list is.
    std::vector<std::pair<std::string, bool>> waiting;
    waiting.swap(deferred_);
    for (const auto& [text, toStderr] : waiting)
        redrawAfter([&] { fputs(text.c_str(), toStderr ? stderr : stdout); });
}

void Terminal::lineCallback(char* line)
{
    Terminal* self = gTerminal;
    self->inHandler_ = true;
    self->onLine_(line);
    self->inHandler_ = false;
    // The end of input is over once handled (a question was canceled);
    // left set, readline would end every later line with an extra newline.
    if (!line)
        rl_eof_found = 0;
    free(line);
}

void Terminal::setPrompt(const std::string& prompt)
{
    if (!active_ || inHandler_) {
        // readline shows the prompt itself once the handler has returned.
        rl_set_prompt(prompt.c_str());
        return;
    }
    redrawAfter([&] { rl_set_prompt(prompt.c_str()); });
}

void Terminal::redrawAfter(const std::function<void()>& write)
{
    const bool redraw = active_ && !inHandler_ && !suspended_;
    if (redraw)
        rl_clear_visible_line();
    write();
    fflush(stdout);
    fflush(stderr);
    if (redraw) {
        rl_on_new_line();
        rl_redisplay();
    }
}

void Terminal::print(const std::string& text, Style style, bool toStderr)
{
    const std::string painted = paint(text, style, toStderr ? errColor_ : outColor_);
    if (inCompletion_) {
        deferred_.emplace_back(painted, toStderr);
        return;
    }
    // Whatever went to standard output so far comes first.
    redrawAfter([&] {
        if (toStderr)
            fflush(stdout);
        fputs(painted.c_str(), toStderr ? stderr : stdout);
    });
}

void Terminal::cancelLine()
{
    if (!active_)
        return;
    // Out of an incremental search or a half-typed key sequence first.
    rl_callback_sigcleanup();
    rl_point = rl_end;
    rl_redisplay();
    fputs("^C\n", rl_outstream);
    rl_replace_line("", 1);
    rl_on_new_line();
    rl_redisplay();
}

void Terminal::stash()
{
    stashedLine_.assign(rl_line_buffer, static_cast<size_t>(rl_end));
    stashedPoint_ = rl_point;
    rl_replace_line("", 1);
}

void Terminal::unstash()
{
    // readline empties its line after the line handler: put the line back
    // after that.
    if (inHandler_) {
        unstashPending_ = true;
        return;
    }
    rl_replace_line(stashedLine_.c_str(), 1);
    rl_point = stashedPoint_;
    stashedLine_.clear();
}

void Terminal::addHistory(const std::string& command)
{
    // The same command twice in a row is kept once.
    HIST_ENTRY* last =
        history_length > 0 ? history_get(history_base + history_length - 1) : nullptr;
    if (last && command == last->line)
        return;
    add_history(command.c_str());
    if (!historyFile_.empty()) {
        // At once, so that a session that ends badly keeps its history.
        if (access(historyFile_.c_str(), F_OK) != 0)
            write_history(historyFile_.c_str());
        else
            append_history(1, historyFile_.c_str());
    }
}

void Terminal::suspend()
{
    if (!active_ || suspended_)
        return;
    if (!inHandler_)
        rl_clear_visible_line();
    fflush(stdout);
    fflush(stderr);
    rl_deprep_terminal();
    suspended_ = true;
}

void Terminal::resume()
{
    if (!suspended_)
        return;
    suspended_ = false;
    rl_prep_terminal(1);
    if (!inHandler_) {
        rl_on_new_line();
        rl_redisplay();
    }
}

void Terminal::resized()
{
    if (active_)
        rl_resize_terminal();
}

int Terminal::rows() const
{
    winsize ws{};
    if (ioctl(fileno(rl_outstream ? rl_outstream : stdout), TIOCGWINSZ, &ws) == 0 && ws.ws_row > 0)
        return ws.ws_row;
    return 24;
}

void Terminal::page(const std::string& text)
{
    size_t lines = 0;
    for (char c : text)
        lines += c == '\n';
    if (static_cast<int>(lines) + 1 < rows() || !isatty(STDOUT_FILENO)) {
        print(text);
        return;
    }
    const char* pager = getenv("PAGER");
    // less: leave the text on the screen when done, and let colours through.
    setenv("LESS", "FRX", 0);
    suspend();
    FILE* p = popen(pager && *pager ? pager : "less || more", "w");
    if (p) {
        fputs(text.c_str(), p);
        if (text.empty() || text.back() != '\n')
            fputc('\n', p);
        pclose(p);
    }
    resume();
    if (!p)
        print(text);
}

char** Terminal::completion(const char* text, int, int)
{
    Terminal* self = gTerminal;
    rl_attempted_completion_over = 1;   // names only, never file names
    rl_completion_append_character = 0; // a name may go on with "(" or ":="
    self->inCompletion_ = true;
    self->matches_ = self->complete_(text);
    self->inCompletion_ = false;
    return rl_completion_matches(text, nextMatch);
}

char* Terminal::nextMatch(const char*, int state)
{
    static size_t next;
    if (state == 0)
        next = 0;
    const std::vector<std::string>& m = gTerminal->matches_;
    return next < m.size() ? strdup(m[next++].c_str()) : nullptr;
}

} // namespace tamix
