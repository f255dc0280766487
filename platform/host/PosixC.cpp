#include "platform/host/PosixC.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace Libraries::Platform::Posix::C {

namespace {
constexpr std::size_t kBufferSize = 1024;
constexpr const char* kLineFormat = "%1023[^\n]";

struct Free {
    void operator()(char* block) const noexcept { std::free(block); }
};
}  // namespace

char* realpath(const char* path, char* resolved) {
    // Into a buffer of its own first: the C library writes up to PATH_MAX (4096) bytes into one that it is given.
    const std::unique_ptr<char, Free> whole(::realpath(path, nullptr));
    if (!whole) return nullptr;
    const std::size_t length = std::strlen(whole.get());
    if (length >= kBufferSize) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    std::memcpy(resolved, whole.get(), length + 1);
    return resolved;
}

std::FILE* fopen(const char* path, const char* mode) {
    return std::fopen(path, mode);
}

int fscanf(std::FILE* file, const char* format, char* buffer) {
    if (std::strcmp(format, kLineFormat) != 0) {
        errno = EINVAL;
        return EOF;
    }
    return std::fscanf(file, "%1023[^\n]", buffer);
}

int fclose(std::FILE* file) {
    return std::fclose(file);
}

}  // namespace Libraries::Platform::Posix::C
