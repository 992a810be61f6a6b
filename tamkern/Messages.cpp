#include "tamkern/Messages.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "support/TKT_stream.h"
#include "support/TKpayload.h"

namespace tamkern {

namespace {

// Length of the valid UTF-8 sequence at s[i], or 0 if there is none
// (overlong forms, surrogates and code points above U+10FFFF are invalid, and
// so are U+FFFE and U+FFFF, which XML 1.0 does not allow as characters).
std::size_t utf8Length(std::string_view s, std::size_t i)
{
    unsigned char c = static_cast<unsigned char>(s[i]);
    std::size_t need;
    unsigned cp;
    if (c < 0x80)
        return 1;
    if (c >= 0xC2 && c <= 0xDF) {
        need = 1;
        cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
        need = 2;
        cp = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
        need = 3;
        cp = c & 0x07;
    } else {
        return 0;
    }
    if (i + need >= s.size())
        return 0;
    for (std::size_t k = 1; k <= need; ++k) {
        unsigned char d = static_cast<unsigned char>(s[i + k]);
        if ((d & 0xC0) != 0x80)
            return 0;
        cp = (cp << 6) | (d & 0x3F);
    }
    if ((need == 2 && cp < 0x800) || (need == 3 && cp < 0x10000) || cp > 0x10FFFF ||
        (cp >= 0xD800 && cp <= 0xDFFF) || cp == 0xFFFE || cp == 0xFFFF)
        return 0;
    return need + 1;
}

} // namespace

namespace {

// Counts what escaping would append, so that a huge text is escaped into a
// string of the right size at once rather than one that doubles around it.
struct Counter {
    std::size_t n = 0;
    Counter& operator+=(char) { return ++n, *this; }
    Counter& operator+=(const char* s) { return n += std::strlen(s), *this; }
    void append(std::string_view s) { n += s.size(); }
};

template <typename Out>
void escapeInto(Out& out, std::string_view text)
{
    for (std::size_t i = 0; i < text.size();) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c >= 0x80) {
            std::size_t n = utf8Length(text, i);
            if (n == 0) {
                out += "\xEF\xBF\xBD";
                ++i;
            } else {
                out.append(text.substr(i, n));
                i += n;
            }
            continue;
        }
        switch (c) {
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '&':
            out += "&amp;";
            break;
        case '"':
            out += "&quot;";
            break;
        case '\'':
            out += "&apos;";
            break;
        case '\n':
            out += "&#10;";
            break;
        case '\r':
            out += "&#13;";
            break;
        case '\t':
            out += "&#9;";
            break;
        default:
            if (c >= 0x20 && c != 0x7F)
                out += static_cast<char>(c);
            break;
        }
        ++i;
    }
}

} // namespace

void appendEscaped(std::string& out, std::string_view text)
{
    if (text.size() > 4096) {
        Counter count;
        escapeInto(count, text);
        out.reserve(out.size() + count.n);
    }
    escapeInto(out, text);
}

std::string escaped(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    appendEscaped(out, text);
    return out;
}

namespace {

// Appends a payload codec's output to a string, refusing what would take
// it beyond limit bytes.
class StringSink : public TKpayloadSink {
public:
    StringSink(std::string& out, std::size_t limit) : out_(out), limit_(limit) {}

    long put(const unsigned char* data, unsigned long len) override
    {
        if (len > limit_ - std::min(limit_, out_.size()))
            return TKstream::OutOfMemory;
        out_.append(reinterpret_cast<const char*>(data), len);
        return TKstream::Ok;
    }

private:
    std::string& out_;
    std::size_t limit_;
};

} // namespace

void appendMCode(std::string& out, std::string_view format, std::string_view bytes)
{
    out += "<mcode format=\"";
    appendEscaped(out, format);
    out += "\">";
    // A compressor that fails (no memory) leaves the text short; the element
    // is closed all the same so that the stream stays well-formed.
    StringSink sink(out, std::string::npos);
    TKpayloadEncoder().encode(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
                              sink);
    out += "</mcode>";
}

Decoded decodeMCode(std::string_view base64, std::string& bytes, std::size_t limit)
{
    bytes.clear();
    StringSink sink(bytes, limit);
    TKpayloadDecoder decoder;
    // In pieces, so that a refusal stops the work early.
    const std::size_t Piece = 4096;
    for (std::size_t at = 0; at < base64.size(); at += Piece) {
        std::size_t n = std::min(Piece, base64.size() - at);
        switch (decoder.write(base64.data() + at, static_cast<long>(n), sink)) {
        case TKpayloadDecoder::SinkFailed:
            return Decoded::TooLarge;
        case TKpayloadDecoder::More:
            continue;
        case TKpayloadDecoder::End:
            return Decoded::Whole; // later text is ignored
        default:
            return Decoded::Damaged;
        }
    }
    TKpayloadDecoder::Result r = decoder.finish(sink);
    if (r == TKpayloadDecoder::SinkFailed)
        return Decoded::TooLarge;
    return r == TKpayloadDecoder::End ? Decoded::Whole : Decoded::Damaged;
}

bool decodeMCode(std::string_view base64, std::string& bytes)
{
    // A request is a command, not a bulk transfer; this also defuses
    // payloads that inflate enormously.
    return decodeMCode(base64, bytes, MaxPayload) == Decoded::Whole;
}

Message::Message(const char* name, long cl) : name_(name)
{
    out_ += '<';
    out_ += name;
    if (cl >= 0)
        attr("cl", cl);
}

Message& Message::attr(const char* name, std::string_view value)
{
    out_ += ' ';
    out_ += name;
    out_ += "=\"";
    appendEscaped(out_, value);
    out_ += '"';
    return *this;
}

Message& Message::attr(const char* name, long long value)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%lld", value);
    return attr(name, std::string_view(buf));
}

Message& Message::open()
{
    if (!open_) {
        out_ += '>';
        open_ = true;
    }
    return *this;
}

Message& Message::raw(std::string_view xml)
{
    open();
    out_.append(xml);
    return *this;
}

Message& Message::text(std::string_view format, std::string_view content)
{
    open();
    if (content.size() > 4096) {
        Counter count;
        escapeInto(count, content);
        out_.reserve(out_.size() + count.n + format.size() + 64 + std::strlen(name_));
    }
    out_ += "<text format=\"";
    appendEscaped(out_, format);
    out_ += "\">";
    appendEscaped(out_, content);
    out_ += "</text>";
    return *this;
}

Message& Message::mcode(std::string_view format, std::string_view bytes)
{
    open();
    appendMCode(out_, format, bytes);
    return *this;
}

std::string Message::finish()
{
    if (open_) {
        out_ += "</";
        out_ += name_;
        out_ += '>';
    } else {
        out_ += "/>";
    }
    return std::move(out_);
}

std::string msgOutputText(long cl, long long cid, std::string_view type, std::string_view format,
                          std::string_view text)
{
    return Message("output", cl).attr("cid", cid).attr("type", type).text(format, text).finish();
}

std::string msgOutputData(long cl, long long cid, std::string_view type, std::string_view format,
                          std::string_view bytes)
{
    return Message("output", cl).attr("cid", cid).attr("type", type).mcode(format, bytes).finish();
}

std::string msgFinished(long cl, long long cid)
{
    return Message("finished", cl).attr("cid", cid).finish();
}

std::string msgEmpty(const char* name, long cl)
{
    return Message(name, cl).finish();
}

std::string msgValue(const char* name, long cl, std::string_view value)
{
    return Message(name, cl).attr("value", value).finish();
}

std::string msgValue(const char* name, long cl, long long value)
{
    return Message(name, cl).attr("value", value).finish();
}

std::string msgStatus(long cl, long long used, long long res, long long sec)
{
    return Message("status", cl).attr("used", used).attr("res", res).attr("sec", sec).finish();
}

std::string msgCompletion(long cl, std::string_view list, std::string_view pref)
{
    return Message("completion", cl).attr("list", list).attr("pref", pref).finish();
}

std::string msgFormats(const char* name, long cl, std::string_view type,
                       const std::vector<std::string>& formats)
{
    Message m(name, cl);
    m.attr("type", type).open();
    for (const std::string& f : formats) {
        std::string fmt = "<fmt name=\"";
        appendEscaped(fmt, f);
        fmt += "\"/>";
        m.raw(fmt);
    }
    return m.finish();
}

std::string msgSendInput(long cl, long long cid, bool textInput, std::string_view prompt)
{
    return Message("sendinput", cl)
        .attr("cid", cid)
        .attr("text", textInput ? 1LL : 0LL)
        .text("text", prompt)
        .finish();
}

std::string msgPlotFile(long cl, long long cid, std::string_view name)
{
    return Message("plotfile", cl).attr("cid", cid).attr("name", name).finish();
}

std::string msgCallback(long cl, long long cid, std::string_view format, std::string_view bytes)
{
    return Message("callback", cl).attr("cid", cid).mcode(format, bytes).finish();
}

std::string msgQuit()
{
    return "<quit/>";
}

} // namespace tamkern
