// The evaluator process: the Giac session of all clients, which the
// kernel's server runs apart from itself so that a crash or a computation
// that will not stop costs the session, not the kernel. Giac-free header.
#ifndef TAMKERN_EVALUATOR_H
#define TAMKERN_EVALUATOR_H

#include <cstddef>
#include <string>

namespace tamkern {

// Serves jobs from the server over the socket fd in a Giac session of its
// own until the server says quit or goes away; plot files go to plotDir.
// Returns the exit status. The process's own threads must not be running
// yet: the work runs on one thread with a stack of EvaluatorStack bytes,
// which the interrupt signal is kept to.
int runEvaluator(int fd, const std::string& plotDir);

// The session's recursion limit stops user functions far from the stack's
// end (some tens of KiB a level at most, more in a sanitizer build).
// Address space only; pages are used as deep as a computation goes.
constexpr std::size_t EvaluatorStack = std::size_t(256) << 20;

} // namespace tamkern

#endif
