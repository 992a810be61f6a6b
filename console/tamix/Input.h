// Putting commands together from input lines: a line whose brackets are
// still open, that is inside a string or a block comment, or that ends with
// a backslash goes on on the next line. Pure text work, no terminal.
#ifndef TAMIX_CONSOLE_INPUT_H
#define TAMIX_CONSOLE_INPUT_H

#include <string>

namespace tamix {

class InputAccumulator {
public:
    // Adds one line (without its newline). True when the text so far is a
    // whole command, to be taken with take().
    bool add(const std::string& line);
    // The command put together so far, and a fresh start.
    std::string take();
    // True while lines have been added that do not yet form a command.
    bool pending() const { return !text_.empty() || continued_; }
    void reset();

private:
    // Scans what add() appended and updates the open brackets, string and
    // comment state.
    void scan(const std::string& line);

    std::string text_;
    int depth_ = 0;
    bool inString_ = false;
    bool inComment_ = false;
    bool continued_ = false; // the last line ended with a backslash
};

// The text without leading and trailing blanks, tabs and newlines.
std::string trim(const std::string& text);
// "quit", "quit;", "quit()" and "quit();", blanks around allowed: the
// command that ends a session.
bool isQuitCommand(const std::string& text);

} // namespace tamix

#endif
