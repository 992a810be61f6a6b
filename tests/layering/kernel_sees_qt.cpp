// Must not compile: the kernel's core links no text conversion, so it sees
// no header of it either.
#include "tamkern/Requests.h"
#include "support/Tut.h"

int main() { return 0; }
