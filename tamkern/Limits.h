// What the kernel lets its clients cost it. Every byte a client makes the
// kernel keep is counted against its connection and against the whole
// kernel; counts alone (requests, arguments, clients) bound nothing when
// each can be megabytes.
#ifndef TAMKERN_LIMITS_H
#define TAMKERN_LIMITS_H

#include <chrono>
#include <cstddef>

namespace tamkern {

struct Limits {
    // One connection: the request being read (its texts and values, and
    // the XML parser's own memory), its requests waiting for the evaluator
    // and its clients' records. Past it the connection is closed.
    std::size_t connectionBytes = std::size_t(48) << 20;
    // All connections together: the same, and the messages waiting to be
    // sent to each beyond its largest one. Past it the connection that costs
    // the most is closed.
    std::size_t kernelBytes = std::size_t(256) << 20;
    // Reading from a connection pauses while its requests waiting for the
    // evaluator hold this much (or Connection::MaxWaiting requests).
    std::size_t waitingBytes = std::size_t(16) << 20;
    // A connection that sends nothing for this long in the middle of a
    // request is closed.
    std::chrono::milliseconds idleTimeout{30000};
};

} // namespace tamkern

#endif
