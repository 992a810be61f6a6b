// Must not link: code that is given only the XML layer cannot call into the
// layers above it.
#include "xml/Parser.h"

extern "C" int TAM_send_stop(void* kernel);

int main()
{
    return TAM_send_stop(nullptr);
}
