#ifndef SIMULATOR_MODEL_H
#define SIMULATOR_MODEL_H

#include <optional>
#include <string>
#include <vector>

#include "simulator/Errors.h"
#include "simulator/Loop.h"
#include "simulator/Value.h"

namespace Simulator {

/// One thing that happens while a device is being paired. The next step follows when the step is done.
struct Step {
    enum class Kind {
        Wait,            ///< `delay` passes
        DisplayPinCode,  ///< a new pincode is made and shown through the agent; done when the agent answered
        AwaitTyping,     ///< somebody has to type the pincode at the device; a wrong one ends in AuthenticationFailed
        RequestPinCode,  ///< the agent is asked for the pincode of the device
        Fail,            ///< the pairing ends with `error`
        Vanish,          ///< the device goes away, which ends the pairing as bluetoothd does it
        VanishSilently,  ///< the device goes away and Pair is never answered
        Silence,         ///< nothing happens any more
    };

    Kind kind;
    milliseconds delay{};
    Error error{};
};

/// A time that does not come.
inline constexpr milliseconds kNever{-1};

/// A kind of device, with one behaviour, that can be put on the air any number of times. After the last step of its
/// pairing the device is paired.
struct Model {
    std::string name;
    std::string summary;
    std::string alias;
    std::uint32_t classOfDevice = 0;
    std::string icon;
    /// "UUIDs": what it offers, which it also advertises.
    Value services = Value::strings({});
    std::vector<Step> pairing{};

    /// How ConnectProfile is answered, and after what time.
    milliseconds profileDelay{20};
    std::optional<Error> profileError{};

    /// Told in place of what a proper device tells.
    NamedValues properties{};
    /// Not told at all.
    std::vector<std::string> without{};
    /// Reading fails.
    std::vector<std::string> unreadable{};
};

const std::vector<Model>& models();
/// Null when there is no model of that name.
const Model* findModel(const std::string& name);

}  // namespace Simulator

#endif
