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
    // this and every later call fail.
    bool saveParse(const char* data, int len);

private:
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
};

#endif
