#include "tamkern/Svg.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <expat.h>

namespace tamkern {

namespace {

bool isNameStart(char c)
{
    return std::isalpha(static_cast<unsigned char>(c)) || c == '_' || c == ':';
}

// s[i] is '&': does a reference that XML knows start there?
bool isReference(std::string_view s, std::size_t i)
{
    std::size_t semi = s.find(';', i);
    if (semi == std::string_view::npos || semi - i > 10)
        return false;
    std::string_view name = s.substr(i + 1, semi - i - 1);
    for (const char* known : {"lt", "gt", "amp", "quot", "apos"})
        if (name == known)
            return true;
    if (name.size() < 2 || name[0] != '#')
        return false;
    bool hex = name[1] == 'x';
    std::string_view digits = name.substr(hex ? 2 : 1);
    if (digits.empty())
        return false;
    for (char c : digits)
        if (!(hex ? std::isxdigit(static_cast<unsigned char>(c))
                  : std::isdigit(static_cast<unsigned char>(c))))
            return false;
    return true;
}

bool isControl(char c)
{
    unsigned char u = static_cast<unsigned char>(c);
    return u < 0x20 && c != '\t' && c != '\n' && c != '\r';
}

// Text content or attribute value: one character, escaped where needed.
void appendChar(std::string& out, std::string_view s, std::size_t i, bool rawText)
{
    char c = s[i];
    if (isControl(c))
        return;
    if (c == '<')
        out += "&lt;";
    else if (c == '>' && rawText)
        out += "&gt;";
    else if (c == '&' && (rawText || !isReference(s, i)))
        out += "&amp;";
    else
        out += c;
}

// Copies the tag that starts at s[i] up to its '>' and returns the index
// after it; a closing quote directly followed by a name gets a blank.
std::size_t copyTag(std::string& out, std::string_view s, std::size_t i)
{
    out += s[i++];
    char quote = 0;
    for (; i < s.size(); ++i) {
        char c = s[i];
        if (quote && c != quote) {
            appendChar(out, s, i, false);
            continue;
        }
        out += c;
        if (c == quote) {
            quote = 0;
            if (i + 1 < s.size() && isNameStart(s[i + 1]))
                out += ' ';
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == '>') {
            return i + 1;
        }
    }
    return i;
}

} // namespace

std::string repairSvg(std::string_view s)
{
    static const char kTextEnd[] = "</text>";
    const std::size_t endLen = sizeof kTextEnd - 1;
    std::string out;
    out.reserve(s.size() + s.size() / 32);
    bool inText = false; // in the content of a <text> element: all of it is text
    for (std::size_t i = 0; i < s.size();) {
        if (inText) {
            if (s.compare(i, endLen, kTextEnd) == 0) {
                out += kTextEnd;
                i += endLen;
                inText = false;
            } else {
                appendChar(out, s, i++, true);
            }
            continue;
        }
        if (s[i] != '<') {
            appendChar(out, s, i++, false);
            continue;
        }
        std::size_t start = out.size();
        i = copyTag(out, s, i);
        std::string_view tag(out.data() + start, out.size() - start);
        inText = tag.compare(0, 5, "<text") == 0 && tag.size() > 5 && !isNameStart(tag[5]) &&
                 tag.compare(tag.size() - 2, 2, "/>") != 0;
    }
    return out;
}

bool isWellFormedXml(std::string_view text)
{
    XML_Parser p = XML_ParserCreate("UTF-8");
    if (!p)
        return false;
    bool ok = true;
    // Large drawings go in pieces, as an int counts the bytes of one.
    const std::size_t chunk = 1u << 20;
    for (std::size_t at = 0; ok && at < text.size(); at += chunk) {
        std::size_t n = std::min(chunk, text.size() - at);
        ok = XML_Parse(p, text.data() + at, static_cast<int>(n), 0) == XML_STATUS_OK;
    }
    ok = ok && XML_Parse(p, "", 0, 1) == XML_STATUS_OK;
    XML_ParserFree(p);
    return ok;
}

} // namespace tamkern
