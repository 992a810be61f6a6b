// Conversions under a Latin-1 locale (the executable runs with
// LC_ALL=en_US.ISO-8859-1): one byte per character on the locale side.
#include "support/Tut.h"
#include "support/TutTestUtil.h"

#include <clocale>
#include <cstring>
#include <string>
#include <vector>

using namespace Tut;
using tuttest::bytes;

namespace {

using U16 = std::vector<unsigned short>;

class TutLatin1 : public tuttest::TutTest {};

TEST_F(TutLatin1, LocaleIsLatin1)
{
    FlexBuff<char> b;
    EXPECT_EQ(locToUtf8("\xe9", -1, b), 2);
    EXPECT_STREQ(b.data(), "\xc3\xa9");
    EXPECT_EQ(utf8ToLoc("\xc3\xa9", -1, b), 1);
    EXPECT_STREQ(b.data(), "\xe9");
}

TEST_F(TutLatin1, LocToUtf8AllShapes)
{
    char dst[8];
    std::memset(dst, 'x', sizeof dst);
    EXPECT_THROW(locToUtf8("\xe9\xe9", 2, dst, 4), BadBufferLength);
    EXPECT_EQ(dst[0], 'x');
    EXPECT_EQ(locToUtf8("\xe9\xe9", 2, dst, 5), 4);
    EXPECT_STREQ(dst, "\xc3\xa9\xc3\xa9");

    FlexBuff<char> b;
    EXPECT_EQ(locToUtf8("caf\xe9", 4, b), 5);
    EXPECT_STREQ(b.data(), "caf\xc3\xa9");

    unsigned long n = 0;
    char* c = locToUtf8Copy("\xe9t\xe9", -1, &n);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(n, 5u);
    EXPECT_STREQ(c, "\xc3\xa9t\xc3\xa9");
    delete[] c;
}

TEST_F(TutLatin1, Utf8ToLocAllShapes)
{
    char dst[4];
    std::memset(dst, 'x', sizeof dst);
    EXPECT_THROW(utf8ToLoc("\xc3\xa9\xc3\xa9", 4, dst, 2), BadBufferLength);
    EXPECT_EQ(bytes(dst, 4), "xxxx");
    EXPECT_EQ(utf8ToLoc("\xc3\xa9\xc3\xa9", 4, dst, 3), 2);
    EXPECT_STREQ(dst, "\xe9\xe9");

    FlexBuff<char> b;
    EXPECT_EQ(utf8ToLoc("caf\xc3\xa9", -1, b), 4);
    EXPECT_STREQ(b.data(), "caf\xe9");

    char* c = utf8ToLocCopy("\xc3\xa9", 2, nullptr);
    ASSERT_NE(c, nullptr);
    EXPECT_STREQ(c, "\xe9");
    delete[] c;
}

TEST_F(TutLatin1, Utf16Pairs)
{
    unsigned short w[4] = {0x7777, 0x7777, 0x7777, 0x7777};
    EXPECT_EQ(locToUtf16("\xe9z", 2, w, 2), 2);
    EXPECT_EQ(w[0], 0xe9);
    EXPECT_EQ(w[1], 'z');
    EXPECT_EQ(w[2], 0x7777);
    EXPECT_THROW(locToUtf16("\xe9z", -1, w, 2), BadBufferLength);
    EXPECT_EQ(locToUtf16("\xe9z", -1, w, 3), 2);
    EXPECT_EQ(w[2], 0);

    const unsigned short src[] = {0xe9, 'z', 0};
    char dst[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(utf16ToLoc(src, 2, dst, 2), 2);
    EXPECT_EQ(bytes(dst, 3), "\xe9zx");
    EXPECT_THROW(utf16ToLoc(src, -1, dst, 2), BadBufferLength);
    EXPECT_EQ(utf16ToLoc(src, -1, dst, 3), 2);
    EXPECT_EQ(bytes(dst, 4), std::string("\xe9z\0x", 4));
}

// Characters outside Latin-1 are replaced by the codec; nothing throws.
TEST_F(TutLatin1, UnrepresentableCharacterIsReplaced)
{
    FlexBuff<char> b;
    long n = 0;
    EXPECT_NO_THROW(n = utf8ToLoc("a\xe2\x82\xac" "b", -1, b));
    EXPECT_EQ(n, 3);
    EXPECT_STREQ(b.data(), "a?b");

    const unsigned short euro[] = {0x20ac, 0};
    char dst[4];
    EXPECT_EQ(utf16ToLoc(euro, -1, dst, sizeof dst), 1);
    EXPECT_STREQ(dst, "?");
    EXPECT_TRUE(tuttest::warnings().empty());
}

TEST_F(TutLatin1, LengthsCountLocaleBytes)
{
    EXPECT_EQ(utf8ToLocLength("\xc3\xa9\xc3\xa9", -1), 3);
    expectOneWarning("utf8ToLocLength should not be called directly.");
    EXPECT_EQ(locToUtf8Length("\xe9\xe9", -1), 5);
    expectOneWarning("locToUtf8Length should not be called directly.");
    EXPECT_EQ(locToUtf16Length("\xe9\xe9", -1), 2);
    expectOneWarning("locToUtf16Length should not be called directly.");
    const unsigned short src[] = {0xe9, 0x20ac, 0};
    EXPECT_EQ(utf16ToLocLength(src, -1), 3);
    expectOneWarning("utf16ToLocLength should not be called directly.");
    EXPECT_EQ(utf8ToLoc("\xc3\xa9", 2, nullptr, 0), 2);
    expectOneWarning("utf8ToLocLength should not be called directly.");
}

// Every non-zero byte survives loc -> UTF-8 -> loc and loc -> UTF-16 -> loc.
TEST_F(TutLatin1, AllBytesRoundTrip)
{
    std::string all;
    for (int i = 1; i < 256; ++i)
        all += static_cast<char>(i);

    FlexBuff<char> utf8;
    FlexBuff<char> back;
    const long n = locToUtf8(all.data(), static_cast<long>(all.size()), utf8);
    EXPECT_EQ(n, 127 + 2 * 128);
    EXPECT_EQ(utf8ToLoc(utf8.data(), n, back), 255);
    EXPECT_EQ(bytes(back.data(), 255), all);

    FlexBuff<unsigned short> w;
    ASSERT_EQ(locToUtf16(all.c_str(), -1, w), 255);
    for (int i = 0; i < 255; ++i)
        ASSERT_EQ(w.data()[i], i + 1);
    std::vector<char> loc(256, 'x');
    EXPECT_EQ(utf16ToLoc(w.data(), -1, loc.data(), loc.size()), 255);
    EXPECT_EQ(bytes(loc.data(), 256), all + std::string(1, '\0'));
}

// The inline rule is about the result: 255 two-byte UTF-8 characters are
// 255 Latin-1 bytes and fit inline.
TEST_F(TutLatin1, FlexBuffSizedByResult)
{
    std::string utf8;
    for (int i = 0; i < 255; ++i)
        utf8 += "\xc3\xa9";
    FlexBuff<char> b;
    EXPECT_EQ(utf8ToLoc(utf8.c_str(), -1, b), 255);
    EXPECT_TRUE(b.isInline());
    EXPECT_EQ(b.capacity(), 256u);
    EXPECT_EQ(std::string(b.data()), std::string(255, '\xe9'));
}

TEST_F(TutLatin1, FollowsLocaleChanges)
{
    FlexBuff<char> b;
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    EXPECT_EQ(utf8ToLoc("\xc3\xa9", -1, b), 2);
    EXPECT_STREQ(b.data(), "\xc3\xa9");
    EXPECT_EQ(locToUtf8("\xe9", -1, b), 3); // not UTF-8: replaced
    EXPECT_STREQ(b.data(), "\xef\xbf\xbd");

    ASSERT_NE(std::setlocale(LC_ALL, "en_US.ISO-8859-1"), nullptr);
    EXPECT_EQ(locToUtf8("\xe9", -1, b), 2);
    EXPECT_STREQ(b.data(), "\xc3\xa9");

    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    unsigned short w[2];
    EXPECT_EQ(locToUtf16("\xc3\xa9", 2, w, 1), 1);
    EXPECT_EQ(w[0], 0xe9);

    ASSERT_NE(std::setlocale(LC_ALL, ""), nullptr);
    EXPECT_EQ(utf8ToLoc("\xc3\xa9", -1, b), 1);
    EXPECT_STREQ(b.data(), "\xe9");
}

// The plain C locale names ASCII; bytes are read as Latin-1 there so that
// 8-bit text survives.
TEST_F(TutLatin1, CLocaleReadsBytesAsLatin1)
{
    ASSERT_NE(std::setlocale(LC_ALL, "C"), nullptr);
    FlexBuff<char> b;
    EXPECT_EQ(locToUtf8("a\xe9", -1, b), 3);
    EXPECT_STREQ(b.data(), "a\xc3\xa9");
    EXPECT_EQ(utf8ToLoc("a\xc3\xa9", -1, b), 2);
    EXPECT_STREQ(b.data(), "a\xe9");
}

} // namespace
