#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>

#include "tests/unit/simulator/Client.h"
#include "tests/unit/support/PrivateBus.h"
#include "tests/unit/support/Waiting.h"

namespace SimulatorTests {

namespace {

/// A run of bluez-simulator as a process, its output in pipes. Killed with the object when it did not end.
class Process {
public:
    explicit Process(std::vector<std::string> arguments) {
        int out[2];
        int err[2];
        if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) ADD_FAILURE() << "no pipe";
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
        arguments.insert(arguments.begin(), BLUEZ_SIMULATOR);
        std::vector<char*> raw;
        for (auto& argument : arguments) raw.push_back(argument.data());
        raw.push_back(nullptr);
        if (posix_spawn(&pid_, BLUEZ_SIMULATOR, &actions, nullptr, raw.data(), environ) != 0) {
            ADD_FAILURE() << "cannot run " << BLUEZ_SIMULATOR;
        }
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        close(err[1]);
        out_ = out[0];
        err_ = err[0];
    }
    ~Process() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(out_);
        close(err_);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// Waits for the line "ready".
    bool isReady() const {
        char line[6];
        ssize_t length = 0;
        while (length < 6) {
            const ssize_t got = read(out_, line + length, static_cast<std::size_t>(6 - length));
            if (got <= 0) return false;
            length += got;
        }
        return std::string(line, 6) == "ready\n";
    }
    void send(int signal) const { kill(pid_, signal); }
    pid_t pid() const { return pid_; }

    /// Waits for the end; gives the exit code, or -signal.
    int exitCode() {
        output = readAll(out_);
        errors = readAll(err_);
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    std::string output;
    std::string errors;

private:
    static std::string readAll(int descriptor) {
        std::string all;
        char piece[4096];
        for (ssize_t got = 0; (got = read(descriptor, piece, sizeof piece)) > 0;) {
            all.append(piece, static_cast<std::size_t>(got));
        }
        return all;
    }

    pid_t pid_ = -1;
    int out_ = -1;
    int err_ = -1;
};

std::vector<std::string> onBus(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--bus", UnitTest::PrivateBus::address()});
    return arguments;
}

TEST(Program, IsReadyOnceTheNameIsOwnedAndEndsOnSignals) {
    for (const int signal : {SIGTERM, SIGINT}) {
        UnitTest::PrivateBus bus;
        Process run(onBus({}));
        ASSERT_TRUE(run.isReady());
        {
            Client client;
            EXPECT_TRUE(client.property(kHci0, Simulator::kAdapter1, "Address"));
        }
        run.send(signal);
        EXPECT_EQ(run.exitCode(), 0);
        EXPECT_EQ(run.errors, "");
    }
}

TEST(Program, TakesTheSystemBusOfTheEnvironment) {
    UnitTest::PrivateBus bus;  // sets DBUS_SYSTEM_BUS_ADDRESS
    Process run({"--scenario", "keyboard"});
    ASSERT_TRUE(run.isReady());
    Client().control("Quit");
    EXPECT_EQ(run.exitCode(), 0);
}

TEST(Program, TellsReadinessToADescriptor) {
    UnitTest::PrivateBus bus;
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    Process run(onBus({"--ready-fd", std::to_string(ready[1])}));
    close(ready[1]);
    char line[16] = {};
    EXPECT_EQ(read(ready[0], line, sizeof line), 6);
    EXPECT_STREQ(line, "ready\n");
    EXPECT_EQ(read(ready[0], line, sizeof line), 0);  // closed
    close(ready[0]);
    Client().control("Quit");
    EXPECT_EQ(run.exitCode(), 0);
    EXPECT_EQ(run.output, "");
}

TEST(Program, RefusesABusWhereTheNameIsTaken) {
    UnitTest::PrivateBus bus;
    Process first(onBus({}));
    ASSERT_TRUE(first.isReady());
    Process second(onBus({}));
    EXPECT_EQ(second.exitCode(), 1);
    EXPECT_NE(second.errors.find("the name org.bluez has an owner on this bus already"), std::string::npos);
    EXPECT_EQ(second.output, "");
}

TEST(Program, EndsWithAMessageWhenTheBusGoesAway) {
    UnitTest::PrivateBus bus;
    Process run(onBus({}));
    ASSERT_TRUE(run.isReady());
    bus.kill();
    EXPECT_EQ(run.exitCode(), 1);
    EXPECT_EQ(run.errors, "bluez-simulator: lost the connection to the bus\n");
}

TEST(Program, TellsThatThereIsNoBus) {
    Process run({"--bus", "unix:path=/nonexistent/bus"});
    EXPECT_EQ(run.exitCode(), 1);
    EXPECT_NE(run.errors.find("cannot reach the bus at unix:path=/nonexistent/bus"), std::string::npos);
}

TEST(Program, RefusesUnknownScenariosAndOptions) {
    Process scenario({"--scenario", "chaos"});
    EXPECT_EQ(scenario.exitCode(), 1);
    EXPECT_NE(scenario.errors.find("there is no scenario 'chaos'"), std::string::npos);
    Process option({"--nonsense"});
    EXPECT_EQ(option.exitCode(), 2);
}

TEST(Program, ListsScenariosAndModels) {
    Process scenarios({"--list-scenarios"});
    EXPECT_EQ(scenarios.exitCode(), 0);
    EXPECT_NE(scenarios.output.find("tour "), std::string::npos);
    Process models({"--list-models"});
    EXPECT_EQ(models.exitCode(), 0);
    EXPECT_NE(models.output.find("keyboard "), std::string::npos);
}

TEST(Program, NarratesWhatHappens) {
    UnitTest::PrivateBus bus;
    Process run(onBus({"--verbose", "--scenario", "headset"}));
    ASSERT_TRUE(run.isReady());
    {
        Client client;
        client.property(kHci0, Simulator::kAdapter1, "Address");
        client.call("/org/bluez/hci0/dev_5C_F3_70_00_00_01", Simulator::kDevice1, "Pair");
        client.control("Quit");
    }
    EXPECT_EQ(run.exitCode(), 0);
    EXPECT_NE(run.errors.find("/org/bluez/hci0/dev_5C_F3_70_00_00_01 Pair()\n"), std::string::npos);
    EXPECT_NE(run.errors.find("/org/bluez/hci0/dev_5C_F3_70_00_00_01 is paired\n"), std::string::npos);
    EXPECT_EQ(run.errors.find("Get("), std::string::npos);
}

TEST(Program, IsSteeredFromTheCommandLine) {
    UnitTest::PrivateBus bus;
    Process run(onBus({"--scenario", "keyboard"}));
    ASSERT_TRUE(run.isReady());
    const auto ctl = [](std::vector<std::string> words) {
        words.insert(words.begin(), "ctl");
        return std::make_unique<Process>(onBus(std::move(words)));
    };
    const auto added = ctl({"add-adapter", "hci4", "00:11:22:33:44:55", "Name=s:the fourth", "UUIDs=as:[a, b]"});
    EXPECT_EQ(added->exitCode(), 0);
    EXPECT_EQ(added->output, "/org/bluez/hci4\n");
    {
        Client client;
        EXPECT_EQ(client.property("/org/bluez/hci4", Simulator::kAdapter1, "Name"), text("the fourth"));
        EXPECT_EQ(client.property("/org/bluez/hci4", Simulator::kAdapter1, "UUIDs"), Value::strings({"a", "b"}));
    }
    const auto count = ctl({"call-count", "*", "Get"});
    EXPECT_EQ(count->exitCode(), 0);
    EXPECT_EQ(count->output, "2\n");
    const auto mistake = ctl({"remove-adapter", "/org/bluez/hci9"});
    EXPECT_EQ(mistake->exitCode(), 1);
    EXPECT_NE(mistake->errors.find("there is no adapter /org/bluez/hci9"), std::string::npos);
    for (const auto& words : std::initializer_list<std::vector<std::string>>{
             {}, {"dance"}, {"quit", "now"}, {"load"}, {"flood", "many"}, {"add-adapter", "hci5", "x", "Name"}}) {
        EXPECT_EQ(ctl(words)->exitCode(), 2);
    }
    EXPECT_EQ(ctl({"quit"})->exitCode(), 0);
    EXPECT_EQ(run.exitCode(), 0);
    EXPECT_EQ(ctl({"held"})->exitCode(), 1);
}

TEST(Program, AnnouncesItsAdaptersAndTakesLeaveAsBluetoothdDoes) {
    UnitTest::PrivateBus bus;
    Client client;
    Process run(onBus({"--scenario", "keyboard"}));
    ASSERT_TRUE(run.isReady());
    EXPECT_TRUE(client.waitFor([&] { return !client.told(kHci0).empty(); }));
    EXPECT_TRUE(client.told(kHci0).front().starts_with("InterfacesAdded"));
    client.registerAgent();
    client.control("Quit");
    const auto isGone = [&](const char* path) {
        const auto told = client.told(path);
        return !told.empty() && told.back().starts_with("InterfacesRemoved");
    };
    EXPECT_TRUE(client.waitFor([&] {
        return isGone("/org/bluez/hci0/dev_5C_F3_70_00_00_01") && isGone(kHci0) && !client.agentCalls.empty();
    }));
    EXPECT_EQ(client.agentCalls.back().member, "Release");
    EXPECT_EQ(run.exitCode(), 0);
}

TEST(Program, IsIdleWhenNothingHappens) {
    UnitTest::PrivateBus bus;
    Process run(onBus({"--scenario", "thousand"}));
    ASSERT_TRUE(run.isReady());
    Client().catchUp();
    const auto spent = [&] {
        std::ifstream stat("/proc/" + std::to_string(run.pid()) + "/schedstat");
        std::uint64_t nanoseconds = 0;
        stat >> nanoseconds;
        return nanoseconds;
    };
    const auto sleeps = [&] {
        std::ifstream stat("/proc/" + std::to_string(run.pid()) + "/stat");
        std::string line;
        std::getline(stat, line);
        return line.find(") S ") != std::string::npos;
    };
    // One that spins is never asleep; one that wakes up again and again uses up time.
    std::uint64_t before = spent();
    EXPECT_TRUE(UnitTest::waitUntil([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const std::uint64_t now = spent();
        const bool stands = sleeps() && now == before;
        before = now;
        return stands;
    }));
    Client().control("Quit");
    EXPECT_EQ(run.exitCode(), 0);
}

}  // namespace

}  // namespace SimulatorTests
