// Must not compile: the kernel's core links no text conversion, so it sees
// no header of it either.
#include "support/Tut.h"
#include "tamkern/Requests.h"

int main()
{
    return 0;
}
