// Request writer: framing, value encoding and the 17 requests.
#include "xmsg/TAM_XmsgKernel.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "support/TKT_stream.h"
#include "support/Tut.h"

// A failed set-up of the payload encoder shows as a failing payload later;
// requests without payloads still work.
TAM_XmsgKernel::TAM_XmsgKernel() : status_(TKstream::Ok)
{
}

TAM_XmsgKernel::~TAM_XmsgKernel() = default;

// ---- Framing ---------------------------------------------------------------

void TAM_XmsgKernel::xbegin(const char* name, unsigned long len)
{
    long id = get_client_id();
    status_ = TKstream::Ok;
    xput_lit("<");
    xput_raw(name, len);
    if (id >= 0) {
        xput_lit(" cl=\"");
        xput_int(id);
        xput_lit("\"");
    }
}

int TAM_XmsgKernel::xend()
{
    if (status_ != TKstream::Ok)
        return 0;
    status_ = xstream()->flush();
    return status_ == TKstream::Ok ? 1 : 0;
}

// ---- Values ----------------------------------------------------------------

void TAM_XmsgKernel::xput_raw(const char* data, unsigned long len)
{
    if (status_ != TKstream::Ok)
        return;
    unsigned long written;
    status_ = xstream()->write(data, len, written);
}

void TAM_XmsgKernel::xput_int(long value)
{
    char buf[24];
    int n = std::snprintf(buf, sizeof buf, "%ld", value);
    xput_raw(buf, static_cast<unsigned long>(n));
}

void TAM_XmsgKernel::xput_bool(int value)
{
    if (value)
        xput_lit("1");
    else
        xput_lit("0");
}

void TAM_XmsgKernel::xput_cookie(void* cookie)
{
    // The kernel echoes this text in "cid"; the reader turns it back into the
    // same pointer value. Never dereferenced.
    xput_int(static_cast<long>(reinterpret_cast<intptr_t>(cookie)));
}

namespace {

// The escape table, for attribute values and element content alike: tab
// and line ends and every byte from 0x20 up pass unchanged, except the five
// markup characters.
bool passesUnchanged(unsigned char c)
{
    if (c < 0x20)
        return c == '\t' || c == '\n' || c == '\r';
    return c != '"' && c != '&' && c != '\'' && c != '<' && c != '>';
}

// What a byte that does not pass becomes: its entity, or nothing for the
// other control bytes, which XML 1.0 cannot carry at all.
std::string_view replacement(unsigned char c)
{
    switch (c) {
    case '"':
        return "&quot;";
    case '&':
        return "&amp;";
    case '\'':
        return "&apos;";
    case '<':
        return "&lt;";
    case '>':
        return "&gt;";
    default:
        return {};
    }
}

} // namespace

void TAM_XmsgKernel::xput_escaped(const char* text, unsigned long len)
{
    const char* const end = text + len;
    const char* run = text;
    for (const char* p = text; p < end; ++p) {
        if (passesUnchanged(static_cast<unsigned char>(*p)))
            continue;
        if (p > run)
            xput_raw(run, static_cast<unsigned long>(p - run));
        const std::string_view rep = replacement(static_cast<unsigned char>(*p));
        if (!rep.empty())
            xput_raw(rep.data(), rep.size());
        run = p + 1;
    }
    if (end > run)
        xput_raw(run, static_cast<unsigned long>(end - run));
}

void TAM_XmsgKernel::xput_ascii_cdata(const char* text)
{
    if (!text || !*text)
        return;
    xput_escaped(text, std::strlen(text));
}

void TAM_XmsgKernel::xput_cdata(const char* text)
{
    if (!text || !*text)
        return;
    try {
        Tut::FlexBuff<char> buf;
        long n = Tut::locToUtf8(text, static_cast<long>(std::strlen(text)), buf);
        if (n > 0)
            xput_escaped(buf.data(), static_cast<unsigned long>(n));
    } catch (...) {
        // The buffer is gone with the scope; the request fails at xend.
        status_ = TKstream::Error;
    }
}

// ---- Shared pieces of requests ---------------------------------------------

namespace {

// A word of the announcement and the bit or value that selects it.
struct Word {
    long key;
    std::string_view text;
};

// One word, each with its trailing blank, for every bit set, in table order.
const Word kFeatureWords[] = {
    {TAM_FEATURE_STAY_ALIVE, "stay_alive "},
    {TAM_FEATURE_COMPLETE_COMMANDS, "complete_commands "},
    {TAM_FEATURE_CAN_DEBUG, "can_debug "},
    {TAM_FEATURE_CAN_LAZY_DEBUG, "can_lazy_debug "},
    {TAM_FEATURE_DEBUGGER_UI, "debugger_ui "},
    {TAM_FEATURE_CAN_PLOT, "can_plot "},
    {TAM_FEATURE_CAN_INPUT, "can_input "},
    {TAM_FEATURE_CAN_TEXTINPUT, "can_textinput "},
    {TAM_FEATURE_CAN_HELP, "can_help "},
    {TAM_FEATURE_CAN_HELP_DVI, "can_help_dvi "},
    {TAM_FEATURE_CAN_BROWSE_HELP, "can_browse_help "},
    {TAM_FEATURE_CAN_EXEC_SYSTEM, "can_exec_system "},
    {TAM_FEATURE_CAN_QUIT, "can_quit "},
    {TAM_FEATURE_CAN_CALLBACK, "can_callback "},
    {TAM_FEATURE_CAN_TYPESET, "can_typeset "},
    {TAM_FEATURE_CAN_PROTOCOL, "can_protocol "},
};
const Word kCodingWords[] = {
    {TAM_CODING_REF, "ref "},
    {TAM_CODING_IDENT, "ident "},
    {TAM_CODING_PROP, "prop "},
};
// One word for the values listed, nothing for any other.
const Word kLongFormats[] = {{TAM_LONGFMT_TEXT, "text"}, {TAM_LONGFMT_GMP, "gmp"}};
const Word kFloatFormats[] = {{TAM_FLOATFMT_IEEE, "ieee"}, {TAM_FLOATFMT_TEXT, "text"}};

template <std::size_t N, class Put>
void putBitWords(const Word (&table)[N], long bits, Put put)
{
    for (const Word& w : table)
        if (bits & w.key)
            put(w.text);
}

template <std::size_t N, class Put>
void putValueWord(const Word (&table)[N], long value, Put put)
{
    for (const Word& w : table)
        if (w.key == value)
            return put(w.text);
}

} // namespace

template <unsigned long N, class PutValue>
int TAM_XmsgKernel::xsend_value(const char (&name)[N], PutValue putValue)
{
    xbegin_lit(name);
    xput_lit(" value=\"");
    putValue();
    xput_lit("\"/>");
    return xend();
}

template <unsigned long N>
int TAM_XmsgKernel::xsend_empty(const char (&name)[N])
{
    xbegin_lit(name);
    xput_lit("/>");
    return xend();
}

void TAM_XmsgKernel::xbegin_cmd(void* cookie, long flags, const char* format)
{
    xbegin_lit("cmd");
    xput_lit(" cid=\"");
    xput_cookie(cookie);
    if (flags & TAM_CMD_NO_HISTORY)
        xput_lit("\" flags=\"no_history");
    if (format && *format) {
        xput_lit("\" format=\"");
        xput_ascii_cdata(format);
    }
    xput_lit("\">");
}

void TAM_XmsgKernel::xput_lan_text(const char* text)
{
    xput_lit("<text format=\"");
    xput_lit("_lan");
    xput_lit("\">");
    xput_cdata(text);
    xput_lit("</text>");
}

// ---- Requests --------------------------------------------------------------

int TAM_XmsgKernel::send_new_client(const char* name, const char* frame, long features,
                                    unsigned char longfmt, unsigned char floatfmt,
                                    unsigned char coding)
{
    const auto put = [this](std::string_view word) { xput_raw(word.data(), word.size()); };
    xbegin_lit("newclient");
    xput_lit(" name =\"");
    xput_cdata(name);
    xput_lit("\" frame=\"");
    xput_cdata(frame);
    xput_lit("\" longfmt=\"");
    putValueWord(kLongFormats, longfmt, put);
    xput_lit("\" floatfmt=\"");
    putValueWord(kFloatFormats, floatfmt, put);
    xput_lit("\" coding=\"");
    if (coding == TAM_CODING_FLAT)
        xput_lit("flat");
    else
        putBitWords(kCodingWords, coding, put);
    xput_lit("\" features=\"");
    putBitWords(kFeatureWords, features, put);
    xput_lit("\"/>");
    // The first request of a connection: the transport sends it itself, so
    // nothing is flushed here.
    return status_ == TKstream::Ok ? 1 : 0;
}

int TAM_XmsgKernel::send_init(long argc, const char** argv)
{
    xbegin_lit("init");
    xput_lit(">");
    for (long i = 0; i < argc; ++i) {
        xput_lit("<iarg value=\"");
        xput_cdata(argv ? argv[i] : nullptr);
        xput_lit("\"/>");
    }
    xput_lit("</init>");
    return xend();
}

int TAM_XmsgKernel::send_cmd(void* cookie, const char* cmd, long flags, const char* format)
{
    xbegin_cmd(cookie, flags, format);
    xput_lan_text(cmd);
    xput_lit("</cmd>");
    return xend();
}

int TAM_XmsgKernel::send_cmd_data(void* cookie, const TAM_DataTAG* data, long flags,
                                  const char* format)
{
    xbegin_cmd(cookie, flags, format);
    xput_mcode(data);
    xput_lit("</cmd>");
    return xend();
}

int TAM_XmsgKernel::send_completion_wanted(const char* text)
{
    return xsend_value("complete", [&] { xput_cdata(text); });
}

int TAM_XmsgKernel::send_dbg_cmd(unsigned char cmd, const char* fname, long fpos, const char* expr)
{
    xbegin_lit("dbgcmd");
    xput_lit(" cmd=\"");
    // Callers pass a printable letter, which goes out as itself. Anything
    // else must not break the kernel's parser: markup characters are
    // escaped, a byte of 0x80 or above is taken as a character of the
    // user's locale and converted like every other text, and control bytes
    // (including tab and line ends, which attribute normalisation would turn
    // into a blank) are dropped, leaving the attribute empty.
    if (cmd >= 0x20) {
        const char one[2] = {static_cast<char>(cmd), '\0'};
        xput_cdata(one);
    }
    xput_lit("\" fname=\"");
    xput_cdata(fname);
    xput_lit("\" fpos=\"");
    xput_int(fpos);
    xput_lit("\" expr=\"");
    xput_cdata(expr);
    xput_lit("\"/>");
    return xend();
}

int TAM_XmsgKernel::send_system_result(long result)
{
    return xsend_value("sysresult", [&] { xput_int(result); });
}

int TAM_XmsgKernel::send_input(int canceled, const char* text)
{
    xbegin_lit("input");
    xput_lit(" canceled=\"");
    xput_bool(canceled);
    xput_lit("\">");
    xput_lan_text(text);
    xput_lit("</input>");
    return xend();
}

int TAM_XmsgKernel::send_textinput(int canceled, const char* text)
{
    xbegin_lit("textinput");
    xput_lit(" canceled=\"");
    xput_bool(canceled);
    xput_lit("\">");
    xput_cdata(text);
    xput_lit("</textinput>");
    return xend();
}

int TAM_XmsgKernel::send_call_result(int error, const TAM_DataTAG* data)
{
    xbegin_lit("callresult");
    xput_lit(" error=\"");
    xput_bool(error);
    xput_lit("\">");
    xput_mcode(data);
    xput_lit("</callresult>");
    return xend();
}

int TAM_XmsgKernel::send_textwidth(long width)
{
    return xsend_value("textwidth", [&] { xput_int(width); });
}

int TAM_XmsgKernel::send_pretty_print(int on)
{
    return xsend_value("prettyprint", [&] { xput_bool(on); });
}

int TAM_XmsgKernel::send_abbreviate_output(int on)
{
    return xsend_value("abbreviateoutput", [&] { xput_bool(on); });
}

int TAM_XmsgKernel::send_format(const char* name, const char* format)
{
    xbegin_lit("format");
    xput_lit(" type=\"");
    xput_ascii_cdata(name);
    xput_lit("\" value=\"");
    xput_ascii_cdata(format);
    xput_lit("\"/>");
    return xend();
}

int TAM_XmsgKernel::send_status_wanted()
{
    return xsend_empty("sendstatus");
}

int TAM_XmsgKernel::send_stop()
{
    return xsend_empty("stop");
}

int TAM_XmsgKernel::send_quit()
{
    return xsend_empty("quit");
}
