// Bytes waiting to be written to a socket, in order, as the pieces they
// came in: a huge message is queued by move and never copied into a buffer
// that grows around it.
#ifndef TAMKERN_SENDQUEUE_H
#define TAMKERN_SENDQUEUE_H

#include <cstddef>
#include <deque>
#include <string>

namespace tamkern {

class SendQueue {
public:
    // Queues bytes behind those already queued. Small pieces are joined.
    void push(std::string bytes);
    // Writes what fd takes (all of it if fd blocks). false on a write
    // error other than a full socket; errno tells which.
    bool flush(int fd);
    bool empty() const { return pieces_.empty(); }
    // Bytes queued and not yet written.
    std::size_t bytes() const { return bytes_; }
    // Forgets everything and gives the memory back.
    void clear();

private:
    std::deque<std::string> pieces_;
    std::size_t sent_ = 0; // of pieces_.front()
    std::size_t bytes_ = 0;
};

} // namespace tamkern

#endif
