#include <array>

#include "adapters/Adapter.h"
#include "platform/host/PosixC.h"
#include "platform/host/StrConv.h"
#include "platform/host/SysLog.h"

// Where an adapter's name comes from when its controller is a USB one: /sys/class/bluetooth/hci0 is a link to
// .../usb1/1-1/1-1:1.0/bluetooth/hci0, a child of one interface of the USB device .../usb1/1-1, whose file "product"
// holds the string that the maker gave it.

namespace Services::Bluetooth::Linux {

namespace {

namespace C = Libraries::Platform::Posix::C;

constexpr std::string_view kPathPrefix = "bluez/";
constexpr std::size_t kBufferBytes = 1024;

/// Keeps what stands before the last occurrence of the pattern and of the character in front of it; false when there is
/// no such text.
bool cutBeforeLast(std::string_view& path, std::string_view pattern) {
    const std::size_t position = path.rfind(pattern);
    if (position == std::string_view::npos || position == 0) return false;
    path = path.substr(0, position - 1);
    return true;
}

}  // namespace

Ref<String> Adapter::productName(const Ref<String>& path) {
    const std::size_t prefix = path->find(kPathPrefix);
    if (prefix == String::kNone) return nullptr;
    const Ref<String> controller = path->substring(prefix + kPathPrefix.size());
    if (controller->length() == 0) return nullptr;

    const Ref<String> resolved =
        resolveRealPath(String::create("/sys/class/bluetooth/" + std::string(controller->view())));
    if (!resolved) return nullptr;
    std::string_view directory = resolved->view();
    if (!cutBeforeLast(directory, controller->view()) || !cutBeforeLast(directory, "bluetooth")) return nullptr;
    const std::size_t slash = directory.rfind('/');
    if (slash == std::string_view::npos) return nullptr;

    Ref<String> product;
    readFirstLineOfFile(String::create(directory.substr(0, slash)), String::create("product"), &product);
    return product;
}

bool Adapter::readFirstLineOfFile(const Ref<String>& directory, const Ref<String>& fileName, Ref<String>* line) {
    std::string path(viewOf(directory));
    if (fileName) path.append("/").append(fileName->view());
    std::FILE* const file = C::fopen(path.c_str(), "r");
    if (!file) return false;

    std::array<char, kBufferBytes> buffer{};
    // A line without a single character is no item: the format wants one at least.
    const bool read = C::fscanf(file, "%1023[^\n]", buffer.data()) == 1;
    if (read) {
        *line = StringUtil::trim(String::create(buffer.data()));
    } else {
        LogRecord(3, logHandle_) << "failed to read string from file " << fileName;
    }
    C::fclose(file);
    return read;
}

Ref<String> Adapter::resolveRealPath(const Ref<String>& path) {
    std::array<char, kBufferBytes> buffer{};
    if (!C::realpath(path->cstr(), buffer.data())) return nullptr;
    return String::create(buffer.data());
}

}  // namespace Services::Bluetooth::Linux
