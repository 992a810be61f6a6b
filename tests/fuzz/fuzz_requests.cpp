// Fuzzes the reference kernel's request reader as the server feeds it
// (chunks of one connection's stream into one RequestReader). Each request's
// payload is decoded as the server would, and its texts are echoed through
// the kernel's message writer; every such message must parse as XML, since
// one bad byte would stop the client's reader for good.
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

void onRequest(tamkern::Request& r)
{
    using namespace tamkern;
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
    fuzz::writeSeeds(*argc, *argv, {
        "<newclient name=\"console\" frame=\"f\" longfmt=\"text\" floatfmt=\"ieee\" coding=\"ident\" "
        "features=\"can_typeset stay_alive\"/><init cl=\"1\"><iarg value=\"-l\"/><iarg value=\"../lib\"/></init>",
        "<cmd cl=\"1\" cid=\"-5\"><text format=\"_lan\">a &lt; b &amp; \xc3\xa4</text></cmd>"
        "<cmd cl=\"1\" cid=\"6\"><mcode format=\"utf8\">eJxLTEoGAAJNASc=</mcode></cmd>",
        "<input cl=\"1\" canceled=\"0\"><text>42</text></input><textinput cl=\"2\" canceled=\"1\">hi</textinput>"
        "<callresult cl=\"1\" error=\"0\"><mcode format=\"m\">eJxLTEoGAAJNASc=</mcode></callresult>"
        "<sysresult cl=\"1\" value=\"0\"/>",
        "<format cl=\"1\" type=\"result\" value=\"latex\"/><textwidth cl=\"1\" value=\"72\"/>"
        "<prettyprint cl=\"1\" value=\"1\"/><abbreviateoutput cl=\"1\" value=\"0\"/><complete cl=\"1\" value=\"si\"/>"
        "<dbgcmd cl=\"1\" cmd=\"s\"/><sendstatus cl=\"1\"/><stop cl=\"1\"/><quit cl=\"1\"/>",
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    tamkern::RequestReader reader(onRequest);
    fuzz::feedChunks(data, size, [&](const char* p, int n) { reader.feed(p, n); });
    return 0;
}
