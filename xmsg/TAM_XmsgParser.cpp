#include "xmsg/TAM_XmsgParser.h"

namespace {

// The kernel's stream has no document element of its own; this one is
// opened before the first kernel byte and never closed.
const char kRootTag[] = "<TamixXMsgClientMessage>";

} // namespace

TAM_XmsgParser::TAM_XmsgParser(TAM_XmsgParserHandler* handler)
    : Xml::Parser(handler, false, "UTF-8")
{
}

TAM_XmsgParser::~TAM_XmsgParser() = default;

bool TAM_XmsgParser::init()
{
    return saveParse(kRootTag, static_cast<int>(sizeof kRootTag - 1));
}

bool TAM_XmsgParser::saveParse(const char* data, int len)
{
    try {
        return parse(data, len, false);
    } catch (...) {
        // Whatever the handler threw (a failed allocation, a client handler's
        // exception) must not reach the input loop; the half-read message is
        // dropped.
        if (handler_)
            handler_->cleanup();
        return false;
    }
}
