// The flat request wrappers, deletion, the queries, and the functions kept
// only so that front ends written for other transports still link.
//
// No exception of a request crosses this interface: a null handle gives 0
// and any exception turns into a result of 0.
#include <cstdlib>

#include "kernel/TAM_KernelImpl.h"

#define TAM_GUARDED(call)    \
    if (!kernel)             \
        return 0;            \
    try {                    \
        return kernel->call; \
    } catch (...) {          \
        return 0;            \
    }

extern "C" {

int TAM_send_new_client(TAM_KernelImpl* kernel, const char* name, const char* frame, long features)
{
    // The formats every simple front end gets: long numbers as text, floats
    // as IEEE, identifier coding.
    TAM_GUARDED(send_new_client(name, frame, features, TAM_LONGFMT_TEXT, TAM_FLOATFMT_IEEE,
                                TAM_CODING_IDENT))
}

int TAM_send_new_client_ext(TAM_KernelImpl* kernel, const char* name, const char* frame,
                            long features, unsigned char longfmt, unsigned char floatfmt,
                            unsigned char coding)
{
    TAM_GUARDED(send_new_client(name, frame, features, longfmt, floatfmt, coding))
}

int TAM_send_init(TAM_KernelImpl* kernel, long argc, const char** argv)
{
    TAM_GUARDED(send_init(argc, argv))
}

int TAM_send_cmd(TAM_KernelImpl* kernel, void* cookie, const char* cmd)
{
    TAM_GUARDED(send_cmd(cookie, cmd, 0, nullptr))
}

int TAM_send_cmd_ext(TAM_KernelImpl* kernel, void* cookie, const char* cmd, long flags,
                     const char* format)
{
    TAM_GUARDED(send_cmd(cookie, cmd, flags, format))
}

int TAM_send_cmd_data(TAM_KernelImpl* kernel, void* cookie, const TAM_DataTAG* data, long flags,
                      const char* format)
{
    TAM_GUARDED(send_cmd_data(cookie, data, flags, format))
}

int TAM_send_completion_wanted(TAM_KernelImpl* kernel, const char* text)
{
    TAM_GUARDED(send_completion_wanted(text))
}

int TAM_send_dbg_cmd(TAM_KernelImpl* kernel, unsigned char cmd, const char* fname, long fpos,
                     const char* expr)
{
    TAM_GUARDED(send_dbg_cmd(cmd, fname, fpos, expr))
}

int TAM_send_system_result(TAM_KernelImpl* kernel, long result)
{
    TAM_GUARDED(send_system_result(result))
}

int TAM_send_input(TAM_KernelImpl* kernel, int canceled, const char* text)
{
    TAM_GUARDED(send_input(canceled, text))
}

int TAM_send_textinput(TAM_KernelImpl* kernel, int canceled, const char* text)
{
    TAM_GUARDED(send_textinput(canceled, text))
}

int TAM_send_call_result(TAM_KernelImpl* kernel, int error, const TAM_DataTAG* data)
{
    TAM_GUARDED(send_call_result(error, data))
}

int TAM_send_textwidth(TAM_KernelImpl* kernel, long width)
{
    TAM_GUARDED(send_textwidth(width))
}

int TAM_send_pretty_print(TAM_KernelImpl* kernel, int on)
{
    TAM_GUARDED(send_pretty_print(on))
}

int TAM_send_abbreviate_output(TAM_KernelImpl* kernel, int on)
{
    TAM_GUARDED(send_abbreviate_output(on))
}

int TAM_send_format(TAM_KernelImpl* kernel, const char* name, const char* format)
{
    TAM_GUARDED(send_format(name, format))
}

int TAM_send_status_wanted(TAM_KernelImpl* kernel)
{
    TAM_GUARDED(send_status_wanted())
}

int TAM_send_stop(TAM_KernelImpl* kernel)
{
    TAM_GUARDED(send_stop())
}

int TAM_send_quit(TAM_KernelImpl* kernel)
{
    TAM_GUARDED(send_quit())
}

int TAM_set_kernel_name(TAM_KernelImpl* kernel, const char* name)
{
    TAM_GUARDED(set_kernel_name(name))
}

void TAM_delete_kernel(TAM_KernelImpl* kernel)
{
    if (!kernel)
        return;
    // No front-end handler may run on a connection that is being torn down.
    kernel->reset_message_handler();
    delete kernel;
}

void TAM_free(void* p)
{
    std::free(p);
}

long TAM_get_client_id(TAM_KernelImpl* kernel)
{
    return kernel ? kernel->get_client_id() : -1;
}

const char* TAM_get_kernel_name(TAM_KernelImpl* kernel)
{
    return kernel ? kernel->get_kernel_name() : nullptr;
}

int TAM_get_client_fd(TAM_KernelImpl* kernel)
{
    return kernel ? kernel->get_client_fd() : 0;
}

const char* TAM_get_listen_path(TAM_KernelImpl* kernel)
{
    return kernel ? kernel->get_listen_path() : nullptr;
}

const char* TAM_get_version(void)
{
    return TAMIX_VERSION_STRING;
}

// Kept for front ends written for other transports: there is no in-process
// kernel and no window-message transport here, so these do nothing.
TAM_KernelImpl* TAM_get_lib_kernel(void)
{
    return nullptr;
}

void TAM_exit_lib(void)
{
}

int TAM_set_event_handler(TAM_KernelImpl*, void*)
{
    return 0;
}

int TAM_set_fatal_exit_handler(void*)
{
    return 0;
}

TAM_KernelImpl* TAM_new_wmsg_kernel(const char*, const char*)
{
    return nullptr;
}

TAM_KernelImpl* TAM_get_wmsg_kernel(const char*, const char*, int)
{
    return nullptr;
}

char** TAM_get_wmsg_kernel_names(void)
{
    return nullptr;
}

} // extern "C"

#undef TAM_GUARDED
