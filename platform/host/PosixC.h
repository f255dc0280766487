#pragma once

#include <cstdio>

/// The C library functions that touch the file system, as the host hands them to its services.
namespace Libraries::Platform::Posix::C {

/// `resolved` holds at least 1024 bytes. Null on failure, also when the result is longer than that.
char* realpath(const char* path, char* resolved);
std::FILE* fopen(const char* path, const char* mode);
/// The one format the service uses: "%1023[^\n]" into 1024 bytes; the number of items read.
int fscanf(std::FILE* file, const char* format, char* buffer);
int fclose(std::FILE* file);

}  // namespace Libraries::Platform::Posix::C
