#include <boost/json/array.hpp>
#include <optional>

#include "btnode/AssignedNumbers.h"
#include "btnode/Node.h"
#include "client/cli/DeviceWords.h"
#include "client/cli/Json.h"
#include "client/cli/Text.h"
#include "client/cli/Verbs.h"
#include "client/cli/Words.h"

namespace btnode::cli {

namespace json = boost::json;

namespace {

struct Line {
    NodeName node;
    /// What stands behind the node's name, by column; the last one may be long.
    std::vector<std::string> cells;
    json::object object;
};

struct Listing {
    std::vector<Line> control;
    std::vector<Line> adapters;
    std::vector<Line> devices;
    /// Of the first node that is there and did not answer.
    std::optional<Error> failure;

    void note(const Error& error) {
        if (!failure) failure = error;
    }
};

std::string nameOf(const Tree::Answers& answers) {
    return answers.empty() || answers.front().empty() ? std::string() : answers.front().front().text;
}

void addControl(Session& session, const NodeName& node, const Limit& limit, Listing& listing) {
    json::object object{{"node", node.full}};
    Result<Node> connection = Node::connect(session.tree, node.full, limit);
    Result<Description> described = connection ? connection->describe(limit) : connection.error();
    if (described) {
        object["actions"] = stringsJson(described->actions);
        listing.control.push_back({node, {joined(described->actions, " ")}, std::move(object)});
        return;
    }
    if (described.error().kind == ErrorKind::Denied) {
        // The service's own node is for its owner; that is no failure of the list.
        object["actions"] = nullptr;
        listing.control.push_back({node, {"(no permission)"}, std::move(object)});
        return;
    }
    if (!session.tree.has(node.full)) return;
    listing.note(described.error());
    object["actions"] = nullptr;
    listing.control.push_back({node, {"?"}, std::move(object)});
}

/// Reads the nodes of a kind; those that vanish meanwhile are left out.
template <typename Add>
void addAll(Session& session, const std::vector<NodeName>& nodes, const std::vector<std::string>& attributes,
            const Limit& limit, Listing& listing, const Add& add) {
    const auto results = session.tree.readAll(nodes, attributes, limit);
    for (std::size_t at = 0; at < nodes.size(); ++at) {
        if (results[at] && results[at]->front().empty()) continue;
        if (!results[at]) {
            if (!session.tree.has(nodes[at].full)) continue;
            listing.note(results[at].error());
        }
        add(nodes[at], results[at] ? &*results[at] : nullptr);
    }
}

Listing read(Session& session, const std::vector<NodeName>& nodes, const std::string& kind, const Limit& limit) {
    Listing listing;
    std::vector<NodeName> adapters;
    std::vector<NodeName> devices;
    for (const NodeName& each : nodes) {
        if (each.kind == NodeKind::Control && (kind.empty() || kind == "control")) {
            addControl(session, each, limit, listing);
        } else if (each.kind == NodeKind::Adapter && (kind.empty() || kind == "adapters")) {
            adapters.push_back(each);
        } else if (each.kind == NodeKind::Device && (kind.empty() || kind == "devices")) {
            devices.push_back(each);
        }
    }
    addAll(session, adapters, {"NAME"}, limit, listing, [&](const NodeName& node, const Tree::Answers* answers) {
        const std::string name = answers == nullptr ? "?" : nameOf(*answers);
        json::object object{{"node", node.full}, {"address", node.address}};
        object["name"] = answers == nullptr ? json::value(nullptr) : json::value(name);
        listing.adapters.push_back({node, {name}, std::move(object)});
    });
    addAll(session, devices, deviceAttributes(), limit, listing,
           [&](const NodeName& node, const Tree::Answers* answers) {
               json::object object{{"node", node.full}, {"address", node.address}};
               if (answers == nullptr) {
                   object["name"] = nullptr;
                   listing.devices.push_back({node, {"?", "?", "?"}, std::move(object)});
                   return;
               }
               const DeviceWords words = DeviceWords::of(*answers);
               words.addTo(object);
               listing.devices.push_back({node, {words.status, words.deviceClass, words.name}, std::move(object)});
           });
    return listing;
}

void printSection(Session& session, const char* title, const std::vector<Line>& lines, bool last) {
    const bool draw = session.out.canDraw();
    session.out.line((draw ? (last ? "└─ " : "├─ ") : "  ") + session.out.bold(title));
    Table table;
    for (const Line& each : lines) {
        std::vector<std::string> cells{each.node.address};
        for (const std::string& cell : each.cells) cells.push_back(sanitised(cell));
        table.row(std::move(cells));
    }
    const std::vector<std::string> texts = table.lines();
    for (std::size_t at = 0; at < texts.size(); ++at) {
        const std::string bar = draw ? (last ? "   " : "│  ") : "    ";
        const std::string line = bar + (draw ? (at + 1 == texts.size() ? "└─ " : "├─ ") : "") + texts[at];
        // A terminal would break a long name over several lines; a pipe gets it whole.
        session.out.line(session.out.isTerminal() ? clipped(line, session.out.size().columns) : line);
    }
}

void printTree(Session& session, const Listing& listing, bool emptyToo) {
    const bool draw = session.out.canDraw();
    session.out.line(session.out.bold(kTreeFolder));
    const bool adapters = emptyToo || !listing.adapters.empty();
    const bool devices = emptyToo || !listing.devices.empty();
    Table table;
    for (const Line& each : listing.control) {
        table.row({each.node.full.substr(kTreeFolder.size() + 1), sanitised(each.cells.front())});
    }
    const std::vector<std::string> texts = table.lines();
    for (std::size_t at = 0; at < texts.size(); ++at) {
        const bool last = at + 1 == texts.size() && !adapters && !devices;
        session.out.line((draw ? (last ? "└─ " : "├─ ") : "  ") + texts[at]);
    }
    if (adapters) printSection(session, "adapters", listing.adapters, !devices);
    if (devices) printSection(session, "devices", listing.devices, true);
}

json::array objects(const std::vector<Line>& lines) {
    json::array array;
    for (const Line& each : lines) array.push_back(each.object);
    return array;
}

}  // namespace

ExitCode listVerb(Session& session) {
    const Limit limit = session.limit(kCallTime);
    const std::string kind = session.asked.words.empty() ? std::string() : session.asked.words.front();
    Result<std::vector<NodeName>> nodes = session.tree.list();
    if (!nodes) return session.fail(nodes.error());
    const Listing listing = read(session, *nodes, kind, limit);
    if (listing.failure && listing.failure->kind == ErrorKind::Unreachable) return session.fail(*listing.failure);
    if (session.json()) {
        json::object object{{"root", asUtf8(session.tree.root())}};
        if (kind.empty() || kind == "control") object["control"] = objects(listing.control);
        if (kind.empty() || kind == "adapters") object["adapters"] = objects(listing.adapters);
        if (kind.empty() || kind == "devices") object["devices"] = objects(listing.devices);
        session.emit(object);
    } else {
        printTree(session, listing, kind.empty());
        session.out.flush();
    }
    if (!listing.failure) return ExitCode::Ok;
    session.say("btnode: not every node answered (marked with ?)");
    return session.fail(*listing.failure);
}

}  // namespace btnode::cli
