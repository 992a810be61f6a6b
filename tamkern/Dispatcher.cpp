#include "tamkern/Dispatcher.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <unistd.h>

#include "tamkern/Capture.h"
#include "tamkern/Messages.h"
#include "tamkern/TextLayout.h"

namespace tamkern {

namespace {

// The command that ends the kernel, also written as "quit;" or "quit()".
bool isQuitCommand(const std::string& text)
{
    std::string_view t = trimmedView(text);
    return t == "quit" || t == "quit;" || t == "quit()" || t == "quit();";
}

bool isResultFormat(const std::string& f)
{
    for (const char* k : ResultFormats)
        if (f == k)
            return true;
    return false;
}

// The settings of a client's results; apply() stores the request's value and
// returns the value that the confirmation names.
struct Setting {
    Request::Kind kind;
    long long (*apply)(ResultStyle& style, long value);
};
const Setting kSettings[] = {
    {Request::TextWidth,
     [](ResultStyle& s, long v) {
         s.textWidth = v;
         return static_cast<long long>(v);
     }},
    {Request::PrettyPrint,
     [](ResultStyle& s, long v) {
         s.prettyPrint = v != 0;
         return s.prettyPrint ? 1LL : 0LL;
     }},
    {Request::AbbreviateOutput,
     [](ResultStyle& s, long v) {
         s.abbreviate = v != 0;
         return s.abbreviate ? 1LL : 0LL;
     }},
};

Question questionOf(Request::Kind kind)
{
    switch (kind) {
    case Request::Input:
        return Question::Input;
    case Request::TextInput:
        return Question::TextInput;
    case Request::SysResult:
        return Question::System;
    default:
        return Question::Callback;
    }
}

// The answer that an input, textinput, sysresult or callresult request
// gives. A callback's payload goes on undecoded: only the evaluator, when
// it has asked, spends the time to inflate it.
Answer answerOf(Request& req)
{
    Answer a;
    if (req.kind == Request::SysResult) {
        a.value = std::strtoll(req.value.c_str(), nullptr, 10);
    } else if (req.kind == Request::CallResult) {
        a.canceled = req.error;
        a.encoded = req.hasPayload;
        a.text = std::move(req.payloadBase64);
    } else {
        a.canceled = req.canceled;
        a.text = std::move(req.text);
    }
    return a;
}

// What a waiting job costs its connection.
std::size_t jobBytes(const Job& job)
{
    std::size_t n = 256 + job.text.size();
    for (const std::string& f : job.initFiles)
        n += f.size();
    return n;
}

// A text from a client quoted in a message of the kernel's, shortened.
std::string quoted(const std::string& s)
{
    const std::size_t Max = 200;
    return s.size() <= Max ? s : s.substr(0, Max) + "...";
}

Job jobFor(const Client& cl, Job::Kind kind)
{
    Job job;
    job.kind = kind;
    job.client = cl.id;
    job.style = cl.style; // as it is now: later settings do not change it
    return job;
}

// Adds the resident and virtual size (KiB) and the CPU time (clock ticks)
// of the process under /proc/<proc>.
void addFigures(const std::string& proc, long long& used, long long& res, long long& ticks)
{
    long page = ::sysconf(_SC_PAGESIZE);
    if (FILE* f = std::fopen((proc + "/statm").c_str(), "r")) {
        long long size = 0, resident = 0;
        if (std::fscanf(f, "%lld %lld", &size, &resident) == 2) {
            used += resident * page / 1024;
            res += size * page / 1024;
        }
        std::fclose(f);
    }
    // Fields 14 and 15, user and system time, after the command's name,
    // which ends with the line's last ')'.
    if (FILE* f = std::fopen((proc + "/stat").c_str(), "r")) {
        char buf[1024];
        std::size_t n = std::fread(buf, 1, sizeof buf - 1, f);
        buf[n] = '\0';
        std::fclose(f);
        const char* p = std::strrchr(buf, ')');
        unsigned long long utime = 0, stime = 0;
        if (p && std::sscanf(p + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu",
                             &utime, &stime) == 2)
            ticks += static_cast<long long>(utime + stime);
    }
}

// The status figures of the kernel, its server and its evaluator process
// together: resident and virtual size in KiB, CPU seconds.
std::string statusMessage(long client, int evaluator)
{
    long long used = 0, res = 0, ticks = 0;
    addFigures("/proc/self", used, res, ticks);
    if (evaluator > 0)
        addFigures("/proc/" + std::to_string(evaluator), used, res, ticks);
    long hz = ::sysconf(_SC_CLK_TCK);
    return msgStatus(client, used, res, hz > 0 ? ticks / hz : 0);
}

} // namespace

std::string completionList(const std::vector<std::string>& names, const std::string& prefix)
{
    std::string list;
    for (auto it = std::lower_bound(names.begin(), names.end(), prefix);
         it != names.end() && it->compare(0, prefix.size(), prefix) == 0; ++it) {
        if (!list.empty())
            list += ' ';
        list += *it;
    }
    return list;
}

Dispatcher::Dispatcher(Host& host, Engine& engine, std::chrono::milliseconds stopWarning,
                       std::chrono::milliseconds stopGrace)
    : host_(host), engine_(engine), stopWarning_(stopWarning), stopGrace_(stopGrace)
{
}

void Dispatcher::request(int conn, Request& req)
{
    if (quitting_)
        return;
    if (req.kind == Request::NewClient) {
        announce(conn, req);
        return;
    }
    Client* cl = resolve(conn, req);
    if (!cl || answerAtOnce(*cl, req))
        return;
    if (req.kind == Request::Init)
        init(*cl, req);
    else if (req.kind == Request::Cmd)
        command(*cl, req);
}

void Dispatcher::announce(int conn, const Request& req)
{
    Client& cl = session_.add(conn, req.name, req.features);
    cl.style.plots = cl.has("can_plot");
    long id = cl.id;
    bool typeset = cl.has("can_typeset");
    // Counting the client may close the connection, and a failed write
    // removes the client: nothing of it is used after.
    host_.clientAdded(conn);
    // The first message for a new id is what tells the client its id.
    host_.send(conn, msgEmpty("sendinit", id));
    if (typeset)
        host_.send(conn, msgFormats("selformat", id, "result",
                                    std::vector<std::string>(std::begin(ResultFormats),
                                                             std::end(ResultFormats))));
}

Client* Dispatcher::resolve(int conn, const Request& req)
{
    if (!req.hasCl) {
        // A client that does not know its id yet writes none; with one
        // client on the connection there is no doubt who it is.
        const std::vector<long>& ids = session_.of(conn);
        if (ids.size() == 1)
            return session_.find(ids.front());
        klog("connection %d: <%s> without a client id", conn, requestName(req.kind));
        return nullptr;
    }
    Client* cl = req.clValid ? session_.find(req.cl) : nullptr;
    if (!cl || cl->conn != conn) {
        klog("connection %d: <%s> for unknown client %s", conn, requestName(req.kind),
             req.clValid ? std::to_string(req.cl).c_str() : "(not a number)");
        return nullptr;
    }
    return cl;
}

// Requests that need no evaluation: true if req was one.
bool Dispatcher::answerAtOnce(Client& cl, Request& req)
{
    switch (req.kind) {
    case Request::Stop:
        stop(cl);
        return true;
    case Request::SendStatus:
        host_.send(cl.conn, statusMessage(cl.id, engine_.processId()));
        return true;
    case Request::Quit:
        removeClient(cl.id);
        return true;
    case Request::DbgCmd:
        return true; // this kernel has no debugger and never asks for one
    case Request::Input:
    case Request::TextInput:
    case Request::SysResult:
    case Request::CallResult:
        engine_.answer(cl.id, questionOf(req.kind), answerOf(req));
        return true;
    case Request::TextWidth:
    case Request::PrettyPrint:
    case Request::AbbreviateOutput:
        applySetting(cl, req);
        return true;
    case Request::Format:
        chooseFormat(cl, req);
        return true;
    case Request::Complete:
        complete(cl, req.value);
        return true;
    default:
        return false;
    }
}

// Stops this client's running command only: in a shared session one client
// must not cut short another's work. Its commands still waiting in the queue
// are not affected.
void Dispatcher::stop(const Client& cl)
{
    engine_.interrupt(cl.id);
    stopRunning(cl.id);
}

// The grace of a stopped command begins, if client's command runs.
void Dispatcher::stopRunning(long client)
{
    Running& r = running_;
    if (r.active && r.kind == Job::Command && r.client == client &&
        r.stopped == Clock::time_point::max())
        r.stopped = Clock::now();
}

Dispatcher::Clock::time_point Dispatcher::stopDeadline() const
{
    const Running& r = running_;
    if (!r.active || r.stopped == Clock::time_point::max())
        return Clock::time_point::max();
    return r.stopped + (r.warned ? stopGrace_ : stopWarning_);
}

void Dispatcher::checkStopped(Clock::time_point now)
{
    Running& r = running_;
    if (!r.active || r.stopped == Clock::time_point::max())
        return;
    if (now >= r.stopped + stopGrace_) {
        restartStopped();
        return;
    }
    if (r.warned || now < r.stopped + stopWarning_)
        return;
    r.warned = true;
    if (const Client* cl = session_.find(r.client))
        host_.send(cl->conn, msgOutputText(cl->id, r.cid, "warning", "text", NotResponding));
}

// The stopped command would not end: a fresh evaluator ends it.
void Dispatcher::restartStopped()
{
    Running r = std::move(running_);
    running_ = Running();
    klog("client %ld's command did not respond to stop; restarting the evaluator", r.client);
    engine_.restart();
    if (const Client* cl = session_.find(r.client)) {
        int conn = cl->conn;
        host_.send(conn, msgOutputText(r.client, r.cid, "error", "text", RestartedAfterStop));
        host_.send(conn, msgFinished(r.client, r.cid));
    }
    afterRestart(r.client);
}

void Dispatcher::evaluatorLost(const std::string& why)
{
    Running r = std::move(running_);
    running_ = Running();
    const std::string crash = std::string(Crashed) + " (" + why +
                              ") and was restarted: the session's variables and history are lost";
    if (r.active && r.kind == Job::Command) {
        if (const Client* cl = session_.find(r.client)) {
            int conn = cl->conn;
            host_.send(conn, msgOutputText(r.client, r.cid, "error", "text", crash));
            host_.send(conn, msgFinished(r.client, r.cid));
        }
    } else if (r.active) {
        // Start-up files that crash it are not run again; whoever waits for
        // them hears why and is ready.
        for (const std::string& f : r.initFiles) {
            loadingFiles_.erase(f);
            loadedFiles_.insert(f);
            reloadFiles_.erase(std::remove(reloadFiles_.begin(), reloadFiles_.end(), f),
                               reloadFiles_.end());
            for (WaitingInit& w : waitingInits_)
                if (std::find(w.files.begin(), w.files.end(), f) != w.files.end())
                    w.warnings.push_back(f + ": " + crash);
        }
        releaseReadyInits();
    }
    afterRestart(r.active && r.kind == Job::Command ? r.client : -1);
}

// The fresh evaluator first evaluates the start-up files the session had
// evaluated; every client but except hears that the session is new.
void Dispatcher::afterRestart(long except)
{
    // A failed send removes clients: the list is taken first.
    std::vector<std::pair<long, int>> others;
    for (const Client* cl : session_.all())
        if (cl->id != except)
            others.emplace_back(cl->id, cl->conn);
    for (const auto& o : others)
        if (session_.find(o.first))
            host_.send(o.second, msgOutputText(o.first, 0, "warning", "text", Restarted));
    if (!reloadFiles_.empty()) {
        Job job;
        job.kind = Job::Init;
        job.initFiles = reloadFiles_;
        queue_.push_front(Pending{-1, std::move(job), std::string()});
    }
    dispatch();
}

void Dispatcher::connectionClosed(int conn)
{
    std::vector<long> ids = session_.of(conn); // removeClient changes it
    for (long id : ids)
        removeClient(id);
}

// A leaving client's commands go with it; start-up files it asked for are
// the session's and still wait for their turn.
void Dispatcher::removeClient(long id)
{
    const Client* cl = session_.find(id);
    if (!cl)
        return;
    int conn = cl->conn;
    session_.remove(id);
    host_.clientRemoved(conn);
    // A computation that ignores the stop does not outlive its client for
    // longer than the grace.
    engine_.clientGone(id);
    stopRunning(id);
    for (auto q = queue_.begin(); q != queue_.end();) {
        if (q->job.client == id && q->job.kind == Job::Command) {
            host_.requestTaken(q->conn, jobBytes(q->job));
            q = queue_.erase(q);
        } else {
            ++q;
        }
    }
    waitingInits_.erase(std::remove_if(waitingInits_.begin(), waitingInits_.end(),
                                       [id](const WaitingInit& w) { return w.client == id; }),
                        waitingInits_.end());
}

void Dispatcher::deliver(long client, std::string message)
{
    if (const Client* cl = session_.find(client))
        host_.send(cl->conn, std::move(message));
}

void Dispatcher::names(std::vector<std::string> names)
{
    names_ = std::move(names);
    haveNames_ = true;
    std::vector<std::pair<long, std::string>> waiting;
    waiting.swap(waitingCompletions_);
    for (const auto& w : waiting)
        if (const Client* cl = session_.find(w.first))
            complete(*cl, w.second);
}

void Dispatcher::complete(const Client& cl, const std::string& prefix)
{
    // Until the engine has started there is nothing to complete from.
    bool hopeless = prefix.size() > MaxPrefix;
    if (!haveNames_ && !hopeless && waitingCompletions_.size() < MaxWaitingCompletions) {
        waitingCompletions_.emplace_back(cl.id, prefix);
        return;
    }
    std::string list = haveNames_ && !hopeless ? completionList(names_, prefix) : std::string();
    host_.send(cl.conn, msgCompletion(cl.id, list, prefix));
}

void Dispatcher::init(Client& cl, const Request& req)
{
    WaitingInit w{cl.id, {}, {}};
    const std::vector<std::string>& a = req.args;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (a[i] == "-l" && i + 1 < a.size())
            w.files.push_back(a[++i] + "/tamkern/init");
        else if (a[i] == "-l")
            w.warnings.push_back("-l needs a directory");
        else
            w.warnings.push_back("unknown argument: " + quoted(a[i]));
    }
    Job job = jobFor(cl, Job::Init);
    for (const std::string& f : w.files)
        if (!loadedFiles_.count(f) && loadingFiles_.insert(f).second)
            job.initFiles.push_back(f);
    if (!job.initFiles.empty())
        enqueue(cl.conn, std::move(job));
    waitingInits_.push_back(std::move(w));
    releaseReadyInits();
}

// Every waiting client whose start-up files have all been evaluated hears
// its warnings and is ready, in the order their inits came.
void Dispatcher::releaseReadyInits()
{
    auto loaded = [this](const WaitingInit& w) {
        return std::all_of(w.files.begin(), w.files.end(),
                           [this](const std::string& f) { return loadedFiles_.count(f) != 0; });
    };
    std::vector<WaitingInit> ready;
    for (auto it = waitingInits_.begin(); it != waitingInits_.end();) {
        if (loaded(*it)) {
            ready.push_back(std::move(*it));
            it = waitingInits_.erase(it);
        } else {
            ++it;
        }
    }
    for (const WaitingInit& w : ready) {
        const Client* cl = session_.find(w.client);
        if (!cl)
            continue; // removed by a failed send meanwhile
        int conn = cl->conn;
        for (const std::string& warning : w.warnings)
            host_.send(conn, msgOutputText(w.client, 0, "warning", "text", warning));
        host_.send(conn, msgEmpty("ready", w.client));
    }
}

void Dispatcher::command(Client& cl, Request& req)
{
    if (req.hasText && isQuitCommand(req.text)) {
        quit();
        return;
    }
    Job job = jobFor(cl, Job::Command);
    job.cid = req.cid;
    job.history = !req.noHistory;
    std::string error;
    if (!req.hasPayload) {
        job.text = std::move(req.text);
    } else if (req.payloadFormat != "utf8") {
        error = "unsupported payload format \"" + quoted(req.payloadFormat) + "\"";
    } else {
        // A short payload is read here (it may be the quit command); a long
        // one is the evaluator's to inflate, off this loop.
        switch (decodeMCode(req.payloadBase64, job.text, InlinePayload)) {
        case Decoded::Whole:
            if (isQuitCommand(job.text)) {
                quit();
                return;
            }
            break;
        case Decoded::TooLarge:
            job.text = std::move(req.payloadBase64);
            job.encoded = true;
            break;
        case Decoded::Damaged:
            klog("client %ld: command payload does not decode", cl.id);
            error = "the command's payload does not decode";
            break;
        }
    }
    enqueue(cl.conn, std::move(job), std::move(error));
}

void Dispatcher::enqueue(int conn, Job job, std::string error)
{
    std::size_t bytes = jobBytes(job);
    queue_.push_back(Pending{conn, std::move(job), std::move(error)});
    host_.requestQueued(conn, bytes);
    dispatch();
}

void Dispatcher::dispatch()
{
    while (!running_.active && !queue_.empty() && !quitting_) {
        Pending p = std::move(queue_.front());
        queue_.pop_front();
        host_.requestTaken(p.conn, jobBytes(p.job));
        runQueued(p);
    }
}

void Dispatcher::runQueued(Pending& p)
{
    Job& job = p.job;
    if (!p.error.empty()) {
        // The engine is idle, so all it had for this client has gone out
        // before: the failure can be told now, in order.
        const Client* cl = session_.find(job.client);
        if (!cl)
            return;
        int conn = cl->conn;
        host_.send(conn, msgOutputText(job.client, job.cid, "error", "text", p.error));
        host_.send(conn, msgFinished(job.client, job.cid));
        return;
    }
    running_ = Running();
    running_.active = true;
    running_.kind = job.kind;
    running_.client = job.client;
    running_.cid = job.cid;
    running_.initFiles = job.initFiles;
    engine_.submit(std::move(job));
}

void Dispatcher::jobDone()
{
    Running done = std::move(running_);
    running_ = Running();
    if (done.kind != Job::Init)
        return;
    for (const std::string& f : done.initFiles) {
        loadingFiles_.erase(f);
        loadedFiles_.insert(f);
        if (std::find(reloadFiles_.begin(), reloadFiles_.end(), f) == reloadFiles_.end())
            reloadFiles_.push_back(f);
    }
    releaseReadyInits();
}

void Dispatcher::applySetting(Client& cl, const Request& req)
{
    long value = std::strtol(req.value.c_str(), nullptr, 10);
    for (const Setting& s : kSettings)
        if (s.kind == req.kind)
            host_.send(cl.conn, msgValue(requestName(req.kind), cl.id, s.apply(cl.style, value)));
}

void Dispatcher::chooseFormat(Client& cl, const Request& req)
{
    // Results are the one output type with a choice; a format this kernel
    // cannot produce leaves the choice as it was, and the confirmation says
    // which format is in force.
    if (req.type == "result" && isResultFormat(req.value))
        cl.style.format = req.value;
    else
        klog("client %ld: no format \"%.40s\" for \"%.40s\"", cl.id, req.value.c_str(),
             req.type.c_str());
    std::string current = req.type == "result" ? cl.style.format : std::string("text");
    host_.send(cl.conn, msgFormats("format", cl.id, req.type, {current}));
}

void Dispatcher::quit()
{
    host_.sendLastToAll(msgQuit());
    quitting_ = true;
}

} // namespace tamkern
