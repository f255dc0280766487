#ifndef SIMULATOR_ERRORS_H
#define SIMULATOR_ERRORS_H

namespace Simulator {

/// A D-Bus error as bluetoothd answers it.
struct Error {
    const char* name;
    const char* text;
};

namespace Errors {

inline constexpr Error kAlreadyExists{"org.bluez.Error.AlreadyExists", "Already Exists"};
inline constexpr Error kAuthenticationCanceled{"org.bluez.Error.AuthenticationCanceled", "Authentication Canceled"};
inline constexpr Error kAuthenticationFailed{"org.bluez.Error.AuthenticationFailed", "Authentication Failed"};
inline constexpr Error kAuthenticationRejected{"org.bluez.Error.AuthenticationRejected", "Authentication Rejected"};
inline constexpr Error kAuthenticationTimeout{"org.bluez.Error.AuthenticationTimeout", "Authentication Timeout"};
inline constexpr Error kConnectionAttemptFailed{"org.bluez.Error.ConnectionAttemptFailed", "Page Timeout"};
inline constexpr Error kDoesNotExist{"org.bluez.Error.DoesNotExist", "Does Not Exist"};
inline constexpr Error kInProgress{"org.bluez.Error.InProgress", "In Progress"};
inline constexpr Error kBusy{"org.bluez.Error.InProgress", "Operation already in progress"};
inline constexpr Error kConnectionBusy{"org.bluez.Error.InProgress", "br-connection-busy"};
inline constexpr Error kConnectionNotPowered{"org.bluez.Error.NotReady", "br-connection-adapter-not-powered"};
inline constexpr Error kConnectionUnavailable{"org.bluez.Error.NotAvailable", "br-connection-profile-unavailable"};
inline constexpr Error kInvalidArguments{"org.bluez.Error.InvalidArguments", "Invalid arguments in method call"};
inline constexpr Error kNoDiscovery{"org.bluez.Error.Failed", "No discovery started"};
inline constexpr Error kNotConnected{"org.bluez.Error.NotConnected", "Not Connected"};
inline constexpr Error kUnreadable{"org.bluez.Error.Failed", "The property cannot be read"};
inline constexpr Error kNotReady{"org.bluez.Error.NotReady", "Resource Not Ready"};

}  // namespace Errors

}  // namespace Simulator

#endif
