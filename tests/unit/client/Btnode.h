#pragma once

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "btnode/Limit.h"
#include "client/cli/ExitCode.h"

namespace btnode::test {

struct Ended {
    int code = -1;
    std::string out;
    std::string err;

    cli::ExitCode exitCode() const { return static_cast<cli::ExitCode>(code); }
};

/// Runs the program's whole command line in this process; neither output is a terminal.
Ended btnode(const std::vector<std::string>& arguments);

/// The same while the test goes on.
class RunningBtnode {
public:
    explicit RunningBtnode(const std::vector<std::string>& arguments);
    ~RunningBtnode();

    /// The next line of standard output without its end; "(no line)" when none comes within five seconds.
    std::string line();
    std::string errorLine();
    /// Ctrl-C.
    void interrupt();
    /// The reader of standard output goes away.
    void closeOutput();
    /// Waits for its end; out and err hold what was not read.
    Ended wait();

private:
    std::unique_ptr<Cancellation> cancellation_;
    int out_[2];
    int err_[2];
    std::string outRest_;
    std::string errRest_;
    int code_ = -1;
    std::thread thread_;
};

}  // namespace btnode::test
