/* Compiled as C89 and as C11 with -pedantic -Werror: the public header must
 * stay plain C for every front end. */
#include <tamix/tamix.h>

#if TAMIX_VERSION_NUMBER < 100
#error "version macros missing"
#endif

int tamix_header_check(void);
int tamix_header_check(void)
{
    TAM_DataTAG d;
    d.format = "utf8";
    d.data = 0;
    d.length = 0;
    return (int)d.length + TAM_FEATURE_CAN_QUIT;
}
