// Must not compile: the XML layer sees no header of the message layer above it.
#include "xml/Parser.h"
#include "xmsg/TAM_XmsgKernel.h"

int main()
{
    return 0;
}
