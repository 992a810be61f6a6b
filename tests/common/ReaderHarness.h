// Test harness for the kernel message reader: clients whose handlers log
// every call as one line, "#<client> <handler> <arguments in order>" (texts
// quoted with non-ASCII bytes as \xHH, payloads as format, length and bytes
// up to 64), a reader whose kernel(id) resolves to clients 0 to 2, and
// feeding of a stream whole, in random pieces or byte by byte.
#ifndef TAMIX_TESTS_COMMON_READERHARNESS_H
#define TAMIX_TESTS_COMMON_READERHARNESS_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "common/WriterTestKernel.h"
#include "xmsg/TAM_XmsgParser.h"
#include "xmsg/TAM_XmsgParserHandler.h"

namespace rh {

using K = TAM_KernelImpl;
inline std::vector<std::string> gCalls;
inline std::string gPayload; // bytes of the last payload delivered

inline std::string show(const char* p, std::size_t n)
{
    std::string s = "'";
    for (std::size_t i = 0; i < n; ++i) {
        const unsigned char c = static_cast<unsigned char>(p[i]);
        char b[8];
        std::snprintf(b, sizeof b, c >= 0x20 && c < 0x7f && c != '\\' ? "%c" : "\\x%02X", c);
        s += b;
    }
    return s + "'";
}
inline std::string str(const char* p)
{
    return p ? show(p, std::strlen(p)) : "(null)";
}
inline std::string str(long v)
{
    return std::to_string(v);
}
inline std::string str(char c)
{
    return std::to_string(static_cast<unsigned char>(c));
}
inline std::string str(void* cookie)
{
    return str(static_cast<long>(reinterpret_cast<intptr_t>(cookie)));
}
inline std::string str(const std::string& s)
{
    return s;
}
inline std::string str(const TAM_DataTAG* d)
{
    gPayload.assign(reinterpret_cast<const char*>(d->data), d->length);
    return str(d->format) + " " + str(static_cast<long>(d->length)) +
           (d->length <= 64 ? " " + show(gPayload.data(), gPayload.size()) : "");
}
template <typename T>
std::string list(long n, T* a)
{
    std::string s = a ? "[" : "null";
    for (long i = 0; a && i < n; ++i)
        s += (i ? "," : "") + str(a[i]);
    return a ? s + "]" : s;
}
template <typename... A>
void add(K* k, const char* what, A... args)
{
    gCalls.push_back("#" + str(k->get_client_id()) + " " + what + ((" " + str(args)) + ... + ""));
}

inline void recordAll(K* c)
{
    c->on_init_wanted = [](K* k) { add(k, "init_wanted"); };
    c->on_kernel_ready = [](K* k) { add(k, "ready"); };
    c->on_output = [](K* k, void* c, const char* t, const char* f, const char* x) {
        add(k, "output", c, t, f, x);
    };
    c->on_output_data = [](K* k, void* c, const char* t, const TAM_DataTAG* d) {
        add(k, "output_data", c, t, d);
    };
    c->on_finished = [](K* k, void* c) { add(k, "finished", c); };
    c->on_complete_cmd = [](K* k, void* c) { add(k, "complete", c); };
    c->on_input_wanted = [](K* k, void* c, int text, const char* p) {
        add(k, "input_wanted", c, long(text), p);
    };
    c->on_callback = [](K* k, void* c, const TAM_DataTAG* d) { add(k, "callback", c, d); };
    c->on_help = [](K* k, const char* v) { add(k, "help", v); };
    c->on_system = [](K* k, const char* v) { add(k, "system", v); };
    c->on_frame_changed = [](K* k, const char* v) { add(k, "frame", v); };
    c->on_textwidth_changed = [](K* k, long v) { add(k, "textwidth", v); };
    c->on_pretty_print_changed = [](K* k, int v) { add(k, "prettyprint", long(v)); };
    c->on_abbreviate_output_changed = [](K* k, int v) { add(k, "abbreviate", long(v)); };
    c->on_format_changed = [](K* k, const char* t, const char* f) { add(k, "format", t, f); };
    c->on_select_format = [](K* k, const char* t, long n, const char** f) {
        add(k, "selformat", t, n, list(n, f));
    };
    c->on_status = [](K* k, long used, long res, long sec) { add(k, "status", used, res, sec); };
    c->on_input_completion = [](K* k, const char* l, const char* p) { add(k, "completion", l, p); };
    c->on_plot_result_file = [](K* k, void* c, const char* n) { add(k, "plotfile", c, n); };
    c->on_dbg_cmd_wanted = [](K* k, void* c) { add(k, "dbgcmd", c); };
    c->on_dbg_info = [](K* k, char cmd, const char* f, long p, const char* e, long l, long d) {
        add(k, "dbginfo", cmd, f, p, e, l, d);
    };
    c->on_display_list = [](K* k, long n, const char** a, const char** b) {
        add(k, "display", n, list(n, a), list(n, b));
    };
    c->on_breakpoint_list = [](K* k, long n, const char** f, const long* p, const char** c) {
        add(k, "breakpoints", n, list(n, f), list(n, p), list(n, c));
    };
    c->on_call_stack = [](K* k, long l, long n, const char** f, const long* p, const char** q) {
        add(k, "callstack", l, n, list(n, f), list(n, p), list(n, q));
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
    using TAM_XmsgParserHandler::content_, TAM_XmsgParserHandler::cookie_,
        TAM_XmsgParserHandler::format_, TAM_XmsgParserHandler::type_,
        TAM_XmsgParserHandler::kernel_, TAM_XmsgParserHandler::dbgNames_,
        TAM_XmsgParserHandler::dbgTexts_, TAM_XmsgParserHandler::dbgPositions_,
        TAM_XmsgParserHandler::fmtCount_, TAM_XmsgParserHandler::fmtNames_;
};

enum class Split { Whole, Bytes, Random };

struct Session {
    writertest::TestKernel clients[3] = {writertest::TestKernel(0), writertest::TestKernel(1),
                                         writertest::TestKernel(2)};
    TestReader reader;
    TAM_XmsgParser parser{&reader};

    Session()
    {
        gCalls.clear();
        for (auto& c : clients) {
            recordAll(&c);
            reader.clients[c.id_] = &c;
        }
        EXPECT_TRUE(parser.init());
    }
    // False if any chunk failed.
    bool feed(const std::string& text, Split how = Split::Whole, unsigned seed = 1)
    {
        std::mt19937 gen(seed);
        bool all = true;
        for (std::size_t pos = 0, n; pos < text.size(); pos += n) {
            n = how == Split::Whole   ? text.size()
                : how == Split::Bytes ? 1
                                      : std::uniform_int_distribution<std::size_t>(1, 23)(gen);
            n = std::min(n, text.size() - pos);
            all = parser.saveParse(text.data() + pos, static_cast<int>(n)) && all;
        }
        return all;
    }
};

// The calls a stream gives fed whole, byte by byte and in 8 random splits.
inline void expectCallsAllSplits(const std::string& text, const std::vector<std::string>& want)
{
    for (int i = -2; i < 8; ++i) {
        Session s;
        EXPECT_TRUE(s.feed(text,
                           i == -2   ? Split::Whole
                           : i == -1 ? Split::Bytes
                                     : Split::Random,
                           i));
        EXPECT_EQ(gCalls, want) << "split " << i << " (-2 whole, -1 bytes, else random seed)";
    }
}

} // namespace rh

#endif
