#include "tamkern/EvalLink.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <unistd.h>

namespace tamkern {

namespace {

const std::size_t ReadChunk = 64 * 1024;

std::string headerOf(const Frame& f, std::size_t payloadLen)
{
    std::string h(FrameHeaderBytes, '\0');
    const std::uint32_t len = static_cast<std::uint32_t>(payloadLen);
    std::memcpy(&h[0], &len, 4);
    h[4] = static_cast<char>(f.type);
    h[5] = static_cast<char>(f.kind);
    std::memcpy(&h[6], &f.a, 8);
    std::memcpy(&h[14], &f.b, 8);
    return h;
}

} // namespace

FieldWriter& FieldWriter::num(long long v)
{
    out_.append(reinterpret_cast<const char*>(&v), sizeof v);
    return *this;
}

FieldWriter& FieldWriter::str(std::string_view s)
{
    num(static_cast<long long>(s.size()));
    out_.append(s);
    return *this;
}

FieldWriter& FieldWriter::strs(const std::vector<std::string>& v)
{
    num(static_cast<long long>(v.size()));
    for (const std::string& s : v)
        str(s);
    return *this;
}

bool FieldReader::num(long long& v)
{
    ok_ = ok_ && in_.size() >= sizeof v;
    if (!ok_)
        return false;
    std::memcpy(&v, in_.data(), sizeof v);
    in_.remove_prefix(sizeof v);
    return true;
}

bool FieldReader::str(std::string& s)
{
    long long n = 0;
    ok_ = num(n) && n >= 0 && static_cast<unsigned long long>(n) <= in_.size();
    if (!ok_)
        return false;
    s.assign(in_.data(), static_cast<std::size_t>(n));
    in_.remove_prefix(static_cast<std::size_t>(n));
    return true;
}

bool FieldReader::strs(std::vector<std::string>& v)
{
    long long n = 0;
    // Each string takes its length field at least: a count beyond that is
    // damage, not a reason to reserve.
    ok_ = num(n) && n >= 0 && static_cast<unsigned long long>(n) <= in_.size() / sizeof n;
    v.clear();
    for (long long i = 0; ok_ && i < n; ++i) {
        v.emplace_back();
        str(v.back());
    }
    return ok_;
}

FrameReader::Status FrameReader::readOnce(int fd, std::vector<Frame>& out, bool& wouldBlock)
{
    wouldBlock = false;
    char* into;
    std::size_t room;
    if (inPayload_) {
        into = &partial_.payload[partial_.payload.size() - missing_];
        room = missing_;
    } else {
        if (used_ > 0) {
            buf_.erase(0, used_);
            used_ = 0;
        }
        std::size_t have = buf_.size();
        buf_.resize(have + ReadChunk);
        into = &buf_[have];
        room = ReadChunk;
    }
    ssize_t n = ::read(fd, into, room);
    if (!inPayload_)
        buf_.resize(buf_.size() - room + static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
    if (n == 0)
        return Closed;
    if (n < 0) {
        wouldBlock = errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        return wouldBlock ? Open : Failed;
    }
    if (inPayload_) {
        missing_ -= static_cast<std::size_t>(n);
        if (missing_ > 0)
            return Open;
        inPayload_ = false;
        out.push_back(std::move(partial_));
        partial_ = Frame();
    }
    cutFrames(out);
    return inPayload_ && partial_.payload.size() > maxPayload_ ? Oversized : Open;
}

// Takes every whole frame from buf_; a frame whose payload has not all
// come becomes partial_, to be completed by later reads.
void FrameReader::cutFrames(std::vector<Frame>& out)
{
    while (!inPayload_ && buf_.size() - used_ >= FrameHeaderBytes) {
        const char* h = buf_.data() + used_;
        std::uint32_t len;
        std::memcpy(&len, h, 4);
        if (len > maxPayload_) {
            // Reported by readOnce; the rest of the stream is not read.
            partial_.payload.resize(maxPayload_ + 1);
            inPayload_ = true;
            missing_ = maxPayload_ + 1;
            return;
        }
        Frame f;
        f.type = static_cast<Frame::Type>(static_cast<unsigned char>(h[4]));
        f.kind = static_cast<unsigned char>(h[5]);
        std::memcpy(&f.a, h + 6, 8);
        std::memcpy(&f.b, h + 14, 8);
        std::size_t avail = buf_.size() - used_ - FrameHeaderBytes;
        std::size_t take = std::min<std::size_t>(avail, len);
        f.payload.reserve(len);
        f.payload.assign(h + FrameHeaderBytes, take);
        used_ += FrameHeaderBytes + take;
        if (take == len) {
            out.push_back(std::move(f));
            continue;
        }
        f.payload.resize(len);
        partial_ = std::move(f);
        missing_ = len - take;
        inPayload_ = true;
    }
}

void FrameReader::reset()
{
    buf_.clear();
    buf_.shrink_to_fit();
    used_ = 0;
    partial_ = Frame();
    missing_ = 0;
    inPayload_ = false;
}

void FrameWriter::queue(Frame f)
{
    out_.push(headerOf(f, f.payload.size()));
    out_.push(std::move(f.payload));
}

void FrameWriter::queue(const Frame& header, std::string fields, std::string tail)
{
    out_.push(headerOf(header, fields.size() + tail.size()));
    out_.push(std::move(fields));
    out_.push(std::move(tail));
}

} // namespace tamkern
