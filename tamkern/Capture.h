// The kernel's log and the evaluator's capture of everything written to
// descriptors 1 and 2. The kernel shares its terminal with the front end
// that launched it, so nothing that Giac or the libraries under it print may
// reach that terminal: descriptors 1 and 2 are redirected into a pipe whose
// contents become error outputs of the running command, and the kernel's own
// log goes to a file (a launched kernel) or to a private copy of the
// original standard error.
#ifndef TAMKERN_CAPTURE_H
#define TAMKERN_CAPTURE_H

#include <cstddef>
#include <streambuf>
#include <string>

namespace tamkern {

// One line "tamkern: ..." on the log; in a log file with the time and the
// process id in front. Safe from any thread. Rate-limited: LogBurst lines at
// once, then LogPerSecond a second; the lines left out are counted in the
// next line written.
void klog(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
constexpr int LogBurst = 20;
constexpr int LogPerSecond = 1;
// Appends the log to the file at path from now on, making its directory if
// need be. false (with the reason on standard error) if it cannot be opened.
bool logToFile(const std::string& path);

// Single-threaded: nothing reads the pipe but take(). Its write end does
// not block, so output beyond what the pipe holds between two takes is
// dropped rather than stalling the writer.
class OutputCapture {
public:
    OutputCapture() = default;
    ~OutputCapture();
    OutputCapture(const OutputCapture&) = delete;
    OutputCapture& operator=(const OutputCapture&) = delete;

    // Redirects descriptors 1 and 2; false (with the reason logged) if the
    // pipe could not be set up, in which case nothing changed.
    bool start();
    // Puts descriptors 1 and 2 back.
    void stop();
    // Everything captured so far, including what is still in the pipe; the
    // caller must have flushed its own buffered streams first.
    std::string take();

    // Captured text kept at most; the rest is dropped with a note.
    static const std::size_t Limit = 64 * 1024;
    // What the pipe holds between two takes, if the system allows.
    static const int PipeBytes = 256 * 1024;

private:
    class StreamBuf : public std::streambuf {
    public:
        explicit StreamBuf(OutputCapture& owner) : owner_(owner) {}

    protected:
        int_type overflow(int_type c) override;
        std::streamsize xsputn(const char* s, std::streamsize n) override;

    private:
        OutputCapture& owner_;
    };

    void drain();
    void append(const char* data, std::size_t len);

    int pipeRead_ = -1;
    int pipeWrite_ = -1;
    int savedOut_ = -1;
    int savedErr_ = -1;
    std::size_t pipeSize_ = 0;
    std::string buffer_;
    bool truncated_ = false;
    // std::cout and std::cerr point here while the capture runs, so that C++
    // stream output is caught whether or not descriptor 2 is redirected.
    StreamBuf streamBuf_{*this};
    std::streambuf* oldCout_ = nullptr;
    std::streambuf* oldCerr_ = nullptr;
};

} // namespace tamkern

#endif
