#include "Output.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace tamix {

namespace {

struct StyleLook {
    const char* color;      // SGR colour on a colour terminal
    const char* plainLabel; // in front of the text without colours
};

const StyleLook& look(Style style)
{
    static const StyleLook looks[] = {
        {nullptr, ""},           // Plain
        {"\033[31m", "error: "}, // Error: red
        {"\033[33m", ""},        // Warning: yellow
        {"\033[36m", ""},        // Info: cyan
    };
    return looks[static_cast<int>(style)];
}

} // namespace

bool colorTerminal(FILE* stream)
{
    const char* term = getenv("TERM");
    const char* noColor = getenv("NO_COLOR");
    return isatty(fileno(stream)) && term && *term && strcmp(term, "dumb") != 0 &&
           !(noColor && *noColor);
}

std::string paint(const std::string& text, Style style, bool color)
{
    const StyleLook& l = look(style);
    if (color && l.color)
        return l.color + text + "\033[0m\n";
    return l.plainLabel + text + "\n";
}

} // namespace tamix
