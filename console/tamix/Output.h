// How the console's texts look: kernel output, errors set apart, the
// console's own messages.
#ifndef TAMIX_CONSOLE_OUTPUT_H
#define TAMIX_CONSOLE_OUTPUT_H

#include <cstdio>
#include <string>

namespace tamix {

// How a text is set apart: in colour on a colour terminal, else errors
// with a word in front and the rest as it is.
enum class Style { Plain, Error, Warning, Info };

// The text with its style applied, for a stream with or without colours,
// and a newline.
std::string paint(const std::string& text, Style style, bool color);

// Whether colours suit this stream: a terminal other than "dumb", and
// NO_COLOR not set.
bool colorTerminal(FILE* stream);

} // namespace tamix

#endif
