// Giac draws plots as SVG for browsers, which forgive what an XML parser
// does not: attributes without a blank between them, markup characters and
// unknown entities in the text of labels. The kernel hands out well-formed
// files only.
#ifndef TAMKERN_SVG_H
#define TAMKERN_SVG_H

#include <string>
#include <string_view>

namespace tamkern {

// The drawing with a blank between attributes, the text of <text> elements
// escaped, references other than XML's own escaped and control characters
// dropped. The rest is left as it is.
std::string repairSvg(std::string_view svg);

// text is one well-formed XML document.
bool isWellFormedXml(std::string_view text);

} // namespace tamkern

#endif
