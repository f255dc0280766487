#include "tests/unit/support/PrivateBus.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>

namespace UnitTest {

namespace {

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::abort();
}

/// The directory of the socket and the configuration; removed when the test program ends.
class Directory {
public:
    Directory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "private-bus-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) fail("mkdtemp");
        path_ = pattern;
        address_ = "unix:path=" + (path_ / "socket").string();
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
    }
    ~Directory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    const std::filesystem::path& path() const { return path_; }
    const std::string& address() const { return address_; }

private:
    std::filesystem::path path_;
    std::string address_;
};

const Directory& directory() {
    static const Directory instance;
    return instance;
}

std::filesystem::path writeConfig(const std::string& extraConfig) {
    const std::filesystem::path file = directory().path() / "bus.conf";
    std::ofstream out(file);
    out << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig><type>system</type><listen>"
        << directory().address()
        << "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow user=\"*\"/><allow own=\"*\"/>"
           "<allow send_type=\"method_call\"/><allow send_type=\"signal\"/><allow send_type=\"method_return\"/>"
           "<allow send_type=\"error\"/><allow receive_type=\"method_call\"/><allow receive_type=\"signal\"/>"
           "<allow receive_type=\"method_return\"/><allow receive_type=\"error\"/>"
           "<allow send_requested_reply=\"false\"/><allow receive_requested_reply=\"false\"/></policy>"
        << extraConfig << "</busconfig>\n";
    if (!out.flush()) fail("bus.conf");
    return file;
}

}  // namespace

const std::string& PrivateBus::address() {
    return directory().address();
}

PrivateBus::PrivateBus(const std::string& extraConfig) {
    const std::string config = "--config-file=" + writeConfig(extraConfig).string();
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) fail("pipe2");
    // The daemon writes its address to descriptor 3 once it listens.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ready[1], 3);
    // Its complaints (about limits it may not raise, where the tests run confined) matter only when it does not start.
    const std::string log = (directory().path() / "log").string();
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
    const char* arguments[] = {"setpriv",     "--pdeathsig", "KILL",       "dbus-daemon",       config.c_str(),
                               "--nopidfile", "--nofork",    "--nosyslog", "--print-address=3", nullptr};
    const int error = ::posix_spawnp(&daemon_, arguments[0], &actions, nullptr, const_cast<char**>(arguments), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(ready[1]);
    if (error != 0) {
        errno = error;
        fail("setpriv");
    }
    char line[1];
    if (::read(ready[0], line, sizeof line) != 1) {
        std::cerr << std::ifstream(log).rdbuf() << std::flush;
        fail("dbus-daemon did not start");
    }
    ::close(ready[0]);
}

PrivateBus::~PrivateBus() {
    kill();
}

void PrivateBus::kill() {
    if (daemon_ < 0) return;
    ::kill(daemon_, SIGKILL);
    while (::waitpid(daemon_, nullptr, 0) < 0 && errno == EINTR) {
    }
    daemon_ = -1;
}

void PrivateBus::freeze(bool frozen) {
    ::kill(daemon_, frozen ? SIGSTOP : SIGCONT);
    if (!frozen) return;
    // SIGSTOP is asynchronous; the stop is reported to the parent.
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(daemon_), &info, WSTOPPED) < 0 && errno == EINTR) {
    }
}

}  // namespace UnitTest
