// tamcon: a line-oriented console for the Tamix kernel. It launches
// ./tamkern, announces itself as a client and then, driven by a one-second
// SIGALRM tick, prints what the kernel sends and reads the next command
// whenever the kernel is ready for one.
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "tamix/tamix.h"

namespace {

// Set once "quit" has been sent (or input has ended): no more ticks, and
// main leaves its sleep loop. Written by the signal handler, read by main.
volatile sig_atomic_t FINISHED = 0;
TAM_KernelImpl* gKernel = nullptr;

[[noreturn]] void fatal(const char* message)
{
    fputs(message, stderr);
    fputc('\n', stderr);
    exit(1);
}

void setAlarmTimer(long seconds, void (*handler)(int))
{
    signal(SIGALRM, handler);
    alarm(static_cast<unsigned>(seconds));
}

void send_cmd()
{
    char line[1024];
    fputs(">> ", stdout);
    // Output may go to a pipe or file, which is not flushed before reading.
    fflush(stdout);
    if (!fgets(line, sizeof line, stdin)) {
        // End of input (or a read error): there is no line to send, so end
        // the session as if the user had typed "quit".
        strcpy(line, "quit");
    } else {
        char* nl = strrchr(line, '\n');
        if (nl)
            *nl = '\0';
    }
    if (!TAM_send_cmd(gKernel, nullptr, line))
        fatal("can not 'send_cmd'");
    if (strcmp(line, "quit") == 0)
        FINISHED = 1;
}

void EventHandler(int)
{
    TAM_handle_uds_input(0);
    if (!FINISHED)
        alarm(1);
}

void on_init_wanted(TAM_KernelImpl* kernel)
{
    const char* args[] = {"-l", "../lib"};
    TAM_send_init(kernel, 2, args);
}

void on_kernel_ready(TAM_KernelImpl*)
{
    send_cmd();
}

void on_output(TAM_KernelImpl*, void*, const char*, const char*, const char* text)
{
    puts(text);
}

void on_finished(TAM_KernelImpl*, void*)
{
    send_cmd();
}

void on_quit(TAM_KernelImpl*)
{
    TAM_delete_kernel(gKernel);
    fatal("Tamix: The kernel quits.");
}

} // namespace

int main()
{
    setlocale(LC_ALL, "");
    gKernel = TAM_new_uds_kernel("./tamkern", nullptr);
    if (!gKernel)
        fatal("can not create kernel object");
    TAM_set_on_init_wanted_handler(gKernel, on_init_wanted);
    TAM_set_on_kernel_ready_handler(gKernel, on_kernel_ready);
    TAM_set_on_output_handler(gKernel, on_output);
    TAM_set_on_finished_handler(gKernel, on_finished);
    TAM_set_on_quit_handler(gKernel, on_quit);
    if (!TAM_send_new_client(gKernel, nullptr, nullptr, TAM_FEATURE_CAN_QUIT))
        fatal("can not 'send_new_client'");
    static const char greeting[] = "Tamix Kernel Console. Quit with the quit command.\n";
    fwrite(greeting, 1, sizeof greeting - 1, stdout);
    setAlarmTimer(1, EventHandler);
    while (!FINISHED) {
        timespec req{2, 0};
        nanosleep(&req, nullptr);
    }
    TAM_delete_kernel(gKernel);
    return 0;
}
