// Client connections over a kernel process's socket.
#include "uds/TAM_UdsKernel.h"

#include <sys/types.h>
#include <sys/wait.h>

#include "uds/TAM_UdsKernelProcess.h"

TAM_UdsKernel::TAM_UdsKernel(TAM_UdsKernelProcess* proc) : proc_(proc), clientId_(-1)
{
}

TAM_UdsKernel::~TAM_UdsKernel()
{
    if (clientId_ >= 0)
        TAM_XmsgKernel::send_quit();

    TAM_UdsKernelProcess* proc = proc_;
    proc_ = nullptr;
    if (!proc)
        return;
    // A kernel already reaped has nothing left to wait for (and its pid may
    // have been given to another process since).
    int pid = proc->is_reaped() ? 0 : proc->get_pid();
    const bool stayAlive = proc->stays_alive();
    proc->remove_kernel(this);
    // A quitting process still registered holds one reference of its own,
    // which the input loop gives back; it is not a client's.
    bool quitRef = false;
    if (proc->is_quitting()) {
        for (TAM_UdsKernelProcess* p : TAM_UdsKernelProcess::gProcs_) {
            if (p == proc) {
                quitRef = true;
                break;
            }
        }
    }
    long left = proc->release(); // may destroy proc
    bool lastClient = left <= 0 || (quitRef && left <= 1);
    // Only the last client waits for a kernel launched here: while other
    // clients still use it the kernel keeps running, and waiting for it
    // would block this caller for as long as they do.
    if (pid == 0 || !lastClient)
        return;
    if (stayAlive) {
        // It is meant to outlive this program: neither waited for nor
        // ended. Only one that has already gone is reaped.
        waitpid(pid, nullptr, WNOHANG);
        return;
    }
    // A kernel that ignores the end of its connection is ended.
    TAM_UdsKernelProcess::end_child(pid, true);
}

int TAM_UdsKernel::set_kernel_name(const char* name)
{
    return proc_ ? proc_->set_kernel_name(name) : 0;
}

const char* TAM_UdsKernel::get_kernel_name() const
{
    return proc_ ? proc_->get_kernel_name() : nullptr;
}

int TAM_UdsKernel::get_client_fd() const
{
    return proc_ ? proc_->get_fd() : -1;
}

const char* TAM_UdsKernel::get_listen_path() const
{
    return proc_ ? proc_->get_listen_path() : nullptr;
}

int TAM_UdsKernel::get_kernel_state() const
{
    return proc_ ? proc_->kernel_state() : TAM_KERNEL_CLOSED;
}

int TAM_UdsKernel::get_kernel_exit_status(int* status)
{
    return proc_ ? proc_->exit_status(status) : 0;
}

void TAM_UdsKernel::xbegin(const char* name, unsigned long len)
{
    status_ = stream_.clear();
    if (status_ != TKstream::Ok)
        return;
    if (!proc_) {
        status_ = TKstream::Error;
        return;
    }
    TAM_XmsgKernel::xbegin(name, len);
}

int TAM_UdsKernel::xend()
{
    if (!TAM_XmsgKernel::xend() || !proc_)
        return 0;
    return proc_->send_request(stream_.data(), stream_.length());
}

int TAM_UdsKernel::send_new_client(const char* name, const char* frame, long features,
                                   unsigned char longfmt, unsigned char floatfmt,
                                   unsigned char coding)
{
    // A client announces itself once: a second announcement would have the
    // kernel assign it a second id.
    if (!proc_ || clientId_ >= 0 || proc_->is_pending(this))
        return 0;
    if (!name)
        name = "";
    if (!frame)
        frame = "";
    if (!TAM_XmsgKernel::send_new_client(name, frame, features, longfmt, floatfmt, coding) ||
        status_ != TKstream::Ok)
        return 0;
    if (!proc_->send_request(stream_.data(), stream_.length()))
        return 0;
    // Whoever asked for it, the kernel outlives its launcher.
    if (features & TAM_FEATURE_STAY_ALIVE)
        proc_->set_stay_alive();
    return proc_->add_kernel(this);
}
