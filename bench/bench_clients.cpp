#include "bench_clients.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bench_budgets.h"
#include "bench_wire.h"

namespace {

LibClient* self(TAM_KernelImpl* k)
{
    return static_cast<LibClient*>(TAM_get_client_data(k));
}

// The library leaves its client socket files behind; nothing connects to
// them, so they can go at once.
void removeSocketFile(TAM_KernelImpl* k)
{
    sockaddr_un addr{};
    socklen_t len = sizeof addr;
    if (getsockname(TAM_get_client_fd(k), reinterpret_cast<sockaddr*>(&addr), &len) == 0)
        unlink(addr.sun_path);
}

} // namespace

// ---- through the library ----------------------------------------------------

struct LibHandlers {
    static void initWanted(TAM_KernelImpl* k)
    {
        const char* args[] = {"-l", self(k)->initArgs_};
        TAM_send_init(k, self(k)->initArgs_ ? 2 : 0, args);
    }
    static void ready(TAM_KernelImpl* k) { self(k)->ready_ = true; }
    static void output(TAM_KernelImpl* k, void*, const char*, const char*, const char* text)
    {
        if (self(k)->measure_)
            self(k)->lastLength_ = static_cast<long>(std::strlen(text));
    }
    static void finished(TAM_KernelImpl* k, void*) { self(k)->finished_ = true; }
    static void quit(TAM_KernelImpl* k) { self(k)->quit_ = true; }
};

LibClient::LibClient(TAM_KernelImpl* k) : k_(k)
{
    TAM_set_client_data(k, this);
    TAM_set_on_init_wanted_handler(k, LibHandlers::initWanted);
    TAM_set_on_kernel_ready_handler(k, LibHandlers::ready);
    TAM_set_on_output_handler(k, LibHandlers::output);
    TAM_set_on_finished_handler(k, LibHandlers::finished);
    TAM_set_on_quit_handler(k, LibHandlers::quit);
    removeSocketFile(k);
}

LibClient::~LibClient()
{
    TAM_delete_kernel(k_);
}

LibClient* LibClient::launch(const char* kernelPath, const char* initArgs)
{
    TAM_KernelImpl* k = TAM_new_uds_kernel(kernelPath, nullptr);
    if (!k)
        return nullptr;
    LibClient* c = new LibClient(k);
    c->initArgs_ = initArgs;
    if (c->waitReady())
        return c;
    delete c;
    return nullptr;
}

LibClient* LibClient::join(const char* listenPath)
{
    TAM_KernelImpl* k = TAM_connect_uds_kernel(listenPath, nullptr);
    if (!k)
        return nullptr;
    LibClient* c = new LibClient(k);
    if (c->waitReady())
        return c;
    delete c;
    return nullptr;
}

bool LibClient::waitReady()
{
    if (!TAM_send_new_client(k_, nullptr, nullptr, TAM_FEATURE_CAN_QUIT))
        return false;
    while (!ready_ && !quit_)
        TAM_handle_uds_input(1);
    return ready_;
}

bool LibClient::run(const char* command)
{
    finished_ = false;
    if (!TAM_send_cmd(k_, nullptr, command))
        return false;
    while (!finished_ && !quit_)
        TAM_handle_uds_input(1);
    return finished_;
}

// ---- raw ----------------------------------------------------------------------

RawClient::~RawClient()
{
    if (fd_ >= 0)
        close(fd_);
    std::free(buf_);
}

bool RawClient::open(const char* listenPath)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, listenPath, sizeof addr.sun_path - 1);
    fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd_ < 0 || connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
        return false;
    const std::string hello = "<newclient name =\"\" frame=\"\" longfmt=\"text\" floatfmt=\"ieee\" "
                              "coding=\"ident \" features=\"can_quit \"/>";
    if (send(fd_, hello.data(), hello.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(hello.size()) ||
        !readUntil("\"/>"))
        return false;
    const char* id = std::strstr(buf_, "cl=\"");
    id_ = id ? std::atol(id + 4) : -1;
    return id_ >= 0;
}

bool RawClient::readUntil(const std::string& tail)
{
    len_ = 0;
    const long t = static_cast<long>(tail.size());
    do {
        if (cap_ - len_ < 1024 + 1) {
            cap_ = cap_ ? 2 * cap_ : 4096;
            buf_ = static_cast<char*>(std::realloc(buf_, static_cast<size_t>(cap_)));
            if (!buf_)
                return false;
        }
        const ssize_t n = read(fd_, buf_ + len_, 1024);
        if (n <= 0)
            return false;
        len_ += n;
    } while (len_ < t || std::memcmp(buf_ + len_ - t, tail.data(), tail.size()) != 0);
    buf_[len_] = '\0';
    return true;
}

bool RawClient::run(const std::string& command)
{
    const std::string request = "<cmd cl=\"" + std::to_string(id_) +
                                "\" cid=\"0\"><text format=\"_lan\">" + command + "</text></cmd>";
    return send(fd_, request.data(), request.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(request.size()) &&
           readUntil(benchwire::finishedMessage(id_, "0"));
}

// ---- helper processes ---------------------------------------------------------

int runChild(int argc, char** argv)
{
    if (argc != 4 || std::strcmp(argv[0], "receive") != 0)
        return 2;
    const std::string command = std::string("big ") + argv[3];
    const long size = std::atol(argv[3]);
    double seconds;
    if (std::strcmp(argv[1], "lib") == 0) {
        LibClient* c = LibClient::join(argv[2]);
        if (!c)
            return 1;
        const double t0 = now(Clock::Wall);
        if (!c->run(command.c_str()))
            return 1;
        seconds = now(Clock::Wall) - t0;
        c->measureOutput(true); // once more, untimed, to see that it was whole
        if (!c->run(command.c_str()) || c->lastOutputLength() != size)
            return 1;
        // Not deleted: that would remove the kernel's socket file, which
        // the next helper needs.
    } else {
        RawClient c;
        if (!c.open(argv[2]))
            return 1;
        const double t0 = now(Clock::Wall);
        if (!c.run(command))
            return 1;
        seconds = now(Clock::Wall) - t0;
    }
    std::printf("%.9f\n", seconds);
    return 0;
}

double timeInChild(const char* reader, const char* listenPath, long size)
{
    int out[2];
    if (pipe(out) != 0)
        return -1;
    const std::string n = std::to_string(size);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], 1);
        close(out[0]);
        close(out[1]);
        execl("/proc/self/exe", "tamix_bench", "--child", "receive", reader, listenPath, n.c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    close(out[1]);
    char text[64] = "";
    ssize_t got = pid > 0 ? read(out[0], text, sizeof text - 1) : -1;
    close(out[0]);
    int status = 0;
    if (pid > 0)
        waitpid(pid, &status, 0);
    if (got <= 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return -1;
    text[got] = '\0';
    return std::atof(text);
}
