#pragma once

#include <cstdio>

/// The C library functions that touch the file system, as the host hands them to its services.
namespace Libraries::Platform::Posix::C {

/// The path without links and dots, in `resolved`, which holds at least 1024 bytes and is returned. Null (errno) on
/// failure, also when the result has more than 1023 characters (ENAMETOOLONG).
char* realpath(const char* path, char* resolved);
/// Null (errno) on failure. The caller closes the file with fclose.
std::FILE* fopen(const char* path, const char* mode);
/// The one format the service uses: "%1023[^\n]" into `buffer` of 1024 bytes. The number of items read, 0 at a line
/// break, or EOF; EOF with errno EINVAL for any other format.
int fscanf(std::FILE* file, const char* format, char* buffer);
/// 0, or EOF (errno) on failure; the file is gone in either case.
int fclose(std::FILE* file);

}  // namespace Libraries::Platform::Posix::C
