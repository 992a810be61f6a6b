#include "xml/Handler.h"

namespace Xml {

Handler::~Handler() = default;

void Handler::cleanup()
{
}

void Handler::ignoreElement()
{
    ++ignoreDepth_;
}

bool Handler::ignoringElement() const
{
    return ignoreDepth_ != 0;
}

void Handler::endIgnoreElement()
{
    --ignoreDepth_;
}

void Handler::onEndElement(int nsId, int id)
{
    endElement(nsId, id);
}

} // namespace Xml
