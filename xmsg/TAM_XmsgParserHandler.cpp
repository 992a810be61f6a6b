#include "xmsg/TAM_XmsgParserHandler.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "support/Tut.h"

namespace {

// ---- name lookup -----------------------------------------------------------
//
// The first character picks the few names that can match; each is then
// compared whole. Everything after this works with the integer ids.

struct Name {
    const char* name;
    int id;
};

template <std::size_t N>
int find(const Name (&names)[N], const char* name)
{
    for (const Name& n : names)
        if (std::strcmp(n.name, name) == 0)
            return n.id;
    return -1;
}

using H = TAM_XmsgParserHandler;

const Name elA[] = {{"abbreviateoutput", H::ElAbbreviateoutput}};
const Name elB[] = {{"breakpoints", H::ElBreakpoints}, {"breakpt", H::ElBreakpt}};
const Name elC[] = {{"callback", H::ElCallback},
                    {"callstack", H::ElCallstack},
                    {"complete", H::ElComplete},
                    {"completion", H::ElCompletion},
                    {"csframe", H::ElCsframe}};
const Name elD[] = {{"dbginfo", H::ElDbginfo}, {"display", H::ElDisplay}, {"dispvar", H::ElDispvar}};
const Name elF[] = {{"finished", H::ElFinished},
                    {"fmt", H::ElFmt},
                    {"format", H::ElFormat},
                    {"frame", H::ElFrame}};
const Name elH[] = {{"help", H::ElHelp}};
const Name elM[] = {{"mcode", H::ElMcode}};
const Name elO[] = {{"output", H::ElOutput}};
const Name elP[] = {{"plotfile", H::ElPlotfile}, {"prettyprint", H::ElPrettyprint}};
const Name elQ[] = {{"quit", H::ElQuit}};
const Name elR[] = {{"ready", H::ElReady}, {"reset", H::ElReset}};
const Name elS[] = {{"selformat", H::ElSelformat},
                    {"senddbgcmd", H::ElSenddbgcmd},
                    {"sendinit", H::ElSendinit},
                    {"sendinput", H::ElSendinput},
                    {"status", H::ElStatus},
                    {"system", H::ElSystem}};
const Name elT[] = {{"text", H::ElText}, {"textwidth", H::ElTextwidth}};
const Name elRoot[] = {{"TamixXMsgClientMessage", H::ElRoot}};

int elementId(const char* name)
{
    switch (name[0]) {
    case 'a': return find(elA, name);
    case 'b': return find(elB, name);
    case 'c': return find(elC, name);
    case 'd': return find(elD, name);
    case 'f': return find(elF, name);
    case 'h': return find(elH, name);
    case 'm': return find(elM, name);
    case 'o': return find(elO, name);
    case 'p': return find(elP, name);
    case 'q': return find(elQ, name);
    case 'r': return find(elR, name);
    case 's': return find(elS, name);
    case 't': return find(elT, name);
    case 'T': return find(elRoot, name);
    default: return -1;
    }
}

const Name atC[] = {{"cid", H::AtCid}, {"cl", H::AtCl}, {"cmd", H::AtCmd}, {"cond", H::AtCond}};
const Name atD[] = {{"depth", H::AtDepth}};
const Name atE[] = {{"enc", H::AtEnc}, {"expr", H::AtExpr}};
const Name atF[] = {{"fname", H::AtFname}, {"format", H::AtFormat}, {"fpos", H::AtFpos}};
const Name atL[] = {{"level", H::AtLevel}, {"list", H::AtList}};
const Name atN[] = {{"name", H::AtName}};
const Name atP[] = {{"pref", H::AtPref}, {"proc", H::AtProc}};
const Name atR[] = {{"res", H::AtRes}};
const Name atS[] = {{"sec", H::AtSec}};
const Name atT[] = {{"text", H::AtText}, {"type", H::AtType}};
const Name atU[] = {{"used", H::AtUsed}};
const Name atV[] = {{"value", H::AtValue}};

int attributeId(const char* name)
{
    switch (name[0]) {
    case 'c': return find(atC, name);
    case 'd': return find(atD, name);
    case 'e': return find(atE, name);
    case 'f': return find(atF, name);
    case 'l': return find(atL, name);
    case 'n': return find(atN, name);
    case 'p': return find(atP, name);
    case 'r': return find(atR, name);
    case 's': return find(atS, name);
    case 't': return find(atT, name);
    case 'u': return find(atU, name);
    case 'v': return find(atV, name);
    default: return -1;
    }
}

// ---- value conversions -----------------------------------------------------

// A missing attribute reads as 0 or as the empty text.
long number(const char* v)
{
    return v ? std::atol(v) : 0;
}

int flag(const char* v)
{
    return v && std::atoi(v) != 0 ? 1 : 0;
}

const char* raw(const char* v)
{
    return v ? v : "";
}

// The attribute's text in the locale's encoding, valid while buf lives.
const char* loc(const char* v, Tut::FlexBuff<char>& buf)
{
    if (!v || !*v)
        return "";
    Tut::utf8ToLoc(v, static_cast<long>(std::strlen(v)), buf);
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
    : kernel_(nullptr),
      hasData_(false),
      content_(512, 512),
      inText_(false),
      inMCode_(false),
      cookie_(0),
      textInput_(0),
      fmtCount_(0),
      level_(0)
{
    // A message without text reads its content as the empty text.
    emptyContent();
}

TAM_XmsgParserHandler::~TAM_XmsgParserHandler()
{
    clearDebugLists();
    for (char* s : fmtNames_)
        std::free(s);
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
    for (char* s : fmtNames_)
        if (std::strcmp(s, name) == 0)
            return s;
    char* copy = strdup(name);
    if (!copy)
        throw std::bad_alloc();
    try {
        fmtNames_.push_back(copy);
    } catch (...) {
        std::free(copy);
        throw;
    }
    return copy;
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
    content_.clear();
    content_.rewind();
}

// The reader reports nothing: a damaged payload is delivered as far as it
// decoded, and the decoder's result is not needed.
void TAM_XmsgParserHandler::endMCode()
{
    TKstreamSink sink(content_);
    payload_.finish(sink);
    content_.rewind();
}

void TAM_XmsgParserHandler::characterData(const char* data, int len)
{
    if (!kernel_ || len <= 0)
        return;
    if (inText_) {
        // expat never splits a character across chunks, so each converts by
        // itself.
        Tut::FlexBuff<char> buf;
        const long n = Tut::utf8ToLoc(data, len, buf);
        unsigned long count = 0;
        // A chunk that does not fit is lost; the message keeps what fitted.
        content_.write(buf.data(), static_cast<unsigned long>(n), count);
    } else if (inMCode_) {
        // A failed append to the content loses the rest of this chunk only.
        TKstreamSink sink(content_);
        payload_.write(data, len, sink);
    }
}

void TAM_XmsgParserHandler::cleanup()
{
    emptyContent();
    inText_ = false;
    inMCode_ = false;
    cookie_ = 0;
    type_.clear();
    format_.clear();
    fmtCount_ = 0;
    clearDebugLists();
}

// ---- start tags ------------------------------------------------------------

void TAM_XmsgParserHandler::startElement(int, int id, const std::vector<Xml::Attribute>& attrs)
{
    inText_ = false;
    inMCode_ = false;
    if (id < 0 || id > ElTextwidth)
        return;

    // Resets before the attribute walk.
    bool isMessage = true;
    switch (id) {
    case ElRoot:
        return;
    case ElQuit:
        // Not for a client: no cl needed, kernel_ stays as it is.
        onQuit();
        return;
    case ElBreakpt:
    case ElCsframe:
    case ElDispvar:
    case ElFmt:
    case ElMcode:
    case ElText:
        if (!kernel_)
            return;  // part of a message without a client
        isMessage = false;
        break;
    case ElBreakpoints:
    case ElDisplay:
        clearDebugLists();
        kernel_ = nullptr;
        break;
    case ElCallstack:
        clearDebugLists();
        kernel_ = nullptr;
        level_ = 0;
        break;
    case ElCallback:
    case ElOutput:
    case ElSendinput:
        kernel_ = nullptr;
        cookie_ = 0;
        hasData_ = false;
        if (id == ElSendinput)
            textInput_ = 0;
        // A stray text or mcode element after the previous message must not
        // leak into this message's content or format.
        emptyContent();
        format_.clear();
        break;
    case ElFormat:
    case ElSelformat:
        fmtCount_ = 0;
        kernel_ = nullptr;
        break;
    case ElComplete:
    case ElFinished:
    case ElSenddbgcmd:
    case ElPlotfile:
        kernel_ = nullptr;
        cookie_ = 0;
        break;
    default:
        kernel_ = nullptr;
        break;
    }

    // The attribute walk: cl picks the client, the rest is kept by id for
    // the element's own action.
    const char* v[AtCount] = {};
    for (const Xml::Attribute& a : attrs) {
        if (a.id < 0 || a.id >= AtCount)
            continue;
        if (a.id == AtCl) {
            if (isMessage)
                kernel_ = kernel(number(a.value));
        } else {
            v[a.id] = a.value;
        }
    }

    switch (id) {
    case ElCallback:
    case ElComplete:
    case ElFinished:
    case ElSenddbgcmd:
    case ElPlotfile:
    case ElOutput:
    case ElSendinput:
        cookie_ = number(v[AtCid]);
        break;
    default:
        break;
    }

    switch (id) {
    case ElCallstack:
        level_ = number(v[AtLevel]);
        return;
    case ElBreakpt:
        appendLocCopy(dbgNames_, v[AtFname]);
        dbgPositions_.push_back(number(v[AtFpos]));
        appendLocCopy(dbgTexts_, v[AtCond]);
        return;
    case ElCsframe:
        appendLocCopy(dbgNames_, v[AtFname]);
        dbgPositions_.push_back(number(v[AtFpos]));
        appendLocCopy(dbgTexts_, v[AtProc]);
        return;
    case ElDispvar:
        appendLocCopy(dbgNames_, v[AtName]);
        appendLocCopy(dbgTexts_, v[AtValue]);
        return;
    case ElOutput:
    case ElFormat:
    case ElSelformat:
        if (kernel_)
            type_.assign(raw(v[AtType]));  // keeps the capacity
        return;
    case ElSendinput:
        textInput_ = flag(v[AtText]);
        return;
    case ElFmt: {
        const char* p = formatName(raw(v[AtName]));
        if (fmtCount_ < static_cast<int64_t>(fmtList_.size()))
            fmtList_[static_cast<std::size_t>(fmtCount_)] = p;
        else
            fmtList_.push_back(p);
        ++fmtCount_;
        return;
    }
    case ElMcode:
        // The payload is this element's bytes alone: a text child before it
        // must not lengthen the record with its own bytes.
        emptyContent();
        hasData_ = true;
        format_.assign(raw(v[AtFormat]));
        inMCode_ = true;
        return;
    case ElText:
        hasData_ = false;
        format_.assign(raw(v[AtFormat]));
        inText_ = true;
        return;
    default:
        break;
    }

    // Messages delivered at their start tag.
    TAM_KernelImpl* k = kernel_;
    if (!k)
        return;
    switch (id) {
    case ElReady:
        if (k->on_kernel_ready)
            k->on_kernel_ready(k);
        break;
    case ElSendinit:
        if (k->on_init_wanted)
            k->on_init_wanted(k);
        break;
    case ElReset:
        if (k->on_reset)
            k->on_reset(k);
        break;
    case ElFinished:
        if (k->on_finished)
            k->on_finished(k, cookiePtr(cookie_));
        break;
    case ElComplete:
        if (k->on_complete_cmd)
            k->on_complete_cmd(k, cookiePtr(cookie_));
        break;
    case ElSenddbgcmd:
        if (k->on_dbg_cmd_wanted)
            k->on_dbg_cmd_wanted(k, cookiePtr(cookie_));
        break;
    case ElPlotfile:
        if (k->on_plot_result_file) {
            Tut::FlexBuff<char> name;
            k->on_plot_result_file(k, cookiePtr(cookie_), loc(v[AtName], name));
        }
        break;
    case ElCompletion:
        if (k->on_input_completion) {
            Tut::FlexBuff<char> list;
            Tut::FlexBuff<char> pref;
            k->on_input_completion(k, loc(v[AtList], list), loc(v[AtPref], pref));
        }
        break;
    case ElDbginfo:
        if (k->on_dbg_info) {
            Tut::FlexBuff<char> fname;
            Tut::FlexBuff<char> expr;
            const char cmd = v[AtCmd] ? v[AtCmd][0] : 0;
            k->on_dbg_info(k, cmd, loc(v[AtFname], fname), number(v[AtFpos]),
                           loc(v[AtExpr], expr), number(v[AtLevel]), number(v[AtDepth]));
        }
        break;
    case ElFrame:
        if (k->on_frame_changed) {
            Tut::FlexBuff<char> value;
            k->on_frame_changed(k, loc(v[AtValue], value));
        }
        break;
    case ElHelp:
        if (k->on_help) {
            Tut::FlexBuff<char> value;
            k->on_help(k, loc(v[AtValue], value));
        }
        break;
    case ElSystem:
        if (k->on_system) {
            Tut::FlexBuff<char> value;
            k->on_system(k, loc(v[AtValue], value));
        }
        break;
    case ElPrettyprint:
        if (k->on_pretty_print_changed)
            k->on_pretty_print_changed(k, flag(v[AtValue]));
        break;
    case ElAbbreviateoutput:
        if (k->on_abbreviate_output_changed)
            k->on_abbreviate_output_changed(k, flag(v[AtValue]));
        break;
    case ElTextwidth:
        if (k->on_textwidth_changed)
            k->on_textwidth_changed(k, number(v[AtValue]));
        break;
    case ElStatus:
        if (k->on_status)
            k->on_status(k, number(v[AtUsed]), number(v[AtRes]), number(v[AtSec]));
        break;
    default:
        break;  // list and content messages deliver at their end tag
    }
}

// ---- end tags --------------------------------------------------------------

void TAM_XmsgParserHandler::endDebugList(int id)
{
    if (kernel_) {
        TAM_KernelImpl* k = kernel_;
        const std::size_t count = dbgNames_.size();
        const long n = static_cast<long>(count);
        // Items of different kinds mixed in one list leave the lists of
        // unequal length; such a list is not delivered.
        const bool textsOk = dbgTexts_.size() == count;
        const bool positionsOk = dbgPositions_.size() == count;
        switch (id) {
        case ElBreakpoints:
            if (!k->on_breakpoint_list)
                break;
            if (count == 0)
                k->on_breakpoint_list(k, 0, nullptr, nullptr, nullptr);
            else if (textsOk && positionsOk)
                k->on_breakpoint_list(k, n, strings(dbgNames_), dbgPositions_.data(),
                                      strings(dbgTexts_));
            break;
        case ElCallstack:
            if (!k->on_call_stack)
                break;
            if (count == 0)
                k->on_call_stack(k, level_, 0, nullptr, nullptr, nullptr);
            else if (textsOk && positionsOk)
                k->on_call_stack(k, level_, n, strings(dbgNames_), dbgPositions_.data(),
                                 strings(dbgTexts_));
            break;
        case ElDisplay:
            if (!k->on_display_list)
                break;
            if (count == 0)
                k->on_display_list(k, 0, nullptr, nullptr);
            else if (textsOk)
                k->on_display_list(k, n, strings(dbgNames_), strings(dbgTexts_));
            break;
        default:
            break;
        }
    }
    clearDebugLists();
}

void TAM_XmsgParserHandler::endElement(int, int id)
{
    inText_ = false;
    inMCode_ = false;
    if (id < 0 || id > ElText)
        return;  // textwidth delivered at its start

    TAM_KernelImpl* k = kernel_;
    switch (id) {
    case ElText: {
        unsigned long count = 0;
        content_.write("", 1, count);
        content_.rewind();
        break;
    }
    case ElMcode:
        endMCode();
        break;
    case ElOutput:
        if (k) {
            if (!hasData_) {
                if (k->on_output)
                    k->on_output(k, cookiePtr(cookie_), type_.c_str(), format_.c_str(),
                                 reinterpret_cast<const char*>(content_.data()));
            } else if (k->on_output_data) {
                const TAM_DataTAG data = {format_.c_str(), content_.data(), content_.length()};
                k->on_output_data(k, cookiePtr(cookie_), type_.c_str(), &data);
            }
        }
        format_.clear();
        type_.clear();
        emptyContent();
        break;
    case ElCallback:
        if (k && k->on_callback) {
            const TAM_DataTAG data = {format_.c_str(), content_.data(), content_.length()};
            k->on_callback(k, cookiePtr(cookie_), &data);
        }
        format_.clear();
        emptyContent();
        break;
    case ElSendinput:
        if (k && k->on_input_wanted) {
            // With a payload the prompt is not passed on.
            const char* prompt =
                hasData_ ? "" : reinterpret_cast<const char*>(content_.data());
            k->on_input_wanted(k, cookiePtr(cookie_), textInput_, prompt);
        }
        format_.clear();
        emptyContent();
        break;
    case ElFormat:
        if (k && fmtCount_ >= 1 && k->on_format_changed)
            k->on_format_changed(k, type_.c_str(), fmtList_[0]);
        fmtCount_ = 0;
        break;
    case ElSelformat:
        if (k && k->on_select_format)
            // Without formats the array is null: there is nothing to read.
            k->on_select_format(k, type_.c_str(), static_cast<long>(fmtCount_),
                                fmtCount_ > 0 ? fmtList_.data() : nullptr);
        fmtCount_ = 0;
        break;
    case ElBreakpoints:
    case ElCallstack:
    case ElDisplay:
        endDebugList(id);
        break;
    default:
        break;
    }
}
