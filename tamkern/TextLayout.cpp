#include "tamkern/TextLayout.h"

#include <vector>

namespace tamkern {

namespace {

bool isContinuation(char c)
{
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// Byte offsets of the starts of the characters of line, plus its end.
std::vector<std::size_t> charStarts(std::string_view line)
{
    std::vector<std::size_t> starts;
    for (std::size_t i = 0; i < line.size(); ++i)
        if (!isContinuation(line[i]))
            starts.push_back(i);
    starts.push_back(line.size());
    return starts;
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
    std::vector<std::size_t> starts = charStarts(line);
    std::size_t chars = starts.size() - 1;
    std::size_t first = 0; // index of the first character of the current piece
    while (chars - first > width) {
        std::size_t cut = first + width; // character index where the piece ends
        for (std::size_t k = first + width; k > first + width - width / 3; --k) {
            if (breaksAfter(line[starts[k - 1]])) {
                cut = k;
                break;
            }
        }
        out.append(line.substr(starts[first], starts[cut] - starts[first]));
        out += '\n';
        first = cut;
    }
    out.append(line.substr(starts[first]));
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
    std::vector<std::size_t> starts = charStarts(text);
    std::size_t chars = starts.size() - 1;
    if (chars <= AbbreviateLimit)
        return std::string(text);
    std::size_t omitted = chars - AbbreviateHead - AbbreviateTail;
    std::string out(text.substr(0, starts[AbbreviateHead]));
    out += " ...<<";
    out += std::to_string(omitted);
    out += " characters omitted>>... ";
    out.append(text.substr(starts[chars - AbbreviateTail]));
    return out;
}

std::string trimmed(std::string_view text)
{
    std::size_t b = text.find_first_not_of(" \t\r\n");
    if (b == std::string_view::npos)
        return std::string();
    std::size_t e = text.find_last_not_of(" \t\r\n");
    return std::string(text.substr(b, e - b + 1));
}

} // namespace tamkern
