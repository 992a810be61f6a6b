// Giac values as text for the clients: the plain text of a value, and a
// command's result in the format and layout its client chose.
#include <giac/config.h>
#include <giac/giac.h>

#include "tamkern/GiacSession.h"
#include "tamkern/Messages.h"
#include "tamkern/TextLayout.h"

namespace tamkern {

namespace {

// Text laid out as the client asked: a matrix one row a line, long results
// abbreviated, lines wrapped at its width.
std::string layoutText(const giac::gen& r, const ResultStyle& style, const giac::context* ctx)
{
    std::string s;
    if (style.prettyPrint && giac::ckmatrix(r)) {
        for (const giac::gen& row : *r._VECTptr) {
            if (!s.empty())
                s += '\n';
            s += trimmed(row.print(ctx));
        }
    } else {
        s = trimmed(r.print(ctx));
    }
    if (style.abbreviate)
        s = abbreviate(s);
    return wrapText(s, style.textWidth);
}

std::string asText(const giac::gen& r, const Job& j, const giac::context* ctx)
{
    return msgOutputText(j.client, j.cid, "result", "text", layoutText(r, j.style, ctx));
}

std::string asTex(const giac::gen& r, const Job& j, const giac::context* ctx)
{
    return msgOutputText(j.client, j.cid, "result", "tex", trimmed(giac::gen2tex(r, ctx)));
}

std::string asMathml(const giac::gen& r, const Job& j, const giac::context* ctx)
{
    std::string m = "<math xmlns=\"http://www.w3.org/1998/Math/MathML\">" +
                    giac::gen2mathml(r, ctx) + "</math>";
    return msgOutputText(j.client, j.cid, "result", "mathml", m);
}

// Giac's own notation as a payload, without layout.
std::string asUtf8(const giac::gen& r, const Job& j, const giac::context* ctx)
{
    return msgOutputData(j.client, j.cid, "result", "utf8", trimmed(r.print(ctx)));
}

struct Renderer {
    const char* format;
    std::string (*render)(const giac::gen&, const Job&, const giac::context*);
};
const Renderer kRenderers[] = {
    {"text", asText}, {"tex", asTex}, {"mathml", asMathml}, {"utf8", asUtf8}};

} // namespace

std::string giacText(const giac::gen& g, const giac::context* ctx)
{
    if (g.type == giac::_STRNG)
        return *g._STRNGptr;
    if (g.type == giac::_VECT && g._VECTptr->empty())
        return std::string();
    return g.print(ctx);
}

std::string resultMessage(const giac::gen& r, const Job& job, const giac::context* ctx)
{
    for (const Renderer& k : kRenderers)
        if (job.style.format == k.format)
            return k.render(r, job, ctx);
    return asText(r, job, ctx);
}

} // namespace tamkern
