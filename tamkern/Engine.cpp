// The only translation unit that sees Giac.
#include "tamkern/Engine.h"

#include <giac/config.h>
#include <giac/giac.h>
#include <giac/input_lexer.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

#include "tamkern/Capture.h"
#include "tamkern/Messages.h"
#include "tamkern/TextLayout.h"

namespace tamkern {

namespace {

// Thrown by the kernel's own Giac functions; carries the text that the
// command's error output shows, whatever Giac makes of the exception.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Giac writes print() output and its parser's diagnostics to the context's
// log stream. This buffer hands complete lines to a sink as they come.
class LineBuf : public std::streambuf {
public:
    using Sink = std::function<void(const std::string&)>;
    // Installs a sink and returns the previous one; a partial line goes to
    // the previous sink first.
    Sink setSink(Sink sink)
    {
        flushLine();
        std::swap(sink_, sink);
        return sink;
    }
    void flushLine()
    {
        if (!line_.empty()) {
            std::string l;
            l.swap(line_);
            if (sink_)
                sink_(l);
        }
    }

protected:
    int_type overflow(int_type c) override
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
    std::streamsize xsputn(const char* s, std::streamsize n) override
    {
        for (std::streamsize i = 0; i < n; ++i)
            overflow(static_cast<unsigned char>(s[i]));
        return n;
    }

private:
    std::string line_;
    Sink sink_;
};

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

std::string giacText(const giac::gen& g, const giac::context* ctx)
{
    if (g.type == giac::_STRNG)
        return *g._STRNGptr;
    if (g.type == giac::_VECT && g._VECTptr->empty())
        return std::string();
    return g.print(ctx);
}

} // namespace

struct Engine::Impl {
    Engine& e;
    giac::context* ctx = nullptr;
    LineBuf logBuf;
    std::ostream logStream{&logBuf};
    const Job* job = nullptr;
    std::set<std::string> loadedInits;

    explicit Impl(Engine& engine) : e(engine) {}

    void post(const std::string& msg) { e.host_.post(job->client, msg); }
    void output(const char* type, const std::string& text)
    {
        post(msgOutputText(job->client, job->cid, type, "text", text));
    }

    bool interruptRequested()
    {
        std::lock_guard<std::mutex> lock(e.mutex_);
        return e.interruptRequested_;
    }

    // Asks the job's client and waits for its answer; throws when the job is
    // interrupted or its client goes away meanwhile.
    Answer ask(Question q, const std::string& message)
    {
        std::unique_lock<std::mutex> lock(e.mutex_);
        if (e.interruptRequested_)
            throw Failure("interrupted");
        e.question_ = q;
        e.questionClient_ = job->client;
        e.answered_ = false;
        lock.unlock();
        post(message);
        lock.lock();
        e.cond_.wait(lock, [this] { return e.answered_ || e.interruptRequested_; });
        e.question_ = Question::None;
        if (!e.answered_)
            throw Failure("interrupted");
        e.answered_ = false;
        return std::move(e.answer_);
    }

    giac::gen parseAnswer(const std::string& text, const char* what)
    {
        // Parser remarks about an answer are noise.
        LineBuf::Sink previous = logBuf.setSink(nullptr);
        giac::first_error_line(0, ctx);
        giac::gen g;
        bool bad = false;
        try {
            g = giac::gen(text, ctx);
            bad = giac::first_error_line(ctx) > 0;
        } catch (const std::exception&) {
            bad = true;
        }
        logBuf.setSink(std::move(previous));
        if (bad)
            throw Failure(std::string(what) + " is not a valid expression");
        return g;
    }

    std::string flushCapture()
    {
        std::cout.flush();
        std::cerr.flush();
        std::fflush(stdout);
        std::fflush(stderr);
        return e.capture_ ? e.capture_->take() : std::string();
    }

    void runJob(const Job& j)
    {
        job = &j;
        switch (j.kind) {
        case Job::Init: runInit(j); break;
        case Job::Command: runCommand(j); break;
        case Job::Complete: runComplete(j); break;
        }
        job = nullptr;
    }

    // Evaluation of one command text. silent: only failures are reported,
    // through onError (start-up file).
    struct Outcome {
        bool ok = false;
        bool nothing = false;  // no value to show
        bool help = false;
        giac::gen value;
        std::string error;
    };

    Outcome evaluate(const std::string& text, bool silent)
    {
        Outcome out;
        if (trimmed(text).empty()) {
            out.ok = out.nothing = true;  // an empty line asks for nothing
            return out;
        }
        std::string left = flushCapture();
        if (!left.empty())
            klog("output between commands: %.200s", trimmed(left).c_str());

        std::string parseLog;
        logBuf.setSink([&parseLog](const std::string& l) { parseLog += l + '\n'; });
        giac::first_error_line(0, ctx);
        giac::gen g;
        bool parsed = true;
        try {
            g = giac::gen(text, ctx);
        } catch (const std::exception& ex) {
            parsed = false;
            parseLog += ex.what();
        }
        logBuf.flushLine();
        if (!parsed || giac::first_error_line(ctx) > 0) {
            std::string captured = trimmed(flushCapture());
            if (!captured.empty() && !silent)
                output("error", captured);
            out.error = syntaxMessage(parseLog);
            return out;
        }
        if (!silent) {
            std::istringstream lines(parseLog);
            std::string l;
            while (std::getline(lines, l))
                if (!trimmed(l).empty() && !isChatter(l))
                    output("warning", trimmed(l));
        }

        // help(name) and ?name go to the front end's help handler.
        if (g.type == giac::_SYMB) {
            const char* fn = g._SYMBptr->sommet.ptr()->s;
            out.help = fn && (std::strcmp(fn, "findhelp") == 0 || std::strcmp(fn, "help") == 0);
        }
        if (silent || out.help)
            logBuf.setSink(nullptr);
        else
            logBuf.setSink([this](const std::string& l) { output("print", l); });

        std::string failure;
        try {
            out.value = g.eval(giac::eval_level(ctx), ctx);
            out.ok = true;
        } catch (const Failure& f) {
            failure = f.what();
        } catch (const std::exception& ex) {
            failure = oneLine(ex.what());
        } catch (...) {
            failure = "unknown error";
        }
        logBuf.flushLine();
        logBuf.setSink(nullptr);
        std::string captured = trimmed(flushCapture());

        if (interruptRequested()) {
            // Giac's own remarks about the interruption add nothing.
            out.ok = false;
            out.error = "interrupted";
            return out;
        }
        if (!captured.empty() && !silent && !out.help)
            output("error", captured);
        if (!out.ok) {
            out.error = failure;
            return out;
        }
        if (out.value.type == giac::_STRNG && out.value.subtype == -1) {
            out.ok = false;
            out.error = trimmed(*out.value._STRNGptr);
            return out;
        }
        out.nothing = out.value.type == giac::_VECT && out.value.subtype == giac::_SEQ__VECT &&
                      out.value._VECTptr->empty();
        return out;
    }

    std::string resultText(const giac::gen& r, const ResultStyle& style)
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

    void sendResult(const giac::gen& r)
    {
        const ResultStyle& style = job->style;
        if (style.format == "tex") {
            post(msgOutputText(job->client, job->cid, "result", "tex", trimmed(giac::gen2tex(r, ctx))));
        } else if (style.format == "mathml") {
            std::string m = "<math xmlns=\"http://www.w3.org/1998/Math/MathML\">" +
                            giac::gen2mathml(r, ctx) + "</math>";
            post(msgOutputText(job->client, job->cid, "result", "mathml", m));
        } else if (style.format == "utf8") {
            post(msgOutputData(job->client, job->cid, "result", "utf8", trimmed(r.print(ctx))));
        } else {
            post(msgOutputText(job->client, job->cid, "result", "text", resultText(r, style)));
        }
    }

    void runCommand(const Job& j)
    {
        if (!j.error.empty()) {
            output("error", j.error);
        } else {
            Outcome o = evaluate(j.text, false);
            if (!o.error.empty() || !o.ok) {
                output("error", o.error.empty() ? std::string("evaluation failed") : o.error);
            } else if (o.help) {
                post(msgValue("help", j.client, giacText(o.value, ctx)));
            } else if (!o.nothing) {
                sendResult(o.value);
            }
        }
        post(msgFinished(j.client, j.cid));
    }

    void loadInit(const std::string& dir)
    {
        std::string path = dir + "/tamkern/init";
        struct stat st;
        if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
            return;
        if (!loadedInits.insert(path).second)
            return;  // one shared session: the file has done its work
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
            if (interruptRequested())
                break;
        }
    }

    void runInit(const Job& j)
    {
        for (std::size_t i = 0; i < j.args.size(); ++i) {
            const std::string& a = j.args[i];
            if (a == "-l" && i + 1 < j.args.size()) {
                loadInit(j.args[++i]);
            } else if (a == "-l") {
                output("warning", "-l needs a directory");
            } else {
                output("warning", "unknown argument: " + a);
            }
        }
        post(msgEmpty("ready", j.client));
    }

    static bool isName(const char* s)
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

    void runComplete(const Job& j)
    {
        const std::string& pref = j.text;
        std::set<std::string> names;
        auto consider = [&](const char* n) {
            if (isName(n) && std::strncmp(n, pref.c_str(), pref.size()) == 0)
                names.insert(n);
        };
        for (auto p = giac::builtin_lexer_functions_begin(); p != giac::builtin_lexer_functions_end(); ++p)
            consider(p->first);
        for (const auto& kv : giac::lexer_functions())
            consider(kv.first);
        if (ctx->tabptr)
            for (const auto& kv : *ctx->tabptr)
                consider(kv.first);
        std::string list;
        for (const std::string& n : names) {
            if (!list.empty())
                list += ' ';
            list += n;
        }
        post(msgCompletion(j.client, list, pref));
    }
};

namespace {

Engine::Impl* gImpl = nullptr;  // the worker's session, for Giac's callbacks

std::string argText(const giac::gen& g, const giac::context* ctx)
{
    return giacText(g, ctx);
}

giac::gen tamInput(const giac::gen& args, const giac::context* ctx)
{
    Answer a = gImpl->ask(Question::Input,
                          msgSendInput(gImpl->job->client, gImpl->job->cid, false, argText(args, ctx)));
    if (a.canceled)
        throw Failure("input canceled");
    return gImpl->parseAnswer(a.text, "input");
}

giac::gen tamTextInput(const giac::gen& args, const giac::context* ctx)
{
    Answer a = gImpl->ask(Question::TextInput,
                          msgSendInput(gImpl->job->client, gImpl->job->cid, true, argText(args, ctx)));
    if (a.canceled)
        throw Failure("input canceled");
    return giac::string2gen(a.text, false);
}

giac::gen tamSystem(const giac::gen& args, const giac::context* ctx)
{
    Answer a = gImpl->ask(Question::System, msgValue("system", gImpl->job->client, argText(args, ctx)));
    return giac::gen(static_cast<long long>(a.value));
}

giac::gen tamCallback(const giac::gen& args, const giac::context* ctx)
{
    Answer a = gImpl->ask(Question::Callback,
                          msgCallback(gImpl->job->client, gImpl->job->cid, "utf8", trimmed(args.print(ctx))));
    if (a.canceled)
        throw Failure("callback failed");
    return gImpl->parseAnswer(a.text, "callback result");
}

// Kept so that the registrations stay reachable; a container would be
// destroyed at exit before the leak check runs.
giac::unary_function_ptr* gRegistered[3];

// Giac functions that use the front end. Giac keeps pointers to them for the
// life of the process, so they are never freed.
void registerFrontEndFunctions()
{
    static bool done = false;
    if (done)
        return;
    done = true;
    struct Def {
        giac::gen (*fn)(const giac::gen&, const giac::context*);
        const char* name;
    };
    // Constructing the pointer with a parser token registers the name.
    std::size_t n = 0;
    for (const Def& d : {Def{tamTextInput, "textinput"}, Def{tamSystem, "system"},
                         Def{tamCallback, "callback"}}) {
        auto* ev = new giac::unary_function_eval(0, d.fn, d.name);
        gRegistered[n++] = new giac::unary_function_ptr(ev, 0, 1);
    }
    // input is a parser keyword and cannot be re-registered; Giac routes it
    // through its table of interactive functions instead (entry 0).
    static giac::gen_op_context interactive[10] = {tamInput, nullptr, nullptr, nullptr, nullptr,
                                                   nullptr, nullptr, nullptr, nullptr, nullptr};
    giac::interactive_op_tab = interactive;
}

} // namespace

Engine::Engine(EngineHost& host, OutputCapture* capture) : host_(host), capture_(capture) {}

Engine::~Engine()
{
    shutdown(2000);
}

void Engine::start()
{
    thread_ = std::thread(&Engine::run, this);
}

void Engine::submit(Job job)
{
    std::lock_guard<std::mutex> lock(mutex_);
    jobs_.push_back(std::move(job));
    cond_.notify_all();
}

bool Engine::interrupt(long client)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (!running_ || runningClient_ != client) {
        // Handed over but not yet taken up by the worker.
        for (Job& j : jobs_)
            if (j.client == client && j.kind == Job::Command) {
                j.stopped = true;
                return true;
            }
        return false;
    }
    interruptRequested_ = true;
    giac::ctrl_c = true;
    giac::interrupted = true;
    cond_.notify_all();
    return true;
}

void Engine::clientGone(long client)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        gone_.push_back(client);
    }
    interrupt(client);
}

bool Engine::answer(long client, Question kind, Answer a)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (question_ != kind || questionClient_ != client || answered_)
        return false;
    answer_ = std::move(a);
    answered_ = true;
    cond_.notify_all();
    return true;
}

bool Engine::shutdown(int timeoutMs)
{
    if (!thread_.joinable())
        return true;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        quit_ = true;
        if (running_) {
            interruptRequested_ = true;
            giac::ctrl_c = true;
            giac::interrupted = true;
        }
        cond_.notify_all();
        if (!cond_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return finished_; }))
            return false;
    }
    thread_.join();
    return true;
}

void Engine::run()
{
    registerFrontEndFunctions();
    impl_ = std::make_unique<Impl>(*this);
    impl_->ctx = new giac::context;
    giac::logptr(&impl_->logStream, impl_->ctx);
    gImpl = impl_.get();
    for (;;) {
        Job job;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            cond_.wait(lock, [this] { return quit_ || !jobs_.empty(); });
            if (quit_)
                break;
            job = std::move(jobs_.front());
            jobs_.erase(jobs_.begin());
            running_ = true;
            runningClient_ = job.client;
            interruptRequested_ = job.stopped;
            giac::ctrl_c = job.stopped;
            giac::interrupted = job.stopped;
        }
        bool gone;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            gone = std::find(gone_.begin(), gone_.end(), job.client) != gone_.end();
        }
        if (!gone)
            impl_->runJob(job);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            running_ = false;
            runningClient_ = -1;
            question_ = Question::None;
            giac::ctrl_c = false;
            giac::interrupted = false;
        }
        host_.jobDone();
    }
    gImpl = nullptr;
    giac::logptr(nullptr, impl_->ctx);
    delete impl_->ctx;
    impl_.reset();
    std::lock_guard<std::mutex> lock(mutex_);
    finished_ = true;
    cond_.notify_all();
}

} // namespace tamkern
