// Request writer: framing, value encoding and the 17 requests.
#include "xmsg/TAM_XmsgKernel.h"

#include <cstdio>
#include <cstring>

#include "support/TKT_stream.h"
#include "support/Tut.h"

// A failed set-up of the payload encoder shows as a failing payload later;
// requests without payloads still work.
TAM_XmsgKernel::TAM_XmsgKernel() : status_(TKstream::Ok) {}

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
    xput_raw(value ? "1" : "0", 1);
}

void TAM_XmsgKernel::xput_cookie(void* cookie)
{
    // The kernel echoes this text in "cid"; the reader turns it back into the
    // same pointer value. Never dereferenced.
    xput_int(static_cast<long>(reinterpret_cast<intptr_t>(cookie)));
}

void TAM_XmsgKernel::xput_escaped(const char* text, unsigned long len)
{
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
    const unsigned char* end = p + len;
    const unsigned char* run = p;
    for (; p < end; ++p) {
        unsigned char c = *p;
        const char* rep;
        unsigned long repLen;
        switch (c) {
        case '\t':
        case '\n':
        case '\r':
            continue;
        case '"':
            rep = "&quot;";
            repLen = 6;
            break;
        case '&':
            rep = "&amp;";
            repLen = 5;
            break;
        case '\'':
            rep = "&apos;";
            repLen = 6;
            break;
        case '<':
            rep = "&lt;";
            repLen = 4;
            break;
        case '>':
            rep = "&gt;";
            repLen = 4;
            break;
        default:
            if (c >= 0x20)
                continue;
            // Other control bytes cannot appear in XML 1.0 at all: drop them.
            rep = nullptr;
            repLen = 0;
            break;
        }
        if (p > run)
            xput_raw(reinterpret_cast<const char*>(run), static_cast<unsigned long>(p - run));
        if (rep)
            xput_raw(rep, repLen);
        run = p + 1;
    }
    if (p > run)
        xput_raw(reinterpret_cast<const char*>(run), static_cast<unsigned long>(p - run));
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

// ---- Requests --------------------------------------------------------------

int TAM_XmsgKernel::send_new_client(const char* name, const char* frame, long features,
                                    unsigned char longfmt, unsigned char floatfmt,
                                    unsigned char coding)
{
    xbegin("newclient", 9);
    xput_lit(" name =\"");
    xput_cdata(name);
    xput_lit("\" frame=\"");
    xput_cdata(frame);

    xput_lit("\" longfmt=\"");
    if (longfmt == 2)
        xput_lit("text");
    else if (longfmt == 3)
        xput_lit("gmp");

    xput_lit("\" floatfmt=\"");
    if (floatfmt == 1)
        xput_lit("ieee");
    else if (floatfmt == 2)
        xput_lit("text");

    xput_lit("\" coding=\"");
    if (coding == 0) {
        xput_lit("flat");
    } else {
        if (coding & 0x01)
            xput_lit("ref ");
        if (coding & 0x04)
            xput_lit("ident ");
        if (coding & 0x02)
            xput_lit("prop ");
    }

    xput_lit("\" features=\"");
    static const struct {
        long bit;
        const char* word;
    } kFeatures[] = {
        {0x1, "stay_alive "},       {0x2, "complete_commands "}, {0x4, "can_debug "},
        {0x8, "can_lazy_debug "},   {0x10, "debugger_ui "},      {0x20, "can_plot "},
        {0x400, "can_input "},      {0x800, "can_textinput "},   {0x1000, "can_help "},
        {0x2000, "can_help_dvi "},  {0x4000, "can_browse_help "}, {0x8000, "can_exec_system "},
        {0x10000, "can_quit "},     {0x20000, "can_callback "},  {0x40000, "can_typeset "},
        {0x80000, "can_protocol "},
    };
    for (const auto& f : kFeatures) {
        if (features & f.bit)
            xput_raw(f.word, std::strlen(f.word));
    }
    xput_lit("\"/>");
    // The first request of a connection: the transport sends it itself, so
    // nothing is flushed here.
    return status_ == TKstream::Ok ? 1 : 0;
}

int TAM_XmsgKernel::send_init(long argc, const char** argv)
{
    xbegin("init", 4);
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
    xbegin("cmd", 3);
    xput_lit(" cid=\"");
    xput_cookie(cookie);
    if (flags & 1)
        xput_lit("\" flags=\"no_history");
    if (format && *format) {
        xput_lit("\" format=\"");
        xput_ascii_cdata(format);
    }
    xput_lit("\">");
    xput_lit("<text format=\"");
    xput_ascii_cdata("_lan");
    xput_lit("\">");
    xput_cdata(cmd);
    xput_lit("</text>");
    xput_lit("</cmd>");
    return xend();
}

int TAM_XmsgKernel::send_cmd_data(void* cookie, const TAM_DataTAG* data, long flags,
                                  const char* format)
{
    xbegin("cmd", 3);
    xput_lit(" cid=\"");
    xput_cookie(cookie);
    if (flags & 1)
        xput_lit("\" flags=\"no_history");
    if (format && *format) {
        xput_lit("\" format=\"");
        xput_ascii_cdata(format);
    }
    xput_lit("\">");
    xput_mcode(data);
    xput_lit("</cmd>");
    return xend();
}

int TAM_XmsgKernel::send_completion_wanted(const char* text)
{
    xbegin("complete", 8);
    xput_lit(" value=\"");
    xput_cdata(text);
    xput_lit("\"/>");
    return xend();
}

int TAM_XmsgKernel::send_dbg_cmd(unsigned char cmd, const char* fname, long fpos,
                                 const char* expr)
{
    xbegin("dbgcmd", 6);
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
    xbegin("sysresult", 9);
    xput_lit(" value=\"");
    xput_int(result);
    xput_lit("\"/>");
    return xend();
}

int TAM_XmsgKernel::send_input(int canceled, const char* text)
{
    xbegin("input", 5);
    xput_lit(" canceled=\"");
    xput_bool(canceled);
    xput_lit("\">");
    xput_lit("<text format=\"");
    xput_ascii_cdata("_lan");
    xput_lit("\">");
    xput_cdata(text);
    xput_lit("</text>");
    xput_lit("</input>");
    return xend();
}

int TAM_XmsgKernel::send_textinput(int canceled, const char* text)
{
    xbegin("textinput", 9);
    xput_lit(" canceled=\"");
    xput_bool(canceled);
    xput_lit("\">");
    xput_cdata(text);
    xput_lit("</textinput>");
    return xend();
}

int TAM_XmsgKernel::send_call_result(int error, const TAM_DataTAG* data)
{
    xbegin("callresult", 10);
    xput_lit(" error=\"");
    xput_bool(error);
    xput_lit("\">");
    xput_mcode(data);
    xput_lit("</callresult>");
    return xend();
}

int TAM_XmsgKernel::send_textwidth(long width)
{
    xbegin("textwidth", 9);
    xput_lit(" value=\"");
    xput_int(width);
    xput_lit("\"/>");
    return xend();
}

int TAM_XmsgKernel::send_pretty_print(int on)
{
    xbegin("prettyprint", 11);
    xput_lit(" value=\"");
    xput_bool(on);
    xput_lit("\"/>");
    return xend();
}

int TAM_XmsgKernel::send_abbreviate_output(int on)
{
    xbegin("abbreviateoutput", 16);
    xput_lit(" value=\"");
    xput_bool(on);
    xput_lit("\"/>");
    return xend();
}

int TAM_XmsgKernel::send_format(const char* name, const char* format)
{
    xbegin("format", 6);
    xput_lit(" type=\"");
    xput_ascii_cdata(name);
    xput_lit("\" value=\"");
    xput_ascii_cdata(format);
    xput_lit("\"/>");
    return xend();
}

int TAM_XmsgKernel::send_status_wanted()
{
    xbegin("sendstatus", 10);
    xput_lit("/>");
    return xend();
}

int TAM_XmsgKernel::send_stop()
{
    xbegin("stop", 4);
    xput_lit("/>");
    return xend();
}

int TAM_XmsgKernel::send_quit()
{
    xbegin("quit", 4);
    xput_lit("/>");
    return xend();
}
