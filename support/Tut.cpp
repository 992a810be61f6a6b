#include "support/Tut.h"

#include <QByteArray>
#include <QString>
#include <QTextCodec>
#include <QtGlobal>

#include <langinfo.h>

#include <cstdint>
#include <cstring>

namespace Tut {

BadUnicodeString::BadUnicodeString() : std::runtime_error("incomplete Unicode string")
{
}
BadBufferLength::BadBufferLength() : std::runtime_error("buffer too small")
{
}
BadLocale::BadLocale() : std::runtime_error("current locale is not supported")
{
}

namespace {

// The C library's codeset name of the current locale, and whether it
// differs from the one a cache saw last. Steady state costs one nl_langinfo
// and one strcmp.
class CodesetWatch {
public:
    // True (and remembers the name) when the codeset is not the one of the
    // last call that returned true.
    bool changed(const char*& codeset)
    {
        codeset = nl_langinfo(CODESET);
        if (!codeset)
            codeset = "";
        if (seen_ && std::strcmp(codeset, last_) == 0)
            return false;
        const std::size_t n = std::strlen(codeset);
        seen_ = n < sizeof last_; // a name too long to keep is looked at every time
        if (seen_)
            std::memcpy(last_, codeset, n + 1);
        return true;
    }

private:
    char last_[128] = "";
    bool seen_ = false;
};

// Codesets that map every ASCII byte to the same character and back, by the
// names the C library gives them, so ASCII text needs no conversion under
// them. Stateful or ASCII-incompatible ones (ISO-2022-*, Shift_JIS with its
// yen sign) are not listed and always go through Qt, and so does any name
// not listed here.
bool isAsciiCompatible(const char* codeset)
{
    static const char* const names[] = {"ANSI_X3.4-1968", "UTF-8", "EUC-JP",  "EUC-KR",
                                        "GB2312",         "GBK",   "GB18030", "BIG5",
                                        "KOI8-R",         "KOI8-U"};
    for (const char* name : names)
        if (std::strcmp(codeset, name) == 0)
            return true;
    // ISO-8859-1 to -16 and windows-1250 to -1258.
    if (std::strncmp(codeset, "ISO-8859-", 9) == 0)
        return codeset[9] >= '1' && codeset[9] <= '9';
    return std::strncmp(codeset, "CP125", 5) == 0 && codeset[5] >= '0' && codeset[5] <= '8' &&
           codeset[6] == '\0';
}

// What the short way needs to know about the locale's encoding, from the
// codeset name alone: text that passes unchanged never wakes QtCore.
struct LocaleEncoding {
    bool utf8 = false;
    bool ascii = false;
};

LocaleEncoding localeEncoding()
{
    static CodesetWatch watch;
    static LocaleEncoding enc;
    const char* codeset;
    if (watch.changed(codeset)) {
        enc.utf8 = std::strcmp(codeset, "UTF-8") == 0;
        enc.ascii = isAsciiCompatible(codeset);
    }
    return enc;
}

// QtCore decides on its own what the locale's encoding is (built with ICU it
// reports UTF-8 whatever the locale says), so the codec for the locale is
// taken from the C library's current locale instead and installed as Qt's
// locale codec. The codec is looked up only when the codeset name changes.
QTextCodec* localeCodec()
{
    static CodesetWatch watch;
    static QTextCodec* codec = nullptr;
    const char* codeset;
    if (!watch.changed(codeset) && codec)
        return codec;
    QTextCodec* found = nullptr;
    // The C/POSIX locale names plain ASCII; Latin-1 is taken there (and for
    // names Qt does not know) because it maps every byte to a character and
    // back, so 8-bit text passes unharmed instead of being replaced.
    if (*codeset && std::strcmp(codeset, "ANSI_X3.4-1968") != 0)
        found = QTextCodec::codecForName(codeset);
    if (!found)
        found = QTextCodec::codecForMib(4); // ISO-8859-1
    if (found != QTextCodec::codecForLocale())
        QTextCodec::setCodecForLocale(found);
    codec = found;
    return codec;
}

bool isAscii(const unsigned char* p, std::size_t n)
{
    std::size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        uint64_t w;
        std::memcpy(&w, p + i, 8);
        if (w & 0x8080808080808080ull)
            return false;
    }
    unsigned high = 0;
    for (; i < n; ++i)
        high |= p[i];
    return (high & 0x80) == 0;
}

// Length of the well-formed UTF-8 sequence at p (at most n bytes), or 0:
// no overlong forms, no surrogates, nothing above U+10FFFF.
std::size_t utf8Sequence(const unsigned char* p, std::size_t n)
{
    const unsigned c = p[0];
    std::size_t len;
    unsigned lo = 0x80, hi = 0xBF; // bounds of the second byte
    if (c >= 0xC2 && c <= 0xDF)
        len = 2;
    else if (c >= 0xE0 && c <= 0xEF)
        len = 3, lo = c == 0xE0 ? 0xA0 : 0x80, hi = c == 0xED ? 0x9F : 0xBF;
    else if (c >= 0xF0 && c <= 0xF4)
        len = 4, lo = c == 0xF0 ? 0x90 : 0x80, hi = c == 0xF4 ? 0x8F : 0xBF;
    else
        return 0;
    if (n < len || p[1] < lo || p[1] > hi)
        return 0;
    for (std::size_t k = 2; k < len; ++k)
        if ((p[k] & 0xC0) != 0x80)
            return 0;
    return len;
}

bool isWellFormedUtf8(const unsigned char* p, std::size_t n)
{
    for (std::size_t i = 0; i < n;) {
        if (p[i] < 0x80) {
            ++i;
            continue;
        }
        const std::size_t k = utf8Sequence(p + i, n - i);
        if (k == 0)
            return false;
        i += k;
    }
    return true;
}

// Whether converting n bytes of src between an encoding and UTF-8 (either
// way) gives the same bytes, so that no QString needs to be built: ASCII
// under an ASCII-compatible encoding, or well-formed UTF-8 under UTF-8. A
// leading byte order mark is left to Qt, which drops it, and so is
// malformed UTF-8, which Qt replaces.
bool passesUnchanged(LocaleEncoding enc, const char* src, long n)
{
    const auto* p = reinterpret_cast<const unsigned char*>(src);
    const auto len = static_cast<std::size_t>(n);
    if (enc.ascii && isAscii(p, len))
        return true;
    if (!enc.utf8 || (len >= 3 && p[0] == 0xEF && p[1] == 0xBB && p[2] == 0xBF))
        return false;
    return isWellFormedUtf8(p, len);
}

// The same under the current locale's encoding.
bool passesUnchanged(const char* src, long n)
{
    return passesUnchanged(localeEncoding(), src, n);
}

// Input length in units; a negative len means NUL-terminated, a null src
// reads as empty.
int inputLength(const char* src, long len)
{
    if (!src)
        return 0;
    if (len < 0)
        return static_cast<int>(std::strlen(src));
    return static_cast<int>(len);
}

int inputLength(const unsigned short* src, long len)
{
    if (!src)
        return 0;
    if (len < 0)
        return static_cast<int>(ustrlen(src));
    return static_cast<int>(len);
}

QString fromLoc(const char* src, long len)
{
    int n = inputLength(src, len);
    if (n == 0)
        return QString();
    return localeCodec()->toUnicode(src, n);
}

QByteArray toLoc(const QString& s)
{
    return localeCodec()->fromUnicode(s);
}

QString fromUtf8(const char* src, long len)
{
    int n = inputLength(src, len);
    if (n == 0)
        return QString();
    return QString::fromUtf8(src, n);
}

QString fromUtf16(const unsigned short* src, long len)
{
    int n = inputLength(src, len);
    if (n == 0)
        return QString();
    return QString::fromUtf16(src, n);
}

// Units of s before its first zero unit.
long unitsBeforeZero(const QString& s)
{
    const ushort* u = s.utf16();
    const int size = s.size();
    for (int i = 0; i < size; ++i)
        if (u[i] == 0)
            return i;
    return size;
}

long lengthPlusTerminator(long n)
{
    return n == 0 ? 0 : n + 1;
}

// Buffer shape of the pairs whose result is always terminated.
long toBuffer(const char* bytes, long n, char* dst, unsigned long dstLen)
{
    if (static_cast<unsigned long>(n) >= dstLen)
        throw BadBufferLength();
    std::memcpy(dst, bytes, static_cast<std::size_t>(n));
    dst[n] = '\0';
    return n;
}

template <typename T>
long toFlexBuff(const T* units, long n, FlexBuff<T>& buf)
{
    T* p = buf.makeRoom(static_cast<unsigned long>(n + 1) * sizeof(T));
    std::memcpy(p, units, static_cast<std::size_t>(n) * sizeof(T));
    p[n] = 0;
    return n;
}

char* toCopy(const QByteArray& bytes, unsigned long* outLen)
{
    const long n = bytes.size();
    char* copy = new char[static_cast<std::size_t>(n) + 1];
    std::memcpy(copy, bytes.constData(), static_cast<std::size_t>(n));
    copy[n] = '\0';
    if (outLen)
        *outLen = static_cast<unsigned long>(n);
    return copy;
}

} // namespace

// ---- loc -> UTF-8 ----------------------------------------------------------

long locToUtf8Length(const char* src, long len)
{
    qWarning("locToUtf8Length should not be called directly.");
    return lengthPlusTerminator(fromLoc(src, len).toUtf8().size());
}

long locToUtf8(const char* src, long len, char* dst, unsigned long dstLen)
{
    if (!dst)
        return locToUtf8Length(src, len);
    const int n = inputLength(src, len);
    if (passesUnchanged(src, n))
        return toBuffer(src ? src : "", n, dst, dstLen);
    const QByteArray r = fromLoc(src, len).toUtf8();
    return toBuffer(r.constData(), r.size(), dst, dstLen);
}

long locToUtf8(const char* src, long len, FlexBuff<char>& buf)
{
    const int n = inputLength(src, len);
    if (passesUnchanged(src, n))
        return toFlexBuff(src ? src : "", n, buf);
    const QByteArray r = fromLoc(src, len).toUtf8();
    return toFlexBuff(r.constData(), r.size(), buf);
}

char* locToUtf8Copy(const char* src, long len, unsigned long* outLen)
{
    if (!src)
        return nullptr;
    return toCopy(fromLoc(src, len).toUtf8(), outLen);
}

// ---- UTF-8 -> loc ----------------------------------------------------------

bool utf8ToLocUnchanged(const char* src, long len)
{
    return passesUnchanged(src, inputLength(src, len));
}

void Utf8PassThrough::refresh()
{
    const LocaleEncoding enc = localeEncoding();
    utf8_ = enc.utf8;
    ascii_ = enc.ascii;
}

bool Utf8PassThrough::keepsOtherwise(const char* src, long len) const
{
    return passesUnchanged(LocaleEncoding{utf8_, ascii_}, src, inputLength(src, len));
}

long utf8ToLocLength(const char* src, long len)
{
    qWarning("utf8ToLocLength should not be called directly.");
    return lengthPlusTerminator(toLoc(fromUtf8(src, len)).size());
}

long utf8ToLoc(const char* src, long len, char* dst, unsigned long dstLen)
{
    if (!dst)
        return utf8ToLocLength(src, len);
    const int n = inputLength(src, len);
    if (passesUnchanged(src, n))
        return toBuffer(src ? src : "", n, dst, dstLen);
    const QByteArray r = toLoc(fromUtf8(src, len));
    return toBuffer(r.constData(), r.size(), dst, dstLen);
}

long utf8ToLoc(const char* src, long len, FlexBuff<char>& buf)
{
    const int n = inputLength(src, len);
    if (passesUnchanged(src, n))
        return toFlexBuff(src ? src : "", n, buf);
    const QByteArray r = toLoc(fromUtf8(src, len));
    return toFlexBuff(r.constData(), r.size(), buf);
}

char* utf8ToLocCopy(const char* src, long len, unsigned long* outLen)
{
    if (!src)
        return nullptr;
    return toCopy(toLoc(fromUtf8(src, len)), outLen);
}

// ---- loc -> UTF-16 ---------------------------------------------------------

long locToUtf16Length(const char* src, long len)
{
    qWarning("locToUtf16Length should not be called directly.");
    if (len == 0)
        return 0;
    // No room for a terminator: the buffer shape writes none for a
    // counted input.
    return fromLoc(src, len).size();
}

long locToUtf16(const char* src, long len, unsigned short* dst, unsigned long dstLen)
{
    if (!dst)
        return locToUtf16Length(src, len);
    if (len == 0)
        return 0;
    const QString s = fromLoc(src, len);
    const long n = s.size();
    // The terminator is copied only when the input carried one.
    const long k = len < 0 ? n + 1 : n;
    if (static_cast<unsigned long>(k) > dstLen)
        throw BadBufferLength();
    std::memcpy(dst, s.utf16(), static_cast<std::size_t>(k) * sizeof(unsigned short));
    return n;
}

long locToUtf16(const char* src, long len, FlexBuff<unsigned short>& buf)
{
    if (len == 0)
        return 0;
    const QString s = fromLoc(src, len);
    return toFlexBuff<unsigned short>(s.utf16(), s.size(), buf);
}

// ---- UTF-16 -> loc ---------------------------------------------------------

long utf16ToLocLength(const unsigned short* src, long len)
{
    qWarning("utf16ToLocLength should not be called directly.");
    if (len == 0)
        return 0;
    return lengthPlusTerminator(toLoc(fromUtf16(src, len)).size());
}

long utf16ToLoc(const unsigned short* src, long len, char* dst, unsigned long dstLen)
{
    if (!dst)
        return utf16ToLocLength(src, len);
    if (len == 0)
        return 0;
    const int units = inputLength(src, len);
    const QByteArray r =
        units == 0 ? QByteArray()
                   : localeCodec()->fromUnicode(reinterpret_cast<const QChar*>(src), units);
    const long n = r.size();
    const long k = len < 0 ? n + 1 : n;
    if (static_cast<unsigned long>(k) > dstLen)
        throw BadBufferLength();
    // constData() of a QByteArray is always terminated, so k = n + 1 copies
    // the terminator as well.
    std::memcpy(dst, r.constData(), static_cast<std::size_t>(k));
    return n;
}

// ---- UTF-8 -> UTF-16 -------------------------------------------------------

long utf8ToUtf16Length(const char* src, long len)
{
    qWarning("utf8ToUtf16Length should not be called directly.");
    return unitsBeforeZero(fromUtf8(src, len)) + 1;
}

long utf8ToUtf16(const char* src, long len, unsigned short* dst, unsigned long dstLen)
{
    if (!dst)
        return utf8ToUtf16Length(src, len);
    const QString s = fromUtf8(src, len);
    const long n = unitsBeforeZero(s);
    if (static_cast<unsigned long>(n) >= dstLen)
        throw BadBufferLength();
    std::memcpy(dst, s.utf16(), static_cast<std::size_t>(n) * sizeof(unsigned short));
    dst[n] = 0;
    return n;
}

long utf8ToUtf16(const char* src, long len, FlexBuff<unsigned short>& buf)
{
    const QString s = fromUtf8(src, len);
    return toFlexBuff<unsigned short>(s.utf16(), unitsBeforeZero(s), buf);
}

// ---- UTF-16 -> UTF-8 -------------------------------------------------------

long utf16ToUtf8Length(const unsigned short* src, long len)
{
    qWarning("utf16ToUtf8Length should not be called directly.");
    return lengthPlusTerminator(fromUtf16(src, len).toUtf8().size());
}

long utf16ToUtf8(const unsigned short* src, long len, char* dst, unsigned long dstLen)
{
    if (!dst)
        return utf16ToUtf8Length(src, len);
    const QByteArray r = fromUtf16(src, len).toUtf8();
    return toBuffer(r.constData(), r.size(), dst, dstLen);
}

long utf16ToUtf8(const unsigned short* src, long len, FlexBuff<char>& buf)
{
    const QByteArray r = fromUtf16(src, len).toUtf8();
    return toFlexBuff(r.constData(), r.size(), buf);
}

// ---- 16-bit strings --------------------------------------------------------

unsigned long ustrlen(const unsigned short* s)
{
    const unsigned short* p = s;
    while (*p)
        ++p;
    return static_cast<unsigned long>(p - s);
}

unsigned short* ustrcpy(unsigned short* dst, const unsigned short* src)
{
    unsigned short* d = dst;
    while ((*d++ = *src++) != 0) {
    }
    return dst;
}

unsigned short* ustrncpy(unsigned short* dst, const unsigned short* src, unsigned long n)
{
    // Unlike strncpy this never pads the rest of dst with zeros.
    for (unsigned long i = 0; i < n; ++i) {
        dst[i] = src[i];
        if (src[i] == 0)
            break;
    }
    return dst;
}

unsigned short* ustrcat(unsigned short* dst, const unsigned short* src)
{
    ustrcpy(dst + ustrlen(dst), src);
    return dst;
}

int ustrncmp(const unsigned short* a, const unsigned short* b, unsigned long n)
{
    for (unsigned long i = 0; i < n; ++i) {
        const unsigned short x = a[i];
        const unsigned short y = b[i];
        if (x == 0 || y == 0) {
            if (x == y)
                return 0;
            return x == 0 ? -1 : 1;
        }
        if (x != y)
            return static_cast<int>(x) - static_cast<int>(y);
    }
    return 0;
}

int ustrcmp(const unsigned short* a, const unsigned short* b)
{
    return ustrncmp(a, b, static_cast<unsigned long>(-1));
}

unsigned short* ustrchr(const unsigned short* s, unsigned short c)
{
    if (c == 0)
        return nullptr;
    for (; *s; ++s)
        if (*s == c)
            return const_cast<unsigned short*>(s);
    return nullptr;
}

unsigned short* ustrrchr(const unsigned short* s, unsigned short c)
{
    if (c == 0)
        return nullptr;
    const unsigned short* last = nullptr;
    for (; *s; ++s)
        if (*s == c)
            last = s;
    return const_cast<unsigned short*>(last);
}

unsigned short* ustrdup(const unsigned short* s)
{
    const std::size_t bytes = (ustrlen(s) + 1) * sizeof(unsigned short);
    void* p = std::malloc(bytes);
    if (!p)
        return nullptr;
    std::memcpy(p, s, bytes);
    return static_cast<unsigned short*>(p);
}

// An empty sub matches at the start of a non-empty s, as with strstr; an
// empty s never matches, not even an empty sub.
unsigned short* ustrstr(const unsigned short* s, const unsigned short* sub)
{
    if (*s == 0)
        return nullptr;
    if (*sub == 0)
        return const_cast<unsigned short*>(s);
    for (; *s; ++s) {
        const unsigned short* a = s;
        const unsigned short* b = sub;
        while (*a && *a == *b) {
            ++a;
            ++b;
        }
        if (*b == 0)
            return const_cast<unsigned short*>(s);
        if (*a == 0)
            return nullptr; // the rest of s is shorter than sub
    }
    return nullptr;
}

} // namespace Tut
