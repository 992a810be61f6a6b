// Test harness for the kernel message reader: clients whose handlers log
// every call as one line of text, a reader whose kernel(id) resolves to
// them, and feeding of a stream whole, in random pieces or byte by byte.
#ifndef TAMIX_TESTS_XMSG_READERHARNESS_H
#define TAMIX_TESTS_XMSG_READERHARNESS_H

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "WriterTestKernel.h"
#include "xmsg/TAM_XmsgParser.h"
#include "xmsg/TAM_XmsgParserHandler.h"

namespace rh {

using K = TAM_KernelImpl;
inline std::vector<std::string> gCalls;
inline std::string gPayload;  // bytes of the last payload delivered

// Printable ASCII as is, anything else as \xHH; texts quoted, null as (null).
inline std::string show(const char* p, std::size_t n)
{
    std::string s;
    for (std::size_t i = 0; i < n; ++i) {
        const unsigned char c = static_cast<unsigned char>(p[i]);
        char b[8];
        std::snprintf(b, sizeof b, c >= 0x20 && c < 0x7f && c != '\\' ? "%c" : "\\x%02X", c);
        s += b;
    }
    return s;
}
inline std::string show(const char* p) { return p ? "'" + show(p, std::strlen(p)) + "'" : "(null)"; }
inline std::string num(long v) { return std::to_string(v); }
inline std::string cid(void* c) { return " cid=" + num(static_cast<long>(reinterpret_cast<intptr_t>(c))); }
template <typename T>
std::string list(long n, T* a)
{
    if (!a)
        return " null";
    std::string s = " [";
    for (long i = 0; i < n; ++i) {
        if constexpr (std::is_same<T, const long>::value)
            s += (i ? "," : "") + num(a[i]);
        else
            s += (i ? "," : "") + show(a[i]);
    }
    return s + "]";
}
inline std::string payload(const TAM_DataTAG* d)
{
    gPayload.assign(reinterpret_cast<const char*>(d->data), d->length);
    return " fmt=" + show(d->format) + " len=" + num(static_cast<long>(d->length)) +
           (d->length <= 64 ? " data=" + show(gPayload.data(), gPayload.size()) : "");
}
inline void add(K* k, const std::string& what) { gCalls.push_back("#" + num(k->get_client_id()) + " " + what); }

inline void recordAll(K* c)
{
    c->on_init_wanted = [](K* k) { add(k, "init_wanted"); };
    c->on_kernel_ready = [](K* k) { add(k, "ready"); };
    c->on_output = [](K* k, void* c, const char* t, const char* f, const char* x) {
        add(k, "output" + cid(c) + " type=" + show(t) + " format=" + show(f) + " text=" + show(x));
    };
    c->on_output_data = [](K* k, void* c, const char* t, const TAM_DataTAG* d) {
        add(k, "output_data" + cid(c) + " type=" + show(t) + payload(d));
    };
    c->on_finished = [](K* k, void* c) { add(k, "finished" + cid(c)); };
    c->on_complete_cmd = [](K* k, void* c) { add(k, "complete" + cid(c)); };
    c->on_input_wanted = [](K* k, void* c, int text, const char* p) {
        add(k, "input_wanted" + cid(c) + " text=" + num(text) + " prompt=" + show(p));
    };
    c->on_callback = [](K* k, void* c, const TAM_DataTAG* d) { add(k, "callback" + cid(c) + payload(d)); };
    c->on_help = [](K* k, const char* v) { add(k, "help " + show(v)); };
    c->on_system = [](K* k, const char* v) { add(k, "system " + show(v)); };
    c->on_frame_changed = [](K* k, const char* v) { add(k, "frame " + show(v)); };
    c->on_textwidth_changed = [](K* k, long v) { add(k, "textwidth " + num(v)); };
    c->on_pretty_print_changed = [](K* k, int v) { add(k, "prettyprint " + num(v)); };
    c->on_abbreviate_output_changed = [](K* k, int v) { add(k, "abbreviate " + num(v)); };
    c->on_format_changed = [](K* k, const char* t, const char* f) {
        add(k, "format type=" + show(t) + " " + show(f));
    };
    c->on_select_format = [](K* k, const char* t, long n, const char** f) {
        add(k, "selformat type=" + show(t) + " n=" + num(n) + list(n, f));
    };
    c->on_status = [](K* k, long u, long r, long s) {
        add(k, "status " + num(u) + " " + num(r) + " " + num(s));
    };
    c->on_input_completion = [](K* k, const char* l, const char* p) {
        add(k, "completion list=" + show(l) + " pref=" + show(p));
    };
    c->on_plot_result_file = [](K* k, void* c, const char* n) { add(k, "plotfile" + cid(c) + " " + show(n)); };
    c->on_dbg_cmd_wanted = [](K* k, void* c) { add(k, "dbgcmd" + cid(c)); };
    c->on_dbg_info = [](K* k, char cmd, const char* f, long p, const char* e, long l, long d) {
        add(k, "dbginfo cmd=" + num(static_cast<unsigned char>(cmd)) + " fname=" + show(f) +
                   " fpos=" + num(p) + " expr=" + show(e) + " level=" + num(l) + " depth=" + num(d));
    };
    c->on_display_list = [](K* k, long n, const char** names, const char** values) {
        add(k, "display n=" + num(n) + list(n, names) + list(n, values));
    };
    c->on_breakpoint_list = [](K* k, long n, const char** f, const long* p, const char** c) {
        add(k, "breakpoints n=" + num(n) + list(n, f) + list(n, p) + list(n, c));
    };
    c->on_call_stack = [](K* k, long l, long n, const char** f, const long* p, const char** q) {
        add(k, "callstack level=" + num(l) + " n=" + num(n) + list(n, f) + list(n, p) + list(n, q));
    };
    c->on_reset = [](K* k) { add(k, "reset"); };
    c->on_quit = [](K* k) { add(k, "quit"); };
}

// The reader under test; its parse state is open for inspection.
struct TestReader : TAM_XmsgParserHandler {
    std::map<long, K*> clients;
    std::vector<long> lookups;
    int cleanups = 0;

    K* kernel(long id) override
    {
        lookups.push_back(id);
        return clients.count(id) ? clients[id] : nullptr;
    }
    void onQuit() override { gCalls.push_back("onQuit"); }
    void cleanup() override
    {
        ++cleanups;
        TAM_XmsgParserHandler::cleanup();
    }
    using TAM_XmsgParserHandler::content_;
    using TAM_XmsgParserHandler::cookie_;
    using TAM_XmsgParserHandler::dbgNames_;
    using TAM_XmsgParserHandler::dbgPositions_;
    using TAM_XmsgParserHandler::dbgTexts_;
    using TAM_XmsgParserHandler::fmtCount_;
    using TAM_XmsgParserHandler::fmtNames_;
    using TAM_XmsgParserHandler::format_;
    using TAM_XmsgParserHandler::kernel_;
    using TAM_XmsgParserHandler::type_;
};

enum class Split { Whole, Bytes, Random };

// A reader with recording clients 0, 1 and 2, its parser initialised.
struct Session {
    writertest::TestKernel clients[3] = {writertest::TestKernel(0), writertest::TestKernel(1),
                                         writertest::TestKernel(2)};
    TestReader reader;
    TAM_XmsgParser parser{&reader};
    bool ok;

    Session()
    {
        gCalls.clear();
        for (auto& c : clients) {
            recordAll(&c);
            reader.clients[c.id_] = &c;
        }
        ok = parser.init();
    }
    // False if any chunk failed.
    bool feed(const std::string& text, Split how = Split::Whole, unsigned seed = 1)
    {
        std::mt19937 gen(seed);
        bool all = true;
        for (std::size_t pos = 0, n; pos < text.size(); pos += n) {
            n = how == Split::Whole ? text.size()
              : how == Split::Bytes ? 1
                                    : std::uniform_int_distribution<std::size_t>(1, 23)(gen);
            n = std::min(n, text.size() - pos);
            all = parser.saveParse(text.data() + pos, static_cast<int>(n)) && all;
        }
        return all;
    }
};

// The calls a stream gives, fed whole, byte by byte and in 8 random splits.
inline void expectCallsAllSplits(const std::string& text, const std::vector<std::string>& want)
{
    for (int i = -2; i < 8; ++i) {
        Session s;
        EXPECT_TRUE(s.feed(text, i == -2 ? Split::Whole : i == -1 ? Split::Bytes : Split::Random, i));
        EXPECT_EQ(gCalls, want) << "split " << i << " (-2 whole, -1 bytes, else seed)";
    }
}

} // namespace rh

#endif
