// Inside the evaluator: the session it runs jobs in, and what the session's
// parts share. Giac's types are only named here, so that the evaluator's
// own code compiles without Giac's headers.
#ifndef TAMKERN_GIACSESSION_H
#define TAMKERN_GIACSESSION_H

#include <functional>
#include <ostream>
#include <set>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

#include "tamkern/Engine.h"

namespace giac {
class gen;
class context;
} // namespace giac

namespace tamkern {

class OutputCapture;

// Thrown by the kernel's own Giac functions and by JobChannel::ask(); carries
// the text that the command's error output shows, whatever Giac makes of the
// exception on its way out.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What a running job can do besides computing: talk to its client.
class JobChannel {
public:
    virtual ~JobChannel() = default;
    // Queues a message for the job's client.
    virtual void post(std::string message) = 0;
    // Sends a question's message and waits for the answer. Throws
    // Failure("interrupted") if the job is interrupted or its client leaves
    // meanwhile.
    virtual Answer ask(Question kind, std::string message) = 0;
    // The job has been told to stop.
    virtual bool interrupted() = 0;
};

// Giac writes print() output and its parser's diagnostics to the context's
// log stream. This buffer hands complete lines to a sink as they come, after
// showing each to a guard, which may throw to end the evaluation that wrote
// it (the stream must then let exceptions through: badbit).
class LineBuf : public std::streambuf {
public:
    using Sink = std::function<void(const std::string&)>;
    // Installs a sink and returns the previous one; a partial line goes to
    // the previous sink first.
    Sink setSink(Sink sink);
    void setGuard(Sink guard) { guard_ = std::move(guard); }
    // Hands a partial line to the sink as a line of its own.
    void flushLine();

protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char* s, std::streamsize n) override;

private:
    void emit();

    std::string line_;
    Sink sink_;
    Sink guard_;
};

// Where the session writes plot files: the directory (made when the first
// plot is written) and the number of the next file.
struct PlotFiles {
    std::string dir; // empty: no plot files, graphics stay text
    unsigned next = 1;
};

// The one Giac context that all clients share, with its history of commands
// and results. Made, used and destroyed on the evaluator's working thread,
// and never more than one at a time.
class GiacSession {
public:
    using NamesSink = std::function<void(std::vector<std::string>)>;

    // What commands write to descriptors 1 and 2 is taken from capture
    // (none if null); plots go to plotDir; the names that completion offers
    // go to names, now and whenever a job changes them.
    GiacSession(OutputCapture* capture, std::string plotDir, NamesSink names);
    ~GiacSession();
    GiacSession(const GiacSession&) = delete;
    GiacSession& operator=(const GiacSession&) = delete;

    // Runs one job; its messages go through channel, but for the last one
    // (a command's finished), which is returned, or empty if there is none.
    std::string run(const Job& job, JobChannel& channel);

    // Sets or clears Giac's interrupt flags. Safe from any thread and from
    // a signal handler.
    static void setInterrupt(bool on);

    // For the kernel's own Giac functions, which Giac calls with nothing of
    // ours in hand: the session, whose job is running when they are called.
    static GiacSession& current();
    const Job& job() const { return *job_; }
    // Asks the job's client, as JobChannel::ask() does.
    Answer ask(Question kind, std::string message);
    // An answer read as a Giac expression and evaluated, as if typed in its
    // place; throws Failure("<what> is not a valid expression") if it is
    // none.
    giac::gen evalAnswer(const std::string& text, const char* what);

    // User functions may call each other this deep: deeper, Giac would
    // switch to an evaluator that does not end (and, deeper still, overflow
    // the stack), so the command fails instead.
    static const int MaxRecursion = 5000;
    // Commands and results the history keeps; older ones are dropped.
    static const std::size_t MaxHistory = 1000;

private:
    struct Outcome;

    std::string runCommand(const Job& j);
    void runInit(const Job& j);
    void loadInit(const std::string& path);
    Outcome evaluate(const std::string& text, bool silent);
    bool parse(const std::string& text, bool silent, giac::gen& g, std::string& error);
    void evalParsed(const giac::gen& g, bool quiet, Outcome& out);
    bool evalCatching(const giac::gen& g, giac::gen& value, std::string& failure);
    void remember(const giac::gen& command, const Outcome& out);
    void postResult(const giac::gen& r, const Job& j);
    void publishNames();
    void resetAfterJob();
    void post(std::string message);
    void output(const char* type, const std::string& text);
    std::string takeCaptured();

    OutputCapture* capture_;
    giac::context* ctx_;
    LineBuf logBuf_;
    std::ostream logStream_{&logBuf_};
    const Job* job_ = nullptr;
    JobChannel* channel_ = nullptr;
    std::set<std::string> loadedInits_;
    PlotFiles plots_;
    NamesSink namesSink_;
    std::vector<std::string> builtinNames_; // sorted
    std::set<std::string> definedNames_;    // as last published
    bool publishedOnce_ = false;
};

// GiacFunctions.cpp: the functions that ask the front end.
// Registers input, textinput, system and callback with Giac, once a process.
void registerFrontEndFunctions();
// help(name) and ?name, whose value goes to the front end's help handler.
bool isHelpCall(const giac::gen& g);

// GiacRender.cpp: values as text and graphics as plot files.
// A string's contents, nothing for an empty sequence, else the printed form.
std::string giacText(const giac::gen& g, const giac::context* ctx);
// The result message of a command, in the format its client chose.
std::string resultMessage(const giac::gen& r, const Job& job, const giac::context* ctx);
// A 2-D graphic: Giac can draw it as SVG.
bool isPlot(const giac::gen& r);
// The plot as an SVG document, well-formed XML; throws Failure if Giac's
// drawing cannot be made one.
std::string plotSvg(const giac::gen& r, const giac::context* ctx);

} // namespace tamkern

#endif
