// Fuzzes the client's kernel-message reader: TAM_XmsgParser dispatching to
// three clients with all 26 handlers set. Every handler logs its call with
// all it was given read to the end (texts, lists, payload bytes); some answer
// with requests through the real request writer, and on_help throws for a
// text starting with "!". The input fed whole and fed in chunks must give
// the same calls.
#include <cstring>
#include <stdexcept>

#include "FuzzCommon.h"
#include "common/ReaderHarness.h"
#include "xmsg/TAM_XmsgParser.h"

namespace {

using K = TAM_KernelImpl;
using rh::add;

void setAll(K* c)
{
    c->on_init_wanted = [](K* k) {
        static const char* a[] = {"-l", "lib"};
        add(k, "init_wanted"), k->send_init(2, a);
    };
    c->on_kernel_ready = [](K* k) { add(k, "ready"), k->send_status_wanted(); };
    c->on_output = [](K* k, void* c, const char* t, const char* f, const char* x) {
        add(k, "output", c, t, f, x), k->send_textwidth(static_cast<long>(std::strlen(x)));
    };
    c->on_output_data = [](K* k, void* c, const char* t, const TAM_DataTAG* d) {
        add(k, "output_data", c, t, d);
    };
    c->on_finished = [](K* k, void* c) {
        add(k, "finished", c), k->send_cmd(c, "1+\xe4", 0, "_lan");
    };
    c->on_complete_cmd = [](K* k, void* c) {
        add(k, "complete", c), k->send_completion_wanted("si");
    };
    c->on_input_wanted = [](K* k, void* c, int text, const char* p) {
        add(k, "input_wanted", c, long(text), p);
        text ? k->send_textinput(0, p) : k->send_input(0, p);
    };
    c->on_callback = [](K* k, void* c, const TAM_DataTAG* d) {
        add(k, "callback", c, d), k->send_call_result(0, d);
    };
    c->on_help = [](K* k, const char* v) {
        add(k, "help", v);
        if (v[0] == '!')
            throw std::runtime_error("help handler fails");
    };
    c->on_system = [](K* k, const char* v) { add(k, "system", v), k->send_system_result(7); };
    c->on_frame_changed = [](K* k, const char* v) { add(k, "frame", v); };
    c->on_textwidth_changed = [](K* k, long v) { add(k, "textwidth", v); };
    c->on_pretty_print_changed = [](K* k, int v) {
        add(k, "prettyprint", long(v)), k->send_pretty_print(!v);
    };
    c->on_abbreviate_output_changed = [](K* k, int v) { add(k, "abbreviate", long(v)); };
    c->on_format_changed = [](K* k, const char* t, const char* f) { add(k, "format", t, f); };
    c->on_select_format = [](K* k, const char* t, long n, const char** f) {
        add(k, "selformat", t, n, rh::list(n, f));
        if (n > 0)
            k->send_format(t, f[n - 1]);
    };
    c->on_status = [](K* k, long used, long res, long sec) { add(k, "status", used, res, sec); };
    c->on_input_completion = [](K* k, const char* l, const char* p) { add(k, "completion", l, p); };
    c->on_plot_result_file = [](K* k, void* c, const char* n) { add(k, "plotfile", c, n); };
    c->on_dbg_cmd_wanted = [](K* k, void* c) {
        add(k, "dbgcmd", c), k->send_dbg_cmd('s', "f.tam", 3, "x<y");
    };
    c->on_dbg_info = [](K* k, char cmd, const char* f, long p, const char* e, long l, long d) {
        add(k, "dbginfo", cmd, f, p, e, l, d);
    };
    c->on_display_list = [](K* k, long n, const char** a, const char** b) {
        add(k, "display", n, rh::list(n, a), rh::list(n, b));
    };
    c->on_breakpoint_list = [](K* k, long n, const char** f, const long* p, const char** c) {
        add(k, "breakpoints", n, rh::list(n, f), rh::list(n, p), rh::list(n, c));
    };
    c->on_call_stack = [](K* k, long l, long n, const char** f, const long* p, const char** q) {
        add(k, "callstack", l, n, rh::list(n, f), rh::list(n, p), rh::list(n, q));
    };
    c->on_reset = [](K* k) { add(k, "reset"), k->send_stop(); };
    c->on_quit = [](K* k) { add(k, "quit"), k->send_quit(); };
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
    fuzz::writeSeeds(
        *argc, *argv,
        {
            "<sendinit cl=\"1\"/><ready cl=\"1\"/><output cl=\"1\" cid=\"17\" "
            "type=\"result\"><text format=\"_lan\">"
            "x&lt;y \xc3\xa4\xe2\x82\xac</text></output><finished cl=\"1\" cid=\"17\"/>",
            "<output cl=\"2\" cid=\"3\" type=\"graph\">" + abc +
                "</output><callback cl=\"0\" cid=\"5\">" + abc +
                "</callback><sendinput cl=\"1\" text=\"1\"><text>name?</text></sendinput>"
                "<sendinput cl=\"1\">" +
                abc + "</sendinput>",
            "<selformat cl=\"1\" type=\"result\"><fmt name=\"text\"/><fmt "
            "name=\"latex\"/></selformat>"
            "<format cl=\"1\" type=\"result\"><fmt name=\"latex\"/></format><textwidth cl=\"1\" "
            "value=\"80\"/>"
            "<prettyprint cl=\"1\" value=\"1\"/><abbreviateoutput cl=\"2\" value=\"0\"/>"
            "<status cl=\"1\" used=\"10\" res=\"20\" sec=\"3\"/>",
            "<breakpoints cl=\"1\"><breakpt fname=\"a\" fpos=\"3\" cond=\"x&gt;1\"/><breakpt "
            "fname=\"b\"/></breakpoints>"
            "<callstack cl=\"1\" level=\"2\"><csframe fname=\"f\" fpos=\"9\" "
            "proc=\"p\"/></callstack>"
            "<display cl=\"0\"><dispvar name=\"x\" value=\"1\"/></display><senddbgcmd cl=\"1\" "
            "cid=\"4\"/>"
            "<dbginfo cl=\"1\" cmd=\"s\" fname=\"f\" fpos=\"1\" expr=\"e\" level=\"0\" "
            "depth=\"1\"/>",
            "<help cl=\"1\" value=\"!boom\"/><help cl=\"1\" value=\"ok\"/><system cl=\"1\" "
            "value=\"ls\"/>"
            "<frame cl=\"1\" value=\"f\"/><completion cl=\"1\" list=\"sin cos\" pref=\"s\"/>"
            "<plotfile cl=\"1\" cid=\"2\" name=\"p.png\"/><complete cl=\"1\"/><reset "
            "cl=\"1\"/><quit/>",
        });
    return 0;
}

// The calls the input gives, fed whole or in chunks.
std::vector<std::string> calls(const uint8_t* data, std::size_t size, bool whole)
{
    rh::gCalls.clear();
    Reader reader;
    TAM_XmsgParser parser(&reader);
    if (!parser.init())
        __builtin_trap();
    if (whole)
        parser.saveParse(reinterpret_cast<const char*>(data) + 2, static_cast<int>(size - 2));
    else
        fuzz::feedChunks(data, size, [&](const char* p, int n) { parser.saveParse(p, n); });
    return rh::gCalls;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size < 2)
        return 0;
    const std::vector<std::string> whole = calls(data, size, true),
                                   split = calls(data, size, false);
    if (whole != split) {
        for (std::size_t i = 0; i < std::max(whole.size(), split.size()); ++i)
            std::fprintf(stderr, "%s | %s\n", i < whole.size() ? whole[i].c_str() : "-",
                         i < split.size() ? split[i].c_str() : "-");
        __builtin_trap();
    }
    return 0;
}
