// The kernel connection that speaks the client-to-kernel half of the XML
// message protocol: every request becomes one small XML element, assembled
// by hand from literal pieces and escaped values and written into the
// stream that the subclass supplies through xstream(). The subclass decides
// how the finished bytes reach the kernel (see xbegin/xend).
//
// Writes are guarded: the first failing write is kept in status_, every
// later write of the same request is skipped, and the request ends with 0.
// The next xbegin starts clean.
#ifndef TAMIX_XMSG_TAM_XMSGKERNEL_H
#define TAMIX_XMSG_TAM_XMSGKERNEL_H

#include <cstdint>

#include "kernel/TAM_KernelImpl.h"
#include "support/TKpayload.h"

class TKstream;

class TAM_XmsgKernel : public TAM_KernelImpl {
public:
    TAM_XmsgKernel();
    ~TAM_XmsgKernel() override;

    int send_new_client(const char* name, const char* frame, long features, unsigned char longfmt,
                        unsigned char floatfmt, unsigned char coding) override;
    int send_init(long argc, const char** argv) override;
    int send_cmd(void* cookie, const char* cmd, long flags, const char* format) override;
    int send_cmd_data(void* cookie, const TAM_DataTAG* data, long flags,
                      const char* format) override;
    int send_completion_wanted(const char* text) override;
    int send_dbg_cmd(unsigned char cmd, const char* fname, long fpos, const char* expr) override;
    int send_system_result(long result) override;
    int send_input(int canceled, const char* text) override;
    int send_textinput(int canceled, const char* text) override;
    int send_call_result(int error, const TAM_DataTAG* data) override;
    int send_textwidth(long width) override;
    int send_pretty_print(int on) override;
    int send_abbreviate_output(int on) override;
    int send_format(const char* name, const char* format) override;
    int send_status_wanted() override;
    int send_stop() override;
    int send_quit() override;

protected:
    // The stream requests are written into. Asked again before every write;
    // it must be the same stream for the whole of a request.
    virtual TKstream* xstream() = 0;
    // Clears status_ and writes "<", the first len bytes of name and, when
    // the client has an id, ` cl="<id>"`. The start tag is left open.
    virtual void xbegin(const char* name, unsigned long len);
    // xbegin with an element name given as a literal, whose length is known
    // here: the requests use this.
    template <unsigned long N>
    void xbegin_lit(const char (&name)[N])
    {
        xbegin(name, N - 1);
    }
    // 0 if any write of the request failed (the stream is then not flushed);
    // else flushes and returns 1 if that worked.
    virtual int xend();

    // Guarded writes of encoded values.
    void xput_raw(const char* data, unsigned long len);
    template <unsigned long N>
    void xput_lit(const char (&text)[N])
    {
        xput_raw(text, N - 1);
    }
    void xput_int(long value);
    void xput_bool(int value);
    void xput_cookie(void* cookie);
    // Text in the user's locale: converted to UTF-8, then escaped. Lets no
    // exception out: a failure of the conversion or of a write leaves
    // TKstream::Error (or the write's code) in status_.
    void xput_cdata(const char* text);
    // A protocol word: escaped, never converted.
    void xput_ascii_cdata(const char* text);
    // The complete mcode element for data: format attribute, then the payload
    // deflated and base64 encoded. Nothing at all for a null record. Lets no
    // exception out; the payload encoder is ready for the next payload on
    // every path.
    void xput_mcode(const TAM_DataTAG* data);

    // Encodes mcode payloads: the deflate state of the connection, reset
    // after every payload so each one is an independent zlib stream, inside
    // the payload codec that the kernel shares.
    TKpayloadEncoder zstream_;
    // TKstream status of the request being written: Ok while every write has
    // succeeded, else the code of the first write that failed. Kept after
    // xend until the next xbegin, so a subclass may look at it.
    int64_t status_;

private:
    // Gives the encoder's text to the request stream as guarded writes.
    struct RequestSink;

    // The requests that carry one value: <name cl="id" value="V"/>, where
    // putValue() writes V. Returns xend().
    template <unsigned long N, class PutValue>
    int xsend_value(const char (&name)[N], PutValue putValue);
    // The requests that carry nothing: <name cl="id"/>. Returns xend().
    template <unsigned long N>
    int xsend_empty(const char (&name)[N]);
    // The start tag of a command: cookie, the no-history flag and a format
    // (null or empty: none), closed with ">".
    void xbegin_cmd(void* cookie, long flags, const char* format);
    // <text format="_lan">text</text>, the text (null: none) in the user's
    // locale.
    void xput_lan_text(const char* text);

    // Writes len bytes through the escape table; runs of bytes that need no
    // escaping go out in one write.
    void xput_escaped(const char* text, unsigned long len);
};

#endif
