// A C++ front end built against the installed package with find_package: it
// checks that header and library agree and that the library answers a null
// handle with the documented neutral results.
#include <cstdio>
#include <cstring>

#include <tamix/tamix.h>

int main()
{
    if (std::strcmp(TAM_get_version(), TAMIX_VERSION_STRING) != 0)
        return 1;
    if (TAM_send_cmd(nullptr, nullptr, "1") != 0 || TAM_get_client_id(nullptr) != -1)
        return 1;
    std::printf("tamix %s\n", TAM_get_version());
    return 0;
}
