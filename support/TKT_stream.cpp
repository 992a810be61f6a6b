// Caller errors are checked by assertions in every build type: the checks
// cost next to nothing, and a violated one would otherwise corrupt memory
// far from its cause.
#undef NDEBUG

#include "support/TKT_stream.h"

#include <cassert>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

// The errno of a failed library call; Error in the rare case that the call
// failed without setting it, so a failure never reads as Ok.
long sysError()
{
    return errno != 0 ? errno : TKstream::Error;
}

} // namespace

// ---------------------------------------------------------------- TKstream

TKstream::~TKstream() = default;

long TKstream::copy(TKstream* source)
{
    status(Ok);
    assert(source != 0);
    unsigned char chunk[512];
    while (!source->eom()) {
        unsigned long got = 0;
        long rc = source->read(chunk, sizeof chunk, got);
        if (rc != Ok)
            return rc;
        unsigned long put = 0;
        rc = write(chunk, got, put);
        if (rc != Ok)
            return rc;
    }
    return Ok;
}

long TKstream::set_size(unsigned long)
{
    return status(Ok);
}

const char* TKstream::status_text()
{
    switch (status()) {
    case Ok:
        return "ok";
    case OutOfMemory:
        return "out of memory";
    default:
        return "error";
    }
}

// ---------------------------------------------------------- TKmemoryStream

TKmemoryStream::TKmemoryStream(unsigned char* buff, unsigned long len)
    : data_(buff), end_(buff), pos_(buff), size_(len), status_(Ok)
{
    assert(buff != 0 || len == 0);
}

long TKmemoryStream::read(void* buff, unsigned long len, unsigned long& count)
{
    unsigned long avail = end_ - pos_;
    count = len < avail ? len : avail;
    if (count != 0) {
        std::memmove(buff, pos_, count);
        pos_ += count;
    }
    return status(Ok);
}

long TKmemoryStream::flush()
{
    return status(Ok);
}

bool TKmemoryStream::eom() const
{
    return pos_ == end_;
}

long TKmemoryStream::status()
{
    return status_;
}

long TKmemoryStream::status(long code)
{
    status_ = code;
    return code;
}

long TKmemoryStream::discard(unsigned long n)
{
    if (n > static_cast<unsigned long>(pos_ - data_))
        return status(Error);
    pos_ -= n;
    return status(Ok);
}

long TKmemoryStream::rewind()
{
    if (pos_ == data_ + size_) {
        long rc = set_size(size_ + 2);
        if (rc != Ok)
            return rc;
        // A subclass whose set_size reports Ok without making room.
        if (pos_ == data_ + size_)
            return status(OutOfMemory);
    }
    *pos_ = 0;
    pos_ = data_;
    return status(Ok);
}

unsigned char* TKmemoryStream::data()
{
    return data_;
}

unsigned long TKmemoryStream::length() const
{
    assert(end_ >= data_);
    return end_ - data_;
}

long TKmemoryStream::clear()
{
    pos_ = end_ = data_;
    return status(Ok);
}

// ------------------------------------------------------------ TKheapStream

TKheapStream::TKheapStream(unsigned long initial, unsigned long incr)
    : TKmemoryStream(local_, sizeof local_), heap_(nullptr), incr_(incr)
{
    assert(incr != 0);
    if (initial > sizeof local_) {
        heap_ = static_cast<unsigned char*>(std::malloc(initial));
        if (heap_) {
            data_ = pos_ = end_ = heap_;
            size_ = initial;
        } else {
            status_ = OutOfMemory;
        }
    }
}

TKheapStream::~TKheapStream()
{
    std::free(heap_);
}

long TKheapStream::write(const void* data, unsigned long num_bytes, unsigned long& count)
{
    assert((data != 0) || (num_bytes == 0));
    unsigned long offset = pos_ - data_;
    if (num_bytes > size_ - offset) {
        long rc =
            num_bytes > ULONG_MAX - offset ? status(OutOfMemory) : set_size(offset + num_bytes);
        if (rc != Ok) {
            count = 0;
            return rc;
        }
    }
    if (num_bytes != 0) {
        std::memmove(pos_, data, num_bytes);
        pos_ += num_bytes;
        if (pos_ > end_)
            end_ = pos_;
    }
    count = num_bytes;
    return status(Ok);
}

long TKheapStream::set_size(unsigned long n)
{
    if (size_ >= n)
        return status(Ok);
    // Whole steps, ending strictly above n.
    unsigned long steps = (n - size_) / incr_ + 1;
    if (steps > (ULONG_MAX - size_) / incr_)
        return status(OutOfMemory);
    return reallocate(size_ + incr_ * steps);
}

long TKheapStream::reallocate(unsigned long capacity)
{
    const unsigned long pos = pos_ - data_, end = end_ - data_;
    // realloc may move a large block by remapping its pages instead of
    // copying them; the inline buffer has to be copied out.
    auto* buffer =
        static_cast<unsigned char*>(heap_ ? std::realloc(heap_, capacity) : std::malloc(capacity));
    if (!buffer)
        return status(OutOfMemory);
    if (!heap_)
        std::memcpy(buffer, data_, size_);
    pos_ = buffer + pos;
    end_ = buffer + end;
    data_ = heap_ = buffer;
    size_ = capacity;
    return status(Ok);
}

// ---------------------------------------------------------- TKgrowingStream

long TKgrowingStream::set_size(unsigned long n)
{
    if (size_ >= n)
        return status(Ok);
    // Doubling, or straight to n when that is more (a single large write).
    const unsigned long doubled = size_ > ULONG_MAX / 2 ? ULONG_MAX : 2 * size_;
    return reallocate(doubled > n ? doubled : n);
}

// ---------------------------------------------------------- TKbufferStream

TKbufferStream::TKbufferStream(unsigned char* buff, unsigned long len) : TKmemoryStream(buff, len)
{
    end_ = buff + len;
}

long TKbufferStream::write(const void* data, unsigned long len, unsigned long& count)
{
    if (len > size_ - static_cast<unsigned long>(pos_ - data_)) {
        count = 0;
        return status(OutOfMemory);
    }
    if (len != 0) {
        std::memmove(pos_, data, len);
        pos_ += len;
        if (pos_ > end_)
            end_ = pos_;
    }
    count = len;
    return status(Ok);
}

long TKbufferStream::copy(TKstream* source)
{
    assert(source != 0);
    status(Ok);
    unsigned long got = 0;
    long rc = source->read(pos_, size_ - (pos_ - data_), got);
    if (rc != Ok)
        return rc;
    pos_ += got;
    if (pos_ > end_)
        end_ = pos_;
    return source->eom() ? Ok : status(OutOfMemory);
}

long TKbufferStream::set_size(unsigned long size)
{
    return status(size <= size_ ? Ok : OutOfMemory);
}

void TKbufferStream::set_buffer(unsigned char* buffer, unsigned long len)
{
    assert(buffer != 0 || len == 0);
    data_ = pos_ = buffer;
    end_ = buffer + len;
    size_ = len;
    status_ = Ok;
}

// ------------------------------------------------------------ TKfileStream

TKfileStream::TKfileStream(FILE* file) : file_(file), start_(-1), status_(Ok)
{
    assert(file != 0);
    errno = 0;
    start_ = std::ftell(file);
    if (start_ == -1)
        status_ = static_cast<int32_t>(sysError());
}

long TKfileStream::read(void* buff, unsigned long len, unsigned long& count)
{
    assert(buff != 0);
    errno = 0;
    count = std::fread(buff, 1, len, file_);
    return status(count != len && std::ferror(file_) ? sysError() : Ok);
}

long TKfileStream::write(const void* data, unsigned long len, unsigned long& count)
{
    assert(data != 0);
    errno = 0;
    count = std::fwrite(data, 1, len, file_);
    return status(count == len ? Ok : sysError());
}

long TKfileStream::flush()
{
    errno = 0;
    return status(std::fflush(file_) == 0 ? Ok : sysError());
}

bool TKfileStream::eom() const
{
    return std::feof(file_) != 0;
}

long TKfileStream::status()
{
    return status_;
}

const char* TKfileStream::status_text()
{
    if (status_ != Ok && status_ != Error && status_ != OutOfMemory)
        return std::strerror(status_);
    return TKstream::status_text();
}

long TKfileStream::status(long code)
{
    status_ = static_cast<int32_t>(code);
    return status_;
}

long TKfileStream::discard(unsigned long n)
{
    // fseek takes a signed offset: a step back beyond its range cannot be
    // negated into one, and a cast would turn it into a step forward.
    if (n > static_cast<unsigned long>(LONG_MAX))
        return status(EINVAL);
    errno = 0;
    return status(std::fseek(file_, -static_cast<long>(n), SEEK_CUR) == 0 ? Ok : sysError());
}

long TKfileStream::rewind()
{
    if (start_ == -1)
        return status(Error);
    errno = 0;
    return status(std::fseek(file_, start_, SEEK_SET) == 0 ? Ok : sysError());
}

// ------------------------------------------------------------ TKreadCString

char* TKreadCString(TKstream* stream)
{
    TKgrowingStream text;
    for (;;) {
        unsigned char c = 0;
        unsigned long got = 0;
        if (stream->read(&c, 1, got) != TKstream::Ok || got != 1)
            return nullptr;
        unsigned long put = 0;
        if (text.write(&c, 1, put) != TKstream::Ok || put != 1)
            return nullptr;
        if (c == 0) {
            unsigned long n = text.length();
            char* result = static_cast<char*>(std::malloc(n));
            if (result)
                std::memcpy(result, text.data(), n);
            return result;
        }
    }
}
