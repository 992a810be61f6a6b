// Text conversions under UTF-8, Latin-1 and C locales, FlexBuff storage and
// the 16-bit string helpers. Every case runs in its own process and sets the
// locale it needs.
#include "support/Tut.h"

#include <gtest/gtest.h>

#include <QString>
#include <QTextCodec>
#include <QtGlobal>

#include <clocale>
#include <cstring>
#include <string>
#include <vector>

#ifdef __SANITIZE_ADDRESS__
// The failed-allocation case needs a null back from an impossible malloc.
extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}
#endif

using namespace Tut;

namespace {

const char* const U8 = "en_US.UTF-8";
const char* const L1 = "en_US.ISO-8859-1";
const char kHello[] = "h\xc3\xa9llo"; // 6 bytes, 5 characters
const std::string kHello0(kHello, 7); // with its terminator
const unsigned short kWide[] = {'h', 0xe9, 'l', 'l', 'o', 0};
const unsigned short kEuro[] = {'h', 0xe9, 0x20ac, 0}; // 1 + 2 + 3 UTF-8 bytes

template <typename T>
std::string raw(const T* p, long units)
{
    return std::string(reinterpret_cast<const char*>(p), units * sizeof(T));
}
std::string raw16(std::initializer_list<unsigned short> u)
{
    return raw(u.begin(), u.size());
}
// A copy-shape result as a string, freed.
std::string copied(char* p)
{
    std::string s = p ? p : "(null)";
    delete[] p;
    return s;
}

std::vector<std::string> gWarnings;

// Starts in a UTF-8 locale with QtCore warnings captured; a case must consume
// every warning it causes, so all other conversions are shown to be silent.
class TutTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(use(U8));
        previous_ = qInstallMessageHandler(
            [](QtMsgType type, const QMessageLogContext&, const QString& msg) {
                if (type == QtWarningMsg)
                    gWarnings.push_back(msg.toStdString());
            });
    }
    void TearDown() override
    {
        qInstallMessageHandler(previous_);
        EXPECT_TRUE(gWarnings.empty()) << gWarnings.front();
    }
    static bool use(const char* locale) { return std::setlocale(LC_ALL, locale) != nullptr; }
    QtMessageHandler previous_ = nullptr;
    // Result of a FlexBuff conversion, terminator included.
    FlexBuff<char> c;
    FlexBuff<unsigned short> w;
    std::string C(long n) { return raw(c.data(), n + 1); }
    std::string W(long n) { return raw(w.data(), n + 1); }
    template <typename T>
    static std::string shape(const FlexBuff<T>& b)
    {
        return (b.data() ? b.isInline() ? "inline " : "heap " : "none ") +
               std::to_string(b.capacity());
    }
};

#define C8(call) \
#call, [](void* d, unsigned long n) -> long { char* dst = static_cast<char*>(d); return call; }
#define C16(call) \
#call, [](void* d, unsigned long n) -> long { auto* dst = static_cast<unsigned short*>(d); return call; }

// A buffer one unit short of the result throws before writing anything; the
// exact size works and nothing is written after the result.
TEST_F(TutTest, EveryBufferShapeNeedsRoomForTheWholeResult)
{
    // need counts units, the terminator included when one is written.
    struct {
        const char *locale, *call;
        long (*conv)(void*, unsigned long);
        unsigned long need;
        long result;
        std::string out;
    } cases[] = {
        {U8, C8(utf8ToLoc(kHello, 6, dst, n)), 7, 6, kHello0},
        {U8, C8(locToUtf8(kHello, -1, dst, n)), 7, 6, kHello0},
        {U8, C8(utf16ToUtf8(kEuro, 3, dst, n)), 7, 6, std::string("h\xc3\xa9\xe2\x82\xac", 7)},
        {U8, C16(utf8ToUtf16(kHello, 6, dst, n)), 6, 5, raw(kWide, 6)},
        {U8, C16(locToUtf16(kHello, 6, dst, n)), 5, 5, raw(kWide, 5)}, // counted: no terminator
        {U8, C16(locToUtf16(kHello, -1, dst, n)), 6, 5, raw(kWide, 6)},
        {U8, C8(utf16ToLoc(kWide, 5, dst, n)), 6, 6, kHello},
        {U8, C8(utf16ToLoc(kWide, -1, dst, n)), 7, 6, kHello0},
        {U8, C8(utf8ToLoc("abc", 0, dst, n)), 1, 0, std::string(1, '\0')},
        {U8, C16(locToUtf16("abc", 0, dst, n)), 0, 0, ""},
        {U8, C8(utf16ToLoc(kWide + 5, -1, dst, n)), 1, 0, std::string(1, '\0')},
        {U8, C16(locToUtf16("", -1, dst, n)), 1, 0, raw16({0})},
        {L1, C8(locToUtf8("\xe9\xe9", 2, dst, n)), 5, 4, "\xc3\xa9\xc3\xa9" + std::string(1, '\0')},
        {L1, C8(utf8ToLoc("\xc3\xa9\xc3\xa9", 4, dst, n)), 3, 2, std::string("\xe9\xe9", 3)},
        {L1, C16(locToUtf16("\xe9z", -1, dst, n)), 3, 2, raw16({0xe9, 'z', 0})},
        {L1, C8(utf16ToLoc(kEuro + 1, -1, dst, n)), 3, 2,
         std::string("\xe9?", 3)}, // no euro in Latin-1
    };
    for (auto& k : cases) {
        SCOPED_TRACE(std::string(k.locale) + ": " + k.call);
        ASSERT_TRUE(use(k.locale));
        unsigned short buf[16];
        std::memset(buf, 0x77, sizeof buf);
        if (k.need > 0) {
            EXPECT_THROW(k.conv(buf, k.need - 1), BadBufferLength);
            EXPECT_EQ(raw(buf, 16), std::string(32, '\x77'));
        }
        EXPECT_EQ(k.conv(buf, k.need), k.result);
        EXPECT_EQ(raw(buf, 16).substr(0, k.out.size() + 1), k.out + '\x77');
    }
}

#define L(call) #call, []() -> long { return call; }

// The length functions, and the buffer shapes given a null buffer, warn; byte
// results count a terminator unless empty.
TEST_F(TutTest, LengthsWarnThatTheyShouldNotBeCalled)
{
    struct {
        const char *locale, *call;
        long (*fn)();
        long expected;
        const char* warner;
    } cases[] = {
        {U8, L(utf8ToLoc(kHello, 6, nullptr, 0)), 7, "utf8ToLocLength"},
        {U8, L(locToUtf8(kHello, 6, nullptr, 100)), 7, "locToUtf8Length"},
        {U8, L(locToUtf8Length("", -1)), 0, "locToUtf8Length"},
        {U8, L(utf16ToUtf8(kEuro, 3, nullptr, 0)), 7, "utf16ToUtf8Length"},
        {U8, L(utf16ToLoc(kEuro, -1, nullptr, 0)), 7, "utf16ToLocLength"},
        {U8, L(utf16ToLocLength(kEuro, 0)), 0, "utf16ToLocLength"},
        {U8, L(locToUtf16(kHello, -1, nullptr, 0)), 5, "locToUtf16Length"}, // no terminator
        {U8, L(utf8ToUtf16(kHello, 6, nullptr, 0)), 6, "utf8ToUtf16Length"},
        {U8, L(utf8ToUtf16Length("a\0b", 3)), 2, "utf8ToUtf16Length"}, // up to the zero, plus one
        {U8, L(utf8ToUtf16Length("", 0)), 1, "utf8ToUtf16Length"},
        {L1, L(utf8ToLocLength("\xc3\xa9\xc3\xa9", -1)), 3, "utf8ToLocLength"},
        {L1, L(locToUtf8Length("\xe9\xe9", -1)), 5, "locToUtf8Length"},
        {L1, L(utf16ToLoc(kEuro + 1, -1, nullptr, 0)), 3, "utf16ToLocLength"},
    };
    for (auto& k : cases) {
        SCOPED_TRACE(std::string(k.locale) + ": " + k.call);
        ASSERT_TRUE(use(k.locale));
        EXPECT_EQ(k.fn(), k.expected);
        ASSERT_EQ(gWarnings.size(), 1u);
        EXPECT_EQ(gWarnings[0], std::string(k.warner) + " should not be called directly.");
        gWarnings.clear();
    }
}

TEST_F(TutTest, FlexBuffAndCopyShapesStopAtTerminatorOrZeroUnit)
{
    const char src[] = "h\xc3\xa9llo\0tail";
    const unsigned short wide[] = {'h', 0xe9, 'l', 'l', 'o', 0, 'x', 0};
    EXPECT_EQ(C(utf16ToUtf8(wide, -1, c)), kHello0);
    EXPECT_EQ(W(utf8ToUtf16(src, -1, w)), raw(kWide, 6));
    // A counted input may hold zero bytes; only utf8ToUtf16 stops at the first.
    EXPECT_EQ(C(utf8ToLoc("a\0b", 3, c)), std::string("a\0b\0", 4));
    EXPECT_EQ(W(utf8ToUtf16("a\0b", 3, w)), raw16({'a', 0}));
    // An empty counted input to locToUtf16 leaves the buffer alone; anything
    // else stores at least a terminator.
    EXPECT_EQ(locToUtf16("z", 0, w), 0);
    EXPECT_EQ(W(1), raw16({'a', 0}));
    EXPECT_EQ(W(locToUtf16("", -1, w)), raw16({0}));
    EXPECT_EQ(C(utf8ToLoc("abc", 0, c)), std::string(1, '\0'));

    unsigned long n = 99;
    EXPECT_EQ(utf8ToLocCopy(nullptr, 3, &n), nullptr);
    EXPECT_EQ(locToUtf8Copy(nullptr, -1, &n), nullptr);
    EXPECT_EQ(n, 99u);
    EXPECT_EQ(copied(utf8ToLocCopy(src, -1, &n)), kHello);
    EXPECT_EQ(n, 6u);
    EXPECT_EQ(copied(locToUtf8Copy("abc", 0, &n)), "");
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(copied(locToUtf8Copy(kHello, 3, nullptr)), "h\xc3\xa9");
}

// The locale is read at each call: e-acute is E9 under Latin-1 and in the C
// locale (read as Latin-1 so that 8-bit text survives), C3 A9 under UTF-8.
TEST_F(TutTest, FollowsTheCurrentLocale)
{
    for (const char* locale : {U8, L1, "C", "C.UTF-8", L1, U8}) {
        SCOPED_TRACE(locale);
        ASSERT_TRUE(use(locale));
        const std::string e = std::strstr(locale, "UTF-8") ? "\xc3\xa9" : "\xe9";
        EXPECT_EQ(C(locToUtf8(e.c_str(), -1, c)), std::string("\xc3\xa9", 3));
        EXPECT_EQ(C(utf8ToLoc("\xc3\xa9", -1, c)), e + '\0');
        EXPECT_EQ(W(locToUtf16(e.c_str(), -1, w)), raw16({0xe9, 0}));
        char loc[4] = {};
        EXPECT_EQ(utf16ToLoc(kWide + 1, 1, loc, sizeof loc), static_cast<long>(e.size()));
        EXPECT_EQ(loc, e);
    }
}

TEST_F(TutTest, Utf8LocaleTextPassesThroughAndBadInputIsReplaced)
{
    const std::string text =
        "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"; // the last needs a surrogate pair
    EXPECT_EQ(C(locToUtf8(text.c_str(), -1, c)), text + '\0');
    EXPECT_EQ(C(utf8ToLoc(text.c_str(), -1, c)), text + '\0');
    EXPECT_EQ(W(locToUtf16(text.c_str(), -1, w)),
              raw16({'c', 'a', 'f', 0xe9, ' ', 0x20ac, ' ', 0xd83d, 0xde00, 0}));
    char loc[32];
    EXPECT_EQ(utf16ToLoc(w.data(), -1, loc, sizeof loc), static_cast<long>(text.size()));
    EXPECT_EQ(loc, text);
    EXPECT_EQ(C(utf16ToUtf8(w.data(), 9, c)), text + '\0');
    EXPECT_EQ(C(locToUtf8("a\xff", 2, c)), std::string("a\xef\xbf\xbd", 5));
    EXPECT_EQ(C(utf8ToLoc("\xc3", 1, c)), std::string("\xef\xbf\xbd", 4)); // cut-off sequence
}

// Text that converts to itself skips Qt; the results must be Qt's exactly,
// also for the sequences next to that way: malformed, overlong, surrogate,
// beyond U+10FFFF, cut off, a byte order mark (which Qt drops at the start),
// noncharacters, embedded NULs and a high byte after a run of ASCII words.
TEST_F(TutTest, ShortWayForUnchangedTextGivesQtsResults)
{
    const std::string inputs[] = {"plain ascii, longer than one word",
                                  std::string("a\0b", 3),
                                  "caf\xc3\xa9",
                                  "\xf0\x9f\x98\x80",
                                  "\xc0\x80",
                                  "\xe0\x80\x80",
                                  "\xed\xa0\x80",
                                  "\xf4\x90\x80\x80",
                                  "\xf5\x80\x80\x80",
                                  "\xc3",
                                  "\xe2\x82",
                                  "\xef\xbb\xbf"
                                  "a",
                                  "a\xef\xbb\xbf",
                                  "\xef\xbf\xbe",
                                  "\xef\xb7\x90",
                                  "\xf4\x8f\xbf\xbf",
                                  "12345678\xe9",
                                  "\x80",
                                  "\xff"};
    for (const char* locale : {U8, L1, "C"}) {
        ASSERT_TRUE(use(locale));
        locToUtf8("\xff", 1, c); // the long way installs the locale's codec for Qt
        QTextCodec* codec = QTextCodec::codecForLocale();
        for (const std::string& in : inputs) {
            SCOPED_TRACE(std::string(locale) + " " + in);
            const int n = static_cast<int>(in.size());
            const QByteArray toLoc = codec->fromUnicode(QString::fromUtf8(in.data(), n));
            const QByteArray toUtf8 = codec->toUnicode(in.data(), n).toUtf8();
            EXPECT_EQ(C(utf8ToLoc(in.data(), n, c)), toLoc.toStdString() + '\0');
            if (utf8ToLocUnchanged(in.data(), n)) {
                EXPECT_EQ(toLoc.toStdString(), in);
            }
            EXPECT_EQ(C(locToUtf8(in.data(), n, c)), toUtf8.toStdString() + '\0');
            char buf[64];
            EXPECT_EQ(utf8ToLoc(in.data(), n, buf, sizeof buf), toLoc.size());
            EXPECT_EQ(std::string(buf, toLoc.size() + 1), toLoc.toStdString() + '\0');
        }
        EXPECT_TRUE(utf8ToLocUnchanged(inputs[0].c_str(), -1));
        EXPECT_EQ(utf8ToLocUnchanged("caf\xc3\xa9", -1), locale == U8);
    }
}

TEST_F(TutTest, Latin1RoundTripsEveryByte)
{
    ASSERT_TRUE(use(L1));
    std::string all;
    for (int i = 1; i < 256; ++i)
        all += static_cast<char>(i);
    const long n = locToUtf8(all.c_str(), -1, c);
    EXPECT_EQ(n, 127 + 2 * 128);
    FlexBuff<char> back;
    EXPECT_EQ(utf8ToLoc(c.data(), n, back), 255);
    EXPECT_EQ(raw(back.data(), 256), all + '\0');
    EXPECT_TRUE(back.isInline()); // 383 bytes in, 255 out: sized by the result
}

// Results of up to 255 units stay inline; larger ones get a block of exactly
// their size, kept for smaller results and replaced for larger ones. A
// failed allocation leaves no storage and a usable buffer.
TEST_F(TutTest, FlexBuffStorage)
{
    std::string twoByte;
    for (int i = 0; i < 128; ++i)
        twoByte += "\xc3\xa9";
    const std::vector<unsigned short> wide(128, 0xe9);
    EXPECT_EQ(shape(c), "none 0");
    EXPECT_EQ(C(utf8ToLoc(std::string(255, 'a').c_str(), 255, c)), std::string(255, 'a') + '\0');
    EXPECT_EQ(shape(c), "inline 256");
    EXPECT_EQ(C(utf16ToUtf8(wide.data(), 128, c)), twoByte + '\0'); // 128 units in, 256 bytes out
    EXPECT_EQ(shape(c), "heap 257");
    const char* block = c.data();
    EXPECT_EQ(C(utf8ToLoc("0123456789", 10, c)), std::string("0123456789", 11));
    EXPECT_EQ(c.data(), block);
    EXPECT_EQ(C(utf8ToLoc(std::string(300, 'c').c_str(), -1, c)), std::string(300, 'c') + '\0');
    EXPECT_EQ(shape(c), "heap 301");
    EXPECT_THROW(c.makeRoom(1UL << 62), std::bad_alloc);
    EXPECT_EQ(shape(c), "none 0");
    EXPECT_EQ(C(utf8ToLoc("xyz", 3, c)), std::string("xyz", 4));

    // Capacity counts bytes.
    EXPECT_EQ(W(utf8ToUtf16(std::string(255, 'a').c_str(), 255, w)).substr(508), raw16({'a', 0}));
    EXPECT_EQ(shape(w), "inline 512");
    EXPECT_EQ(W(locToUtf16(std::string(256, 'b').c_str(), 256, w)).substr(510), raw16({'b', 0}));
    EXPECT_EQ(shape(w), "heap 514");
    EXPECT_THROW(w.makeRoom(1UL << 62), std::bad_alloc);
    EXPECT_EQ(shape(w), "none 0");
}

TEST_F(TutTest, SixteenBitStrings)
{
    std::vector<unsigned short> d(12, 0x7777);
    const unsigned short abc[] = {'a', 'b', 'c', 0}, de[] = {'d', 'e', 0}, ab[] = {'a', 'b', 0};
    EXPECT_EQ(ustrcat(ustrcpy(d.data(), abc), de), d.data());
    EXPECT_EQ(raw(d.data(), 7), raw16({'a', 'b', 'c', 'd', 'e', 0, 0x7777}));
    EXPECT_EQ(ustrlen(d.data()), 5u);
    unsigned short* dup = ustrdup(d.data());
    EXPECT_EQ(raw(dup, 6), raw(d.data(), 6));
    free(dup);
    std::fill(d.begin(), d.end(), 0x7777);
    ustrncpy(d.data(), abc, 2); // never pads, stops after the terminator
    EXPECT_EQ(ustrncpy(d.data() + 4, de, 6), d.data() + 4);
    EXPECT_EQ(raw(d.data(), 8), raw16({'a', 'b', 0x7777, 0x7777, 'd', 'e', 0, 0x7777}));

    // Differences are unit differences; a shorter string sorts first.
    const unsigned short ad[] = {'a', 'd', 0}, hi[] = {'a', 0xffff, 0}, lo[] = {'a', 1, 0};
    const int cmp[] = {ustrcmp(ab, abc),     ustrcmp(abc, ab),    ustrcmp(abc, abc),
                       ustrcmp(ad, abc),     ustrcmp(hi, lo),     ustrncmp(ab, abc, 2),
                       ustrncmp(ab, abc, 3), ustrncmp(ab, ab, 50)};
    EXPECT_EQ(std::vector<int>(cmp, cmp + 8),
              (std::vector<int>{-1, 1, 0, 'd' - 'b', 0xfffe, 0, -1, 0}));

    // Offsets into s of what the searches find, -1 for nothing.
    const unsigned short s[] = {'a', 'b', 'c', 'a', 'b', 'c', 0}, cab[] = {'c', 'a', 'b', 0},
                         bcd[] = {'b', 'c', 'd', 0};
    const unsigned short* const empty = s + 6;
    auto at = [&](const unsigned short* p) { return p ? p - s : -1L; };
    const long found[] = {at(ustrchr(s, 'b')),       at(ustrrchr(s, 'b')),   at(ustrchr(s, 'z')),
                          at(ustrchr(s, 0)),         at(ustrrchr(s, 0)),     at(ustrstr(s, cab)),
                          at(ustrstr(s, bcd)),       at(ustrstr(s + 2, ab)), at(ustrstr(s, empty)),
                          at(ustrstr(empty, empty)), at(ustrstr(empty, ab))};
    EXPECT_EQ(std::vector<long>(found, found + 11),
              (std::vector<long>{1, 4, -1, -1, -1, 2, -1, 3, 0, -1, -1}));
    const unsigned short aab[] = {'a', 'a', 'b', 0};
    EXPECT_EQ(ustrstr(aab, ab), aab + 1); // after a partial match, from the next unit
}

} // namespace
