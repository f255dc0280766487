#include <gtest/gtest.h>

#include <string>

#include "platform/host/Atomic.h"
#include "platform/host/Containers.h"
#include "platform/host/Crc.h"
#include "platform/host/StrConv.h"
#include "platform/host/String.h"
#include "platform/host/Utf8.h"

using Libraries::Filter::CRC::CRC32;
using Libraries::Filter::CRC::CRC64;
using Libraries::Filter::CRC::Type;

namespace {

using namespace std::string_view_literals;

TEST(Atomic, SwapsOnlyTheExpectedValue) {
    std::atomic<std::uint64_t> value = 1;
    EXPECT_FALSE(Atomic::cas(value, 2, 3));
    EXPECT_EQ(value, 1u);
    EXPECT_TRUE(Atomic::cas(value, 1, 3));
    EXPECT_EQ(value, 3u);
}

TEST(Containers, AreSharedThroughTheirReferences) {
    const Ref<TVector<int>> vector = TVector<int>::create();
    Ref<TVector<int>> same = vector;
    same->items.push_back(7);
    same.reset();
    EXPECT_EQ(vector->items, std::vector<int>{7});

    const Ref<TSet<int>> set = TSet<int>::create();
    set->items.insert(2);
    set->items.insert(1);
    EXPECT_EQ(*set->items.begin(), 1);
}

TEST(String, KeepsItsBytesAndComparesThemExactly) {
    const Ref<String> text = String::create("a\0b"sv);
    EXPECT_EQ(text->length(), 3u);
    EXPECT_EQ(text->view(), "a\0b"sv);
    EXPECT_EQ(text->cstr()[3], '\0');
    EXPECT_TRUE(text->equals("a\0b"sv));
    EXPECT_TRUE(text->equals(String::create(std::string("a\0b", 3))));
    EXPECT_FALSE(text->equals("A\0b"sv));
    EXPECT_FALSE(text->equals("a"));
    EXPECT_FALSE(text->equals(Ref<String>()));
}

TEST(String, IsEmptyForANullPointer) {
    EXPECT_EQ(String::create(static_cast<const char*>(nullptr))->length(), 0u);
    EXPECT_EQ(viewOf(nullptr), "");
}

TEST(String, FindsAndCuts) {
    const Ref<String> text = String::create("/org/bluez/hci0");
    EXPECT_EQ(text->find("/"), 0u);
    EXPECT_EQ(text->findLast("/"), 10u);
    EXPECT_EQ(text->find("?"), String::kNone);
    EXPECT_EQ(text->substring(11)->view(), "hci0");
    EXPECT_EQ(text->substring(1, 3)->view(), "org");
    EXPECT_EQ(text->substring(11, 100)->view(), "hci0");
    EXPECT_EQ(text->substring(15)->view(), "");
    EXPECT_EQ(text->substring(100, 1)->view(), "");
}

struct Number {
    std::string_view text;
    bool valid;
    unsigned int value;
};

TEST(StrConv, ReadsDecimalAndPrefixedHexadecimalNumbers) {
    const Number numbers[] = {
        {"0", true, 0},
        {"4363", true, 4363},
        {"0x110b", true, 0x110B},
        {"0X110B", true, 0x110B},
        {"4294967295", true, ~0u},
        {"007", true, 7},
        {"0xffffffff", true, ~0u},
        {"4294967296", false, 0},
        {"0x100000000", false, 0},
        {"", false, 0},
        {"0x", false, 0},
        {"110b", false, 0},
        {"+1", false, 0},
        {"-1", false, 0},
        {" 1", false, 0},
        {"1 ", false, 0},
        {"0x-1", false, 0},
        {"0x0x1", false, 0},
        {"1\0"sv, false, 0},
        {"x1", false, 0},
    };
    for (const Number& number : numbers) {
        unsigned int value = 99;
        EXPECT_EQ(StrConv::num(String::create(number.text), &value), number.valid) << number.text;
        EXPECT_EQ(value, number.valid ? number.value : 99) << number.text;
    }
    unsigned int value = 99;
    EXPECT_FALSE(StrConv::num(Ref<String>(), &value));
    EXPECT_EQ(value, 99u);
}

TEST(StrConv, ReadsDigitsOfAGivenBase) {
    unsigned int value = 99;
    EXPECT_TRUE(StrConv::num("0000110A", &value, 16));
    EXPECT_EQ(value, 0x110Au);
    EXPECT_TRUE(StrConv::num("ffffffff", &value, 16));
    EXPECT_EQ(value, ~0u);
    EXPECT_TRUE(StrConv::num("101", &value, 2));
    EXPECT_EQ(value, 5u);
    for (const std::string_view text : {"0000110g"sv, "0x11"sv, ""sv, "100000000"sv}) {
        EXPECT_FALSE(StrConv::num(text, &value, 16)) << text;
    }
    EXPECT_FALSE(StrConv::num("2", &value, 2));
    EXPECT_FALSE(StrConv::num("1", &value, 1));
    EXPECT_FALSE(StrConv::num("1", &value, 17));
    EXPECT_EQ(value, 5u);
}

TEST(StrConv, WritesDecimalNumbers) {
    EXPECT_EQ(StrConv::str(0)->view(), "0");
    EXPECT_EQ(StrConv::str(123456)->view(), "123456");
    EXPECT_EQ(StrConv::str(~std::uint64_t{0})->view(), "18446744073709551615");
}

TEST(StringUtil, TrimsWhiteSpaceAtBothEndsOnly) {
    EXPECT_EQ(StringUtil::trim(String::create(" \t\n\v\f\ra b\r\n"))->view(), "a b");
    EXPECT_EQ(StringUtil::trim(String::create("plain"))->view(), "plain");
    EXPECT_EQ(StringUtil::trim(String::create(" \t "))->view(), "");
    EXPECT_EQ(StringUtil::trim(String::create(""))->view(), "");
    EXPECT_EQ(StringUtil::trim(Ref<String>())->view(), "");
    EXPECT_EQ(StringUtil::trim(String::create("\xc2\xa0x"))->view(), "\xc2\xa0x");
}

// The check values of the catalogues of checksums: of the nine digits.
constexpr std::string_view kCheck = "123456789";

TEST(Crc, HasTheCheckValuesOfItsPolynomials) {
    const struct {
        bool reflected;
        std::uint64_t crc32;
        std::uint64_t crc64;
    } checks[] = {{true, 0xCBF43926u, 0x995DC9BBDF1939FAu}, {false, 0xFC891918u, 0x62EC59E3F1A4F00Au}};
    for (const auto& check : checks) {
        const Ref<CRC32> crc32 = CRC32::create(Type::Default, check.reflected);
        crc32->write(kCheck);
        crc32->finish();
        EXPECT_EQ(crc32->value(), check.crc32);
        const Ref<CRC64> crc64 = CRC64::create(Type::Default, check.reflected);
        crc64->write(kCheck);
        EXPECT_EQ(crc64->value(), check.crc64);
    }
}

TEST(Crc, IsTheSameHoweverTheBytesAreSplit) {
    const Ref<CRC32> crc32 = CRC32::create(Type::Default, true);
    const Ref<CRC64> crc64 = CRC64::create(Type::Default, true);
    for (const char digit : kCheck) {
        crc32->write(std::string_view(&digit, 1));
        crc64->write(std::string_view(&digit, 1));
        crc64->write("");
    }
    EXPECT_EQ(crc32->value(), 0xCBF43926u);
    EXPECT_EQ(crc64->value(), 0x995DC9BBDF1939FAu);
}

TEST(Crc, OfNothingIsZero) {
    EXPECT_EQ(CRC32::create(Type::Default, true)->value(), 0u);
    EXPECT_EQ(CRC64::create(Type::Default, true)->value(), 0u);
}

TEST(Crc, HasNoUnknownTypes) {
    EXPECT_EQ(CRC32::create(static_cast<Type>(1), true), nullptr);
    EXPECT_EQ(CRC64::create(static_cast<Type>(1), true), nullptr);
}

TEST(Utf8, TakesWellFormedCharactersOfEachLength) {
    const struct {
        std::string_view text;
        char32_t code;
        std::size_t length;
    } characters[] = {
        {"A"sv, U'A', 1},
        {"\0"sv, 0, 1},
        {"\x7f"sv, 0x7F, 1},
        {"\xc2\x80"sv, 0x80, 2},
        {"\xdf\xbf"sv, 0x7FF, 2},
        {"\xe0\xa0\x80"sv, 0x800, 3},
        {"\xed\x9f\xbf"sv, 0xD7FF, 3},
        {"\xee\x80\x80"sv, 0xE000, 3},
        {"\xef\xbf\xbf"sv, 0xFFFF, 3},
        {"\xf0\x90\x80\x80"sv, 0x10000, 4},
        {"\xf4\x8f\xbf\xbf"sv, 0x10FFFF, 4},
    };
    for (const auto& character : characters) {
        const Utf8::Character first = Utf8::first(std::string(character.text) + "more");
        EXPECT_EQ(first.code, character.code);
        EXPECT_EQ(first.length, character.length);
    }
}

TEST(Utf8, RefusesWhatIsMalformed) {
    const std::string_view malformed[] = {
        "\x80"sv,
        "\xbf"sv,
        "\xc0\x80"sv,
        "\xc1\xbf"sv,
        "\xc2"sv,
        "\xc2\x41"sv,
        "\xe0\x9f\xbf"sv,
        "\xed\xa0\x80"sv,
        "\xed\xbf\xbf"sv,
        "\xe2\x82"sv,
        "\xe2\x82\x41"sv,
        "\xf0\x8f\xbf\xbf"sv,
        "\xf4\x90\x80\x80"sv,
        "\xf5\x80\x80\x80"sv,
        "\xff"sv,
        "\xf0\x9f\x98"sv,
    };
    for (const std::string_view text : malformed)
        EXPECT_EQ(Utf8::first(text).length, 0u) << testing::PrintToString(text);
}

}  // namespace
