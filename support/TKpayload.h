// The payload codec: bytes <-> base64 text of a zlib stream.
//
// A payload travels as one complete zlib-format stream (deflate at the
// default level), written as base64 text without line breaks. Both
// directions stream: the encoder hands the text to a sink as it comes out
// of the compressor, and the decoder takes the text in pieces of any size,
// split anywhere, and hands the inflated bytes to a sink as they come.
// Neither holds the payload or its text whole, and neither allocates per
// payload: each keeps one zlib state for its life and resets it between
// payloads.
//
// Depends on zlib and the support streams and base64 only, so that the
// kernel can link it as well as the client library.
#ifndef TAMIX_SUPPORT_TKPAYLOAD_H
#define TAMIX_SUPPORT_TKPAYLOAD_H

#include <zlib.h>

#include <cstdint>

#include "support/TKbase64.h"

class TKstream;

// Receives a codec's output piece by piece.
class TKpayloadSink {
public:
    virtual ~TKpayloadSink();

    // Takes len bytes from data (len > 0; the range is valid only during the
    // call). Returns a TKstream status code: TKstream::Ok to go on, anything
    // else stops the codec, which returns TKpayloadEncoder::SinkFailed or
    // TKpayloadDecoder::SinkFailed. May throw; the codec then stays usable
    // (see the codecs for what state they are left in).
    virtual long put(const unsigned char* data, unsigned long len) = 0;
};

// A sink that writes into a stream and returns the stream's status code.
// The stream is not owned and must outlive the sink.
class TKstreamSink : public TKpayloadSink {
public:
    explicit TKstreamSink(TKstream& stream) : stream_(stream) {}
    long put(const unsigned char* data, unsigned long len) override;

private:
    TKstream& stream_;
};

// Turns payload bytes into the base64 text of one complete zlib stream.
class TKpayloadEncoder {
public:
    enum Result {
        Done,       // the whole text went to the sink
        SinkFailed, // the sink refused a piece; nothing more was given to it
        Failed      // the compressor failed (also after a failed set-up)
    };

    // Sets up the compressor at Z_DEFAULT_COMPRESSION. A failed set-up (no
    // memory) is not reported here: every encode() then returns Failed.
    TKpayloadEncoder();
    ~TKpayloadEncoder();
    TKpayloadEncoder(const TKpayloadEncoder&) = delete;
    TKpayloadEncoder& operator=(const TKpayloadEncoder&) = delete;

    // Encodes the len bytes at data (data may be null when len is 0) and
    // gives the text to sink in pieces, the last one with the padding.
    // Lengths of 4 GiB and more are fine: zlib counts its input in 32 bits,
    // so the bytes reach it in pieces of at most UINT_MAX. On every path,
    // also when the sink throws (the exception passes on), the compressor is
    // reset afterwards, so each payload is an independent zlib stream. After
    // SinkFailed or Failed the text the sink received is incomplete.
    Result encode(const unsigned char* data, uint64_t len, TKpayloadSink& sink);

private:
    // Compresses one pass into the base64 coder and the sink; the zlib result.
    int deflatePass(int flush, TKbase64Encoder& base64, TKpayloadSink& sink, bool& sinkOk);

    z_stream zstream_;
};

// Turns base64 text of a zlib stream back into the payload bytes.
//
// Characters outside the base64 alphabet (white space, line breaks, "=")
// are skipped wherever they stand. Damage shows as data that inflate
// rejects: everything inflated before it has gone to the sink, and the rest
// of the text is ignored until finish() or reset(). Text after the end of
// the zlib stream is ignored too.
class TKpayloadDecoder {
public:
    enum Result {
        More,       // all taken; the zlib stream goes on
        End,        // the zlib stream is complete; later text is ignored
        Truncated,  // finish() only: the text ended before the zlib stream
        Damaged,    // inflate rejected the data; later text is ignored
        SinkFailed, // the sink refused bytes; the rest of this piece is lost
        Broken      // no usable inflate state (set-up failed, no memory)
    };

    // Sets up the inflater (zlib format). A failed set-up is not reported
    // here: every call then returns Broken and delivers nothing.
    TKpayloadDecoder();
    ~TKpayloadDecoder();
    TKpayloadDecoder(const TKpayloadDecoder&) = delete;
    TKpayloadDecoder& operator=(const TKpayloadDecoder&) = delete;

    // Decodes len characters of text (nothing for len <= 0; text may then be
    // null) and gives the inflated bytes to sink before returning; the text
    // is not kept. A group of characters split between pieces is carried
    // over. After SinkFailed the next piece goes on where this one stopped
    // short, so the payload usually comes out damaged or cut short. A sink
    // that throws leaves the decoder as after SinkFailed.
    Result write(const char* text, long len, TKpayloadSink& sink);
    // Ends the text: decodes a partial last group and gives the rest to the
    // sink. Returns End for a complete zlib stream, Truncated for one cut
    // short, else as write(). Always resets the decoder for the next payload.
    Result finish(TKpayloadSink& sink);
    // Forgets the payload in progress; the next text starts a new payload.
    void reset();

private:
    enum State { Running, Ended, Rejected, Unusable };

    // Inflates all the base64 coder can deliver now.
    Result drain(TKpayloadSink& sink);
    // Inflates one block of decoded bytes into the sink.
    Result inflateBlock(unsigned char* in, unsigned long len, TKpayloadSink& sink);
    // The result that a decoder in state_ gives without decoding.
    Result stateResult() const;

    TKbase64Decoder base64_;
    z_stream inflater_;
    State state_;
};

#endif
