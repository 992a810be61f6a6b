#include "xml/Parser.h"

#include <cstdlib>
#include <cstring>

namespace Xml {

namespace {

// Counted allocations carry the counter they were charged to in front of
// them, so that a free, whenever it happens, credits the right parser. The
// counter to charge new blocks to is set around every call into expat.
thread_local std::size_t* tCounter = nullptr;

struct alignas(16) Head {
    std::size_t* counter;
    std::size_t size;
};

// What a block costs besides its bytes: its head here, and the allocator's
// own header and rounding, roughly. expat makes many small blocks.
const std::size_t BlockOverhead = sizeof(Head) + 16;

void* countedMalloc(std::size_t n)
{
    Head* h = static_cast<Head*>(std::malloc(sizeof(Head) + n));
    if (!h)
        return nullptr;
    h->counter = tCounter;
    h->size = n + BlockOverhead;
    if (h->counter)
        *h->counter += h->size;
    return h + 1;
}

void* countedRealloc(void* p, std::size_t n)
{
    if (!p)
        return countedMalloc(n);
    Head* h = static_cast<Head*>(p) - 1;
    std::size_t* counter = h->counter;
    std::size_t old = h->size;
    Head* moved = static_cast<Head*>(std::realloc(h, sizeof(Head) + n));
    if (!moved)
        return nullptr;
    moved->size = n + BlockOverhead;
    if (counter)
        *counter = *counter - old + moved->size;
    return moved + 1;
}

void countedFree(void* p)
{
    if (!p)
        return;
    Head* h = static_cast<Head*>(p) - 1;
    if (h->counter)
        *h->counter -= h->size;
    std::free(h);
}

const XML_Memory_Handling_Suite kCounted = {countedMalloc, countedRealloc, countedFree};

// While it lives, what expat allocates is charged to counter (null: nothing
// changes).
class Charging {
public:
    explicit Charging(std::size_t* counter) : saved_(tCounter), on_(counter != nullptr)
    {
        if (on_)
            tCounter = counter;
    }
    ~Charging()
    {
        if (on_)
            tCounter = saved_;
    }
    Charging(const Charging&) = delete;
    Charging& operator=(const Charging&) = delete;

private:
    std::size_t* saved_;
    bool on_;
};

} // namespace

Parser::Parser(Handler* handler, bool ns, const char* encoding, bool countMemory)
    : useNs_(ns), counted_(countMemory)
{
    if (countMemory) {
        const XML_Char sep[] = {NsSeparator, '\0'};
        Charging charging(&memory_);
        parser_ = XML_ParserCreate_MM(encoding, &kCounted, ns ? sep : nullptr);
    } else {
        parser_ = ns ? XML_ParserCreateNS(encoding, NsSeparator) : XML_ParserCreate(encoding);
    }
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
        XML_ParserFree(parser_); // counted blocks credit memory_ themselves
}

bool Parser::parse(const char* data, int len, bool isFinal)
{
    Charging charging(counted_ ? &memory_ : nullptr);
    if (parser_ && XML_Parse(parser_, data, len, isFinal) != XML_STATUS_ERROR)
        return true;
    if (handler_)
        handler_->cleanup();
    return false;
}

long long Parser::eventEnd() const
{
    if (!parser_)
        return -1;
    XML_Index at = XML_GetCurrentByteIndex(parser_);
    return at < 0 ? -1 : static_cast<long long>(at) + XML_GetCurrentByteCount(parser_);
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
