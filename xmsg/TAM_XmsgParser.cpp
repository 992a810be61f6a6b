#include "xmsg/TAM_XmsgParser.h"

#include "kernel/TAM_Limits.h"

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

TAM_XmsgParser* self(void* userData)
{
    return static_cast<TAM_XmsgParser*>(static_cast<Xml::Parser*>(userData));
}

} // namespace

void TAM_XmsgParser::stop(void* userData)
{
    TAM_XmsgParser* p = self(userData);
    p->stopped_ = true;
    XML_StopParser(p->parser_, XML_TRUE);
}

XML_Index TAM_XmsgParser::eventEnd() const
{
    return XML_GetCurrentByteIndex(parser_) + XML_GetCurrentByteCount(parser_);
}

bool TAM_XmsgParser::overSize(XML_Index end)
{
    if (end - boundary_ <= TAM_Limits::get(TAM_LIMIT_MESSAGE_BYTES))
        return false;
    endStream(TAM_LIMIT_MESSAGE_BYTES);
    return true;
}

void TAM_XmsgParser::endStream(int which)
{
    static_cast<TAM_XmsgParserHandler*>(handler_)->note_over_limit(which);
    ended_ = true;
    stopped_ = true;
    XML_StopParser(parser_, XML_FALSE);
}

// The bounds on depth and size are checked before the handler sees the
// event, so that where a stream ends does not depend on how it was cut
// into chunks.
void XMLCALL TAM_XmsgParser::guardedStart(void* userData, const char* name, const char** atts)
{
    // expat checks for a stop after every token, and a start tag is the
    // first event of its token: nothing can come here after a stop.
    TAM_XmsgParser* p = self(userData);
    if (++p->depth_ - 1 > TAM_Limits::get(TAM_LIMIT_DEPTH))
        return p->endStream(TAM_LIMIT_DEPTH);
    if (p->depth_ == 1)
        p->boundary_ = p->eventEnd(); // the injected root counts for nobody
    else if (p->overSize(p->eventEnd()))
        return;
    try {
        startHdl(userData, name, atts);
    } catch (...) {
        stop(userData);
    }
}

void XMLCALL TAM_XmsgParser::guardedEnd(void* userData, const char* name)
{
    TAM_XmsgParser* p = self(userData);
    // expat may still report an empty element's end after a stop in its
    // start; the message that threw gets no further events.
    if (!p->stopped_) {
        const XML_Index end = p->eventEnd();
        if (p->overSize(end))
            return;
        try {
            endHdl(userData, name);
        } catch (...) {
            stop(userData);
        }
        // A message has ended: the next one counts from here.
        if (p->depth_ == 2)
            p->boundary_ = end;
    }
    --p->depth_;
}

void XMLCALL TAM_XmsgParser::guardedChars(void* userData, const char* data, int len)
{
    // A run of text is a token of its own, like a start tag. Text between
    // messages belongs to none of them.
    TAM_XmsgParser* p = self(userData);
    const XML_Index end = p->eventEnd();
    if (p->depth_ <= 1)
        p->boundary_ = end;
    else if (p->overSize(end))
        return;
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
    auto* handler = static_cast<TAM_XmsgParserHandler*>(handler_);
    // After a bound was crossed the stream is over, as after malformed
    // input: every chunk fails.
    if (ended_) {
        if (handler)
            handler->cleanup();
        return false;
    }
    // The constructor takes only this kind of handler.
    if (handler)
        handler->beforeChunk();
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
    // the chunk, which may throw again. A bound crossed inside the handler
    // ends the stream instead.
    while (parser_ && suspended(parser_)) {
        ok = false;
        if (handler_)
            handler_->cleanup();
        stopped_ = false;
        if (handler && handler->over_limit()) {
            ended_ = true;
            break;
        }
        if (XML_ResumeParser(parser_) == XML_STATUS_ERROR) {
            if (handler_)
                handler_->cleanup();
            break;
        }
    }
    // A token not yet complete (a start tag, a comment) is held by expat:
    // the bound counts it before it grows any further.
    fed_ += len > 0 ? len : 0;
    if (!ended_ && parser_ && fed_ - boundary_ > TAM_Limits::get(TAM_LIMIT_MESSAGE_BYTES)) {
        endStream(TAM_LIMIT_MESSAGE_BYTES);
        if (handler_)
            handler_->cleanup();
        ok = false;
    }
    if (ended_)
        ok = false;
    return ok;
}
