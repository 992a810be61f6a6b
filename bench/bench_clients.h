// The two readers of the transport benchmarks: a front end through the
// library, and a raw Unix-socket client that only moves the bytes (the
// floor). Both talk to a kernel at its listening path; the library client
// can also launch one.
#ifndef TAMIX_BENCH_BENCH_CLIENTS_H
#define TAMIX_BENCH_BENCH_CLIENTS_H

#include <string>

#include "tamix/tamix.h"

// A front end with one connection. Handlers record what the kernel said.
class LibClient {
    friend struct LibHandlers;

public:
    // Launches kernelPath (with initArgs for its init request, when it asks
    // for one) or joins the kernel at listenPath, and waits until it is ready.
    static LibClient* launch(const char* kernelPath, const char* initArgs = nullptr);
    static LibClient* join(const char* listenPath);
    ~LibClient();

    // Sends the command and runs the input loop until it has finished.
    // False if a request failed or the kernel quit.
    bool run(const char* command);
    // The length of the last output text (measured only when asked to, as
    // it costs a pass over the text).
    long lastOutputLength() const { return lastLength_; }
    void measureOutput(bool on) { measure_ = on; }
    const char* listenPath() const { return TAM_get_listen_path(k_); }
    TAM_KernelImpl* kernel() const { return k_; }

private:
    explicit LibClient(TAM_KernelImpl* k);
    bool waitReady();

    TAM_KernelImpl* k_;
    const char* initArgs_ = nullptr;
    bool ready_ = false, finished_ = false, quit_ = false, measure_ = false;
    long lastLength_ = -1;
};

// A client that writes requests by hand and reads answers into a buffer,
// 1024 bytes per read as the library's input loop does, without parsing:
// an answer is complete when the buffer ends with its finished message.
class RawClient {
public:
    // Connects and announces itself; false on failure.
    bool open(const char* listenPath);
    ~RawClient();

    // Sends the command and reads until its finished message has come.
    bool run(const std::string& command);
    // Bytes of the last answer.
    long received() const { return len_; }

private:
    bool readUntil(const std::string& tail);

    int fd_ = -1;
    long id_ = -1;
    char* buf_ = nullptr;
    long len_ = 0, cap_ = 0;
};

// The helper processes that measure a reader first in its process.
// argv: "receive", "lib" or "raw", the kernel's listening path, the result
// size. Prints the seconds that the one result took; the status is 0 on
// success.
int runChild(int argc, char** argv);
// Starts this program as such a helper and returns what it printed in
// seconds, or a negative number on failure.
double timeInChild(const char* reader, const char* listenPath, long size);

#endif
