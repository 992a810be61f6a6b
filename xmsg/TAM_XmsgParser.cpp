#include "xmsg/TAM_XmsgParser.h"

namespace {

// The kernel's stream has no document element of its own; this one is
// opened before the first kernel byte and never closed.
const char kRootTag[] = "<TamixXMsgClientMessage>";

// Exceptions and expat.
//
// An exception must not unwind through expat: expat is C, and even where the
// unwinding happens to work, expat has not yet recorded how far it got, so
// the next chunk would parse the same bytes again and the message that threw
// would throw forever. The callbacks therefore catch everything themselves
// and suspend the parser; saveParse sees the suspension, runs the handler's
// cleanup() and resumes with the rest of the chunk. The state of the message
// that threw is dropped; the messages after it are delivered as usual. The
// parser suspends for no other reason, so the suspension itself is the
// record that something was thrown.

bool suspended(XML_Parser p)
{
    XML_ParsingStatus st;
    XML_GetParsingStatus(p, &st);
    return st.parsing == XML_SUSPENDED;
}

} // namespace

void TAM_XmsgParser::stop(void* userData)
{
    auto* self = static_cast<TAM_XmsgParser*>(static_cast<Xml::Parser*>(userData));
    self->stopped_ = true;
    XML_StopParser(self->parser_, XML_TRUE);
}

void XMLCALL TAM_XmsgParser::guardedStart(void* userData, const char* name, const char** atts)
{
    // expat checks for a stop after every token, and a start tag is the
    // first event of its token: nothing can come here after a stop.
    try {
        startHdl(userData, name, atts);
    } catch (...) {
        stop(userData);
    }
}

void XMLCALL TAM_XmsgParser::guardedEnd(void* userData, const char* name)
{
    // expat may still report an empty element's end after a stop in its
    // start; the message that threw gets no further events.
    if (static_cast<TAM_XmsgParser*>(static_cast<Xml::Parser*>(userData))->stopped_)
        return;
    try {
        endHdl(userData, name);
    } catch (...) {
        stop(userData);
    }
}

void XMLCALL TAM_XmsgParser::guardedChars(void* userData, const char* data, int len)
{
    // A run of text is a token of its own, like a start tag.
    try {
        charHdl(userData, data, len);
    } catch (...) {
        stop(userData);
    }
}

TAM_XmsgParser::TAM_XmsgParser(TAM_XmsgParserHandler* handler)
    : Xml::Parser(handler, false, "UTF-8")
{
    if (parser_) {
        XML_SetElementHandler(parser_, &TAM_XmsgParser::guardedStart, &TAM_XmsgParser::guardedEnd);
        XML_SetCharacterDataHandler(parser_, &TAM_XmsgParser::guardedChars);
    }
}

TAM_XmsgParser::~TAM_XmsgParser() = default;

bool TAM_XmsgParser::init()
{
    return saveParse(kRootTag, static_cast<int>(sizeof kRootTag - 1));
}

bool TAM_XmsgParser::saveParse(const char* data, int len)
{
    // The constructor takes only this kind of handler.
    if (handler_)
        static_cast<TAM_XmsgParserHandler*>(handler_)->beforeChunk();
    stopped_ = false;
    bool ok;
    try {
        ok = parse(data, len, false);
    } catch (...) {
        // Nothing below parse() is expected to throw past the guards; if it
        // does, the chunk is given up like a failed one.
        if (handler_)
            handler_->cleanup();
        return false;
    }
    // A handler threw: drop the message state and go on with the rest of
    // the chunk, which may throw again.
    while (parser_ && suspended(parser_)) {
        ok = false;
        if (handler_)
            handler_->cleanup();
        stopped_ = false;
        if (XML_ResumeParser(parser_) == XML_STATUS_ERROR) {
            if (handler_)
                handler_->cleanup();
            break;
        }
    }
    return ok;
}
