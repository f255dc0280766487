#include "platform/host/LogSink.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/unit/host/Capture.h"
#include "tests/unit/host/Child.h"

namespace {

using HostTest::Child;
using HostTest::Descriptor;
using HostTest::linesOf;
using HostTest::Pipe;
using HostTest::Reader;
using HostTest::withoutTimes;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

/// What a record may take when nobody reads; far below what a reader would be waited for.
constexpr int kPromptMs = 2000;

/// Two ends: what the child gets as its standard output, and where the test reads that.
struct Ends {
    Descriptor child;
    Descriptor test;
};

Ends pipeEnds() {
    Pipe pipe;
    return {std::move(pipe.write), std::move(pipe.read)};
}

Ends socketEnds() {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

Ends terminalEnds() {
    Descriptor master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    EXPECT_EQ(grantpt(master.get()), 0);
    EXPECT_EQ(unlockpt(master.get()), 0);
    std::array<char, 64> name{};
    EXPECT_EQ(ptsname_r(master.get(), name.data(), name.size()), 0);
    Descriptor slave(open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    return {std::move(slave), std::move(master)};
}

struct Kind {
    const char* name;
    Ends (*make)();
    const char* flood = "log-flood";
};

class StuckReader : public testing::TestWithParam<Kind> {};
INSTANTIATE_TEST_SUITE_P(
    Of, StuckReader,
    testing::Values(Kind{"Pipe", &pipeEnds}, Kind{"Socket", &socketEnds}, Kind{"Terminal", &terminalEnds},
                    Kind{"PipeWithoutDescriptors", &pipeEnds, "log-flood-without-descriptors"},
                    Kind{"TerminalWithoutDescriptors", &terminalEnds, "log-flood-without-descriptors"}),
    [](const auto& made) { return std::string(made.param.name); });

std::vector<std::string> withoutReturns(std::vector<std::string> lines) {
    for (std::string& line : lines) {
        if (line.ends_with('\r')) line.pop_back();  // a terminal's line break
    }
    return lines;
}

/// The record with this number of a flooding child, without its time.
template <class Number>
std::string floodRecord(Number number, std::size_t filling) {
    return "[4] Tests/Main HostChild: " + std::to_string(number) + " " +
           std::string(number % 2 == 1 ? filling : 0, 'x');
}

/// The number after "longest " that a flooding child says.
int longestMs(Child& child) {
    const std::optional<std::string> said = child.error().line();
    if (!said || !said->starts_with("longest ")) return -1;
    return std::stoi(said->substr(8));
}

TEST_P(StuckReader, DelaysNobodyAndGetsEveryLineWhenItReadsAgain) {
    constexpr int kRecords = 4000;  // 500 KiB: more than any of the descriptors takes, less than the backlog
    Ends ends = GetParam().make();
    Reader reader(ends.test.get());
    Child child({.arguments = {GetParam().flood, std::to_string(kRecords), "150"}, .output = ends.child.get()});
    ends.child.close();
    const int longest = longestMs(child);
    EXPECT_GE(longest, 0);
    EXPECT_LT(longest, kPromptMs);

    for (int number = 1; number <= kRecords; ++number) {
        const std::vector<std::string> line = withoutReturns(withoutTimes({reader.line().value_or("nothing")}));
        ASSERT_EQ(line[0], floodRecord(number, 150));
    }
    child.goOn();
    EXPECT_THAT(withoutReturns(withoutTimes(linesOf(reader.rest()))),
                ElementsAre("[4] Tests/Main HostChild: after the flood"));
    EXPECT_EQ(child.wait(), 0);
}

/// The number at the end of a line that tells of lost ones, 0 for other lines.
std::uint64_t lostOf(const std::string& line) {
    static const std::string report = " SysLog: Log lines lost: ";
    const std::size_t found = line.find(report);
    if (found == std::string::npos) return 0;
    unsigned long long hexadecimal = 0;
    unsigned long long decimal = 0;
    EXPECT_EQ(std::sscanf(line.c_str() + found + report.size(), "%llxh (%llu)", &hexadecimal, &decimal), 2) << line;
    EXPECT_EQ(hexadecimal, decimal) << line;
    EXPECT_TRUE(line.starts_with("[3] Tests/")) << line;
    return decimal;
}

TEST_P(StuckReader, LosesTheNewestLinesAndIsToldHowManyInTheirPlace) {
    constexpr std::uint64_t kRecords = 6000;  // 3 MiB
    constexpr std::size_t kFilling = 1000;
    Ends ends = GetParam().make();
    Reader reader(ends.test.get());
    Child child({.arguments = {GetParam().flood, std::to_string(kRecords), std::to_string(kFilling)},
                 .output = ends.child.get()});
    ends.child.close();
    EXPECT_LT(longestMs(child), kPromptMs);

    // Every record is there or reported, before the child goes on to log one more. There may be several reports: a
    // terminal moves what it has between its buffers, and has room again although nobody reads.
    std::uint64_t number = 0;
    std::uint64_t lostInAll = 0;
    while (number < kRecords) {
        const std::string line = withoutReturns(withoutTimes({reader.line().value_or("nothing")}))[0];
        if (const std::uint64_t lost = lostOf(line)) {
            number += lost;
            lostInAll += lost;
        } else {
            ASSERT_EQ(line, floodRecord(++number, kFilling));
        }
    }
    EXPECT_EQ(number, kRecords);
    EXPECT_GT(lostInAll, 0u);
    EXPECT_GE((kRecords - lostInAll) * (kFilling + 100), LogSink::kMaxBacklog);

    child.goOn();
    EXPECT_THAT(withoutReturns(withoutTimes(linesOf(reader.rest()))),
                ElementsAre("[4] Tests/Main HostChild: after the flood"));
    EXPECT_EQ(child.wait(), 0);
}

TEST_P(StuckReader, HoldsUpTheEndOfTheProcessForAMomentOnly) {
    Ends ends = GetParam().make();
    Child child({.arguments = {GetParam().flood, "4000", "150"}, .output = ends.child.get()});
    ends.child.close();
    EXPECT_LT(longestMs(child), kPromptMs);
    child.goOn();
    EXPECT_EQ(child.error().line(), "logged");
    EXPECT_EQ(child.wait(), 0);  // nothing was read so far
}

TEST_P(StuckReader, GetsOneLineThatIsLongerThanTheBacklog) {
    Ends ends = GetParam().make();
    Reader reader(ends.test.get());
    const std::size_t length = 2 * LogSink::kMaxBacklog;
    Child child({.arguments = {GetParam().flood, "1", std::to_string(length)}, .output = ends.child.get()});
    ends.child.close();
    EXPECT_LT(longestMs(child), kPromptMs);
    const std::optional<std::string> line = reader.line();
    ASSERT_TRUE(line);
    EXPECT_GE(line->size(), length);
    child.goOn();
    EXPECT_THAT(withoutReturns(withoutTimes(linesOf(reader.rest()))),
                ElementsAre("[4] Tests/Main HostChild: after the flood"));
    EXPECT_EQ(child.wait(), 0);
}

TEST_P(StuckReader, ThatGoesAwayEndsNothing) {
    Ends ends = GetParam().make();
    Reader reader(ends.test.get());
    Child child({.arguments = {"log-late"}, .output = ends.child.get()});
    ends.child.close();
    EXPECT_EQ(child.error().line(), "logged");
    EXPECT_THAT(reader.line().value_or(""), HasSubstr("HostChild: first"));
    ends.test.close();
    child.goOn();
    EXPECT_EQ(child.wait(), 9);
}

TEST_P(StuckReader, ThatGoesAwayDuringAFloodEndsNothing) {
    Ends ends = GetParam().make();
    Child child({.arguments = {GetParam().flood, "4000", "150"}, .output = ends.child.get()});
    ends.child.close();
    EXPECT_LT(longestMs(child), kPromptMs);
    ends.test.close();
    child.goOn();
    EXPECT_EQ(child.error().line(), "logged");
    EXPECT_EQ(child.wait(), 0);
}

TEST(LogSink, TakesAStoppedTerminalForStuck) {
    Ends ends = terminalEnds();
    Reader reader(ends.test.get());
    ASSERT_EQ(tcflow(ends.child.get(), TCOOFF), 0);
    Child child({.arguments = {"log-flood", "10", "10"}, .output = ends.child.get()});
    EXPECT_LT(longestMs(child), kPromptMs);
    ASSERT_EQ(tcflow(ends.child.get(), TCOON), 0);
    ends.child.close();
    for (int number = 1; number <= 10; ++number) {
        EXPECT_THAT(reader.line().value_or("nothing"), HasSubstr("HostChild: " + std::to_string(number) + " "));
    }
    child.goOn();
    EXPECT_EQ(linesOf(reader.rest()).size(), 1u);
    EXPECT_EQ(child.wait(), 0);
}

TEST(LogSink, LeavesTheModeOfTheDescriptorAlone) {
    for (const auto make : {&pipeEnds, &socketEnds, &terminalEnds}) {
        Ends ends = make();
        const int before = fcntl(ends.child.get(), F_GETFL);
        Child child({.arguments = {"log-flood", "4000", "150"}, .output = ends.child.get()});
        EXPECT_LT(longestMs(child), kPromptMs);
        EXPECT_EQ(fcntl(ends.child.get(), F_GETFL), before);
    }
}

TEST(LogSink, WritesIntoAFile) {
    const Descriptor file(memfd_create("log", MFD_CLOEXEC));
    Child child({.arguments = {"log-flood", "4000", "150"}, .output = file.get()});
    child.goOn();
    EXPECT_EQ(child.wait(), 0);
    lseek(file.get(), 0, SEEK_SET);
    EXPECT_EQ(linesOf(Reader(file.get()).rest()).size(), 4001u);
}

TEST(LogSink, SurvivesAFullDevice) {
    const Descriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    Child child({.arguments = {"log-flood", "20", "10"}, .output = full.get()});
    child.goOn();
    EXPECT_EQ(child.wait(), 0);
}

TEST(LogSink, SurvivesClosedDescriptors) {
    Child child({.arguments = {"log-levels"}, .closeAll = true});
    EXPECT_EQ(child.wait(), 0);
}

TEST(LogSink, HidesTheLevelsBelowTheThresholdOfTheEnvironment) {
    const struct {
        const char* setting;
        std::size_t lines;
    } cases[] = {{"SYSLOG_LEVEL=", 5},  {"SYSLOG_LEVEL=0", 5}, {"SYSLOG_LEVEL=2", 3},  {"SYSLOG_LEVEL=3", 2},
                 {"SYSLOG_LEVEL=5", 0}, {"SYSLOG_LEVEL=x", 5}, {"SYSLOG_LEVEL=3x", 5}, {"SYSLOG_LEVEL=4294967295", 0}};
    for (const auto& item : cases) {
        Child child({.arguments = {"log-levels"}, .environment = {item.setting}});
        EXPECT_EQ(child.wait(), 0);
        EXPECT_EQ(linesOf(child.output().rest()).size(), item.lines) << item.setting;
    }
}

std::string journalStream(int descriptor) {
    struct stat status {};
    EXPECT_EQ(fstat(descriptor, &status), 0);
    return "JOURNAL_STREAM=" + std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

TEST(LogSink, WritesPrioritiesInPlaceOfTimesForTheJournal) {
    Ends ends = socketEnds();
    Reader reader(ends.test.get());
    Child child(
        {.arguments = {"log-levels"}, .environment = {journalStream(ends.child.get())}, .output = ends.child.get()});
    ends.child.close();
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(reader.rest(),
              "<7>[0] Tests/Main HostChild: of level 0\n<6>[1] Tests/Main HostChild: of level 1\n"
              "<5>[2] Tests/Main HostChild: of level 2\n<4>[3] Tests/Main HostChild: of level 3\n"
              "<3>[4] Tests/Main HostChild: of level 4\n");
}

TEST(LogSink, WritesTimesWhereTheJournalIsSomethingElse) {
    for (const std::string stream : {"JOURNAL_STREAM=1:2", "JOURNAL_STREAM=", "JOURNAL_STREAM=x"}) {
        Child child({.arguments = {"log-levels"}, .environment = {stream}});
        EXPECT_EQ(child.wait(), 0);
        const std::vector<std::string> lines = linesOf(child.output().rest());
        EXPECT_EQ(lines.size(), 5u);
        EXPECT_THAT(lines, Each(MatchesRegex("[0-9]{4}-.*Z \\[[0-4]\\] Tests/Main HostChild: of level [0-4]")));
    }
}

TEST(LogSink, NamesProcessAndThreads) {
    Child child({.arguments = {"log-texts"}});
    EXPECT_EQ(child.wait(), 0);
    EXPECT_THAT(withoutTimes(linesOf(child.output().rest())),
                ElementsAre(MatchesRegex("\\[4\\] unit-host-child/[0-9]+ HostChild: before the names"),
                            "[4] Tests/Main HostChild: 110bh (4363) and text", "[4] Tests/Worker HostChild: named",
                            MatchesRegex("\\[4\\] Tests/[0-9]+ HostChild: unnamed")));
}

TEST(LogSink, EndsTheRecordsThatNobodyEnds) {
    Child child({.arguments = {"log-parts"}});
    EXPECT_EQ(child.wait(), 0);
    EXPECT_THAT(withoutTimes(linesOf(child.output().rest())),
                ElementsAre(MatchesRegex("\\[4\\] Tests/[0-9]+ HostChild: left by a thread"),
                            "[4] Tests/Main HostChild: left by main"));
}

TEST(StdIO, WritesAllToAReaderThatIsSlow) {
    Child child({.arguments = {"write-text", "300000"}});
    EXPECT_EQ(child.output().rest(), std::string(300000, 'y'));
    EXPECT_EQ(child.wait(), 0);
}

TEST(StdIO, GivesUpOnAReaderThatIsStuckOrGone) {
    Child stuck({.arguments = {"write-text", "300000"}});
    EXPECT_EQ(stuck.error().line(), "written");
    EXPECT_EQ(stuck.wait(), 0);

    Pipe pipe;
    pipe.read.close();
    Child gone({.arguments = {"write-text", "300000"}, .output = pipe.write.get()});
    EXPECT_EQ(gone.wait(), 0);
}

}  // namespace
