#include "client/cli/Words.h"

#include <fmt/format.h>

namespace btnode::cli {

namespace {

Outcome ofCode(const std::string& action, std::int64_t code) {
    switch (code) {
        case 0:
            return {ExitCode::Ok, {}};
        case kResultRefused:
            if (action == "CONNECT") {
                return {ExitCode::Refused,
                        "the pairing failed, or the device is paired or pairing already (4294967295)"};
            }
            return {ExitCode::Refused, "refused (4294967295)"};
        case kResultNothingToWaitFor:
            return {ExitCode::Failure, "no pairing is under way (33923)"};
        case kResultUnknownAction:
            return {ExitCode::Failure, "the device knows no such action (33862)"};
        case kResultFailure:
            break;
        default:
            return {ExitCode::Failure, fmt::format("the service answered with the code {}", code)};
    }
    if (action == "WAIT_CONNECTED") {
        return {ExitCode::Rejected, "the pairing did not end paired, or not in time (33859)"};
    }
    if (action == "DISCONNECT") return {ExitCode::Failure, "no pairing is under way that could be cancelled (33859)"};
    if (action == "INQUIRY_START") {
        return {
            ExitCode::Failure,
            "BlueZ did not start the inquiry (33859); is there an adapter, is it powered, and not blocked (rfkill)?"};
    }
    if (action == "INQUIRY_STOP") {
        return {ExitCode::Failure, "BlueZ did not stop the inquiry (33859); the service's log has its error"};
    }
    return {ExitCode::Failure, "the action failed (33859); the service's log may tell why"};
}

std::string text(const Value& value, bool names) {
    switch (value.kind) {
        case Value::Kind::Integer:
            return std::to_string(static_cast<std::uint64_t>(value.integer));
        case Value::Kind::String:
            return value.text;
        case Value::Kind::List: {
            std::string out;
            for (const Value& each : value.children) {
                if (!out.empty()) out += ' ';
                if (names && each.name) out += *each.name + "=";
                out += each.kind == Value::Kind::List ? "[" + text(each, names) + "]" : text(each, names);
            }
            return out;
        }
        case Value::Kind::None:
            break;
    }
    return {};
}

}  // namespace

std::string statusWord(std::int64_t status) {
    switch (status) {
        case kStatusBusy:
            return "busy";
        case kStatusUnpaired:
            return "not paired";
        case kStatusPairing:
            return "pairing";
        case kStatusPaired:
            return "paired";
        default:
            return fmt::format("status {}", status);
    }
}

Outcome outcomeOf(const Value& result) {
    const std::string action = result.name.value_or("");
    switch (result.kind) {
        case Value::Kind::Integer:
            return ofCode(action, result.integer);
        case Value::Kind::String:
            // The texts of refusals: "Invalid action", "Invalid Action", "Invalid option …", "Invalid format for …".
            if (result.text.starts_with("Invalid ")) {
                return {ExitCode::Failure, "the service answered '" + result.text + "'"};
            }
            return {ExitCode::Ok, {}};
        case Value::Kind::List: {
            const Value* code = result.child("RESULT");
            if (code == nullptr || code->kind != Value::Kind::Integer) return {ExitCode::Ok, {}};
            if (code->integer == kResultPincode && result.child("PINCODE") != nullptr) return {ExitCode::Ok, {}};
            return ofCode(action, code->integer);
        }
        case Value::Kind::None:
            break;
    }
    return {ExitCode::Ok, {}};
}

std::string plainText(const Value& value) {
    return text(value, false);
}
std::string namedText(const Value& value) {
    return text(value, true);
}

}  // namespace btnode::cli
