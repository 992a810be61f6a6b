// Conversions under a UTF-8 locale (the executable runs with
// LC_ALL=en_US.UTF-8), FlexBuff storage rules and the 16-bit string helpers.
#include "support/Tut.h"
#include "support/TutTestUtil.h"

#include <clocale>
#include <cstring>
#include <string>
#include <vector>

#ifdef __SANITIZE_ADDRESS__
// The failed-allocation case asks malloc for an impossible size and needs a
// null back instead of a sanitizer abort.
extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}
#endif

using namespace Tut;
using tuttest::bytes;

namespace {

using U16 = std::vector<unsigned short>;

// A terminated 16-bit string.
U16 u16(const char16_t* s)
{
    U16 v;
    for (; *s; ++s)
        v.push_back(static_cast<unsigned short>(*s));
    v.push_back(0);
    return v;
}

class TutUtf8 : public tuttest::TutTest {};
using TutStrings = TutUtf8;
using TutFlexBuff = TutUtf8;

const char kHello[] = "h\xc3\xa9llo"; // "héllo": 6 bytes, 5 characters

// ---- buffer too small --------------------------------------------------------

TEST_F(TutUtf8, Utf8ToLocBufferMustHoldTerminator)
{
    char dst[8];
    std::memset(dst, 'x', sizeof dst);
    EXPECT_THROW(utf8ToLoc(kHello, 6, dst, 6), BadBufferLength);
    EXPECT_EQ(bytes(dst, 8), std::string(8, 'x')); // nothing written
    EXPECT_EQ(utf8ToLoc(kHello, 6, dst, 7), 6);
    EXPECT_STREQ(dst, kHello);
}

TEST_F(TutUtf8, LocToUtf8BufferMustHoldTerminator)
{
    char dst[8];
    std::memset(dst, 'x', sizeof dst);
    EXPECT_THROW(locToUtf8(kHello, -1, dst, 6), BadBufferLength);
    EXPECT_EQ(bytes(dst, 8), std::string(8, 'x'));
    EXPECT_EQ(locToUtf8(kHello, -1, dst, 7), 6);
    EXPECT_STREQ(dst, kHello);
}

TEST_F(TutUtf8, Utf16ToUtf8BufferMustHoldTerminator)
{
    const U16 src = u16(u"h\u00e9\u20ac"); // 1 + 2 + 3 UTF-8 bytes
    char dst[8];
    std::memset(dst, 'x', sizeof dst);
    EXPECT_THROW(utf16ToUtf8(src.data(), 3, dst, 6), BadBufferLength);
    EXPECT_EQ(bytes(dst, 8), std::string(8, 'x'));
    EXPECT_EQ(utf16ToUtf8(src.data(), 3, dst, 7), 6);
    EXPECT_STREQ(dst, "h\xc3\xa9\xe2\x82\xac");
}

TEST_F(TutUtf8, Utf8ToUtf16BufferMustHoldTerminator)
{
    unsigned short dst[8];
    std::fill(dst, dst + 8, 0x7777);
    EXPECT_THROW(utf8ToUtf16(kHello, 6, dst, 5), BadBufferLength);
    for (unsigned short u : dst)
        EXPECT_EQ(u, 0x7777);
    EXPECT_EQ(utf8ToUtf16(kHello, 6, dst, 6), 5);
    EXPECT_EQ(U16(dst, dst + 6), u16(u"h\u00e9llo"));
}

TEST_F(TutUtf8, LocToUtf16TerminatesOnlyTerminatedInput)
{
    unsigned short dst[8];
    std::fill(dst, dst + 8, 0x7777);
    // Counted input: exactly n units fit and no terminator is written.
    EXPECT_EQ(locToUtf16(kHello, 6, dst, 5), 5);
    EXPECT_EQ(U16(dst, dst + 5), U16({'h', 0xe9, 'l', 'l', 'o'}));
    EXPECT_EQ(dst[5], 0x7777);
    EXPECT_THROW(locToUtf16(kHello, 6, dst, 4), BadBufferLength);

    // Terminated input: the terminator is copied, so n units are too few.
    std::fill(dst, dst + 8, 0x7777);
    EXPECT_THROW(locToUtf16(kHello, -1, dst, 5), BadBufferLength);
    EXPECT_EQ(dst[0], 0x7777);
    EXPECT_EQ(locToUtf16(kHello, -1, dst, 6), 5);
    EXPECT_EQ(U16(dst, dst + 6), u16(u"h\u00e9llo"));
    EXPECT_EQ(dst[6], 0x7777);
}

TEST_F(TutUtf8, Utf16ToLocTerminatesOnlyTerminatedInput)
{
    const U16 src = u16(u"h\u00e9llo");
    char dst[8];
    std::memset(dst, 'x', sizeof dst);
    EXPECT_EQ(utf16ToLoc(src.data(), 5, dst, 6), 6);
    EXPECT_EQ(bytes(dst, 7), std::string(kHello) + "x");
    EXPECT_THROW(utf16ToLoc(src.data(), 5, dst, 5), BadBufferLength);

    std::memset(dst, 'x', sizeof dst);
    EXPECT_THROW(utf16ToLoc(src.data(), -1, dst, 6), BadBufferLength);
    EXPECT_EQ(dst[0], 'x');
    EXPECT_EQ(utf16ToLoc(src.data(), -1, dst, 7), 6);
    EXPECT_EQ(bytes(dst, 8), std::string(kHello, 7) + "x");
}

// ---- empty and NUL-terminated input -----------------------------------------

TEST_F(TutUtf8, EmptyInputToBuffers)
{
    char dst[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(utf8ToLoc("abc", 0, dst, 1), 0);
    EXPECT_EQ(dst[0], '\0');
    EXPECT_THROW(utf8ToLoc("abc", 0, dst, 0), BadBufferLength);
    EXPECT_EQ(locToUtf8("", -1, dst, 1), 0);
    EXPECT_EQ(dst[0], '\0');

    // The pairs that terminate only terminated input write nothing for len 0.
    unsigned short udst[2] = {0x7777, 0x7777};
    EXPECT_EQ(locToUtf16("abc", 0, udst, 0), 0);
    EXPECT_EQ(udst[0], 0x7777);
    const U16 src = u16(u"abc");
    dst[0] = 'x';
    EXPECT_EQ(utf16ToLoc(src.data(), 0, dst, 0), 0);
    EXPECT_EQ(dst[0], 'x');
    // An empty terminated input still gets its terminator.
    const U16 empty = u16(u"");
    EXPECT_EQ(utf16ToLoc(empty.data(), -1, dst, 1), 0);
    EXPECT_EQ(dst[0], '\0');
    EXPECT_EQ(locToUtf16("", -1, udst, 1), 0);
    EXPECT_EQ(udst[0], 0);
    EXPECT_TRUE(tuttest::warnings().empty());
}

TEST_F(TutUtf8, EmptyInputToFlexBuffs)
{
    FlexBuff<char> cb;
    EXPECT_EQ(utf8ToLoc("abc", 0, cb), 0);
    ASSERT_NE(cb.data(), nullptr);
    EXPECT_EQ(cb.data()[0], '\0');
    EXPECT_TRUE(cb.isInline());

    // locToUtf16 with len 0 leaves the buffer alone, even a used one.
    FlexBuff<unsigned short> ub;
    EXPECT_EQ(locToUtf16("abc", 0, ub), 0);
    EXPECT_EQ(ub.data(), nullptr);
    EXPECT_EQ(ub.capacity(), 0u);
    EXPECT_EQ(locToUtf16("ab", 2, ub), 2);
    EXPECT_EQ(locToUtf16("z", 0, ub), 0);
    EXPECT_EQ(U16(ub.data(), ub.data() + 3), U16({'a', 'b', 0}));

    // An empty terminated input is not len 0: it stores a lone terminator.
    EXPECT_EQ(locToUtf16("", -1, ub), 0);
    EXPECT_EQ(ub.data()[0], 0);
    EXPECT_EQ(utf8ToUtf16("", 0, ub), 0);
    EXPECT_EQ(ub.data()[0], 0);
}

TEST_F(TutUtf8, NegativeLengthReadsUpToTerminator)
{
    const char src[] = "h\xc3\xa9llo\0tail";
    FlexBuff<char> cb;
    EXPECT_EQ(utf8ToLoc(src, -1, cb), 6);
    EXPECT_STREQ(cb.data(), kHello);
    EXPECT_EQ(locToUtf8(src, -1, cb), 6);
    EXPECT_STREQ(cb.data(), kHello);

    FlexBuff<unsigned short> ub;
    EXPECT_EQ(utf8ToUtf16(src, -1, ub), 5);
    EXPECT_EQ(U16(ub.data(), ub.data() + 6), u16(u"h\u00e9llo"));
    EXPECT_EQ(locToUtf16(src, -1, ub), 5);
    EXPECT_EQ(U16(ub.data(), ub.data() + 6), u16(u"h\u00e9llo"));

    U16 wide = u16(u"h\u00e9llo");
    wide.insert(wide.end(), {'x', 'y', 0});
    EXPECT_EQ(utf16ToUtf8(wide.data(), -1, cb), 6);
    EXPECT_STREQ(cb.data(), kHello);
    char dst[16];
    EXPECT_EQ(utf16ToLoc(wide.data(), -1, dst, sizeof dst), 6);
    EXPECT_STREQ(dst, kHello);
}

// A counted input may hold zero bytes; only utf8ToUtf16 stops at the first.
TEST_F(TutUtf8, EmbeddedZeroUnits)
{
    unsigned short dst[4];
    std::fill(dst, dst + 4, 0x7777);
    EXPECT_EQ(utf8ToUtf16("a\0b", 3, dst, 4), 1);
    EXPECT_EQ(dst[0], 'a');
    EXPECT_EQ(dst[1], 0);
    EXPECT_EQ(dst[2], 0x7777);
    FlexBuff<unsigned short> ub;
    EXPECT_EQ(utf8ToUtf16("a\0b", 3, ub), 1);
    EXPECT_EQ(ub.data()[1], 0);

    FlexBuff<char> cb;
    EXPECT_EQ(utf8ToLoc("a\0b", 3, cb), 3);
    EXPECT_EQ(bytes(cb.data(), 4), std::string("a\0b\0", 4));
}

// ---- copy shape --------------------------------------------------------------

TEST_F(TutUtf8, CopyShape)
{
    unsigned long n = 99;
    EXPECT_EQ(utf8ToLocCopy(nullptr, 3, &n), nullptr);
    EXPECT_EQ(locToUtf8Copy(nullptr, -1, &n), nullptr);
    EXPECT_EQ(n, 99u);

    char* c = utf8ToLocCopy(kHello, -1, &n);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(n, 6u);
    EXPECT_STREQ(c, kHello);
    delete[] c;

    c = locToUtf8Copy(kHello, 3, nullptr);
    ASSERT_NE(c, nullptr);
    EXPECT_STREQ(c, "h\xc3\xa9");
    delete[] c;

    c = utf8ToLocCopy("abc", 0, &n);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(n, 0u);
    EXPECT_STREQ(c, "");
    delete[] c;
}

// ---- length functions and their warnings ------------------------------------

TEST_F(TutUtf8, ByteResultLengthsCountTerminator)
{
    EXPECT_EQ(utf8ToLocLength(kHello, -1), 7);
    expectOneWarning("utf8ToLocLength should not be called directly.");
    EXPECT_EQ(utf8ToLocLength(kHello, 0), 0);
    expectOneWarning("utf8ToLocLength should not be called directly.");

    EXPECT_EQ(locToUtf8Length(kHello, 3), 4);
    expectOneWarning("locToUtf8Length should not be called directly.");
    EXPECT_EQ(locToUtf8Length("", -1), 0);
    expectOneWarning("locToUtf8Length should not be called directly.");

    const U16 src = u16(u"h\u00e9\u20ac");
    EXPECT_EQ(utf16ToUtf8Length(src.data(), -1), 7);
    expectOneWarning("utf16ToUtf8Length should not be called directly.");
    EXPECT_EQ(utf16ToUtf8Length(src.data(), 0), 0);
    expectOneWarning("utf16ToUtf8Length should not be called directly.");

    EXPECT_EQ(utf16ToLocLength(src.data(), 2), 4);
    expectOneWarning("utf16ToLocLength should not be called directly.");
    EXPECT_EQ(utf16ToLocLength(src.data(), 0), 0);
    expectOneWarning("utf16ToLocLength should not be called directly.");
}

TEST_F(TutUtf8, Utf16ResultLengths)
{
    // No room for a terminator.
    EXPECT_EQ(locToUtf16Length(kHello, -1), 5);
    expectOneWarning("locToUtf16Length should not be called directly.");
    EXPECT_EQ(locToUtf16Length(kHello, 0), 0);
    expectOneWarning("locToUtf16Length should not be called directly.");

    // Units before the first zero unit, plus one.
    EXPECT_EQ(utf8ToUtf16Length(kHello, -1), 6);
    expectOneWarning("utf8ToUtf16Length should not be called directly.");
    EXPECT_EQ(utf8ToUtf16Length("a\0b", 3), 2);
    expectOneWarning("utf8ToUtf16Length should not be called directly.");
    EXPECT_EQ(utf8ToUtf16Length("", 0), 1);
    expectOneWarning("utf8ToUtf16Length should not be called directly.");
}

TEST_F(TutUtf8, NullDestinationGivesLengthWithWarning)
{
    EXPECT_EQ(utf8ToLoc(kHello, 6, nullptr, 0), 7);
    expectOneWarning("utf8ToLocLength should not be called directly.");
    EXPECT_EQ(locToUtf8(kHello, 6, nullptr, 100), 7);
    expectOneWarning("locToUtf8Length should not be called directly.");

    const U16 src = u16(u"h\u00e9\u20ac");
    EXPECT_EQ(utf16ToUtf8(src.data(), 3, nullptr, 0), 7);
    expectOneWarning("utf16ToUtf8Length should not be called directly.");
    EXPECT_EQ(utf16ToLoc(src.data(), 3, nullptr, 0), 7);
    expectOneWarning("utf16ToLocLength should not be called directly.");
    EXPECT_EQ(utf16ToLoc(src.data(), 0, nullptr, 0), 0);
    expectOneWarning("utf16ToLocLength should not be called directly.");

    EXPECT_EQ(locToUtf16(kHello, 6, nullptr, 0), 5);
    expectOneWarning("locToUtf16Length should not be called directly.");
    EXPECT_EQ(locToUtf16(kHello, 0, nullptr, 0), 0);
    expectOneWarning("locToUtf16Length should not be called directly.");
    EXPECT_EQ(utf8ToUtf16(kHello, 6, nullptr, 0), 6);
    expectOneWarning("utf8ToUtf16Length should not be called directly.");

    // The conversions themselves stay silent.
    char dst[16];
    utf8ToLoc(kHello, 6, dst, sizeof dst);
    locToUtf8(kHello, 6, dst, sizeof dst);
    EXPECT_TRUE(tuttest::warnings().empty());
}

// ---- UTF-8 locale content ----------------------------------------------------

TEST_F(TutUtf8, LocaleTextPassesThroughUnchanged)
{
    const char text[] = "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"; // café € 😀
    FlexBuff<char> a;
    FlexBuff<char> b;
    const long n = locToUtf8(text, -1, a);
    EXPECT_EQ(n, static_cast<long>(std::strlen(text)));
    EXPECT_STREQ(a.data(), text);
    EXPECT_EQ(utf8ToLoc(a.data(), n, b), n);
    EXPECT_STREQ(b.data(), text);

    // The emoji needs a surrogate pair in UTF-16 and comes back whole.
    FlexBuff<unsigned short> w;
    const long units = locToUtf16(text, -1, w);
    ASSERT_EQ(units, 9);
    EXPECT_EQ(w.data()[3], 0xe9);
    EXPECT_EQ(w.data()[5], 0x20ac);
    EXPECT_EQ(w.data()[7], 0xd83d);
    EXPECT_EQ(w.data()[8], 0xde00);
    EXPECT_EQ(utf16ToUtf8(w.data(), units, b), n);
    EXPECT_STREQ(b.data(), text);
    char loc[32];
    EXPECT_EQ(utf16ToLoc(w.data(), -1, loc, sizeof loc), n);
    EXPECT_STREQ(loc, text);
}

TEST_F(TutUtf8, InvalidInputIsReplacedNotReported)
{
    FlexBuff<char> b;
    EXPECT_EQ(locToUtf8("a\xff", 2, b), 4);
    EXPECT_STREQ(b.data(), "a\xef\xbf\xbd");
    EXPECT_EQ(utf8ToLoc("\xc3", 1, b), 3); // cut-off sequence
    EXPECT_STREQ(b.data(), "\xef\xbf\xbd");
}

// The conversions follow setlocale within one process, both ways.
TEST_F(TutUtf8, FollowsLocaleChanges)
{
    FlexBuff<char> b;
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    EXPECT_EQ(locToUtf8("\xc3\xa9", -1, b), 2);
    EXPECT_STREQ(b.data(), "\xc3\xa9");

    ASSERT_NE(std::setlocale(LC_ALL, "en_US.ISO-8859-1"), nullptr);
    EXPECT_EQ(locToUtf8("\xe9", -1, b), 2);
    EXPECT_STREQ(b.data(), "\xc3\xa9");
    EXPECT_EQ(utf8ToLoc("\xc3\xa9", -1, b), 1);
    EXPECT_STREQ(b.data(), "\xe9");

    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    EXPECT_EQ(utf8ToLoc("\xc3\xa9", -1, b), 2);
    EXPECT_STREQ(b.data(), "\xc3\xa9");
    unsigned short w[4];
    EXPECT_EQ(locToUtf16("\xc3\xa9", -1, w, 4), 1);
    EXPECT_EQ(w[0], 0xe9);
}

// ---- FlexBuff ----------------------------------------------------------------

TEST_F(TutFlexBuff, CharBufferInlineThenBlockThenKept)
{
    FlexBuff<char> b;
    EXPECT_EQ(b.data(), nullptr);
    EXPECT_EQ(b.capacity(), 0u);

    const std::string s255(255, 'a');
    EXPECT_EQ(utf8ToLoc(s255.c_str(), 255, b), 255);
    EXPECT_TRUE(b.isInline());
    EXPECT_EQ(b.capacity(), 256u);
    EXPECT_EQ(std::string(b.data()), s255);

    const std::string s256(256, 'b');
    EXPECT_EQ(locToUtf8(s256.c_str(), 256, b), 256);
    EXPECT_FALSE(b.isInline());
    EXPECT_EQ(b.capacity(), 257u);
    EXPECT_EQ(std::string(b.data()), s256);

    const char* block = b.data();
    EXPECT_EQ(utf8ToLoc("0123456789", 10, b), 10);
    EXPECT_EQ(b.data(), block);
    EXPECT_EQ(b.capacity(), 257u);
    EXPECT_STREQ(b.data(), "0123456789");

    // A larger result replaces the block with one of exactly its size.
    const std::string s300(300, 'c');
    EXPECT_EQ(utf8ToLoc(s300.c_str(), -1, b), 300);
    EXPECT_EQ(b.capacity(), 301u);
    EXPECT_EQ(std::string(b.data()), s300);
}

TEST_F(TutFlexBuff, SixteenBitBufferCountsBytes)
{
    FlexBuff<unsigned short> w;
    const std::string s255(255, 'a');
    EXPECT_EQ(utf8ToUtf16(s255.c_str(), 255, w), 255);
    EXPECT_TRUE(w.isInline());
    EXPECT_EQ(w.capacity(), 512u);
    EXPECT_EQ(w.data()[254], 'a');
    EXPECT_EQ(w.data()[255], 0);

    const std::string s256(256, 'b');
    EXPECT_EQ(locToUtf16(s256.c_str(), 256, w), 256);
    EXPECT_FALSE(w.isInline());
    EXPECT_EQ(w.capacity(), 514u);
    EXPECT_EQ(w.data()[255], 'b');
    EXPECT_EQ(w.data()[256], 0);
}

TEST_F(TutFlexBuff, MultiByteResultDecidesStorage)
{
    // 128 characters of two UTF-8 bytes each: 256 bytes do not fit inline.
    std::string twoByte;
    for (int i = 0; i < 128; ++i)
        twoByte += "\xc3\xa9";
    U16 wide(128, 0xe9);
    FlexBuff<char> b;
    EXPECT_EQ(utf16ToUtf8(wide.data(), 128, b), 256);
    EXPECT_EQ(b.capacity(), 257u);
    EXPECT_EQ(std::string(b.data()), twoByte);
}

TEST_F(TutFlexBuff, FailedAllocationLeavesNoStorage)
{
    FlexBuff<char> b;
    EXPECT_EQ(utf8ToLoc("abc", 3, b), 3);
    ASSERT_TRUE(b.isInline());
    EXPECT_THROW(b.makeRoom(1UL << 62), std::bad_alloc);
    EXPECT_EQ(b.data(), nullptr);
    EXPECT_EQ(b.capacity(), 0u);
    // Still usable afterwards.
    EXPECT_EQ(utf8ToLoc("xyz", 3, b), 3);
    EXPECT_STREQ(b.data(), "xyz");

    FlexBuff<unsigned short> w;
    EXPECT_EQ(locToUtf16(std::string(300, 'q').c_str(), -1, w), 300);
    EXPECT_THROW(w.makeRoom(1UL << 62), std::bad_alloc);
    EXPECT_EQ(w.data(), nullptr);
    EXPECT_EQ(w.capacity(), 0u);
}

// ---- 16-bit string functions -------------------------------------------------

TEST_F(TutStrings, LengthCopyAndAppend)
{
    EXPECT_EQ(ustrlen(u16(u"").data()), 0u);
    EXPECT_EQ(ustrlen(u16(u"h\u00e9llo").data()), 5u);

    U16 dst(12, 0x7777);
    EXPECT_EQ(ustrcpy(dst.data(), u16(u"abc").data()), dst.data());
    EXPECT_EQ(U16(dst.begin(), dst.begin() + 5), U16({'a', 'b', 'c', 0, 0x7777}));
    EXPECT_EQ(ustrcat(dst.data(), u16(u"de").data()), dst.data());
    EXPECT_EQ(U16(dst.begin(), dst.begin() + 7), U16({'a', 'b', 'c', 'd', 'e', 0, 0x7777}));
    ustrcat(dst.data(), u16(u"").data());
    EXPECT_EQ(ustrlen(dst.data()), 5u);

    unsigned short* copy = ustrdup(dst.data());
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, dst.data());
    EXPECT_EQ(U16(copy, copy + 6), U16(dst.begin(), dst.begin() + 6));
    free(copy);
}

TEST_F(TutStrings, BoundedCopyNeverPads)
{
    const U16 src = u16(u"abcde");
    U16 dst(8, 0x7777);
    EXPECT_EQ(ustrncpy(dst.data(), src.data(), 2), dst.data());
    EXPECT_EQ(U16(dst.begin(), dst.begin() + 3), U16({'a', 'b', 0x7777}));

    std::fill(dst.begin(), dst.end(), 0x7777);
    ustrncpy(dst.data(), src.data(), 0);
    EXPECT_EQ(dst[0], 0x7777);

    // Stops after the terminator, leaving the rest alone.
    std::fill(dst.begin(), dst.end(), 0x7777);
    ustrncpy(dst.data(), u16(u"ab").data(), 6);
    EXPECT_EQ(U16(dst.begin(), dst.begin() + 4), U16({'a', 'b', 0, 0x7777}));
}

TEST_F(TutStrings, Compare)
{
    const U16 ab = u16(u"ab");
    const U16 abc = u16(u"abc");
    EXPECT_EQ(ustrcmp(ab.data(), abc.data()), -1);
    EXPECT_EQ(ustrcmp(abc.data(), ab.data()), 1);
    EXPECT_EQ(ustrcmp(abc.data(), u16(u"abc").data()), 0);
    EXPECT_EQ(ustrcmp(u16(u"").data(), u16(u"").data()), 0);
    // Differences are unit differences, large ones included.
    EXPECT_EQ(ustrcmp(u16(u"ad").data(), abc.data()), 'd' - 'b');
    EXPECT_EQ(ustrcmp(u16(u"a\uffff").data(), u16(u"a\u0001").data()), 0xfffe);
    EXPECT_EQ(ustrcmp(u16(u"a\u0001").data(), u16(u"a\uffff").data()), -0xfffe);

    EXPECT_EQ(ustrncmp(ab.data(), abc.data(), 2), 0);
    EXPECT_EQ(ustrncmp(ab.data(), abc.data(), 3), -1);
    EXPECT_EQ(ustrncmp(abc.data(), ab.data(), 3), 1);
    EXPECT_EQ(ustrncmp(u16(u"x").data(), u16(u"y").data(), 0), 0);
    EXPECT_EQ(ustrncmp(u16(u"abx").data(), u16(u"aby").data(), 3), 'x' - 'y');
    EXPECT_EQ(ustrncmp(ab.data(), ab.data(), 50), 0);
}

TEST_F(TutStrings, Search)
{
    const U16 s = u16(u"abcabc");
    EXPECT_EQ(ustrchr(s.data(), 'b'), s.data() + 1);
    EXPECT_EQ(ustrrchr(s.data(), 'b'), s.data() + 4);
    EXPECT_EQ(ustrchr(s.data(), 'z'), nullptr);
    EXPECT_EQ(ustrrchr(s.data(), 'z'), nullptr);
    EXPECT_EQ(ustrchr(s.data(), 0), nullptr);
    EXPECT_EQ(ustrrchr(s.data(), 0), nullptr);

    EXPECT_EQ(ustrstr(s.data(), u16(u"bc").data()), s.data() + 1);
    EXPECT_EQ(ustrstr(s.data(), u16(u"cab").data()), s.data() + 2);
    EXPECT_EQ(ustrstr(s.data(), u16(u"abcabc").data()), s.data());
    EXPECT_EQ(ustrstr(s.data(), u16(u"bcd").data()), nullptr);
    EXPECT_EQ(ustrstr(s.data(), u16(u"abcabcd").data()), nullptr);
    const U16 aab = u16(u"aab");
    EXPECT_EQ(ustrstr(aab.data(), u16(u"ab").data()), aab.data() + 1);
    // Empty s never matches; an empty sub matches at the start.
    const U16 empty = u16(u"");
    EXPECT_EQ(ustrstr(empty.data(), u16(u"a").data()), nullptr);
    EXPECT_EQ(ustrstr(empty.data(), empty.data()), nullptr);
    EXPECT_EQ(ustrstr(s.data(), empty.data()), s.data());
}

} // namespace
