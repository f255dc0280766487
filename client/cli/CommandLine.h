#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "client/cli/ExitCode.h"

namespace btnode::cli {

/// What the command line asks for. Which fields are filled depends on the verb.
struct Invocation {
    enum class Json { No, Short, Pretty };

    std::string verb;
    std::optional<std::string> root = {};
    Json json = Json::No;
    std::optional<std::chrono::milliseconds> timeout = {};

    std::string node = {};
    /// Attributes of get, actions and parameters of do, kinds of list.
    std::vector<std::string> words = {};
    std::string profile = {};
    /// How long watch and scan last.
    std::optional<std::chrono::milliseconds> span = {};
    /// How many changes watch waits for.
    std::optional<std::uint64_t> count = {};
};

/// A command line that is answered at once: help, the version, or what is wrong with it.
struct Answer {
    ExitCode code;
    std::string out;
    std::string err;
};

/// Takes the arguments without the program's name.
std::variant<Invocation, Answer> parseCommandLine(const std::vector<std::string>& arguments);

/// "12", "0.5": seconds, above 0 and at most 2,147,483 (what BlueZ's library counts in milliseconds).
std::optional<std::chrono::milliseconds> parseSeconds(const std::string& text);

}  // namespace btnode::cli
