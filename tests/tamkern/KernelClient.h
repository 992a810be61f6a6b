// Test side of the kernel's socket: launches tamkern as a real process and
// talks to it with raw request bytes, reading its messages with expat.
#ifndef TESTS_TAMKERN_KERNELCLIENT_H
#define TESTS_TAMKERN_KERNELCLIENT_H

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include <expat.h>

namespace kt {

// One kernel message with its parts.
struct Msg {
    std::string name;
    std::map<std::string, std::string> attrs;
    bool hasText = false;
    std::string textFormat, text;
    bool hasMcode = false;
    std::string mcodeFormat, mcodeData;  // mcodeData: the base64 text
    std::vector<std::string> fmts;

    std::string attr(const char* n) const;
    long long num(const char* n) const;
    bool has(const char* n) const { return attrs.count(n) != 0; }
};

std::string describe(const std::vector<Msg>& msgs);

// A scratch directory, removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

class Kernel {
public:
    // tamkern -X DIR/k.sock, waiting for its SIGUSR1 (null if it never came;
    // sawSignal tells which).
    static std::unique_ptr<Kernel> launch(const TempDir& dir);
    // tamkern --listen DIR/k.sock, waiting until the socket accepts.
    static std::unique_ptr<Kernel> standalone(const TempDir& dir);
    ~Kernel();

    const std::string& socketPath() const { return path_; }
    pid_t pid() const { return pid_; }
    // Waits for the process to end; its exit status, or -1 after the time.
    int waitExit(int timeoutMs);
    bool running();
    // What the kernel wrote to its standard error and standard output.
    std::string log() const;
    std::string stdoutText() const;

private:
    Kernel() = default;
    static std::unique_ptr<Kernel> start(const TempDir& dir, bool standalone);

    pid_t pid_ = -1;
    bool reaped_ = false;
    std::string path_, logPath_, outPath_;
};

class Conn {
public:
    explicit Conn(const std::string& socketPath);
    ~Conn();
    bool connected() const { return fd_ >= 0; }

    void send(const std::string& raw);
    // The next message, or nothing at the time limit or the end of the stream.
    std::optional<Msg> next(int timeoutMs = 15000);
    // Messages up to and including the first one named name; the last entry
    // is that message unless the time ran out.
    std::vector<Msg> until(const std::string& name, int timeoutMs = 15000);
    // True when the kernel closes the connection within the time.
    bool waitClosed(int timeoutMs = 5000);
    void close();

    // newclient with these features; returns the id from sendinit, or -1.
    long newClient(const std::string& features = "can_quit ");
    // init with the given arguments; the messages up to ready.
    std::vector<Msg> init(long cl, const std::vector<std::string>& args);
    // A text command; its messages up to finished.
    std::vector<Msg> cmd(long cl, const std::string& escapedText, long long cid = 5);

private:
    bool fill(int timeoutMs);
    static void XMLCALL onStart(void* self, const char* name, const char** atts);
    static void XMLCALL onEnd(void* self, const char* name);
    static void XMLCALL onChars(void* self, const char* data, int len);

    int fd_ = -1;
    XML_Parser parser_ = nullptr;
    bool bad_ = false;
    bool eof_ = false;
    int depth_ = 0;
    std::string part_;
    Msg cur_;
    std::deque<Msg> ready_;
};

// Results, errors, prints of a command's messages.
std::vector<std::string> outputs(const std::vector<Msg>& msgs, const std::string& type);
// The payload of an mcode element, inflated.
std::string inflateBase64(const std::string& base64);
// base64 of the zlib stream of text, as a client sends a payload.
std::string deflateBase64(const std::string& text);

} // namespace kt

#endif
