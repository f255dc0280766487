#include "simulator/Model.h"

#include <algorithm>

// The canned devices. Each shows one behaviour; a scenario says where and when they are on the air.

namespace Simulator {

namespace {

using namespace std::chrono_literals;
using Kind = Step::Kind;

// Classes of device: service classes, major class, minor class as in the Assigned Numbers.
constexpr std::uint32_t kKeyboard = 0x002540;  // limited discoverable; peripheral, keyboard
constexpr std::uint32_t kHeadset = 0x240404;   // audio and rendering; audio/video, headset
constexpr std::uint32_t kPhone = 0x5a020c;     // telephony, networking, capturing, object transfer; phone, smart phone

std::string profile(const char* shortNumber) {
    return "0000" + std::string(shortNumber) + "-0000-1000-8000-00805f9b34fb";
}
const std::string kAudioSource = profile("110a");
const std::string kAudioSink = profile("110b");
const std::string kRemoteControl = profile("110e");
const std::string kNetworkAccess = profile("1116");
const std::string kHandsFree = profile("111e");
const std::string kAudioGateway = profile("111f");
const std::string kHumanInterface = profile("1124");
const std::string kDeviceId = profile("1200");

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

// What the devices are made of: each model is one of these with a single thing changed.

Model keyboard() {
    Model model;
    model.classOfDevice = kKeyboard;
    model.icon = "input-keyboard";
    model.services = Value::strings({kHumanInterface, kDeviceId});
    model.pairing = {wait(50ms), kDisplayPinCode, kAwaitTyping};
    return model;
}

Model headset() {
    Model model;
    model.classOfDevice = kHeadset;
    model.icon = "audio-headset";
    model.services = Value::strings({kAudioSink, kRemoteControl, kHandsFree, kDeviceId});
    model.pairing = {wait(50ms)};
    return model;
}

Model phone() {
    Model model;
    model.classOfDevice = kPhone;
    model.icon = "phone";
    model.services = Value::strings({kAudioSource, kNetworkAccess, kAudioGateway});
    model.pairing = {wait(100ms)};
    return model;
}

Model thing() {
    Model model;
    model.pairing = {wait(50ms)};
    return model;
}

const Value kOddUuids = Value::strings({
    kAudioSink,
    "110a",                                   // no dash
    "",                                       //
    "-",                                      //
    "0000110g-0000-1000-8000-00805f9b34fb",   // no hexadecimal digit
    "110b-0000-1000-8000-00805f9b34fb",       // a dash too early
    "000011122-0000-1000-8000-00805f9b34fb",  // a dash too late
    "+000110c-0000-1000-8000-00805f9b34fb",   // a sign
    " 000110c-0000-1000-8000-00805f9b34fb",   // a blank
    "0x00110c-0000-1000-8000-00805f9b34fb",   // a prefix
    "FFFFFFFF-0000-1000-8000-00805F9B34FB",   // the largest number, in capitals
    kAudioSink,                               // a second time
    "00001124-",                              // nothing after the dash
});

const Value kMixedUuids =
    Value::array("v", {Value::variant(Value::string(kAudioSink)), Value::variant(Value::uint32(0x110a)),
                       Value::variant(Value::strings({kHandsFree}))});

std::vector<Model> makeModels() {
    std::vector<Model> models;
    const auto add = [&models](Model base, const char* name, const char* summary, const char* alias) -> Model& {
        base.name = name;
        base.summary = summary;
        base.alias = alias;
        models.push_back(std::move(base));
        return models.back();
    };

    // Pairing
    add(keyboard(), "keyboard", "shows a pincode that has to be typed at it", "Desk Keyboard");
    add(headset(), "headset", "just pairs", "Travel Headset");
    add(headset(), "speaker", "just pairs, but takes two seconds", "Kitchen Speaker").pairing = {wait(2s)};
    add(phone(), "phone", "rejects the pairing", "Pocket Phone").pairing = {wait(100ms),
                                                                            fail(Errors::kAuthenticationRejected)};
    add(keyboard(), "twice", "shows a second pincode while the first is being typed", "Forgetful Keyboard").pairing = {
        kDisplayPinCode, wait(300ms), kDisplayPinCode, kAwaitTyping};
    add(thing(), "asks", "wants to be told its pincode (RequestPinCode)", "Old Printer").pairing = {kRequestPinCode};
    add(phone(), "silent", "never answers the pairing", "Silent Phone").pairing = {kSilence};
    add(keyboard(), "vanishing", "goes away while its pincode is being typed; Pair is answered", "Leaving Keyboard")
        .pairing = {kDisplayPinCode, wait(300ms), kVanish};
    add(keyboard(), "lost", "goes away while its pincode is being typed; Pair is never answered", "Lost Keyboard")
        .pairing = {kDisplayPinCode, wait(300ms), kVanishSilently};
    add(phone(), "unreachable", "cannot be reached (page time-out after five seconds)", "Far Phone").pairing = {
        wait(5120ms), fail(Errors::kConnectionAttemptFailed)};
    add(phone(), "hesitant", "lets the authentication time out", "Hesitant Phone").pairing = {
        wait(500ms), fail(Errors::kAuthenticationTimeout)};
    add(keyboard(), "failing", "fails the authentication after its pincode was shown", "Failing Keyboard").pairing = {
        kDisplayPinCode, wait(200ms), fail(Errors::kAuthenticationFailed)};

    // Profiles
    add(thing(), "bare", "just pairs and offers no service", "Bare Thing");
    add(headset(), "profile-fails", "just pairs, but no profile can be connected", "Stubborn Headset").profileError =
        Error{"org.bluez.Error.Failed", "br-connection-refused"};
    add(headset(), "profile-slow", "just pairs, and takes three seconds to connect a profile", "Slow Headset")
        .profileDelay = 3s;
    add(headset(), "profile-never", "just pairs, and never answers ConnectProfile", "Deaf Headset").profileDelay =
        kNever;
    add(headset(), "odd-uuids", "just pairs, and lists every kind of malformed UUID among good ones", "Odd Headset")
        .services = kOddUuids;
    add(headset(), "mixed-uuids", "just pairs, and lists UUIDs of several types in variants", "Mixed Headset")
        .services = kMixedUuids;
    add(headset(), "number-uuids", "just pairs, and lists its UUIDs as numbers", "Counting Headset").services =
        Value::array("u", {Value::uint32(0x110a), Value::uint32(0x110b)});
    add(headset(), "no-list-uuids", "just pairs, and tells a number for its list of UUIDs", "Lone Headset").services =
        Value::uint32(17);

    // Properties
    add(headset(), "unreadable", "just pairs, but none of its properties can be read", "Closed Headset").unreadable = {
        "Address", "Name", "Alias", "Class", "Paired", "UUIDs", "Adapter"};
    add(headset(), "wrong-types", "just pairs, but its properties have types of their own", "").properties = {
        {"Alias", Value::uint32(5)},
        {"Class", Value::string("headset")},
        {"Paired", Value::string("no")},
        {"Adapter", Value::uint32(0)}};
    add(headset(), "no-address", "its properties hold no Address", "Nameless Headset").without = {"Address"};
    add(headset(), "number-address", "its Address is a number", "Numbered Headset").properties = {
        {"Address", Value::uint64(0x00aa01000000)}};
    add(headset(), "control-alias", "has control characters in its alias",
        "Bell\a and \x1b[31mred\x1b[0m,\nsecond line\ttab\x7f");
    add(headset(), "long-alias", "has an alias of 10,000 characters", "").alias = std::string(10000, 'x');
    add(headset(), "path-alias", "has an alias that looks like a path", "../../etc/passwd/");
    add(headset(), "unicode-alias", "has an alias in several scripts", "Ohrhörer 耳机 אוזניות \U0001F3A7");
    add(headset(), "empty-alias", "has an empty alias", "");
    return models;
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
