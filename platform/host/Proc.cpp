#include "platform/host/Proc.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <utility>

#include "platform/host/Termination.h"

namespace {

std::atomic<std::int32_t> processExitCode{0};

void openStandardDescriptors() noexcept {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) >= 0 || errno != EBADF) continue;
        // The lowest free number is this one, since the ones below are open.
        [[maybe_unused]] const int opened = open("/dev/null", O_RDWR);
    }
}

}  // namespace

void Proc::exit(int code) noexcept {
    _exit(code);
}

void Proc::setExitCode(std::int32_t code) noexcept {
    processExitCode.store(code);
}

std::int32_t Proc::exitCode() noexcept {
    return processExitCode.load();
}

void Proc::takeSignals() {
    openStandardDescriptors();
    signal(SIGPIPE, SIG_IGN);
    Termination::instance().takeSignals();
}

void Proc::leaveSignals() {
    Termination::instance().leaveSignals();
}

void Proc::onTermination(std::function<bool()> deliver) {
    Termination::instance().setDeliver(std::move(deliver));
}

void Proc::deliverTermination() {
    Termination::instance().tryDeliver();
}

bool Proc::terminationRequested() noexcept {
    return Termination::instance().requested();
}

bool Proc::terminationPending() noexcept {
    return Termination::instance().pending();
}

Interrupt& Proc::mainInterrupt() noexcept {
    return Termination::instance().mainInterrupt();
}
