// Fuzzes the base64 codec, the payload codec and the UTF-8/locale
// conversions. The streaming decoders fed in chunks must give what they
// give for the whole input (base64: what the byte interface gives);
// encoding and decoding must round-trip; the buffer, FlexBuff and copy
// shapes of a conversion must agree. Run it under a UTF-8 and an
// 8-bit locale (LC_ALL), which is read once at start.
#include <clocale>
#include <cstring>
#include <string>

#include "FuzzCommon.h"
#include "support/TKT_stream.h"
#include "support/TKbase64.h"
#include "support/TKpayload.h"
#include "support/Tut.h"

namespace {

void check(bool ok, const char* what)
{
    if (!ok) {
        std::fprintf(stderr, "mismatch: %s\n", what);
        __builtin_trap();
    }
}

// Drains the decoder through a read buffer of rd bytes.
void drain(TKbase64Decoder& d, std::string& out, long rd)
{
    unsigned char buf[8];
    for (long n; (n = d.read(buf, rd)) > 0;)
        out.append(reinterpret_cast<char*>(buf), static_cast<std::size_t>(n));
}

std::string decodeBytewise(const std::string& in)
{
    TKbase64Decoder d;
    std::string out;
    unsigned char c;
    for (unsigned char x : in)
        if (d.put(x))
            while (d.get(c))
                out += static_cast<char>(c);
    d.messageEnd();
    while (d.get(c))
        out += static_cast<char>(c);
    return out;
}

struct StringSink : TKpayloadSink {
    std::string got;
    long put(const unsigned char* data, unsigned long len) override
    {
        got.append(reinterpret_cast<const char*>(data), len);
        return TKstream::Ok;
    }
};

// The payload text fed in chunks (or whole): the bytes and how it ended.
std::string decodePayload(const uint8_t* data, std::size_t size, bool whole)
{
    TKpayloadDecoder d;
    StringSink s;
    if (whole)
        d.write(reinterpret_cast<const char*>(data) + 2, static_cast<long>(size - 2), s);
    else
        fuzz::feedChunks(data, size, [&](const char* p, int n) { d.write(p, n, s); });
    return s.got + "|" + std::to_string(d.finish(s));
}

template <typename Buffer, typename Flex, typename Copy>
void agree(const std::string& in, Buffer toBuffer, Flex toFlex, Copy toCopy)
{
    Tut::FlexBuff<char> fb;
    const long n = toFlex(in.data(), static_cast<long>(in.size()), fb);
    const std::string flex(fb.data(), static_cast<std::size_t>(n));
    check(fb.data()[n] == '\0', "FlexBuff terminator");
    unsigned long copyLen = 0;
    char* copy = toCopy(in.data(), static_cast<long>(in.size()), &copyLen);
    check(copy && std::string(copy, copyLen) == flex && copy[copyLen] == '\0', "copy shape");
    delete[] copy;
    std::string buf(flex.size() + 1, 'x');
    check(toBuffer(in.data(), static_cast<long>(in.size()), &buf[0], buf.size()) == n &&
              buf.compare(0, flex.size(), flex) == 0 && buf[flex.size()] == '\0',
          "buffer shape");
    try {
        toBuffer(in.data(), static_cast<long>(in.size()), &buf[0], flex.size());
        check(false, "a buffer without room for the terminator was accepted");
    } catch (const Tut::BadBufferLength&) {
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    std::setlocale(LC_ALL, "");
    fuzz::writeSeeds(*argc, *argv,
                     {"eJxLTEoGAAJNASc=", " eJxLT\nEoGAA JNASc ", "QQ==QQ",
                      "a\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80", "\xc3\x28\xed\xa0\x80\xc0\xaf\xff",
                      std::string("x\0y\xe4", 4)});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size < 2)
        return 0;
    const std::string in(reinterpret_cast<const char*>(data) + 2, size - 2);
    const long rd = data[0] % 8 + 1;

    // Decoding: chunks and read sizes must not matter.
    TKbase64Decoder d;
    std::string streamed;
    fuzz::feedChunks(data, size, [&](const char* p, int n) {
        d.write(reinterpret_cast<const unsigned char*>(p), n);
        drain(d, streamed, rd);
    });
    d.messageEnd();
    drain(d, streamed, rd);
    check(streamed == decodeBytewise(in), "streamed and bytewise decoding");

    // Encoding, whole and streamed, then back.
    std::string whole(
        static_cast<std::size_t>(TK_base64_encoded_length(static_cast<long>(in.size()))), '\0');
    const long w = TK_base64_encode(
        reinterpret_cast<unsigned char*>(&whole[0]), static_cast<long>(whole.size()),
        reinterpret_cast<const unsigned char*>(in.data()), static_cast<long>(in.size()));
    check(w >= 0, "encoder room");
    whole.resize(static_cast<std::size_t>(w));
    TKbase64Encoder e;
    std::string enc;
    unsigned char buf[8];
    fuzz::feedChunks(data, size, [&](const char* p, int n) {
        e.write(reinterpret_cast<const unsigned char*>(p), n);
        for (long k; (k = e.read(buf, rd)) > 0;)
            enc.append(reinterpret_cast<char*>(buf), static_cast<std::size_t>(k));
    });
    e.messageEnd();
    for (long k; (k = e.read(buf, rd)) > 0;)
        enc.append(reinterpret_cast<char*>(buf), static_cast<std::size_t>(k));
    check(enc == whole, "streamed and whole encoding");
    check(decodeBytewise(whole) == in, "round trip");

    // Payloads: chunks do not matter, and every input comes back.
    check(decodePayload(data, size, true) == decodePayload(data, size, false),
          "payload text in chunks");
    TKpayloadEncoder pe;
    StringSink text, back;
    check(pe.encode(reinterpret_cast<const unsigned char*>(in.data()), in.size(), text) ==
              TKpayloadEncoder::Done,
          "payload encoding");
    TKpayloadDecoder pd;
    pd.write(text.got.data(), static_cast<long>(text.got.size()), back);
    check(pd.finish(back) == TKpayloadDecoder::End && back.got == in, "payload round trip");

    // Conversions, both ways, in all three shapes.
    using namespace Tut;
    agree(
        in, [](const char* s, long l, char* b, unsigned long n) { return utf8ToLoc(s, l, b, n); },
        [](const char* s, long l, FlexBuff<char>& b) { return utf8ToLoc(s, l, b); },
        [](const char* s, long l, unsigned long* o) { return utf8ToLocCopy(s, l, o); });
    agree(
        in, [](const char* s, long l, char* b, unsigned long n) { return locToUtf8(s, l, b, n); },
        [](const char* s, long l, FlexBuff<char>& b) { return locToUtf8(s, l, b); },
        [](const char* s, long l, unsigned long* o) { return locToUtf8Copy(s, l, o); });
    return 0;
}
