// One kernel process that this program talks to over one Unix-domain stream
// socket: launched here, or joined by the path of its listening socket.
// Several clients (TAM_UdsKernel) may share it; the kernel tells them apart
// by the client ids it assigns. The object owns the socket and the parser of
// the kernel's message stream and is itself that parser's handler.
//
// All live process objects are listed in gProcs_ (which holds no
// references); the input loop waits on gSelectSet_.
#ifndef TAMIX_UDS_TAM_UDSKERNELPROCESS_H
#define TAMIX_UDS_TAM_UDSKERNELPROCESS_H

#include <sys/select.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "xmsg/TAM_XmsgParser.h"
#include "xmsg/TAM_XmsgParserHandler.h"

class TAM_UdsKernel;

class TAM_UdsKernelProcess : public TAM_XmsgParserHandler {
public:
    // Launches kernel_path as "<file name> -X <socket path>", waits for its
    // SIGUSR1 (or its death) and connects. Null on any failure.
    static TAM_UdsKernelProcess* new_proc(const char* kernel_path, const char* name);
    // Joins a kernel that listens at listen_path. Null on failure.
    static TAM_UdsKernelProcess* connect_proc(const char* listen_path, const char* name);
    // Creates a client socket bound to a fresh file under /var/tmp and
    // connects it to listen_path, where a process of this user must listen.
    // The socket, or the failing step's code: -1 socket, -2 mkstemp, -3
    // bind, -4 chmod, -5 connect, -6 the peer runs as another user (or its
    // credentials cannot be read).
    static int client_connect(const char* listen_path);
    // The first registered process with this name, with one more reference.
    static TAM_UdsKernelProcess* get_proc(const char* name);
    // malloc'd null-terminated array of malloc'd copies of all registered
    // names, in registry order; null if an allocation failed.
    static char** get_kernel_names();
    // Shuts fd down both ways and closes it; nothing for a negative fd.
    static void hang_up(int fd);
    // Ends a child kernel and reaps it: waits up to the delete grace for it
    // to end by itself (when waitFirst), then sends SIGTERM and waits up to
    // the grace again, then SIGKILL. A pid already reaped elsewhere is
    // left alone.
    static void end_child(int pid, bool waitFirst);

    // Waits for (wait != 0) or polls (wait == 0) all sockets, reads at most
    // 1024 bytes from each readable one and dispatches what they complete;
    // then drops the processes whose kernel quit. Not re-entrant.
    static void handle_input(int wait);
    // The same for the one process whose socket is fd.
    static void read_input(int fd);

    TAM_UdsKernelProcess(const char* name, int fd, const char* listen_path, int pid);
    ~TAM_UdsKernelProcess() override;

    void addRef();
    // The count left; at 0 or below the object is gone (and 0 is returned).
    long release();

    const char* get_kernel_name() const { return name_; }
    int set_kernel_name(const char* name);
    int get_fd() const { return fd_; }
    const char* get_listen_path() const { return listenPath_; }
    int get_pid() const { return pid_; }
    bool is_quitting() const { return quitting_; }

    // What has become of the kernel: one of the TAM_KERNEL_... values. The
    // first thing that ends the stream (quit, end or failure of the socket,
    // malformed input, a message over a bound, a request cut short) stays.
    int kernel_state() const;
    // Sends len bytes of one request whole: 1 when all went out, 0 when
    // the socket failed or the kernel did not take them within the send
    // time-out. A request cut short that way leaves the stream unusable:
    // the sending side is shut down and every later request fails at once.
    int send_request(const void* data, std::size_t len);
    // A client announced that the kernel is to outlive it: nobody waits
    // for this kernel or ends it.
    void set_stay_alive() { stayAlive_ = true; }
    bool stays_alive() const { return stayAlive_; }
    // 1 and *status (may be null) once a kernel launched here has ended and
    // been reaped here; tries a reap without waiting when it has not.
    int exit_status(int* status);
    // True once the launched kernel has been reaped: nothing left to wait for.
    bool is_reaped() const { return reaped_; }

    // Puts a client that has announced itself into the pending list.
    int add_kernel(TAM_UdsKernel* kernel);
    // Forgets a client: from the pending list while it has no id (1 even if
    // it was not there), else from the id map (0 if it was not there).
    int remove_kernel(TAM_UdsKernel* kernel);
    // True while the client waits in the pending list.
    bool is_pending(const TAM_UdsKernel* kernel) const;

    // The client with this id; a new id binds the earliest pending client.
    TAM_KernelImpl* kernel(long clientId) override;
    // The kernel quits: every client's on_quit runs, the socket is closed.
    void onQuit() override;

    // One read from this process's socket, dispatched. Nothing else.
    void process_input();

    static std::vector<TAM_UdsKernelProcess*> gProcs_;
    static fd_set gSelectSet_;
    static int gMaxFd_;

private:
    // Appends to gProcs_ and adds the socket to gSelectSet_. On failure the
    // object (or, without one, the socket) is disposed of and null returned.
    static TAM_UdsKernelProcess* register_proc(const char* name, int fd, const char* listen_path,
                                               int pid);
    // The registered process that was at index i of a snapshot, if it is
    // still the same object (same serial), else null.
    static TAM_UdsKernelProcess* still_registered(TAM_UdsKernelProcess* p, uint64_t serial);
    static void unregister(TAM_UdsKernelProcess* p);
    // Closes the socket and takes it out of gSelectSet_.
    void close_socket();
    // One read of at most 1024 bytes, fed to the parser. False when the
    // object was destroyed during the dispatch (it must not be touched).
    bool read_and_dispatch();
    // Reaps a launched kernel that has ended, without waiting.
    void try_reap();
    // Records what ended the stream, unless something did before.
    void end_stream(int state);

    int fd_;
    TAM_XmsgParser msgParser_;
    long refCount_;
    char* name_;
    char* listenPath_;
    bool quitting_;
    int pid_;
    std::map<long, TAM_UdsKernel*> kernels_;
    std::vector<TAM_UdsKernel*> pending_;

    // Unique per object over the life of the program, so that a walk over a
    // snapshot of gProcs_ can tell a new object at a recycled address from
    // the one it saw.
    uint64_t serial_;
    // Depth of dispatches running on this object's parser; while it is not
    // 0 the object must not be destroyed, so a release to 0 only closes the
    // socket and leaves the registry, and the deletion waits for the
    // dispatch to end.
    int dispatching_;
    bool doomed_;

    // What ended the kernel's stream (TAM_KERNEL_RUNNING while nothing
    // did). The input loop goes on reading a malformed stream, which may
    // still hold bytes; a socket at its end (closed_) leaves the set that
    // the loop waits on, so that a wait does not return at once for ever.
    int endState_;
    bool closed_;
    // The sending side was shut down after a request was cut short.
    bool cut_;
    bool stayAlive_;
    // A launched kernel reaped by try_reap, and its waitpid status.
    bool reaped_;
    int exitStatus_;
};

#endif
