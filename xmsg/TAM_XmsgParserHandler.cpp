#include "xmsg/TAM_XmsgParserHandler.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "kernel/TAM_Limits.h"
#include "support/Tut.h"

namespace {

// Format names are protocol words; one longer than this is not a format.
constexpr std::size_t kMaxFormatName = 4096;

// ---- name lookup -----------------------------------------------------------
//
// The first character picks the few names that can match; each is then
// compared whole. Everything after this works with the integer ids.

struct Name {
    const char* name;
    int id;
};

using H = TAM_XmsgParserHandler;

// Each vocabulary sorted by first character, so that the names sharing one
// form a run that the index below finds at once.
constexpr Name kElements[] = {
    {"TamixXMsgClientMessage", H::ElRoot},
    {"abbreviateoutput", H::ElAbbreviateoutput},
    {"breakpoints", H::ElBreakpoints},
    {"breakpt", H::ElBreakpt},
    {"callback", H::ElCallback},
    {"callstack", H::ElCallstack},
    {"complete", H::ElComplete},
    {"completion", H::ElCompletion},
    {"csframe", H::ElCsframe},
    {"dbginfo", H::ElDbginfo},
    {"display", H::ElDisplay},
    {"dispvar", H::ElDispvar},
    {"finished", H::ElFinished},
    {"fmt", H::ElFmt},
    {"format", H::ElFormat},
    {"frame", H::ElFrame},
    {"help", H::ElHelp},
    {"mcode", H::ElMcode},
    {"output", H::ElOutput},
    {"plotfile", H::ElPlotfile},
    {"prettyprint", H::ElPrettyprint},
    {"quit", H::ElQuit},
    {"ready", H::ElReady},
    {"reset", H::ElReset},
    {"selformat", H::ElSelformat},
    {"senddbgcmd", H::ElSenddbgcmd},
    {"sendinit", H::ElSendinit},
    {"sendinput", H::ElSendinput},
    {"status", H::ElStatus},
    {"system", H::ElSystem},
    {"text", H::ElText},
    {"textwidth", H::ElTextwidth},
};

// Within a run, the names that every message carries come first.
constexpr Name kAttributes[] = {
    {"cl", H::AtCl},       {"cid", H::AtCid},   {"cmd", H::AtCmd},     {"cond", H::AtCond},
    {"depth", H::AtDepth}, {"enc", H::AtEnc},   {"expr", H::AtExpr},   {"format", H::AtFormat},
    {"fname", H::AtFname}, {"fpos", H::AtFpos}, {"level", H::AtLevel}, {"list", H::AtList},
    {"name", H::AtName},   {"pref", H::AtPref}, {"proc", H::AtProc},   {"res", H::AtRes},
    {"sec", H::AtSec},     {"type", H::AtType}, {"text", H::AtText},   {"used", H::AtUsed},
    {"value", H::AtValue},
};

// For every first character, where its run of names begins and ends.
struct Index {
    unsigned char begin[128];
    unsigned char end[128];
};

template <std::size_t N>
constexpr Index makeIndex(const Name (&names)[N])
{
    Index x{};
    for (std::size_t i = N; i-- > 0;) {
        const auto c = static_cast<unsigned char>(names[i].name[0]);
        if (x.end[c] == 0)
            x.end[c] = static_cast<unsigned char>(i + 1);
        x.begin[c] = static_cast<unsigned char>(i);
    }
    return x;
}

template <std::size_t N>
constexpr bool sortedByFirstCharacter(const Name (&names)[N])
{
    for (std::size_t i = 1; i < N; ++i)
        if (names[i - 1].name[0] > names[i].name[0])
            return false;
    return true;
}
static_assert(sortedByFirstCharacter(kElements) && sortedByFirstCharacter(kAttributes),
              "runs of names must be contiguous");

constexpr Index kElementIndex = makeIndex(kElements);
constexpr Index kAttributeIndex = makeIndex(kAttributes);

// Byte by byte, terminator included, stopping at the first difference: no
// call and no read past the end of the shorter text.
inline bool sameName(const char* a, const char* b)
{
    for (; *a == *b; ++a, ++b)
        if (*a == '\0')
            return true;
    return false;
}

template <std::size_t N>
inline int find(const Name (&names)[N], const Index& index, const char* name)
{
    const auto c = static_cast<unsigned char>(name[0]);
    if (c >= 128)
        return -1;
    const unsigned end = index.end[c] < N ? index.end[c] : N;
    for (unsigned i = index.begin[c]; i < end; ++i)
        if (sameName(names[i].name + 1, name + 1))
            return names[i].id;
    return -1;
}

int elementId(const char* name)
{
    return find(kElements, kElementIndex, name);
}

int attributeId(const char* name)
{
    return find(kAttributes, kAttributeIndex, name);
}

// ---- value conversions -----------------------------------------------------

// A missing attribute reads as 0 or as the empty text. Numbers follow atol:
// leading white space, a sign, digits up to the first other character. Up
// to 18 digits cannot overflow and are read here; longer ones go to strtol,
// which atol is.
inline long number(const char* v)
{
    if (!v)
        return 0;
    const char* p = v;
    while (*p == ' ' || (*p >= '\t' && *p <= '\r'))
        ++p;
    const bool negative = *p == '-';
    if (*p == '-' || *p == '+')
        ++p;
    long n = 0;
    for (int digits = 0; *p >= '0' && *p <= '9'; ++p)
        if (++digits > 18)
            return std::strtol(v, nullptr, 10);
        else
            n = 10 * n + (*p - '0');
    return negative ? -n : n;
}

int flag(const char* v)
{
    return v && std::atoi(v) != 0 ? 1 : 0;
}

const char* raw(const char* v)
{
    return v ? v : "";
}

// The attribute's text in the locale's encoding, valid while buf lives (and
// the value itself, when it needs no conversion).
const char* loc(const char* v, Tut::FlexBuff<char>& buf)
{
    if (!v || !*v)
        return "";
    const long n = static_cast<long>(std::strlen(v));
    if (Tut::utf8ToLocUnchanged(v, n))
        return v;
    Tut::utf8ToLoc(v, n, buf);
    return buf.data();
}

// The cookie travels as the number of the pointer the client attached.
void* cookiePtr(int64_t cookie)
{
    return reinterpret_cast<void*>(static_cast<intptr_t>(cookie));
}

const char** strings(std::vector<char*>& v)
{
    return const_cast<const char**>(v.data());
}

} // namespace

// ---- construction ----------------------------------------------------------

TAM_XmsgParserHandler::TAM_XmsgParserHandler()
    : kernel_(nullptr), hasData_(false), inText_(false), inMCode_(false), cookie_(0), textInput_(0),
      fmtCount_(0), level_(0)
{
    // A message without text reads its content as the empty text. The
    // fresh buffer is terminated here: emptyContent() leaves alone a buffer
    // that nothing was written to.
    content_.rewind();
}

TAM_XmsgParserHandler::~TAM_XmsgParserHandler()
{
    clearDebugLists();
    for (char* s : fmtNames_)
        std::free(s);
}

// ---- texts -----------------------------------------------------------------

TAM_XmsgParserHandler::Text::~Text()
{
    if (data_ != local_)
        std::free(data_);
}

void TAM_XmsgParserHandler::Text::assignLong(const char* s)
{
    const std::size_t n = std::strlen(s) + 1;
    if (n > cap_) {
        const std::size_t cap = n > 2 * cap_ ? n : 2 * cap_;
        char* p = static_cast<char*>(std::malloc(cap));
        if (!p) {
            clear();
            throw std::bad_alloc();
        }
        if (data_ != local_)
            std::free(data_);
        data_ = p;
        cap_ = cap;
    }
    std::memcpy(data_, s, n);
}

// ---- names -----------------------------------------------------------------

bool TAM_XmsgParserHandler::elementName(const char*, const char* name, int&, int& id)
{
    const int found = name ? elementId(name) : -1;
    id = found < 0 ? 0 : found;
    return found >= 0;
}

bool TAM_XmsgParserHandler::attributeName(const char*, const char* name, int&, int& id)
{
    const int found = name ? attributeId(name) : -1;
    id = found < 0 ? 0 : found;
    return found >= 0;
}

// ---- lists and formats -----------------------------------------------------

void TAM_XmsgParserHandler::clearDebugLists()
{
    for (char* s : dbgNames_)
        std::free(s);
    dbgNames_.clear();
    for (char* s : dbgTexts_)
        std::free(s);
    dbgTexts_.clear();
    dbgPositions_.clear();
}

void TAM_XmsgParserHandler::clearFmtList()
{
    fmtCount_ = 0;
}

const char* TAM_XmsgParserHandler::formatName(const char* name)
{
    // Hashed: a kernel that sends many names must not make each lookup
    // cost a pass over all of them.
    const std::string_view key(name);
    const auto found = fmtIndex_.find(key);
    if (found != fmtIndex_.end())
        return found->data();
    // Every new name is kept for the life of the handler, so both their
    // number and the length of each are bounded.
    if (key.size() > kMaxFormatName ||
        static_cast<long long>(fmtNames_.size()) >= TAM_Limits::get(TAM_LIMIT_FORMAT_NAMES))
        exceed(TAM_LIMIT_FORMAT_NAMES);
    char* copy = strdup(name);
    if (!copy)
        throw std::bad_alloc();
    try {
        fmtNames_.push_back(copy);
    } catch (...) {
        std::free(copy);
        throw;
    }
    try {
        fmtIndex_.insert(std::string_view(copy, key.size()));
    } catch (...) {
        fmtNames_.pop_back();
        std::free(copy);
        throw;
    }
    return copy;
}

void TAM_XmsgParserHandler::exceed(int which)
{
    note_over_limit(which);
    throw OverLimit();
}

void TAM_XmsgParserHandler::appendLocCopy(std::vector<char*>& list, const char* utf8)
{
    Tut::FlexBuff<char> buf;
    char* copy = strdup(loc(utf8, buf));
    if (!copy)
        throw std::bad_alloc();
    try {
        list.push_back(copy);
    } catch (...) {
        std::free(copy);
        throw;
    }
}

// ---- content ---------------------------------------------------------------

void TAM_XmsgParserHandler::emptyContent()
{
    // Nothing written since it was last emptied: it still reads as empty.
    if (content_.empty())
        return;
    content_.clear();
    content_.rewind();
}

class TAM_XmsgParserHandler::PayloadSink : public TKpayloadSink {
public:
    explicit PayloadSink(TAM_XmsgParserHandler& h) : h_(h) {}
    long put(const unsigned char* data, unsigned long len) override
    {
        // The content holds this payload's bytes only (an mcode element
        // empties it), so its length is what the payload has come to.
        const unsigned long long limit =
            static_cast<unsigned long long>(TAM_Limits::get(TAM_LIMIT_PAYLOAD_BYTES));
        if (len > limit || h_.content_.length() > limit - len)
            h_.exceed(TAM_LIMIT_PAYLOAD_BYTES);
        return h_.content_.append(data, len);
    }

private:
    TAM_XmsgParserHandler& h_;
};

// The reader reports nothing: a damaged payload is delivered as far as it
// decoded, and the decoder's result is not needed.
void TAM_XmsgParserHandler::endMCode()
{
    PayloadSink sink(*this);
    decoder_.finish(sink);
    content_.rewind();
}

void TAM_XmsgParserHandler::characterData(const char* data, int len)
{
    if (!kernel_ || len <= 0)
        return;
    if (inText_) {
        // expat never splits a character across chunks, so each converts by
        // itself. A chunk that does not fit is lost; the message keeps what
        // fitted.
        if (!localeRead_) {
            passThrough_.refresh();
            localeRead_ = true;
        }
        if (passThrough_.keeps(data, len)) {
            content_.append(data, static_cast<unsigned long>(len));
            return;
        }
        Tut::FlexBuff<char> buf;
        const long n = Tut::utf8ToLoc(data, len, buf);
        content_.append(buf.data(), static_cast<unsigned long>(n));
    } else if (inMCode_) {
        // A failed append to the content loses the rest of this chunk only.
        PayloadSink sink(*this);
        decoder_.write(data, len, sink);
    }
}

void TAM_XmsgParserHandler::cleanup()
{
    localeRead_ = false;
    emptyContent();
    inText_ = false;
    inMCode_ = false;
    cookie_ = 0;
    type_.clear();
    format_.clear();
    fmtCount_ = 0;
    clearDebugLists();
}

// ---- the element table -------------------------------------------------------
//
// One rule per element of the vocabulary: where it may start, what its start
// tag resets and records, what content it opens, and what its start and end
// tags deliver. startElement and endElement only follow the rule.

struct TAM_XmsgParserHandler::Rules {
    using H = TAM_XmsgParserHandler;
    using K = TAM_KernelImpl;
    // Attribute values by attribute id; null for a missing attribute. A
    // mask says which are there, so that no table is cleared per tag.
    class Values {
    public:
        const char* operator[](int id) const { return present_ >> id & 1 ? v_[id] : nullptr; }
        void set(int id, const char* value)
        {
            v_[id] = value;
            present_ |= 1u << id;
        }

    private:
        static_assert(AtCount <= 32, "one bit per attribute id");
        uint32_t present_ = 0;
        const char* v_[AtCount];
    };

    // The parent check. Parts act on the client of the message they belong
    // to; the stream has no other notion of nesting (a part that follows
    // its message still acts on that message's client).
    enum Context : unsigned char {
        Stream,  // anywhere, for no client: the root, quit
        Message, // anywhere; forgets the current client and names its own in cl
        Part     // only while a message with a known client is current
    };
    // State that a start tag resets before its attributes are read (what
    // it keeps from them is set whether they are there or not).
    enum Reset : unsigned {
        Cookie = 1u << 0,
        Content = 1u << 1, // hasData_, content_ and format_
        Lists = 1u << 2,   // the debugger lists
        Formats = 1u << 3  // fmtCount_
    };
    // Attributes that a start tag keeps in the parse state.
    enum Record : unsigned {
        KeepCid = 1u << 0,     // as cookie_
        KeepLevel = 1u << 1,   // as level_
        KeepType = 1u << 2,    // as type_, only for a known client
        KeepTextFlag = 1u << 3 // the text flag, as textInput_
    };
    // What the character data of the element is collected as.
    enum Opens : unsigned char { Nothing, Text, Payload };

    struct Rule {
        int id;
        Context context;
        unsigned resets;  // Reset bits
        unsigned records; // Record bits
        Opens opens;
        void (*start)(H&, const Values&); // after the resets and records; may be null
        void (*end)(H&);                  // may be null
    };

    // The rule of element id, or null for an id outside the vocabulary.
    static const Rule* find(int id);

    // The current client if the handler in slot is set, else null.
    template <class Fn>
    static K* receiver(const H& h, Fn K::*slot)
    {
        K* k = h.kernel_;
        return k && k->*slot ? k : nullptr;
    }
    static TAM_DataTAG payload(H& h)
    {
        return {h.format_.c_str(), h.content_.data(), h.content_.length()};
    }
    static const char* contentText(H& h)
    {
        return reinterpret_cast<const char*>(h.content_.data());
    }

    // ---- what a start tag does before it delivers ---------------------------

    static void reset(H& h, unsigned resets)
    {
        if (resets & Cookie)
            h.cookie_ = 0;
        if (resets & Content) {
            // A stray text or mcode element after the previous message must
            // not leak into this message's content or format.
            h.hasData_ = false;
            h.emptyContent();
            h.format_.clear();
        }
        if (resets & Lists)
            h.clearDebugLists();
        if (resets & Formats)
            h.fmtCount_ = 0;
    }

    static void record(H& h, unsigned records, const Values& v)
    {
        if (records & KeepCid)
            h.cookie_ = number(v[AtCid]);
        if (records & KeepLevel)
            h.level_ = number(v[AtLevel]);
        if ((records & KeepType) && h.kernel_)
            h.type_.assign(raw(v[AtType]));
        if (records & KeepTextFlag)
            h.textInput_ = flag(v[AtText]);
    }

    static void open(H& h, Opens what, const Values& v)
    {
        // A payload is its element's bytes alone: a text child before it must
        // not lengthen the record with its own bytes.
        if (what == Payload)
            h.emptyContent();
        // The later of text and mcode decides what the message carries.
        h.hasData_ = what == Payload;
        h.format_.assign(raw(v[AtFormat]));
        h.inText_ = what == Text;
        h.inMCode_ = what == Payload;
    }

    // ---- deliveries at the start tag ----------------------------------------

    template <TAM_OnReset K::*Slot>
    static void notify(H& h, const Values&)
    {
        if (K* k = receiver(h, Slot))
            (k->*Slot)(k);
    }

    template <TAM_OnFinished K::*Slot>
    static void notifyCookie(H& h, const Values&)
    {
        if (K* k = receiver(h, Slot))
            (k->*Slot)(k, cookiePtr(h.cookie_));
    }

    template <TAM_OnHelp K::*Slot>
    static void notifyText(H& h, const Values& v)
    {
        if (K* k = receiver(h, Slot)) {
            Tut::FlexBuff<char> value;
            (k->*Slot)(k, loc(v[AtValue], value));
        }
    }

    template <TAM_OnPrettyPrintChanged K::*Slot>
    static void notifyFlag(H& h, const Values& v)
    {
        if (K* k = receiver(h, Slot))
            (k->*Slot)(k, flag(v[AtValue]));
    }

    static void startPlotfile(H& h, const Values& v)
    {
        if (K* k = receiver(h, &K::on_plot_result_file)) {
            Tut::FlexBuff<char> name;
            k->on_plot_result_file(k, cookiePtr(h.cookie_), loc(v[AtName], name));
        }
    }

    static void startCompletion(H& h, const Values& v)
    {
        if (K* k = receiver(h, &K::on_input_completion)) {
            Tut::FlexBuff<char> list;
            Tut::FlexBuff<char> pref;
            k->on_input_completion(k, loc(v[AtList], list), loc(v[AtPref], pref));
        }
    }

    static void startDbginfo(H& h, const Values& v)
    {
        if (K* k = receiver(h, &K::on_dbg_info)) {
            Tut::FlexBuff<char> fname;
            Tut::FlexBuff<char> expr;
            const char cmd = v[AtCmd] ? v[AtCmd][0] : 0;
            k->on_dbg_info(k, cmd, loc(v[AtFname], fname), number(v[AtFpos]), loc(v[AtExpr], expr),
                           number(v[AtLevel]), number(v[AtDepth]));
        }
    }

    static void startTextwidth(H& h, const Values& v)
    {
        if (K* k = receiver(h, &K::on_textwidth_changed))
            k->on_textwidth_changed(k, number(v[AtValue]));
    }

    static void startStatus(H& h, const Values& v)
    {
        if (K* k = receiver(h, &K::on_status))
            k->on_status(k, number(v[AtUsed]), number(v[AtRes]), number(v[AtSec]));
    }

    static void startQuit(H& h, const Values&)
    {
        // Not for a client: no cl needed, and kernel_ stays as it is.
        h.onQuit();
    }

    // ---- parts --------------------------------------------------------------

    template <int NameAt, int TextAt, bool WithPosition>
    static void startItem(H& h, const Values& v)
    {
        // Every kind of item has a name: it counts the items of the list.
        if (static_cast<long long>(h.dbgNames_.size()) >= TAM_Limits::get(TAM_LIMIT_LIST_ENTRIES))
            h.exceed(TAM_LIMIT_LIST_ENTRIES);
        appendLocCopy(h.dbgNames_, v[NameAt]);
        if (WithPosition)
            h.dbgPositions_.push_back(number(v[AtFpos]));
        appendLocCopy(h.dbgTexts_, v[TextAt]);
    }

    static void startFmt(H& h, const Values& v)
    {
        if (h.fmtCount_ >= TAM_Limits::get(TAM_LIMIT_LIST_ENTRIES))
            h.exceed(TAM_LIMIT_LIST_ENTRIES);
        const char* p = h.formatName(raw(v[AtName]));
        if (h.fmtCount_ < static_cast<int64_t>(h.fmtList_.size()))
            h.fmtList_[static_cast<std::size_t>(h.fmtCount_)] = p;
        else
            h.fmtList_.push_back(p);
        ++h.fmtCount_;
    }

    // ---- end tags -----------------------------------------------------------

    static void endMCode(H& h) { h.endMCode(); }

    static void endText(H& h)
    {
        h.content_.append("", 1);
        h.content_.rewind();
    }

    static void endOutput(H& h)
    {
        K* k = h.kernel_;
        if (k && !h.hasData_ && k->on_output) {
            k->on_output(k, cookiePtr(h.cookie_), h.type_.c_str(), h.format_.c_str(),
                         contentText(h));
        } else if (k && h.hasData_ && k->on_output_data) {
            const TAM_DataTAG data = payload(h);
            k->on_output_data(k, cookiePtr(h.cookie_), h.type_.c_str(), &data);
        }
        h.format_.clear();
        h.type_.clear();
        h.emptyContent();
    }

    static void endCallback(H& h)
    {
        if (K* k = receiver(h, &K::on_callback)) {
            const TAM_DataTAG data = payload(h);
            k->on_callback(k, cookiePtr(h.cookie_), &data);
        }
        h.format_.clear();
        h.emptyContent();
    }

    static void endSendinput(H& h)
    {
        // With a payload the prompt is not passed on.
        if (K* k = receiver(h, &K::on_input_wanted))
            k->on_input_wanted(k, cookiePtr(h.cookie_), h.textInput_,
                               h.hasData_ ? "" : contentText(h));
        h.format_.clear();
        h.emptyContent();
    }

    static void endFormat(H& h)
    {
        K* k = receiver(h, &K::on_format_changed);
        if (k && h.fmtCount_ >= 1)
            k->on_format_changed(k, h.type_.c_str(), h.fmtList_[0]);
        h.fmtCount_ = 0;
    }

    static void endSelformat(H& h)
    {
        // Without formats the array is null: there is nothing to read.
        if (K* k = receiver(h, &K::on_select_format))
            k->on_select_format(k, h.type_.c_str(), static_cast<long>(h.fmtCount_),
                                h.fmtCount_ > 0 ? h.fmtList_.data() : nullptr);
        h.fmtCount_ = 0;
    }

    // Items of different kinds mixed in one list leave the lists of unequal
    // length; such a list is not delivered. Positions count only for the
    // handlers that take them.
    static bool listsComplete(const H& h, bool withPositions)
    {
        const std::size_t count = h.dbgNames_.size();
        return h.dbgTexts_.size() == count && (!withPositions || h.dbgPositions_.size() == count);
    }

    static void endBreakpoints(H& h)
    {
        if (K* k = receiver(h, &K::on_breakpoint_list)) {
            const long n = static_cast<long>(h.dbgNames_.size());
            if (n == 0)
                k->on_breakpoint_list(k, 0, nullptr, nullptr, nullptr);
            else if (listsComplete(h, true))
                k->on_breakpoint_list(k, n, strings(h.dbgNames_), h.dbgPositions_.data(),
                                      strings(h.dbgTexts_));
        }
        h.clearDebugLists();
    }

    static void endCallstack(H& h)
    {
        if (K* k = receiver(h, &K::on_call_stack)) {
            const long n = static_cast<long>(h.dbgNames_.size());
            if (n == 0)
                k->on_call_stack(k, h.level_, 0, nullptr, nullptr, nullptr);
            else if (listsComplete(h, true))
                k->on_call_stack(k, h.level_, n, strings(h.dbgNames_), h.dbgPositions_.data(),
                                 strings(h.dbgTexts_));
        }
        h.clearDebugLists();
    }

    static void endDisplay(H& h)
    {
        if (K* k = receiver(h, &K::on_display_list)) {
            const long n = static_cast<long>(h.dbgNames_.size());
            if (n == 0)
                k->on_display_list(k, 0, nullptr, nullptr);
            else if (listsComplete(h, false))
                k->on_display_list(k, n, strings(h.dbgNames_), strings(h.dbgTexts_));
        }
        h.clearDebugLists();
    }

    // ---- the table ----------------------------------------------------------

    static constexpr Rule kTable[] = {
        {ElRoot, Stream, 0, 0, Nothing, nullptr, nullptr},
        {ElBreakpoints, Message, Lists, 0, Nothing, nullptr, endBreakpoints},
        {ElBreakpt, Part, 0, 0, Nothing, startItem<AtFname, AtCond, true>, nullptr},
        {ElCallback, Message, Cookie | Content, KeepCid, Nothing, nullptr, endCallback},
        {ElCallstack, Message, Lists, KeepLevel, Nothing, nullptr, endCallstack},
        {ElComplete, Message, Cookie, KeepCid, Nothing, notifyCookie<&K::on_complete_cmd>, nullptr},
        {ElCompletion, Message, 0, 0, Nothing, startCompletion, nullptr},
        {ElCsframe, Part, 0, 0, Nothing, startItem<AtFname, AtProc, true>, nullptr},
        {ElDbginfo, Message, 0, 0, Nothing, startDbginfo, nullptr},
        {ElDisplay, Message, Lists, 0, Nothing, nullptr, endDisplay},
        {ElDispvar, Part, 0, 0, Nothing, startItem<AtName, AtValue, false>, nullptr},
        {ElFinished, Message, Cookie, KeepCid, Nothing, notifyCookie<&K::on_finished>, nullptr},
        {ElFmt, Part, 0, 0, Nothing, startFmt, nullptr},
        {ElFormat, Message, Formats, KeepType, Nothing, nullptr, endFormat},
        {ElFrame, Message, 0, 0, Nothing, notifyText<&K::on_frame_changed>, nullptr},
        {ElHelp, Message, 0, 0, Nothing, notifyText<&K::on_help>, nullptr},
        {ElMcode, Part, 0, 0, Payload, nullptr, endMCode},
        {ElOutput, Message, Cookie | Content, KeepCid | KeepType, Nothing, nullptr, endOutput},
        {ElPlotfile, Message, Cookie, KeepCid, Nothing, startPlotfile, nullptr},
        {ElPrettyprint, Message, 0, 0, Nothing, notifyFlag<&K::on_pretty_print_changed>, nullptr},
        {ElAbbreviateoutput, Message, 0, 0, Nothing, notifyFlag<&K::on_abbreviate_output_changed>,
         nullptr},
        {ElQuit, Stream, 0, 0, Nothing, startQuit, nullptr},
        {ElReady, Message, 0, 0, Nothing, notify<&K::on_kernel_ready>, nullptr},
        {ElReset, Message, 0, 0, Nothing, notify<&K::on_reset>, nullptr},
        {ElSelformat, Message, Formats, KeepType, Nothing, nullptr, endSelformat},
        {ElSenddbgcmd, Message, Cookie, KeepCid, Nothing, notifyCookie<&K::on_dbg_cmd_wanted>,
         nullptr},
        {ElSendinit, Message, 0, 0, Nothing, notify<&K::on_init_wanted>, nullptr},
        {ElSendinput, Message, Cookie | Content, KeepCid | KeepTextFlag, Nothing, nullptr,
         endSendinput},
        {ElStatus, Message, 0, 0, Nothing, startStatus, nullptr},
        {ElSystem, Message, 0, 0, Nothing, notifyText<&K::on_system>, nullptr},
        {ElText, Part, 0, 0, Text, nullptr, endText},
        {ElTextwidth, Message, 0, 0, Nothing, startTextwidth, nullptr},
    };

    // Whether every rule stands at the index of its element's id.
    static constexpr bool inIdOrder()
    {
        for (int i = 0; i < ElCount; ++i)
            if (kTable[i].id != i)
                return false;
        return true;
    }
};

const TAM_XmsgParserHandler::Rules::Rule* TAM_XmsgParserHandler::Rules::find(int id)
{
    static_assert(sizeof kTable / sizeof kTable[0] == ElCount, "one rule per element");
    static_assert(inIdOrder(), "the table is indexed by element id");
    return id >= 0 && id < ElCount ? &kTable[id] : nullptr;
}

// ---- start and end tags ------------------------------------------------------

void TAM_XmsgParserHandler::startElement(int, int id, const std::vector<Xml::Attribute>& attrs)
{
    // Text is collected only up to the next known tag; the handlers that run
    // here may change the locale.
    inText_ = false;
    inMCode_ = false;
    localeRead_ = false;
    const Rules::Rule* rule = Rules::find(id);
    // A part of a message without a client is ignored whole.
    if (!rule || (rule->context == Rules::Part && !kernel_))
        return;
    const bool message = rule->context == Rules::Message;
    if (message)
        kernel_ = nullptr;
    Rules::reset(*this, rule->resets);

    // The attribute walk: cl picks a message's client, the rest is kept by
    // id for the rule.
    Rules::Values v;
    for (const Xml::Attribute& a : attrs) {
        if (a.id < 0 || a.id >= AtCount)
            continue;
        if (a.id != AtCl)
            v.set(a.id, a.value);
        else if (message)
            kernel_ = kernel(number(a.value));
    }

    Rules::record(*this, rule->records, v);
    if (rule->opens != Rules::Nothing)
        Rules::open(*this, rule->opens, v);
    if (rule->start)
        rule->start(*this, v);
}

void TAM_XmsgParserHandler::endElement(int, int id)
{
    inText_ = false;
    inMCode_ = false;
    localeRead_ = false;
    const Rules::Rule* rule = Rules::find(id);
    if (rule && rule->end)
        rule->end(*this);
}
