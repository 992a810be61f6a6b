// Kernel processes: launch, join, registry, client ids, quit, input loop.
#include "uds/TAM_UdsKernelProcess.h"

#include <signal.h>
#include <stddef.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

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
    // (TAM_UdsKernel::send_bytes), with the same effect.

    char path[sizeof kClientTemplate];
    memcpy(path, kClientTemplate, sizeof path);
    int tmpFd = mkstemp(path);
    if (tmpFd < 0)
        return failStep(-2, s);

    sockaddr_un addr;
    socklen_t len;
    unlink(path);
    if (!fillAddress(addr, len, path) || bind(s, reinterpret_cast<sockaddr*>(&addr), len) < 0)
        return failStep(-3, s, tmpFd);
    close(tmpFd);
    if (chmod(path, 0700) < 0)
        return failStep(-4, s);

    if (!listen_path || !fillAddress(addr, len, listen_path) ||
        connect(s, reinterpret_cast<sockaddr*>(&addr), len) < 0) {
        if (!listen_path)
            errno = EINVAL;
        return failStep(-5, s);
    }
    return s;
}

TAM_UdsKernelProcess* TAM_UdsKernelProcess::new_proc(const char* kernel_path, const char* name)
{
    if (!kernel_path)
        return nullptr;

    char path[sizeof kKernelTemplate];
    memcpy(path, kKernelTemplate, sizeof path);
    int tmpFd = mkstemp(path);
    if (tmpFd < 0)
        return nullptr;
    // Only the unique name is wanted: the kernel creates its socket there.
    unlink(path);
    close(tmpFd);

    gKernelReady = 0;
    sighandler_t oldUsr1 = signal(SIGUSR1, kernel_ready);
    if (oldUsr1 == SIG_ERR)
        return nullptr;
    childDied = 0;
    sighandler_t oldChld = signal(SIGCHLD, child_died);
    if (oldChld == SIG_ERR) {
        signal(SIGUSR1, oldUsr1);
        return nullptr;
    }

    pid_t pid = fork();
    if (pid < 0) {
        signal(SIGUSR1, oldUsr1);
        signal(SIGCHLD, oldChld);
        return nullptr;
    }
    if (pid == 0) {
        const char* base = strrchr(kernel_path, '/');
        base = base ? base + 1 : kernel_path;
        execl(kernel_path, base, "-X", path, static_cast<char*>(nullptr));
        // _exit, not exit: the child must not flush the parent's stdio
        // buffers or run its exit handlers a second time.
        _exit(1);
    }

    // Wait for readiness or death. The empty mask lets both signals in
    // during pselect; a signal that comes just before a wait is noticed at
    // the end of that 50 ms step at the latest.
    sigset_t noSignals;
    sigemptyset(&noSignals);
    bool died = false;
    for (;;) {
        if (gKernelReady)
            break;
        if (childDied) {
            // SIGCHLD may come from another child of this program: only
            // the kernel's own end counts. The flag is cleared before the
            // test so that the kernel's SIGCHLD cannot be lost in between.
            childDied = 0;
            pid_t r = waitpid(pid, nullptr, WNOHANG);
            if (r == pid || (r < 0 && errno == ECHILD)) {
                died = true;
                break;
            }
        }
        timespec step = {0, kWaitStepNs};
        pselect(0, nullptr, nullptr, nullptr, &step, &noSignals);
    }
    signal(SIGUSR1, oldUsr1);
    signal(SIGCHLD, oldChld);
    if (died)
        return nullptr; // already reaped above

    int fd = client_connect(path);
    if (fd < 0)
        return nullptr; // the kernel is left running
    return register_proc(name, fd, path, pid);
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

// ---- The object ----------------------------------------------------------------

TAM_UdsKernelProcess::TAM_UdsKernelProcess(const char* name, int fd, const char* listen_path,
                                           int pid)
    : fd_(fd), msgParser_(this), refCount_(1), name_(nullptr), listenPath_(nullptr),
      quitting_(false), pid_(pid), serial_(gNextSerial++), dispatching_(0), doomed_(false),
      closed_(false), malformed_(false), reaped_(false), exitStatus_(0)
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
    ssize_t n = read(fd_, buf, sizeof buf);
    if (n <= 0) {
        // Closed by the kernel or failed: nothing to dispatch. The socket
        // stays watched; the state tells the front end to stop.
        if (n == 0 || (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK)) {
            closed_ = true;
            try_reap();
        }
        return true;
    }
    ++dispatching_;
    bool ok = msgParser_.saveParse(buf, static_cast<int>(n));
    --dispatching_;
    // A failed chunk is malformed input only if expat says so; a handler
    // that threw fails it too, and the stream goes on.
    if (!ok && !malformed_ && msgParser_.errorCode() != XML_ERROR_NONE) {
        malformed_ = true;
        try_reap();
    }
    if (dispatching_ == 0 && doomed_) {
        delete this;
        return false;
    }
    return true;
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
    if (quitting_)
        return TAM_KERNEL_QUIT;
    if (malformed_)
        return TAM_KERNEL_MALFORMED;
    return closed_ ? TAM_KERNEL_CLOSED : TAM_KERNEL_RUNNING;
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
