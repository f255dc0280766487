// What only the process as a whole shows: signals, terminals, closed and broken outputs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "btnode/Limit.h"
#include "tests/unit/client/Btnode.h"
#include "tests/unit/client/FakeTree.h"

namespace btnode {
namespace {

using test::FakeTree;
using Words = std::vector<std::string>;

constexpr std::chrono::seconds kPatience{60};
constexpr std::chrono::milliseconds kQuick{100};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

/// One btnode. Descriptors of -1 are closed in it.
class Process {
public:
    Process(const Words& arguments, int out, int err, const Words& environment = {}) {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        // Both first moved out of the way of each other.
        for (const auto& [fd, target] : {std::pair{out, 1}, {err, 2}}) {
            if (fd < 0) {
                posix_spawn_file_actions_addclose(&actions, target);
            } else {
                posix_spawn_file_actions_adddup2(&actions, fd, target);
            }
        }
        std::vector<char*> argv = {const_cast<char*>("btnode")};
        for (const std::string& each : arguments) argv.push_back(const_cast<char*>(each.c_str()));
        argv.push_back(nullptr);
        std::vector<char*> envp;
        for (const std::string& each : environment) envp.push_back(const_cast<char*>(each.c_str()));
        envp.push_back(nullptr);
        EXPECT_EQ(::posix_spawn(&pid_, BTNODE_PROGRAM, &actions, nullptr, argv.data(), envp.data()), 0);
        posix_spawn_file_actions_destroy(&actions);
    }
    ~Process() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            wait();
        }
    }

    void signal(int number) const { ::kill(pid_, number); }
    /// The exit code, or minus the number of the signal that ended it.
    int wait() {
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

private:
    pid_t pid_ = -1;
};

struct Pipe {
    Pipe() {
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        reader = ends[0];
        writer = ends[1];
    }
    ~Pipe() {
        closeReader();
        closeWriter();
    }
    void closeReader() { closeOnce(reader); }
    void closeWriter() { closeOnce(writer); }
    static void closeOnce(int& fd) {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
    int reader;
    int writer;
};

/// Reads until the text is there, or until the end where it is empty.
std::string readUntil(int fd, const std::string& text) {
    const Limit limit = Limit::in(kPatience);
    std::string content;
    while (text.empty() || !contains(content, text)) {
        if (waitFor(fd, POLLIN, limit) != Ready::Yes) break;
        char chunk[4096];
        const ssize_t count = ::read(fd, chunk, sizeof chunk);
        if (count <= 0) break;
        content.append(chunk, static_cast<std::size_t>(count));
    }
    return content;
}

class ProcessTest : public testing::Test {
protected:
    ProcessTest() {
        fake_.publishService();
        fake_.publishDevice("00:11:22:33:44:55", "Keyboard", 3);
    }
    Words here(Words words) const {
        words.insert(words.end(), {"--root", fake_.root()});
        return words;
    }
    test::FakeNode& master() { return fake_.node("bluetooth/master"); }

    FakeTree fake_;
    Pipe out_;
    Pipe err_;
};

TEST_F(ProcessTest, TakesTheRootFromTheEnvironment) {
    Process get({"get", "Keyboard", "NAME"}, out_.writer, err_.writer, {"NODE_ROOT=" + fake_.root()});
    out_.closeWriter();
    EXPECT_EQ(readUntil(out_.reader, ""), "Keyboard\n");
    EXPECT_EQ(get.wait(), 0);
}

TEST_F(ProcessTest, ASignalEndsAScanAndStopsItsInquiry) {
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        Process scan(here({"scan", "--json"}), out_.writer, err_.writer);
        EXPECT_TRUE(contains(readUntil(out_.reader, "\"known\""), "scanning"));
        scan.signal(number);
        EXPECT_EQ(scan.wait(), 128 + number);
    }
    EXPECT_EQ(master().executed(), (Words{"INQUIRY_START", "INQUIRY_STOP", "INQUIRY_START", "INQUIRY_STOP",
                                          "INQUIRY_START", "INQUIRY_STOP"}));
}

TEST_F(ProcessTest, ASecondSignalEndsEvenAProcessThatIsSettingThingsRight) {
    master().setAction("INQUIRY_STOP", [&](const test::json::object&) {
        fake_.gate().wait();
        return test::integerValue("INQUIRY_STOP", 0);
    });
    Process scan(here({"scan", "--json"}), out_.writer, err_.writer);
    readUntil(out_.reader, "\"known\"");
    scan.signal(SIGINT);
    ASSERT_TRUE(master().waitForAction("INQUIRY_STOP"));
    scan.signal(SIGINT);
    EXPECT_EQ(scan.wait(), -SIGINT);
    fake_.gate().open();
}

TEST_F(ProcessTest, ABrokenPipeEndsQuietly) {
    out_.closeReader();
    Process list(here({"list"}), out_.writer, err_.writer);
    err_.closeWriter();
    EXPECT_EQ(list.wait(), cli::kReaderGone);
    EXPECT_EQ(readUntil(err_.reader, ""), "");
}

TEST_F(ProcessTest, ASignalEndsAnOutputThatCannotGoOn) {
    ASSERT_EQ(::fcntl(out_.writer, F_SETFL, O_NONBLOCK), 0);
    const std::string page(4096, 'x');
    while (::write(out_.writer, page.data(), page.size()) > 0) {
    }
    Process scan(here({"scan", "--json"}), out_.writer, err_.writer);
    ASSERT_TRUE(master().waitForAction("INQUIRY_START"));
    scan.signal(SIGINT);
    EXPECT_EQ(scan.wait(), 130);
    EXPECT_EQ(master().executed(), (Words{"INQUIRY_START", "INQUIRY_STOP"}));
}

TEST_F(ProcessTest, AnOutputThatCannotBeWrittenIsAFailure) {
    const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    Process list(here({"list"}), full, err_.writer);
    err_.closeWriter();
    EXPECT_EQ(list.wait(), 1);
    EXPECT_TRUE(contains(readUntil(err_.reader, ""), "cannot write the output"));
    ::close(full);
}

TEST_F(ProcessTest, AClosedOutputIsAFailureAndNoSocketTakesItsPlace) {
    Process list(here({"list"}), -1, err_.writer);
    err_.closeWriter();
    EXPECT_EQ(list.wait(), 1);
    EXPECT_TRUE(contains(readUntil(err_.reader, ""), "cannot write the output"));
}

TEST_F(ProcessTest, AnswersWithinATenthOfASecondWithoutAService) {
    // The quickest of some runs: a machine that is busy with something else delays any of them.
    Limit::Clock::duration quickest = kPatience;
    for (int run = 0; run < 50 && quickest > kQuick; ++run) {
        const auto begin = Limit::Clock::now();
        Process list({"list", "--root", "/nonexistent"}, out_.writer, err_.writer);
        EXPECT_EQ(list.wait(), 5);
        quickest = std::min(quickest, Limit::Clock::now() - begin);
    }
    EXPECT_LT(quickest, kQuick);
}

TEST_F(ProcessTest, NoEscapeByteLeavesATerminal) {
    for (const Words& words : {Words{"list"}, Words{"show", "Keyboard"}, Words{"scan", "--for", "0.3"}, Words{"--help"},
                               Words{"nonsense"}, Words{"profiles", "Keyboard"}, Words{"get", "Keyboard", "NAME"}}) {
        Pipe both;
        Process process(here(words), both.writer, both.writer, {"TERM=xterm-256color", "LANG=C.UTF-8"});
        both.closeWriter();
        const std::string text = readUntil(both.reader, "");
        EXPECT_NE(text, "");
        EXPECT_EQ(text.find('\x1b'), std::string::npos) << text;
        EXPECT_EQ(text.find('\r'), std::string::npos) << text;
        process.wait();
    }
}

class Terminal {
public:
    Terminal() {
        winsize size{};
        size.ws_col = 60;
        size.ws_row = 10;
        EXPECT_EQ(::openpty(&master_, &slave_, nullptr, nullptr, &size), 0);
    }
    ~Terminal() {
        closeSlave();
        ::close(master_);
    }
    void closeSlave() { Pipe::closeOnce(slave_); }
    int slave() const { return slave_; }
    /// What is written until the text is there.
    std::string until(const std::string& text) {
        closeSlave();
        return readUntil(master_, text);
    }
    /// What is written until every process has closed it.
    std::string content() { return until(""); }

private:
    int master_ = -1;
    int slave_ = -1;
};

TEST_F(ProcessTest, ATerminalGetsALiveListThatFitsIt) {
    for (int number = 10; number < 40; ++number) {
        fake_.publishDevice("00:00:00:00:00:" + std::to_string(number), std::string(50, 'x'));
    }
    Terminal terminal;
    Process scan(here({"scan"}), terminal.slave(), err_.writer, {"TERM=xterm", "LANG=C.UTF-8"});
    std::string text = terminal.until(" s, 31 devices");
    scan.signal(SIGINT);
    text += terminal.content();
    EXPECT_EQ(scan.wait(), 130);
    EXPECT_TRUE(contains(text, "Scanning on all adapters: ")) << text;
    EXPECT_TRUE(contains(text, "Scanned on all adapters: ")) << text;
    EXPECT_TRUE(contains(text, "(24 more above)")) << text;
    EXPECT_TRUE(contains(text, "…")) << text;
    EXPECT_EQ(text.find("\x1b[2J"), std::string::npos);
}

TEST_F(ProcessTest, NoColorAndADumbTerminalAreRespected) {
    for (const Words& environment : {Words{"TERM=xterm", "NO_COLOR=1"}, Words{"TERM=dumb"}, Words{}}) {
        Terminal terminal;
        Process list(here({"list"}), terminal.slave(), err_.writer, environment);
        const std::string text = terminal.content();
        EXPECT_EQ(list.wait(), 0);
        EXPECT_TRUE(contains(text, "Keyboard"));
        EXPECT_EQ(text.find('\x1b'), std::string::npos) << text;
    }
    Terminal terminal;
    Process list(here({"list"}), terminal.slave(), err_.writer, {"TERM=xterm"});
    EXPECT_TRUE(contains(terminal.content(), "\x1b[1mbluetooth\x1b[0m"));
    EXPECT_EQ(list.wait(), 0);
}

TEST_F(ProcessTest, ATerminalSeesThePairingGoOn) {
    auto& keyboard = fake_.node(test::deviceNode("00:11:22:33:44:55"));
    keyboard.setActions({{"CONNECT",
                          [](const test::json::object&) {
                              return test::listValue(
                                  "CONNECT", {test::integerValue("RESULT", 1), test::stringValue("PINCODE", "482913")});
                          }},
                         {"WAIT_CONNECTED", [this](const test::json::object&) {
                              fake_.gate().wait();
                              return test::integerValue("WAIT_CONNECTED", 0);
                          }}});
    Terminal terminal;
    Process pair(here({"pair", "Keyboard"}), terminal.slave(), terminal.slave(), {"TERM=xterm", "NO_COLOR=1"});
    std::string text = terminal.until("482913\r\n");
    const std::string first = terminal.until(" s left");
    const std::string second = terminal.until(" s left");
    fake_.gate().open();
    text += first + second + terminal.content();
    EXPECT_EQ(pair.wait(), 0);
    EXPECT_TRUE(contains(text, "Enter there:\r\n482913\r\n")) << text;
    EXPECT_TRUE(contains(first, "\rWaiting until it is paired: ")) << text;
    // Later by a second or more.
    EXPECT_TRUE(contains(second, "\rWaiting until it is paired: ")) << text;
    EXPECT_TRUE(contains(text, "\r\x1b[KPaired with Keyboard")) << text;
}

/// A service in a process of its own that answers one call, and ends a while after it has gone from the tree.
pid_t startShortLivedService(const std::string& path) {
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const void* raw = &address;
    EXPECT_EQ(::bind(listener, static_cast<const sockaddr*>(raw), sizeof address), 0);
    const pid_t pid = ::fork();
    if (pid == 0) {
        // The kernel names the process that listens; only calls that are safe in the child of a process with threads.
        static const char reply[] = R"({"parameters":{"values":[{"name":"STOP","kind":"integer","integer":0}]}})";
        ::listen(listener, 1);
        const int fd = ::accept(listener, nullptr, nullptr);
        char byte = 'x';
        while (byte != '\0' && ::read(fd, &byte, 1) == 1) {
        }
        const bool written = ::write(fd, reply, sizeof reply) == sizeof reply;
        ::unlink(path.c_str());
        ::poll(nullptr, 0, 200);
        ::_exit(written ? 0 : 1);
    }
    ::close(listener);
    return pid;
}

TEST(Stop, ReturnsOnlyWhenTheProcessHasEnded) {
    FakeTree fake;
    std::filesystem::create_directories(fake.pathOf("bluetooth"));
    const pid_t service = startShortLivedService(fake.pathOf("bluetooth/service"));
    // The child listens as soon as it runs.
    test::Ended ended;
    const Limit limit = Limit::in(kPatience);
    do {
        ended = test::btnode({"stop", "--root", fake.root()});
    } while (ended.code == 5 && !limit.passed());
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_NE(ended.err.find("has ended"), std::string::npos);
    int status = 0;
    EXPECT_EQ(::waitpid(service, &status, WNOHANG), service);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace btnode
