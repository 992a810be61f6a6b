// Fuzzes the reference kernel's request reader as the server feeds it
// (chunks of one connection's stream into one RequestReader). Each request's
// payload is decoded as the server would, and its texts are echoed through
// the kernel's message writer; every such message must parse as XML, since
// one bad byte would stop the client's reader for good. The input fed whole
// and fed in chunks must give the same requests and the same fault.
#include <expat.h>

#include <cstdarg>
#include <cstdio>

#include "FuzzCommon.h"
#include "tamkern/Messages.h"
#include "tamkern/Requests.h"

namespace tamkern {
// The server's log, formatted but not written (Capture.cpp is not linked).
void klog(const char* fmt, ...)
{
    char line[1024];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
}
} // namespace tamkern

namespace {

void expectWellFormed(const std::string& msg)
{
    const std::string doc = "<r>" + msg + "</r>";
    XML_Parser p = XML_ParserCreate("UTF-8");
    const bool ok = XML_Parse(p, doc.data(), static_cast<int>(doc.size()), 1) == XML_STATUS_OK;
    XML_ParserFree(p);
    if (!ok) {
        std::fprintf(stderr, "not well-formed: %s\n", doc.c_str());
        __builtin_trap();
    }
}

std::string gLog;

void onRequest(tamkern::Request& r)
{
    using namespace tamkern;
    gLog += std::string(requestName(r.kind)) + "|" + std::to_string(r.hasCl) +
            std::to_string(r.clValid) + "|" + std::to_string(r.cl) + "|" + std::to_string(r.cid) +
            "|" + r.name + "|" + r.frame + "|" + r.features + "|" + r.type + "|" + r.value + "|" +
            std::to_string(r.canceled) + std::to_string(r.error) + "|" +
            std::to_string(r.args.size()) + (r.args.empty() ? "" : r.args.back()) + "|" +
            std::to_string(r.hasText) + r.text + "|" + std::to_string(r.hasPayload) +
            r.payloadFormat + "|" + r.payloadBase64 + "\n";
    std::string bytes;
    if (r.hasPayload)
        decodeMCode(r.payloadBase64, bytes);
    for (const std::string* s : {&r.text, &r.name, &r.frame, &r.type, &r.value, &bytes})
        expectWellFormed(msgOutputText(r.cl, r.cid, requestName(r.kind), r.payloadFormat, *s));
    expectWellFormed(msgFormats("format", r.cl, r.type, {r.value}));
    expectWellFormed(msgCallback(r.cl, r.cid, r.payloadFormat, bytes));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    fuzz::writeSeeds(
        *argc, *argv,
        {
            "<newclient name=\"console\" frame=\"f\" longfmt=\"text\" floatfmt=\"ieee\" "
            "coding=\"ident\" "
            "features=\"can_typeset stay_alive\"/><init cl=\"1\"><iarg value=\"-l\"/><iarg "
            "value=\"../lib\"/></init>",
            "<cmd cl=\"1\" cid=\"-5\"><text format=\"_lan\">a &lt; b &amp; \xc3\xa4</text></cmd>"
            "<cmd cl=\"1\" cid=\"6\"><mcode format=\"utf8\">eJxLTEoGAAJNASc=</mcode></cmd>",
            "<input cl=\"1\" canceled=\"0\"><text>42</text></input><textinput cl=\"2\" "
            "canceled=\"1\">hi</textinput>"
            "<callresult cl=\"1\" error=\"0\"><mcode "
            "format=\"m\">eJxLTEoGAAJNASc=</mcode></callresult>"
            "<sysresult cl=\"1\" value=\"0\"/>",
            "<format cl=\"1\" type=\"result\" value=\"latex\"/><textwidth cl=\"1\" value=\"72\"/>"
            "<prettyprint cl=\"1\" value=\"1\"/><abbreviateoutput cl=\"1\" value=\"0\"/><complete "
            "cl=\"1\" value=\"si\"/>"
            "<dbgcmd cl=\"1\" cmd=\"s\"/><sendstatus cl=\"1\"/><stop cl=\"1\"/><quit cl=\"1\"/>",
        });
    return 0;
}

// The requests and the fault the input gives, fed whole or in chunks.
std::string requests(const uint8_t* data, std::size_t size, bool whole)
{
    gLog.clear();
    tamkern::RequestReader reader(onRequest);
    if (whole)
        reader.feed(reinterpret_cast<const char*>(data) + 2, static_cast<int>(size - 2));
    else
        fuzz::feedChunks(data, size, [&](const char* p, int n) { reader.feed(p, n); });
    return gLog + "fault: " + reader.fault() + (reader.midRequest() ? " (mid-request)" : "");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size < 2)
        return 0;
    const std::string whole = requests(data, size, true), split = requests(data, size, false);
    if (whole != split) {
        std::fprintf(stderr, "whole:\n%s\nsplit:\n%s\n", whole.c_str(), split.c_str());
        __builtin_trap();
    }
    return 0;
}
