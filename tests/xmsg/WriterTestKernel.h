// Test doubles for the request writer: a heap stream that can be told to
// fail (or throw) on its Nth write of a request or on flush, and a
// connection over it with a settable client id whose helpers are public.
#ifndef TAMIX_TESTS_XMSG_WRITERTESTKERNEL_H
#define TAMIX_TESTS_XMSG_WRITERTESTKERNEL_H

#include <new>
#include <stdexcept>
#include <string>
#include <vector>
#include <zlib.h>

#include "support/TKT_stream.h"
#include "support/TKbase64.h"
#include "xmsg/TAM_XmsgKernel.h"

namespace writertest {

class FailingStream : public TKheapStream {
public:
    enum Mode { ReturnCode, ThrowBadAlloc };

    // Fail the nth write counted from the last clear() (1-based); 0: never.
    long failAt = 0;
    long failCode = TKstream::Error;
    Mode mode = ReturnCode;
    bool failFlush = false;

    long writes = 0;
    long flushes = 0;

    long write(const void* data, unsigned long len, unsigned long& count) override
    {
        ++writes;
        if (failAt != 0 && writes == failAt) {
            count = 0;
            if (mode == ThrowBadAlloc)
                throw std::bad_alloc();
            return status(failCode);
        }
        return TKheapStream::write(data, len, count);
    }
    long flush() override
    {
        ++flushes;
        if (failFlush)
            return status(TKstream::Error);
        return TKheapStream::flush();
    }
    long clear() override
    {
        writes = 0;
        return TKheapStream::clear();
    }
    std::string text() { return std::string(reinterpret_cast<char*>(data()), length()); }
};

// A connection as the transport would build it: every request starts on an
// emptied stream.
class TestKernel : public TAM_XmsgKernel {
public:
    explicit TestKernel(long id = -1) : id_(id) {}

    long get_client_id() const override { return id_; }
    int set_kernel_name(const char* name) override
    {
        if (throwOnRename)
            throw std::runtime_error("rename");
        name_ = name ? name : "";
        return 1;
    }
    const char* get_kernel_name() const override { return name_.c_str(); }

    TKstream* xstream() override { return &stream; }
    void xbegin(const char* name, unsigned long len) override
    {
        stream.clear();
        TAM_XmsgKernel::xbegin(name, len);
    }

    // Start a bare helper call as xbegin would, without the start tag.
    void fresh()
    {
        stream.clear();
        status_ = TKstream::Ok;
    }
    std::string text() { return stream.text(); }

    using TAM_XmsgKernel::status_;
    using TAM_XmsgKernel::xput_ascii_cdata;
    using TAM_XmsgKernel::xput_bool;
    using TAM_XmsgKernel::xput_cdata;
    using TAM_XmsgKernel::xput_cookie;
    using TAM_XmsgKernel::xput_int;
    using TAM_XmsgKernel::xput_mcode;
    using TAM_XmsgKernel::xput_raw;
    using TAM_XmsgKernel::xend;
    using TAM_XmsgKernel::zstream_;

    long id_;
    bool throwOnRename = false;
    std::string name_ = "kernel";
    FailingStream stream;
};

// Decodes base64 text with the library's decoder and inflates it with
// zlib's one-shot uncompress. Returns false if zlib rejects the data.
inline bool decodePayload(const std::string& b64, std::string& out, size_t expected)
{
    TKbase64Decoder dec;
    std::vector<unsigned char> bin;
    unsigned char buf[4096];
    dec.write(reinterpret_cast<const unsigned char*>(b64.data()), static_cast<long>(b64.size()));
    long n;
    while ((n = dec.read(buf, sizeof buf)) > 0)
        bin.insert(bin.end(), buf, buf + n);
    dec.messageEnd();
    while ((n = dec.read(buf, sizeof buf)) > 0)
        bin.insert(bin.end(), buf, buf + n);
    std::vector<unsigned char> raw(expected + 1);
    uLongf rawLen = static_cast<uLongf>(raw.size());
    if (uncompress(raw.data(), &rawLen, bin.data(), static_cast<uLong>(bin.size())) != Z_OK)
        return false;
    out.assign(reinterpret_cast<char*>(raw.data()), rawLen);
    return true;
}

// The base64 text between `<mcode format="...">` and `</mcode>` of the
// n-th mcode element in a request (0-based); empty if there is none.
inline std::string mcodeText(const std::string& req, size_t n = 0)
{
    size_t pos = 0;
    for (size_t i = 0;; ++i) {
        size_t open = req.find("<mcode format=\"", pos);
        if (open == std::string::npos)
            return std::string();
        size_t start = req.find("\">", open);
        size_t end = req.find("</mcode>", start);
        if (start == std::string::npos || end == std::string::npos)
            return std::string();
        if (i == n)
            return req.substr(start + 2, end - start - 2);
        pos = end;
    }
}

} // namespace writertest

#endif
