#include "tamkern/GiacSession.h"

#include <giac/config.h>
#include <giac/giac.h>
#include <giac/input_lexer.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <sys/stat.h>

#include "tamkern/Capture.h"
#include "tamkern/Messages.h"
#include "tamkern/TextLayout.h"

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

} // namespace

LineBuf::Sink LineBuf::setSink(Sink sink)
{
    flushLine();
    std::swap(sink_, sink);
    return sink;
}

void LineBuf::flushLine()
{
    if (line_.empty())
        return;
    std::string l;
    l.swap(line_);
    if (sink_)
        sink_(l);
}

LineBuf::int_type LineBuf::overflow(int_type c)
{
    if (c == traits_type::eof())
        return traits_type::not_eof(c);
    if (c == '\n') {
        std::string l;
        l.swap(line_);
        if (sink_)
            sink_(l);
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
    giac::gen value;
    std::string error;
};

GiacSession::GiacSession(OutputCapture* capture) : capture_(capture)
{
    registerFrontEndFunctions();
    ctx_ = new giac::context;
    giac::logptr(&logStream_, ctx_);
    // Giac sets its parser up on first use, which takes most of a
    // millisecond. Done here, it overlaps with the first client's connection
    // instead of delaying that client's ready message.
    giac::gen warmUp(std::string("0"), ctx_);
    gCurrent = this;
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

void GiacSession::run(const Job& job, JobChannel& channel)
{
    job_ = &job;
    channel_ = &channel;
    switch (job.kind) {
    case Job::Init:
        runInit(job);
        break;
    case Job::Command:
        runCommand(job);
        break;
    case Job::Complete:
        runComplete(job);
        break;
    }
    job_ = nullptr;
    channel_ = nullptr;
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

giac::gen GiacSession::parseAnswer(const std::string& text, const char* what)
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
    return g;
}

// silent: only failures are reported, through the outcome (start-up file).
GiacSession::Outcome GiacSession::evaluate(const std::string& text, bool silent)
{
    Outcome out;
    if (trimmed(text).empty()) {
        out.ok = out.nothing = true; // an empty line asks for nothing
        return out;
    }
    std::string left = takeCaptured();
    if (!left.empty())
        klog("output between commands: %.200s", trimmed(left).c_str());
    giac::gen g;
    if (!parse(text, silent, g, out.error))
        return out;
    out.help = isHelpCall(g);
    evalParsed(g, silent || out.help, out);
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
        logBuf_.setSink([this](const std::string& l) { output("print", l); });
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

void GiacSession::runCommand(const Job& j)
{
    Outcome o = evaluate(j.text, false);
    if (!o.error.empty() || !o.ok)
        output("error", o.error.empty() ? std::string("evaluation failed") : o.error);
    else if (o.help)
        post(msgValue("help", j.client, giacText(o.value, ctx_)));
    else if (!o.nothing)
        post(resultMessage(o.value, j, ctx_));
    post(msgFinished(j.client, j.cid));
}

void GiacSession::runInit(const Job& j)
{
    for (std::size_t i = 0; i < j.args.size(); ++i) {
        const std::string& a = j.args[i];
        if (a == "-l" && i + 1 < j.args.size())
            loadInit(j.args[++i]);
        else if (a == "-l")
            output("warning", "-l needs a directory");
        else
            output("warning", "unknown argument: " + a);
    }
    post(msgEmpty("ready", j.client));
}

// Evaluates DIR/tamkern/init silently, once a session; a failing line is a
// warning.
void GiacSession::loadInit(const std::string& dir)
{
    std::string path = dir + "/tamkern/init";
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
        if (channel_->interrupted())
            break;
    }
}

// The names of functions and variables that start with the prefix, sorted.
void GiacSession::runComplete(const Job& j)
{
    const std::string& pref = j.text;
    std::set<std::string> names;
    auto consider = [&](const char* n) {
        if (isName(n) && std::strncmp(n, pref.c_str(), pref.size()) == 0)
            names.insert(n);
    };
    for (auto p = giac::builtin_lexer_functions_begin(); p != giac::builtin_lexer_functions_end();
         ++p)
        consider(p->first);
    for (const auto& kv : giac::lexer_functions())
        consider(kv.first);
    if (ctx_->tabptr)
        for (const auto& kv : *ctx_->tabptr)
            consider(kv.first);
    std::string list;
    for (const std::string& n : names) {
        if (!list.empty())
            list += ' ';
        list += n;
    }
    post(msgCompletion(j.client, list, pref));
}

} // namespace tamkern
