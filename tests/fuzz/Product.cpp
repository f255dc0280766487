// The file with which a USB device tells its name: whatever the device's maker put there.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "adapters/Adapter.h"
#include "platform/host/SysLog.h"
#include "tests/fuzz/Check.h"

namespace Services::Bluetooth::Linux {

struct AdapterProbe {
    static bool readFirstLineOfFile(const Ref<String>& directory, const Ref<String>& fileName, Ref<String>* line) {
        return Adapter::readFirstLineOfFile(directory, fileName, line);
    }
};

}  // namespace Services::Bluetooth::Linux

namespace {

using Fuzz::check;
using Services::Bluetooth::Linux::AdapterProbe;

constexpr std::size_t kLongest = 1023;
constexpr std::string_view kBlanks = " \t\n\v\f\r";

std::string_view firstLine(std::string_view content) {
    return content.substr(0, std::min(content.find('\n'), kLongest));
}

std::string_view expectedName(std::string_view line) {
    line = line.substr(0, line.find('\0'));
    const std::size_t begin = line.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos) return {};
    return line.substr(begin, line.find_last_not_of(kBlanks) - begin + 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    SysLogFilter::setLevel(5);
    const int file = ::memfd_create("product", MFD_CLOEXEC);
    check(file >= 0 && ::write(file, data, size) == static_cast<ssize_t>(size), "there is a file");
    Ref<String> name;
    const bool read =
        AdapterProbe::readFirstLineOfFile(String::create("/proc/self/fd"), String::create(std::to_string(file)), &name);
    ::close(file);
    const std::string_view line = firstLine(Fuzz::viewOf(data, size));
    check(read == !line.empty(), "a file whose first line is not empty has a name");
    if (read) check(name->view() == expectedName(line), "the name is the first line without blanks around it");
    check(read || !name, "without a line there is no name");
    return 0;
}
