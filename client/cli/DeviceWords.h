#pragma once

#include <boost/json/object.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "btnode/Tree.h"

namespace btnode::cli {

/// The attributes that describe a device in a line, in the order in which `DeviceWords::of` takes their values.
const std::vector<std::string>& deviceAttributes();

/// What there is to say about a device in a line. Empty fields for a device that is gone.
struct DeviceWords {
    std::string name;
    std::int64_t statusCode = 0;
    std::string status;
    std::int64_t services = 0;
    std::int64_t major = 0;
    std::int64_t minor = 0;
    std::string deviceClass;

    static DeviceWords of(const Tree::Answers& answers);
    /// Adds "name", "status" (code and text) and "class" (numbers and texts).
    void addTo(boost::json::object& object) const;

    bool operator==(const DeviceWords&) const = default;
};

/// Status and class as objects of JSON, from the numbers of the attributes.
boost::json::object statusJson(std::int64_t status);
boost::json::object classJson(std::int64_t services, std::int64_t major, std::int64_t minor);

}  // namespace btnode::cli
