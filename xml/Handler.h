#ifndef TAMIX_XML_HANDLER_H
#define TAMIX_XML_HANDLER_H

#include <cstdint>
#include <vector>

namespace Xml {

// One attribute of a known start tag, as the handler named it.
struct Attribute {
    int nsId;          // namespace id set by Handler::attributeName
    int id;            // attribute id set by Handler::attributeName
    const char* value; // UTF-8, NUL-terminated, entities resolved; valid only
                       // during the startElement call
};

// Receiver of parser events. Element and attribute names are never seen as
// strings after elementName/attributeName have turned them into integers;
// elements the handler does not know are skipped with all their content.
class Handler {
public:
    Handler() = default;
    virtual ~Handler();

    // A known element has started; attrs holds its known attributes in
    // document order.
    virtual void startElement(int nsId, int id, const std::vector<Attribute>& attrs) = 0;
    // A known element has ended.
    virtual void endElement(int nsId, int id) = 0;
    // len bytes of UTF-8 text, not NUL-terminated; one text run may arrive in
    // several chunks.
    virtual void characterData(const char* data, int len) = 0;
    // Translate an element name. false skips the element and everything in it.
    // ns is null when the name has no namespace part. ns and name are valid
    // only during the call.
    virtual bool elementName(const char* ns, const char* name, int& nsId, int& id) = 0;
    // Translate an attribute name. false drops this attribute only.
    virtual bool attributeName(const char* ns, const char* name, int& nsId, int& id) = 0;
    // Parsing failed. Default: nothing.
    virtual void cleanup();
    // Skip one more open element level.
    virtual void ignoreElement();
    // True while inside a skipped element.
    virtual bool ignoringElement() const;
    // One skipped level has ended.
    virtual void endIgnoreElement();
    // The parser's entry for a known end tag; subclasses wrap it to do work
    // around endElement. Default: endElement(nsId, id).
    virtual void onEndElement(int nsId, int id);

protected:
    std::uint64_t ignoreDepth_ = 0; // open elements being skipped
};

} // namespace Xml

#endif
