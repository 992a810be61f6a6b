// Text encoding conversion between the locale's 8-bit encoding ("loc"),
// UTF-8 and UTF-16, plus a few helpers on NUL-terminated 16-bit strings.
//
// The locale encoding is the one of the C library's current locale (the
// one setlocale installed); every loc conversion follows it at the time of
// the call.
//
// Conventions shared by all conversions:
//  - `len` counts input units (bytes for loc and UTF-8, 16-bit units for
//    UTF-16); a negative `len` means the input is NUL-terminated, 0 means
//    empty input. A null `src` reads as empty input.
//  - Results count output units without the terminator.
//  - Inputs beyond 2^31 - 1 units are not supported.
//  - A too small caller buffer raises Tut::BadBufferLength before anything
//    is written; running out of memory raises std::bad_alloc.
#ifndef TAMIX_SUPPORT_TUT_H
#define TAMIX_SUPPORT_TUT_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

namespace Tut {

class BadUnicodeString : public std::runtime_error {
public:
    BadUnicodeString();
};

class BadBufferLength : public std::runtime_error {
public:
    BadBufferLength();
};

class BadLocale : public std::runtime_error {
public:
    BadLocale();
};

// Scratch buffer for conversion results, meant to live on the caller's
// stack. Results of up to 255 units plus terminator stay in the inline
// storage; larger ones move to a malloc'd block that is kept for later
// conversions into the same buffer.
template <typename T>
class FlexBuff {
public:
    FlexBuff() : cap_(0), ptr_(nullptr) {}
    ~FlexBuff() { release(); }

    // The inline storage would be aliased by a copy.
    FlexBuff(const FlexBuff&) = delete;
    FlexBuff& operator=(const FlexBuff&) = delete;

    T* data() { return ptr_; }
    const T* data() const { return ptr_; }
    // Capacity of the current storage in bytes (0 before first use).
    unsigned long capacity() const { return cap_; }
    bool isInline() const { return ptr_ == inline_; }

    // Makes room for `bytes` bytes and returns the storage. Old content is
    // not kept. When the allocation fails the buffer is left without
    // storage and std::bad_alloc is thrown.
    T* makeRoom(unsigned long bytes)
    {
        if (bytes <= cap_)
            return ptr_;
        release();
        cap_ = 0;
        ptr_ = nullptr;
        if (bytes > sizeof(inline_)) {
            void* p = std::malloc(bytes);
            if (!p)
                throw std::bad_alloc();
            ptr_ = static_cast<T*>(p);
            cap_ = bytes;
        } else {
            ptr_ = inline_;
            cap_ = sizeof(inline_);
        }
        return ptr_;
    }

private:
    void release()
    {
        if (ptr_ && ptr_ != inline_)
            std::free(ptr_);
    }

    unsigned long cap_;
    T* ptr_;
    T inline_[256];
};

// loc -> UTF-8
long locToUtf8(const char* src, long len, char* dst, unsigned long dstLen);
long locToUtf8(const char* src, long len, FlexBuff<char>& buf);
char* locToUtf8Copy(const char* src, long len, unsigned long* outLen = nullptr);
long locToUtf8Length(const char* src, long len);

// UTF-8 -> loc
// Whether utf8ToLoc would give back exactly these bytes (ASCII under an
// encoding that keeps ASCII as it is, well-formed UTF-8 under UTF-8), so
// that a caller may take them as they are. Never needs QtCore.
bool utf8ToLocUnchanged(const char* src, long len);

// utf8ToLocUnchanged with the locale's encoding read once: for a caller
// that checks many pieces of text between moments at which the locale may
// change. It answers for the locale as it was at the last refresh(), so the
// caller refreshes it whenever code that might call setlocale has run.
class Utf8PassThrough {
public:
    void refresh();
    // ASCII under an ASCII-keeping encoding is settled here, without a call:
    // a result laid out in lines arrives as two pieces per line.
    bool keeps(const char* src, long len) const
    {
        if (ascii_ && src && len >= 0) {
            uint64_t high = 0;
            long i = 0;
            for (; i + 8 <= len; i += 8) {
                uint64_t w;
                std::memcpy(&w, src + i, 8);
                high |= w;
            }
            for (; i < len; ++i)
                high |= static_cast<unsigned char>(src[i]);
            if ((high & 0x8080808080808080ull) == 0)
                return true;
        }
        return keepsOtherwise(src, len);
    }

private:
    bool keepsOtherwise(const char* src, long len) const;

    bool utf8_ = false;  // UTF-8 itself: well-formed UTF-8 passes unchanged
    bool ascii_ = false; // maps the ASCII range to itself, both ways
};
long utf8ToLoc(const char* src, long len, char* dst, unsigned long dstLen);
long utf8ToLoc(const char* src, long len, FlexBuff<char>& buf);
char* utf8ToLocCopy(const char* src, long len, unsigned long* outLen = nullptr);
long utf8ToLocLength(const char* src, long len);

// loc -> UTF-16 (buffer shape terminates only when the input was terminated)
long locToUtf16(const char* src, long len, unsigned short* dst, unsigned long dstLen);
long locToUtf16(const char* src, long len, FlexBuff<unsigned short>& buf);
long locToUtf16Length(const char* src, long len);

// UTF-16 -> loc (buffer shape terminates only when the input was terminated)
long utf16ToLoc(const unsigned short* src, long len, char* dst, unsigned long dstLen);
long utf16ToLocLength(const unsigned short* src, long len);

// UTF-8 -> UTF-16 (the result ends at its first zero unit)
long utf8ToUtf16(const char* src, long len, unsigned short* dst, unsigned long dstLen);
long utf8ToUtf16(const char* src, long len, FlexBuff<unsigned short>& buf);
long utf8ToUtf16Length(const char* src, long len);

// UTF-16 -> UTF-8
long utf16ToUtf8(const unsigned short* src, long len, char* dst, unsigned long dstLen);
long utf16ToUtf8(const unsigned short* src, long len, FlexBuff<char>& buf);
long utf16ToUtf8Length(const unsigned short* src, long len);

// NUL-terminated 16-bit strings.
unsigned long ustrlen(const unsigned short* s);
unsigned short* ustrcpy(unsigned short* dst, const unsigned short* src);
unsigned short* ustrncpy(unsigned short* dst, const unsigned short* src, unsigned long n);
unsigned short* ustrcat(unsigned short* dst, const unsigned short* src);
int ustrcmp(const unsigned short* a, const unsigned short* b);
int ustrncmp(const unsigned short* a, const unsigned short* b, unsigned long n);
unsigned short* ustrchr(const unsigned short* s, unsigned short c);
unsigned short* ustrrchr(const unsigned short* s, unsigned short c);
unsigned short* ustrdup(const unsigned short* s);
// An empty sub is found at the start of a non-empty s (as strstr does); an
// empty s gives null whatever sub is.
unsigned short* ustrstr(const unsigned short* s, const unsigned short* sub);

} // namespace Tut

#endif
