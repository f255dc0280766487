#pragma once

#include <functional>
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

/// Runs it with a --timeout that grows from a tenth of a second, until the outcome fits or a minute was given: for
/// tests in which the limit is to pass at one place only, on a machine that may be busy with other things. `before`
/// runs before each try.
Ended btnodeInGrowingTime(const std::vector<std::string>& arguments, const std::function<void()>& before,
                          const std::function<bool(const Ended&)>& fits);

/// The same while the test goes on.
class RunningBtnode {
public:
    explicit RunningBtnode(const std::vector<std::string>& arguments);
    ~RunningBtnode();

    /// The next line of standard output without its end; "(no line)" when none comes within a minute.
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
