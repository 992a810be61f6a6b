#include "xml/SimpleDataHandler.h"

#include <cassert>

namespace Xml {

namespace {

// Makes room for extra bytes plus a terminator. Grows at least by doubling so
// that text arriving in many small chunks is not copied over and over.
void reserveFor(std::vector<char>& v, std::size_t extra)
{
    const std::size_t need = v.size() + extra + 1;
    if (need > v.capacity()) {
        const std::size_t doubled = v.capacity() * 2;
        v.reserve(need > doubled ? need : doubled);
    }
}

} // namespace

SimpleDataHandler::~SimpleDataHandler() = default;

void SimpleDataHandler::characterData(const char* data, int len)
{
    if (wantData_)
        onCharacterData(data, len);
}

void SimpleDataHandler::onCharacterData(const char* data, int len)
{
    if (len <= 0)
        return;
    reserveFor(text_, static_cast<std::size_t>(len));
    text_.insert(text_.end(), data, data + len);
}

void SimpleDataHandler::appendTextData(const char* data, unsigned long len)
{
    reserveFor(text_, len);
    for (unsigned long i = 0; i < len; ++i) {
        if (data[i] != '\r')
            text_.push_back(data[i]);
    }
}

void SimpleDataHandler::onEndElement(int nsId, int id)
{
    if (wantData_)
        text_.push_back('\0');
    inEnd_ = true;
    endElement(nsId, id);
    inEnd_ = false;
    if (wantData_) {
        wantData_ = false;
        text_.clear(); // keeps the capacity for the next element
    }
}

void SimpleDataHandler::wantData()
{
    wantData_ = true;
}

const char* SimpleDataHandler::data() const
{
    // Nothing ever collected means no buffer: report null, not a dangling
    // or empty pointer.
    return text_.capacity() ? text_.data() : nullptr;
}

void SimpleDataHandler::trimTextData()
{
    assert(!text_.empty() && "trimTextData needs the terminator added by onEndElement");
    text_.pop_back();
    while (!text_.empty()) {
        const unsigned char c = static_cast<unsigned char>(text_.back());
        if (c < 1 || c > 32)
            break;
        text_.pop_back();
    }
    text_.push_back('\0');
}

} // namespace Xml
