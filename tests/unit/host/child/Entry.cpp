#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

#include "platform/host/Heap.h"
#include "platform/host/InitCode.h"
#include "platform/host/Interrupt.h"
#include "platform/host/Proc.h"
#include "tests/unit/host/child/Modes.h"

namespace {

int initialised = 0;
const InitCode::Register first([] { initialised = initialised * 10 + 1; });
const InitCode::Register none(nullptr);
const InitCode::Register second([] { initialised = initialised * 10 + 2; });

/// Room for the program itself and some blocks.
constexpr rlim_t kAddressSpace = rlim_t{512} * 1024 * 1024;
constexpr std::size_t kBlock = std::size_t{8} * 1024 * 1024;
constexpr std::size_t kMoreBlocksThanFit = 1000;

void limitAddressSpace() {
    const rlimit limit{kAddressSpace, kAddressSpace};
    setrlimit(RLIMIT_AS, &limit);
}

}  // namespace

namespace HostChild {

std::int32_t returnArgument() {
    say("initialised ", static_cast<std::uint64_t>(initialised));
    say("bound ", Interrupt::current() == &Proc::mainInterrupt());
    InitCode::atExit([] { say("first handler"); });
    InitCode::atExit(nullptr);
    InitCode::atExit([] {
        say("second handler");
        InitCode::atExit([] { say("handler of a handler"); });
    });
    InitCode::entry(2, [] {
        say("other reason");
        return std::int32_t{1};
    });
    return static_cast<std::int32_t>(argument1);
}

std::int32_t exitAtOnce() {
    InitCode::atExit([] { say("handler"); });
    Proc::setExitCode(4);
    Proc::exit(3);
}

std::int32_t writeIntoBrokenPipe() {
    int ends[2];
    if (pipe(ends) != 0) return 1;
    close(ends[0]);
    return write(ends[1], "x", 1) < 0 && errno == EPIPE ? 0 : 2;
}

std::int32_t checkStandardDescriptors() {
    for (int descriptor = 0; descriptor < 3; ++descriptor) {
        struct stat status {};
        if (fstat(descriptor, &status) != 0) return 10 + descriptor;
        if (!S_ISCHR(status.st_mode) || status.st_rdev != makedev(1, 3)) return 20 + descriptor;
    }
    return write(1, "x", 1) == 1 ? 0 : 30;
}

std::int32_t exhaustAlloc() {
    limitAddressSpace();
    std::vector<void*> blocks;
    for (std::size_t block = 0; block < kMoreBlocksThanFit; ++block) blocks.push_back(Heap::alloc(kBlock));
    for (void* const block : blocks) Heap::free(block);
    return 5;
}

std::int32_t exhaustNew() {
    limitAddressSpace();
    std::vector<std::unique_ptr<char[]>> blocks;
    for (std::size_t block = 0; block < kMoreBlocksThanFit; ++block) blocks.emplace_back(new char[kBlock]);
    return static_cast<std::int32_t>(5 + blocks.back()[0]);
}

}  // namespace HostChild
