// The socket between the kernel's server and its evaluator process: frames
// of a fixed header and a payload. Numbers are in the machine's own byte
// order: both ends are the same program.
#ifndef TAMKERN_EVALLINK_H
#define TAMKERN_EVALLINK_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "tamkern/SendQueue.h"

namespace tamkern {

struct Frame {
    enum Type : unsigned char {
        // Server to evaluator.
        Job = 'J',       // a = sequence number, b = client; payload: the job's fields
        Answer = 'A',    // a = sequence number, kind = question; payload: the answer's fields
        Interrupt = 'I', // a = sequence number of the job to stop
        Quit = 'Q',      // end
        // Evaluator to server.
        Ready = 'R', // the session is set up
        Post = 'P',  // a = client; payload: one message for it
        Names = 'N', // payload: the names completion offers
        Ask = 'K',   // a = sequence number, b = client, kind = question; payload: its message
        Done = 'D'   // a = sequence number, b = client; payload: the job's last message
    };
    Type type = Quit;
    unsigned char kind = 0;
    long long a = 0, b = 0;
    std::string payload;
};

// Bytes of a frame's header: payload length (4), type, kind, a, b.
constexpr std::size_t FrameHeaderBytes = 22;

// Structured payloads: numbers and length-prefixed strings, in order.
class FieldWriter {
public:
    FieldWriter& num(long long v);
    FieldWriter& str(std::string_view s);
    FieldWriter& strs(const std::vector<std::string>& v);
    std::string take() { return std::move(out_); }

private:
    std::string out_;
};

// Reads the fields back; every call fails (false) once one has, for a
// payload that ends too soon.
class FieldReader {
public:
    explicit FieldReader(std::string_view in) : in_(in) {}
    bool num(long long& v);
    bool str(std::string& s);
    bool strs(std::vector<std::string>& v);
    // Bytes after the fields read so far; the rest of a payload whose last
    // part is unframed (a job's text, an answer's text).
    std::size_t left() const { return in_.size(); }

private:
    std::string_view in_;
    bool ok_ = true;
};

// Cuts what a socket delivers into frames. A payload larger than what one
// read brings is read straight into its own string, which becomes the
// frame's payload without a copy.
class FrameReader {
public:
    enum Status {
        Open,     // nothing wrong; more may come
        Closed,   // the peer closed the socket
        Failed,   // a read error (errno kept)
        Oversized // a frame announced a payload beyond the limit
    };
    explicit FrameReader(std::size_t maxPayload) : maxPayload_(maxPayload) {}

    // One read() from fd; frames it completes are appended to out. wouldBlock
    // tells whether the socket had nothing (EAGAIN or EINTR).
    Status readOnce(int fd, std::vector<Frame>& out, bool& wouldBlock);
    // Forgets what is half read.
    void reset();

private:
    void cutFrames(std::vector<Frame>& out);

    std::size_t maxPayload_;
    std::string buf_;         // bytes read, not yet a whole header
    std::size_t used_ = 0;    // of buf_, already cut into frames
    Frame partial_;           // its payload is being filled
    std::size_t missing_ = 0; // bytes of partial_'s payload still to come
    bool inPayload_ = false;
};

// Frames waiting to be written, in order; payloads are queued by move.
class FrameWriter {
public:
    void queue(Frame f);
    // Queues a frame whose payload is fields followed by tail (moved, not
    // copied into the fields).
    void queue(const Frame& header, std::string fields, std::string tail);
    // Writes what fd takes (non-blocking) or everything (blocking fd).
    // false on a write error.
    bool flush(int fd) { return out_.flush(fd); }
    bool pending() const { return !out_.empty(); }
    void clear() { out_.clear(); }

private:
    SendQueue out_;
};

} // namespace tamkern

#endif
