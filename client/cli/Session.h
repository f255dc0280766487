#pragma once

#include <boost/json/object.hpp>
#include <chrono>
#include <string>
#include <string_view>

#include "btnode/Error.h"
#include "btnode/Limit.h"
#include "btnode/Resolver.h"
#include "btnode/Tree.h"
#include "client/cli/CommandLine.h"
#include "client/cli/ExitCode.h"
#include "client/cli/Output.h"

namespace btnode::cli {

/// For calls that a node answers from what it knows.
inline constexpr std::chrono::seconds kCallTime{10};
/// For actions of any kind.
inline constexpr std::chrono::seconds kActionTime{60};
/// For a pairing, from CONNECT to its end.
inline constexpr std::chrono::seconds kPairTime{60};
/// For starting an inquiry: two pauses of 2.5 s between tries, and the bus calls.
inline constexpr std::chrono::seconds kInquiryTime{30};
/// For setting right what was begun, after an interrupt.
inline constexpr std::chrono::seconds kCleanUpTime{10};

/// What a verb works with.
struct Session {
    const Invocation& asked;
    Tree tree;
    Output& out;
    Output& err;
    /// Raised by Ctrl-C; may be null.
    const Cancellation* cancellation;

    bool json() const { return asked.json != Invocation::Json::No; }
    /// From now on: --timeout, or what fits the verb.
    Limit limit(std::chrono::milliseconds usual) const;
    Result<NodeName> find(Wanted wanted, const Limit& limit) const;

    /// One JSON value on standard output, written at once; false when nobody can read it any more.
    bool emit(const boost::json::object& object);
    /// One line of data on standard output, sanitised, written at once; false as above.
    bool print(std::string_view line);
    /// One line for people on standard error, sanitised, written at once.
    void say(std::string_view line);
    /// The same, marked as an error.
    ExitCode complain(ExitCode code, std::string_view line);
    /// Says what went wrong, and what to do next.
    ExitCode fail(const Error& error);
};

}  // namespace btnode::cli
