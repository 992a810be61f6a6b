#ifndef TAMIX_XML_PARSER_H
#define TAMIX_XML_PARSER_H

#include <expat.h>

#include <cstddef>
#include <vector>

#include "xml/Handler.h"

namespace Xml {

// One expat parser bound to one handler (not owned). Feed it with parse() as
// data arrives; a parser that failed stays failed.
class Parser {
public:
    // ns: namespace processing (names arrive as URI + local name).
    // encoding overrides the document's own declaration; may be null.
    // countMemory: keep count of the bytes expat holds for this parser (its
    // buffers, open elements, names seen), for readers of untrusted streams
    // that must bound them; see memoryUsed().
    Parser(Handler* handler, bool ns, const char* encoding, bool countMemory = false);
    virtual ~Parser();

    Parser(const Parser&) = delete;
    Parser& operator=(const Parser&) = delete;

    // Hands len bytes to expat; events fire during the call that completes
    // them. false (after calling the handler's cleanup()) on malformed input
    // or when there is no expat parser.
    bool parse(const char* data, int len, bool isFinal);

    // expat's error code; -1 without an expat parser.
    int errorCode() const;
    // Bytes expat holds for this parser now; 0 unless counted.
    std::size_t memoryUsed() const { return memory_; }
    // During a handler call: the position in the stream, counted from the
    // first byte parsed, just after the markup or text that the event
    // reports; -1 outside of one.
    long long eventEnd() const;

    // expat's current position; 0 without an expat parser.
    unsigned long line() const;
    unsigned long column() const;

    // Splits an expat name at the namespace separator into nameBuf_. ns is
    // null when there is no namespace part. Both stay valid until the next
    // split.
    void splitName(const char* name, const char*& ns, const char*& local);

    // Namespace URI and local name are joined by this byte in expat names.
    static constexpr char NsSeparator = '\x01';

protected:
    static void XMLCALL startHdl(void* userData, const char* name, const char** atts);
    static void XMLCALL endHdl(void* userData, const char* name);
    static void XMLCALL charHdl(void* userData, const char* data, int len);

    // Name as handed to the handler: split when namespaces are on, else as is.
    void handlerName(const char* name, const char*& ns, const char*& local);

    XML_Parser parser_ = nullptr;  // owned; null if expat failed
    Handler* handler_ = nullptr;   // not owned
    std::vector<char> nameBuf_;    // scratch for split names; only grows
    std::vector<Attribute> attrs_; // attributes of the current start tag
    bool useNs_ = false;
    bool counted_ = false;
    std::size_t memory_ = 0; // what expat holds, when counted
};

} // namespace Xml

#endif
