// Parse state and dispatch of the kernel's message stream.
//
// A kernel process sends an endless run of small XML elements, one per
// message, each naming the client it is for in "cl". This handler turns
// element and attribute names into small integer ids, collects what a
// message carries (attributes, text converted to the locale's encoding, an
// mcode payload decoded while it arrives, debugger and format lists) and
// calls the addressed client's handler, either at the message's start tag
// or at its end tag. The deriving class (the kernel process) resolves
// client ids and handles the kernel's own "quit".
#ifndef TAMIX_XMSG_TAM_XMSGPARSERHANDLER_H
#define TAMIX_XMSG_TAM_XMSGPARSERHANDLER_H

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "kernel/TAM_KernelImpl.h"
#include "support/TKT_stream.h"
#include "support/TKpayload.h"
#include "support/Tut.h"
#include "xml/Handler.h"

class TAM_XmsgParserHandler : public Xml::Handler {
public:
    // Element ids. Names are matched exactly and case-sensitively.
    enum Element {
        ElRoot = 0, // TamixXMsgClientMessage (injected)
        ElBreakpoints = 1,
        ElBreakpt = 2,
        ElCallback = 3,
        ElCallstack = 4,
        ElComplete = 5,
        ElCompletion = 6,
        ElCsframe = 7,
        ElDbginfo = 8,
        ElDisplay = 9,
        ElDispvar = 10,
        ElFinished = 11,
        ElFmt = 12,
        ElFormat = 13,
        ElFrame = 14,
        ElHelp = 15,
        ElMcode = 16,
        ElOutput = 17,
        ElPlotfile = 18,
        ElPrettyprint = 19,
        ElAbbreviateoutput = 20,
        ElQuit = 21,
        ElReady = 22,
        ElReset = 23,
        ElSelformat = 24,
        ElSenddbgcmd = 25,
        ElSendinit = 26,
        ElSendinput = 27,
        ElStatus = 28,
        ElSystem = 29,
        ElText = 30,
        ElTextwidth = 31,
        ElCount = 32 // one past the highest id
    };

    // Attribute ids. 9 is not assigned; "enc" is known but read by nobody.
    enum Attr {
        AtCid = 0,
        AtCl = 1,
        AtCmd = 2,
        AtCond = 3,
        AtDepth = 4,
        AtEnc = 5,
        AtExpr = 6,
        AtFname = 7,
        AtFormat = 8,
        AtFpos = 10,
        AtLevel = 11,
        AtList = 12,
        AtName = 13,
        AtPref = 14,
        AtProc = 15,
        AtRes = 16,
        AtSec = 17,
        AtText = 18,
        AtType = 19,
        AtUsed = 20,
        AtValue = 21,
        AtCount = 22 // one past the highest id
    };

    TAM_XmsgParserHandler();
    ~TAM_XmsgParserHandler() override;

    TAM_XmsgParserHandler(const TAM_XmsgParserHandler&) = delete;
    TAM_XmsgParserHandler& operator=(const TAM_XmsgParserHandler&) = delete;

    void startElement(int nsId, int id, const std::vector<Xml::Attribute>& attrs) override;
    void endElement(int nsId, int id) override;
    void characterData(const char* data, int len) override;
    // Both lookups leave nsId alone and set id (0 when the name is unknown).
    bool elementName(const char* ns, const char* name, int& nsId, int& id) override;
    bool attributeName(const char* ns, const char* name, int& nsId, int& id) override;
    // Empties the message state after a parse failure or an exception. The
    // current client, the content mode and the payload decoder stay.
    void cleanup() override;

    // The client with this id in this kernel process, or null.
    virtual TAM_KernelImpl* kernel(long clientId) = 0;
    // The kernel process quits.
    virtual void onQuit() = 0;

    // Frees and empties the three debugger lists; their capacity stays.
    void clearDebugLists();
    // Forgets the formats of the current format message.
    void clearFmtList();
    // The interned copy of name, valid for the life of this handler.
    // Throws std::bad_alloc when a new name cannot be copied, and ends the
    // stream (over TAM_LIMIT_FORMAT_NAMES) when the name is too long or one
    // name too many.
    const char* formatName(const char* name);
    // A new chunk of input follows: code outside the parser may have
    // changed the locale since the last one.
    void beforeChunk() { localeRead_ = false; }

    // The TAM_LIMIT_... bound that a message crossed, which ended the
    // stream; 0 while none was.
    int over_limit() const { return overLimit_; }
    // Records that the stream ended over the bound which (the first one
    // recorded stays).
    void note_over_limit(int which)
    {
        if (!overLimit_)
            overLimit_ = which;
    }

protected:
    // A NUL-terminated text that keeps its largest storage, so that a value
    // no longer than an earlier one is copied without allocating and without
    // a call.
    class Text {
    public:
        Text() = default;
        ~Text();
        Text(const Text&) = delete;
        Text& operator=(const Text&) = delete;

        // Copies s. Throws std::bad_alloc (and is then empty) when a longer
        // value than ever before finds no memory.
        void assign(const char* s)
        {
            // Locals: a store through a char pointer could change the
            // members, which would otherwise be read again per byte.
            char* const d = data_;
            const std::size_t cap = cap_;
            for (std::size_t i = 0; i < cap; ++i)
                if ((d[i] = s[i]) == '\0')
                    return;
            assignLong(s);
        }
        void clear() { data_[0] = '\0'; }
        const char* c_str() const { return data_; }

    private:
        void assignLong(const char* s);

        char local_[32] = "";
        char* data_ = local_;
        std::size_t cap_ = sizeof local_;
    };

    // Appends a locale copy of the UTF-8 text (empty for null) to list.
    static void appendLocCopy(std::vector<char*>& list, const char* utf8);
    // Empties the content so that it reads as the empty text.
    void emptyContent();
    // Finishes an mcode element: decodes the rest of its text, readies the
    // decoder for the next payload and terminates the content.
    void endMCode();
    // Records the bound which as crossed and throws OverLimit, which leaves
    // the handler's work at once; the parser then ends the stream.
    [[noreturn]] void exceed(int which);

    TAM_KernelImpl* kernel_;           // current client, not owned
    TKpayloadDecoder decoder_;         // base64 and inflate state: mcode text to bytes
    bool hasData_;                     // the message carries a payload
    TKgrowingStream content_;          // text (locale) or payload bytes; grows geometrically
    bool inText_;                      // character data is text content
    bool inMCode_;                     // character data is base64 payload
    int64_t cookie_;                   // "cid" of the message
    Text type_;                        // "type", raw UTF-8
    Text format_;                      // "format" of text or mcode, raw UTF-8
    int32_t textInput_;                // "text" flag of sendinput
    std::vector<const char*> fmtList_; // formats of this message, interned
    std::vector<char*> fmtNames_;      // every distinct format name (malloc)
    std::unordered_set<std::string_view> fmtIndex_; // the same names, for lookup
    int64_t fmtCount_;                              // entries of fmtList_ in this message
    std::vector<char*> dbgNames_;                   // locale, malloc'd
    std::vector<long> dbgPositions_;
    std::vector<char*> dbgTexts_; // locale, malloc'd
    int64_t level_;               // "level" of callstack
    // Which text content needs no conversion under the locale, read once
    // per run of text: the locale can change only when code outside the
    // reader runs (a client handler at a tag, the caller between chunks).
    Tut::Utf8PassThrough passThrough_;
    bool localeRead_ = false;

private:
    // What each element does at its start and end tag; one rule per element.
    struct Rules;
    // Takes inflated payload bytes into the content, within the bound.
    class PayloadSink;
    // Thrown by exceed(): a bound was crossed.
    struct OverLimit {};

    int overLimit_ = 0;
};

#endif
