#include <fmt/format.h>

#include <algorithm>
#include <boost/json/array.hpp>
#include <charconv>
#include <optional>

#include "btnode/AssignedNumbers.h"
#include "btnode/Node.h"
#include "client/cli/Profiles.h"
#include "client/cli/Text.h"
#include "client/cli/Verbs.h"
#include "client/cli/Words.h"

namespace btnode::cli {

namespace json = boost::json;

namespace {

struct Offered {
    std::vector<std::uint32_t> all;
    std::vector<std::uint32_t> active;

    /// "Audio Sink (0x110b), …"
    std::string words() const {
        std::vector<std::string> texts;
        for (const std::uint32_t number : all) texts.push_back(profileTitle(number));
        return joined(texts, ", ");
    }
};

Result<Offered> readProfiles(Node& node, const Limit& limit) {
    Offered offered;
    for (auto [attribute, numbers] : {std::pair{"PROFILES", &offered.all}, {"ACTIVE_PROFILES", &offered.active}}) {
        Result<std::vector<Value>> values = node.get(attribute, limit);
        if (!values) return values.error();
        if (values->empty()) return Error{ErrorKind::Gone, node.name() + " is gone: BlueZ no longer knows the device"};
        *numbers = profileNumbers(values->front());
    }
    return offered;
}

bool isHex(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

std::optional<std::uint32_t> parseNumber(std::string_view text, int base) {
    std::uint32_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, number, base);
    if (failure != std::errc() || stop != end) return std::nullopt;
    return number;
}

/// Nothing for a text that is no number and no UUID; an error for one that is too large.
std::optional<Result<std::uint32_t>> numberOf(std::string_view text) {
    std::optional<std::uint32_t> number;
    // A UUID's number are its first eight digits: 0000110b-0000-1000-8000-00805f9b34fb.
    const bool isUuid = text.size() == 36 && text[8] == '-' && text[13] == '-' && text[18] == '-' && text[23] == '-' &&
                        isHex(text.substr(0, 8)) && isHex(text.substr(9, 4)) && isHex(text.substr(14, 4)) &&
                        isHex(text.substr(19, 4)) && isHex(text.substr(24));
    if (isUuid) {
        number = parseNumber(text.substr(0, 8), 16);
    } else if ((text.starts_with("0x") || text.starts_with("0X")) && isHex(text.substr(2))) {
        number = parseNumber(text.substr(2), 16);
    } else if (!text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos) {
        number = parseNumber(text, 10);
    } else {
        return std::nullopt;
    }
    if (number) return Result<std::uint32_t>(*number);
    return Result<std::uint32_t>(
        Error{ErrorKind::Invalid, "'" + std::string(text) + "' is no profile number: those have 32 bits"});
}

Result<std::uint32_t> findProfile(const std::string& text, const Offered& offered) {
    if (auto number = numberOf(text)) return *number;
    const std::vector<std::uint32_t> fitting = profilesNamed(text, offered.all);
    if (fitting.size() == 1) return fitting.front();
    if (fitting.size() > 1) {
        std::vector<std::string> titles;
        titles.reserve(fitting.size());
        for (const std::uint32_t each : fitting) titles.push_back(profileTitle(each));
        return Error{ErrorKind::Ambiguous, "'" + text + "' fits several profiles: " + joined(titles, ", ")};
    }
    if (offered.all.empty()) {
        return Error{ErrorKind::NotFound, "the service knows no profiles of the device",
                     "It learns them when a pairing succeeds while it runs; a number or UUID can be given instead."};
    }
    return Error{ErrorKind::NotFound, "the device has no profile '" + text + "'; it has " + offered.words()};
}

/// Why ACTIVATE_PROFILE was refused.
std::string refusal(const Offered& offered, std::uint32_t number) {
    const std::string title = profileTitle(number);
    if (std::find(offered.all.begin(), offered.all.end(), number) == offered.all.end()) {
        return "the device has no profile " + title + (offered.all.empty() ? "" : "; it has " + offered.words());
    }
    if (std::find(offered.active.begin(), offered.active.end(), number) != offered.active.end()) {
        return title + " is active already";
    }
    return "BlueZ could not connect " + title + "; the service's log has its error";
}

}  // namespace

ExitCode profilesVerb(Session& session) {
    const Limit limit = session.limit(kCallTime);
    Result<NodeName> name = session.find(Wanted::Device, limit);
    if (!name) return session.fail(name.error());
    Result<Node> node = Node::connect(session.tree, name->full, limit);
    if (!node) return session.fail(node.error());
    Result<Offered> offered = readProfiles(*node, limit);
    if (!offered) return session.fail(offered.error());

    json::array array;
    Table table;
    for (const std::uint32_t number : offered->all) {
        // A number that is listed twice is activated in its first place.
        const auto found = std::find(offered->active.begin(), offered->active.end(), number);
        const bool active = found != offered->active.end();
        if (active) offered->active.erase(found);
        const auto assigned = profileName(number);
        json::object object{{"number", number}, {"hex", profileNumberText(number)}};
        object["name"] = assigned ? json::value(std::string(*assigned)) : json::value(nullptr);
        object["active"] = active;
        array.push_back(std::move(object));
        table.row(
            {profileNumberText(number), active ? "active" : "-", assigned ? std::string(*assigned) : "(not assigned)"});
    }
    if (session.json()) {
        json::object object{{"node", name->full}, {"address", name->address}};
        object["profiles"] = std::move(array);
        session.emit(object);
        return ExitCode::Ok;
    }
    for (const std::string& line : table.lines()) session.out.line(line);
    session.out.flush();
    if (table.empty())
        session.say("No profiles are known; the service learns them when a pairing succeeds while it runs.");
    return ExitCode::Ok;
}

ExitCode activateVerb(Session& session) {
    const Limit limit = session.limit(kCallTime);
    if (auto number = numberOf(session.asked.profile); number && !*number) return session.fail(number->error());
    Result<NodeName> name = session.find(Wanted::Device, limit);
    if (!name) return session.fail(name.error());
    Result<Node> node = Node::connect(session.tree, name->full, limit);
    if (!node) return session.fail(node.error());
    Result<Offered> offered = readProfiles(*node, limit);
    if (!offered) return session.fail(offered.error());
    Result<std::uint32_t> number = findProfile(session.asked.profile, *offered);
    if (!number) return session.fail(number.error());

    const Value action = Value::list("ACTIVATE_PROFILE", {Value::of("PROFILE", std::int64_t{*number})});
    Result<std::vector<Value>> results = node->execute({action}, limit);
    if (!results) return session.fail(results.error());
    if (results->empty())
        return session.fail({ErrorKind::Gone, name->full + " is gone: BlueZ no longer knows the device"});
    const Outcome outcome = outcomeOf(results->front());
    if (outcome.code == ExitCode::Refused) {
        return session.complain(outcome.code, refusal(*offered, *number) + " (4294967295)");
    }
    if (outcome.code != ExitCode::Ok) return session.complain(outcome.code, outcome.words);
    if (session.json()) {
        json::object object{{"event", "activated"}, {"node", name->full}, {"address", name->address}};
        object["number"] = *number;
        session.emit(object);
    } else {
        session.say("Activated " + profileTitle(*number) + ".");
    }
    return ExitCode::Ok;
}

}  // namespace btnode::cli
