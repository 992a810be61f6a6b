#include "tamkern/Dispatcher.h"

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <sys/resource.h>
#include <unistd.h>

#include "tamkern/Capture.h"
#include "tamkern/Messages.h"
#include "tamkern/TextLayout.h"

namespace tamkern {

namespace {

// The command that ends the kernel, also written as "quit;" or "quit()".
bool isQuitCommand(const std::string& text)
{
    std::string t = trimmed(text);
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

// The answer that an input, textinput, sysresult or callresult request gives.
Answer answerOf(long client, const Request& req)
{
    Answer a;
    if (req.kind == Request::SysResult) {
        a.value = std::strtoll(req.value.c_str(), nullptr, 10);
    } else if (req.kind == Request::CallResult) {
        a.canceled = req.error;
        if (!req.error && req.hasPayload && !decodeMCode(req.payloadBase64, a.text)) {
            klog("client %ld: callback result payload does not decode", client);
            a.canceled = true;
        }
    } else {
        a.canceled = req.canceled;
        a.text = req.text;
    }
    return a;
}

Job jobFor(const Client& cl, Job::Kind kind)
{
    Job job;
    job.kind = kind;
    job.client = cl.id;
    job.style = cl.style;
    return job;
}

// The status figures: resident and virtual size in KiB, CPU seconds.
std::string statusMessage(long client)
{
    long long used = 0, res = 0, sec = 0;
    long page = ::sysconf(_SC_PAGESIZE);
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        long long size = 0, resident = 0;
        if (std::fscanf(f, "%lld %lld", &size, &resident) == 2) {
            used = resident * page / 1024;
            res = size * page / 1024;
        }
        std::fclose(f);
    }
    rusage ru{};
    if (::getrusage(RUSAGE_SELF, &ru) == 0)
        sec = ru.ru_utime.tv_sec + ru.ru_stime.tv_sec +
              (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1000000;
    return msgStatus(client, used, res, sec);
}

} // namespace

Dispatcher::Dispatcher(Host& host, Engine& engine) : host_(host), engine_(engine)
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
    if (req.kind == Request::Cmd && req.hasText && isQuitCommand(req.text)) {
        quit();
        return;
    }
    queue_.push_back(Pending{conn, cl->id, std::move(req)});
    host_.requestQueued(conn);
    dispatch();
}

void Dispatcher::announce(int conn, const Request& req)
{
    const Client& cl = session_.add(conn, req.name, req.features);
    long id = cl.id;
    bool typeset = cl.has("can_typeset");
    // The first message for a new id is what tells the client its id. A
    // failed write removes the client, so nothing of it is used after.
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

// Requests that do not wait their turn: true if req was one.
bool Dispatcher::answerAtOnce(Client& cl, const Request& req)
{
    switch (req.kind) {
    case Request::Stop:
        // Stops this client's running command only: in a shared session one
        // client must not cut short another's work. Commands still waiting
        // in the queue are not affected.
        engine_.interrupt(cl.id);
        return true;
    case Request::SendStatus:
        host_.send(cl.conn, statusMessage(cl.id));
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
        engine_.answer(cl.id, questionOf(req.kind), answerOf(cl.id, req));
        return true;
    default:
        return false;
    }
}

void Dispatcher::connectionClosed(int conn)
{
    std::vector<long> ids = session_.of(conn); // removeClient changes it
    for (long id : ids)
        removeClient(id);
}

void Dispatcher::removeClient(long id)
{
    if (!session_.remove(id))
        return;
    engine_.clientGone(id);
    for (auto q = queue_.begin(); q != queue_.end();) {
        if (q->client == id) {
            host_.requestTaken(q->conn);
            q = queue_.erase(q);
        } else {
            ++q;
        }
    }
}

void Dispatcher::deliver(long client, std::string message)
{
    if (const Client* cl = session_.find(client))
        host_.send(cl->conn, std::move(message));
}

void Dispatcher::dispatch()
{
    while (!busy_ && !queue_.empty() && !quitting_) {
        Pending p = std::move(queue_.front());
        queue_.pop_front();
        host_.requestTaken(p.conn);
        runQueued(p);
    }
}

void Dispatcher::runQueued(Pending& p)
{
    Client* cl = session_.find(p.client);
    if (!cl)
        return;
    Request& req = p.req;
    switch (req.kind) {
    case Request::TextWidth:
    case Request::PrettyPrint:
    case Request::AbbreviateOutput:
        applySetting(*cl, req);
        return;
    case Request::Format:
        chooseFormat(*cl, req);
        return;
    case Request::Init: {
        Job job = jobFor(*cl, Job::Init);
        job.args = std::move(req.args);
        submit(std::move(job));
        return;
    }
    case Request::Complete: {
        Job job = jobFor(*cl, Job::Complete);
        job.text = req.value;
        submit(std::move(job));
        return;
    }
    case Request::Cmd:
        runCommand(*cl, req);
        return;
    default:
        return;
    }
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

void Dispatcher::runCommand(Client& cl, Request& req)
{
    Job job = jobFor(cl, Job::Command);
    job.cid = req.cid;
    std::string error;
    if (!req.hasPayload) {
        job.text = std::move(req.text);
    } else if (req.payloadFormat != "utf8") {
        error = "unsupported payload format \"" + req.payloadFormat + "\"";
    } else if (!decodeMCode(req.payloadBase64, job.text)) {
        klog("client %ld: command payload does not decode", cl.id);
        error = "the command's payload does not decode";
    } else if (isQuitCommand(job.text)) {
        quit();
        return;
    }
    if (error.empty()) {
        submit(std::move(job));
        return;
    }
    // The engine is idle, so all it had for this client has gone out before:
    // the failure can be told at once, in order.
    int conn = cl.conn;
    host_.send(conn, msgOutputText(job.client, job.cid, "error", "text", error));
    host_.send(conn, msgFinished(job.client, job.cid));
}

void Dispatcher::submit(Job job)
{
    busy_ = true;
    engine_.submit(std::move(job));
}

void Dispatcher::quit()
{
    host_.sendLastToAll(msgQuit());
    quitting_ = true;
}

} // namespace tamkern
