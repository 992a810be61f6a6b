// Giac values for the clients: the plain text of a value, a command's result
// in the format and layout its client chose, and graphics as SVG.
#include <giac/config.h>
#include <giac/giac.h>

#include <cmath>

#include "tamkern/GiacSession.h"
#include "tamkern/Messages.h"
#include "tamkern/Svg.h"
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
        s = r.print(ctx);
        trimInPlace(s);
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

bool isPlot(const giac::gen& r)
{
    return giac::graph_output_type(r) == 2;
}

namespace {

// The part of the plane that the drawing shows, as Giac's own graphics
// windows choose it: around everything drawn, unless the plot names its
// window (gl_x=..., gl_y=...).
struct Window {
    double xmin = -1, xmax = 1, ymin = -1, ymax = 1;
    bool ortho = false;
};

Window windowOf(const giac::gen& r, const giac::context* ctx)
{
    Window w;
    std::vector<double> vx, vy, vz;
    w.ortho = giac::autoscaleg(r, vx, vy, vz, ctx);
    giac::autoscaleminmax(vx, w.xmin, w.xmax, false);
    giac::autoscaleminmax(vy, w.ymin, w.ymax, false);
    double zmin = 0, zmax = 0;
    giac::overwrite_viewbox(r, w.xmin, w.xmax, w.ymin, w.ymax, zmin, zmax);
    // A single point or a flat line has no extent of its own.
    auto widen = [](double& lo, double& hi) {
        if (!std::isfinite(lo) || !std::isfinite(hi) || !(hi > lo)) {
            double mid = std::isfinite(lo) ? lo : 0;
            lo = mid - 1;
            hi = mid + 1;
        }
    };
    widen(w.xmin, w.xmax);
    widen(w.ymin, w.ymax);
    return w;
}

} // namespace

std::string plotSvg(const giac::gen& r, const giac::context* ctx)
{
    Window w = windowOf(r, ctx);
    giac::plot_attr labels;
    giac::title_legende(r, labels);
    // Preamble (with the grid), the drawing, the axes' labels (which also
    // close the preamble's group) and the end.
    std::string svg =
        giac::svg_preamble_pixel(r, 16, 10, w.xmin, w.xmax, w.ymin, w.ymax, w.ortho, false, 0);
    svg += giac::gen2svg(r, w.xmin, w.xmax, w.ymin, w.ymax, 1.0, ctx, false);
    svg += giac::svg_grid(w.xmin, w.xmax, w.ymin, w.ymax, labels, 0);
    svg += giac::svg_end;
    svg = repairSvg(svg);
    if (!isWellFormedXml(svg))
        throw Failure("Giac's drawing is not well-formed SVG");
    return svg;
}

std::string resultMessage(const giac::gen& r, const Job& job, const giac::context* ctx)
{
    for (const Renderer& k : kRenderers)
        if (job.style.format == k.format)
            return k.render(r, job, ctx);
    return asText(r, job, ctx);
}

} // namespace tamkern
