#include "platform/host/Heap.h"

#include <gtest/gtest.h>

#include <string_view>

#include "tests/unit/host/Child.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define BTN_OWN_ALLOCATOR 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define BTN_OWN_ALLOCATOR 1
#endif
#endif

namespace {

using HostTest::Child;

TEST(Heap, GivesBlocksAlsoForNoBytes) {
    void* const block = Heap::alloc(0);
    EXPECT_NE(block, nullptr);
    void* const grown = Heap::realloc(block, 0);
    EXPECT_NE(grown, nullptr);
    Heap::free(grown);
    Heap::free(nullptr);
}

TEST(Heap, KeepsTheContentOfABlockThatGrows) {
    auto* block = static_cast<char*>(Heap::realloc(nullptr, 4));
    Mem::move(block, "abcd", 4);
    block = static_cast<char*>(Heap::realloc(block, 100'000));
    EXPECT_EQ(std::string_view(block, 4), "abcd");
    Heap::free(block);
}

class OutOfMemory : public testing::TestWithParam<const char*> {};
INSTANTIATE_TEST_SUITE_P(Ways, OutOfMemory, testing::Values("exhaust-alloc", "exhaust-new"));

TEST_P(OutOfMemory, EndsTheProcessWithAMessageAndCodeOne) {
#ifdef BTN_OWN_ALLOCATOR
    GTEST_SKIP() << "the sanitizer's allocator needs more address space than any limit leaves";
#endif
    Child child({.arguments = {GetParam()}});
    EXPECT_EQ(child.wait(), 1);
    EXPECT_EQ(child.output().rest(), "out of memory");
}

TEST(Mem, ZeroesAndMoves) {
    char text[] = "abcdef";
    Mem::move(text + 1, text, 4);
    EXPECT_STREQ(text, "aabcdf");
    Mem::zero(text, 2);
    EXPECT_EQ(std::string_view(text, 6), std::string_view("\0\0bcdf", 6));
    Mem::zero(nullptr, 0);
    Mem::move(nullptr, nullptr, 0);
}

}  // namespace
