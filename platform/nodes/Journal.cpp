#include "platform/nodes/Journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>

#include "platform/nodes/Fd.h"

namespace Services::Nodes {

namespace {

constexpr const char* kFile = "journal";
constexpr const char* kNewFile = "journal.new";
/// Lines that the file may have beyond twice the records it holds, before it is written anew.
constexpr std::size_t kSpareLines = 256;

std::string readAll(int file) {
    std::string all;
    std::array<char, 4096> part;
    for (;;) {
        const ssize_t size = ::read(file, part.data(), part.size());
        if (size < 0 && errno == EINTR) continue;
        if (size <= 0) return all;
        all.append(part.data(), static_cast<std::size_t>(size));
    }
}

/// Makes the file, or empties it.
bool makeFile(int folder, const char* name) {
    return static_cast<bool>(Fd(openat(folder, name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600)));
}

std::string lineFor(ino_t inode, std::string_view name) {
    return "+" + std::to_string(inode) + " " + std::string(name) + "\n";
}

}  // namespace

std::optional<Journal> Journal::create(int folder) {
    if (!makeFile(folder, kFile)) return {};
    return Journal(folder, kFile);
}

std::unordered_map<ino_t, std::string> Journal::read(int folder) {
    std::unordered_map<ino_t, std::string> records;
    const Fd file(openat(folder, kFile, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!file) return records;
    const std::string text = readAll(file.get());
    std::size_t begin = 0;
    for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
        const std::string_view line = std::string_view(text).substr(begin, end - begin);
        begin = end + 1;  // a last line without its end was never finished, and its socket never published
        ino_t inode = 0;
        if (line.size() < 2) continue;
        const auto [rest, error] = std::from_chars(line.data() + 1, line.data() + line.size(), inode);
        if (error != std::errc()) continue;
        const auto name = static_cast<std::size_t>(rest - line.data()) + 1;
        if (line.front() == '-') records.erase(inode);
        if (line.front() == '+' && name < line.size()) records.insert_or_assign(inode, line.substr(name));
    }
    return records;
}

void Journal::remove(int folder) noexcept {
    unlinkat(folder, kFile, 0);
    unlinkat(folder, kNewFile, 0);
}

bool Journal::add(ino_t inode, std::string_view name) {
    if (!append(lineFor(inode, name))) return false;
    ++records_;
    return true;
}

void Journal::takeBack(ino_t inode) {
    // When it cannot be written, the record lacks its socket, which is allowed.
    append("-" + std::to_string(inode) + "\n");
    --records_;
    if (lines_ > 2 * records_ + kSpareLines) compact();
}

bool Journal::append(const std::string& line) {
    const Fd file(openat(folder_, name_, O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!file) return false;
    const ssize_t written = pwrite(file.get(), line.data(), line.size(), size_);
    if (written == static_cast<ssize_t>(line.size())) {
        size_ += written;
        ++lines_;
        return true;
    }
    const int error = written < 0 ? errno : ENOSPC;
    [[maybe_unused]] const int restored = ftruncate(file.get(), size_);
    errno = error;
    return false;
}

void Journal::compact() {
    if (!makeFile(folder_, kNewFile)) return;
    Journal fresh(folder_, kNewFile);
    bool whole = true;
    for (const auto& [inode, name] : read(folder_)) whole = whole && fresh.add(inode, name);
    // The new file takes the old one's place at once: a process killed here leaves one or the other.
    if (!whole || renameat(folder_, kNewFile, folder_, kFile) != 0) return;
    fresh.name_ = kFile;
    *this = fresh;
}

}  // namespace Services::Nodes
