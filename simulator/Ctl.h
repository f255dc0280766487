#ifndef SIMULATOR_CTL_H
#define SIMULATOR_CTL_H

#include <string>
#include <vector>

namespace Simulator {

/// The command line of a running simulator: calls a method of its control interface with arguments written as words and
/// prints the results, a line each. Returns the exit code: 0, 1 when the call failed, 2 when the words make no call.
int ctl(const std::string& bus, const std::vector<std::string>& words);

/// The methods with their arguments, a line each.
std::string ctlHelp();

}  // namespace Simulator

#endif
