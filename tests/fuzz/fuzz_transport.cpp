// Fuzzes the transport through the flat interface, as a front end meets it:
// a kernel peer on a real socket sends arbitrary bytes, in chunks, to a
// joined connection with all 26 handlers set; some handlers answer with
// requests, some delete the connection from inside. Checked:
//   - the kernel state leaves TAM_KERNEL_RUNNING at most once and then
//     stays, and a stream that has ended delivers nothing more;
//   - once the peer has closed its end and all is read, the state says so;
//   - memory the library holds stays within the per-message bounds set
//     here (with AddressSanitizer, which can tell what is allocated).
// With TAMIX_FUZZ_RESOURCE=1 the input's body is also fed 32 times over:
// processor time may grow no more than linearly.
//
// Input: two bytes of chunk sizes (FuzzCommon.h), one byte of flags, then
// the kernel's bytes. Flags: 1 the peer closes its end at the end, 2
// handlers answer with requests, 4 on_finished deletes the connection, 8
// on_quit deletes it.
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "FuzzCommon.h"
#include "tamix/tamix.h"

namespace {

using K = TAM_KernelImpl;

enum Flags { PeerCloses = 1, Answers = 2, DeleteOnFinished = 4, DeleteOnQuit = 8 };

// Small bounds, so that short inputs reach them.
const struct {
    int which;
    int64_t value;
} kLimits[] = {
    {TAM_LIMIT_MESSAGE_BYTES, 64 << 10},
    {TAM_LIMIT_PAYLOAD_BYTES, 256 << 10},
    {TAM_LIMIT_DEPTH, 16},
    {TAM_LIMIT_LIST_ENTRIES, 200},
    {TAM_LIMIT_FORMAT_NAMES, 50},
    {TAM_LIMIT_SEND_TIMEOUT_MS, 0},
};

// What the current input's connection has done.
struct Run {
    unsigned flags = 0;
    K* kernel = nullptr;         // null once a handler deleted it
    long calls = 0;              // handler calls so far
    unsigned long long seen = 0; // bytes of texts and payloads delivered
} gRun;

void seen(const char* text)
{
    ++gRun.calls;
    if (text)
        gRun.seen += std::strlen(text);
}

bool answers()
{
    return gRun.flags & Answers;
}

void dropFrom(K* k, unsigned flag)
{
    if ((gRun.flags & flag) && k == gRun.kernel) {
        TAM_delete_kernel(k);
        gRun.kernel = nullptr;
    }
}

void setHandlers(K* k)
{
    TAM_set_on_init_wanted_handler(k, [](K* k) {
        static const char* args[] = {"-l", "lib"};
        seen(nullptr), answers() && TAM_send_init(k, 2, args);
    });
    TAM_set_on_kernel_ready_handler(
        k, [](K* k) { seen(nullptr), answers() && TAM_send_status_wanted(k); });
    TAM_set_on_output_handler(k, [](K* k, void*, const char* t, const char* f, const char* x) {
        seen(t), seen(f), seen(x), answers() && TAM_send_textwidth(k, 80);
    });
    TAM_set_on_output_data_handler(k, [](K*, void*, const char* t, const TAM_DataTAG* d) {
        seen(t), seen(d->format), gRun.seen += d->length;
    });
    TAM_set_on_finished_handler(k, [](K* k, void* c) {
        seen(nullptr);
        if (answers())
            TAM_send_cmd(k, c, "1+\xe4");
        dropFrom(k, DeleteOnFinished);
    });
    TAM_set_on_complete_cmd_handler(
        k, [](K* k, void*) { seen(nullptr), answers() && TAM_send_completion_wanted(k, "si"); });
    TAM_set_on_input_wanted_handler(k, [](K* k, void*, int text, const char* p) {
        seen(p), answers() && (text ? TAM_send_textinput(k, 0, p) : TAM_send_input(k, 0, p));
    });
    TAM_set_on_callback_handler(k, [](K* k, void*, const TAM_DataTAG* d) {
        seen(d->format), answers() && TAM_send_call_result(k, 0, d);
    });
    TAM_set_on_help_handler(k, [](K*, const char* v) { seen(v); });
    TAM_set_on_system_handler(
        k, [](K* k, const char* v) { seen(v), answers() && TAM_send_system_result(k, 7); });
    TAM_set_on_frame_changed_handler(k, [](K*, const char* v) { seen(v); });
    TAM_set_on_textwidth_changed_handler(k, [](K*, long) { seen(nullptr); });
    TAM_set_on_pretty_print_changed_handler(
        k, [](K* k, int v) { seen(nullptr), answers() && TAM_send_pretty_print(k, !v); });
    TAM_set_on_abbreviate_output_changed_handler(k, [](K*, int) { seen(nullptr); });
    TAM_set_on_format_changed_handler(k,
                                      [](K*, const char* t, const char* f) { seen(t), seen(f); });
    TAM_set_on_select_format_handler(k, [](K* k, const char* t, long n, const char** f) {
        seen(t);
        for (long i = 0; i < n; ++i)
            seen(f[i]);
        if (n > 0 && answers())
            TAM_send_format(k, t, f[n - 1]);
    });
    TAM_set_on_status_handler(k, [](K*, long, long, long) { seen(nullptr); });
    TAM_set_on_input_completion_handler(k,
                                        [](K*, const char* l, const char* p) { seen(l), seen(p); });
    TAM_set_on_plot_result_file_handler(k, [](K*, void*, const char* n) { seen(n); });
    TAM_set_on_dbg_cmd_wanted_handler(k, [](K* k, void*) {
        seen(nullptr), answers() && TAM_send_dbg_cmd(k, 's', "f.tam", 3, "x<y");
    });
    TAM_set_on_dbg_info_handler(
        k, [](K*, char, const char* f, long, const char* e, long, long) { seen(f), seen(e); });
    TAM_set_on_display_list_handler(k, [](K*, long n, const char** a, const char** b) {
        for (long i = 0; i < n; ++i)
            seen(a[i]), seen(b[i]);
    });
    TAM_set_on_breakpoint_list_handler(k,
                                       [](K*, long n, const char** f, const long*, const char** c) {
                                           for (long i = 0; i < n; ++i)
                                               seen(f[i]), seen(c[i]);
                                       });
    TAM_set_on_call_stack_handler(
        k, [](K*, long, long n, const char** f, const long*, const char** p) {
            for (long i = 0; i < n; ++i)
                seen(f[i]), seen(p[i]);
        });
    TAM_set_on_reset_handler(k, [](K* k) { seen(nullptr), answers() && TAM_send_stop(k); });
    TAM_set_on_quit_handler(k, [](K* k) {
        seen(nullptr);
        dropFrom(k, DeleteOnQuit);
    });
}

// The kernel's listening socket, made once for the whole run.
std::string gListenPath;
int gListener = -1;

void listenOnce()
{
    char dir[] = "/tmp/tamix-fuzz-XXXXXX";
    if (!mkdtemp(dir))
        std::abort();
    gListenPath = std::string(dir) + "/k";
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strcpy(a.sun_path, gListenPath.c_str());
    gListener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (gListener < 0 || bind(gListener, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        listen(gListener, 8) != 0 ||
        link(gListenPath.c_str(), (gListenPath + ".keep").c_str()) != 0)
        std::abort();
}

// The library removes a joined kernel's socket file when its last
// connection ends; a second name for the same socket puts it back.
void relisten()
{
    link((gListenPath + ".keep").c_str(), gListenPath.c_str());
}

// The state as a front end sees it, checked against what it was before.
class StateWatch {
public:
    void check()
    {
        const int now = gRun.kernel ? TAM_get_kernel_state(gRun.kernel) : ended_;
        if (ended_ != TAM_KERNEL_RUNNING && now != ended_)
            fail("the state changed after the stream ended");
        if (ended_ == TAM_KERNEL_RUNNING && now != TAM_KERNEL_RUNNING) {
            ended_ = now;
            callsAtEnd_ = gRun.calls;
        }
        // A quit message delivers its on_quit calls after the stream ended.
        if (ended_ != TAM_KERNEL_RUNNING && ended_ != TAM_KERNEL_QUIT && gRun.calls != callsAtEnd_)
            fail("a handler ran after the stream ended");
    }
    int ended() const { return ended_; }

private:
    static void fail(const char* what)
    {
        std::fprintf(stderr, "%s\n", what);
        __builtin_trap();
    }
    int ended_ = TAM_KERNEL_RUNNING;
    long callsAtEnd_ = 0;
};

// One connection to the peer, fed the input's bytes.
class Session {
public:
    explicit Session(unsigned flags)
    {
        gRun = Run{};
        gRun.flags = flags;
        relisten();
        gRun.kernel = TAM_connect_uds_kernel(gListenPath.c_str(), "fuzz");
        peer_ = accept4(gListener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (!gRun.kernel || peer_ < 0)
            std::abort();
        setHandlers(gRun.kernel);
        // The file of the client's socket, which the library leaves.
        sockaddr_un a{};
        socklen_t len = sizeof a;
        getsockname(TAM_get_client_fd(gRun.kernel), reinterpret_cast<sockaddr*>(&a), &len);
        clientPath_ = a.sun_path;
    }
    ~Session()
    {
        if (gRun.kernel)
            TAM_delete_kernel(gRun.kernel);
        gRun.kernel = nullptr;
        if (peer_ >= 0)
            close(peer_);
        unlink(clientPath_.c_str());
    }

    // The peer sends these bytes; the front end reads as they come.
    void say(const char* data, std::size_t len)
    {
        while (len > 0 && peer_ >= 0) {
            const ssize_t n = send(peer_, data, len, MSG_NOSIGNAL);
            if (n < 0 && errno != EAGAIN)
                return; // the library closed its end
            if (n > 0)
                data += n, len -= static_cast<std::size_t>(n);
            pump();
        }
        pump();
    }
    void hangUp()
    {
        shutdown(peer_, SHUT_WR);
        pump();
        if (gRun.kernel && watch_.ended() == TAM_KERNEL_RUNNING) {
            std::fprintf(stderr, "the peer has gone, the state says running\n");
            __builtin_trap();
        }
    }

private:
    // The input loop, while the front end's socket holds bytes. At its
    // end a socket stays readable for ever: once the state says so, the
    // loop has nothing more to read.
    void pump()
    {
        for (int turns = 0; gRun.kernel && turns < 100000; ++turns) {
            const int fd = TAM_get_client_fd(gRun.kernel);
            pollfd p = {fd, POLLIN, 0};
            char c;
            if (fd < 0 || poll(&p, 1, 0) <= 0 ||
                (watch_.ended() != TAM_KERNEL_RUNNING &&
                 recv(fd, &c, 1, MSG_PEEK | MSG_DONTWAIT) == 0))
                break;
            TAM_handle_uds_input(0);
            watch_.check();
            drainPeer();
        }
        watch_.check();
        drainPeer();
    }
    // The peer reads what the front end asked, as a kernel would.
    void drainPeer()
    {
        char buf[65536];
        while (peer_ >= 0 && recv(peer_, buf, sizeof buf, MSG_DONTWAIT) > 0) {
        }
    }

    int peer_ = -1;
    std::string clientPath_;
    StateWatch watch_;
};

// What one message may hold: its bytes (kept by the parser and as text),
// its payload, and room for the interned names and the library's buffers.
void checkMemory(std::size_t before)
{
    const std::size_t bound = 16 * (64 << 10) + 4 * (256 << 10) + (4 << 20);
    if (before && fuzz::allocatedBytes() > before + bound) {
        std::fprintf(stderr, "%zu bytes held\n", fuzz::allocatedBytes() - before);
        __builtin_trap();
    }
}

// Feeds the body times times over; the processor time it took.
double run(const uint8_t* data, std::size_t size, int times)
{
    const unsigned flags = data[2];
    std::string chunked(reinterpret_cast<const char*>(data), 2);
    chunked.append(reinterpret_cast<const char*>(data) + 3, size - 3);
    const std::size_t before = fuzz::allocatedBytes();
    const double t0 = fuzz::cpuSeconds();
    {
        Session s(flags);
        for (int t = 0; t < times; ++t) {
            fuzz::feedChunks(reinterpret_cast<const uint8_t*>(chunked.data()), chunked.size(),
                             [&](const char* p, int n) {
                                 s.say(p, static_cast<std::size_t>(n));
                                 checkMemory(before);
                             });
        }
        if (flags & PeerCloses)
            s.hangUp();
    }
    return fuzz::cpuSeconds() - t0;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    for (const auto& l : kLimits)
        TAM_set_limit(l.which, l.value);
    listenOnce();
    const std::string out = "<output cl=\"0\" cid=\"1\" type=\"result\">";
    const std::string seeds[] = {
        "<sendinit cl=\"0\"/><ready cl=\"0\"/>" + out +
            "<text format=\"_lan\">x&lt;y</text>"
            "</output><finished cl=\"0\" cid=\"1\"/><quit/>",
        out + "<mcode format=\"m\">eJxLTEoGAAJNASc=</mcode></output><callback cl=\"0\" "
              "cid=\"5\"><mcode format=\"m\">eJxLTEoGAAJNASc=</mcode></callback><sendinput "
              "cl=\"0\" text=\"1\"><text>name?</text></sendinput>",
        "<selformat cl=\"0\" type=\"result\"><fmt name=\"text\"/><fmt name=\"latex\"/>"
        "</selformat><format cl=\"0\" type=\"result\"><fmt name=\"latex\"/></format>"
        "<breakpoints cl=\"0\"><breakpt fname=\"a\" fpos=\"3\" cond=\"x\"/></breakpoints>"
        "<callstack cl=\"0\" level=\"2\"><csframe fname=\"f\" fpos=\"9\" proc=\"p\"/>"
        "</callstack><display cl=\"0\"><dispvar name=\"x\" value=\"1\"/></display>",
        "<help cl=\"0\" value=\"h\"/><system cl=\"0\" value=\"ls\"/><reset cl=\"0\"/>"
        "<complete cl=\"0\"/><senddbgcmd cl=\"0\" cid=\"4\"/>" +
            out + "<text>" + std::string(200, 'z') + "<a><a><a>",
    };
    std::vector<std::string> withFlags;
    for (const std::string& s : seeds)
        for (char f : {'\x00', '\x03', '\x07', '\x0b'})
            withFlags.push_back(std::string(1, f) + s);
    fuzz::writeSeeds(*argc, *argv, withFlags);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size < 3)
        return 0;
    const double once = run(data, size, 1);
    if (fuzz::resourceMode())
        fuzz::expectLinear(once, run(data, size, fuzz::kResourceTimes));
    return 0;
}
