// Kernel processes: launch, join, registry, client ids, quit, input loop.
#include "uds/TAM_UdsKernelProcess.h"

#include <poll.h>
#include <signal.h>
#include <stddef.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include "kernel/TAM_Limits.h"
#include "uds/TAM_UdsKernel.h"

std::vector<TAM_UdsKernelProcess*> TAM_UdsKernelProcess::gProcs_;
fd_set TAM_UdsKernelProcess::gSelectSet_;
int TAM_UdsKernelProcess::gMaxFd_ = -1;

namespace {

// Socket files live here; the kernel's name is only reserved with mkstemp
// and then created by the kernel itself.
#define TAM_SOCKET_DIR \
    "/var/tmp/"        \
    "/"
const char kKernelTemplate[] = TAM_SOCKET_DIR "tamkrXXXXXX";
const char kClientTemplate[] = TAM_SOCKET_DIR "tamclXXXXXX";
const char kErrorPrefix[] = "TAM_UdsKernelProcess";
const long kWaitStepNs = 50000000L;

// Written by the signal handlers, read between waits.
volatile sig_atomic_t gKernelReady = 0;
volatile sig_atomic_t childDied = 0;

uint64_t gNextSerial = 1;

// What the input loop walks over: each registered process with its serial.
using Entry = std::pair<TAM_UdsKernelProcess*, uint64_t>;

// The walk's buffer, kept from one call to the next, so that the input loop
// allocates only when the registry has grown. A call made from inside a
// walk (which the loop does not support, but must not break) finds the
// buffer taken and uses one of its own.
std::vector<Entry> gWalkBuffer;

struct Snapshot {
    std::vector<Entry> entries;
    Snapshot()
    {
        entries.swap(gWalkBuffer);
        entries.clear();
    }
    ~Snapshot()
    {
        if (entries.capacity() > gWalkBuffer.capacity())
            entries.swap(gWalkBuffer);
    }
};

void kernel_ready(int)
{
    gKernelReady = 1;
}

void child_died(int)
{
    childDied = 1;
}

char* copyText(const char* text)
{
    size_t n = strlen(text) + 1;
    char* copy = static_cast<char*>(malloc(n));
    if (copy)
        memcpy(copy, text, n);
    return copy;
}

// Fills addr for path; the length covers the family and the whole path
// with its terminating zero. False if the path does not fit.
bool fillAddress(sockaddr_un& addr, socklen_t& len, const char* path)
{
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    size_t n = strlen(path);
    if (n >= sizeof addr.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    memcpy(addr.sun_path, path, n);
    len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + n + 1);
    return true;
}

// perror, then closes what the failed step leaves open, keeping errno out of it.
int failStep(int code, int sock, int tmpFd = -1)
{
    perror(kErrorPrefix);
    if (tmpFd >= 0)
        close(tmpFd);
    if (sock >= 0)
        close(sock);
    return code;
}

long long nowMs()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<long long>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

// A wait of at most ms milliseconds (0 for a negative ms).
void sleepMs(long long ms)
{
    timespec t = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    if (ms > 0)
        nanosleep(&t, nullptr);
}

// Reaps pid within ms milliseconds (no limit for a negative ms). True once
// it is reaped, here or elsewhere (then it is no child of ours any more).
bool reapWithin(pid_t pid, long long ms)
{
    if (ms < 0) {
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        return true;
    }
    const long long end = nowMs() + ms;
    for (long long step = 1;; step = step < 16 ? 2 * step : 16) {
        const pid_t r = waitpid(pid, nullptr, WNOHANG);
        if (r == pid || (r < 0 && errno != EINTR))
            return true;
        const long long left = end - nowMs();
        if (left <= 0)
            return false;
        sleepMs(step < left ? step : left);
    }
}

// Reserves a fresh name from tmpl in path (as large as tmpl) with mkstemp.
// The file itself goes again: only the name is wanted. False if no name
// could be had.
bool reserveName(char* path, const char* tmpl, std::size_t size, int* keptFd = nullptr)
{
    memcpy(path, tmpl, size);
    const int fd = mkstemp(path);
    if (fd < 0)
        return false;
    unlink(path);
    if (keptFd)
        *keptFd = fd;
    else
        close(fd);
    return true;
}

// True for a socket file of this user: what a kernel launched here leaves.
bool ownSocket(const char* path)
{
    struct stat st;
    return lstat(path, &st) == 0 && S_ISSOCK(st.st_mode) && st.st_uid == geteuid();
}

// Something else stands at path: a file another user created there after
// the name was reserved and unlinked, where the kernel could not listen.
bool takenByOther(const char* path)
{
    struct stat st;
    return lstat(path, &st) == 0 && !ownSocket(path);
}

// The socket file a failed launch's kernel may have left goes too.
void removeOwnSocket(const char* path)
{
    if (ownSocket(path))
        unlink(path);
}

// The peer of a connected socket must run as this user: a socket that
// another user put at the path would otherwise get the user's commands.
bool peerIsThisUser(int s)
{
#ifdef SO_PEERCRED
    ucred cred{};
    socklen_t len = sizeof cred;
    if (getsockopt(s, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0)
        return false;
    const uid_t uid = cred.uid;
#else
    uid_t uid;
    gid_t gid;
    if (getpeereid(s, &uid, &gid) != 0)
        return false;
#endif
    if (uid == geteuid())
        return true;
    errno = EACCES;
    return false;
}

// How a launch's wait for readiness ended.
enum class Start { Ready, Died, TimedOut };

// Waits for the kernel's SIGUSR1, its end, or the end of the readiness
// time-out. The empty mask lets both signals in during pselect; a signal
// that comes just before a wait is noticed at the end of that step (50 ms
// at most).
Start waitForReadiness(pid_t pid)
{
    sigset_t noSignals;
    sigemptyset(&noSignals);
    const long long end = nowMs() + TAM_Limits::get(TAM_LIMIT_READY_WAIT_MS);
    for (;;) {
        if (gKernelReady)
            return Start::Ready;
        if (childDied) {
            // SIGCHLD may come from another child of this program: only
            // the kernel's own end counts. The flag is cleared before the
            // test so that the kernel's SIGCHLD cannot be lost in between.
            childDied = 0;
            pid_t r = waitpid(pid, nullptr, WNOHANG);
            if (r == pid || (r < 0 && errno == ECHILD))
                return Start::Died; // reaped
        }
        const long long left = end - nowMs();
        if (left <= 0)
            return Start::TimedOut;
        const long long ns = left * 1000000 < kWaitStepNs ? left * 1000000 : kWaitStepNs;
        timespec step = {0, static_cast<long>(ns)};
        pselect(0, nullptr, nullptr, nullptr, &step, &noSignals);
    }
}

// Starts kernel_path with the socket path; the child's pid, or -1.
pid_t startKernel(const char* kernel_path, const char* path)
{
    pid_t pid = fork();
    if (pid == 0) {
        const char* base = strrchr(kernel_path, '/');
        base = base ? base + 1 : kernel_path;
        execl(kernel_path, base, "-X", path, static_cast<char*>(nullptr));
        // _exit, not exit: the child must not flush the parent's stdio
        // buffers or run its exit handlers a second time.
        _exit(1);
    }
    return pid;
}

// The readiness and death handlers, installed for the life of the object
// and the previous ones put back at its end.
struct LaunchSignals {
    sighandler_t oldUsr1 = SIG_ERR;
    sighandler_t oldChld = SIG_ERR;
    LaunchSignals()
    {
        gKernelReady = 0;
        oldUsr1 = signal(SIGUSR1, kernel_ready);
        if (oldUsr1 == SIG_ERR)
            return;
        childDied = 0;
        oldChld = signal(SIGCHLD, child_died);
        if (oldChld == SIG_ERR) {
            signal(SIGUSR1, oldUsr1);
            oldUsr1 = SIG_ERR;
        }
    }
    bool installed() const { return oldChld != SIG_ERR; }
    ~LaunchSignals()
    {
        if (!installed())
            return;
        signal(SIGUSR1, oldUsr1);
        signal(SIGCHLD, oldChld);
    }
};

// Another user can take a reserved name between its reservation and its
// use in the shared, sticky /var/tmp; a fresh name is tried then, this many
// times in all.
const int kNameAttempts = 3;

} // namespace

// ---- Launching and joining --------------------------------------------------

int TAM_UdsKernelProcess::client_connect(const char* listen_path)
{
    int s = socket(AF_UNIX, SOCK_STREAM, 0);
    if (s < 0)
        return failStep(-1, -1);
#ifdef SO_NOSIGPIPE
    int one = 1;
    setsockopt(s, SOL_SOCKET, SO_NOSIGPIPE, &one, sizeof one);
#endif
    // Without SO_NOSIGPIPE (Linux) every send passes MSG_NOSIGNAL instead
    // (send_request), with the same effect.

    char path[sizeof kClientTemplate];
    sockaddr_un addr;
    socklen_t len;
    for (int attempt = 1;; ++attempt) {
        int tmpFd;
        if (!reserveName(path, kClientTemplate, sizeof path, &tmpFd))
            return failStep(-2, s);
        if (!fillAddress(addr, len, path))
            return failStep(-3, s, tmpFd);
        const bool bound = bind(s, reinterpret_cast<sockaddr*>(&addr), len) == 0;
        if (!bound && (errno != EADDRINUSE || attempt == kNameAttempts))
            return failStep(-3, s, tmpFd);
        close(tmpFd);
        if (bound)
            break;
    }
    if (chmod(path, 0700) < 0)
        return failStep(-4, s);

    if (!listen_path || !fillAddress(addr, len, listen_path) ||
        connect(s, reinterpret_cast<sockaddr*>(&addr), len) < 0) {
        if (!listen_path)
            errno = EINVAL;
        return failStep(-5, s);
    }
    if (!peerIsThisUser(s)) {
        // Nothing has been sent: the peer only learns that a connection
        // came and went.
        perror(kErrorPrefix);
        hang_up(s);
        return -6;
    }
    return s;
}

TAM_UdsKernelProcess* TAM_UdsKernelProcess::new_proc(const char* kernel_path, const char* name)
{
    if (!kernel_path)
        return nullptr;

    char path[sizeof kKernelTemplate];
    pid_t pid = -1;
    {
        LaunchSignals signals;
        if (!signals.installed())
            return nullptr;
        for (int attempt = 1; pid < 0; ++attempt) {
            // The kernel creates its socket under the unique name.
            if (!reserveName(path, kKernelTemplate, sizeof path))
                return nullptr;
            gKernelReady = 0;
            pid = startKernel(kernel_path, path);
            if (pid < 0)
                return nullptr;
            const Start start = waitForReadiness(pid);
            if (start == Start::Ready)
                break;
            if (start == Start::TimedOut) {
                // Reaped while the launch's SIGCHLD handler is still in
                // place, so that the front end's own never sees this child.
                kill(pid, SIGKILL);
                reapWithin(pid, -1);
                removeOwnSocket(path);
                return nullptr;
            }
            // Dead before it was ready (and reaped). A kernel that found
            // its name taken by someone else gets another one.
            removeOwnSocket(path);
            if (!takenByOther(path) || attempt == kNameAttempts)
                return nullptr;
            pid = -1;
        }
    }

    int fd = client_connect(path);
    TAM_UdsKernelProcess* p = fd < 0 ? nullptr : register_proc(name, fd, path, pid);
    if (!p) {
        // A kernel that cannot be reached is of no use to anybody: it must
        // not stay behind, running or as a zombie.
        end_child(pid, false);
        removeOwnSocket(path);
    }
    return p;
}

TAM_UdsKernelProcess* TAM_UdsKernelProcess::connect_proc(const char* listen_path, const char* name)
{
    if (!listen_path)
        return nullptr;
    int fd = client_connect(listen_path);
    if (fd < 0)
        return nullptr;
    return register_proc(name, fd, listen_path, 0);
}

TAM_UdsKernelProcess* TAM_UdsKernelProcess::register_proc(const char* name, int fd,
                                                          const char* listen_path, int pid)
{
    if (fd >= FD_SETSIZE) {
        // select cannot watch it.
        hang_up(fd);
        return nullptr;
    }
    TAM_UdsKernelProcess* p = new (std::nothrow) TAM_UdsKernelProcess(name, fd, listen_path, pid);
    if (!p) {
        hang_up(fd);
        return nullptr;
    }
    if (!p->name_ || (listen_path && !p->listenPath_)) {
        delete p;
        return nullptr;
    }
    try {
        gProcs_.push_back(p);
    } catch (...) {
        delete p;
        return nullptr;
    }
    if (fd > gMaxFd_) {
        if (gMaxFd_ == -1)
            FD_ZERO(&gSelectSet_);
        gMaxFd_ = fd;
    }
    FD_SET(fd, &gSelectSet_);
    return p;
}

void TAM_UdsKernelProcess::hang_up(int fd)
{
    if (fd < 0)
        return;
    shutdown(fd, SHUT_RDWR);
    close(fd);
}

void TAM_UdsKernelProcess::end_child(int pid, bool waitFirst)
{
    if (pid <= 0)
        return;
    const long long grace = TAM_Limits::get(TAM_LIMIT_DELETE_GRACE_MS);
    if (waitFirst && reapWithin(pid, grace))
        return;
    // Not reaped yet, so pid is still this child, alive or a zombie.
    kill(pid, SIGTERM);
    if (reapWithin(pid, grace))
        return;
    kill(pid, SIGKILL);
    reapWithin(pid, -1);
}

// ---- The object ----------------------------------------------------------------

TAM_UdsKernelProcess::TAM_UdsKernelProcess(const char* name, int fd, const char* listen_path,
                                           int pid)
    : fd_(fd), msgParser_(this), refCount_(1), name_(nullptr), listenPath_(nullptr),
      quitting_(false), pid_(pid), serial_(gNextSerial++), dispatching_(0), doomed_(false),
      endState_(TAM_KERNEL_RUNNING), closed_(false), cut_(false), stayAlive_(false), reaped_(false),
      exitStatus_(0)
{
    if (name) {
        name_ = copyText(name);
    } else {
        char num[16];
        snprintf(num, sizeof num, "%d", fd);
        name_ = copyText(num);
    }
    if (listen_path)
        listenPath_ = copyText(listen_path);
    msgParser_.init();
}

TAM_UdsKernelProcess::~TAM_UdsKernelProcess()
{
    close_socket();
    free(name_);
    if (listenPath_) {
        unlink(listenPath_);
        free(listenPath_);
    }
    unregister(this);
}

void TAM_UdsKernelProcess::close_socket()
{
    if (fd_ < 0)
        return;
    FD_CLR(fd_, &gSelectSet_);
    hang_up(fd_);
    fd_ = -1;
}

void TAM_UdsKernelProcess::unregister(TAM_UdsKernelProcess* p)
{
    for (auto it = gProcs_.begin(); it != gProcs_.end(); ++it) {
        if (*it == p) {
            gProcs_.erase(it);
            return;
        }
    }
}

void TAM_UdsKernelProcess::addRef()
{
    ++refCount_;
}

long TAM_UdsKernelProcess::release()
{
    if (--refCount_ > 0)
        return refCount_;
    if (dispatching_ > 0) {
        // A handler gave up the last reference while this object's parser
        // is still working on a chunk: end the connection now (the kernel
        // sees it closed and a launched kernel can end), destroy later.
        if (!doomed_) {
            doomed_ = true;
            close_socket();
            unregister(this);
        }
        return 0;
    }
    delete this;
    return 0;
}

int TAM_UdsKernelProcess::set_kernel_name(const char* name)
{
    if (!name)
        return 0;
    char* copy = copyText(name);
    if (!copy)
        return 0;
    free(name_);
    name_ = copy;
    return 1;
}

// ---- Clients -----------------------------------------------------------------

int TAM_UdsKernelProcess::add_kernel(TAM_UdsKernel* kernel)
{
    if (!kernel)
        return 0;
    try {
        pending_.push_back(kernel);
    } catch (...) {
        return 0;
    }
    return 1;
}

int TAM_UdsKernelProcess::remove_kernel(TAM_UdsKernel* kernel)
{
    if (!kernel)
        return 0;
    // A message being parsed must not reach a client that is going away.
    if (kernel_ == static_cast<TAM_KernelImpl*>(kernel))
        kernel_ = nullptr;
    long id = kernel->get_client_id();
    if (id < 0) {
        for (auto it = pending_.begin(); it != pending_.end(); ++it) {
            if (*it == kernel) {
                pending_.erase(it);
                break;
            }
        }
        return 1;
    }
    auto it = kernels_.find(id);
    if (it == kernels_.end())
        return 0;
    kernels_.erase(it);
    return 1;
}

bool TAM_UdsKernelProcess::is_pending(const TAM_UdsKernel* kernel) const
{
    for (const TAM_UdsKernel* k : pending_) {
        if (k == kernel)
            return true;
    }
    return false;
}

TAM_KernelImpl* TAM_UdsKernelProcess::kernel(long clientId)
{
    // After its quit the kernel is gone for its clients: anything that
    // followed the quit in the same read is not delivered.
    if (clientId < 0 || quitting_)
        return nullptr;
    auto it = kernels_.find(clientId);
    if (it != kernels_.end())
        return it->second;
    if (pending_.empty())
        return nullptr;
    TAM_UdsKernel* k = pending_.front();
    if (!k) {
        pending_.erase(pending_.begin());
        return nullptr;
    }
    try {
        kernels_[clientId] = k;
    } catch (...) {
        return nullptr; // stays pending for the next new id
    }
    pending_.erase(pending_.begin());
    k->set_client_id(clientId);
    return k;
}

void TAM_UdsKernelProcess::onQuit()
{
    if (doomed_)
        return; // nobody holds it any more; its socket is already closed
    // A second quit in the same read: the clients have been told and the
    // socket is closed. Another reference here would never be given back,
    // so the process would outlive its last client.
    if (quitting_)
        return;
    addRef(); // given back by the input loop when it drops this process
    quitting_ = true;

    std::vector<TAM_UdsKernel*> clients;
    try {
        for (const auto& entry : kernels_) {
            if (entry.second)
                clients.push_back(entry.second);
        }
        for (TAM_UdsKernel* k : pending_) {
            if (k)
                clients.push_back(k);
        }
    } catch (...) {
        // Without memory for the list the clients are not told; the socket
        // is still closed below.
        clients.clear();
    }
    // A handler that throws must not keep the others from being told or
    // leave the socket open (and watched) behind a dropped process: its
    // exception goes on to the parser once all of this is done.
    std::exception_ptr failure;
    for (TAM_UdsKernel* k : clients) {
        // A handler may have deleted a client that comes later in the copy;
        // the pointer is only compared until it is found registered.
        bool present = is_pending(k);
        for (auto it = kernels_.begin(); !present && it != kernels_.end(); ++it)
            present = it->second == k;
        if (present && k->on_quit) {
            try {
                k->on_quit(k);
            } catch (...) {
                if (!failure)
                    failure = std::current_exception();
            }
        }
    }
    close_socket();
    if (failure)
        std::rethrow_exception(failure);
}

// ---- Registry queries -------------------------------------------------------------

TAM_UdsKernelProcess* TAM_UdsKernelProcess::get_proc(const char* name)
{
    if (!name)
        return nullptr;
    for (TAM_UdsKernelProcess* p : gProcs_) {
        if (p && strcmp(p->name_, name) == 0) {
            p->addRef();
            return p;
        }
    }
    return nullptr;
}

char** TAM_UdsKernelProcess::get_kernel_names()
{
    size_t n = gProcs_.size();
    char** names = static_cast<char**>(calloc(n + 1, sizeof(char*)));
    if (!names)
        return nullptr;
    for (size_t i = 0; i < n; ++i) {
        names[i] = copyText(gProcs_[i]->name_);
        if (!names[i]) {
            for (size_t j = 0; j < i; ++j)
                free(names[j]);
            free(names);
            return nullptr;
        }
    }
    return names;
}

// ---- Input ---------------------------------------------------------------------

bool TAM_UdsKernelProcess::read_and_dispatch()
{
    char buf[1024];
    // Never blocks: a front end that calls in without a readable socket
    // gets nothing instead of a wait for the kernel.
    ssize_t n = recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
    if (n <= 0) {
        // Closed by the kernel or failed: nothing to dispatch, now or
        // later. The socket stays open (reading it again gives 0 at once)
        // but leaves the wait set, where it would be readable for ever.
        if (n == 0 || (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK)) {
            closed_ = true;
            FD_CLR(fd_, &gSelectSet_);
            end_stream(TAM_KERNEL_CLOSED);
            try_reap();
        }
        return true;
    }
    ++dispatching_;
    bool ok = msgParser_.saveParse(buf, static_cast<int>(n));
    --dispatching_;
    // A failed chunk ends the stream if a message crossed a bound or expat
    // found the input malformed; a handler that threw fails it too, and
    // the stream goes on.
    if (!ok && endState_ == TAM_KERNEL_RUNNING) {
        if (over_limit())
            end_stream(TAM_KERNEL_OVER_LIMIT);
        else if (msgParser_.errorCode() != XML_ERROR_NONE)
            end_stream(TAM_KERNEL_MALFORMED);
        if (endState_ != TAM_KERNEL_RUNNING)
            try_reap();
    }
    if (dispatching_ == 0 && doomed_) {
        delete this;
        return false;
    }
    return true;
}

void TAM_UdsKernelProcess::end_stream(int state)
{
    if (endState_ == TAM_KERNEL_RUNNING)
        endState_ = state;
}

namespace {

enum class Sent { All, Failed, TimedOut };

// Writes all len bytes to s. The common case is one send; only when the
// socket is full does it wait, with poll, and never longer in all than the
// send time-out. Signals neither end it nor make it report a part as the
// whole.
Sent sendAll(int s, const char* data, std::size_t len, std::size_t& done)
{
#ifdef MSG_NOSIGNAL
    const int flags = MSG_NOSIGNAL | MSG_DONTWAIT;
#else
    const int flags = MSG_DONTWAIT;
#endif
    long long end = -1; // set at the first wait
    done = 0;
    while (done < len) {
        const ssize_t n = send(s, data + done, len - done, flags);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK))
            return Sent::Failed;
        if (end < 0)
            end = nowMs() + TAM_Limits::get(TAM_LIMIT_SEND_TIMEOUT_MS);
        const long long left = end - nowMs();
        if (left <= 0)
            return Sent::TimedOut;
        pollfd p = {s, POLLOUT, 0};
        poll(&p, 1, left < 1000000000 ? static_cast<int>(left) : 1000000000);
    }
    return Sent::All;
}

} // namespace

int TAM_UdsKernelProcess::send_request(const void* data, std::size_t len)
{
    if (fd_ < 0 || cut_)
        return 0;
    std::size_t done = 0;
    const Sent r = sendAll(fd_, static_cast<const char*>(data), len, done);
    if (r == Sent::All)
        return 1;
    if (r == Sent::TimedOut && done > 0) {
        // The kernel holds the start of a request it will never see end;
        // anything sent after it would be read as its continuation.
        cut_ = true;
        shutdown(fd_, SHUT_WR);
        end_stream(TAM_KERNEL_UNRESPONSIVE);
    }
    return 0;
}

void TAM_UdsKernelProcess::try_reap()
{
    if (pid_ <= 0 || reaped_)
        return;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
        reaped_ = true;
        exitStatus_ = status;
    }
}

int TAM_UdsKernelProcess::kernel_state() const
{
    return quitting_ ? TAM_KERNEL_QUIT : endState_;
}

int TAM_UdsKernelProcess::exit_status(int* status)
{
    try_reap();
    if (!reaped_)
        return 0;
    if (status)
        *status = exitStatus_;
    return 1;
}

void TAM_UdsKernelProcess::process_input()
{
    if (fd_ >= 0)
        read_and_dispatch();
}

TAM_UdsKernelProcess* TAM_UdsKernelProcess::still_registered(TAM_UdsKernelProcess* p,
                                                             uint64_t serial)
{
    for (TAM_UdsKernelProcess* q : gProcs_) {
        // The serial is read only from registered, hence live, objects.
        if (q == p)
            return q->serial_ == serial ? q : nullptr;
    }
    return nullptr;
}

void TAM_UdsKernelProcess::handle_input(int wait)
{
    static fd_set read_set;
    if (gMaxFd_ < 0)
        return;
    read_set = gSelectSet_;
    timeval poll = {0, 0};
    int ready = select(gMaxFd_ + 1, &read_set, nullptr, nullptr, wait ? nullptr : &poll);
    if (ready <= 0)
        return;

    // Handlers run during the walk and may create and destroy connections
    // and processes, so the walk goes over a snapshot and looks each entry
    // up again before touching it.
    Snapshot snapshot;
    try {
        snapshot.entries.reserve(gProcs_.size());
        for (TAM_UdsKernelProcess* p : gProcs_)
            snapshot.entries.emplace_back(p, p ? p->serial_ : 0);
    } catch (...) {
        return;
    }

    bool someQuit = false;
    for (const Entry& entry : snapshot.entries) {
        TAM_UdsKernelProcess* p = still_registered(entry.first, entry.second);
        if (!p || p->fd_ < 0 || !FD_ISSET(p->fd_, &read_set))
            continue;
        if (!p->read_and_dispatch())
            continue;
        if (p->quitting_)
            someQuit = true;
    }

    while (someQuit) {
        TAM_UdsKernelProcess* quitter = nullptr;
        for (TAM_UdsKernelProcess* p : gProcs_) {
            if (p && p->quitting_) {
                quitter = p;
                break;
            }
        }
        if (!quitter)
            break;
        unregister(quitter);
        quitter->release();
    }
}

void TAM_UdsKernelProcess::read_input(int fd)
{
    TAM_UdsKernelProcess* p = nullptr;
    for (TAM_UdsKernelProcess* q : gProcs_) {
        if (q && q->fd_ >= 0 && q->fd_ == fd) {
            p = q;
            break;
        }
    }
    if (!p)
        return;
    if (!p->read_and_dispatch())
        return;
    if (p->quitting_) {
        unregister(p);
        p->release();
    }
}
