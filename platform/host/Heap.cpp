#include "platform/host/Heap.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/host/Proc.h"
#include "platform/host/StdIO.h"

void* Heap::alloc(std::size_t bytes) {
    return realloc(nullptr, bytes);
}

void* Heap::realloc(void* block, std::size_t bytes) {
    // Zero bytes: the C library may answer null, and frees the block in realloc.
    void* const moved = std::realloc(block, bytes > 0 ? bytes : 1);
    if (!moved) outOfMemory();
    return moved;
}

void Heap::free(void* block) noexcept {
    std::free(block);
}

void Heap::install() noexcept {
    std::set_new_handler(&outOfMemory);
}

void Heap::outOfMemory() noexcept {
    StdIO::stdOutWriter().write("out of memory");
    Proc::exit(1);
}

void Mem::zero(void* block, std::size_t bytes) noexcept {
    if (bytes > 0) std::memset(block, 0, bytes);
}

void Mem::move(void* to, const void* from, std::size_t bytes) noexcept {
    if (bytes > 0) std::memmove(to, from, bytes);
}
