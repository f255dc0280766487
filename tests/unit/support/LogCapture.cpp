#include "tests/unit/support/LogCapture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <sstream>

#include "platform/host/InitCode.h"

namespace UnitTest {

namespace {

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::abort();
}

struct Record {
    std::string tag;
    std::string text;
};

/// "TIME [LEVEL] PROCESS/THREAD TAG: TEXT"; nothing for a line of another form.
std::optional<Record> parse(const std::string& line) {
    const std::size_t level = line.find(" [");
    const std::size_t names = line.find("] ");
    if (level == std::string::npos || names == std::string::npos || level > names || line[level - 1] != 'Z') return {};
    const std::size_t tag = line.find(' ', names + 2);
    const std::size_t text = line.find(": ", names);
    if (tag == std::string::npos || text == std::string::npos || tag > text) return {};
    return Record{line.substr(tag + 1, text - tag - 1),
                  line.substr(level + 2, names - level - 2) + " " + line.substr(text + 2)};
}

}  // namespace

std::vector<std::string> recordsOf(const std::string& log, std::string_view tag) {
    std::vector<std::string> texts;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        if (auto record = parse(line); record && record->tag == tag) texts.push_back(std::move(record->text));
    }
    return texts;
}

LogCapture::LogCapture() {
    [[maybe_unused]] static const bool registered = (InitCode::runInitialisers(), true);
    std::fflush(stdout);
    standardOutput_ = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    file_ = ::memfd_create("log", MFD_CLOEXEC);
    // Appending, since the test framework writes into the same file.
    if (standardOutput_ < 0 || file_ < 0 || ::fcntl(file_, F_SETFL, O_APPEND) < 0) fail("LogCapture");
    if (::dup2(file_, STDOUT_FILENO) < 0) fail("dup2");
}

LogCapture::~LogCapture() {
    std::fflush(stdout);
    ::dup2(standardOutput_, STDOUT_FILENO);
    ::close(standardOutput_);
    std::istringstream lines(content());
    for (std::string line; std::getline(lines, line);) {
        if (::testing::Test::HasFailure() || !parse(line)) std::printf("%s\n", line.c_str());
    }
    std::fflush(stdout);
    ::close(file_);
}

std::string LogCapture::content() const {
    struct stat status {};
    if (::fstat(file_, &status) != 0) fail("fstat");
    std::string all(static_cast<std::size_t>(status.st_size), '\0');
    const ssize_t count = ::pread(file_, all.data(), all.size(), 0);
    if (count < 0) fail("pread");
    all.resize(static_cast<std::size_t>(count));
    return all;
}

std::vector<std::string> LogCapture::records(std::string_view tag) const {
    return recordsOf(content().substr(forgotten_), tag);
}

std::size_t LogCapture::count(std::string_view record) const {
    const std::vector<std::string> all = records();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), record));
}

bool LogCapture::waitFor(std::string_view record, std::chrono::milliseconds limit) const {
    return waitUntil([&] { return count(record) != 0; }, limit);
}

void LogCapture::forget() {
    forgotten_ = content().size();
}

}  // namespace UnitTest
