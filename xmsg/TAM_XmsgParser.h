// The parser of one kernel process's message stream. The stream has no
// enclosing document, so init() opens a root element that never ends; every
// chunk read from the kernel then goes to saveParse(), which never lets an
// exception out.
#ifndef TAMIX_XMSG_TAM_XMSGPARSER_H
#define TAMIX_XMSG_TAM_XMSGPARSER_H

#include "xml/Parser.h"
#include "xmsg/TAM_XmsgParserHandler.h"

class TAM_XmsgParser : public Xml::Parser {
public:
    // Namespace processing off, input taken as UTF-8 whatever it declares.
    // The handler is not owned and must outlive the parser.
    explicit TAM_XmsgParser(TAM_XmsgParserHandler* handler);
    ~TAM_XmsgParser() override;

    // Feeds the root start tag; call once before the first kernel byte.
    virtual bool init();

    // parse(data, len, false). An exception raised while the handler works on
    // the chunk is caught: the handler's cleanup() runs, the rest of the
    // chunk is still parsed, and the result is false. Malformed input makes
    // this and every later call fail, and so does a message over one of the
    // bounds of TAM_set_limit (the handler's over_limit() then says which).
    bool saveParse(const char* data, int len);

private:
    // Where the event being reported ends, counted in bytes of the stream.
    XML_Index eventEnd() const;
    // Whether the event being reported, or the bytes fed so far, take the
    // message beyond its bytes; ends the stream if so.
    bool overSize(XML_Index end);
    // Ends the stream for good: which bound was crossed goes to the handler
    // and expat stops at once (no event of this chunk follows).
    void endStream(int which);
    // expat callbacks that keep exceptions out of expat (see the .cpp).
    static void XMLCALL guardedStart(void* userData, const char* name, const char** atts);
    static void XMLCALL guardedEnd(void* userData, const char* name);
    static void XMLCALL guardedChars(void* userData, const char* data, int len);
    // Suspends the parser after a callback caught an exception.
    static void stop(void* userData);

    // A callback has suspended the parser in this chunk: the events expat
    // still reports before it returns are dropped. (Kept here because asking
    // expat costs a call per end tag.)
    bool stopped_ = false;
    // A bound was crossed: the stream has ended, nothing is parsed any more.
    bool ended_ = false;
    // Elements open, the injected root counting 1.
    long depth_ = 0;
    // Bytes handed to expat so far, and where the last message (or the text
    // after it) ended: what lies between counts against the message bound.
    XML_Index fed_ = 0;
    XML_Index boundary_ = 0;
};

#endif
