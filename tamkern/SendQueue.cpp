#include "tamkern/SendQueue.h"

#include <cerrno>
#include <sys/socket.h>
#include <sys/uio.h>

namespace tamkern {

namespace {
// Pieces up to this size are joined, so that many small messages do not
// cost a piece each.
const std::size_t JoinBelow = 64 * 1024;
} // namespace

void SendQueue::push(std::string bytes)
{
    if (bytes.empty())
        return;
    bytes_ += bytes.size();
    if (!pieces_.empty() && pieces_.back().size() + bytes.size() <= JoinBelow) {
        pieces_.back() += bytes;
        return;
    }
    pieces_.push_back(std::move(bytes));
}

bool SendQueue::flush(int fd)
{
    while (!pieces_.empty()) {
        iovec iov[16];
        std::size_t n = 0;
        for (auto it = pieces_.begin(); it != pieces_.end() && n < 16; ++it, ++n) {
            std::size_t skip = n == 0 ? sent_ : 0;
            iov[n].iov_base = const_cast<char*>(it->data()) + skip;
            iov[n].iov_len = it->size() - skip;
        }
        msghdr msg{};
        msg.msg_iov = iov;
        msg.msg_iovlen = n;
        ssize_t w = ::sendmsg(fd, &msg, MSG_NOSIGNAL);
        if (w < 0 && errno == EINTR)
            continue;
        if (w < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK;
        auto done = static_cast<std::size_t>(w);
        bytes_ -= done;
        while (done > 0) {
            std::size_t left = pieces_.front().size() - sent_;
            if (done < left) {
                sent_ += done;
                break;
            }
            done -= left;
            pieces_.pop_front();
            sent_ = 0;
        }
    }
    return true;
}

void SendQueue::clear()
{
    std::deque<std::string>().swap(pieces_);
    sent_ = 0;
    bytes_ = 0;
}

} // namespace tamkern
