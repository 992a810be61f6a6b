#include "support/TKbase64.h"

#include <cstdint>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Inverse of the alphabet for the codes '+' (43) to 'z' (122): each entry is
// the 6-bit value plus 62, '$' marks a code that is not a base64 character.
constexpr char kDecode[] =
    "|$$$}rstuvwxyz{$$$$$$$>?@ABCDEFGHIJKLMNOPQRSTUVW$$$$$$XYZ[\\]^_`abcdefghijklmnopq";
static_assert(sizeof kDecode == 80 + 1, "one entry per code from '+' to 'z'");

// Tables for whole groups, derived from the two above at compile time.
// Encoding: the two characters of each 12-bit half of a group at once.
// Decoding: per position in the group, every byte's value already shifted
// into place, or kBad, so that one OR of four lookups decodes a group and
// tells whether all four characters were base64.
const uint32_t kBad = 1u << 24;

struct Tables {
    unsigned char pairs[4096][2];
    uint32_t decode[4][256];
};

constexpr Tables makeTables()
{
    Tables t{};
    for (int i = 0; i < 4096; ++i) {
        t.pairs[i][0] = static_cast<unsigned char>(kAlphabet[i >> 6]);
        t.pairs[i][1] = static_cast<unsigned char>(kAlphabet[i & 63]);
    }
    for (int c = 0; c < 256; ++c) {
        const bool valid = c >= '+' && c <= 'z' && kDecode[c - '+'] != '$';
        const uint32_t v = valid ? static_cast<uint32_t>(kDecode[c - '+'] - 62) : 0;
        for (int pos = 0; pos < 4; ++pos)
            t.decode[pos][c] = valid ? v << (6 * (3 - pos)) : kBad;
    }
    return t;
}

constexpr Tables kTables = makeTables();

inline void encodeGroup(const unsigned char* in, unsigned char* out)
{
    const unsigned char* hi = kTables.pairs[(in[0] << 4) | (in[1] >> 4)];
    const unsigned char* lo = kTables.pairs[((in[1] & 15) << 8) | in[2]];
    out[0] = hi[0];
    out[1] = hi[1];
    out[2] = lo[0];
    out[3] = lo[1];
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

inline void decodeGroup(const unsigned char* in, unsigned char* out)
{
    out[0] = static_cast<unsigned char>((in[0] << 2) | (in[1] >> 4));
    out[1] = static_cast<unsigned char>((in[1] << 4) | (in[2] >> 2));
    out[2] = static_cast<unsigned char>((in[2] << 6) | in[3]);
}

// Whole groups straight from the range into buf, while both have room for
// one; stops early (for the unit-wise path) at a group with a character
// that is not base64.
inline void encodeGroups(const unsigned char*& in, const unsigned char* end, unsigned char* buf,
                         long& n, long len)
{
    for (; end - in >= 3 && len - n >= 4; in += 3, n += 4)
        encodeGroup(in, buf + n);
}

inline void decodeGroups(const unsigned char*& in, const unsigned char* end, unsigned char* buf,
                         long& n, long len)
{
    const auto& d = kTables.decode;
    for (; end - in >= 4 && len - n >= 3; in += 4, n += 3) {
        const uint32_t v = d[0][in[0]] | d[1][in[1]] | d[2][in[2]] | d[3][in[3]];
        if (v & kBad)
            return;
        buf[n] = static_cast<unsigned char>(v >> 16);
        buf[n + 1] = static_cast<unsigned char>(v >> 8);
        buf[n + 2] = static_cast<unsigned char>(v);
    }
}

// Shared by both codecs: drain pending output, then convert the range into
// buf until buf is full or the range is used up. Between groups, whole
// groups go straight through; a group split between ranges, a skipped
// character or a buffer with room for less than a group goes unit by unit
// as put() and get() do, leaving pending what does not fit.
template <class Codec, class Groups>
long drain(Codec& codec, const unsigned char*& inPos, const unsigned char* inLimit,
           const long& groupLen, unsigned char* buf, long len, Groups groups)
{
    long n = 0;
    while (n < len && codec.get(buf[n]))
        ++n;
    const unsigned char* in = inPos;
    while (n < len && in != nullptr && in < inLimit) {
        if (groupLen == 0) {
            groups(in, inLimit, buf, n, len);
            if (n == len || in == inLimit)
                break;
        }
        if (codec.put(*in++))
            while (n < len && codec.get(buf[n]))
                ++n;
    }
    inPos = in;
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
    return len > 0 ? drain(*this, inPos_, inLimit_, groupLen_, buf, len, encodeGroups) : 0;
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
    return len > 0 ? drain(*this, inPos_, inLimit_, groupLen_, buf, len, decodeGroups) : 0;
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
