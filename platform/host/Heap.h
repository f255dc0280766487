#pragma once

#include <cstddef>

/// The program's allocation: never null. When the heap is exhausted, "out of memory" is written to the standard output
/// writer and the process ends with Proc::exit(1); operator new does the same once install() was called.
class Heap {
public:
    static void* alloc(std::size_t bytes);
    static void* realloc(void* block, std::size_t bytes);
    static void free(void* block) noexcept;
    /// Makes operator new follow the same rule. Called by the entry.
    static void install() noexcept;
    [[noreturn]] static void outOfMemory() noexcept;
};

/// Plain memory operations.
class Mem {
public:
    static void zero(void* block, std::size_t bytes) noexcept;
    static void move(void* to, const void* from, std::size_t bytes) noexcept;
};
