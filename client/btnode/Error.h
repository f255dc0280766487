#pragma once

#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace btnode {

/// What went wrong, for programs; `Error::message` says it for people.
enum class ErrorKind {
    Unreachable,  ///< no service behind the tree: no socket, or one that nobody listens on
    NotFound,     ///< the service runs, but has no such node
    Ambiguous,    ///< a short name fits several nodes
    Denied,       ///< the socket's permissions keep the caller out
    TimedOut,     ///< the limit of the call passed first
    Gone,         ///< the node was withdrawn, or the connection closed, before the answer
    Busy,         ///< the service has more requests in progress than it takes
    Interrupted,  ///< the call's `Cancellation` was raised
    Refused,      ///< the service answered with a Varlink error other than Busy and Withdrawn
    Invalid,      ///< the caller's own argument cannot be sent
    Protocol,     ///< the answer is none that a node gives
    System        ///< an operating system call failed for a reason of its own
};

struct Error {
    ErrorKind kind = ErrorKind::System;
    /// One line without a full stop at its end; may hold text that the service or a device sent.
    std::string message;
    /// A further line with what to do next; empty when there is nothing to say.
    std::string hint = {};
};

/// Either a value or the error that kept it from being made; the library throws nothing.
template <typename T>
class [[nodiscard]] Result {
public:
    // Not explicit: a function returns its value or an error as it is.
    Result(T value) : state_(std::move(value)) {}      // NOLINT(google-explicit-constructor)
    Result(Error error) : state_(std::move(error)) {}  // NOLINT(google-explicit-constructor)

    explicit operator bool() const { return state_.index() == 0; }
    /// Only for a result that holds a value.
    T& operator*() { return *std::get_if<0>(&state_); }
    const T& operator*() const { return *std::get_if<0>(&state_); }
    T* operator->() { return std::get_if<0>(&state_); }
    const T* operator->() const { return std::get_if<0>(&state_); }
    /// Only for a result that holds an error.
    Error& error() { return *std::get_if<1>(&state_); }
    const Error& error() const { return *std::get_if<1>(&state_); }

private:
    std::variant<T, Error> state_;
};

/// The value of a call that gives nothing but success.
struct Done {};

}  // namespace btnode
