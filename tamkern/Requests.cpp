#include "tamkern/Requests.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tamkern/Capture.h"

namespace tamkern {

namespace {

// Element ids: the requests first, in Request::Kind order, then the parts.
enum Element {
    E_newclient,
    E_init,
    E_cmd,
    E_complete,
    E_dbgcmd,
    E_sysresult,
    E_input,
    E_textinput,
    E_callresult,
    E_textwidth,
    E_prettyprint,
    E_abbreviateoutput,
    E_format,
    E_sendstatus,
    E_stop,
    E_quit,
    E_root,
    E_iarg,
    E_text,
    E_mcode
};
const char* const kElements[] = {"newclient",       "init",       "cmd",         "complete",
                                 "dbgcmd",          "sysresult",  "input",       "textinput",
                                 "callresult",      "textwidth",  "prettyprint", "abbreviateoutput",
                                 "format",          "sendstatus", "stop",        "quit",
                                 "tamkernRequests", "iarg",       "text",        "mcode"};

enum Attr {
    A_cl,
    A_cid,
    A_name,
    A_frame,
    A_features,
    A_value,
    A_type,
    A_canceled,
    A_error,
    A_format,
    A_flags
};
const char* const kAttrs[] = {"cl",   "cid",      "name",  "frame",  "features", "value",
                              "type", "canceled", "error", "format", "flags"};

template <std::size_t N>
int lookup(const char* const (&names)[N], const char* name)
{
    for (std::size_t i = 0; i < N; ++i)
        if (std::strcmp(names[i], name) == 0)
            return static_cast<int>(i);
    return -1;
}

bool parseLong(const char* s, long long& out)
{
    if (!s || !*s)
        return false;
    errno = 0;
    char* end = nullptr;
    long long v = std::strtoll(s, &end, 10);
    if (errno != 0 || end == s || *end != '\0')
        return false;
    out = v;
    return true;
}

bool flag(const char* s)
{
    long long v = 0;
    return parseLong(s, v) && v != 0;
}

// A blank-separated word list holds word.
bool hasWord(const char* list, const char* word)
{
    std::size_t n = std::strlen(word);
    for (const char* p = list; (p = std::strstr(p, word)) != nullptr; p += n) {
        bool starts = p == list || p[-1] == ' ';
        bool ends = p[n] == '\0' || p[n] == ' ';
        if (starts && ends)
            return true;
    }
    return false;
}

const char kRoot[] = "<tamkernRequests>";

} // namespace

const char* requestName(Request::Kind kind)
{
    return kElements[kind];
}

RequestReader::RequestReader(Sink sink) : sink_(std::move(sink))
{
    parser_ = std::make_unique<Xml::Parser>(static_cast<Xml::Handler*>(this), false, "UTF-8", true);
    feed(kRoot, static_cast<int>(sizeof kRoot - 1));
}

RequestReader::~RequestReader() = default;

bool RequestReader::feed(const char* data, int len)
{
    if (!fault_.empty())
        return false;
    quiet_ += static_cast<std::size_t>(len);
    fed_ += len;
    if (!parser_->parse(data, len, false)) {
        if (fault_.empty()) {
            char buf[160];
            std::snprintf(buf, sizeof buf,
                          "malformed request stream (XML error %d at line %lu column %lu)",
                          parser_->errorCode(), parser_->line(), parser_->column());
            fault_ = buf;
        }
        return false;
    }
    if (quiet_ > MaxMarkup && fault_.empty())
        fault_ = "a piece of markup larger than the limit";
    return fault_.empty();
}

// Notes where the event being reported ends.
void RequestReader::settle()
{
    long long end = parser_->eventEnd();
    if (end > settled_)
        settled_ = end;
}

void RequestReader::endIgnoreElement()
{
    Xml::Handler::endIgnoreElement();
    settle();
}

bool RequestReader::elementName(const char*, const char* name, int&, int& id)
{
    settle();
    id = lookup(kElements, name);
    if (id >= 0)
        return true;
    id = 0;
    if (depth_ == 1 && fault_.empty())
        klog("unknown request <%.60s> skipped", name);
    return false;
}

bool RequestReader::attributeName(const char*, const char* name, int&, int& id)
{
    id = lookup(kAttrs, name);
    if (id >= 0)
        return true;
    id = 0;
    return false;
}

void RequestReader::startElement(int, int id, const std::vector<Xml::Attribute>& attrs)
{
    endText();
    quiet_ = 0;
    ++depth_;
    if (depth_ > MaxDepth && fault_.empty())
        fault_ = "requests nested too deeply";
    if (!fault_.empty() || depth_ == 1) // the injected root
        return;
    if (depth_ == 2 && id > E_quit)
        klog("<%s> outside a request skipped", kElements[id]);
    else if (depth_ == 2)
        startRequest(id, attrs);
    else if (inRequest_ && depth_ == 3)
        startPart(id, attrs);
}

// Counts n more bytes kept for the request; false (the reader failed) past
// the limit.
bool RequestReader::charge(std::size_t n)
{
    requestBytes_ += n;
    if (requestBytes_ <= MaxRequest)
        return true;
    if (fault_.empty())
        fault_ = std::string("<") + kElements[req_.kind] + "> request larger than the limit";
    pieces_.clear();
    collect_ = nullptr;
    return false;
}

// Joins the pieces of the text that ends into its place, giving each piece
// back as it goes: the text is held about once.
void RequestReader::endText()
{
    if (collect_ && pieces_.size() == 1 && collect_->empty()) {
        collect_->swap(pieces_.front());
    } else if (collect_ && !pieces_.empty()) {
        std::size_t total = collect_->size();
        for (const std::string& p : pieces_)
            total += p.size();
        collect_->reserve(total);
        for (std::string& p : pieces_) {
            collect_->append(p);
            std::string().swap(p);
        }
    }
    pieces_.clear();
    collect_ = nullptr;
}

void RequestReader::startRequest(int id, const std::vector<Xml::Attribute>& attrs)
{
    inRequest_ = true;
    req_ = Request();
    req_.kind = static_cast<Request::Kind>(id);
    requestBytes_ = 0;
    for (const Xml::Attribute& a : attrs) {
        if (!charge(std::strlen(a.value)))
            return;
        switch (a.id) {
        case A_cl: {
            long long v = 0;
            req_.hasCl = true;
            req_.clValid = parseLong(a.value, v);
            req_.cl = req_.clValid ? static_cast<long>(v) : -1;
            break;
        }
        case A_cid: {
            long long v = 0;
            if (parseLong(a.value, v))
                req_.cid = v;
            break;
        }
        case A_name:
            req_.name = a.value;
            break;
        case A_frame:
            req_.frame = a.value;
            break;
        case A_features:
            req_.features = a.value;
            break;
        case A_value:
            req_.value = a.value;
            break;
        case A_type:
            req_.type = a.value;
            break;
        case A_canceled:
            req_.canceled = flag(a.value);
            break;
        case A_error:
            req_.error = flag(a.value);
            break;
        case A_flags:
            req_.noHistory = hasWord(a.value, "no_history");
            break;
        default:
            break;
        }
    }
    if (id == E_textinput) {
        req_.hasText = true;
        collect_ = &req_.text;
    }
}

void RequestReader::startPart(int id, const std::vector<Xml::Attribute>& attrs)
{
    switch (id) {
    case E_iarg:
        if (req_.kind != Request::Init)
            break;
        if (req_.args.size() >= MaxArgs) {
            fault_ = "<init> with more arguments than the limit";
            break;
        }
        for (const Xml::Attribute& a : attrs)
            if (a.id == A_value && charge(std::strlen(a.value)))
                req_.args.push_back(a.value);
        break;
    case E_text:
        if (req_.kind == Request::Cmd || req_.kind == Request::Input) {
            req_.hasText = true;
            req_.hasPayload = false;
            req_.text.clear();
            collect_ = &req_.text;
        }
        break;
    case E_mcode:
        if (req_.kind == Request::Cmd || req_.kind == Request::CallResult) {
            req_.hasPayload = true;
            req_.hasText = false;
            req_.payloadFormat.clear();
            for (const Xml::Attribute& a : attrs)
                if (a.id == A_format && charge(std::strlen(a.value)))
                    req_.payloadFormat = a.value;
            req_.payloadBase64.clear();
            collect_ = &req_.payloadBase64;
        }
        break;
    default:
        break;
    }
}

void RequestReader::endElement(int, int)
{
    settle();
    endText();
    quiet_ = 0;
    --depth_;
    if (depth_ == 1 && inRequest_) {
        inRequest_ = false;
        if (fault_.empty())
            sink_(req_);
        req_ = Request();
        requestBytes_ = 0;
    }
}

void RequestReader::characterData(const char* data, int len)
{
    settle();
    quiet_ = 0;
    if (!collect_ || !fault_.empty() || !charge(static_cast<std::size_t>(len)))
        return;
    // In pieces: a text that grew in one string would for a while take
    // twice its size, as a larger copy is made.
    if (pieces_.empty() || pieces_.back().size() >= TextPiece)
        pieces_.emplace_back();
    pieces_.back().append(data, static_cast<std::size_t>(len));
}

} // namespace tamkern
