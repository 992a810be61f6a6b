// Flat entry points of the socket transport: creating and joining kernels,
// the names of the known kernel processes, and the input loop.
#include <new>

#include "tamix/tamix.h"
#include "uds/TAM_UdsKernel.h"
#include "uds/TAM_UdsKernelProcess.h"

namespace {

// Creates a connection that takes over the caller's reference to proc.
TAM_KernelImpl* newConnection(TAM_UdsKernelProcess* proc)
{
    if (!proc)
        return nullptr;
    TAM_UdsKernel* kernel = new (std::nothrow) TAM_UdsKernel(proc);
    if (!kernel) {
        proc->release(); // destroys a process that nobody else holds
        return nullptr;
    }
    return kernel;
}

} // namespace

extern "C" {

TAM_KernelImpl* TAM_new_uds_kernel(const char* kernel_path, const char* name)
{
    if (!kernel_path)
        return nullptr;
    try {
        return newConnection(TAM_UdsKernelProcess::new_proc(kernel_path, name));
    } catch (...) {
        return nullptr;
    }
}

TAM_KernelImpl* TAM_connect_uds_kernel(const char* listen_path, const char* name)
{
    if (!listen_path)
        return nullptr;
    try {
        return newConnection(TAM_UdsKernelProcess::connect_proc(listen_path, name));
    } catch (...) {
        return nullptr;
    }
}

TAM_KernelImpl* TAM_get_uds_kernel(const char* kernel_path, const char* name, int launch)
{
    TAM_UdsKernelProcess* proc = TAM_UdsKernelProcess::get_proc(name);
    if (proc)
        return newConnection(proc);
    return launch ? TAM_new_uds_kernel(kernel_path, name) : nullptr;
}

char** TAM_get_uds_kernel_names(void)
{
    return TAM_UdsKernelProcess::get_kernel_names();
}

int TAM_get_kernel_state(TAM_KernelImpl* kernel)
{
    if (!kernel)
        return -1;
    // Every connection a front end holds is a socket connection; anything
    // else has no kernel process to report on.
    const TAM_UdsKernel* k = dynamic_cast<const TAM_UdsKernel*>(kernel);
    return k ? k->get_kernel_state() : TAM_KERNEL_CLOSED;
}

int TAM_get_kernel_exit_status(TAM_KernelImpl* kernel, int* status)
{
    TAM_UdsKernel* k = dynamic_cast<TAM_UdsKernel*>(kernel);
    return k ? k->get_kernel_exit_status(status) : 0;
}

void TAM_handle_uds_input(int wait)
{
    TAM_UdsKernelProcess::handle_input(wait);
}

void TAM_read_uds_input(int fd)
{
    TAM_UdsKernelProcess::read_input(fd);
}

} // extern "C"
