#pragma once

#include <cstddef>

/// The program's allocation: never null. When the heap is exhausted, "out of memory" is written to the standard output
/// writer and the process ends with Proc::exit(1); operator new does the same once install() was called. Any thread.
class Heap {
public:
    /// A block of at least `bytes` bytes, aligned for every type, its content undefined; 0 bytes give a block, too. The
    /// caller owns it and gives it back with free().
    static void* alloc(std::size_t bytes);
    /// The block with its new size and what it held, at the same place or another; null is as good as alloc().
    static void* realloc(void* block, std::size_t bytes);
    /// Gives back a block of this class, or of the C library's malloc; null is left alone.
    static void free(void* block) noexcept;
    /// Makes operator new follow the same rule. Called by the entry.
    static void install() noexcept;
    /// What happens when the heap is exhausted. Allocates nothing.
    [[noreturn]] static void outOfMemory() noexcept;
};

/// Plain memory operations.
class Mem {
public:
    static void zero(void* block, std::size_t bytes) noexcept;
    /// The areas may overlap.
    static void move(void* to, const void* from, std::size_t bytes) noexcept;
};
