#include <boost/json/array.hpp>
#include <optional>

#include "btnode/AssignedNumbers.h"
#include "btnode/Node.h"
#include "client/cli/Arguments.h"
#include "client/cli/DeviceWords.h"
#include "client/cli/Json.h"
#include "client/cli/Profiles.h"
#include "client/cli/Text.h"
#include "client/cli/Verbs.h"
#include "client/cli/Words.h"

namespace btnode::cli {

namespace json = boost::json;

namespace {

Error objectGone(const std::string& node) {
    return {ErrorKind::Gone, node + " is gone: what it stood for has just been removed"};
}

Result<Node> open(Session& session, const Limit& limit) {
    Result<NodeName> name = session.find(Wanted::Any, limit);
    if (!name) return name.error();
    return Node::connect(session.tree, name->full, limit);
}

/// Asks for all of them at once.
Result<Tree::Answers> readAttributes(Node& node, const std::vector<std::string>& attributes, const Limit& limit) {
    Tree::Answers answers;
    // No more at once than a node keeps waiting for one connection.
    constexpr std::size_t kAtOnce = 32;
    for (std::size_t begin = 0; begin < attributes.size(); begin += kAtOnce) {
        const std::size_t end = std::min(attributes.size(), begin + kAtOnce);
        for (std::size_t at = begin; at < end; ++at) {
            if (Result<Done> asked = node.askFor(attributes[at], limit); !asked) return asked.error();
        }
        for (std::size_t at = begin; at < end; ++at) {
            Result<std::vector<Value>> values = node.takeAnswer(limit);
            if (!values) return values.error();
            answers.push_back(std::move(*values));
        }
    }
    return answers;
}

std::int64_t integerOf(const Tree::Answers& answers, const std::vector<std::string>& names, std::string_view name) {
    for (std::size_t at = 0; at < names.size(); ++at) {
        if (names[at] == name && !answers[at].empty()) return answers[at].front().integer;
    }
    return 0;
}

/// An attribute of a device with what it means.
std::string explained(const std::string& name, const Value& value, std::int64_t major) {
    std::string meaning;
    if (name == "STATUS") {
        meaning =
            value.integer == kStatusBusy ? "busy: pincode shown, cancelling or unpairing" : statusWord(value.integer);
    } else if (name == "MAJOR_SERVICE_CLASSES") {
        meaning = joined(majorServiceClasses(value.integer), ", ");
    } else if (name == "MAJOR_DEVICE_CLASS") {
        meaning = majorDeviceClass(value.integer);
    } else if (name == "MINOR_DEVICE_CLASS") {
        meaning = minorDeviceClass(major, value.integer);
    } else if (name == "PROFILES" || name == "ACTIVE_PROFILES") {
        std::vector<std::string> titles;
        for (const std::uint32_t number : profileNumbers(value)) titles.push_back(profileTitle(number));
        return joined(titles, ", ");
    }
    return plainText(value) + (meaning.empty() ? "" : " (" + meaning + ")");
}

void printNode(Session& session, const Description& described, const Tree::Answers& answers, bool isDevice) {
    session.out.line(session.out.bold(sanitised(described.node)) + "  (" + sanitised(described.server) + ")");
    Table table;
    const std::int64_t major = integerOf(answers, described.attributes, "MAJOR_DEVICE_CLASS");
    for (std::size_t at = 0; at < described.attributes.size(); ++at) {
        const Value& value = answers[at].front();
        const std::string& name = described.attributes[at];
        table.row({sanitised(name), sanitised(isDevice ? explained(name, value, major) : plainText(value))});
    }
    if (!described.actions.empty()) table.row({"Actions", sanitised(joined(described.actions, " "))});
    for (const std::string& line : table.lines()) session.out.line("  " + line);
    session.out.flush();
}

json::object nodeJson(const Description& described, const Tree::Answers& answers, bool isDevice) {
    json::object attributes;
    for (std::size_t at = 0; at < described.attributes.size(); ++at) {
        attributes[described.attributes[at]] = payloadJson(answers[at].front());
    }
    json::object object{{"node", described.node}, {"server", described.server}};
    object["attributes"] = std::move(attributes);
    object["actions"] = stringsJson(described.actions);
    if (isDevice) {
        const auto number = [&](std::string_view name) { return integerOf(answers, described.attributes, name); };
        object["status"] = statusJson(number("STATUS"));
        object["class"] =
            classJson(number("MAJOR_SERVICE_CLASSES"), number("MAJOR_DEVICE_CLASS"), number("MINOR_DEVICE_CLASS"));
    }
    return object;
}

std::string meant(const std::string& text, const std::vector<std::string>& known) {
    const std::string near = nearest(text, known);
    if (!near.empty()) return "; is '" + near + "' meant?";
    return known.empty() ? "" : "; it has " + joined(known, ", ");
}

/// Names the actions that the node does have, when one of them was probably meant.
void suggestAction(Session& session, Node& node, const std::string& action, const Limit& limit) {
    const Result<Description> described = node.describe(limit);
    if (!described) return;
    const auto& known = described->actions;
    if (std::find(known.begin(), known.end(), action) != known.end()) return;
    session.say("The node has no action '" + action + "'" + meant(action, known));
}

}  // namespace

ExitCode showVerb(Session& session) {
    const Limit limit = session.limit(kCallTime);
    Result<Node> node = open(session, limit);
    if (!node) return session.fail(node.error());
    Result<Description> described = node->describe(limit);
    if (!described) return session.fail(described.error());
    Result<Tree::Answers> answers = readAttributes(*node, described->attributes, limit);
    if (!answers) return session.fail(answers.error());
    for (const auto& each : *answers) {
        if (each.empty()) return session.fail(objectGone(node->name()));
    }
    const bool isDevice = NodeName::parse(node->name()).kind == NodeKind::Device;
    if (session.json()) {
        session.emit(nodeJson(*described, *answers, isDevice));
    } else {
        printNode(session, *described, *answers, isDevice);
    }
    return ExitCode::Ok;
}

ExitCode getVerb(Session& session) {
    const Limit limit = session.limit(kCallTime);
    const std::vector<std::string>& attributes = session.asked.words;
    Result<Node> node = open(session, limit);
    if (!node) return session.fail(node.error());
    Result<Tree::Answers> answers = readAttributes(*node, attributes, limit);
    if (!answers) return session.fail(answers.error());
    for (std::size_t at = 0; at < attributes.size(); ++at) {
        if (!(*answers)[at].empty()) continue;
        Result<Description> described = node->describe(limit);
        if (!described) return session.fail(described.error());
        const auto& known = described->attributes;
        if (std::find(known.begin(), known.end(), attributes[at]) != known.end()) {
            return session.fail(objectGone(node->name()));
        }
        return session.complain(ExitCode::NotFound, node->name() + " has no attribute '" + attributes[at] + "'" +
                                                        meant(attributes[at], known));
    }
    if (session.json()) {
        json::object values;
        for (std::size_t at = 0; at < attributes.size(); ++at) {
            values[attributes[at]] = payloadJson((*answers)[at].front());
        }
        json::object object{{"node", node->name()}};
        object["attributes"] = std::move(values);
        session.emit(object);
        return ExitCode::Ok;
    }
    for (const auto& each : *answers) session.out.line(sanitised(plainText(each.front())));
    session.out.flush();
    return ExitCode::Ok;
}

ExitCode doVerb(Session& session) {
    const Limit limit = session.limit(kActionTime);
    Result<std::vector<Value>> actions = parseActions(session.asked.words);
    if (!actions) return session.fail(actions.error());
    Result<Node> node = open(session, limit);
    if (!node) return session.fail(node.error());
    Result<std::vector<Value>> results = node->execute(*actions, limit);
    if (!results) return session.fail(results.error());

    ExitCode code = ExitCode::Ok;
    json::array array;
    std::vector<std::string> failures;
    std::string unknown;
    for (const Value& each : *results) {
        const Outcome outcome = outcomeOf(each);
        const std::string action = each.name.value_or("");
        if (outcome.code != ExitCode::Ok) {
            if (code == ExitCode::Ok) code = outcome.code;
            failures.push_back(action + ": " + outcome.words);
            if (unknown.empty()) unknown = action;
        }
        if (session.json()) {
            json::object object{{"action", action}};
            object["value"] = payloadJson(each);
            object["ok"] = outcome.code == ExitCode::Ok;
            if (!outcome.words.empty()) object["meaning"] = outcome.words;
            array.push_back(std::move(object));
        } else {
            std::string line = action;
            if (const std::string text = namedText(each); !text.empty()) line.append(" ").append(text);
            session.out.line(sanitised(line));
        }
    }
    if (session.json()) {
        json::object object{{"node", node->name()}};
        object["results"] = std::move(array);
        session.emit(object);
    } else {
        session.out.flush();
    }
    for (const std::string& each : failures) session.complain(code, each);
    if (results->size() < actions->size()) return session.fail(objectGone(node->name()));
    if (!unknown.empty()) suggestAction(session, *node, unknown, limit);
    return code;
}

}  // namespace btnode::cli
