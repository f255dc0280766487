#include "btnode/Resolver.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace btnode {

namespace {

constexpr std::size_t kAddressLength = 17;
constexpr std::size_t kMostCandidates = 10;

struct Candidate {
    NodeName node;
    std::string alias;
};

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

char upper(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

bool startsIgnoringCase(std::string_view text, std::string_view beginning) {
    return text.size() >= beginning.size() && equalIgnoringCase(text.substr(0, beginning.size()), beginning);
}

bool looksLikeAddress(std::string_view text) {
    if (text.size() != kAddressLength) return false;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char c = lower(text[at]);
        const bool fits = at % 3 == 2 ? c == ':' : (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
        if (!fits) return false;
    }
    return true;
}

bool isWanted(const NodeName& node, Wanted wanted) {
    switch (wanted) {
        case Wanted::Device:
            return node.kind == NodeKind::Device;
        case Wanted::Adapter:
            return node.kind == NodeKind::Adapter;
        case Wanted::Any:
            break;
    }
    return true;
}

const char* wantedWords(Wanted wanted) {
    switch (wanted) {
        case Wanted::Device:
            return "device";
        case Wanted::Adapter:
            return "adapter";
        case Wanted::Any:
            break;
    }
    return "node";
}

/// Full names that the text may stand for, whatever the case of an address in it.
bool isFullName(const NodeName& node, std::string_view text) {
    if (equalIgnoringCase(node.full, text)) return true;
    const std::string_view below = std::string_view(node.full).substr(kTreeFolder.size() + 1);
    if (equalIgnoringCase(below, text)) return true;
    if (node.kind != NodeKind::Device && node.kind != NodeKind::Adapter) return false;
    const std::string_view folder = below.substr(0, below.rfind('/'));
    return equalIgnoringCase(folder, text) ||
           equalIgnoringCase(std::string_view(node.full).substr(0, node.full.rfind('/')), text);
}

Error ambiguous(std::string_view text, const std::vector<Candidate>& found) {
    Error error{ErrorKind::Ambiguous, "'" + std::string(text) + "' fits several nodes:"};
    for (std::size_t at = 0; at < found.size() && at < kMostCandidates; ++at) {
        error.message += (at == 0 ? " " : ", ") + found[at].node.full;
        if (!found[at].alias.empty()) error.message += " (" + found[at].alias + ")";
    }
    if (found.size() > kMostCandidates) {
        error.message += " and " + std::to_string(found.size() - kMostCandidates) + " more";
    }
    error.hint = "Name one of them in full.";
    return error;
}

Result<NodeName> decide(std::string_view text, const std::vector<Candidate>& found) {
    if (found.size() == 1) return found.front().node;
    return ambiguous(text, found);
}

Error notFound(std::string_view text, Wanted wanted, const std::vector<Candidate>& known) {
    std::vector<std::string> names;
    for (const Candidate& each : known) {
        if (!each.alias.empty()) names.push_back(each.alias);
    }
    Error error{ErrorKind::NotFound,
                std::string("no ") + wantedWords(wanted) + " is called '" + std::string(text) + "'"};
    if (const std::string near = nearest(text, names); !near.empty()) error.message += "; is '" + near + "' meant?";
    error.hint = wanted == Wanted::Adapter ? "'btnode list adapters' shows the adapters that there are."
                                           : "'btnode list' shows what there is, 'btnode scan' finds devices.";
    return error;
}

template <typename Fits>
std::vector<Candidate> select(const std::vector<Candidate>& from, const Fits& fits) {
    std::vector<Candidate> found;
    std::copy_if(from.begin(), from.end(), std::back_inserter(found), fits);
    return found;
}

/// The nodes of an address in the spelling that BlueZ uses.
std::vector<Candidate> atAddress(const Tree& tree, std::string_view text, Wanted wanted) {
    std::string address(text);
    std::transform(address.begin(), address.end(), address.begin(), upper);
    std::vector<Candidate> found;
    for (const std::string& name :
         {"bluetooth/adapters/" + address + "/adapter", "bluetooth/devices/" + address + "/device"}) {
        NodeName node = NodeName::parse(name);
        if (isWanted(node, wanted) && tree.has(name)) found.push_back({std::move(node), {}});
    }
    return found;
}

/// Fills in the NAMEs; gives the errors of nodes that are there and did not answer.
std::vector<Error> readAliases(const Tree& tree, std::vector<Candidate>& candidates, const Limit& limit) {
    std::vector<NodeName> named;
    std::vector<std::size_t> places;
    for (std::size_t at = 0; at < candidates.size(); ++at) {
        const NodeKind kind = candidates[at].node.kind;
        if (kind != NodeKind::Device && kind != NodeKind::Adapter) continue;
        named.push_back(candidates[at].node);
        places.push_back(at);
    }
    std::vector<Error> errors;
    const auto answers = tree.readAll(named, {"NAME"}, limit);
    for (std::size_t at = 0; at < answers.size(); ++at) {
        if (!answers[at]) {
            if (answers[at].error().kind != ErrorKind::NotFound) errors.push_back(answers[at].error());
        } else if (const auto& values = answers[at]->front(); !values.empty()) {
            candidates[places[at]].alias = values.front().text;
        }
    }
    return errors;
}

}  // namespace

bool equalIgnoringCase(std::string_view one, std::string_view other) {
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [](char a, char b) { return lower(a) == lower(b); });
}

std::string nearest(std::string_view text, const std::vector<std::string>& choices) {
    std::string best;
    // A third of the letters may be wrong; more and the guess would be none.
    std::size_t least = std::max<std::size_t>((text.size() + 1) / 3, 1) + 1;
    for (const std::string& choice : choices) {
        // Edit distance with neighbours swapped as one mistake, over three rows.
        std::vector<std::size_t> before;
        std::vector<std::size_t> above(choice.size() + 1);
        std::iota(above.begin(), above.end(), std::size_t{0});
        for (std::size_t row = 1; row <= text.size(); ++row) {
            std::vector<std::size_t> current(choice.size() + 1);
            current[0] = row;
            for (std::size_t column = 1; column <= choice.size(); ++column) {
                const bool same = lower(text[row - 1]) == lower(choice[column - 1]);
                current[column] =
                    std::min({above[column] + 1, current[column - 1] + 1, above[column - 1] + (same ? 0U : 1U)});
                const bool swapped = row > 1 && column > 1 && lower(text[row - 1]) == lower(choice[column - 2]) &&
                                     lower(text[row - 2]) == lower(choice[column - 1]);
                if (swapped) current[column] = std::min(current[column], before[column - 2] + 1);
            }
            before = std::exchange(above, std::move(current));
        }
        if (above.back() < least) {
            least = above.back();
            best = choice;
        }
    }
    return best;
}

Result<NodeName> resolve(const Tree& tree, std::string_view text, Wanted wanted, const Limit& limit) {
    if (text.empty()) return Error{ErrorKind::Invalid, "a node's name is empty"};
    // The quick way for scripts, without a look at the rest of the tree.
    if (NodeName exact = NodeName::parse(std::string(text));
        exact.kind != NodeKind::Other && isWanted(exact, wanted) && tree.has(exact.full)) {
        return exact;
    }
    if (looksLikeAddress(text)) {
        const auto direct = atAddress(tree, text, wanted);
        if (!direct.empty()) return decide(text, direct);
    }
    const std::string rootPrefix = tree.pathOf("");
    if (text.starts_with(rootPrefix)) text.remove_prefix(rootPrefix.size());

    Result<std::vector<NodeName>> nodes = tree.list();
    if (!nodes) return nodes.error();
    std::vector<Candidate> candidates;
    for (NodeName& each : *nodes) {
        if (isWanted(each, wanted)) candidates.push_back({std::move(each), {}});
    }

    const auto byName = select(candidates, [&](const Candidate& each) { return isFullName(each.node, text); });
    if (!byName.empty()) return decide(text, byName);
    const auto byAddress =
        select(candidates, [&](const Candidate& each) { return equalIgnoringCase(each.node.address, text); });
    if (!byAddress.empty()) return decide(text, byAddress);
    if (looksLikeAddress(text) || text.find('/') != std::string_view::npos) return notFound(text, wanted, {});

    const std::vector<Error> errors = readAliases(tree, candidates, limit);
    const auto byAlias = select(candidates, [&](const Candidate& each) {
        return each.alias == text || startsIgnoringCase(each.node.address, text);
    });
    if (!byAlias.empty()) return decide(text, byAlias);
    const auto byBeginning = select(candidates, [&](const Candidate& each) {
        return startsIgnoringCase(each.node.address, text) || startsIgnoringCase(each.alias, text);
    });
    if (!byBeginning.empty()) return decide(text, byBeginning);
    if (!errors.empty()) return errors.front();
    return notFound(text, wanted, candidates);
}

}  // namespace btnode
