#include "client/cli/CommandLine.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <memory>

#include "btnode/Resolver.h"
#include "client/cli/Help.h"

namespace btnode::cli {

namespace {

constexpr double kMaxSeconds = 2'147'483;
// What CLI11 gives a flag that stands without a value.
constexpr std::string_view kBareFlag = "true";
// CLI11 takes a word like [1,2] apart at its commas; one with this in front passes whole.
constexpr char kGuard = '\x01';

/// What CLI11 fills; checked and converted afterwards.
struct Raw {
    std::string root;
    std::string json;
    std::string timeout;
    std::string span;
    std::string count;
};

void addCommon(CLI::App& app, Raw& raw) {
    app.add_option("--root", raw.root, "Root folder of the node tree (default: $NODE_ROOT, else the service's own)")
        ->type_name("DIR")
        ->allow_extra_args(false)
        ->group("Common options");
    app.add_flag("--json", raw.json, "Print JSON: one object, or one a line where it streams; =pretty indents it")
        ->group("Common options");
    app.add_option("--timeout", raw.timeout, "Give up after that many seconds")
        ->type_name("SECONDS")
        ->group("Common options");
}

void addVerb(CLI::App& app, const std::string& verb, Raw& raw, Invocation& invocation) {
    const auto node = [&](const char* name, const char* what) {
        return app.add_option(name, invocation.node, what)->type_name("")->allow_extra_args(false);
    };
    const auto words = [&](const char* name, const char* what) {
        return app.add_option(name, invocation.words, what)->type_name("");
    };
    if (verb == "list") {
        words("KIND", "control, adapters or devices");
    } else if (verb == "show") {
        node("NODE", "The node")->required();
    } else if (verb == "get") {
        node("NODE", "The node")->required();
        words("ATTRIBUTE", "Names of attributes")->required();
    } else if (verb == "do") {
        node("NODE", "The node")->required();
        words("ACTION", "Actions and their parameters, a + between two actions")->required();
    } else if (verb == "watch") {
        node("NODE", "The node")->required();
        app.add_option("--for", raw.span, "End after that many seconds")->type_name("SECONDS");
        app.add_option("--count", raw.count, "End after that many changes")->type_name("NUMBER");
    } else if (verb == "scan") {
        node("ADAPTER", "The adapter (default: all)");
        app.add_option("--for", raw.span, "End after that many seconds")->type_name("SECONDS");
    } else if (verb == "pair" || verb == "wait" || verb == "cancel" || verb == "profiles") {
        node("DEVICE", "The device")->required();
    } else if (verb == "activate") {
        node("DEVICE", "The device")->required();
        app.add_option("PROFILE", invocation.profile, "The profile")
            ->type_name("")
            ->allow_extra_args(false)
            ->required();
    } else if (verb == "help") {
        words("VERB", "The verb");
    }
    addCommon(app, raw);
}

/// CLI11 writes "btnode get [OPTIONS] NODE ATTRIBUTE..." only for apps that are no subcommands; each verb is one.
std::unique_ptr<CLI::App> makeVerb(const VerbHelp& help, Raw& raw, Invocation& invocation) {
    auto app = std::make_unique<CLI::App>(std::string(help.summary), "btnode " + std::string(help.verb));
    app->set_help_flag("-h,--help", "Print this help and exit");
    app->get_formatter()->column_width(28);
    app->get_formatter()->label("REQUIRED", "");
    app->get_formatter()->label("Positionals", "Arguments");
    app->get_option("--help")->group("Common options");
    addVerb(*app, std::string(help.verb), raw, invocation);
    std::string footer(help.more);
    if (help.more.find("NODE") != std::string_view::npos || app->get_option_no_throw("NODE") != nullptr) {
        footer = std::string(kNodeNames) + "\n" + footer;
    }
    while (footer.ends_with('\n')) footer.pop_back();
    app->footer(footer + "\n\nExit codes: see 'btnode --help'.");
    return app;
}

std::string mainHelp() {
    std::string text =
        "btnode: look at and use the Bluetooth node tree\n"
        "\n"
        "Usage: btnode VERB [ARGUMENTS] [OPTIONS]\n"
        "\n"
        "Verbs:\n";
    for (const VerbHelp& each : verbs()) {
        std::string name(each.verb);
        name.resize(10, ' ');
        text += "  " + name + std::string(each.summary) + "\n";
    }
    text +=
        "\n"
        "Options of every verb:\n"
        "  --json[=pretty]    print JSON: one object, or one a line where it streams\n"
        "  --root DIR         root folder of the node tree (default: $NODE_ROOT, else the service's own)\n"
        "  --timeout SECONDS  give up after that time\n"
        "  -h, --help         help of the verb, with examples\n"
        "  --version          print the version\n"
        "\n";
    text += kNodeNames;
    text += "\n";
    text += kExitCodes;
    text +=
        "\n"
        "Examples:\n"
        "  btnode list\n"
        "  btnode scan --for 10\n"
        "  btnode pair Keyboard\n";
    return text;
}

Answer usage(const std::string& message, std::string_view verb = {}) {
    std::string text = "btnode: " + message + "\n";
    text += verb.empty() ? std::string("'btnode --help' lists the verbs.\n")
                         : "'btnode " + std::string(verb) + " --help' tells how it is used.\n";
    return {ExitCode::Usage, {}, text};
}

Answer unknownVerb(const std::string& verb) {
    std::vector<std::string> names;
    for (const VerbHelp& each : verbs()) names.emplace_back(each.verb);
    const std::string near = nearest(verb, names);
    return usage("unknown verb '" + verb + "'" + (near.empty() ? "" : "; is '" + near + "' meant?"));
}

/// The place of the verb: the first argument that is neither an option nor the value of one.
std::size_t verbPlace(const std::vector<std::string>& arguments) {
    for (std::size_t at = 0; at < arguments.size(); ++at) {
        if (arguments[at] == "--root" || arguments[at] == "--timeout") {
            ++at;
        } else if (!arguments[at].starts_with('-')) {
            return at;
        }
    }
    return arguments.size();
}

std::optional<Answer> convert(const Raw& raw, Invocation& invocation) {
    const std::string& verb = invocation.verb;
    if (!raw.root.empty()) invocation.root = raw.root;
    if (raw.json == "pretty") {
        invocation.json = Invocation::Json::Pretty;
    } else if (raw.json == "short" || raw.json == kBareFlag) {
        invocation.json = Invocation::Json::Short;
    } else if (!raw.json.empty()) {
        return usage("--json knows short and pretty, not '" + raw.json + "'", verb);
    }
    if (!raw.timeout.empty() && !(invocation.timeout = parseSeconds(raw.timeout))) {
        return usage("--timeout: '" + raw.timeout + "' is no number of seconds above 0", verb);
    }
    if (!raw.span.empty() && !(invocation.span = parseSeconds(raw.span))) {
        return usage("--for: '" + raw.span + "' is no number of seconds above 0", verb);
    }
    if (!raw.count.empty()) {
        std::uint64_t count = 0;
        const char* const end = raw.count.data() + raw.count.size();
        const auto [stop, failure] = std::from_chars(raw.count.data(), end, count);
        if (failure != std::errc() || stop != end || count == 0) {
            return usage("--count: '" + raw.count + "' is no number above 0", verb);
        }
        invocation.count = count;
    }
    if (verb == "list" && invocation.words.size() > 1) return usage("list takes one KIND", verb);
    if (verb == "list" && !invocation.words.empty()) {
        const std::vector<std::string> kinds = {"control", "adapters", "devices"};
        const std::string& kind = invocation.words.front();
        if (std::find(kinds.begin(), kinds.end(), kind) == kinds.end()) {
            const std::string near = nearest(kind, kinds);
            return usage("list knows control, adapters and devices, not '" + kind + "'" +
                             (near.empty() ? "" : "; is '" + near + "' meant?"),
                         verb);
        }
    }
    return std::nullopt;
}

std::vector<std::string*> textsOf(Invocation& invocation) {
    std::vector<std::string*> texts = {&invocation.node, &invocation.profile};
    for (std::string& each : invocation.words) texts.push_back(&each);
    return texts;
}

std::variant<Invocation, Answer> parse(const std::vector<std::string>& arguments) {
    const std::size_t place = verbPlace(arguments);
    if (place == arguments.size()) {
        for (const std::string& each : arguments) {
            if (each == "--help" || each == "-h") return Answer{ExitCode::Ok, mainHelp(), {}};
            if (each == "--version") return Answer{ExitCode::Ok, "btnode " BTNODE_VERSION "\n", {}};
        }
        return arguments.empty() ? Answer{ExitCode::Usage, {}, mainHelp()} : usage("no verb is given");
    }
    const VerbHelp* help = findVerb(arguments[place]);
    if (help == nullptr) return unknownVerb(arguments[place]);

    Invocation invocation;
    invocation.verb = help->verb;
    Raw raw;
    // Only the verb in question is set up: a quarter of a millisecond that each start saves.
    const std::unique_ptr<CLI::App> app = makeVerb(*help, raw, invocation);
    std::vector<std::string> rest = arguments;
    rest.erase(rest.begin() + static_cast<std::ptrdiff_t>(place));
    for (std::string& each : rest) {
        if (each.starts_with('[')) each.insert(each.begin(), kGuard);
    }
    std::reverse(rest.begin(), rest.end());
    try {
        app->parse(rest);
    } catch (const CLI::CallForHelp&) {
        return Answer{ExitCode::Ok, app->help(), {}};
    } catch (const CLI::ParseError& error) {
        return usage(error.what(), help->verb);
    }
    for (std::string* each : textsOf(invocation)) {
        if (each->starts_with(kGuard)) each->erase(0, 1);
    }
    if (invocation.verb == "help") {
        if (invocation.words.empty()) return Answer{ExitCode::Ok, mainHelp(), {}};
        const VerbHelp* topic = findVerb(invocation.words.front());
        if (topic == nullptr) return unknownVerb(invocation.words.front());
        return Answer{ExitCode::Ok, makeVerb(*topic, raw, invocation)->help(), {}};
    }
    if (std::optional<Answer> answer = convert(raw, invocation)) return *answer;
    return invocation;
}

}  // namespace

std::optional<std::chrono::milliseconds> parseSeconds(const std::string& text) {
    double seconds = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, seconds, std::chars_format::fixed);
    if (failure != std::errc() || stop != end || !(seconds > 0) || seconds > kMaxSeconds) return std::nullopt;
    return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
}

std::variant<Invocation, Answer> parseCommandLine(const std::vector<std::string>& arguments) {
    try {
        return parse(arguments);
    } catch (const CLI::Error& error) {
        return usage(error.what());
    }
}

}  // namespace btnode::cli
