#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "platform/host/InitCode.h"
#include "platform/host/StdIO.h"
#include "platform/host/StrConv.h"
#include "platform/host/SysLog.h"
#include "tests/unit/host/child/Modes.h"

namespace {

using Clock = std::chrono::steady_clock;

std::uint64_t handle = 0;
const InitCode::Register registerFilter([] { handle = SysLogFilter::reg(String::create("HostChild")); });

void nameProcess() {
    SysLog::procName(String::create("Tests"));
    SysLog::thdName(String::create("Main"));
}

}  // namespace

namespace HostChild {

/// One record of each level.
std::int32_t logLevels() {
    nameProcess();
    for (const std::uint32_t level : {0u, 1u, 2u, 3u, 4u})
        LogRecord(level, handle) << "of level " << StrConv::str(level);
    return 0;
}

/// Records of this thread, of one with and of one without a name.
std::int32_t logTexts() {
    LogRecord(4, handle) << "before the names";
    nameProcess();
    LogRecord(4, handle).number(0x110b) << " and text";
    std::thread([] {
        SysLog::thdName(String::create("Worker"));
        LogRecord(4, handle) << "named";
    }).join();
    std::thread([] { LogRecord(4, handle) << "unnamed"; }).join();
    return 0;
}

/// A record that nobody ends, in a thread that ends and at the end of the process.
std::int32_t logParts() {
    nameProcess();
    std::thread([] { LogRecord(4, handle, false) << "left by a thread"; }).join();
    LogRecord(4, handle, false) << "left by main";
    return 0;
}

/// As many records as argument 1 says, each other one, from the first, filled with argument 2 bytes; then, when it is
/// told to go on, one more.
std::int32_t logFlood() {
    nameProcess();
    const std::string filling(argument2, 'x');
    Clock::duration longest{};
    for (std::uint32_t number = 1; number <= argument1; ++number) {
        const Clock::time_point begin = Clock::now();
        LogRecord(4, handle) << StrConv::str(number) << " " << (number % 2 == 1 ? filling : "");
        longest = std::max(longest, Clock::now() - begin);
    }
    const auto longestMs = std::chrono::duration_cast<std::chrono::milliseconds>(longest).count();
    say("longest ", static_cast<std::uint64_t>(longestMs));
    awaitGoOn();
    LogRecord(4, handle) << "after the flood";
    say("logged");
    return 0;
}

/// The same in a process that can open nothing more.
std::int32_t logFloodWithoutDescriptors() {
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{3, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const std::int32_t code = logFlood();
    setrlimit(RLIMIT_NOFILE, &before);  // a leak checker wants some at the end
    return code;
}

/// Goes on after its reader has gone.
std::int32_t logLate() {
    nameProcess();
    LogRecord(4, handle) << "first";
    say("logged");
    awaitGoOn();
    for (int record = 0; record < 100; ++record) LogRecord(4, handle) << "nobody reads this";
    return 9;
}

/// As many bytes as argument 1 says, through the plain writer.
std::int32_t writeText() {
    StdIO::stdOutWriter().write(std::string(argument1, 'y'));
    say("written");
    return 0;
}

}  // namespace HostChild
