/* tamix.h: the flat interface of the Tamix kernel-client library.
 *
 * Usable from C (C89 and later) and C++. A front end gets a connection to
 * a computer-algebra kernel, a TAM_KernelImpl handle, by launching the
 * kernel (TAM_new_uds_kernel) or by joining one that already runs
 * (TAM_connect_uds_kernel, TAM_get_uds_kernel). It registers handlers for
 * the kernel's messages, announces itself with TAM_send_new_client and then
 * drives the input loop (TAM_handle_uds_input or TAM_read_uds_input),
 * inside which the handlers are called. Requests (commands, answers to the
 * kernel's questions, settings) can be sent at any time, also from inside a
 * handler. TAM_delete_kernel ends the connection. docs/frontend-guide.md
 * walks through all of this with a complete example.
 *
 * Conventions that hold for every function below unless its own comment
 * says otherwise:
 *
 * - A null handle gives a neutral result (0, -1 or a null pointer) and
 *   does nothing.
 * - Requests return 1 when the request was written and sent, 0 on any
 *   failure. Success does not mean that the kernel has acted on it. No C++
 *   exception leaves the library.
 * - Texts are NUL-terminated. Texts passed in are in the encoding of the
 *   current locale and are converted to UTF-8 for the kernel; texts handed
 *   to handlers have been converted back. A front end therefore calls
 *   setlocale(LC_ALL, "") at start-up, before it calls the library. Output
 *   types and format names are protocol words and are never converted.
 * - Arguments passed in belong to the caller; the library keeps none of
 *   them after the call returns (names are copied). Texts and records
 *   handed to handlers belong to the library and are valid only during the
 *   call: copy what you want to keep.
 * - The library is single-threaded and keeps process-wide state: call it
 *   from one thread only, and from a signal handler only if that signal
 *   cannot interrupt another call into the library.
 */
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

/* The connection handle: one client of one kernel process. It is opaque.
 * TAM_new_uds_kernel, TAM_connect_uds_kernel and TAM_get_uds_kernel make
 * one; it stays valid until it is passed to TAM_delete_kernel and must not
 * be used after that. Several handles may share one kernel process and its
 * socket; the kernel tells them apart by the client id it assigns to each
 * (TAM_get_client_id). */
#ifdef __cplusplus
class TAM_KernelImpl;
extern "C" {
#else
typedef struct TAM_KernelImpl TAM_KernelImpl;
#endif

/* An mcode payload: bytes in one of the kernel's own codings, with the name
 * of that coding. The record owns nothing.
 *
 * Passed to a request (TAM_send_cmd_data, TAM_send_call_result), the record
 * and the bytes it points to need to live only until the call returns: the
 * library compresses and encodes them on the way out. Handed to a handler
 * (on_output_data, on_callback), the record and its bytes belong to the
 * library and are valid only during the call. */
typedef struct TAM_DataTAG {
    const char* format;        /* name of the coding, a protocol word that is
                                  sent and received unconverted; null sends
                                  an empty name */
    const unsigned char* data; /* first payload byte; may be null when
                                  length is 0 */
    uint64_t length;           /* number of payload bytes; the bytes are not
                                  NUL-terminated */
} TAM_DataTAG;

/* Feature bits of TAM_send_new_client and TAM_send_new_client_ext: what the
 * front end can do. The library sends one word for each bit that is set
 * (stay_alive, complete_commands, ..., can_protocol) and ignores bits not
 * listed here; what a word means, and whether it is used at all, is up to
 * the kernel. The reference kernel acts on two of them:
 * TAM_FEATURE_STAY_ALIVE keeps the kernel running after its last client
 * has gone (so a launched kernel no longer ends when its front end deletes
 * the connection; see TAM_delete_kernel), and TAM_FEATURE_CAN_TYPESET makes
 * it offer the formats of its results right after the announcement
 * (on_select_format). */
enum {
    TAM_FEATURE_STAY_ALIVE = 0x1,
    TAM_FEATURE_COMPLETE_COMMANDS = 0x2,
    TAM_FEATURE_CAN_DEBUG = 0x4,
    TAM_FEATURE_CAN_LAZY_DEBUG = 0x8,
    TAM_FEATURE_DEBUGGER_UI = 0x10,
    TAM_FEATURE_CAN_PLOT = 0x20,
    TAM_FEATURE_CAN_INPUT = 0x400,
    TAM_FEATURE_CAN_TEXTINPUT = 0x800,
    TAM_FEATURE_CAN_HELP = 0x1000,
    TAM_FEATURE_CAN_HELP_DVI = 0x2000,
    TAM_FEATURE_CAN_BROWSE_HELP = 0x4000,
    TAM_FEATURE_CAN_EXEC_SYSTEM = 0x8000,
    TAM_FEATURE_CAN_QUIT = 0x10000,
    TAM_FEATURE_CAN_CALLBACK = 0x20000,
    TAM_FEATURE_CAN_TYPESET = 0x40000,
    TAM_FEATURE_CAN_PROTOCOL = 0x80000
};

/* Number formats and codings of TAM_send_new_client_ext, sent as words:
 * longfmt TAM_LONGFMT_TEXT "text" or TAM_LONGFMT_GMP "gmp"; floatfmt
 * TAM_FLOATFMT_IEEE "ieee" or TAM_FLOATFMT_TEXT "text" (any other value of
 * either sends an empty word); coding TAM_CODING_FLAT "flat" (0), or any
 * combination of the bits TAM_CODING_REF, TAM_CODING_IDENT and
 * TAM_CODING_PROP ("ref", "ident", "prop"). They tell the kernel how to
 * code payloads; their meaning is the kernel's (the reference kernel
 * ignores them). TAM_send_new_client sends TAM_LONGFMT_TEXT,
 * TAM_FLOATFMT_IEEE and TAM_CODING_IDENT. */
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

/* Flag bits of TAM_send_cmd_ext and TAM_send_cmd_data. TAM_CMD_NO_HISTORY
 * asks the kernel to keep the command out of its history. Other bits are
 * not sent. */
enum { TAM_CMD_NO_HISTORY = 0x1 };

/* Handlers: one function type per kind of kernel message, registered per
 * connection with the TAM_set_on_..._handler functions. The library calls a
 * handler from inside TAM_handle_uds_input or TAM_read_uds_input, on the
 * thread that called it, as soon as the bytes read complete a message for
 * the handler's connection. The first argument is always that connection's
 * handle.
 *
 * Rules for every handler:
 *
 * - Texts, arrays and records passed in belong to the library and are
 *   valid only until the handler returns. Texts marked "locale" have been
 *   converted from UTF-8 into the locale's encoding; output types and
 *   format names are protocol words, passed as received. A text the kernel
 *   left out arrives as the empty text, never as null; only the arrays of
 *   on_select_format and of the three list handlers are null, when their
 *   count is 0.
 * - cookie is the value the front end passed with the command that the
 *   message belongs to (TAM_send_cmd and its kin), handed back unchanged;
 *   it is null for messages that belong to no command.
 * - A handler may send requests (those that answer its message too), set
 *   handlers and client data, create connections, and delete connections
 *   with TAM_delete_kernel, its own included. After deleting its own
 *   connection it must not touch the handle again; messages that arrive
 *   for that connection afterwards, in the same read or later, are not
 *   delivered to it.
 * - A handler must not call TAM_handle_uds_input or TAM_read_uds_input:
 *   the input loop is not re-entrant.
 * - A handler written in C++ should not throw. If an exception escapes,
 *   the library catches it, drops the rest of that message and goes on
 *   with the next one; nothing reports it.
 *
 * The kernel asks questions with on_init_wanted, on_input_wanted,
 * on_callback, on_system, on_select_format and on_dbg_cmd_wanted, and waits
 * for the answer. These six have default handlers (TAM_default_on_...)
 * that answer when the front end has registered nothing. An answer need
 * not be sent from inside the handler; it may follow later, for instance
 * once the user has typed it. */

/* The kernel wants the client's start-up arguments: answer with
 * TAM_send_init. The reference kernel asks this right after the
 * announcement, as its first message to a new connection. */
typedef void (*TAM_OnInitWanted)(TAM_KernelImpl* kernel);
/* The kernel is ready for commands. The reference kernel says so once,
 * after it has processed the init request. */
typedef void (*TAM_OnKernelReady)(TAM_KernelImpl* kernel);
/* Output of the command identified by cookie, as text. type: the kind of
 * output (the reference kernel sends "result", "print", "warning" and
 * "error"); format: the format of text ("text", "tex", "mathml"; empty if
 * the kernel gave none); text: the output itself (locale). */
typedef void (*TAM_OnOutput)(TAM_KernelImpl* kernel, void* cookie, const char* type,
                             const char* format, const char* text);
/* Output of the command identified by cookie, as a payload. type as for
 * TAM_OnOutput; data->format names the coding of the bytes (the reference
 * kernel sends "utf8": the result as UTF-8 text, not terminated). Without
 * this handler such output is dropped; it never reaches on_output. */
typedef void (*TAM_OnOutputData)(TAM_KernelImpl* kernel, void* cookie, const char* type,
                                 const TAM_DataTAG* data);
/* The command identified by cookie has finished; its output has all been
 * delivered before this call. */
typedef void (*TAM_OnFinished)(TAM_KernelImpl* kernel, void* cookie);
/* A completion notice for the request identified by cookie. */
typedef void (*TAM_OnCompleteCmd)(TAM_KernelImpl* kernel, void* cookie);
/* The command identified by cookie wants input. text: nonzero when the
 * kernel wants plain text, answered with TAM_send_textinput; 0 when it wants
 * an expression, answered with TAM_send_input. prompt: the prompt (locale);
 * empty when there is none or when the kernel sent it as a payload. The
 * default answers as canceled. */
typedef void (*TAM_OnInputWanted)(TAM_KernelImpl* kernel, void* cookie, int text,
                                  const char* prompt);
/* The command identified by cookie calls back into the front end with a
 * payload (length 0 and an empty format when the kernel sent none): answer
 * with TAM_send_call_result. The default answers with an error. */
typedef void (*TAM_OnCallback)(TAM_KernelImpl* kernel, void* cookie, const TAM_DataTAG* data);
/* Help text (locale). The reference kernel sends it instead of output for
 * the commands help(name) and ?name. */
typedef void (*TAM_OnHelp)(TAM_KernelImpl* kernel, const char* value);
/* The kernel asks the front end to run the system command value (locale):
 * answer with TAM_send_system_result. The default runs nothing and
 * answers 1. */
typedef void (*TAM_OnSystem)(TAM_KernelImpl* kernel, const char* value);
/* The debugger's current frame has changed to value (locale). */
typedef void (*TAM_OnFrameChanged)(TAM_KernelImpl* kernel, const char* value);
/* A setting has changed, typically the kernel's confirmation of
 * TAM_send_textwidth, TAM_send_pretty_print or TAM_send_abbreviate_output:
 * value is the width, or the flag as 0 or 1. */
typedef void (*TAM_OnTextwidthChanged)(TAM_KernelImpl* kernel, long value);
typedef void (*TAM_OnPrettyPrintChanged)(TAM_KernelImpl* kernel, int value);
typedef void (*TAM_OnAbbreviateOutputChanged)(TAM_KernelImpl* kernel, int value);
/* Outputs of this type now come in this format (both protocol words); the
 * kernel's confirmation of TAM_send_format. Not called when the message
 * names no format. */
typedef void (*TAM_OnFormatChanged)(TAM_KernelImpl* kernel, const char* type, const char* format);
/* The kernel offers count formats for outputs of this type and waits for a
 * choice: answer with TAM_send_format. formats: an array of count protocol
 * words; null when count is 0. The default chooses the first. */
typedef void (*TAM_OnSelectFormat)(TAM_KernelImpl* kernel, const char* type, long count,
                                   const char** formats);
/* The kernel's status figures, in answer to TAM_send_status_wanted; their
 * units are the kernel's (the reference kernel: used and res are memory
 * in KiB, sec is processor time in seconds). */
typedef void (*TAM_OnStatus)(TAM_KernelImpl* kernel, long used, long res, long sec);
/* Completions in answer to TAM_send_completion_wanted: list (locale) holds
 * them (the reference kernel separates them by blanks), pref (locale) is
 * the prefix they complete. */
typedef void (*TAM_OnInputCompletion)(TAM_KernelImpl* kernel, const char* list, const char* pref);
/* The command identified by cookie has written a plot to the file name
 * (locale). */
typedef void (*TAM_OnPlotResultFile)(TAM_KernelImpl* kernel, void* cookie, const char* name);
/* The kernel's debugger has stopped in the command identified by cookie
 * and wants a debugger command: answer with TAM_send_dbg_cmd. The default
 * sends 'q'. */
typedef void (*TAM_OnDbgCmdWanted)(TAM_KernelImpl* kernel, void* cookie);
/* Where the debugger stands: cmd is the first byte of the command the
 * kernel names (0 if none); fname (locale) and fpos the file and the
 * position in it; expr (locale) the expression; level and depth the
 * kernel's numbers. */
typedef void (*TAM_OnDbgInfo)(TAM_KernelImpl* kernel, char cmd, const char* fname, long fpos,
                              const char* expr, long level, long depth);
/* The debugger's lists, each as count entries of parallel arrays: entry i
 * of every array describes item i. All arrays are null when count is 0.
 * Texts are locale. A list message that mixes items of different kinds is
 * not delivered. Display list: names and values of the watched variables.
 * Breakpoint list: file names, positions and conditions. Call stack: the
 * current level, then file names, positions and procedure names of the
 * frames. */
typedef void (*TAM_OnDisplayList)(TAM_KernelImpl* kernel, long count, const char** names,
                                  const char** values);
typedef void (*TAM_OnBreakpointList)(TAM_KernelImpl* kernel, long count, const char** fnames,
                                     const long* fpos, const char** conds);
typedef void (*TAM_OnCallStack)(TAM_KernelImpl* kernel, long level, long count, const char** fnames,
                                const long* fpos, const char** procs);
/* The kernel has been reset. */
typedef void (*TAM_OnReset)(TAM_KernelImpl* kernel);
/* The kernel process quits. Called for every connection of that process
 * (those with an id in the order of their ids, then those still waiting
 * for one). Once these calls have returned, the library closes the
 * process's socket: from then on the connection's requests fail with 0 and
 * TAM_get_client_fd gives -1. The handle stays valid until
 * TAM_delete_kernel, which the handler may call itself. */
typedef void (*TAM_OnQuit)(TAM_KernelImpl* kernel);

/* The default handlers. A new connection has these six in its handler
 * table, and setting a null handler for their slot puts them back. They
 * give the kernel an answer so that it does not wait for ever on a front
 * end that ignores the question. A front end's own handler may call them to
 * fall back on the default answer. Each does nothing for a null kernel and
 * ignores the failure of its request, except TAM_default_on_dbg_cmd_wanted.
 *
 * TAM_default_on_init_wanted: sends an init request without arguments.
 * TAM_default_on_input_wanted: answers as canceled, without text: with
 *   TAM_send_textinput when text is nonzero, else with TAM_send_input.
 * TAM_default_on_callback: answers with error 1 and no payload.
 * TAM_default_on_system: answers 1 and runs nothing.
 * TAM_default_on_select_format: chooses formats[0] for type; when count is
 *   0 or formats is null it answers with type and an empty format.
 * TAM_default_on_dbg_cmd_wanted: sends the debugger command 'q' with no
 *   file, position 0 and no expression. It does not check kernel, which
 *   must not be null, and it does not catch the failure of its request: a
 *   C++ exception (memory running out) goes on to its caller, which is
 *   harmless when the library called it and must be expected by C++ code
 *   that calls it directly. */
TAMIX_API void TAM_default_on_init_wanted(TAM_KernelImpl* kernel);
TAMIX_API void TAM_default_on_input_wanted(TAM_KernelImpl* kernel, void* cookie, int text,
                                           const char* prompt);
TAMIX_API void TAM_default_on_callback(TAM_KernelImpl* kernel, void* cookie,
                                       const TAM_DataTAG* data);
TAMIX_API void TAM_default_on_system(TAM_KernelImpl* kernel, const char* value);
TAMIX_API void TAM_default_on_select_format(TAM_KernelImpl* kernel, const char* type, long count,
                                            const char** formats);
TAMIX_API void TAM_default_on_dbg_cmd_wanted(TAM_KernelImpl* kernel, void* cookie);

/* Handler setters, one per kind of message, all with the same contract.
 *
 * kernel: the connection; null: nothing happens.
 * handler: the function to call for that message on this connection. Null
 *   restores the default for the six questions that have one (init_wanted,
 *   input_wanted, callback, system, select_format, dbg_cmd_wanted) and
 *   switches the message off for all others: it is then read and dropped.
 *
 * A new connection has the six defaults and no other handler. Handlers
 * may be set at any time, also from inside a handler: the library looks the
 * slot up each time it delivers a message. TAM_delete_kernel clears the
 * table first, so no handler runs for a connection that is being deleted. */
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
TAMIX_API void TAM_set_on_textwidth_changed_handler(TAM_KernelImpl* kernel,
                                                    TAM_OnTextwidthChanged handler);
TAMIX_API void TAM_set_on_pretty_print_changed_handler(TAM_KernelImpl* kernel,
                                                       TAM_OnPrettyPrintChanged handler);
TAMIX_API void TAM_set_on_abbreviate_output_changed_handler(TAM_KernelImpl* kernel,
                                                            TAM_OnAbbreviateOutputChanged handler);
TAMIX_API void TAM_set_on_format_changed_handler(TAM_KernelImpl* kernel,
                                                 TAM_OnFormatChanged handler);
TAMIX_API void TAM_set_on_select_format_handler(TAM_KernelImpl* kernel, TAM_OnSelectFormat handler);
TAMIX_API void TAM_set_on_status_handler(TAM_KernelImpl* kernel, TAM_OnStatus handler);
TAMIX_API void TAM_set_on_input_completion_handler(TAM_KernelImpl* kernel,
                                                   TAM_OnInputCompletion handler);
TAMIX_API void TAM_set_on_plot_result_file_handler(TAM_KernelImpl* kernel,
                                                   TAM_OnPlotResultFile handler);
TAMIX_API void TAM_set_on_dbg_cmd_wanted_handler(TAM_KernelImpl* kernel,
                                                 TAM_OnDbgCmdWanted handler);
TAMIX_API void TAM_set_on_dbg_info_handler(TAM_KernelImpl* kernel, TAM_OnDbgInfo handler);
TAMIX_API void TAM_set_on_display_list_handler(TAM_KernelImpl* kernel, TAM_OnDisplayList handler);
TAMIX_API void TAM_set_on_breakpoint_list_handler(TAM_KernelImpl* kernel,
                                                  TAM_OnBreakpointList handler);
TAMIX_API void TAM_set_on_call_stack_handler(TAM_KernelImpl* kernel, TAM_OnCallStack handler);
TAMIX_API void TAM_set_on_reset_handler(TAM_KernelImpl* kernel, TAM_OnReset handler);
TAMIX_API void TAM_set_on_quit_handler(TAM_KernelImpl* kernel, TAM_OnQuit handler);

/* Client data: one pointer per connection that belongs to the front end,
 * typically to find its own state from inside a handler. The library never
 * reads, changes or frees it. A new connection has null.
 *
 * TAM_set_client_data stores data and returns 1; null kernel: returns 0.
 * TAM_get_client_data returns the stored value; null kernel: null. */
TAMIX_API int TAM_set_client_data(TAM_KernelImpl* kernel, void* data);
TAMIX_API void* TAM_get_client_data(TAM_KernelImpl* kernel);

/* Requests. Each writes one message to the kernel and sends it whole over
 * the connection's socket before it returns. Signals and partial writes do
 * not cut a request short: the rest is sent. A call waits only while the
 * kernel does not take the bytes (its socket is full), for at most
 * TAM_LIMIT_SEND_TIMEOUT_MS (30 s by default) in all; no request waits for
 * the kernel's answer, which arrives later as handler calls from the input
 * loop.
 *
 * Result: 1 when every byte of the request went out. 0 for a null kernel,
 * for a connection whose kernel has quit or closed its socket, when the
 * send fails, when the time-out passes, and when memory runs out. A
 * request that sent nothing leaves the connection usable for the next one;
 * one that the kernel took only in part before the time-out leaves the
 * kernel's stream cut: the state becomes TAM_KERNEL_UNRESPONSIVE and every
 * later request of that kernel process fails at once.
 *
 * Texts are converted from the locale's encoding to UTF-8; a null text is
 * sent as the empty text. Every request after the announcement carries the
 * connection's client id once the kernel has assigned it, and the kernel
 * needs it to tell clients apart: send them only after that. The id is
 * known by the time the first handler is called for the connection
 * (normally on_init_wanted); TAM_get_client_id returns it. */

/* Announces the connection to the kernel: the first request of every
 * connection, sent once. name: the front end's name; frame: a frame name
 * for the kernel (both locale; null sends the empty text); features: the
 * TAM_FEATURE_... bits of what the front end can do. Number formats and
 * coding are TAM_LONGFMT_TEXT, TAM_FLOATFMT_IEEE and TAM_CODING_IDENT.
 * Returns 0 also when the connection has announced itself before. The
 * kernel answers by assigning the connection its client id, with its first
 * message for it (the reference kernel: on_init_wanted, then, with
 * TAM_FEATURE_CAN_TYPESET, on_select_format). */
TAMIX_API int TAM_send_new_client(TAM_KernelImpl* kernel, const char* name, const char* frame,
                                  long features);
/* TAM_send_new_client with the number formats and coding given: longfmt,
 * floatfmt and coding as described with TAM_LONGFMT_TEXT and its kin. */
TAMIX_API int TAM_send_new_client_ext(TAM_KernelImpl* kernel, const char* name, const char* frame,
                                      long features, unsigned char longfmt, unsigned char floatfmt,
                                      unsigned char coding);
/* The start-up arguments, in answer to on_init_wanted. argv: argc texts
 * (locale); argc 0 or less sends none, and a null argv sends argc empty
 * texts. The reference kernel takes "-l" followed by its library directory
 * DIR and then runs the commands of DIR/tamkern/init; it answers other
 * arguments with a warning output, and then says on_kernel_ready. */
TAMIX_API int TAM_send_init(TAM_KernelImpl* kernel, long argc, const char** argv);
/* A command for the kernel to evaluate. cookie: any value of the front
 * end's; the library never dereferences it, sends it as a number and hands
 * it back with every message that belongs to this command (output,
 * questions, finished). cmd: the command text (locale). The same as
 * TAM_send_cmd_ext(kernel, cookie, cmd, 0, NULL). */
TAMIX_API int TAM_send_cmd(TAM_KernelImpl* kernel, void* cookie, const char* cmd);
/* TAM_send_cmd with flags (TAM_CMD_NO_HISTORY) and format, a protocol word
 * that goes with the command unconverted (null or empty: none). The
 * reference kernel ignores both. */
TAMIX_API int TAM_send_cmd_ext(TAM_KernelImpl* kernel, void* cookie, const char* cmd, long flags,
                               const char* format);
/* A command given as a payload instead of text; cookie, flags and format as
 * for TAM_send_cmd_ext. data: null sends a command without payload. The
 * reference kernel takes payloads coded "utf8" (the command text in UTF-8)
 * and answers any other coding with an error output. */
TAMIX_API int TAM_send_cmd_data(TAM_KernelImpl* kernel, void* cookie, const TAM_DataTAG* data,
                                long flags, const char* format);
/* Asks for the completions of text (locale); the kernel answers with
 * on_input_completion. */
TAMIX_API int TAM_send_completion_wanted(TAM_KernelImpl* kernel, const char* text);
/* A debugger command, in answer to on_dbg_cmd_wanted. cmd: the command
 * letter (a control byte below 0x20 is dropped and sends an empty command;
 * a byte of 0x80 or more is taken as a character of the locale); fname and
 * expr: a file name and an expression (locale); fpos: a position in the
 * file. The reference kernel has no debugger and ignores it. */
TAMIX_API int TAM_send_dbg_cmd(TAM_KernelImpl* kernel, unsigned char cmd, const char* fname,
                               long fpos, const char* expr);
/* The result of the system command that on_system asked for. */
TAMIX_API int TAM_send_system_result(TAM_KernelImpl* kernel, long result);
/* The answers to on_input_wanted: TAM_send_input when its text argument
 * was 0 (text is an expression), TAM_send_textinput when it was nonzero
 * (text is taken as it is). text: the answer (locale). canceled: nonzero
 * declines to answer; the reference kernel then ends the command with the
 * error "input canceled". */
TAMIX_API int TAM_send_input(TAM_KernelImpl* kernel, int canceled, const char* text);
TAMIX_API int TAM_send_textinput(TAM_KernelImpl* kernel, int canceled, const char* text);
/* The answer to on_callback. error: nonzero reports that the callback
 * failed; data: the result as a payload, null for none (the reference
 * kernel reads a "utf8" payload as an expression). */
TAMIX_API int TAM_send_call_result(TAM_KernelImpl* kernel, int error, const TAM_DataTAG* data);
/* Settings for this connection's output: the width to wrap text output at
 * (the reference kernel: less than 1 for no wrapping), pretty printing
 * and abbreviation of long output (on: nonzero for on). The kernel
 * confirms each with on_textwidth_changed, on_pretty_print_changed or
 * on_abbreviate_output_changed. */
TAMIX_API int TAM_send_textwidth(TAM_KernelImpl* kernel, long width);
TAMIX_API int TAM_send_pretty_print(TAM_KernelImpl* kernel, int on);
TAMIX_API int TAM_send_abbreviate_output(TAM_KernelImpl* kernel, int on);
/* Chooses format for the outputs of type name, in answer to
 * on_select_format or at any other time. Both are protocol words, sent
 * unconverted (null: the empty word). The kernel confirms the format in
 * force with on_format_changed; the reference kernel has the choice for
 * type "result" only, between "text", "tex", "mathml" and "utf8", and keeps
 * its previous choice for anything else. */
TAMIX_API int TAM_send_format(TAM_KernelImpl* kernel, const char* name, const char* format);
/* Asks for the kernel's status figures; the kernel answers with on_status. */
TAMIX_API int TAM_send_status_wanted(TAM_KernelImpl* kernel);
/* Asks the kernel to stop the command this connection is running. The
 * reference kernel stops only this client's command (any question it
 * asked is dropped), sends the error output "interrupted" and then
 * on_finished. */
TAMIX_API int TAM_send_stop(TAM_KernelImpl* kernel);
/* Tells the kernel that this client leaves. TAM_delete_kernel sends it by
 * itself; this is for a front end that wants to leave and still keep the
 * handle for a while. It does not end the kernel for its other clients;
 * the reference kernel ends on the command "quit" (TAM_send_cmd) and then
 * says on_quit to all of them. */
TAMIX_API int TAM_send_quit(TAM_KernelImpl* kernel);
/* Renames the kernel process of this connection: the name that
 * TAM_get_uds_kernel looks for and TAM_get_kernel_name returns, shared by
 * all connections of that process. name is copied. Returns 1 on success; 0
 * for a null kernel or name, for a connection without process, or when
 * memory runs out. Nothing is sent to the kernel. */
TAMIX_API int TAM_set_kernel_name(TAM_KernelImpl* kernel, const char* name);

/* Ends a connection and frees its handle. In this order: clears the
 * handler table and the client data, so that no handler runs for the
 * connection any more; sends the quit request for this client if the
 * kernel has assigned it an id; leaves the kernel process. When this was
 * the last connection to that process, it also closes the process's socket
 * and removes the kernel's listening socket file (for a joined kernel too,
 * which then cannot be joined by that path again), and, if this library
 * launched the kernel, ends it: it waits up to TAM_LIMIT_DELETE_GRACE_MS
 * (5 s by default) for the kernel process to end by itself, then sends it
 * SIGTERM and waits as long again, then SIGKILL, and reaps it. A launched
 * reference kernel ends once its last client has left, so the first wait is
 * short. A kernel that one of its clients asked to stay alive
 * (TAM_FEATURE_STAY_ALIVE, sent by a connection of this library) is
 * neither waited for nor ended: it runs on after the call.
 *
 * A null kernel: nothing happens. The handle must not be used afterwards.
 * It may be called from inside a handler, for the handler's own connection
 * too (see the rules for handlers). */
TAMIX_API void TAM_delete_kernel(TAM_KernelImpl* kernel);
/* Frees memory that the library gave to the caller: the array returned by
 * TAM_get_uds_kernel_names and each of its strings. Null: nothing happens.
 * Not for anything else; texts from queries and handlers belong to the
 * library. */
TAMIX_API void TAM_free(void* p);
/* The client id that the kernel assigned to this connection; -1 while it is
 * not known yet (before the kernel's first message for the connection) and
 * for a null kernel. */
TAMIX_API long TAM_get_client_id(TAM_KernelImpl* kernel);
/* The name of the connection's kernel process: the name given when it was
 * launched or joined, else the decimal number of its socket. It belongs to
 * the library and stays valid until the name is changed
 * (TAM_set_kernel_name) or the last connection of the process is deleted.
 * Null for a null kernel. */
TAMIX_API const char* TAM_get_kernel_name(TAM_KernelImpl* kernel);
/* The socket of the connection's kernel process, for the front end's own
 * poll or select; all connections of one process share it. Leave the
 * reading to TAM_read_uds_input or TAM_handle_uds_input, and never write to
 * it or close it. (TAM_get_kernel_state tells when the kernel's stream has
 * ended without a quit; stop watching the socket then.) -1 once
 * the kernel has quit and the socket is closed. 0 for a null kernel, which
 * is also a valid descriptor: check the handle first. */
TAMIX_API int TAM_get_client_fd(TAM_KernelImpl* kernel);
/* The path of the kernel's listening socket, by which other front ends can
 * join it (TAM_connect_uds_kernel). It belongs to the library and stays
 * valid while the handle does. Null for a null kernel. */
TAMIX_API const char* TAM_get_listen_path(TAM_KernelImpl* kernel);

/* Launches a kernel and returns a new connection to it. kernel_path: the
 * kernel executable, started as a child process with the arguments "-X"
 * and a fresh socket path under /var/tmp; it inherits the program's
 * standard input, output and error. name: a name for the kernel process,
 * by which TAM_get_uds_kernel finds it (copied; null: the decimal number
 * of its socket). The call blocks until the kernel signals with SIGUSR1
 * that it listens, or dies, for at most TAM_LIMIT_READY_WAIT_MS (30 s by
 * default); meanwhile it has its own handlers installed for SIGUSR1 and
 * SIGCHLD, and it puts the previous ones back before it returns. Then it
 * connects, as TAM_connect_uds_kernel does (the kernel must run as this
 * user). When another program takes the fresh socket name before the
 * kernel could use it, the launch is tried again with a new name, three
 * times in all.
 *
 * Returns null for a null kernel_path, when the kernel could not be
 * started, died before it was ready or was not ready in time, and when
 * connecting failed. A kernel of a failed launch is never left behind: it
 * is ended (SIGTERM, SIGKILL) and reaped. A failing socket step prints one line
 * "TAM_UdsKernelProcess: " and the system's reason on standard error. The new connection has no
 * client id yet: announce it with TAM_send_new_client. */
TAMIX_API TAM_KernelImpl* TAM_new_uds_kernel(const char* kernel_path, const char* name);
/* Joins a kernel that already listens at listen_path and returns a new
 * connection to it; name as for TAM_new_uds_kernel. The process that
 * listens there must run as this user (its credentials are checked before
 * anything is sent): a socket that another user put at the path would
 * otherwise receive this user's commands. Returns null for a null
 * listen_path, when connecting fails, and for a peer of another user (with
 * the line on standard error as above, "Permission denied" for the
 * latter). The library does not wait for such a kernel when the
 * connection ends, but see TAM_delete_kernel about its socket file. */
TAMIX_API TAM_KernelImpl* TAM_connect_uds_kernel(const char* listen_path, const char* name);
/* A further connection to the kernel process named name (the first one
 * created under that name that has not quit). If there is none: with
 * launch nonzero, the same as TAM_new_uds_kernel(kernel_path, name), else
 * null. A null name finds nothing. */
TAMIX_API TAM_KernelImpl* TAM_get_uds_kernel(const char* kernel_path, const char* name, int launch);
/* The names of all kernel processes that the library talks to, in the
 * order they were created: a new array of new strings, ended by a null
 * entry. The caller frees each string and then the array with TAM_free.
 * Null when memory runs out. */
TAMIX_API char** TAM_get_uds_kernel_names(void);

/* The input loop. Neither function is re-entrant: no handler may call
 * either of them.
 *
 * TAM_handle_uds_input watches the sockets of all kernel processes. wait
 * nonzero: blocks, with no time limit, until one of them is readable or a
 * signal interrupts the wait; wait 0: only looks and returns at once if
 * nothing is there. It then reads at most 1024 bytes from each readable
 * socket, calls the handlers for every message that these bytes complete,
 * and finally lets go of the kernel processes that quit. A longer message
 * takes several calls. It returns at once if no kernel was ever launched
 * or joined. A socket whose end it has read (the kernel closed it without
 * quitting, TAM_KERNEL_CLOSED) is no longer watched, so a blocking call
 * does not return at once for ever; when no watched socket is left (every
 * connection deleted, every kernel quit or closed) a call with wait
 * nonzero blocks until a signal arrives.
 *
 * TAM_read_uds_input reads once, at most 1024 bytes, from the kernel
 * process whose socket is fd (TAM_get_client_fd), calls the handlers for
 * the messages completed, and lets go of the process if its kernel quit.
 * Call it when poll or select has reported fd readable; with nothing to
 * read it returns at once. An fd that belongs to no kernel process is
 * ignored. */
TAMIX_API void TAM_handle_uds_input(int wait);
TAMIX_API void TAM_read_uds_input(int fd);

/* What has become of a connection's kernel. */
enum {
    /* connected; its messages are delivered */
    TAM_KERNEL_RUNNING = 0,
    /* the kernel sent its quit message */
    TAM_KERNEL_QUIT = 1,
    /* the kernel closed its end without quitting (it ended or was killed) */
    TAM_KERNEL_CLOSED = 2,
    /* the kernel's stream broke the protocol; nothing more is delivered */
    TAM_KERNEL_MALFORMED = 3,
    /* a message of the kernel went over one of the TAM_LIMIT_... bounds;
     * nothing more is delivered */
    TAM_KERNEL_OVER_LIMIT = 4,
    /* a request could not be sent whole within TAM_LIMIT_SEND_TIMEOUT_MS:
     * the kernel took part of it and then stopped reading. The stream to
     * the kernel is cut (the library shuts down its sending side) and
     * every later request fails with 0 at once */
    TAM_KERNEL_UNRESPONSIVE = 5
};
/* The state of the connection's kernel process, as the library has found
 * it: TAM_KERNEL_RUNNING until the input loop reads the kernel's quit
 * message (TAM_KERNEL_QUIT), reads the end of the socket or fails to read
 * it (TAM_KERNEL_CLOSED), meets bytes that break the protocol
 * (TAM_KERNEL_MALFORMED) or a message over a bound (TAM_KERNEL_OVER_LIMIT),
 * or a request is cut short by the send time-out (TAM_KERNEL_UNRESPONSIVE).
 * The first of these that happens stays; all connections of one process
 * share it. -1 for a null kernel; a connection without a process gives
 * TAM_KERNEL_CLOSED.
 *
 * This is how a front end with its own poll loop learns that a kernel has
 * gone or must be given up. A socket at its end stays readable (reading it
 * gives nothing), and the input loop goes on reading a malformed stream
 * without delivering anything, so once the state is no longer
 * TAM_KERNEL_RUNNING, stop watching TAM_get_client_fd and delete the
 * connections. Requests to a closed or cut kernel fail with 0; a kernel
 * whose stream was malformed or over a bound may still take them, but
 * nothing it answers is delivered. */
TAMIX_API int TAM_get_kernel_state(TAM_KernelImpl* kernel);
/* 1 and *status set (a waitpid status) once a kernel this library
 * launched has ended and was reaped by the library; 0 while it runs, for a
 * joined kernel, or for null. status may be null.
 *
 * The library reaps a launched kernel without waiting (WNOHANG) when the
 * input loop finds its socket closed or its stream malformed, and again at
 * each call of this function until the kernel has ended: a kernel closes
 * its socket a moment before its process is gone, so a front end that
 * learns of TAM_KERNEL_CLOSED may have to ask a few times. Once the kernel
 * has been reaped, TAM_delete_kernel does not wait for it. A front end that
 * reaps the kernel itself (waitpid(-1, ...)) leaves nothing to report. */
TAMIX_API int TAM_get_kernel_exit_status(TAM_KernelImpl* kernel, int* status);

/* Bounds and time-outs. A kernel is another program, and the library keeps
 * what one kernel can cost the front end within these bounds: memory per
 * message, the time any call waits for a kernel. They are process-wide and
 * hold for every kernel; a change applies from the next time the library
 * checks the bound (the next message, send or wait). The defaults are far
 * above what a well-behaved kernel needs: the reference kernel's largest
 * results (10^7 characters and more, as text or as a payload) pass them.
 *
 * A message that goes over one of the first five bounds ends its kernel's
 * stream as malformed input does: nothing more from that kernel process is
 * delivered, not even the rest of that message, and TAM_get_kernel_state
 * gives TAM_KERNEL_OVER_LIMIT for each of its connections. */
enum {
    /* Bytes of one message as it arrives (its tags, attributes, text and
     * payload text, with anything before it that is not text between
     * messages). Bounds what one message's text and attributes cost.
     * Default 256 MiB. */
    TAM_LIMIT_MESSAGE_BYTES = 1,
    /* Bytes of one message's payload after inflating (on_output_data,
     * on_callback). Default 256 MiB. */
    TAM_LIMIT_PAYLOAD_BYTES = 2,
    /* Elements open at once inside one message, the message itself
     * counting 1 (the messages of the protocol need 2). Default 256. */
    TAM_LIMIT_DEPTH = 3,
    /* Items of one list message: breakpoints, stack frames, display
     * variables, or the formats of one format message. Default 100000. */
    TAM_LIMIT_LIST_ENTRIES = 4,
    /* Distinct format names one kernel process may introduce. The library
     * keeps each one for as long as the process lives (they are the names
     * handed to on_format_changed and on_select_format), so they are
     * counted over the whole connection, not per message; a single name
     * longer than 4096 bytes is over this bound too. Default 1024. */
    TAM_LIMIT_FORMAT_NAMES = 5,
    /* Milliseconds TAM_new_uds_kernel waits for the kernel's readiness
     * signal. Default 30000. */
    TAM_LIMIT_READY_WAIT_MS = 6,
    /* Milliseconds one request may wait for the kernel to take its bytes.
     * Default 30000. */
    TAM_LIMIT_SEND_TIMEOUT_MS = 7,
    /* Milliseconds TAM_delete_kernel waits for a launched kernel to end by
     * itself, and again after SIGTERM. Default 5000. */
    TAM_LIMIT_DELETE_GRACE_MS = 8
};
/* Sets the bound which (a TAM_LIMIT_... value) to value: at least 1 for the
 * sizes, at least 0 for the time-outs (0: do not wait; above 2^40 ms, some
 * 35 years, counts as 2^40). A negative value restores the default. Returns 1 when set; 0 for an
 * unknown which or a value below the least one allowed, and nothing changes. Call it between calls
 * of the input loop, not from a handler's middle of a message: a lower bound takes effect at the
 * next check. */
TAMIX_API int TAM_set_limit(int which, int64_t value);
/* The value of the bound which in force; -1 for an unknown which. */
TAMIX_API int64_t TAM_get_limit(int which);

/* The version of the library in use, "MAJOR.MINOR.PATCH": the run-time
 * counterpart of TAMIX_VERSION_STRING, for a front end that wants to know
 * which library it was loaded with. Static text, never null; do not free. */
TAMIX_API const char* TAM_get_version(void);

/* Kept for interface compatibility with front ends written for other
 * transports. They ignore their arguments and do nothing: the handle and
 * array results are null, the int results 0. */
TAMIX_API TAM_KernelImpl* TAM_get_lib_kernel(void);
TAMIX_API void TAM_exit_lib(void);
TAMIX_API int TAM_set_event_handler(TAM_KernelImpl* kernel, void* handler);
TAMIX_API int TAM_set_fatal_exit_handler(void* handler);
TAMIX_API TAM_KernelImpl* TAM_new_wmsg_kernel(const char* kernel_path, const char* name);
TAMIX_API TAM_KernelImpl* TAM_get_wmsg_kernel(const char* kernel_path, const char* name,
                                              int launch);
TAMIX_API char** TAM_get_wmsg_kernel_names(void);

#ifdef __cplusplus
}
#endif

#endif /* TAMIX_TAMIX_H */
