// Fuzzes the client's kernel-message reader: TAM_XmsgParser dispatching to
// three clients with all 26 handlers set. Some handlers answer with requests
// (through the real request writer), on_help throws for a text starting with
// "!", and every text, list and payload handed over is read to its end.
#include <cstring>
#include <stdexcept>

#include "FuzzCommon.h"
#include "xmsg/TAM_XmsgParser.h"
#include "xmsg/WriterTestKernel.h"

namespace {

using K = TAM_KernelImpl;
volatile std::size_t gSink;

void touch(const char* s) { gSink = gSink + (s ? std::strlen(s) : 0); }
void touch(const TAM_DataTAG* d)
{
    touch(d->format);
    for (uint64_t i = 0; i < d->length; ++i)
        gSink = gSink + d->data[i];
}
void touchAll(long n, const char** a)
{
    for (long i = 0; a && i < n; ++i)
        touch(a[i]);
}

void setAll(K* c)
{
    c->on_init_wanted = [](K* k) { static const char* a[] = {"-l", "lib"}; k->send_init(2, a); };
    c->on_kernel_ready = [](K* k) { k->send_status_wanted(); };
    c->on_output = [](K* k, void*, const char* t, const char* f, const char* x) {
        touch(t), touch(f), touch(x);
        k->send_textwidth(static_cast<long>(std::strlen(x)));
    };
    c->on_output_data = [](K*, void*, const char* t, const TAM_DataTAG* d) { touch(t), touch(d); };
    c->on_finished = [](K* k, void* cookie) { k->send_cmd(cookie, "1+\xe4", 0, "_lan"); };
    c->on_complete_cmd = [](K* k, void*) { k->send_completion_wanted("si"); };
    c->on_input_wanted = [](K* k, void*, int text, const char* p) {
        text ? k->send_textinput(0, p) : k->send_input(0, p);
    };
    c->on_callback = [](K* k, void*, const TAM_DataTAG* d) { touch(d), k->send_call_result(0, d); };
    c->on_help = [](K*, const char* v) {
        if (v[0] == '!')
            throw std::runtime_error("help handler fails");
        touch(v);
    };
    c->on_system = [](K* k, const char* v) { touch(v), k->send_system_result(7); };
    c->on_frame_changed = [](K*, const char* v) { touch(v); };
    c->on_textwidth_changed = [](K*, long v) { gSink = gSink + v; };
    c->on_pretty_print_changed = [](K* k, int v) { k->send_pretty_print(!v); };
    c->on_abbreviate_output_changed = [](K*, int v) { gSink = gSink + v; };
    c->on_format_changed = [](K*, const char* t, const char* f) { touch(t), touch(f); };
    c->on_select_format = [](K* k, const char* t, long n, const char** f) {
        touchAll(n, f);
        if (n > 0)
            k->send_format(t, f[n - 1]);
    };
    c->on_status = [](K*, long u, long r, long s) { gSink = gSink + u + r + s; };
    c->on_input_completion = [](K*, const char* l, const char* p) { touch(l), touch(p); };
    c->on_plot_result_file = [](K*, void*, const char* n) { touch(n); };
    c->on_dbg_cmd_wanted = [](K* k, void*) { k->send_dbg_cmd('s', "f.tam", 3, "x<y"); };
    c->on_dbg_info = [](K*, char, const char* f, long p, const char* e, long l, long d) {
        touch(f), touch(e), gSink = gSink + p + l + d;
    };
    c->on_display_list = [](K*, long n, const char** a, const char** b) { touchAll(n, a), touchAll(n, b); };
    c->on_breakpoint_list = [](K*, long n, const char** f, const long* p, const char** c) {
        touchAll(n, f), touchAll(n, c);
        for (long i = 0; p && i < n; ++i)
            gSink = gSink + p[i];
    };
    c->on_call_stack = [](K*, long, long n, const char** f, const long* p, const char** q) {
        touchAll(n, f), touchAll(n, q);
        for (long i = 0; p && i < n; ++i)
            gSink = gSink + p[i];
    };
    c->on_reset = [](K* k) { k->send_stop(); };
    c->on_quit = [](K* k) { k->send_quit(); };
}

struct Reader : TAM_XmsgParserHandler {
    writertest::TestKernel clients[3] = {writertest::TestKernel(0), writertest::TestKernel(1),
                                         writertest::TestKernel(2)};
    Reader()
    {
        for (auto& c : clients)
            setAll(&c);
    }
    K* kernel(long id) override { return id >= 0 && id < 3 ? &clients[id] : nullptr; }
    void onQuit() override
    {
        for (auto& c : clients)
            c.on_quit(&c);
    }
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    const std::string abc = "<mcode format=\"m\">eJxLTEoGAAJNASc=</mcode>";
    fuzz::writeSeeds(*argc, *argv, {
        "<sendinit cl=\"1\"/><ready cl=\"1\"/><output cl=\"1\" cid=\"17\" type=\"result\"><text format=\"_lan\">"
        "x&lt;y \xc3\xa4\xe2\x82\xac</text></output><finished cl=\"1\" cid=\"17\"/>",
        "<output cl=\"2\" cid=\"3\" type=\"graph\">" + abc + "</output><callback cl=\"0\" cid=\"5\">" + abc +
        "</callback><sendinput cl=\"1\" text=\"1\"><text>name?</text></sendinput>"
        "<sendinput cl=\"1\">" + abc + "</sendinput>",
        "<selformat cl=\"1\" type=\"result\"><fmt name=\"text\"/><fmt name=\"latex\"/></selformat>"
        "<format cl=\"1\" type=\"result\"><fmt name=\"latex\"/></format><textwidth cl=\"1\" value=\"80\"/>"
        "<prettyprint cl=\"1\" value=\"1\"/><abbreviateoutput cl=\"2\" value=\"0\"/>"
        "<status cl=\"1\" used=\"10\" res=\"20\" sec=\"3\"/>",
        "<breakpoints cl=\"1\"><breakpt fname=\"a\" fpos=\"3\" cond=\"x&gt;1\"/><breakpt fname=\"b\"/></breakpoints>"
        "<callstack cl=\"1\" level=\"2\"><csframe fname=\"f\" fpos=\"9\" proc=\"p\"/></callstack>"
        "<display cl=\"0\"><dispvar name=\"x\" value=\"1\"/></display><senddbgcmd cl=\"1\" cid=\"4\"/>"
        "<dbginfo cl=\"1\" cmd=\"s\" fname=\"f\" fpos=\"1\" expr=\"e\" level=\"0\" depth=\"1\"/>",
        "<help cl=\"1\" value=\"!boom\"/><help cl=\"1\" value=\"ok\"/><system cl=\"1\" value=\"ls\"/>"
        "<frame cl=\"1\" value=\"f\"/><completion cl=\"1\" list=\"sin cos\" pref=\"s\"/>"
        "<plotfile cl=\"1\" cid=\"2\" name=\"p.png\"/><complete cl=\"1\"/><reset cl=\"1\"/><quit/>",
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Reader reader;
    TAM_XmsgParser parser(&reader);
    if (!parser.init())
        __builtin_trap();
    fuzz::feedChunks(data, size, [&](const char* p, int n) { parser.saveParse(p, n); });
    return 0;
}
