#include "tests/unit/service/ServiceProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "tests/unit/support/LogCapture.h"
#include "tests/unit/support/NodeRoot.h"

namespace UnitTest {

namespace {

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::abort();
}

}  // namespace

ServiceProcess::ServiceProcess(const Environment& environment) : output_(::memfd_create("output", MFD_CLOEXEC)) {
    nodeRoot();
    if (output_ < 0 || ::fcntl(output_, F_SETFL, O_APPEND) < 0) fail("memfd_create");
    std::vector<std::string> assignments;
    for (const auto& [name, value] : environment) assignments.push_back(name + "=" + value);
    std::vector<const char*> arguments{"env"};
    for (const std::string& assignment : assignments) arguments.push_back(assignment.c_str());
    arguments.push_back(BTN_SERVICE_PROGRAM);
    arguments.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output_, STDOUT_FILENO);
    const int error =
        ::posix_spawnp(&process_, arguments[0], &actions, nullptr, const_cast<char**>(arguments.data()), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        errno = error;
        fail("posix_spawnp");
    }
}

ServiceProcess::~ServiceProcess() {
    if (!end_) {
        ::kill(process_, SIGKILL);
        waitForEnd();
    }
    ::close(output_);
}

void ServiceProcess::signal(int number) {
    if (!end_) ::kill(process_, number);
}

std::optional<int> ServiceProcess::waitForEnd(std::chrono::milliseconds limit) {
    if (end_) return end_;
    int status = 0;
    if (waitUntil([&] { return ::waitpid(process_, &status, WNOHANG) == process_; }, limit)) {
        end_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    return end_;
}

std::string ServiceProcess::output() const {
    struct stat status {};
    if (::fstat(output_, &status) != 0) fail("fstat");
    std::string all(static_cast<std::size_t>(status.st_size), '\0');
    if (::pread(output_, all.data(), all.size(), 0) != status.st_size) fail("pread");
    return all;
}

std::vector<std::string> ServiceProcess::records() const {
    return recordsOf(output());
}

bool ServiceProcess::waitForRecord(const std::string& record) {
    return waitUntil([&] {
        const std::vector<std::string> all = records();
        return std::find(all.begin(), all.end(), record) != all.end();
    });
}

}  // namespace UnitTest
