#include <unistd.h>

#include <cstdlib>
#include <map>
#include <string>
#include <string_view>

#include "platform/host/InitCode.h"
#include "platform/host/Proc.h"
#include "tests/unit/host/child/Modes.h"

namespace HostChild {

std::uint32_t argument1 = 0;
std::uint32_t argument2 = 0;

void say(const char* text) {
    const std::string line = std::string(text) + '\n';
    if (write(STDERR_FILENO, line.data(), line.size()) < 0) std::abort();
}

void say(const char* text, std::uint64_t number) {
    say((text + std::to_string(number)).c_str());
}

void awaitGoOn() {
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
}

}  // namespace HostChild

int main(int count, char** arguments) {
    using namespace HostChild;
    static const std::map<std::string_view, InitCode::Main> modes = {
        {"return", &returnArgument},
        {"exit-at-once", &exitAtOnce},
        {"broken-pipe", &writeIntoBrokenPipe},
        {"standard-descriptors", &checkStandardDescriptors},
        {"exhaust-alloc", &exhaustAlloc},
        {"exhaust-new", &exhaustNew},
        {"blocked-signals", &blockedSignals},
        {"interrupted-while-starting", &interruptedWhileStarting},
        {"delivered", &delivered},
        {"delivered-later", &deliveredLater},
        {"registered-later", &registeredLater},
        {"retried-by-another", &retriedByAnother},
        {"log-levels", &logLevels},
        {"log-texts", &logTexts},
        {"log-parts", &logParts},
        {"log-flood", &logFlood},
        {"log-flood-without-descriptors", &logFloodWithoutDescriptors},
        {"log-late", &logLate},
        {"write-text", &writeText},
    };
    const auto mode = count > 1 ? modes.find(arguments[1]) : modes.end();
    if (mode == modes.end()) return 99;
    if (count > 2) argument1 = static_cast<std::uint32_t>(std::strtoul(arguments[2], nullptr, 10));
    if (count > 3) argument2 = static_cast<std::uint32_t>(std::strtoul(arguments[3], nullptr, 10));

    InitCode::entry(InitCode::kStart, mode->second);
    InitCode::entry(InitCode::kEnd, nullptr);
    return Proc::exitCode();
}
