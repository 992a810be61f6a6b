// Writing mcode payloads: the payload encoder deflates the bytes and hands
// the base64 text over piece by piece, so neither the payload nor its text
// is ever copied whole.
#include "support/TKT_stream.h"
#include "xmsg/TAM_XmsgKernel.h"

struct TAM_XmsgKernel::RequestSink : TKpayloadSink {
    explicit RequestSink(TAM_XmsgKernel& kernel) : kernel_(kernel) {}

    // A failed write stays in status_ and stops the encoder.
    long put(const unsigned char* data, unsigned long len) override
    {
        kernel_.xput_raw(reinterpret_cast<const char*>(data), len);
        return kernel_.status_;
    }

    TAM_XmsgKernel& kernel_;
};

void TAM_XmsgKernel::xput_mcode(const TAM_DataTAG* data)
{
    if (!data || status_ != TKstream::Ok)
        return;
    xput_lit("<mcode format=\"");
    xput_ascii_cdata(data->format);
    xput_lit("\">");
    try {
        RequestSink sink(*this);
        switch (zstream_.encode(data->data, data->length, sink)) {
        case TKpayloadEncoder::Done:
            xput_lit("</mcode>");
            break;
        case TKpayloadEncoder::SinkFailed:
            break; // status_ holds the failed write; the element stays open
        case TKpayloadEncoder::Failed:
            status_ = TKstream::Error;
            break;
        }
    } catch (...) {
        status_ = TKstream::Error;
    }
}
