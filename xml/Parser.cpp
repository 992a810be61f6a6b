#include "xml/Parser.h"

#include <cstring>

namespace Xml {

Parser::Parser(Handler* handler, bool ns, const char* encoding) : useNs_(ns)
{
    parser_ = ns ? XML_ParserCreateNS(encoding, NsSeparator) : XML_ParserCreate(encoding);
    if (!parser_)
        return; // stays without parser and without handler
    handler_ = handler;
    XML_SetUserData(parser_, this);
    XML_SetElementHandler(parser_, &Parser::startHdl, &Parser::endHdl);
    XML_SetCharacterDataHandler(parser_, &Parser::charHdl);
}

Parser::~Parser()
{
    if (parser_)
        XML_ParserFree(parser_);
}

bool Parser::parse(const char* data, int len, bool isFinal)
{
    if (parser_ && XML_Parse(parser_, data, len, isFinal) != XML_STATUS_ERROR)
        return true;
    if (handler_)
        handler_->cleanup();
    return false;
}

int Parser::errorCode() const
{
    return parser_ ? static_cast<int>(XML_GetErrorCode(parser_)) : -1;
}

unsigned long Parser::line() const
{
    return parser_ ? static_cast<unsigned long>(XML_GetCurrentLineNumber(parser_)) : 0;
}

unsigned long Parser::column() const
{
    return parser_ ? static_cast<unsigned long>(XML_GetCurrentColumnNumber(parser_)) : 0;
}

void Parser::splitName(const char* name, const char*& ns, const char*& local)
{
    const std::size_t len = std::strlen(name);
    // resize() never gives capacity back, so after the longest name so far
    // this does not allocate.
    nameBuf_.resize(len + 1);
    char* buf = nameBuf_.data();
    std::size_t localStart = 0;
    bool sawSeparator = false;
    for (std::size_t i = 0; i < len; ++i) {
        if (name[i] == NsSeparator) {
            buf[i] = '\0';
            localStart = i + 1;
            sawSeparator = true;
        } else {
            buf[i] = name[i];
        }
    }
    buf[len] = '\0';
    ns = sawSeparator ? buf : nullptr;
    local = buf + localStart;
}

void Parser::handlerName(const char* name, const char*& ns, const char*& local)
{
    if (useNs_) {
        splitName(name, ns, local);
    } else {
        ns = nullptr;
        local = name;
    }
}

void XMLCALL Parser::startHdl(void* userData, const char* name, const char** atts)
{
    Parser* self = static_cast<Parser*>(userData);
    Handler* h = self->handler_;
    if (!h)
        return;
    if (h->ignoringElement()) {
        h->ignoreElement();
        return;
    }

    const char* ns;
    const char* local;
    self->handlerName(name, ns, local);
    // Handlers need not set nsId (the kernel message handler sets only id), so
    // start both at 0 rather than leaving them indeterminate.
    int nsId = 0;
    int id = 0;
    if (!h->elementName(ns, local, nsId, id)) {
        h->ignoreElement();
        return;
    }

    self->attrs_.clear();
    for (const char** a = atts; a && a[0]; a += 2) {
        self->handlerName(a[0], ns, local);
        int attrNsId = 0; // same reasoning as for the element ids
        int attrId = 0;
        if (h->attributeName(ns, local, attrNsId, attrId)) {
            // Field by field: a whole record built on the stack and copied
            // costs a stalled load per attribute.
            Attribute& at = self->attrs_.emplace_back();
            at.nsId = attrNsId;
            at.id = attrId;
            at.value = a[1];
        }
    }
    h->startElement(nsId, id, self->attrs_);
}

void XMLCALL Parser::endHdl(void* userData, const char* name)
{
    Parser* self = static_cast<Parser*>(userData);
    Handler* h = self->handler_;
    if (!h)
        return;
    if (h->ignoringElement()) {
        h->endIgnoreElement();
        return;
    }

    const char* ns;
    const char* local;
    self->handlerName(name, ns, local);
    int nsId = 0; // see startHdl
    int id = 0;
    if (h->elementName(ns, local, nsId, id))
        h->onEndElement(nsId, id);
}

void XMLCALL Parser::charHdl(void* userData, const char* data, int len)
{
    Parser* self = static_cast<Parser*>(userData);
    Handler* h = self->handler_;
    if (h && !h->ignoringElement())
        h->characterData(data, len);
}

} // namespace Xml
