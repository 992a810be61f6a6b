// The kernel-connection object: one per client of a kernel. It carries the
// table of handlers that the message dispatch calls and the request
// operations, which the XML request writer implements and the socket
// transport completes.
#ifndef TAMIX_KERNEL_TAM_KERNELIMPL_H
#define TAMIX_KERNEL_TAM_KERNELIMPL_H

#include "tamix/tamix.h"

class TAM_KernelImpl {
public:
    TAM_KernelImpl();
    virtual ~TAM_KernelImpl();

    TAM_KernelImpl(const TAM_KernelImpl&) = delete;
    TAM_KernelImpl& operator=(const TAM_KernelImpl&) = delete;

    // The client's id as assigned by the kernel; negative while unknown.
    virtual long get_client_id() const = 0;
    virtual int set_kernel_name(const char* name) = 0;
    virtual const char* get_kernel_name() const = 0;
    virtual int get_client_fd() const;
    virtual const char* get_listen_path() const;

    // Requests: nonzero for success.
    virtual int send_new_client(const char* name, const char* frame, long features,
                                unsigned char longfmt, unsigned char floatfmt,
                                unsigned char coding) = 0;
    virtual int send_init(long argc, const char** argv) = 0;
    virtual int send_cmd(void* cookie, const char* cmd, long flags, const char* format) = 0;
    virtual int send_cmd_data(void* cookie, const TAM_DataTAG* data, long flags,
                              const char* format) = 0;
    virtual int send_completion_wanted(const char* text) = 0;
    virtual int send_dbg_cmd(unsigned char cmd, const char* fname, long fpos, const char* expr) = 0;
    virtual int send_system_result(long result) = 0;
    virtual int send_input(int canceled, const char* text) = 0;
    virtual int send_textinput(int canceled, const char* text) = 0;
    virtual int send_call_result(int error, const TAM_DataTAG* data) = 0;
    virtual int send_textwidth(long width) = 0;
    virtual int send_pretty_print(int on) = 0;
    virtual int send_abbreviate_output(int on) = 0;
    virtual int send_format(const char* name, const char* format) = 0;
    virtual int send_status_wanted() = 0;
    virtual int send_stop() = 0;
    virtual int send_quit() = 0;

    // Puts every slot back to its initial state (the six defaults, null
    // elsewhere) and forgets the client data, so that no front-end handler
    // runs on a connection that is being torn down.
    void reset_message_handler();

    // The handler table, in slot order. Null switches a message off.
    TAM_OnInitWanted on_init_wanted;
    TAM_OnKernelReady on_kernel_ready;
    TAM_OnOutput on_output;
    TAM_OnOutputData on_output_data;
    TAM_OnFinished on_finished;
    TAM_OnCompleteCmd on_complete_cmd;
    TAM_OnInputWanted on_input_wanted;
    TAM_OnCallback on_callback;
    TAM_OnHelp on_help;
    TAM_OnSystem on_system;
    TAM_OnFrameChanged on_frame_changed;
    TAM_OnTextwidthChanged on_textwidth_changed;
    TAM_OnPrettyPrintChanged on_pretty_print_changed;
    TAM_OnAbbreviateOutputChanged on_abbreviate_output_changed;
    TAM_OnFormatChanged on_format_changed;
    TAM_OnSelectFormat on_select_format;
    TAM_OnStatus on_status;
    TAM_OnInputCompletion on_input_completion;
    TAM_OnPlotResultFile on_plot_result_file;
    TAM_OnDbgCmdWanted on_dbg_cmd_wanted;
    TAM_OnDbgInfo on_dbg_info;
    TAM_OnDisplayList on_display_list;
    TAM_OnBreakpointList on_breakpoint_list;
    TAM_OnCallStack on_call_stack;
    TAM_OnReset on_reset;
    TAM_OnQuit on_quit;

    // Belongs to the front end; the library never reads it.
    void* client_data_;
};

#endif
