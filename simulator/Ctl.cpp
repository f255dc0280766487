#include "simulator/Ctl.h"

#include <fmt/format.h>

#include <cctype>
#include <optional>

#include "simulator/Bus.h"
#include "simulator/Control.h"
#include "simulator/Loop.h"
#include "simulator/Program.h"
#include "simulator/ValueText.h"

namespace Simulator {

namespace {

constexpr milliseconds kPatience{150000};  // longer than an agent may take

/// "add-device" for "AddDevice".
std::string wordFor(const std::string& member) {
    std::string word;
    for (const char letter : member) {
        if (std::isupper(static_cast<unsigned char>(letter)) && !word.empty()) word += '-';
        word += static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    }
    return word;
}

std::optional<MethodInfo> findMethod(const std::string& word) {
    for (const auto& info : Control::methods().infos()) {
        if (word == info.member || word == wordFor(info.member)) return info;
    }
    return std::nullopt;
}

/// The words that are left, as variants (u:5) or as named variants (Alias=s:Desk).
std::optional<Value> readRest(const std::string& type, std::vector<std::string>::const_iterator word,
                              std::vector<std::string>::const_iterator end, std::string& error) {
    Value::List elements;
    for (; word != end; ++word) {
        const auto equals = type == "av" ? std::string::npos : word->find('=');
        if (type != "av" && equals == std::string::npos) {
            error = fmt::format("'{}' is no NAME=TYPE:VALUE", *word);
            return std::nullopt;
        }
        auto value = parseValue("v", equals == std::string::npos ? *word : word->substr(equals + 1), error);
        if (!value) return std::nullopt;
        if (type == "av") {
            elements.push_back(std::move(*value));
        } else {
            elements.push_back(Value::entry(Value::string(word->substr(0, equals)), std::move(*value)));
        }
    }
    return Value(type, std::move(elements));
}

std::optional<Value::List> readArguments(const MethodInfo& info, const std::vector<std::string>& words,
                                         std::string& error) {
    Value::List arguments;
    auto word = words.begin() + 1;
    const auto types = completeTypes(info.in);
    for (const auto& type : types) {
        std::optional<Value> value;
        if (&type == &types.back() && (type == "av" || type == "a{sv}")) {
            value = readRest(type, word, words.end(), error);
            word = words.end();
        } else if (word == words.end()) {
            error = fmt::format("{} needs {}", wordFor(info.member), info.names);
        } else {
            value = parseValue(type, *word++, error);
        }
        if (!value) return std::nullopt;
        arguments.push_back(std::move(*value));
    }
    if (word == words.end()) return arguments;
    error = fmt::format("{} takes {}", wordFor(info.member), *info.names ? info.names : "no arguments");
    return std::nullopt;
}

void print(const Value& result) {
    if (result.isText()) {
        fmt::print("{}\n", result.text());
    } else if (result.type() == 'a') {
        for (const auto& element : result.elements()) print(element);
    } else if (result.type() == '(') {
        for (std::size_t index = 0; index < result.elements().size(); ++index) {
            const Value& member = result.elements()[index];
            fmt::print("{}{}", index ? "  " : "", member.isText() ? member.text() : toText(member));
        }
        fmt::print("\n");
    } else {
        fmt::print("{}\n", toText(result));
    }
}

}  // namespace

int ctl(const std::string& bus, const std::vector<std::string>& words) {
    if (words.empty()) return complain("ctl needs the name of a method; ctl help lists them", 2);
    if (words[0] == "help") return fmt::print("{}", ctlHelp()), 0;
    const auto method = findMethod(words[0]);
    if (!method) return complain(fmt::format("there is no method '{}'; ctl help lists them", words[0]), 2);
    std::string error;
    const auto arguments = readArguments(*method, words, error);
    if (!arguments) return complain(error, 2);

    const auto loop = Loop::create();
    if (!loop) return complain("the kernel gives no descriptors for an event loop", 1);
    const auto connection = Bus::connect(*loop, bus, error);
    if (!connection) return complain(error, 1);
    const auto message = connection->newCall("org.bluez", kControlPath, kControl1, method->member);
    for (const auto& argument : *arguments) {
        if (argument.appendTo(message.get()) < 0) return complain("the arguments cannot be sent over D-Bus", 2);
    }
    bool isAnswered = false;
    int exitCode = 0;
    const auto pending = connection->call(message, kPatience, [&](const Answer& answer) {
        isAnswered = true;
        if (answer.errorName.empty()) {
            for (const auto& result : answer.results) print(result);
        } else {
            exitCode = complain(fmt::format("{} ({})", answer.errorText, answer.errorName), 1);
        }
        loop->end(exitCode);
    });
    if (!pending.isWaiting()) return complain("the call cannot be sent", 1);
    loop->run();
    return isAnswered ? exitCode : complain("ended before the answer came", 1);
}

std::string ctlHelp() {
    std::string text =
        "Calls of a running simulator, as: bluez-simulator [--bus ADDRESS] ctl METHOD ARGUMENT...\n"
        "VALUE is TYPE:VALUE, as u:5; PROPERTIES are words NAME=TYPE:VALUE; ARGUMENTS are words TYPE:VALUE.\n"
        "PATH and MEMBER may be *, which is any; a member \"Get Alias\" is Get of that property.\n\n";
    for (const auto& info : Control::methods().infos()) {
        const std::string call = fmt::format("{} {}", wordFor(info.member), info.names);
        text += fmt::format("  {}\n        {}\n", call, info.help);
    }
    return text;
}

}  // namespace Simulator
