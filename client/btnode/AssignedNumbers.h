#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Numbers of the Bluetooth Assigned Numbers document in words.
namespace btnode {

/// The names of the bits of MAJOR_SERVICE_CLASSES, lowest first; bit 0 there is bit 13 of the Class of Device.
std::vector<std::string> majorServiceClasses(std::int64_t bits);
std::string majorDeviceClass(std::int64_t major);
/// Empty when the number means nothing in particular within its major class.
std::string minorDeviceClass(std::int64_t major, std::int64_t minor);
/// Major and minor in one short phrase, for example "Peripheral: Keyboard".
std::string deviceClass(std::int64_t major, std::int64_t minor);

/// The assigned name of a profile number (the first 32 bits of a service's UUID); nothing for a number that is not
/// assigned.
std::optional<std::string_view> profileName(std::uint32_t number);
/// Numbers whose names fit the text: those that are equal but for case, blanks and punctuation, else those that begin
/// so.
std::vector<std::uint32_t> profilesNamed(std::string_view text, const std::vector<std::uint32_t>& among);
/// All numbers with an assigned name, ascending.
std::vector<std::uint32_t> assignedProfiles();

}  // namespace btnode
