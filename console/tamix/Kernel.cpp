#include "Kernel.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace tamix {

namespace {

// A kernel closes its socket a moment before its process is gone; this is
// how long to wait for the exit status that says how it ended.
const auto kExitStatusWait = std::chrono::milliseconds(500);

std::string describeStatus(int status)
{
    if (WIFSIGNALED(status))
        return "died (signal " + std::to_string(WTERMSIG(status)) + ")";
    return "ended (status " + std::to_string(WEXITSTATUS(status)) + ")";
}

// The parent's process id of pid, from /proc; -1 if it cannot be read.
pid_t parentOf(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    std::getline(in, stat);
    // pid (name) state ppid ...: the name may hold blanks and parentheses.
    size_t close = stat.rfind(')');
    if (close == std::string::npos)
        return -1;
    std::istringstream rest(stat.substr(close + 1));
    std::string state;
    pid_t ppid = -1;
    rest >> state >> ppid;
    return ppid;
}

// The library leaves the client's own socket file behind; nothing connects
// to it, so it can go at once.
void removeClientSocketFile(int fd)
{
    sockaddr_un addr{};
    socklen_t len = sizeof addr;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0 &&
        addr.sun_family == AF_UNIX && addr.sun_path[0] != '\0')
        unlink(addr.sun_path);
}

std::vector<std::string> words(const char* list)
{
    std::vector<std::string> out;
    std::istringstream in(list ? list : "");
    for (std::string w; in >> w;)
        out.push_back(w);
    return out;
}

} // namespace

const long kConsoleFeatures = TAM_FEATURE_CAN_QUIT | TAM_FEATURE_CAN_PLOT | TAM_FEATURE_CAN_INPUT |
                              TAM_FEATURE_CAN_TEXTINPUT | TAM_FEATURE_CAN_HELP |
                              TAM_FEATURE_CAN_EXEC_SYSTEM | TAM_FEATURE_CAN_CALLBACK;

KernelConfig kernelConfig(const Options& options)
{
    KernelConfig c;
    c.kernelPath = options.kernelPath;
    c.connectPath = options.connectPath;
    c.libDir = options.libDir;
    c.features = kConsoleFeatures;
    return c;
}

KernelLink::KernelLink(KernelListener& listener) : listener_(listener)
{
}

KernelLink::~KernelLink()
{
    end(false);
}

KernelLink* KernelLink::of(TAM_KernelImpl* kernel)
{
    return static_cast<KernelLink*>(TAM_get_client_data(kernel));
}

bool KernelLink::start(const KernelConfig& config, std::string& error)
{
    config_ = config;
    ready_ = gone_ = running_ = false;
    statusAsked_ = formatAsked_ = widthAsked_ = false;
    queue_.clear();
    if (config.connectPath.empty()) {
        if (access(config.kernelPath.c_str(), X_OK) != 0) {
            error = "cannot run the kernel " + config.kernelPath + ": " + strerror(errno);
            return false;
        }
        // The kernel shares the terminal, whose Ctrl-C is the console's to
        // turn into a stop request: it starts with SIGINT ignored.
        struct sigaction ignore {
        }, previous{};
        ignore.sa_handler = SIG_IGN;
        sigemptyset(&ignore.sa_mask);
        sigaction(SIGINT, &ignore, &previous);
        kernel_ = TAM_new_uds_kernel(config.kernelPath.c_str(), "tamix");
        sigaction(SIGINT, &previous, nullptr);
        if (!kernel_)
            error = "the kernel " + config.kernelPath + " did not start";
    } else {
        kernel_ = TAM_connect_uds_kernel(config.connectPath.c_str(), "tamix");
        // Leaving deletes the kernel's socket file; the reference kernel
        // notices and listens again at the same path.
        if (!kernel_)
            error = "no kernel to join at " + config.connectPath;
    }
    if (!kernel_)
        return false;
    removeClientSocketFile(TAM_get_client_fd(kernel_));
    registerHandlers();
    if (!TAM_send_new_client(kernel_, "tamix", nullptr, config.features)) {
        error = "the kernel did not take the console's announcement";
        end(true);
        return false;
    }
    return true;
}

void KernelLink::registerHandlers()
{
    TAM_KernelImpl* k = kernel_;
    TAM_set_client_data(k, this);
    TAM_set_on_init_wanted_handler(k, onInitWanted);
    TAM_set_on_kernel_ready_handler(k, onKernelReady);
    TAM_set_on_output_handler(k, onOutput);
    TAM_set_on_output_data_handler(k, onOutputData);
    TAM_set_on_finished_handler(k, onFinished);
    TAM_set_on_input_wanted_handler(k, onInputWanted);
    TAM_set_on_callback_handler(k, onCallback);
    TAM_set_on_help_handler(k, onHelp);
    TAM_set_on_system_handler(k, onSystem);
    TAM_set_on_format_changed_handler(k, onFormatChanged);
    TAM_set_on_textwidth_changed_handler(k, onTextwidthChanged);
    TAM_set_on_status_handler(k, onStatus);
    TAM_set_on_input_completion_handler(k, onCompletion);
    TAM_set_on_plot_result_file_handler(k, onPlotFile);
}

void KernelLink::end(bool force)
{
    if (!kernel_)
        return;
    // A kernel stuck in a computation could keep the deletion, which waits
    // for a launched kernel to end, waiting for seconds or for ever. One
    // already reaped is not signalled: its pid may belong to another
    // process by now.
    if (force && !TAM_get_kernel_exit_status(kernel_, nullptr)) {
        if (pid_t pid = kernelPid())
            kill(pid, SIGKILL);
    }
    TAM_delete_kernel(kernel_);
    kernel_ = nullptr;
    ready_ = running_ = false;
    queue_.clear();
}

bool KernelLink::restart(std::string& error)
{
    end(true);
    return start(config_, error);
}

pid_t KernelLink::kernelPid() const
{
    if (!config_.connectPath.empty())
        return 0;
    ucred cred{};
    socklen_t len = sizeof cred;
    if (getsockopt(TAM_get_client_fd(kernel_), SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 ||
        cred.pid <= 0)
        return 0;
    // Only a child of this program: never signal a process that is not the
    // kernel launched here.
    return parentOf(cred.pid) == getpid() ? cred.pid : 0;
}

int KernelLink::watchFd() const
{
    return alive() ? TAM_get_client_fd(kernel_) : -1;
}

void KernelLink::read()
{
    int fd = watchFd();
    if (fd < 0)
        return;
    TAM_read_uds_input(fd);
    if (kernel_ && !gone_ && TAM_get_kernel_state(kernel_) != TAM_KERNEL_RUNNING)
        noticeGone();
}

void KernelLink::noticeGone()
{
    gone_ = true;
    ready_ = running_ = false;
    statusAsked_ = formatAsked_ = widthAsked_ = false;
    queue_.clear();
    listener_.onGone(goneReason());
}

std::string KernelLink::goneReason()
{
    switch (TAM_get_kernel_state(kernel_)) {
    case TAM_KERNEL_QUIT:
        return "the kernel quit";
    case TAM_KERNEL_MALFORMED:
        return "the kernel broke the protocol";
    case TAM_KERNEL_OVER_LIMIT:
        return "the kernel sent a message over the library's limits";
    case TAM_KERNEL_UNRESPONSIVE:
        return "the kernel stopped taking requests";
    default:
        break;
    }
    if (!config_.connectPath.empty())
        return "the kernel closed the connection";
    int status = 0;
    const auto until = std::chrono::steady_clock::now() + kExitStatusWait;
    while (!TAM_get_kernel_exit_status(kernel_, &status)) {
        if (std::chrono::steady_clock::now() >= until)
            return "the kernel closed the connection";
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return "the kernel " + describeStatus(status);
}

void KernelLink::submit(const std::string& command)
{
    queue_.push_back(command);
    sendNext();
}

void KernelLink::sendNext()
{
    if (!ready() || running_ || queue_.empty())
        return;
    std::string command = std::move(queue_.front());
    queue_.pop_front();
    ++cookie_;
    running_ = true;
    if (!TAM_send_cmd(kernel_, reinterpret_cast<void*>(static_cast<uintptr_t>(cookie_)),
                      command.c_str())) {
        // The kernel has gone; reading its socket will say how, unless the
        // send itself found it unresponsive.
        running_ = false;
        listener_.onOutput("error", "text", "the command could not be sent");
        listener_.onFinished();
        if (kernel_ && !gone_ && TAM_get_kernel_state(kernel_) == TAM_KERNEL_UNRESPONSIVE)
            noticeGone();
    }
}

size_t KernelLink::dropQueued()
{
    size_t n = queue_.size();
    queue_.clear();
    return n;
}

bool KernelLink::interrupt()
{
    return alive() && TAM_send_stop(kernel_);
}

bool KernelLink::answerInput(bool text, bool canceled, const std::string& answer)
{
    if (!alive())
        return false;
    return text ? TAM_send_textinput(kernel_, canceled, answer.c_str())
                : TAM_send_input(kernel_, canceled, answer.c_str());
}

bool KernelLink::answerSystem(long result)
{
    return alive() && TAM_send_system_result(kernel_, result);
}

bool KernelLink::requestCompletions(const std::string& prefix)
{
    return ready() && TAM_send_completion_wanted(kernel_, prefix.c_str());
}

bool KernelLink::requestStatus()
{
    statusAsked_ = alive() && TAM_send_status_wanted(kernel_);
    return statusAsked_;
}

bool KernelLink::setFormat(const std::string& format)
{
    formatAsked_ = alive() && TAM_send_format(kernel_, "result", format.c_str());
    return formatAsked_;
}

bool KernelLink::setWidth(long width)
{
    widthAsked_ = alive() && TAM_send_textwidth(kernel_, width);
    return widthAsked_;
}

// ---- Handlers ------------------------------------------------------------------

void KernelLink::onInitWanted(TAM_KernelImpl* k)
{
    const std::string& dir = of(k)->config_.libDir;
    const char* args[] = {"-l", dir.c_str()};
    TAM_send_init(k, dir.empty() ? 0 : 2, args);
}

void KernelLink::onKernelReady(TAM_KernelImpl* k)
{
    KernelLink* self = of(k);
    self->ready_ = true;
    self->listener_.onReady();
    self->sendNext();
}

void KernelLink::onOutput(TAM_KernelImpl* k, void*, const char* type, const char* format,
                          const char* text)
{
    of(k)->listener_.onOutput(type, format, text);
}

void KernelLink::onOutputData(TAM_KernelImpl* k, void*, const char* type, const TAM_DataTAG* data)
{
    // Only "utf8" payloads are text; the console shows them as they are.
    std::string text(reinterpret_cast<const char*>(data->data), data->length);
    of(k)->listener_.onOutput(type, data->format, text);
}

void KernelLink::onFinished(TAM_KernelImpl* k, void* cookie)
{
    KernelLink* self = of(k);
    if (!self->running_ || reinterpret_cast<uintptr_t>(cookie) != self->cookie_)
        return;
    self->running_ = false;
    self->listener_.onFinished();
    self->sendNext();
}

void KernelLink::onInputWanted(TAM_KernelImpl* k, void*, int text, const char* prompt)
{
    of(k)->listener_.onInputWanted(text != 0, prompt);
}

void KernelLink::onCallback(TAM_KernelImpl* k, void*, const TAM_DataTAG* data)
{
    // The console has no functions of its own for the kernel to call: an
    // expression comes back as it went, anything else is an error.
    const bool text = data && data->format && std::strcmp(data->format, "utf8") == 0;
    TAM_send_call_result(k, text ? 0 : 1, text ? data : nullptr);
}

void KernelLink::onHelp(TAM_KernelImpl* k, const char* text)
{
    of(k)->listener_.onHelp(text);
}

void KernelLink::onSystem(TAM_KernelImpl* k, const char* command)
{
    of(k)->listener_.onSystem(command);
}

void KernelLink::onFormatChanged(TAM_KernelImpl* k, const char* type, const char* format)
{
    KernelLink* self = of(k);
    if (!self->formatAsked_ || std::strcmp(type, "result") != 0)
        return;
    self->formatAsked_ = false;
    self->listener_.onNotice(std::string("results in format ") + format);
}

void KernelLink::onTextwidthChanged(TAM_KernelImpl* k, long width)
{
    KernelLink* self = of(k);
    if (!self->widthAsked_)
        return;
    self->widthAsked_ = false;
    self->listener_.onNotice(width < 1
                                 ? std::string("results not wrapped")
                                 : "results wrapped at " + std::to_string(width) + " characters");
}

void KernelLink::onStatus(TAM_KernelImpl* k, long used, long res, long sec)
{
    of(k)->statusAsked_ = false;
    of(k)->listener_.onNotice("kernel memory " + std::to_string(used) + " KiB resident, " +
                              std::to_string(res) + " KiB reserved; CPU time " +
                              std::to_string(sec) + " s");
}

void KernelLink::onCompletion(TAM_KernelImpl* k, const char* list, const char* prefix)
{
    of(k)->listener_.onCompletions(prefix, words(list));
}

void KernelLink::onPlotFile(TAM_KernelImpl* k, void*, const char* name)
{
    of(k)->listener_.onPlotFile(name);
}

} // namespace tamix
