// The kernel's side of the wire: one XML element per message, no
// declaration and no root (the client injects its own root element).
#ifndef TAMKERN_MESSAGES_H
#define TAMKERN_MESSAGES_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tamkern {

// Appends text as XML character data or attribute content: the five markup
// characters become entities, line ends and tabs become character references
// (so that they survive attribute normalisation), other control characters
// are dropped and invalid UTF-8 becomes U+FFFD, because a single bad byte
// would stop the client's parser for good.
void appendEscaped(std::string& out, std::string_view text);
std::string escaped(std::string_view text);

// Appends <mcode format="F">base64 of the zlib stream of bytes</mcode>.
void appendMCode(std::string& out, std::string_view format, std::string_view bytes);

// Decodes the base64 text of an mcode element and inflates it. false when the
// data is not a complete zlib stream or inflates to more than MaxPayload;
// bytes then holds what inflated (at most MaxPayload).
bool decodeMCode(std::string_view base64, std::string& bytes);
constexpr std::size_t MaxPayload = std::size_t(16) << 20;

// The same with a limit of the caller's, and a word on what went wrong.
// The work done is bounded by the limit, not by the size of the text:
// decoding stops as soon as the limit is passed.
enum class Decoded { Whole, TooLarge, Damaged };
Decoded decodeMCode(std::string_view base64, std::string& bytes, std::size_t limit);

// A message under construction: <name cl="N" ...> with attributes appended
// in order, then either closed empty or given content.
class Message {
public:
    // cl < 0 writes no cl attribute (only quit goes without one).
    Message(const char* name, long cl);
    Message& attr(const char* name, std::string_view value);
    Message& attr(const char* name, long long value);
    // Ends the start tag; content follows with raw(), text() or mcode().
    Message& open();
    Message& raw(std::string_view xml);
    Message& text(std::string_view format, std::string_view content);
    Message& mcode(std::string_view format, std::string_view bytes);
    // Closes the element (empty element if open() was not called).
    std::string finish();

private:
    std::string out_;
    const char* name_;
    bool open_ = false;
};

// The messages the kernel sends.
std::string msgOutputText(long cl, long long cid, std::string_view type, std::string_view format,
                          std::string_view text);
std::string msgOutputData(long cl, long long cid, std::string_view type, std::string_view format,
                          std::string_view bytes);
std::string msgFinished(long cl, long long cid);
std::string msgEmpty(const char* name, long cl); // ready, sendinit
std::string msgValue(const char* name, long cl, std::string_view value);
std::string msgValue(const char* name, long cl, long long value);
std::string msgStatus(long cl, long long used, long long res, long long sec);
std::string msgCompletion(long cl, std::string_view list, std::string_view pref);
std::string msgFormats(const char* name, long cl, std::string_view type,
                       const std::vector<std::string>& formats);
std::string msgSendInput(long cl, long long cid, bool textInput, std::string_view prompt);
std::string msgPlotFile(long cl, long long cid, std::string_view name);
std::string msgCallback(long cl, long long cid, std::string_view format, std::string_view bytes);
std::string msgQuit();

} // namespace tamkern

#endif
