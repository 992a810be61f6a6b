// Signals turned into bytes on a pipe, so that the event loop sees them
// among its descriptors instead of in a handler.
#ifndef TAMIX_CONSOLE_SIGNALS_H
#define TAMIX_CONSOLE_SIGNALS_H

#include <signal.h>

#include <initializer_list>
#include <utility>
#include <vector>

namespace tamix {

class SignalPipe {
public:
    // Catches these signals until destroyed; then their previous handling
    // is back.
    explicit SignalPipe(std::initializer_list<int> signals);
    ~SignalPipe();
    SignalPipe(const SignalPipe&) = delete;
    SignalPipe& operator=(const SignalPipe&) = delete;

    // Catches signo again after its handling was changed in between.
    void catchAgain(int signo);
    // Readable when a signal has come.
    int fd() const { return pipe_[0]; }
    // The signals that have come since the last call, in order.
    std::vector<int> take();

private:
    int pipe_[2] = {-1, -1};
    std::vector<std::pair<int, struct sigaction>> previous_;
};

} // namespace tamix

#endif
