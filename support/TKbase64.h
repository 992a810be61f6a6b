// Base64 (RFC 4648 alphabet, "=" padding, no line breaks).
#ifndef TAMIX_SUPPORT_TKBASE64_H
#define TAMIX_SUPPORT_TKBASE64_H

// An upper bound, with at least one byte to spare, of the encoded length of n
// bytes: (4 * n) / 3 + 4.
long TK_base64_encoded_length(long n);

// Encodes srcLen bytes of src into dst (no terminator). Returns the number of
// characters written, 0 for empty input, or -1 for a null pointer or too
// little room (whatever whole groups fitted stay written).
long TK_base64_encode(unsigned char* dst, long dstLen, const unsigned char* src, long srcLen);

// Streaming codecs. Neither allocates nor keeps more than one group in flight.
// For a whole message: rounds of write() then read() until it returns 0, then
// messageEnd(), then read() until it returns 0. The range given to write()
// is not copied and must stay valid until it has been consumed.
// Byte interface: after a put() that returns true, get() until it returns
// false before the next put(), since a new group replaces the pending one.
class TKbase64Encoder {
public:
    TKbase64Encoder();

    void write(const unsigned char* data, long len);
    long read(unsigned char* buf, long len);
    // Pads and emits the partial group left, if any; forgets the input range.
    void messageEnd();
    void reset();
    bool put(unsigned char c);
    bool get(unsigned char& c);

private:
    const unsigned char* inPos_;
    const unsigned char* inLimit_;
    unsigned char group_[3];
    long groupLen_;
    unsigned char outBuf_[4];
    long outPos_;
    long outLen_;
};

// The decoder never fails: anything that is not an alphabet character
// (white space, "=", garbage) is skipped, and a truncated final group yields
// the whole bytes it carries.
class TKbase64Decoder {
public:
    TKbase64Decoder();

    void write(const unsigned char* data, long len);
    long read(unsigned char* buf, long len);
    void messageEnd();
    void reset();
    bool put(unsigned char c);
    bool get(unsigned char& c);

private:
    const unsigned char* inPos_;
    const unsigned char* inLimit_;
    unsigned char group_[4];
    long groupLen_;
    unsigned char outBuf_[3];
    long outPos_;
    long outLen_;
};

#endif
