#ifndef TAMIX_XML_SIMPLEDATAHANDLER_H
#define TAMIX_XML_SIMPLEDATAHANDLER_H

#include <vector>

#include "xml/Handler.h"

namespace Xml {

// A handler base that collects the text of an element: call wantData() from
// startElement, read data() (optionally after trimTextData()) in endElement.
// Collection stops at the next end tag of any known element, so it serves
// elements without child elements.
class SimpleDataHandler : public Handler {
public:
    SimpleDataHandler() = default;
    ~SimpleDataHandler() override;

    void characterData(const char* data, int len) override;
    void onEndElement(int nsId, int id) override;

    // Appends len bytes unchanged to the collected text.
    virtual void onCharacterData(const char* data, int len);

    // Collect text for the current element.
    void wantData();
    // The collected text; NUL-terminated during endElement. Null while
    // nothing was ever collected.
    const char* data() const;
    // Removes trailing white space and control bytes (1..32); call from
    // endElement only, while the text carries its terminator.
    void trimTextData();
    // Appends len bytes, dropping every carriage return.
    void appendTextData(const char* data, unsigned long len);

protected:
    std::vector<char> text_;
    bool wantData_ = false;
    bool inEnd_ = false; // onEndElement is calling endElement
};

} // namespace Xml

#endif
