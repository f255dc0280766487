// The tables of this file are from the document "Assigned Numbers" of the Bluetooth SIG (2023 to 2024 editions):
// Class of Device (section 2.8), SDP service class and profile identifiers (section 3.3), GATT services (section 3.4).
// Where the document runs words together, here are blanks between them.
#include "btnode/AssignedNumbers.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace btnode {

namespace {

// Bits 13 to 22 of the Class of Device. Bit 15 is reserved.
constexpr std::array<std::string_view, 10> kServiceClasses = {
    "Limited Discoverable", "LE Audio", "",         "Positioning", "Networking", "Rendering", "Capturing",
    "Object Transfer",      "Audio",    "Telephony"};

constexpr std::array<std::string_view, 10> kMajorClasses = {
    "Miscellaneous", "Computer", "Phone", "LAN/Network Access Point", "Audio/Video", "Peripheral", "Imaging",
    "Wearable",      "Toy",      "Health"};
constexpr std::int64_t kComputer = 1;
constexpr std::int64_t kPhone = 2;
constexpr std::int64_t kNetwork = 3;
constexpr std::int64_t kAudioVideo = 4;
constexpr std::int64_t kPeripheral = 5;
constexpr std::int64_t kImaging = 6;
constexpr std::int64_t kWearable = 7;
constexpr std::int64_t kToy = 8;
constexpr std::int64_t kHealth = 9;
constexpr std::int64_t kUncategorizedMajor = 31;

// An empty name: uncategorized, or reserved.
constexpr std::array<std::string_view, 8> kComputers = {
    "", "Desktop", "Server", "Laptop", "Handheld PC/PDA", "Palm-size PC/PDA", "Wearable Computer", "Tablet"};
constexpr std::array<std::string_view, 6> kPhones = {
    "", "Cellular", "Cordless", "Smartphone", "Modem/Voice Gateway", "Common ISDN Access"};
// Indexed by the upper three bits of the minor class.
constexpr std::array<std::string_view, 8> kNetworkLoads = {"Fully available", "1-17% utilized",      "17-33% utilized",
                                                           "33-50% utilized", "50-67% utilized",     "67-83% utilized",
                                                           "83-99% utilized", "No service available"};
constexpr std::array<std::string_view, 19> kAudioVideos = {"",
                                                           "Headset",
                                                           "Hands-free",
                                                           "",
                                                           "Microphone",
                                                           "Loudspeaker",
                                                           "Headphones",
                                                           "Portable Audio",
                                                           "Car Audio",
                                                           "Set-top Box",
                                                           "HiFi Audio",
                                                           "VCR",
                                                           "Video Camera",
                                                           "Camcorder",
                                                           "Video Monitor",
                                                           "Video Display and Loudspeaker",
                                                           "Video Conferencing",
                                                           "",
                                                           "Gaming/Toy"};
// Indexed by the upper two bits of the minor class, and by its lower four.
constexpr std::array<std::string_view, 4> kPeripheralInputs = {"", "Keyboard", "Pointing Device",
                                                               "Combo Keyboard/Pointing Device"};
constexpr std::array<std::string_view, 10> kPeripheralForms = {"",
                                                               "Joystick",
                                                               "Gamepad",
                                                               "Remote Control",
                                                               "Sensing Device",
                                                               "Digitizer Tablet",
                                                               "Card Reader",
                                                               "Digital Pen",
                                                               "Handheld Scanner",
                                                               "Handheld Gestural Input Device"};
// Bits 2 to 5 of the minor class; a device may be several of them.
constexpr std::array<std::string_view, 4> kImagings = {"Display", "Camera", "Scanner", "Printer"};
constexpr std::array<std::string_view, 6> kWearables = {"", "Wristwatch", "Pager", "Jacket", "Helmet", "Glasses"};
constexpr std::array<std::string_view, 6> kToys = {"", "Robot", "Vehicle", "Doll/Action Figure", "Controller", "Game"};
constexpr std::array<std::string_view, 16> kHealths = {"",
                                                       "Blood Pressure Monitor",
                                                       "Thermometer",
                                                       "Weighing Scale",
                                                       "Glucose Meter",
                                                       "Pulse Oximeter",
                                                       "Heart/Pulse Rate Monitor",
                                                       "Health Data Display",
                                                       "Step Counter",
                                                       "Body Composition Analyzer",
                                                       "Peak Flow Monitor",
                                                       "Medication Monitor",
                                                       "Knee Prosthesis",
                                                       "Ankle Prosthesis",
                                                       "Generic Health Manager",
                                                       "Personal Mobility Device"};

struct Profile {
    std::uint16_t number;
    std::string_view name;
};

// Ascending, for the binary search.
constexpr Profile kProfiles[] = {
    {0x1000, "Service Discovery Server"},
    {0x1001, "Browse Group Descriptor"},
    {0x1101, "Serial Port"},
    {0x1102, "LAN Access Using PPP"},
    {0x1103, "Dialup Networking"},
    {0x1104, "IrMC Sync"},
    {0x1105, "OBEX Object Push"},
    {0x1106, "OBEX File Transfer"},
    {0x1107, "IrMC Sync Command"},
    {0x1108, "Headset"},
    {0x1109, "Cordless Telephony"},
    {0x110a, "Audio Source"},
    {0x110b, "Audio Sink"},
    {0x110c, "A/V Remote Control Target"},
    {0x110d, "Advanced Audio Distribution"},
    {0x110e, "A/V Remote Control"},
    {0x110f, "A/V Remote Control Controller"},
    {0x1110, "Intercom"},
    {0x1111, "Fax"},
    {0x1112, "Headset - Audio Gateway (AG)"},
    {0x1113, "WAP"},
    {0x1114, "WAP Client"},
    {0x1115, "PANU"},
    {0x1116, "NAP"},
    {0x1117, "GN"},
    {0x1118, "Direct Printing"},
    {0x1119, "Reference Printing"},
    {0x111a, "Basic Imaging Profile"},
    {0x111b, "Imaging Responder"},
    {0x111c, "Imaging Automatic Archive"},
    {0x111d, "Imaging Referenced Objects"},
    {0x111e, "Handsfree"},
    {0x111f, "Handsfree Audio Gateway"},
    {0x1120, "Direct Printing Reference Objects Service"},
    {0x1121, "Reflected UI"},
    {0x1122, "Basic Printing"},
    {0x1123, "Printing Status"},
    {0x1124, "Human Interface Device Service"},
    {0x1125, "Hardcopy Cable Replacement"},
    {0x1126, "HCR Print"},
    {0x1127, "HCR Scan"},
    {0x1128, "Common ISDN Access"},
    {0x112d, "SIM Access"},
    {0x112e, "Phonebook Access Client"},
    {0x112f, "Phonebook Access Server"},
    {0x1130, "Phonebook Access"},
    {0x1131, "Headset - HS"},
    {0x1132, "Message Access Server"},
    {0x1133, "Message Notification Server"},
    {0x1134, "Message Access Profile"},
    {0x1135, "GNSS"},
    {0x1136, "GNSS Server"},
    {0x1137, "3D Display"},
    {0x1138, "3D Glasses"},
    {0x1139, "3D Synchronization"},
    {0x113a, "MPS Profile"},
    {0x113b, "MPS Service"},
    {0x113c, "CTN Access Service"},
    {0x113d, "CTN Notification Service"},
    {0x113e, "CTN Profile"},
    {0x1200, "PnP Information"},
    {0x1201, "Generic Networking"},
    {0x1202, "Generic File Transfer"},
    {0x1203, "Generic Audio"},
    {0x1204, "Generic Telephony"},
    {0x1205, "UPNP Service"},
    {0x1206, "UPNP IP Service"},
    {0x1300, "ESDP UPNP IP PAN"},
    {0x1301, "ESDP UPNP IP LAP"},
    {0x1302, "ESDP UPNP L2CAP"},
    {0x1303, "Video Source"},
    {0x1304, "Video Sink"},
    {0x1305, "Video Distribution"},
    {0x1400, "HDP"},
    {0x1401, "HDP Source"},
    {0x1402, "HDP Sink"},
    {0x1800, "Generic Access"},
    {0x1801, "Generic Attribute"},
    {0x1802, "Immediate Alert"},
    {0x1803, "Link Loss"},
    {0x1804, "Tx Power"},
    {0x1805, "Current Time"},
    {0x1806, "Reference Time Update"},
    {0x1807, "Next DST Change"},
    {0x1808, "Glucose"},
    {0x1809, "Health Thermometer"},
    {0x180a, "Device Information"},
    {0x180d, "Heart Rate"},
    {0x180e, "Phone Alert Status"},
    {0x180f, "Battery"},
    {0x1810, "Blood Pressure"},
    {0x1811, "Alert Notification"},
    {0x1812, "Human Interface Device"},
    {0x1813, "Scan Parameters"},
    {0x1814, "Running Speed and Cadence"},
    {0x1815, "Automation IO"},
    {0x1816, "Cycling Speed and Cadence"},
    {0x1818, "Cycling Power"},
    {0x1819, "Location and Navigation"},
    {0x181a, "Environmental Sensing"},
    {0x181b, "Body Composition"},
    {0x181c, "User Data"},
    {0x181d, "Weight Scale"},
    {0x181e, "Bond Management"},
    {0x181f, "Continuous Glucose Monitoring"},
    {0x1820, "Internet Protocol Support"},
    {0x1821, "Indoor Positioning"},
    {0x1822, "Pulse Oximeter"},
    {0x1823, "HTTP Proxy"},
    {0x1824, "Transport Discovery"},
    {0x1825, "Object Transfer"},
    {0x1826, "Fitness Machine"},
    {0x1827, "Mesh Provisioning"},
    {0x1828, "Mesh Proxy"},
    {0x1829, "Reconnection Configuration"},
    {0x183a, "Insulin Delivery"},
    {0x183b, "Binary Sensor"},
    {0x183c, "Emergency Configuration"},
    {0x183d, "Authorization Control"},
    {0x183e, "Physical Activity Monitor"},
    {0x183f, "Elapsed Time"},
    {0x1840, "Generic Health Sensor"},
    {0x1843, "Audio Input Control"},
    {0x1844, "Volume Control"},
    {0x1845, "Volume Offset Control"},
    {0x1846, "Coordinated Set Identification"},
    {0x1847, "Device Time"},
    {0x1848, "Media Control"},
    {0x1849, "Generic Media Control"},
    {0x184a, "Constant Tone Extension"},
    {0x184b, "Telephone Bearer"},
    {0x184c, "Generic Telephone Bearer"},
    {0x184d, "Microphone Control"},
    {0x184e, "Audio Stream Control"},
    {0x184f, "Broadcast Audio Scan"},
    {0x1850, "Published Audio Capabilities"},
    {0x1851, "Basic Audio Announcement"},
    {0x1852, "Broadcast Audio Announcement"},
    {0x1853, "Common Audio"},
    {0x1854, "Hearing Access"},
    {0x1855, "Telephony and Media Audio"},
    {0x1856, "Public Broadcast Announcement"},
    {0x1857, "Electronic Shelf Label"},
};

constexpr bool ascending() {
    for (std::size_t at = 1; at < std::size(kProfiles); ++at) {
        if (kProfiles[at - 1].number >= kProfiles[at].number) return false;
    }
    return true;
}
static_assert(ascending());

template <std::size_t Size>
std::string entry(const std::array<std::string_view, Size>& table, std::int64_t index) {
    if (index < 0 || index >= static_cast<std::int64_t>(Size)) return {};
    return std::string(table[static_cast<std::size_t>(index)]);
}

std::string join(const std::string& one, const std::string& other) {
    return one.empty() || other.empty() ? one + other : one + ", " + other;
}

/// Letters and digits in lower case: what is left of a name when blanks and punctuation do not count.
std::string bare(std::string_view name) {
    std::string kept;
    for (const char c : name) {
        if (c >= 'A' && c <= 'Z') {
            kept.push_back(static_cast<char>(c - 'A' + 'a'));
        } else if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) {
            kept.push_back(c);
        }
    }
    return kept;
}

}  // namespace

std::vector<std::string> majorServiceClasses(std::int64_t bits) {
    std::vector<std::string> names;
    for (std::size_t bit = 0; bit < kServiceClasses.size(); ++bit) {
        if ((bits >> bit & 1) != 0 && !kServiceClasses[bit].empty()) names.emplace_back(kServiceClasses[bit]);
    }
    return names;
}

std::string majorDeviceClass(std::int64_t major) {
    if (major == kUncategorizedMajor) return "Uncategorized";
    const std::string name = entry(kMajorClasses, major);
    return name.empty() ? "Reserved" : name;
}

std::string minorDeviceClass(std::int64_t major, std::int64_t minor) {
    if (minor < 0) return {};
    switch (major) {
        case kComputer:
            return entry(kComputers, minor);
        case kPhone:
            return entry(kPhones, minor);
        case kNetwork:
            return entry(kNetworkLoads, minor >> 3);
        case kAudioVideo:
            return entry(kAudioVideos, minor);
        case kPeripheral:
            return join(entry(kPeripheralInputs, minor >> 4), entry(kPeripheralForms, minor & 0xf));
        case kImaging: {
            std::string names;
            for (std::int64_t bit = 0; bit < 4; ++bit) {
                if ((minor >> (bit + 2) & 1) != 0) names = join(names, entry(kImagings, bit));
            }
            return names;
        }
        case kWearable:
            return entry(kWearables, minor);
        case kToy:
            return entry(kToys, minor);
        case kHealth:
            return entry(kHealths, minor);
        default:
            return {};
    }
}

std::string deviceClass(std::int64_t major, std::int64_t minor) {
    const std::string detail = minorDeviceClass(major, minor);
    return detail.empty() ? majorDeviceClass(major) : majorDeviceClass(major) + ": " + detail;
}

std::optional<std::string_view> profileName(std::uint32_t number) {
    const auto* const found =
        std::lower_bound(std::begin(kProfiles), std::end(kProfiles), number,
                         [](const Profile& each, std::uint32_t sought) { return each.number < sought; });
    if (found == std::end(kProfiles) || found->number != number) return std::nullopt;
    return found->name;
}

std::vector<std::uint32_t> profilesNamed(std::string_view text, const std::vector<std::uint32_t>& among) {
    const std::string sought = bare(text);
    std::vector<std::uint32_t> equal;
    std::vector<std::uint32_t> beginning;
    if (sought.empty()) return equal;
    for (const std::uint32_t number : among) {
        const std::string name = bare(profileName(number).value_or(std::string_view()));
        std::vector<std::uint32_t>* const group = name == sought             ? &equal
                                                  : name.starts_with(sought) ? &beginning
                                                                             : nullptr;
        // A device may list a number twice.
        if (group != nullptr && std::find(group->begin(), group->end(), number) == group->end()) {
            group->push_back(number);
        }
    }
    return equal.empty() ? beginning : equal;
}

std::vector<std::uint32_t> assignedProfiles() {
    std::vector<std::uint32_t> numbers;
    for (const Profile& each : kProfiles) numbers.push_back(each.number);
    return numbers;
}

}  // namespace btnode
