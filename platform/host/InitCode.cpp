#include "platform/host/InitCode.h"

#include <mutex>
#include <vector>

#include "platform/host/Heap.h"
#include "platform/host/Interrupt.h"
#include "platform/host/Proc.h"
#include "platform/host/SysLog.h"

namespace {

/// How long the end of the process waits for log lines that the descriptor has not taken yet.
constexpr std::uint32_t kLogFlushMs = 200;

/// Made at the first use, whichever module's static objects come first, and never destroyed.
std::vector<InitCode::Initialiser>& initialisers() {
    static auto& table = *new std::vector<InitCode::Initialiser>;
    return table;
}

struct ExitHandlers {
    std::mutex mutex;
    std::vector<InitCode::ExitHandler> handlers;

    static ExitHandlers& instance() {
        static auto& only = *new ExitHandlers;
        return only;
    }

    InitCode::ExitHandler takeLast() {
        const std::lock_guard<std::mutex> guard(mutex);
        if (handlers.empty()) return nullptr;
        const InitCode::ExitHandler last = handlers.back();
        handlers.pop_back();
        return last;
    }
};

void start(InitCode::Main main) {
    const Interrupt::Bind bind(Proc::mainInterrupt());
    Heap::install();
    Proc::takeSignals();
    InitCode::runInitialisers();
    const std::int32_t result = main ? main() : 0;
    Proc::setExitCode(Proc::terminationPending() ? 0 : result);
}

void end() {
    while (const InitCode::ExitHandler handler = ExitHandlers::instance().takeLast()) handler();
    SysLogStream::stdOutPrinter().flush(kLogFlushMs);
}

}  // namespace

InitCode::Register::Register(Initialiser initialiser) {
    initialisers().push_back(initialiser);
}

void InitCode::runInitialisers() {
    for (const Initialiser initialiser : initialisers()) {
        if (initialiser) initialiser();
    }
}

void InitCode::atExit(ExitHandler handler) {
    if (!handler) return;
    ExitHandlers& all = ExitHandlers::instance();
    const std::lock_guard<std::mutex> guard(all.mutex);
    all.handlers.push_back(handler);
}

void InitCode::entry(std::uint32_t reason, Main main) {
    switch (reason) {
        case kStart:
            start(main);
            break;
        case kEnd:
            end();
            break;
        default:
            break;
    }
}
