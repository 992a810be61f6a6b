#include "support/TKpayload.h"

#include <climits>

#include "support/TKT_stream.h"

namespace {

// Compressed bytes per deflate pass, and decoded or inflated bytes per block
// on the way back: fixed buffers on the stack, never the whole payload.
const unsigned kBlock = 1024;
// Characters taken from the base64 coder at a time: one full pass plus the
// at most 2 bytes the coder carries over make 342 groups (1368 characters),
// so each pass normally reaches the sink as one piece.
const long kTextBatch = 1370;

// Hands the sink everything the base64 coder can deliver now; false as soon
// as the sink refuses a piece.
bool drainText(TKbase64Encoder& base64, TKpayloadSink& sink)
{
    unsigned char chars[kTextBatch];
    long n;
    while ((n = base64.read(chars, kTextBatch)) > 0)
        if (sink.put(chars, static_cast<unsigned long>(n)) != TKstream::Ok)
            return false;
    return true;
}

// The payload bytes not yet handed to zlib, which takes at most UINT_MAX at
// a time; only after the last piece may the stream be finished.
struct Input {
    const unsigned char* next;
    uint64_t left;

    void feed(z_stream& z)
    {
        const uInt piece = left > UINT_MAX ? UINT_MAX : static_cast<uInt>(left);
        z.next_in = const_cast<Bytef*>(next);
        z.avail_in = piece;
        next += piece;
        left -= piece;
    }
};

// Leaves the compressor in its initial state however encode() is left.
struct DeflateReset {
    z_stream& z;
    ~DeflateReset() { deflateReset(&z); }
};

// The inflater must not keep pointing at a block on a stack frame that is gone.
struct ForgetInput {
    z_stream& z;
    ~ForgetInput()
    {
        z.next_in = Z_NULL;
        z.avail_in = 0;
    }
};

} // namespace

TKpayloadSink::~TKpayloadSink() = default;

long TKstreamSink::put(const unsigned char* data, unsigned long len)
{
    unsigned long count = 0;
    return stream_.write(data, len, count);
}

// ---- encoder -----------------------------------------------------------------

TKpayloadEncoder::TKpayloadEncoder() : zstream_()
{
    // Not checked: with no state, deflate() fails and so does every payload.
    deflateInit(&zstream_, Z_DEFAULT_COMPRESSION);
}

TKpayloadEncoder::~TKpayloadEncoder()
{
    deflateEnd(&zstream_);
}

int TKpayloadEncoder::deflatePass(int flush, TKbase64Encoder& base64, TKpayloadSink& sink,
                                  bool& sinkOk)
{
    unsigned char out[kBlock];
    zstream_.next_out = out;
    zstream_.avail_out = kBlock;
    const int rc = deflate(&zstream_, flush);
    const unsigned long produced = kBlock - zstream_.avail_out;
    if (produced > 0) {
        base64.write(out, static_cast<long>(produced));
        sinkOk = drainText(base64, sink);
    }
    return rc;
}

TKpayloadEncoder::Result TKpayloadEncoder::encode(const unsigned char* data, uint64_t len,
                                                  TKpayloadSink& sink)
{
    DeflateReset resetOnExit{zstream_};
    TKbase64Encoder base64;
    Input in{data, len};
    // reset does not clear the input a payload that failed half-way left.
    zstream_.next_in = const_cast<Bytef*>(data);
    zstream_.avail_in = 0;
    for (;;) {
        if (zstream_.avail_in == 0 && in.left > 0)
            in.feed(zstream_);
        bool sinkOk = true;
        const int rc = deflatePass(in.left > 0 ? Z_NO_FLUSH : Z_FINISH, base64, sink, sinkOk);
        if (!sinkOk)
            return SinkFailed;
        if (rc == Z_STREAM_END)
            break;
        if (rc != Z_OK)
            return Failed;
        // More to do while input is left or the pass filled its buffer.
        if (zstream_.avail_in == 0 && zstream_.avail_out != 0 && in.left == 0)
            break;
    }
    base64.messageEnd();
    return drainText(base64, sink) ? Done : SinkFailed;
}

// ---- decoder -----------------------------------------------------------------

TKpayloadDecoder::TKpayloadDecoder() : inflater_(), state_(Running)
{
    if (inflateInit(&inflater_) != Z_OK)
        state_ = Unusable;
}

TKpayloadDecoder::~TKpayloadDecoder()
{
    inflateEnd(&inflater_);
}

TKpayloadDecoder::Result TKpayloadDecoder::stateResult() const
{
    switch (state_) {
    case Running:
        return More;
    case Ended:
        return End;
    case Rejected:
        return Damaged;
    default:
        return Broken;
    }
}

TKpayloadDecoder::Result TKpayloadDecoder::write(const char* text, long len, TKpayloadSink& sink)
{
    if (state_ != Running || len <= 0)
        return stateResult();
    base64_.write(reinterpret_cast<const unsigned char*>(text), len);
    return drain(sink);
}

TKpayloadDecoder::Result TKpayloadDecoder::finish(TKpayloadSink& sink)
{
    struct ResetOnExit {
        TKpayloadDecoder& d;
        ~ResetOnExit() { d.reset(); }
    } resetOnExit{*this};
    if (state_ != Running)
        return stateResult();
    base64_.messageEnd();
    const Result r = drain(sink);
    return r == More ? Truncated : r;
}

void TKpayloadDecoder::reset()
{
    base64_.reset();
    state_ = inflateReset(&inflater_) == Z_OK ? Running : Unusable;
}

TKpayloadDecoder::Result TKpayloadDecoder::drain(TKpayloadSink& sink)
{
    ForgetInput forget{inflater_};
    unsigned char in[kBlock];
    long n;
    while ((n = base64_.read(in, kBlock)) > 0) {
        const Result r = inflateBlock(in, static_cast<unsigned long>(n), sink);
        if (r == More)
            continue;
        // Nothing more is decoded after the end or an error: drop the text.
        if (state_ != Running)
            base64_.reset();
        return r;
    }
    return More;
}

TKpayloadDecoder::Result TKpayloadDecoder::inflateBlock(unsigned char* in, unsigned long len,
                                                        TKpayloadSink& sink)
{
    inflater_.next_in = in;
    inflater_.avail_in = static_cast<uInt>(len);
    for (;;) {
        unsigned char out[kBlock];
        inflater_.next_out = out;
        inflater_.avail_out = kBlock;
        const int rc = inflate(&inflater_, Z_SYNC_FLUSH);
        const unsigned long produced = kBlock - inflater_.avail_out;
        if (produced > 0 && sink.put(out, produced) != TKstream::Ok)
            return SinkFailed;
        if (rc == Z_STREAM_END) {
            state_ = Ended;
            return End;
        }
        // No progress: the block was used up by a pass that filled the
        // output exactly. The next block goes on.
        if (rc == Z_BUF_ERROR)
            return More;
        if (rc != Z_OK) {
            state_ = rc == Z_DATA_ERROR || rc == Z_NEED_DICT ? Rejected : Unusable;
            return stateResult();
        }
        if (inflater_.avail_in == 0 && inflater_.avail_out != 0)
            return More;
    }
}
