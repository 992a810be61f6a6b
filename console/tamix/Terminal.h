// The terminal of an interactive session: GNU readline through its callback
// interface, so that the event loop decides when a key is read; output
// printed above the line being edited; history kept in a file; Tab
// completion through a function of the caller's.
#ifndef TAMIX_CONSOLE_TERMINAL_H
#define TAMIX_CONSOLE_TERMINAL_H

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "Output.h"

namespace tamix {

class Terminal {
public:
    // Called with each line the user enters, without its newline; null at
    // end of input (Ctrl-D on an empty line).
    using LineHandler = std::function<void(const char* line)>;
    // The completions of a word.
    using Completer = std::function<std::vector<std::string>(const std::string& word)>;

    Terminal(bool color, LineHandler onLine, Completer complete);
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    // Shows the prompt and starts taking keys.
    void start(const std::string& prompt);
    // Puts the terminal back as it was and saves the history.
    void stop();

    // Standard input is readable: lets readline take what is there.
    void readKeys();
    void setPrompt(const std::string& prompt);
    // Prints text (a newline is added) above the line being edited, which
    // is drawn again below it.
    void print(const std::string& text, Style style = Style::Plain, bool toStderr = false);
    // Ctrl-C at the prompt: the line is dropped, as in a shell.
    void cancelLine();
    // Puts the line being edited aside (while the kernel asks a question)
    // and brings it back.
    void stash();
    void unstash();
    void addHistory(const std::string& command);
    // A child process takes the terminal over, and gives it back.
    void suspend();
    void resume();
    void resized();
    // The terminal's height in lines.
    int rows() const;
    // Prints text through a pager when it is taller than the terminal.
    void page(const std::string& text);

private:
    static void lineCallback(char* line);
    static char** completion(const char* text, int start, int end);
    static char* nextMatch(const char* text, int state);
    void redrawAfter(const std::function<void()>& write);
    void loadHistory();

    bool outColor_, errColor_;
    LineHandler onLine_;
    Completer complete_;
    bool active_ = false;
    bool inHandler_ = false;    // inside onLine_: the line is already done
    bool inCompletion_ = false; // output waits until the completion is shown
    bool suspended_ = false;
    std::vector<std::pair<std::string, bool>> deferred_; // painted text, to stderr
    std::string historyFile_;
    std::string stashedLine_;
    bool unstashPending_ = false; // once readline has finished its line
    int stashedPoint_ = 0;
    std::vector<std::string> matches_;
};

} // namespace tamix

#endif
