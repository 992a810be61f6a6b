// Writing mcode payloads: the payload is deflated (zlib format) and the
// compressed bytes are base64 encoded as they come out, so the payload is
// never copied whole and the base64 text is never held whole either.
#include <climits>

#include "support/TKT_stream.h"
#include "support/TKbase64.h"
#include "xmsg/TAM_XmsgKernel.h"

namespace {

const unsigned kDeflateOut = 1024;
// One full pass of 1024 bytes plus the at most 2 bytes the encoder carries
// over make 342 groups (1368 characters).
const long kBase64Batch = 1370;

} // namespace

void TAM_XmsgKernel::xput_mcode(const TAM_DataTAG* data)
{
    if (!data || status_ != TKstream::Ok)
        return;
    xput_lit("<mcode format=\"");
    xput_ascii_cdata(data->format);
    xput_lit("\">");

    try {
        unsigned char out[kDeflateOut];
        unsigned char chars[kBase64Batch];
        TKbase64Encoder encoder;

        // zlib counts its input in 32 bits. Payloads of 4 GiB or more are fed
        // in pieces of at most UINT_MAX bytes, so every length works instead
        // of silently losing the high bits; only the last piece finishes the
        // stream.
        const unsigned char* next = data->data;
        uint64_t left = data->length;
        auto feed = [&]() {
            uInt piece = left > UINT_MAX ? UINT_MAX : static_cast<uInt>(left);
            zstream_.next_in = const_cast<Bytef*>(next);
            zstream_.avail_in = piece;
            next += piece;
            left -= piece;
        };
        auto drain = [&]() {
            long n;
            while ((n = encoder.read(chars, kBase64Batch)) > 0) {
                xput_raw(reinterpret_cast<const char*>(chars), static_cast<unsigned long>(n));
                if (status_ != TKstream::Ok)
                    return false;
            }
            return true;
        };

        // A payload that failed half-way may have left input behind.
        zstream_.next_in = const_cast<Bytef*>(next);
        zstream_.avail_in = 0;
        for (;;) {
            if (zstream_.avail_in == 0 && left > 0)
                feed();
            int flush = left > 0 ? Z_NO_FLUSH : Z_FINISH;
            zstream_.next_out = out;
            zstream_.avail_out = kDeflateOut;
            uLong before = zstream_.total_out;
            int rc = deflate(&zstream_, flush);
            uLong produced = zstream_.total_out - before;
            if (produced > 0) {
                encoder.write(out, static_cast<long>(produced));
                if (!drain()) {
                    deflateReset(&zstream_);
                    return;
                }
            }
            if (rc == Z_STREAM_END)
                break;
            if (rc != Z_OK) {
                deflateReset(&zstream_);
                status_ = TKstream::Error;
                return;
            }
            if (zstream_.avail_in > 0 || zstream_.avail_out == 0 || left > 0)
                continue;
            break;
        }

        encoder.messageEnd();
        if (!drain()) {
            deflateReset(&zstream_);
            return;
        }
        deflateReset(&zstream_);
        xput_lit("</mcode>");
    } catch (...) {
        deflateReset(&zstream_);
        status_ = TKstream::Error;
    }
}
