#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tests/unit/support/Waiting.h"

namespace UnitTest {

/// The records with this tag in a log, in order, each as its level, a blank, its text: "1 Initializing service".
std::vector<std::string> recordsOf(const std::string& log, std::string_view tag = "ServiceBluetoothLinux");

/// Takes the log of the test program as long as it lives: standard output goes to a file in memory. What is no record
/// (the test framework's own output) is handed on at the end; when the test has failed, the records are as well.
///
/// One at a time. The first one runs the table of static initialisers, which gives the modules their log handles.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// The records so far, see recordsOf.
    std::vector<std::string> records(std::string_view tag = "ServiceBluetoothLinux") const;
    /// Whether such a record is there, or comes within the limit.
    bool waitFor(std::string_view record, std::chrono::milliseconds limit = kPatience) const;
    /// How many such records there are.
    std::size_t count(std::string_view record) const;
    /// Drops what is there so far.
    void forget();

private:
    std::string content() const;

    int standardOutput_;
    int file_;
    std::size_t forgotten_ = 0;  // bytes at the beginning of the file
};

}  // namespace UnitTest
