#include "platform/host/PosixC.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace C = Libraries::Platform::Posix::C;
namespace fs = std::filesystem;

namespace {

constexpr const char* kLine = "%1023[^\n]";

class PosixC : public testing::Test {
public:
    PosixC() {
        std::string pattern = fs::temp_directory_path() / "unit-host-XXXXXX";
        folder_ = fs::canonical(mkdtemp(pattern.data()));
    }
    ~PosixC() override { fs::remove_all(folder_); }

protected:
    std::string file(const std::string& content) const {
        const fs::path path = folder_ / "file";
        std::ofstream(path) << content;
        return path;
    }

    /// Reads the line of a file with this content; `items` is what fscanf said.
    std::string lineOf(const std::string& content, int& items) const {
        std::array<char, 1024> buffer{};
        std::FILE* const open = C::fopen(file(content).c_str(), "r");
        items = C::fscanf(open, kLine, buffer.data());
        EXPECT_EQ(C::fclose(open), 0);
        return buffer.data();
    }

    fs::path folder_;
};

/// A folder below `base` whose whole path has this many characters; made piecewise, since a name has 255 at most.
fs::path folderOfLength(const fs::path& base, std::size_t length) {
    std::string path = base;
    while (path.size() + 1 < length) {
        const std::size_t rest = length - path.size() - 1;
        path += '/' + std::string(rest > 202 ? 200 : rest, 'x');  // never leaves a rest without room for a name
        fs::create_directory(path);
    }
    EXPECT_EQ(path.size(), length);
    return path;
}

TEST_F(PosixC, RealpathFollowsLinks) {
    fs::create_directory(folder_ / "target");
    fs::create_directory_symlink("target", folder_ / "link");
    std::array<char, 1024> resolved{};
    EXPECT_EQ(C::realpath((folder_ / "link/../link").c_str(), resolved.data()), resolved.data());
    EXPECT_EQ(std::string(resolved.data()), (folder_ / "target").string());
}

TEST_F(PosixC, RealpathFailsForWhatIsNotThere) {
    std::array<char, 1024> resolved{};
    EXPECT_EQ(C::realpath((folder_ / "missing").c_str(), resolved.data()), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(PosixC, RealpathFillsItsBufferAndRefusesOneCharacterMore) {
    std::array<char, 1024> resolved{};
    const fs::path longest = folderOfLength(folder_, 1023);
    ASSERT_NE(C::realpath(longest.c_str(), resolved.data()), nullptr);
    EXPECT_EQ(std::string(resolved.data()), longest.string());

    fs::create_directory_symlink(folderOfLength(folder_ / ".", 1026), folder_ / "link");  // "/./" takes 2
    resolved.fill('u');
    EXPECT_EQ(C::realpath((folder_ / "link").c_str(), resolved.data()), nullptr);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(std::string(resolved.data(), resolved.size()), std::string(resolved.size(), 'u'));
}

TEST_F(PosixC, FscanfReadsTheFirstLine) {
    int items = -2;
    EXPECT_EQ(lineOf("Product X\nmore\n", items), "Product X");
    EXPECT_EQ(items, 1);
    EXPECT_EQ(lineOf("no line break", items), "no line break");
    EXPECT_EQ(items, 1);
    EXPECT_EQ(lineOf("\xff\xfe", items), "\xff\xfe");
    EXPECT_EQ(items, 1);
}

TEST_F(PosixC, FscanfReadsNothingOfAnEmptyLineOrFile) {
    int items = -2;
    EXPECT_EQ(lineOf("\nsecond\n", items), "");
    EXPECT_EQ(items, 0);
    EXPECT_EQ(lineOf("", items), "");
    EXPECT_EQ(items, EOF);
}

TEST_F(PosixC, FscanfStopsAt1023Characters) {
    int items = -2;
    EXPECT_EQ(lineOf(std::string(1023, 'a') + "\n", items), std::string(1023, 'a'));
    EXPECT_EQ(lineOf(std::string(1024, 'a') + "\n", items), std::string(1023, 'a'));
    EXPECT_EQ(items, 1);
}

TEST_F(PosixC, FscanfTakesNoOtherFormat) {
    std::array<char, 1024> buffer{};
    std::FILE* const open = C::fopen(file("text").c_str(), "r");
    EXPECT_EQ(C::fscanf(open, "%s", buffer.data()), EOF);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_STREQ(buffer.data(), "");
    C::fclose(open);
}

TEST_F(PosixC, FopenFailsForWhatIsNotThere) {
    EXPECT_EQ(C::fopen((folder_ / "missing").c_str(), "r"), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

}  // namespace
