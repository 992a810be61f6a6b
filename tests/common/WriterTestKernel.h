// Test doubles for the request writer: a heap stream that fails (or throws)
// on its Nth write of a request or on flush, and a connection over it whose
// every request starts on an emptied stream, as the transport's does.
#ifndef TAMIX_TESTS_COMMON_WRITERTESTKERNEL_H
#define TAMIX_TESTS_COMMON_WRITERTESTKERNEL_H

#include <clocale>
#include <new>
#include <string>

#include "support/TKT_stream.h"
#include "xmsg/TAM_XmsgKernel.h"

namespace writertest {

struct FailingStream : TKheapStream {
    long failAt = 0; // 1-based write of the request that fails; 0: none
    long failCode = TKstream::Error, writes = 0, flushes = 0;
    bool throws = false, failFlush = false;

    long write(const void* data, unsigned long len, unsigned long& count) override
    {
        if (++writes != failAt)
            return TKheapStream::write(data, len, count);
        count = 0;
        if (throws)
            throw std::bad_alloc();
        return status(failCode);
    }
    long flush() override
    {
        ++flushes;
        return failFlush ? status(TKstream::Error) : TKheapStream::flush();
    }
    long clear() override
    {
        writes = 0;
        return TKheapStream::clear();
    }
};

// Texts are converted in the locale the environment names.
inline const bool gLocaleSet = std::setlocale(LC_ALL, "") != nullptr;

struct TestKernel : TAM_XmsgKernel {
    explicit TestKernel(long id = -1) : id_(id) { (void)gLocaleSet; }

    long get_client_id() const override { return id_; }
    int set_kernel_name(const char* name) override
    {
        if (throwOnRename)
            throw std::bad_alloc();
        name_ = name;
        return 1;
    }
    const char* get_kernel_name() const override { return name_.c_str(); }
    TKstream* xstream() override { return &stream; }
    void xbegin(const char* name, unsigned long len) override
    {
        stream.clear();
        TAM_XmsgKernel::xbegin(name, len);
    }
    std::string text()
    {
        return std::string(reinterpret_cast<char*>(stream.data()), stream.length());
    }

    using TAM_XmsgKernel::status_;
    using TAM_XmsgKernel::xend;
    using TAM_XmsgKernel::xput_ascii_cdata;
    using TAM_XmsgKernel::xput_cdata;

    long id_;
    bool throwOnRename = false;
    std::string name_ = "kernel";
    FailingStream stream;
};

} // namespace writertest

#endif
