// Byte streams with status codes.
//
// Every operation that reports a result returns a status code and records it
// through the virtual status(code), so status() always holds the outcome of
// the last operation and a subclass overriding status(long) sees every one.
// Codes: Ok (0), Error (-1), OutOfMemory (-2); file streams also record the
// positive errno value of a failed library call. Streams never throw.
#ifndef TAMIX_SUPPORT_TKT_STREAM_H
#define TAMIX_SUPPORT_TKT_STREAM_H

#include <cstdint>
#include <cstdio>
#include <cstring>

class TKstream {
public:
    static constexpr long Ok = 0;
    static constexpr long Error = -1;
    static constexpr long OutOfMemory = -2;

    virtual ~TKstream();

    virtual long read(void* buff, unsigned long len, unsigned long& count) = 0;
    virtual long write(const void* data, unsigned long len, unsigned long& count) = 0;
    virtual long flush() = 0;
    // True when a read would deliver nothing more.
    virtual bool eom() const = 0;
    // Copies everything left in source into this stream, in 512-byte chunks.
    virtual long copy(TKstream* source);
    // Makes room for size bytes; streams without a notion of capacity say Ok.
    virtual long set_size(unsigned long size);
    virtual long status() = 0;
    // "ok", "out of memory" or "error"; file streams give the system's text
    // for errno codes.
    virtual const char* status_text();
    // Records code as the status and returns it.
    virtual long status(long code) = 0;
};

class TKrandomAccessStream : public TKstream {
public:
    // Moves the position back by n bytes.
    virtual long discard(unsigned long n) = 0;
    // Returns to the start.
    virtual long rewind() = 0;
};

// A stream over one contiguous buffer; reading and writing share the position.
// The content end is a high-water mark: only clear(), set_buffer and the
// constructors move it back.
class TKmemoryStream : public TKrandomAccessStream {
public:
    long read(void* buff, unsigned long len, unsigned long& count) override;
    long flush() override;
    bool eom() const override;
    long status() override;
    long status(long code) override;
    long discard(unsigned long n) override;
    // Stores a zero byte at the position (not counted as content) and goes
    // back to the start, so data() reads as a C string of what was written
    // since the last rewind or clear. Grows the buffer if there is no room.
    long rewind() override;

    virtual unsigned char* data();
    virtual unsigned long length() const;
    // Empties the stream; the buffer and its capacity stay.
    virtual long clear();

protected:
    TKmemoryStream(unsigned char* buff, unsigned long len);

    unsigned char* data_;
    unsigned char* end_;
    unsigned char* pos_;
    unsigned long size_;
    long status_;
};

// A memory stream that owns its buffer: the first 512 bytes live inline, then
// the buffer grows in whole steps of incr bytes and is never shrunk.
class TKheapStream : public TKmemoryStream {
public:
    explicit TKheapStream(unsigned long initial = 512, unsigned long incr = 512);
    ~TKheapStream() override;
    TKheapStream(const TKheapStream&) = delete;
    TKheapStream& operator=(const TKheapStream&) = delete;

    long write(const void* data, unsigned long len, unsigned long& count) override;
    long set_size(unsigned long size) override;

protected:
    // Moves the buffer, content and position kept, to a block of capacity
    // bytes (more than size_). OutOfMemory leaves the stream as it was.
    long reallocate(unsigned long capacity);

private:
    unsigned char local_[512];
    unsigned char* heap_;
    unsigned long incr_;
};

// A heap stream whose capacity at least doubles whenever it grows. Fixed
// steps copy the whole buffer once per step, so collecting N bytes costs
// O(N^2): for a result of 10 MB in 512-byte steps that is minutes of
// copying and page faults. The library's request, message and payload
// buffers therefore grow geometrically, which keeps receiving or sending N
// bytes O(N); otherwise the stream behaves as a (512, 512) heap stream.
class TKgrowingStream : public TKheapStream {
public:
    TKgrowingStream() : TKheapStream(512, 512) {}

    long set_size(unsigned long size) override;

    // length() == 0, without its precondition check.
    bool empty() const { return end_ == data_; }

    // write() for the library's per-message paths: the case with room left
    // runs inline, anything else goes to write(). Same result and status.
    long append(const void* data, unsigned long len)
    {
        if (data && len <= size_ - static_cast<unsigned long>(pos_ - data_)) {
            std::memmove(pos_, data, len);
            pos_ += len;
            if (pos_ > end_)
                end_ = pos_;
            return status(Ok);
        }
        unsigned long count;
        return write(data, len, count);
    }
};

// A memory stream over a fixed caller buffer, which it never frees or grows.
// The whole buffer starts as content; writes overwrite it from the start.
class TKbufferStream : public TKmemoryStream {
public:
    TKbufferStream(unsigned char* buff, unsigned long len);

    long write(const void* data, unsigned long len, unsigned long& count) override;
    // One read straight into the buffer; OutOfMemory if the source had more.
    long copy(TKstream* source) override;
    long set_size(unsigned long size) override;

    void set_buffer(unsigned char* buffer, unsigned long len);
};

// A stream over a standard I/O file, which it never closes.
class TKfileStream : public TKrandomAccessStream {
public:
    explicit TKfileStream(FILE* file);

    long read(void* buff, unsigned long len, unsigned long& count) override;
    long write(const void* data, unsigned long len, unsigned long& count) override;
    long flush() override;
    bool eom() const override;
    long status() override;
    const char* status_text() override;
    long status(long code) override;
    long discard(unsigned long n) override;
    // Seeks back to where the file stood at construction; Error if that
    // position could not be had (pipes, terminals).
    long rewind() override;

private:
    FILE* file_;
    long start_;
    int32_t status_;
};

// Reads one NUL-terminated string from stream. Returns it in malloc'd memory
// (the caller frees it), or null if the stream failed or ended first; the
// bytes read stay consumed either way.
char* TKreadCString(TKstream* stream);

#endif
