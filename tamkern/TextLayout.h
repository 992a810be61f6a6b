// Layout of result text for a client's settings: wrapping at the client's
// text width and abbreviating very long results. Works on UTF-8 and never
// splits a character.
#ifndef TAMKERN_TEXTLAYOUT_H
#define TAMKERN_TEXTLAYOUT_H

#include <cstddef>
#include <string>
#include <string_view>

namespace tamkern {

// Breaks every line longer than width characters into lines of at most width
// characters, preferring to break after a blank, a comma, a closing bracket
// or an operator in the last third of the line. width < 1 means no wrapping.
std::string wrapText(std::string_view text, long width);

// Results longer than AbbreviateLimit characters keep their first
// AbbreviateHead and last AbbreviateTail characters; the middle becomes a
// note of how much was left out.
constexpr std::size_t AbbreviateLimit = 1000;
constexpr std::size_t AbbreviateHead = 400;
constexpr std::size_t AbbreviateTail = 100;
std::string abbreviate(std::string_view text);

// text without leading and trailing blanks, tabs and line ends: as a copy,
// as a view into it, or in place (which copies nothing when there is
// nothing to take off: results can be huge).
std::string trimmed(std::string_view text);
std::string_view trimmedView(std::string_view text);
void trimInPlace(std::string& text);

} // namespace tamkern

#endif
