#include "tamkern/TextLayout.h"

namespace tamkern {

namespace {

bool isContinuation(char c)
{
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// Characters are walked, never listed: a list of their positions would
// take eight times the text.

// The start of the character after the one at i.
std::size_t nextChar(std::string_view s, std::size_t i)
{
    for (++i; i < s.size() && isContinuation(s[i]);)
        ++i;
    return i;
}

// The start of the character before position i (i > 0).
std::size_t prevChar(std::string_view s, std::size_t i)
{
    for (--i; i > 0 && isContinuation(s[i]);)
        --i;
    return i;
}

// The position n characters after from, or the end of s.
std::size_t advance(std::string_view s, std::size_t from, std::size_t n)
{
    for (; n > 0 && from < s.size(); --n)
        from = nextChar(s, from);
    return from;
}

bool breaksAfter(char c)
{
    switch (c) {
    case ' ':
    case ',':
    case ';':
    case ')':
    case ']':
    case '}':
    case '+':
    case '-':
    case '*':
    case '/':
    case '=':
        return true;
    default:
        return false;
    }
}

void wrapLine(std::string& out, std::string_view line, std::size_t width)
{
    std::size_t pos = 0; // the current piece's start
    for (;;) {
        std::size_t end = advance(line, pos, width);
        if (end >= line.size())
            break; // the rest fits
        // A break after an operator in the piece's last third, if there is
        // one: the character before each candidate end is looked at.
        std::size_t cut = end;
        for (std::size_t k = 0, b = end; k < width / 3; ++k) {
            std::size_t prev = prevChar(line, b);
            if (breaksAfter(line[prev])) {
                cut = b;
                break;
            }
            b = prev;
        }
        out.append(line.substr(pos, cut - pos));
        out += '\n';
        pos = cut;
    }
    out.append(line.substr(pos));
}

} // namespace

std::string wrapText(std::string_view text, long width)
{
    if (width < 1)
        return std::string(text);
    std::string out;
    out.reserve(text.size() + text.size() / static_cast<std::size_t>(width) + 1);
    std::size_t pos = 0;
    for (;;) {
        std::size_t nl = text.find('\n', pos);
        std::string_view line =
            text.substr(pos, nl == std::string_view::npos ? std::string_view::npos : nl - pos);
        wrapLine(out, line, static_cast<std::size_t>(width));
        if (nl == std::string_view::npos)
            break;
        out += '\n';
        pos = nl + 1;
    }
    return out;
}

std::string abbreviate(std::string_view text)
{
    std::size_t chars = 0;
    for (char c : text)
        chars += !isContinuation(c);
    if (chars <= AbbreviateLimit)
        return std::string(text);
    std::size_t omitted = chars - AbbreviateHead - AbbreviateTail;
    std::string out(text.substr(0, advance(text, 0, AbbreviateHead)));
    out += " ...<<";
    out += std::to_string(omitted);
    out += " characters omitted>>... ";
    out.append(text.substr(advance(text, 0, chars - AbbreviateTail)));
    return out;
}

std::string_view trimmedView(std::string_view text)
{
    std::size_t b = text.find_first_not_of(" \t\r\n");
    if (b == std::string_view::npos)
        return std::string_view();
    std::size_t e = text.find_last_not_of(" \t\r\n");
    return text.substr(b, e - b + 1);
}

std::string trimmed(std::string_view text)
{
    return std::string(trimmedView(text));
}

void trimInPlace(std::string& text)
{
    std::string_view v = trimmedView(text);
    if (v.size() == text.size())
        return;
    std::size_t from = v.empty() ? 0 : static_cast<std::size_t>(v.data() - text.data());
    text.erase(from + v.size());
    text.erase(0, from);
}

} // namespace tamkern
