/* A front end built against the installed package with pkg-config: it checks
 * the version, launches the installed kernel, evaluates 1+1 and quits.
 * Arguments: the kernel executable and its library directory. */
#include <locale.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <tamix/tamix.h>

static int gDone = 0;
static char gAnswer[64] = "";

static void onInit(TAM_KernelImpl* k)
{
    const char* args[2];
    args[0] = "-l";
    args[1] = (const char*)TAM_get_client_data(k);
    TAM_send_init(k, 2, args);
}

static void onReady(TAM_KernelImpl* k)
{
    TAM_send_cmd(k, NULL, "1+1");
}

static void onOutput(TAM_KernelImpl* k, void* cookie, const char* type, const char* format,
                     const char* text)
{
    (void)k, (void)cookie, (void)format;
    if (strcmp(type, "result") == 0)
        snprintf(gAnswer, sizeof gAnswer, "%s", text);
}

static void onFinished(TAM_KernelImpl* k, void* cookie)
{
    (void)k, (void)cookie, gDone = 1;
}

int main(int argc, char** argv)
{
    TAM_KernelImpl* k;
    time_t start = time(NULL);
    if (argc != 3)
        return 2;
    setlocale(LC_ALL, "");
    if (strcmp(TAM_get_version(), TAMIX_VERSION_STRING) != 0) {
        fprintf(stderr, "header %s, library %s\n", TAMIX_VERSION_STRING, TAM_get_version());
        return 1;
    }
    k = TAM_new_uds_kernel(argv[1], NULL);
    if (!k)
        return 1;
    TAM_set_client_data(k, argv[2]);
    TAM_set_on_init_wanted_handler(k, onInit);
    TAM_set_on_kernel_ready_handler(k, onReady);
    TAM_set_on_output_handler(k, onOutput);
    TAM_set_on_finished_handler(k, onFinished);
    if (!TAM_send_new_client(k, "consumer", NULL, TAM_FEATURE_CAN_QUIT))
        return 1;
    while (!gDone && time(NULL) - start < 30)
        TAM_handle_uds_input(1);
    TAM_delete_kernel(k);
    printf("1+1 = %s\n", gAnswer);
    return strcmp(gAnswer, "2") == 0 ? 0 : 1;
}
