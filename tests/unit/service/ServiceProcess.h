#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/support/Waiting.h"

namespace UnitTest {

/// The service as a process: the program of this build, on the test program's bus and node tree.
class ServiceProcess {
public:
    using Environment = std::vector<std::pair<std::string, std::string>>;

    /// Starts it, with these variables set in addition.
    explicit ServiceProcess(const Environment& environment = {});
    /// Kills it.
    ~ServiceProcess();
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    void signal(int number);
    /// Its exit code, or minus the signal that ended it; nothing when it does not end within the limit.
    std::optional<int> waitForEnd(std::chrono::milliseconds limit = kPatience);
    /// Everything it wrote to standard output.
    std::string output() const;
    /// The records of its log, see recordsOf.
    std::vector<std::string> records() const;
    bool waitForRecord(const std::string& record);

private:
    pid_t process_ = -1;
    int output_;
    std::optional<int> end_;
};

}  // namespace UnitTest
