#include "simulator/Model.h"

#include <algorithm>

// The canned devices. Each shows one behaviour; a scenario says where and when they are on the air.

namespace Simulator {

namespace {

using namespace std::chrono_literals;
using Kind = Step::Kind;

// Classes of device: service classes, major class, minor class as in the Assigned Numbers.
constexpr std::uint32_t kKeyboard = 0x002540;  // limited discoverable; peripheral, keyboard
constexpr std::uint32_t kMouse = 0x002580;
constexpr std::uint32_t kHeadset = 0x240404;  // audio and rendering; audio/video, headset
constexpr std::uint32_t kSpeaker = 0x240414;
constexpr std::uint32_t kPhone = 0x5a020c;  // telephony, networking, capturing, object transfer; phone, smart phone
constexpr std::uint32_t kComputer = 0x6c010c;
constexpr std::uint32_t kPrinter = 0x140680;

std::string profile(const char* shortNumber) {
    return "0000" + std::string(shortNumber) + "-0000-1000-8000-00805f9b34fb";
}
const std::string kSerialPort = profile("1101");
const std::string kObjectPush = profile("1105");
const std::string kAudioSource = profile("110a");
const std::string kAudioSink = profile("110b");
const std::string kRemoteControl = profile("110e");
const std::string kRemoteControlTarget = profile("110c");
const std::string kNetworkAccess = profile("1116");
const std::string kHandsFree = profile("111e");
const std::string kAudioGateway = profile("111f");
const std::string kHumanInterface = profile("1124");
const std::string kDeviceId = profile("1200");

Value services(const std::vector<std::string>& uuids) {
    return Value::strings(uuids);
}

const Step kConnect{Kind::Connect};
const Step kDisplayPinCode{Kind::DisplayPinCode};
const Step kAwaitTyping{Kind::AwaitTyping};
const Step kRequestPinCode{Kind::RequestPinCode};
const Step kSilence{Kind::Silence};
const Step kVanish{Kind::Vanish};
const Step kVanishSilently{Kind::VanishSilently};
Step wait(milliseconds delay) {
    return {Kind::Wait, delay};
}
Step fail(const Error& error) {
    return {Kind::Fail, {}, error};
}

const std::vector<Step> kTypedPinCode{kConnect, wait(50ms), kDisplayPinCode, kAwaitTyping};
const std::vector<Step> kJustPairs{kConnect, wait(50ms)};

std::vector<Model> makeModels() {
    const Value headsetServices = services({kHandsFree, kAudioSink, kRemoteControl, kDeviceId});
    const std::string tenThousand(10000, 'x');
    return {
        {"keyboard", "shows a pincode that has to be typed at it", "Desk Keyboard", kKeyboard, "input-keyboard",
         services({kHumanInterface, kDeviceId}), kTypedPinCode},
        {"headset", "just pairs", "Travel Headset", kHeadset, "audio-headset", headsetServices, kJustPairs},
        {"speaker",
         "just pairs, slowly (two seconds)",
         "Kitchen Speaker",
         kSpeaker,
         "audio-card",
         services({kAudioSink, kRemoteControl}),
         {kConnect, wait(2s)}},
        {"mouse", "just pairs and offers a single service", "Quiet Mouse", kMouse, "input-mouse",
         services({kHumanInterface}), kJustPairs},
        {"bare", "just pairs and offers no service at all", "Bare Thing", 0, "", services({}), kJustPairs},
        {"phone",
         "rejects the pairing",
         "Pocket Phone",
         kPhone,
         "phone",
         services({kAudioSource, kAudioGateway, kNetworkAccess}),
         {kConnect, wait(100ms), fail(Errors::kAuthenticationRejected)}},
        {"twice",
         "shows a second pincode while the first is being typed",
         "Forgetful Keyboard",
         kKeyboard,
         "input-keyboard",
         services({kHumanInterface}),
         {kConnect, kDisplayPinCode, wait(300ms), kDisplayPinCode, kAwaitTyping}},
        {"asks",
         "wants to be told its pincode (RequestPinCode)",
         "Old Printer",
         kPrinter,
         "printer",
         services({kSerialPort, kObjectPush}),
         {kConnect, wait(50ms), kRequestPinCode}},
        {"silent",
         "never answers the pairing",
         "Silent Computer",
         kComputer,
         "computer",
         services({kSerialPort}),
         {kConnect, kSilence}},
        {"vanishing",
         "goes away while its pincode is being typed; Pair is answered",
         "Leaving Keyboard",
         kKeyboard,
         "input-keyboard",
         services({}),
         {kConnect, kDisplayPinCode, wait(300ms), kVanish}},
        {"lost",
         "goes away while its pincode is being typed; Pair is never answered",
         "Lost Keyboard",
         kKeyboard,
         "input-keyboard",
         services({}),
         {kConnect, kDisplayPinCode, wait(300ms), kVanishSilently}},
        {"unreachable",
         "cannot be reached (page time-out after five seconds)",
         "Far Phone",
         kPhone,
         "phone",
         services({}),
         {wait(5120ms), fail(Errors::kConnectionAttemptFailed)}},
        {"hesitant",
         "lets the authentication time out",
         "Hesitant Phone",
         kPhone,
         "phone",
         services({}),
         {kConnect, wait(500ms), fail(Errors::kAuthenticationTimeout)}},
        {"failing",
         "fails the authentication after its pincode was shown",
         "Failing Keyboard",
         kKeyboard,
         "input-keyboard",
         services({}),
         {kConnect, kDisplayPinCode, wait(200ms), fail(Errors::kAuthenticationFailed)}},
        {"profile-fails", "pairs, but no profile can be connected", "Stubborn Headset", kHeadset, "audio-headset",
         headsetServices, kJustPairs, 20ms, Error{"org.bluez.Error.Failed", "br-connection-profile-unavailable"}},
        {"profile-slow", "pairs, and takes three seconds to connect a profile", "Slow Headset", kHeadset,
         "audio-headset", headsetServices, kJustPairs, 3000ms},
        {"profile-never", "pairs, and never answers ConnectProfile", "Deaf Headset", kHeadset, "audio-headset",
         headsetServices, kJustPairs, milliseconds(-1)},
        {"unreadable",
         "just pairs, but none of its properties can be read",
         "Closed Headset",
         kHeadset,
         "audio-headset",
         headsetServices,
         kJustPairs,
         20ms,
         {},
         {},
         {},
         {"Address", "Name", "Alias", "Class", "Paired", "UUIDs", "Adapter"}},
        {"wrong-types",
         "just pairs, but its properties have types of their own",
         "",
         0,
         "",
         Value::uint32(17),
         kJustPairs,
         20ms,
         {},
         {{"Alias", Value::uint32(5)},
          {"Class", Value::string("keyboard")},
          {"Paired", Value::string("no")},
          {"Adapter", Value::uint32(0)}}},
        {"no-address",
         "its properties hold no Address",
         "Nameless Thing",
         0,
         "",
         services({}),
         kJustPairs,
         20ms,
         {},
         {},
         {"Address"}},
        {"number-address",
         "its Address is a number",
         "Numbered Thing",
         0,
         "",
         services({}),
         kJustPairs,
         20ms,
         {},
         {{"Address", Value::uint64(0x00aa01000000)}}},
        {"odd-uuids", "just pairs, and lists every kind of malformed UUID among good ones", "Odd Headset", kHeadset,
         "audio-headset",
         services({kAudioSink, "110a", "", "-", "0000110g-0000-1000-8000-00805f9b34fb",
                   "110b-0000-1000-8000-00805f9b34fb", "00001112233-0000-1000-8000-00805f9b34fb",
                   "0000110e0000100080000080 5f9b34fb", "+000110c-0000-1000-8000-00805f9b34fb",
                   " 000110c-0000-1000-8000-00805f9b34fb", "0x00110c-0000-1000-8000-00805f9b34fb",
                   "FFFFFFFF-0000-1000-8000-00805F9B34FB", "0000110E-0000-1000-8000-00805F9B34FB", kAudioSink,
                   "00001124-"}),
         kJustPairs},
        {"mixed-uuids", "just pairs, and lists UUIDs of several types in variants", "Mixed Headset", kHeadset,
         "audio-headset",
         Value::array("v", {Value::variant(Value::string(kAudioSink)), Value::variant(Value::uint32(0x110a)),
                            Value::variant(Value::strings({kHandsFree}))}),
         kJustPairs},
        {"number-uuids", "just pairs, and lists its UUIDs as numbers", "Counting Headset", kHeadset, "audio-headset",
         Value::array("u", {Value::uint32(0x110a), Value::uint32(0x110b)}), kJustPairs},
        {"control-alias", "has control characters in its alias", "Bell\a and \x1b[31mred\x1b[0m,\nsecond line\ttab\x7f",
         kHeadset, "audio-headset", headsetServices, kJustPairs},
        {"long-alias", "has an alias of 10,000 characters", tenThousand, kHeadset, "audio-headset", headsetServices,
         kJustPairs},
        {"path-alias", "has an alias that looks like a path", "../../etc/passwd/", kHeadset, "audio-headset",
         headsetServices, kJustPairs},
        {"unicode-alias", "has an alias in several scripts, right to left among them",
         "Ohrhörer 耳机 אוזניות \U0001F3A7", kHeadset, "audio-headset", headsetServices, kJustPairs},
        {"empty-alias", "has an empty alias", "", kHeadset, "audio-headset", headsetServices, kJustPairs},
    };
}

}  // namespace

const std::vector<Model>& models() {
    static const std::vector<Model> kModels = makeModels();
    return kModels;
}

const Model* findModel(const std::string& name) {
    const auto found =
        std::find_if(models().begin(), models().end(), [&](const Model& model) { return model.name == name; });
    return found == models().end() ? nullptr : &*found;
}

}  // namespace Simulator
