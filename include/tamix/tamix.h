/* The flat interface of the Tamix kernel-client library.
 *
 * Usable from C and C++. A front end creates a connection to a kernel
 * (TAM_new_uds_kernel, TAM_connect_uds_kernel, TAM_get_uds_kernel),
 * registers handlers for the kernel's messages, announces itself with
 * TAM_send_new_client and then drives the input loop (TAM_handle_uds_input
 * or TAM_read_uds_input), during which the handlers are called.
 *
 * Conventions: a null handle gives a neutral result (0, -1 or null) and
 * does nothing; requests return 1 on success and 0 on failure and never let
 * an exception out. Texts handed to handlers belong to the library and are
 * valid only during the call. */
#ifndef TAMIX_TAMIX_H
#define TAMIX_TAMIX_H

#include <stdint.h>

/* The library's version. TAMIX_VERSION_NUMBER grows with every release
 * (major * 10000 + minor * 100 + patch), for compile-time checks. */
#define TAMIX_VERSION_MAJOR 0
#define TAMIX_VERSION_MINOR 1
#define TAMIX_VERSION_PATCH 0
#define TAMIX_VERSION_STRING "0.1.0"
#define TAMIX_VERSION_NUMBER \
    (TAMIX_VERSION_MAJOR * 10000 + TAMIX_VERSION_MINOR * 100 + TAMIX_VERSION_PATCH)

/* Marks the functions the shared library exports; everything else in it is
 * hidden. Define TAMIX_STATIC when linking the library's objects directly. */
#if defined(TAMIX_STATIC)
#define TAMIX_API
#elif defined(__GNUC__) && __GNUC__ >= 4
#define TAMIX_API __attribute__((visibility("default")))
#else
#define TAMIX_API
#endif

#ifdef __cplusplus
class TAM_KernelImpl;
extern "C" {
#else
typedef struct TAM_KernelImpl TAM_KernelImpl;
#endif

/* An mcode payload: bytes in the kernel's own coding of an expression, with
 * the name of that coding. Owns nothing. */
typedef struct TAM_DataTAG {
    const char* format;         /* protocol word, never converted */
    const unsigned char* data;  /* first payload byte */
    uint64_t length;            /* number of payload bytes */
} TAM_DataTAG;

/* Feature bits of TAM_send_new_client. */
enum {
    TAM_FEATURE_STAY_ALIVE        = 0x1,
    TAM_FEATURE_COMPLETE_COMMANDS = 0x2,
    TAM_FEATURE_CAN_DEBUG         = 0x4,
    TAM_FEATURE_CAN_LAZY_DEBUG    = 0x8,
    TAM_FEATURE_DEBUGGER_UI       = 0x10,
    TAM_FEATURE_CAN_PLOT          = 0x20,
    TAM_FEATURE_CAN_INPUT         = 0x400,
    TAM_FEATURE_CAN_TEXTINPUT     = 0x800,
    TAM_FEATURE_CAN_HELP          = 0x1000,
    TAM_FEATURE_CAN_HELP_DVI      = 0x2000,
    TAM_FEATURE_CAN_BROWSE_HELP   = 0x4000,
    TAM_FEATURE_CAN_EXEC_SYSTEM   = 0x8000,
    TAM_FEATURE_CAN_QUIT          = 0x10000,
    TAM_FEATURE_CAN_CALLBACK      = 0x20000,
    TAM_FEATURE_CAN_TYPESET       = 0x40000,
    TAM_FEATURE_CAN_PROTOCOL      = 0x80000
};

/* Number formats and codings of TAM_send_new_client_ext. */
enum {
    TAM_LONGFMT_TEXT = 2,
    TAM_LONGFMT_GMP = 3,
    TAM_FLOATFMT_IEEE = 1,
    TAM_FLOATFMT_TEXT = 2,
    TAM_CODING_FLAT = 0,
    TAM_CODING_REF = 0x1,
    TAM_CODING_PROP = 0x2,
    TAM_CODING_IDENT = 0x4
};

/* Flag bits of TAM_send_cmd_ext and TAM_send_cmd_data. */
enum { TAM_CMD_NO_HISTORY = 0x1 };

/* Handlers, one per kind of kernel message. "locale" texts have been
 * converted from UTF-8 into the locale's encoding. */
typedef void (*TAM_OnInitWanted)(TAM_KernelImpl* kernel);
typedef void (*TAM_OnKernelReady)(TAM_KernelImpl* kernel);
typedef void (*TAM_OnOutput)(TAM_KernelImpl* kernel, void* cookie, const char* type,
                             const char* format, const char* text);
typedef void (*TAM_OnOutputData)(TAM_KernelImpl* kernel, void* cookie, const char* type,
                                 const TAM_DataTAG* data);
typedef void (*TAM_OnFinished)(TAM_KernelImpl* kernel, void* cookie);
typedef void (*TAM_OnCompleteCmd)(TAM_KernelImpl* kernel, void* cookie);
typedef void (*TAM_OnInputWanted)(TAM_KernelImpl* kernel, void* cookie, int text,
                                  const char* prompt);
typedef void (*TAM_OnCallback)(TAM_KernelImpl* kernel, void* cookie, const TAM_DataTAG* data);
typedef void (*TAM_OnHelp)(TAM_KernelImpl* kernel, const char* value);
typedef void (*TAM_OnSystem)(TAM_KernelImpl* kernel, const char* value);
typedef void (*TAM_OnFrameChanged)(TAM_KernelImpl* kernel, const char* value);
typedef void (*TAM_OnTextwidthChanged)(TAM_KernelImpl* kernel, long value);
typedef void (*TAM_OnPrettyPrintChanged)(TAM_KernelImpl* kernel, int value);
typedef void (*TAM_OnAbbreviateOutputChanged)(TAM_KernelImpl* kernel, int value);
typedef void (*TAM_OnFormatChanged)(TAM_KernelImpl* kernel, const char* type, const char* format);
typedef void (*TAM_OnSelectFormat)(TAM_KernelImpl* kernel, const char* type, long count,
                                   const char** formats);
typedef void (*TAM_OnStatus)(TAM_KernelImpl* kernel, long used, long res, long sec);
typedef void (*TAM_OnInputCompletion)(TAM_KernelImpl* kernel, const char* list, const char* pref);
typedef void (*TAM_OnPlotResultFile)(TAM_KernelImpl* kernel, void* cookie, const char* name);
typedef void (*TAM_OnDbgCmdWanted)(TAM_KernelImpl* kernel, void* cookie);
typedef void (*TAM_OnDbgInfo)(TAM_KernelImpl* kernel, char cmd, const char* fname, long fpos,
                              const char* expr, long level, long depth);
typedef void (*TAM_OnDisplayList)(TAM_KernelImpl* kernel, long count, const char** names,
                                  const char** values);
typedef void (*TAM_OnBreakpointList)(TAM_KernelImpl* kernel, long count, const char** fnames,
                                     const long* fpos, const char** conds);
typedef void (*TAM_OnCallStack)(TAM_KernelImpl* kernel, long level, long count,
                                const char** fnames, const long* fpos, const char** procs);
typedef void (*TAM_OnReset)(TAM_KernelImpl* kernel);
typedef void (*TAM_OnQuit)(TAM_KernelImpl* kernel);

/* Default handlers: they answer the kernel when the front end has
 * registered nothing. */
TAMIX_API void TAM_default_on_init_wanted(TAM_KernelImpl* kernel);
TAMIX_API void TAM_default_on_input_wanted(TAM_KernelImpl* kernel, void* cookie, int text,
                                 const char* prompt);
TAMIX_API void TAM_default_on_callback(TAM_KernelImpl* kernel, void* cookie, const TAM_DataTAG* data);
TAMIX_API void TAM_default_on_system(TAM_KernelImpl* kernel, const char* value);
TAMIX_API void TAM_default_on_select_format(TAM_KernelImpl* kernel, const char* type, long count,
                                  const char** formats);
TAMIX_API void TAM_default_on_dbg_cmd_wanted(TAM_KernelImpl* kernel, void* cookie);

/* Handler setters. A null handler restores the default where there is one
 * and switches the message off elsewhere. */
TAMIX_API void TAM_set_on_init_wanted_handler(TAM_KernelImpl* kernel, TAM_OnInitWanted handler);
TAMIX_API void TAM_set_on_kernel_ready_handler(TAM_KernelImpl* kernel, TAM_OnKernelReady handler);
TAMIX_API void TAM_set_on_output_handler(TAM_KernelImpl* kernel, TAM_OnOutput handler);
TAMIX_API void TAM_set_on_output_data_handler(TAM_KernelImpl* kernel, TAM_OnOutputData handler);
TAMIX_API void TAM_set_on_finished_handler(TAM_KernelImpl* kernel, TAM_OnFinished handler);
TAMIX_API void TAM_set_on_complete_cmd_handler(TAM_KernelImpl* kernel, TAM_OnCompleteCmd handler);
TAMIX_API void TAM_set_on_input_wanted_handler(TAM_KernelImpl* kernel, TAM_OnInputWanted handler);
TAMIX_API void TAM_set_on_callback_handler(TAM_KernelImpl* kernel, TAM_OnCallback handler);
TAMIX_API void TAM_set_on_help_handler(TAM_KernelImpl* kernel, TAM_OnHelp handler);
TAMIX_API void TAM_set_on_system_handler(TAM_KernelImpl* kernel, TAM_OnSystem handler);
TAMIX_API void TAM_set_on_frame_changed_handler(TAM_KernelImpl* kernel, TAM_OnFrameChanged handler);
TAMIX_API void TAM_set_on_textwidth_changed_handler(TAM_KernelImpl* kernel, TAM_OnTextwidthChanged handler);
TAMIX_API void TAM_set_on_pretty_print_changed_handler(TAM_KernelImpl* kernel,
                                             TAM_OnPrettyPrintChanged handler);
TAMIX_API void TAM_set_on_abbreviate_output_changed_handler(TAM_KernelImpl* kernel,
                                                  TAM_OnAbbreviateOutputChanged handler);
TAMIX_API void TAM_set_on_format_changed_handler(TAM_KernelImpl* kernel, TAM_OnFormatChanged handler);
TAMIX_API void TAM_set_on_select_format_handler(TAM_KernelImpl* kernel, TAM_OnSelectFormat handler);
TAMIX_API void TAM_set_on_status_handler(TAM_KernelImpl* kernel, TAM_OnStatus handler);
TAMIX_API void TAM_set_on_input_completion_handler(TAM_KernelImpl* kernel, TAM_OnInputCompletion handler);
TAMIX_API void TAM_set_on_plot_result_file_handler(TAM_KernelImpl* kernel, TAM_OnPlotResultFile handler);
TAMIX_API void TAM_set_on_dbg_cmd_wanted_handler(TAM_KernelImpl* kernel, TAM_OnDbgCmdWanted handler);
TAMIX_API void TAM_set_on_dbg_info_handler(TAM_KernelImpl* kernel, TAM_OnDbgInfo handler);
TAMIX_API void TAM_set_on_display_list_handler(TAM_KernelImpl* kernel, TAM_OnDisplayList handler);
TAMIX_API void TAM_set_on_breakpoint_list_handler(TAM_KernelImpl* kernel, TAM_OnBreakpointList handler);
TAMIX_API void TAM_set_on_call_stack_handler(TAM_KernelImpl* kernel, TAM_OnCallStack handler);
TAMIX_API void TAM_set_on_reset_handler(TAM_KernelImpl* kernel, TAM_OnReset handler);
TAMIX_API void TAM_set_on_quit_handler(TAM_KernelImpl* kernel, TAM_OnQuit handler);

/* Client data: a value of the front end's that the library never reads. */
TAMIX_API int TAM_set_client_data(TAM_KernelImpl* kernel, void* data);
TAMIX_API void* TAM_get_client_data(TAM_KernelImpl* kernel);

/* Requests. */
TAMIX_API int TAM_send_new_client(TAM_KernelImpl* kernel, const char* name, const char* frame,
                        long features);
TAMIX_API int TAM_send_new_client_ext(TAM_KernelImpl* kernel, const char* name, const char* frame,
                            long features, unsigned char longfmt, unsigned char floatfmt,
                            unsigned char coding);
TAMIX_API int TAM_send_init(TAM_KernelImpl* kernel, long argc, const char** argv);
TAMIX_API int TAM_send_cmd(TAM_KernelImpl* kernel, void* cookie, const char* cmd);
TAMIX_API int TAM_send_cmd_ext(TAM_KernelImpl* kernel, void* cookie, const char* cmd, long flags,
                     const char* format);
TAMIX_API int TAM_send_cmd_data(TAM_KernelImpl* kernel, void* cookie, const TAM_DataTAG* data, long flags,
                      const char* format);
TAMIX_API int TAM_send_completion_wanted(TAM_KernelImpl* kernel, const char* text);
TAMIX_API int TAM_send_dbg_cmd(TAM_KernelImpl* kernel, unsigned char cmd, const char* fname, long fpos,
                     const char* expr);
TAMIX_API int TAM_send_system_result(TAM_KernelImpl* kernel, long result);
TAMIX_API int TAM_send_input(TAM_KernelImpl* kernel, int canceled, const char* text);
TAMIX_API int TAM_send_textinput(TAM_KernelImpl* kernel, int canceled, const char* text);
TAMIX_API int TAM_send_call_result(TAM_KernelImpl* kernel, int error, const TAM_DataTAG* data);
TAMIX_API int TAM_send_textwidth(TAM_KernelImpl* kernel, long width);
TAMIX_API int TAM_send_pretty_print(TAM_KernelImpl* kernel, int on);
TAMIX_API int TAM_send_abbreviate_output(TAM_KernelImpl* kernel, int on);
TAMIX_API int TAM_send_format(TAM_KernelImpl* kernel, const char* name, const char* format);
TAMIX_API int TAM_send_status_wanted(TAM_KernelImpl* kernel);
TAMIX_API int TAM_send_stop(TAM_KernelImpl* kernel);
TAMIX_API int TAM_send_quit(TAM_KernelImpl* kernel);
TAMIX_API int TAM_set_kernel_name(TAM_KernelImpl* kernel, const char* name);

/* Ending a connection, freeing memory the library gave out, queries. */
TAMIX_API void TAM_delete_kernel(TAM_KernelImpl* kernel);
TAMIX_API void TAM_free(void* p);
TAMIX_API long TAM_get_client_id(TAM_KernelImpl* kernel);
TAMIX_API const char* TAM_get_kernel_name(TAM_KernelImpl* kernel);
TAMIX_API int TAM_get_client_fd(TAM_KernelImpl* kernel);
TAMIX_API const char* TAM_get_listen_path(TAM_KernelImpl* kernel);

/* Kernels over Unix-domain sockets. */
TAMIX_API TAM_KernelImpl* TAM_new_uds_kernel(const char* kernel_path, const char* name);
TAMIX_API TAM_KernelImpl* TAM_connect_uds_kernel(const char* listen_path, const char* name);
TAMIX_API TAM_KernelImpl* TAM_get_uds_kernel(const char* kernel_path, const char* name, int launch);
TAMIX_API char** TAM_get_uds_kernel_names(void);

/* The input loop: reads what the kernels sent and calls the handlers. */
TAMIX_API void TAM_handle_uds_input(int wait);
TAMIX_API void TAM_read_uds_input(int fd);

/* The version of the library in use, "MAJOR.MINOR.PATCH": the run-time
 * counterpart of TAMIX_VERSION_STRING, for a front end that wants to know
 * which library it was loaded with. Static text, never null; do not free. */
TAMIX_API const char* TAM_get_version(void);

/* Kept for interface compatibility with front ends written for other
 * transports; they ignore their arguments and do nothing. */
TAMIX_API TAM_KernelImpl* TAM_get_lib_kernel(void);
TAMIX_API void TAM_exit_lib(void);
TAMIX_API int TAM_set_event_handler(TAM_KernelImpl* kernel, void* handler);
TAMIX_API int TAM_set_fatal_exit_handler(void* handler);
TAMIX_API TAM_KernelImpl* TAM_new_wmsg_kernel(const char* kernel_path, const char* name);
TAMIX_API TAM_KernelImpl* TAM_get_wmsg_kernel(const char* kernel_path, const char* name, int launch);
TAMIX_API char** TAM_get_wmsg_kernel_names(void);

#ifdef __cplusplus
}
#endif

#endif /* TAMIX_TAMIX_H */
