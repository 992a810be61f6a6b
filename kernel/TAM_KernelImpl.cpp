// The handler table of a kernel connection: construction, reset, the six
// default handlers that answer the kernel when the front end registered
// nothing, and the flat setters and client-data functions.
#include "kernel/TAM_KernelImpl.h"

TAM_KernelImpl::TAM_KernelImpl()
{
    reset_message_handler();
}

TAM_KernelImpl::~TAM_KernelImpl() = default;

int TAM_KernelImpl::get_client_fd() const
{
    return 0;
}

const char* TAM_KernelImpl::get_listen_path() const
{
    return nullptr;
}

void TAM_KernelImpl::reset_message_handler()
{
    on_init_wanted = TAM_default_on_init_wanted;
    on_kernel_ready = nullptr;
    on_output = nullptr;
    on_output_data = nullptr;
    on_finished = nullptr;
    on_complete_cmd = nullptr;
    on_input_wanted = TAM_default_on_input_wanted;
    on_callback = TAM_default_on_callback;
    on_help = nullptr;
    on_system = TAM_default_on_system;
    on_frame_changed = nullptr;
    on_textwidth_changed = nullptr;
    on_pretty_print_changed = nullptr;
    on_abbreviate_output_changed = nullptr;
    on_format_changed = nullptr;
    on_select_format = TAM_default_on_select_format;
    on_status = nullptr;
    on_input_completion = nullptr;
    on_plot_result_file = nullptr;
    on_dbg_cmd_wanted = TAM_default_on_dbg_cmd_wanted;
    on_dbg_info = nullptr;
    on_display_list = nullptr;
    on_breakpoint_list = nullptr;
    on_call_stack = nullptr;
    on_reset = nullptr;
    on_quit = nullptr;
    client_data_ = nullptr;
}

// ---- Defaults --------------------------------------------------------------
// They run inside the message dispatch, so nothing may escape them (except
// from the debugger default, whose failure goes to the dispatch on purpose).

extern "C" void TAM_default_on_init_wanted(TAM_KernelImpl* kernel)
{
    if (!kernel)
        return;
    try {
        kernel->send_init(0, nullptr);
    } catch (...) {
    }
}

extern "C" void TAM_default_on_input_wanted(TAM_KernelImpl* kernel, void*, int text, const char*)
{
    if (!kernel)
        return;
    try {
        if (text)
            kernel->send_textinput(1, nullptr);
        else
            kernel->send_input(1, nullptr);
    } catch (...) {
    }
}

extern "C" void TAM_default_on_callback(TAM_KernelImpl* kernel, void*, const TAM_DataTAG*)
{
    if (!kernel)
        return;
    try {
        kernel->send_call_result(1, nullptr);
    } catch (...) {
    }
}

extern "C" void TAM_default_on_system(TAM_KernelImpl* kernel, const char*)
{
    if (!kernel)
        return;
    try {
        kernel->send_system_result(1);
    } catch (...) {
    }
}

extern "C" void TAM_default_on_select_format(TAM_KernelImpl* kernel, const char* type, long count,
                                             const char** formats)
{
    if (!kernel)
        return;
    try {
        // With nothing offered there is no format to pick, but the kernel is
        // waiting for an answer: reply with the offered type and an empty
        // format rather than leaving it stuck.
        const char* format = (count > 0 && formats) ? formats[0] : nullptr;
        kernel->send_format(type, format);
    } catch (...) {
    }
}

extern "C" void TAM_default_on_dbg_cmd_wanted(TAM_KernelImpl* kernel, void*)
{
    // Deliberately unguarded: a failure here reaches whoever called the
    // handler.
    kernel->send_dbg_cmd('q', nullptr, 0, nullptr);
}

// ---- Setters -----------------------------------------------------------------

#define TAM_SETTER(slot, type)                                                        \
    extern "C" void TAM_set_on_##slot##_handler(TAM_KernelImpl* kernel, type handler) \
    {                                                                                 \
        if (kernel)                                                                   \
            kernel->on_##slot = handler;                                              \
    }

// A null handler restores the default for the slots that have one.
#define TAM_SETTER_DEFAULT(slot, type)                                                \
    extern "C" void TAM_set_on_##slot##_handler(TAM_KernelImpl* kernel, type handler) \
    {                                                                                 \
        if (kernel)                                                                   \
            kernel->on_##slot = handler ? handler : TAM_default_on_##slot;            \
    }

TAM_SETTER_DEFAULT(init_wanted, TAM_OnInitWanted)
TAM_SETTER(kernel_ready, TAM_OnKernelReady)
TAM_SETTER(output, TAM_OnOutput)
TAM_SETTER(output_data, TAM_OnOutputData)
TAM_SETTER(finished, TAM_OnFinished)
TAM_SETTER(complete_cmd, TAM_OnCompleteCmd)
TAM_SETTER_DEFAULT(input_wanted, TAM_OnInputWanted)
TAM_SETTER_DEFAULT(callback, TAM_OnCallback)
TAM_SETTER(help, TAM_OnHelp)
TAM_SETTER_DEFAULT(system, TAM_OnSystem)
TAM_SETTER(frame_changed, TAM_OnFrameChanged)
TAM_SETTER(textwidth_changed, TAM_OnTextwidthChanged)
TAM_SETTER(pretty_print_changed, TAM_OnPrettyPrintChanged)
TAM_SETTER(abbreviate_output_changed, TAM_OnAbbreviateOutputChanged)
TAM_SETTER(format_changed, TAM_OnFormatChanged)
TAM_SETTER_DEFAULT(select_format, TAM_OnSelectFormat)
TAM_SETTER(status, TAM_OnStatus)
TAM_SETTER(input_completion, TAM_OnInputCompletion)
TAM_SETTER(plot_result_file, TAM_OnPlotResultFile)
TAM_SETTER_DEFAULT(dbg_cmd_wanted, TAM_OnDbgCmdWanted)
TAM_SETTER(dbg_info, TAM_OnDbgInfo)
TAM_SETTER(display_list, TAM_OnDisplayList)
TAM_SETTER(breakpoint_list, TAM_OnBreakpointList)
TAM_SETTER(call_stack, TAM_OnCallStack)
TAM_SETTER(reset, TAM_OnReset)
TAM_SETTER(quit, TAM_OnQuit)

#undef TAM_SETTER
#undef TAM_SETTER_DEFAULT

// ---- Client data -------------------------------------------------------------

extern "C" int TAM_set_client_data(TAM_KernelImpl* kernel, void* data)
{
    if (!kernel)
        return 0;
    kernel->client_data_ = data;
    return 1;
}

extern "C" void* TAM_get_client_data(TAM_KernelImpl* kernel)
{
    return kernel ? kernel->client_data_ : nullptr;
}
