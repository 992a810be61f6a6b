// The kernel's own Giac functions, which put a question to the running
// command's client and wait for the answer: input, textinput, system and
// callback. Also what marks a help request, whose value goes to the front
// end's help handler rather than being shown as a result.
#include <giac/config.h>
#include <giac/giac.h>

#include <cstring>

#include "tamkern/GiacSession.h"
#include "tamkern/Messages.h"
#include "tamkern/TextLayout.h"

namespace tamkern {

namespace {

giac::gen tamInput(const giac::gen& args, const giac::context* ctx)
{
    GiacSession& s = GiacSession::current();
    Answer a = s.ask(Question::Input,
                     msgSendInput(s.job().client, s.job().cid, false, giacText(args, ctx)));
    if (a.canceled)
        throw Failure("input canceled");
    return s.evalAnswer(a.text, "input");
}

giac::gen tamTextInput(const giac::gen& args, const giac::context* ctx)
{
    GiacSession& s = GiacSession::current();
    Answer a = s.ask(Question::TextInput,
                     msgSendInput(s.job().client, s.job().cid, true, giacText(args, ctx)));
    if (a.canceled)
        throw Failure("input canceled");
    return giac::string2gen(a.text, false);
}

giac::gen tamSystem(const giac::gen& args, const giac::context* ctx)
{
    GiacSession& s = GiacSession::current();
    Answer a = s.ask(Question::System, msgValue("system", s.job().client, giacText(args, ctx)));
    return giac::gen(static_cast<long long>(a.value));
}

giac::gen tamCallback(const giac::gen& args, const giac::context* ctx)
{
    GiacSession& s = GiacSession::current();
    Answer a = s.ask(Question::Callback,
                     msgCallback(s.job().client, s.job().cid, "utf8", trimmed(args.print(ctx))));
    if (a.canceled)
        throw Failure("callback failed");
    return s.evalAnswer(a.text, "callback result");
}

// Kept so that the registrations stay reachable; a container would be
// destroyed at exit before the leak check runs.
giac::unary_function_ptr* gRegistered[3];

} // namespace

// Giac keeps pointers to the registered functions for the life of the
// process, so they are never freed.
void registerFrontEndFunctions()
{
    static bool done = false;
    if (done)
        return;
    done = true;
    struct Def {
        giac::gen (*fn)(const giac::gen&, const giac::context*);
        const char* name;
    };
    // Constructing the pointer with a parser token registers the name.
    std::size_t n = 0;
    for (const Def& d :
         {Def{tamTextInput, "textinput"}, Def{tamSystem, "system"}, Def{tamCallback, "callback"}}) {
        auto* ev = new giac::unary_function_eval(0, d.fn, d.name);
        gRegistered[n++] = new giac::unary_function_ptr(ev, 0, 1);
    }
    // input is a parser keyword and cannot be re-registered; Giac routes it
    // through its table of interactive functions instead (entry 0).
    static giac::gen_op_context interactive[10] = {tamInput, nullptr, nullptr, nullptr, nullptr,
                                                   nullptr,  nullptr, nullptr, nullptr, nullptr};
    giac::interactive_op_tab = interactive;
}

bool isHelpCall(const giac::gen& g)
{
    if (g.type != giac::_SYMB)
        return false;
    const char* fn = g._SYMBptr->sommet.ptr()->s;
    return fn && (std::strcmp(fn, "findhelp") == 0 || std::strcmp(fn, "help") == 0);
}

} // namespace tamkern
