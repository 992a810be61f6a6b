// Test harness for the kernel message reader: clients that record every
// handler call as one line of text, a reader whose kernel(id) resolves to
// those clients, and feeding of a message stream whole, in random pieces or
// one byte at a time.
#ifndef TAMIX_TESTS_XMSG_READERHARNESS_H
#define TAMIX_TESTS_XMSG_READERHARNESS_H

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/TKT_stream.h"
#include "xmsg/TAM_XmsgKernel.h"
#include "xmsg/TAM_XmsgParser.h"
#include "xmsg/TAM_XmsgParserHandler.h"

namespace rh {

// Everything the handlers saw, in call order.
struct Record {
    std::vector<std::string> calls;
    // Payload bytes of the last on_output_data / on_callback call.
    std::string lastPayload;
    // Format pointers of the last on_select_format / on_format_changed call.
    std::vector<const char*> lastFormats;
    const char** lastFormatArray = nullptr;
};

inline Record*& record()
{
    static Record* r = nullptr;
    return r;
}

// Bytes made readable: printable ASCII as is, everything else as \xHH.
inline std::string show(const char* p, std::size_t n)
{
    std::string s;
    for (std::size_t i = 0; i < n; ++i) {
        unsigned char c = static_cast<unsigned char>(p[i]);
        if (c >= 0x20 && c < 0x7f && c != '\\') {
            s += static_cast<char>(c);
        } else {
            char b[8];
            std::snprintf(b, sizeof b, "\\x%02X", c);
            s += b;
        }
    }
    return s;
}

inline std::string show(const char* p)
{
    if (!p)
        return "(null)";
    return "'" + show(p, std::char_traits<char>::length(p)) + "'";
}

inline std::string num(long v) { return std::to_string(v); }

// A client over a heap stream: requests (the defaults' answers) accumulate
// in sent().
class TestClient : public TAM_XmsgKernel {
public:
    explicit TestClient(long id) : id_(id) {}

    long get_client_id() const override { return id_; }
    int set_kernel_name(const char*) override { return 1; }
    const char* get_kernel_name() const override { return "test"; }

    std::string sent()
    {
        return std::string(reinterpret_cast<const char*>(out_.data()), out_.length());
    }

    // Fills every slot with a recording handler.
    void recordAll();

    long id_;

protected:
    TKstream* xstream() override { return &out_; }

private:
    TKheapStream out_{512, 512};
};

inline std::string who(TAM_KernelImpl* k)
{
    return "#" + num(k->get_client_id());
}

inline void add(TAM_KernelImpl* k, const std::string& what)
{
    record()->calls.push_back(who(k) + " " + what);
}

inline std::string cookie(void* c)
{
    return num(static_cast<long>(reinterpret_cast<intptr_t>(c)));
}

inline std::string payload(const TAM_DataTAG* d)
{
    record()->lastPayload.assign(reinterpret_cast<const char*>(d->data),
                                 static_cast<std::size_t>(d->length));
    std::string s = "fmt=" + show(d->format) + " len=" + num(static_cast<long>(d->length));
    if (d->length <= 64)
        s += " data=" + show(reinterpret_cast<const char*>(d->data),
                             static_cast<std::size_t>(d->length));
    return s;
}

inline std::string list(long n, const char** a)
{
    if (!a)
        return "null";
    std::string s = "[";
    for (long i = 0; i < n; ++i)
        s += (i ? "," : "") + show(a[i]);
    return s + "]";
}

inline std::string list(long n, const long* a)
{
    if (!a)
        return "null";
    std::string s = "[";
    for (long i = 0; i < n; ++i)
        s += (i ? "," : "") + num(a[i]);
    return s + "]";
}

namespace on {
inline void init_wanted(TAM_KernelImpl* k) { add(k, "init_wanted"); }
inline void kernel_ready(TAM_KernelImpl* k) { add(k, "ready"); }
inline void output(TAM_KernelImpl* k, void* c, const char* type, const char* fmt, const char* text)
{
    add(k, "output cid=" + cookie(c) + " type=" + show(type) + " format=" + show(fmt) +
               " text=" + show(text));
}
inline void output_data(TAM_KernelImpl* k, void* c, const char* type, const TAM_DataTAG* d)
{
    add(k, "output_data cid=" + cookie(c) + " type=" + show(type) + " " + payload(d));
}
inline void finished(TAM_KernelImpl* k, void* c) { add(k, "finished cid=" + cookie(c)); }
inline void complete_cmd(TAM_KernelImpl* k, void* c) { add(k, "complete cid=" + cookie(c)); }
inline void input_wanted(TAM_KernelImpl* k, void* c, int text, const char* prompt)
{
    add(k, "input_wanted cid=" + cookie(c) + " text=" + num(text) + " prompt=" + show(prompt));
}
inline void callback(TAM_KernelImpl* k, void* c, const TAM_DataTAG* d)
{
    add(k, "callback cid=" + cookie(c) + " " + payload(d));
}
inline void help(TAM_KernelImpl* k, const char* v) { add(k, "help " + show(v)); }
inline void system(TAM_KernelImpl* k, const char* v) { add(k, "system " + show(v)); }
inline void frame(TAM_KernelImpl* k, const char* v) { add(k, "frame " + show(v)); }
inline void textwidth(TAM_KernelImpl* k, long v) { add(k, "textwidth " + num(v)); }
inline void pretty(TAM_KernelImpl* k, int v) { add(k, "prettyprint " + num(v)); }
inline void abbrev(TAM_KernelImpl* k, int v) { add(k, "abbreviate " + num(v)); }
inline void format_changed(TAM_KernelImpl* k, const char* type, const char* fmt)
{
    record()->lastFormats.assign(1, fmt);
    add(k, "format type=" + show(type) + " " + show(fmt));
}
inline void select_format(TAM_KernelImpl* k, const char* type, long n, const char** f)
{
    record()->lastFormatArray = f;
    record()->lastFormats.assign(f, f + (f ? n : 0));
    add(k, "selformat type=" + show(type) + " n=" + num(n) + " " + list(n, f));
}
inline void status(TAM_KernelImpl* k, long used, long res, long sec)
{
    add(k, "status " + num(used) + " " + num(res) + " " + num(sec));
}
inline void completion(TAM_KernelImpl* k, const char* l, const char* p)
{
    add(k, "completion list=" + show(l) + " pref=" + show(p));
}
inline void plotfile(TAM_KernelImpl* k, void* c, const char* name)
{
    add(k, "plotfile cid=" + cookie(c) + " " + show(name));
}
inline void dbg_cmd_wanted(TAM_KernelImpl* k, void* c) { add(k, "dbgcmd cid=" + cookie(c)); }
inline void dbg_info(TAM_KernelImpl* k, char cmd, const char* fname, long fpos, const char* expr,
                     long level, long depth)
{
    add(k, "dbginfo cmd=" + num(static_cast<unsigned char>(cmd)) + " fname=" + show(fname) +
               " fpos=" + num(fpos) + " expr=" + show(expr) + " level=" + num(level) +
               " depth=" + num(depth));
}
inline void display(TAM_KernelImpl* k, long n, const char** names, const char** values)
{
    add(k, "display n=" + num(n) + " " + list(n, names) + " " + list(n, values));
}
inline void breakpoints(TAM_KernelImpl* k, long n, const char** f, const long* p, const char** c)
{
    add(k, "breakpoints n=" + num(n) + " " + list(n, f) + " " + list(n, p) + " " + list(n, c));
}
inline void call_stack(TAM_KernelImpl* k, long level, long n, const char** f, const long* p,
                       const char** procs)
{
    add(k, "callstack level=" + num(level) + " n=" + num(n) + " " + list(n, f) + " " +
               list(n, p) + " " + list(n, procs));
}
inline void reset(TAM_KernelImpl* k) { add(k, "reset"); }
inline void quit(TAM_KernelImpl* k) { add(k, "quit"); }
} // namespace on

inline void TestClient::recordAll()
{
    on_init_wanted = on::init_wanted;
    on_kernel_ready = on::kernel_ready;
    on_output = on::output;
    on_output_data = on::output_data;
    on_finished = on::finished;
    on_complete_cmd = on::complete_cmd;
    on_input_wanted = on::input_wanted;
    on_callback = on::callback;
    on_help = on::help;
    on_system = on::system;
    on_frame_changed = on::frame;
    on_textwidth_changed = on::textwidth;
    on_pretty_print_changed = on::pretty;
    on_abbreviate_output_changed = on::abbrev;
    on_format_changed = on::format_changed;
    on_select_format = on::select_format;
    on_status = on::status;
    on_input_completion = on::completion;
    on_plot_result_file = on::plotfile;
    on_dbg_cmd_wanted = on::dbg_cmd_wanted;
    on_dbg_info = on::dbg_info;
    on_display_list = on::display;
    on_breakpoint_list = on::breakpoints;
    on_call_stack = on::call_stack;
    on_reset = on::reset;
    on_quit = on::quit;
}

// The reader under test. Clients are known by id; kernel(id) and onQuit()
// are logged too, and the parse state is open for inspection.
class TestReader : public TAM_XmsgParserHandler {
public:
    TAM_KernelImpl* kernel(long id) override
    {
        lookups.push_back(id);
        auto it = clients.find(id);
        return it == clients.end() ? nullptr : it->second;
    }
    void onQuit() override
    {
        ++quits;
        record()->calls.push_back("onQuit");
    }
    void cleanup() override
    {
        ++cleanups;
        TAM_XmsgParserHandler::cleanup();
    }

    std::map<long, TAM_KernelImpl*> clients;
    std::vector<long> lookups;
    int quits = 0;
    int cleanups = 0;

    // Parse state, read-only.
    TAM_KernelImpl* current() const { return kernel_; }
    std::size_t dbgNames() const { return dbgNames_.size(); }
    std::size_t dbgTexts() const { return dbgTexts_.size(); }
    std::size_t dbgPositions() const { return dbgPositions_.size(); }
    long fmtCount() const { return static_cast<long>(fmtCount_); }
    const std::string& type() const { return type_; }
    const std::string& format() const { return format_; }
    int64_t cookie() const { return cookie_; }
    unsigned long contentLength() { return content_.length(); }
    const std::vector<char*>& fmtNames() const { return fmtNames_; }
    // Feeds base64 text to the payload decoder and drains it, as the
    // parser would for one chunk of mcode text.
    std::string decodeDirect(const std::string& b64)
    {
        content_.clear();
        decoder_.write(reinterpret_cast<const unsigned char*>(b64.data()),
                       static_cast<long>(b64.size()));
        decodeMCode();
        decoder_.messageEnd();
        decodeMCode();
        std::string r(reinterpret_cast<const char*>(content_.data()), content_.length());
        decoder_.reset();
        inflateReset(&inflater_);
        content_.clear();
        return r;
    }
};

enum class Split { Whole, Bytes, Random };

// One reader with clients 1 and 2 (client 0 only on request), each
// recording all handlers.
struct Session {
    explicit Session(bool withClient0 = false)
    {
        record() = &rec;
        for (long id : {1L, 2L})
            addClient(id);
        if (withClient0)
            addClient(0);
        ok = parser.init();
    }
    ~Session() { record() = nullptr; }

    TestClient& addClient(long id)
    {
        owned.emplace_back(new TestClient(id));
        owned.back()->recordAll();
        reader.clients[id] = owned.back().get();
        return *owned.back();
    }
    TestClient& client(long id) { return *static_cast<TestClient*>(reader.clients.at(id)); }

    // Feeds text in the given way; false if any chunk failed.
    bool feed(const std::string& text, Split how = Split::Whole, unsigned seed = 1)
    {
        bool all = true;
        if (how == Split::Whole) {
            all = parser.saveParse(text.data(), static_cast<int>(text.size()));
        } else if (how == Split::Bytes) {
            for (char c : text)
                all = parser.saveParse(&c, 1) && all;
        } else {
            std::mt19937 gen(seed);
            std::size_t pos = 0;
            while (pos < text.size()) {
                std::size_t n = std::uniform_int_distribution<std::size_t>(1, 23)(gen);
                if (n > text.size() - pos)
                    n = text.size() - pos;
                all = parser.saveParse(text.data() + pos, static_cast<int>(n)) && all;
                pos += n;
            }
        }
        return all;
    }

    Record rec;
    std::vector<std::unique_ptr<TestClient>> owned;
    TestReader reader;
    TAM_XmsgParser parser{&reader};
    bool ok = false;
};

// The handler calls that a stream produces, fed in the given way.
inline std::vector<std::string> calls(const std::string& text, Split how = Split::Whole,
                                      unsigned seed = 1)
{
    Session s;
    s.feed(text, how, seed);
    return s.rec.calls;
}

} // namespace rh

// Every way of cutting the stream must give the same calls.
#define EXPECT_CALLS_ALL_SPLITS(text, ...)                                          \
    do {                                                                           \
        const std::vector<std::string> expected_ = __VA_ARGS__;                    \
        EXPECT_EQ(rh::calls(text, rh::Split::Whole), expected_) << "whole";        \
        EXPECT_EQ(rh::calls(text, rh::Split::Bytes), expected_) << "byte by byte"; \
        for (unsigned seed_ = 1; seed_ <= 8; ++seed_)                              \
            EXPECT_EQ(rh::calls(text, rh::Split::Random, seed_), expected_)        \
                << "random split, seed " << seed_;                                 \
    } while (0)

#endif
