#include "Input.h"

namespace tamix {

namespace {

const char kBlanks[] = " \t\r\n";

bool opens(char c)
{
    return c == '(' || c == '[' || c == '{';
}

bool closes(char c)
{
    return c == ')' || c == ']' || c == '}';
}

} // namespace

std::string trim(const std::string& text)
{
    size_t b = text.find_first_not_of(kBlanks);
    if (b == std::string::npos)
        return "";
    return text.substr(b, text.find_last_not_of(kBlanks) - b + 1);
}

bool isQuitCommand(const std::string& text)
{
    const std::string t = trim(text);
    return t == "quit" || t == "quit;" || t == "quit()" || t == "quit();";
}

void InputAccumulator::scan(const std::string& line)
{
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i], next = i + 1 < line.size() ? line[i + 1] : '\0';
        if (inComment_) {
            if (c == '*' && next == '/') {
                inComment_ = false;
                ++i;
            }
        } else if (inString_) {
            if (c == '\\')
                ++i; // an escaped character, a quote too
            else if (c == '"')
                inString_ = false;
        } else if (c == '"') {
            inString_ = true;
        } else if (c == '/' && next == '/') {
            return; // the rest of the line is a comment
        } else if (c == '/' && next == '*') {
            inComment_ = true;
            ++i;
        } else if (opens(c)) {
            ++depth_;
        } else if (closes(c)) {
            --depth_; // too many closing brackets are the kernel's to report
        }
    }
}

bool InputAccumulator::add(const std::string& line)
{
    std::string piece = line;
    const bool wasContinued = continued_;
    // A backslash at the end joins the next line to this one; inside a
    // string it is the string's business.
    continued_ = !inString_ && !inComment_ && !piece.empty() && piece.back() == '\\';
    if (continued_)
        piece.pop_back();
    if (!text_.empty() && !wasContinued)
        text_ += '\n';
    text_ += piece;
    scan(piece);
    return !continued_ && !inString_ && !inComment_ && depth_ <= 0;
}

std::string InputAccumulator::take()
{
    std::string t;
    t.swap(text_);
    reset();
    return t;
}

void InputAccumulator::reset()
{
    text_.clear();
    depth_ = 0;
    inString_ = false;
    inComment_ = false;
    continued_ = false;
}

} // namespace tamix
