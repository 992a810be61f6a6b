// One client of one kernel process: the connection object that front ends
// hold. Each request is written into the connection's own memory stream and
// sent, once complete, in one piece over the process's socket. Several
// connections may share one process; each holds one reference to it.
#ifndef TAMIX_UDS_TAM_UDSKERNEL_H
#define TAMIX_UDS_TAM_UDSKERNEL_H

#include "support/TKT_stream.h"
#include "xmsg/TAM_XmsgKernel.h"

class TAM_UdsKernelProcess;

class TAM_UdsKernel : public TAM_XmsgKernel {
public:
    // Takes over the caller's reference to proc (may be null: such a
    // connection fails every request).
    explicit TAM_UdsKernel(TAM_UdsKernelProcess* proc);
    // Sends the client's quit request when it has an id, detaches from the
    // process and, when this was the last client of a kernel launched by
    // this library, ends that kernel: waits the delete grace for it, then
    // SIGTERM, then SIGKILL. A kernel that a client asked to stay alive is
    // left running.
    ~TAM_UdsKernel() override;

    long get_client_id() const override { return clientId_; }
    int set_kernel_name(const char* name) override;
    const char* get_kernel_name() const override;
    int get_client_fd() const override;
    const char* get_listen_path() const override;
    // What has become of the kernel (TAM_KERNEL_...); CLOSED without a
    // process.
    int get_kernel_state() const;
    // 1 and *status once a kernel launched here has ended and been reaped.
    int get_kernel_exit_status(int* status);

    // Writes the announcement and sends it, then waits in the process's
    // pending list for the kernel to give this client an id. Refused for a
    // client that has an id or is already waiting for one.
    int send_new_client(const char* name, const char* frame, long features, unsigned char longfmt,
                        unsigned char floatfmt, unsigned char coding) override;

    // Called by the process when it binds this client to an id.
    void set_client_id(long id) { clientId_ = id; }

protected:
    TKstream* xstream() override { return &stream_; }
    // Empties the stream, then opens the element; without a process the
    // whole request is a no-op that fails.
    void xbegin(const char* name, unsigned long len) override;
    // Finishes the request and sends it whole (TAM_UdsKernelProcess::
    // send_request).
    int xend() override;

private:
    TAM_UdsKernelProcess* proc_;
    long clientId_;
    TKgrowingStream stream_;
};

#endif
