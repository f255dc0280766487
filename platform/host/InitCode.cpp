#include "platform/host/InitCode.h"

#include <vector>

#include "platform/host/Heap.h"
#include "platform/host/Interrupt.h"
#include "platform/host/Mutex.h"
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

class ExitHandlers {
public:
    static ExitHandlers& instance() {
        static auto& only = *new ExitHandlers;
        return only;
    }

    void add(InitCode::ExitHandler handler) {
        const MutexLock lock(mutex_);
        handlers_.push_back(handler);
    }

    /// Null when there is none.
    InitCode::ExitHandler takeLast() {
        const MutexLock lock(mutex_);
        if (handlers_.empty()) return nullptr;
        const InitCode::ExitHandler last = handlers_.back();
        handlers_.pop_back();
        return last;
    }

private:
    Mutex mutex_;
    std::vector<InitCode::ExitHandler> handlers_ GUARDED_BY(mutex_);
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
    Proc::leaveSignals();
    SysLogStream::stdOutPrinter().end();
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
    if (handler) ExitHandlers::instance().add(handler);
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
