// Reading the clients' request stream: one XML element per request, no root
// (one is injected), no declaration.
#ifndef TAMKERN_REQUESTS_H
#define TAMKERN_REQUESTS_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "xml/Handler.h"
#include "xml/Parser.h"

namespace tamkern {

struct Request {
    enum Kind {
        NewClient,
        Init,
        Cmd,
        Complete,
        DbgCmd,
        SysResult,
        Input,
        TextInput,
        CallResult,
        TextWidth,
        PrettyPrint,
        AbbreviateOutput,
        Format,
        SendStatus,
        Stop,
        Quit
    };
    Kind kind = Cmd;
    bool hasCl = false;  // the request named a client
    bool clValid = true; // ... as a number
    long cl = -1;
    long long cid = 0;
    std::string name, frame, features; // newclient
    std::string type, value;           // format; value of the value attribute
    bool canceled = false;             // input, textinput
    bool error = false;                // callresult
    bool noHistory = false;            // cmd: flags="no_history"
    std::vector<std::string> args;     // init
    bool hasText = false;              // a text child (cmd, input) or content (textinput)
    std::string text;
    bool hasPayload = false; // an mcode child (cmd, callresult)
    std::string payloadFormat;
    std::string payloadBase64;
};

const char* requestName(Request::Kind kind);

// Parses one connection's stream and hands each complete request to a sink.
class RequestReader : private Xml::Handler {
public:
    using Sink = std::function<void(Request&)>;
    explicit RequestReader(Sink sink);
    ~RequestReader() override;

    // Feeds bytes; false once the stream is malformed or broke a limit, with
    // the reason in fault(). A failed reader stays failed.
    bool feed(const char* data, int len);
    const std::string& fault() const { return fault_; }
    // True while a request or a skipped element has started but not ended,
    // or bytes have come after the last complete piece of markup or text (a
    // tag cut short). False once failed.
    bool midRequest() const
    {
        return fault_.empty() && (depth_ > 1 || ignoringElement() || settled_ < fed_);
    }
    // The memory this reader holds for the request in progress: the XML
    // parser's own and the request's texts and values.
    std::size_t bytes() const { return parser_->memoryUsed() + requestBytes_; }

    // Bytes of text, payload, start-up arguments and attribute values kept
    // for one request at most.
    static const std::size_t MaxRequest = 16u << 20;
    // Bytes a single piece of markup (a tag with its attributes, a comment,
    // a skipped element) may span: expat holds such a piece whole and scans
    // it again with every chunk, and keeps some fifty bytes for every element
    // open in a skipped one, so memory and time would grow without end.
    static const std::size_t MaxMarkup = 1u << 20;
    // Open elements at most: a request is three deep, and the parser keeps
    // some hundred bytes for every open one.
    static const int MaxDepth = 64;
    // Start-up arguments at most: each one is stored, and each unknown one
    // costs the worker a warning to send.
    static const std::size_t MaxArgs = 1024;

private:
    void startElement(int nsId, int id, const std::vector<Xml::Attribute>& attrs) override;
    void startRequest(int id, const std::vector<Xml::Attribute>& attrs);
    void startPart(int id, const std::vector<Xml::Attribute>& attrs);
    bool charge(std::size_t n);
    void endText();
    void endElement(int nsId, int id) override;
    void characterData(const char* data, int len) override;
    bool elementName(const char* ns, const char* name, int& nsId, int& id) override;
    bool attributeName(const char* ns, const char* name, int& nsId, int& id) override;
    void endIgnoreElement() override;
    void settle();

    Sink sink_;
    std::unique_ptr<Xml::Parser> parser_;
    std::string fault_;
    int depth_ = 0;         // open known elements, the injected root included
    std::size_t quiet_ = 0; // bytes fed since the last event
    long long fed_ = 0;     // bytes fed in all
    long long settled_ = 0; // the end of the last event
    bool inRequest_ = false;
    Request req_;
    std::size_t requestBytes_ = 0;    // kept for req_
    std::string* collect_ = nullptr;  // where character data goes now
    std::vector<std::string> pieces_; // ... until its element ends
    static const std::size_t TextPiece = 1u << 20;
};

} // namespace tamkern

#endif
