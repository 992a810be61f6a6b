#include "support/TKbase64.h"

namespace {

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Inverse of the alphabet for the codes '+' (43) to 'z' (122): each entry is
// the 6-bit value plus 62, '$' marks a code that is not a base64 character.
const char kDecode[] =
    "|$$$}rstuvwxyz{$$$$$$$>?@ABCDEFGHIJKLMNOPQRSTUVW$$$$$$XYZ[\\]^_`abcdefghijklmnopq";
static_assert(sizeof kDecode == 80 + 1, "one entry per code from '+' to 'z'");

void encodeGroup(const unsigned char* in, unsigned char* out)
{
    out[0] = kAlphabet[in[0] >> 2];
    out[1] = kAlphabet[((in[0] & 3) << 4) | (in[1] >> 4)];
    out[2] = kAlphabet[((in[1] & 15) << 2) | (in[2] >> 6)];
    out[3] = kAlphabet[in[2] & 63];
}

// One or two remaining bytes; the bits of the missing ones are zero.
void encodeTail(const unsigned char* in, long n, unsigned char* out)
{
    unsigned char last[3] = {in[0], n > 1 ? in[1] : static_cast<unsigned char>(0), 0};
    encodeGroup(last, out);
    out[3] = '=';
    if (n == 1)
        out[2] = '=';
}

void decodeGroup(const unsigned char* in, unsigned char* out)
{
    out[0] = static_cast<unsigned char>((in[0] << 2) | (in[1] >> 4));
    out[1] = static_cast<unsigned char>((in[1] << 4) | (in[2] >> 2));
    out[2] = static_cast<unsigned char>((in[2] << 6) | in[3]);
}

// Shared by both codecs: drain pending output, then feed the input range one
// unit at a time, draining after each completed group, until buf is full or
// the range is used up.
template <class Codec>
long drain(Codec& codec, const unsigned char*& inPos, const unsigned char* inLimit,
           unsigned char* buf, long len)
{
    long n = 0;
    while (n < len) {
        if (codec.get(buf[n])) {
            ++n;
        } else if (inPos != nullptr && inPos < inLimit) {
            codec.put(*inPos++);
        } else {
            break;
        }
    }
    return n;
}

} // namespace

long TK_base64_encoded_length(long n)
{
    return (4 * n) / 3 + 4;
}

long TK_base64_encode(unsigned char* dst, long dstLen, const unsigned char* src, long srcLen)
{
    if (srcLen <= 0)
        return 0;
    if (!src || !dst)
        return -1;
    long written = 0;
    for (; srcLen >= 3; src += 3, srcLen -= 3, written += 4) {
        if (dstLen - written < 4)
            return -1;
        encodeGroup(src, dst + written);
    }
    if (srcLen == 0)
        return written;
    if (dstLen - written < 4)
        return -1;
    encodeTail(src, srcLen, dst + written);
    return written + 4;
}

// --------------------------------------------------------- TKbase64Encoder

TKbase64Encoder::TKbase64Encoder()
{
    reset();
}

void TKbase64Encoder::write(const unsigned char* data, long len)
{
    inPos_ = len > 0 ? data : nullptr;
    inLimit_ = len > 0 ? data + len : nullptr;
}

long TKbase64Encoder::read(unsigned char* buf, long len)
{
    return len > 0 ? drain(*this, inPos_, inLimit_, buf, len) : 0;
}

void TKbase64Encoder::messageEnd()
{
    if (groupLen_ > 0) {
        encodeTail(group_, groupLen_, outBuf_);
        outPos_ = 0;
        outLen_ = 4;
        groupLen_ = 0;
    }
    inPos_ = inLimit_ = nullptr;
}

void TKbase64Encoder::reset()
{
    inPos_ = inLimit_ = nullptr;
    groupLen_ = outPos_ = outLen_ = 0;
}

bool TKbase64Encoder::put(unsigned char c)
{
    group_[groupLen_++] = c;
    if (groupLen_ < 3)
        return false;
    encodeGroup(group_, outBuf_);
    outLen_ = 4;
    outPos_ = groupLen_ = 0;
    return true;
}

bool TKbase64Encoder::get(unsigned char& c)
{
    if (outPos_ >= outLen_)
        return false;
    c = outBuf_[outPos_++];
    if (outPos_ == outLen_)
        outPos_ = outLen_ = 0;
    return true;
}

// --------------------------------------------------------- TKbase64Decoder

TKbase64Decoder::TKbase64Decoder()
{
    reset();
}

void TKbase64Decoder::write(const unsigned char* data, long len)
{
    inPos_ = len > 0 ? data : nullptr;
    inLimit_ = len > 0 ? data + len : nullptr;
}

long TKbase64Decoder::read(unsigned char* buf, long len)
{
    return len > 0 ? drain(*this, inPos_, inLimit_, buf, len) : 0;
}

void TKbase64Decoder::messageEnd()
{
    // A single leftover value carries fewer than 8 bits: nothing to deliver.
    if (groupLen_ > 1) {
        for (long i = groupLen_; i < 4; ++i)
            group_[i] = 0;
        decodeGroup(group_, outBuf_);
        outPos_ = 0;
        outLen_ = groupLen_ - 1;
    }
    groupLen_ = 0;
    inPos_ = inLimit_ = nullptr;
}

void TKbase64Decoder::reset()
{
    inPos_ = inLimit_ = nullptr;
    groupLen_ = outPos_ = outLen_ = 0;
}

bool TKbase64Decoder::put(unsigned char c)
{
    if (c < '+' || c > 'z' || kDecode[c - '+'] == '$')
        return false;
    group_[groupLen_++] = static_cast<unsigned char>(kDecode[c - '+'] - 62);
    if (groupLen_ < 4)
        return false;
    decodeGroup(group_, outBuf_);
    outLen_ = 3;
    outPos_ = groupLen_ = 0;
    return true;
}

bool TKbase64Decoder::get(unsigned char& c)
{
    if (outPos_ >= outLen_)
        return false;
    c = outBuf_[outPos_++];
    if (outPos_ == outLen_)
        outPos_ = outLen_ = 0;
    return true;
}
