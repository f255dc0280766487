#include "tests/unit/host/Capture.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

namespace HostTest {

Capture::Capture() : file_(memfd_create("captured", MFD_CLOEXEC)) {
    std::fflush(stdout);
    original_ = Descriptor(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
    dup2(file_.get(), STDOUT_FILENO);
}

void Capture::restore() {
    if (original_.get() < 0) return;
    dup2(original_.get(), STDOUT_FILENO);
    original_.close();
}

std::vector<std::string> Capture::lines() {
    restore();
    lseek(file_.get(), 0, SEEK_SET);
    return linesOf(Reader(file_.get()).rest());
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

std::vector<std::string> withoutTimes(std::vector<std::string> lines) {
    for (std::string& line : lines) {
        const std::size_t level = line.find('[');
        if (level != std::string::npos) line.erase(0, level);
    }
    return lines;
}

}  // namespace HostTest
