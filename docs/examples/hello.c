/* hello.c: a complete small Tamix front end.
 *
 * Launches the kernel, announces itself, sends one command, prints every
 * output with its type, waits for the command to finish and quits. The exit
 * status is 0 when the command finished with a result and without an error,
 * 1 on any failure.
 *
 *   hello [KERNEL [LIBDIR [COMMAND]]]
 *
 * KERNEL is the kernel executable (default: $TAMKERN, else ./tamkern),
 * LIBDIR the kernel's library directory (default: $TAMKERN_LIBDIR, else
 * ../lib), COMMAND the command to send (default: diff(sin(x)*x,x)).
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <locale.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include <tamix/tamix.h>

#define TIMEOUT_MS 60000

/* What the handlers learn; each finds it through the client data. */
struct session {
    const char* libdir;
    const char* command;
    int cookie;   /* its address marks the messages of our command */
    int results;  /* result outputs of the command */
    int errors;   /* error outputs of the command */
    int finished; /* the command has finished */
    int quit;     /* the kernel has quit */
    int failed;   /* a request could not be sent */
};

static struct session* session_of(TAM_KernelImpl* kernel)
{
    return (struct session*)TAM_get_client_data(kernel);
}

/* The kernel asks for its start-up arguments: name its library directory. */
static void on_init_wanted(TAM_KernelImpl* kernel)
{
    const char* args[2];
    args[0] = "-l";
    args[1] = session_of(kernel)->libdir;
    if (!TAM_send_init(kernel, 2, args))
        session_of(kernel)->failed = 1;
}

/* Ready for commands: send ours. Requests may be sent from handlers. */
static void on_kernel_ready(TAM_KernelImpl* kernel)
{
    struct session* s = session_of(kernel);
    printf("client %ld ready\n>> %s\n", TAM_get_client_id(kernel), s->command);
    if (!TAM_send_cmd(kernel, &s->cookie, s->command))
        s->failed = 1;
}

/* Text output. The texts are valid during this call only. */
static void on_output(TAM_KernelImpl* kernel, void* cookie, const char* type, const char* format,
                      const char* text)
{
    struct session* s = session_of(kernel);
    printf("%s (%s): %s\n", type, format, text);
    if (cookie != &s->cookie)
        return; /* not from our command, for instance a start-up warning */
    if (strcmp(type, "result") == 0)
        s->results++;
    else if (strcmp(type, "error") == 0)
        s->errors++;
}

/* Output as a payload: only if the front end chooses the "utf8" format. */
static void on_output_data(TAM_KernelImpl* kernel, void* cookie, const char* type,
                           const TAM_DataTAG* data)
{
    (void)kernel;
    (void)cookie;
    printf("%s (%s payload): %.*s\n", type, data->format, (int)data->length,
           (const char*)data->data);
}

static void on_finished(TAM_KernelImpl* kernel, void* cookie)
{
    struct session* s = session_of(kernel);
    if (cookie == &s->cookie)
        s->finished = 1;
}

static void on_quit(TAM_KernelImpl* kernel)
{
    session_of(kernel)->quit = 1;
    fprintf(stderr, "hello: the kernel quit\n");
}

static long now_ms(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (long)t.tv_sec * 1000 + t.tv_nsec / 1000000;
}

/* The input loop: wait for the kernel's socket, with a time limit of our
 * own, and let the library read it and call the handlers. */
static int run_until_finished(TAM_KernelImpl* kernel, struct session* s)
{
    long deadline = now_ms() + TIMEOUT_MS;
    while (!s->finished && !s->quit && !s->failed) {
        struct pollfd p;
        long left = deadline - now_ms();
        char c;
        int n;
        if (left <= 0) {
            fprintf(stderr, "hello: no answer within %d ms\n", TIMEOUT_MS);
            return 0;
        }
        p.fd = TAM_get_client_fd(kernel);
        p.events = POLLIN;
        p.revents = 0;
        n = poll(&p, 1, (int)left);
        if (n < 0 && errno != EINTR) {
            perror("hello: poll");
            return 0;
        }
        if (n <= 0)
            continue;
        /* A kernel that closed its socket without quitting leaves it
         * readable for ever; a peek that finds the end tells it apart. */
        if (recv(p.fd, &c, 1, MSG_PEEK) <= 0) {
            fprintf(stderr, "hello: the kernel closed its socket\n");
            return 0;
        }
        TAM_read_uds_input(p.fd);
    }
    return s->finished && !s->failed;
}

static const char* arg_or(int argc, char** argv, int i, const char* var, const char* fallback)
{
    const char* value;
    if (argc > i)
        return argv[i];
    value = var ? getenv(var) : NULL;
    return value && *value ? value : fallback;
}

int main(int argc, char** argv)
{
    struct session s;
    const char* kernel_path = arg_or(argc, argv, 1, "TAMKERN", "./tamkern");
    TAM_KernelImpl* kernel;
    int ok;

    /* Texts travel as UTF-8 and are converted from and to the locale's
     * encoding, so the locale must be the user's. */
    setlocale(LC_ALL, "");

    memset(&s, 0, sizeof s);
    s.libdir = arg_or(argc, argv, 2, "TAMKERN_LIBDIR", "../lib");
    s.command = arg_or(argc, argv, 3, NULL, "diff(sin(x)*x,x)");

    kernel = TAM_new_uds_kernel(kernel_path, "hello");
    if (!kernel) {
        fprintf(stderr, "hello: cannot launch the kernel %s\n", kernel_path);
        return 1;
    }
    TAM_set_client_data(kernel, &s);
    TAM_set_on_init_wanted_handler(kernel, on_init_wanted);
    TAM_set_on_kernel_ready_handler(kernel, on_kernel_ready);
    TAM_set_on_output_handler(kernel, on_output);
    TAM_set_on_output_data_handler(kernel, on_output_data);
    TAM_set_on_finished_handler(kernel, on_finished);
    TAM_set_on_quit_handler(kernel, on_quit);

    ok = TAM_send_new_client(kernel, "hello", NULL, TAM_FEATURE_CAN_QUIT) &&
         run_until_finished(kernel, &s) && s.results > 0 && s.errors == 0;
    if (s.failed)
        fprintf(stderr, "hello: a request could not be sent\n");

    /* Sends the client's quit request and waits for the kernel to end. */
    TAM_delete_kernel(kernel);
    printf("%s\n", ok ? "done" : "failed");
    return ok ? 0 : 1;
}
