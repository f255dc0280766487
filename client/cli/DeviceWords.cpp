#include "client/cli/DeviceWords.h"

#include "btnode/AssignedNumbers.h"
#include "client/cli/Json.h"
#include "client/cli/Words.h"

namespace btnode::cli {

namespace json = boost::json;

const std::vector<std::string>& deviceAttributes() {
    static const std::vector<std::string> names = {"NAME", "STATUS", "MAJOR_SERVICE_CLASSES", "MAJOR_DEVICE_CLASS",
                                                   "MINOR_DEVICE_CLASS"};
    return names;
}

DeviceWords DeviceWords::of(const Tree::Answers& answers) {
    const auto value = [&](std::size_t index) {
        return index < answers.size() && !answers[index].empty() ? answers[index].front() : Value();
    };
    DeviceWords words;
    if (answers.empty() || answers.front().empty()) return words;
    words.name = value(0).text;
    words.statusCode = value(1).integer;
    words.status = statusWord(words.statusCode);
    words.services = value(2).integer;
    words.major = value(3).integer;
    words.minor = value(4).integer;
    words.deviceClass = btnode::deviceClass(words.major, words.minor);
    return words;
}

void DeviceWords::addTo(json::object& object) const {
    object["name"] = name;
    object["status"] = statusJson(statusCode);
    object["class"] = classJson(services, major, minor);
}

json::object statusJson(std::int64_t status) {
    return {{"code", status}, {"text", statusWord(status)}};
}

json::object classJson(std::int64_t services, std::int64_t major, std::int64_t minor) {
    json::object object;
    object["major"] = major;
    object["minor"] = minor;
    object["services"] = services;
    object["text"] = deviceClass(major, minor);
    object["service_names"] = stringsJson(majorServiceClasses(services));
    return object;
}

}  // namespace btnode::cli
