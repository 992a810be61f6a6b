#include "tamkern/GiacSession.h"

#include <giac/config.h>
#include <giac/giac.h>
#include <giac/input_lexer.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "tamkern/Capture.h"
#include "tamkern/Messages.h"
#include "tamkern/Paths.h"
#include "tamkern/TextLayout.h"

// Giac's parser reports a syntax error with the text of the line it
// happened in, which it finds through a pointer to a copy of the input that
// it has freed by then: garbage for short inputs, a crash for long ones,
// whose freed copy is no longer mapped. libgiac calls this reporter through
// the dynamic linker, so the program's own (exported) definition is the one
// called: it clears that pointer and hands over to Giac's, which then names
// the line, the column and the token only.
YY_EXTRA_TYPE giac_yyget_extra(void* scanner);

__attribute__((visibility("default"))) int giac_yyerror(void* scanner, const char* s)
{
    using Reporter = int (*)(void*, const char*);
    static const Reporter giacs =
        reinterpret_cast<Reporter>(::dlsym(RTLD_NEXT, "_Z12giac_yyerrorPvPKc"));
    giac::currently_scanned(giac_yyget_extra(scanner)) = nullptr;
    return giacs ? giacs(scanner, s) : 0;
}

namespace tamkern {

namespace {

GiacSession* gCurrent = nullptr;

// Lines of Giac's parser that only narrate what it does.
bool isChatter(const std::string& line)
{
    return line.rfind("// Parsing ", 0) == 0 || line.rfind("// Success", 0) == 0 ||
           line.rfind("// compiling ", 0) == 0;
}

// ":1: syntax error  line 1 col 3 at * in " -> "syntax error line 1 col 3 at *"
std::string syntaxMessage(const std::string& log)
{
    std::string s = trimmed(log);
    if (!s.empty() && s[0] == ':') {
        std::size_t c = s.find(':', 1);
        if (c != std::string::npos)
            s = trimmed(s.substr(c + 1));
    }
    std::string out;
    for (char ch : s) {
        if ((ch == ' ' || ch == '\n') && (out.empty() || out.back() == ' '))
            continue;
        out += ch == '\n' ? ' ' : ch;
    }
    while (!out.empty() && out.back() == ' ')
        out.pop_back();
    if (out.size() >= 3 && out.compare(out.size() - 3, 3, " in") == 0)
        out.erase(out.size() - 3);
    return out.empty() ? std::string("syntax error") : out;
}

// Giac's error texts come with stray line breaks ("f(x) \n Error: ...").
std::string oneLine(const std::string& text)
{
    std::string out;
    std::istringstream lines(text);
    std::string l;
    while (std::getline(lines, l)) {
        l = trimmed(l);
        if (l.empty())
            continue;
        if (!out.empty())
            out += ' ';
        out += l;
    }
    return out;
}

bool isName(const char* s)
{
    if (!s || !*s)
        return false;
    for (const char* p = s; *p; ++p) {
        unsigned char c = static_cast<unsigned char>(*p);
        if (!(std::isalnum(c) || c == '_'))
            return false;
    }
    return !std::isdigit(static_cast<unsigned char>(*s));
}

std::vector<std::string> builtinNames()
{
    std::vector<std::string> names;
    for (auto p = giac::builtin_lexer_functions_begin(); p != giac::builtin_lexer_functions_end();
         ++p)
        if (isName(p->first))
            names.push_back(p->first);
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

// Whole or not at all: a front end that opens the file as soon as it hears
// of it never reads half of it.
void writePlotFile(const std::string& path, const std::string& svg)
{
    std::size_t slash = path.rfind('/');
    if (!makeDirs(path.substr(0, slash)))
        throw Failure(path.substr(0, slash) + ": " + std::strerror(errno));
    std::string part = path + ".part";
    int fd = ::open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        throw Failure(part + ": " + std::strerror(errno));
    std::size_t done = 0;
    while (done < svg.size()) {
        ssize_t n = ::write(fd, svg.data() + done, svg.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        done += static_cast<std::size_t>(n);
    }
    int err = done == svg.size() ? 0 : errno;
    if (::close(fd) != 0 && err == 0)
        err = errno;
    if (err == 0 && ::rename(part.c_str(), path.c_str()) != 0)
        err = errno;
    if (err != 0) {
        ::unlink(part.c_str());
        throw Failure(path + ": " + std::strerror(err));
    }
}

} // namespace

LineBuf::Sink LineBuf::setSink(Sink sink)
{
    flushLine();
    std::swap(sink_, sink);
    return sink;
}

void LineBuf::flushLine()
{
    if (!line_.empty())
        emit();
}

void LineBuf::emit()
{
    std::string l;
    l.swap(line_);
    if (guard_)
        guard_(l);
    if (sink_)
        sink_(l);
}

LineBuf::int_type LineBuf::overflow(int_type c)
{
    if (c == traits_type::eof())
        return traits_type::not_eof(c);
    if (c == '\n') {
        emit();
    } else if (line_.size() < 1u << 20) {
        line_ += static_cast<char>(c);
    }
    return c;
}

std::streamsize LineBuf::xsputn(const char* s, std::streamsize n)
{
    for (std::streamsize i = 0; i < n; ++i)
        overflow(static_cast<unsigned char>(s[i]));
    return n;
}

// Evaluation of one command text.
struct GiacSession::Outcome {
    bool ok = false;
    bool nothing = false; // no value to show
    bool help = false;
    bool parsed = false;
    giac::gen command; // as parsed
    giac::gen value;
    std::string error;
};

GiacSession::GiacSession(OutputCapture* capture, std::string plotDir, NamesSink names)
    : capture_(capture), namesSink_(std::move(names))
{
    plots_.dir = std::move(plotDir);
    registerFrontEndFunctions();
    giac::MAX_RECURSION_LEVEL = MaxRecursion;
    ctx_ = new giac::context;
    giac::logptr(&logStream_, ctx_);
    // Giac announces its non-recursive evaluator on the log, which then
    // runs away in this build (even a recursion that ends never returns):
    // the command fails there instead. The exception leaves through the
    // stream.
    logStream_.exceptions(std::ios::badbit);
    logBuf_.setGuard([](const std::string& line) {
        if (line.rfind("Running non recursive evaluator", 0) == 0)
            throw Failure("recursion too deep (more than " + std::to_string(MaxRecursion) +
                          " levels)");
    });
    builtinNames_ = builtinNames();
    // Giac sets its parser up on first use, which takes most of a
    // millisecond. Done here, it overlaps with the first client's connection
    // instead of delaying that client's ready message.
    giac::gen warmUp(std::string("0"), ctx_);
    gCurrent = this;
    publishNames();
}

GiacSession::~GiacSession()
{
    gCurrent = nullptr;
    giac::logptr(nullptr, ctx_);
    delete ctx_;
}

void GiacSession::setInterrupt(bool on)
{
    giac::ctrl_c = on;
    giac::interrupted = on;
}

GiacSession& GiacSession::current()
{
    return *gCurrent;
}

std::string GiacSession::run(const Job& job, JobChannel& channel)
{
    job_ = &job;
    channel_ = &channel;
    std::string last;
    if (job.kind == Job::Init)
        runInit(job);
    else
        last = runCommand(job);
    resetAfterJob();
    job_ = nullptr;
    channel_ = nullptr;
    return last;
}

// A command that failed halfway (the recursion limit above all) leaves
// Giac's stacks of calls filled and the log stream failed.
void GiacSession::resetAfterJob()
{
    giac::debug_struct* d = giac::debug_ptr(ctx_);
    d->sst_at_stack.clear();
    d->args_stack.clear();
    d->current_instruction_stack.clear();
    d->sst_at.clear();
    logStream_.clear();
}

Answer GiacSession::ask(Question kind, std::string message)
{
    return channel_->ask(kind, std::move(message));
}

void GiacSession::post(std::string message)
{
    channel_->post(std::move(message));
}

void GiacSession::output(const char* type, const std::string& text)
{
    post(msgOutputText(job_->client, job_->cid, type, "text", text));
}

std::string GiacSession::takeCaptured()
{
    std::cout.flush();
    std::cerr.flush();
    std::fflush(stdout);
    std::fflush(stderr);
    return capture_ ? capture_->take() : std::string();
}

giac::gen GiacSession::evalAnswer(const std::string& text, const char* what)
{
    // Parser remarks about an answer are noise.
    LineBuf::Sink previous = logBuf_.setSink(nullptr);
    giac::first_error_line(0, ctx_);
    giac::gen g;
    bool bad = false;
    try {
        g = giac::gen(text, ctx_);
        bad = giac::first_error_line(ctx_) > 0;
    } catch (const std::exception&) {
        bad = true;
    }
    logBuf_.setSink(std::move(previous));
    if (bad)
        throw Failure(std::string(what) + " is not a valid expression");
    return g.eval(giac::eval_level(ctx_), ctx_);
}

// silent: only failures are reported, through the outcome (start-up file).
GiacSession::Outcome GiacSession::evaluate(const std::string& text, bool silent)
{
    Outcome out;
    if (trimmedView(text).empty()) {
        out.ok = out.nothing = true; // an empty line asks for nothing
        return out;
    }
    std::string left = takeCaptured();
    if (!left.empty())
        klog("output between commands: %.200s", trimmed(left).c_str());
    // A command stopped before it began is not even parsed; Giac's parser
    // fails on the interrupt flag with a message of its own.
    if (channel_->interrupted() || !parse(text, silent, out.command, out.error)) {
        if (channel_->interrupted())
            out.error = "interrupted";
        return out;
    }
    out.parsed = true;
    out.help = isHelpCall(out.command);
    evalParsed(out.command, silent || out.help, out);
    return out;
}

// Parses text into g; what the parser says goes to the client as warnings
// unless silent. false with the syntax error's text in error.
bool GiacSession::parse(const std::string& text, bool silent, giac::gen& g, std::string& error)
{
    std::string parseLog;
    logBuf_.setSink([&parseLog](const std::string& l) { parseLog += l + '\n'; });
    giac::first_error_line(0, ctx_);
    bool parsed = true;
    try {
        g = giac::gen(text, ctx_);
    } catch (const std::exception& ex) {
        parsed = false;
        parseLog += ex.what();
    }
    logBuf_.setSink(nullptr);
    if (!parsed || giac::first_error_line(ctx_) > 0) {
        std::string captured = trimmed(takeCaptured());
        if (!captured.empty() && !silent)
            output("error", captured);
        error = syntaxMessage(parseLog);
        return false;
    }
    if (!silent) {
        std::istringstream lines(parseLog);
        std::string l;
        while (std::getline(lines, l))
            if (!trimmed(l).empty() && !isChatter(l))
                output("warning", trimmed(l));
    }
    return true;
}

// Evaluates g into out; unless quiet, printed lines and captured output go
// to the client as they belong to the command.
void GiacSession::evalParsed(const giac::gen& g, bool quiet, Outcome& out)
{
    if (quiet)
        logBuf_.setSink(nullptr);
    else
        // Once stopped, what Giac prints is its own remarks about stopping.
        logBuf_.setSink([this](const std::string& l) {
            if (!channel_->interrupted())
                output("print", l);
        });
    std::string failure;
    out.ok = evalCatching(g, out.value, failure);
    logBuf_.setSink(nullptr);
    std::string captured = trimmed(takeCaptured());
    if (channel_->interrupted()) {
        // Giac's own remarks about the interruption add nothing.
        out.ok = false;
        out.error = "interrupted";
        return;
    }
    if (!captured.empty() && !quiet)
        output("error", captured);
    if (!out.ok) {
        out.error = failure;
    } else if (out.value.type == giac::_STRNG && out.value.subtype == -1) {
        // Giac's way of returning an error as a value.
        out.ok = false;
        out.error = trimmed(*out.value._STRNGptr);
    } else {
        out.nothing = out.value.type == giac::_VECT && out.value.subtype == giac::_SEQ__VECT &&
                      out.value._VECTptr->empty();
    }
}

// Evaluates g into value; false with the text to show if it throws.
bool GiacSession::evalCatching(const giac::gen& g, giac::gen& value, std::string& failure)
{
    try {
        value = g.eval(giac::eval_level(ctx_), ctx_);
        return true;
    } catch (const Failure& f) {
        failure = f.what();
    } catch (const std::exception& ex) {
        failure = oneLine(ex.what());
    } catch (...) {
        failure = "unknown error";
    }
    return false;
}

std::string GiacSession::runCommand(const Job& j)
{
    Outcome o = evaluate(j.text, false);
    if (!o.error.empty() || !o.ok)
        output("error", o.error.empty() ? std::string("evaluation failed") : o.error);
    else if (o.help)
        post(msgValue("help", j.client, giacText(o.value, ctx_)));
    else if (!o.nothing)
        postResult(o.value, j);
    if (j.history && o.parsed && !o.help)
        remember(o.command, o);
    publishNames();
    return msgFinished(j.client, j.cid);
}

// Giac's history functions (ans, quest) read the context's lists of
// commands and results; a failed command keeps its error as its result.
void GiacSession::remember(const giac::gen& command, const Outcome& out)
{
    giac::vecteur& in = giac::history_in(ctx_);
    giac::vecteur& results = giac::history_out(ctx_);
    giac::gen result = out.value;
    if (!out.ok) {
        result = giac::string2gen(out.error, false);
        result.subtype = -1;
    }
    in.push_back(command);
    results.push_back(result);
    if (in.size() > MaxHistory) {
        std::size_t drop = in.size() - MaxHistory;
        in.erase(in.begin(), in.begin() + drop);
        results.erase(results.begin(), results.begin() + std::min(drop, results.size()));
    }
}

// A graphic for a client that shows plot files goes to a file; its result
// only says so. Anything else, or a graphic that cannot be drawn, is text.
void GiacSession::postResult(const giac::gen& r, const Job& j)
{
    if (!j.style.plots || plots_.dir.empty() || !isPlot(r)) {
        post(resultMessage(r, j, ctx_));
        return;
    }
    // An evaluator started after another one's crash goes on after its
    // files: a front end may still show them.
    std::string name, path;
    struct stat st;
    do {
        name = "plot-" + std::to_string(plots_.next++) + ".svg";
        path = plots_.dir + "/" + name;
    } while (::stat(path.c_str(), &st) == 0);
    try {
        writePlotFile(path, plotSvg(r, ctx_));
    } catch (const std::exception& ex) {
        output("warning", std::string("no plot file: ") + ex.what());
        post(resultMessage(r, j, ctx_));
        return;
    }
    post(msgPlotFile(j.client, j.cid, path));
    post(msgOutputText(j.client, j.cid, "result", "text", "2-D plot: " + name));
}

void GiacSession::runInit(const Job& j)
{
    for (const std::string& path : j.initFiles) {
        loadInit(path);
        if (channel_->interrupted())
            break;
    }
    publishNames();
}

// Evaluates a start-up file silently, once a session; a failing line is a
// warning.
void GiacSession::loadInit(const std::string& path)
{
    struct stat st;
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return;
    if (!loadedInits_.insert(path).second)
        return; // one shared session: the file has done its work
    std::ifstream in(path);
    std::string line;
    int lineNo = 0;
    while (std::getline(in, line)) {
        ++lineNo;
        std::string t = trimmed(line);
        if (t.empty() || t[0] == '#' || t.rfind("//", 0) == 0)
            continue;
        Outcome o = evaluate(t, true);
        if (!o.ok || !o.error.empty())
            output("warning", path + ":" + std::to_string(lineNo) + ": " +
                                  (o.error.empty() ? std::string("failed") : o.error));
        resetAfterJob();
        if (channel_->interrupted())
            break;
    }
}

// Completion offers the builtin functions, collected once, and the names
// the session has defined; the list goes out when the latter change.
void GiacSession::publishNames()
{
    std::set<std::string> defined;
    for (const auto& kv : giac::lexer_functions())
        if (isName(kv.first))
            defined.insert(kv.first);
    if (ctx_->tabptr)
        for (const auto& kv : *ctx_->tabptr)
            if (isName(kv.first))
                defined.insert(kv.first);
    if (publishedOnce_ && defined == definedNames_)
        return;
    publishedOnce_ = true;
    definedNames_ = defined;
    std::vector<std::string> names;
    names.reserve(builtinNames_.size() + defined.size());
    std::merge(builtinNames_.begin(), builtinNames_.end(), defined.begin(), defined.end(),
               std::back_inserter(names));
    names.erase(std::unique(names.begin(), names.end()), names.end());
    namesSink_(std::move(names));
}

} // namespace tamkern
