// The baseline of the kernel's start-up: a program that only makes a Giac
// context and evaluates 1+1, then writes one byte to say it could.
#include <giac/config.h>
#include <giac/giac.h>
#include <unistd.h>

int main()
{
    giac::context ctx;
    giac::gen sum = giac::gen(std::string("1+1"), &ctx).eval(1, &ctx);
    const char ok = sum == giac::gen(2) ? '1' : '0';
    return write(1, &ok, 1) == 1 && ok == '1' ? 0 : 1;
}
