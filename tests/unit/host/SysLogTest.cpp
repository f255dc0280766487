#include "platform/host/SysLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <set>
#include <thread>
#include <vector>

#include "platform/host/LogLine.h"
#include "tests/unit/host/Capture.h"
#include "tests/unit/host/Threads.h"

namespace {

using namespace std::string_view_literals;
using HostTest::Capture;
using HostTest::withoutTimes;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

class SysLogTest : public testing::Test {
protected:
    SysLogTest() {
        SysLog::procName(String::create("Tests"));
        SysLog::thdName(String::create("Main"));
        SysLogFilter::setLevel(0);
    }

    const std::uint64_t handle_ = SysLogFilter::reg(String::create("Filter"));
};

using SysLogFilterTest = SysLogTest;
using LogRecordTest = SysLogTest;
using SysLogStreamTest = SysLogTest;

TEST_F(SysLogFilterTest, GivesAHandleOfItsOwnToEachModule) {
    std::set<std::uint64_t> handles;
    constexpr int kMoreThanABlock = 200;
    for (int module = 0; module < kMoreThanABlock; ++module) {
        handles.insert(SysLogFilter::reg(String::create("Same" + std::to_string(module % 2))));
    }
    EXPECT_EQ(handles.size(), std::size_t{kMoreThanABlock});
    EXPECT_EQ(handles.count(0), 0u);
    for (const std::uint64_t handle : handles) {
        EXPECT_TRUE(SysLogFilter::state(handle));
        EXPECT_THAT(std::string(SysLogFilter::id(handle)), MatchesRegex("Same[01]"));
    }
}

TEST_F(SysLogFilterTest, IsOffForHandlesThatWereNeverGivenOut) {
    for (const std::uint64_t handle : {std::uint64_t{0}, ~std::uint64_t{0}, std::uint64_t{1} << 40}) {
        EXPECT_FALSE(SysLogFilter::state(handle));
        EXPECT_EQ(SysLogFilter::id(handle), "");
        SysLogFilter::setState(handle, true);
        EXPECT_FALSE(SysLogFilter::state(handle));
    }
}

TEST_F(SysLogFilterTest, SwitchesOneHandleOnly) {
    const std::uint64_t other = SysLogFilter::reg(String::create("Filter"));
    SysLogFilter::setState(handle_, false);
    EXPECT_FALSE(SysLogFilter::state(handle_));
    EXPECT_TRUE(SysLogFilter::state(other));
    SysLogFilter::setState(handle_, true);
    EXPECT_TRUE(SysLogFilter::state(handle_));
}

TEST_F(SysLogFilterTest, CanBeAskedWhileOthersRegister) {
    HostTest::Threads threads;
    for (int thread = 0; thread < 3; ++thread) {
        threads.start([] {
            for (int module = 0; module < 100; ++module) {
                const std::uint64_t handle = SysLogFilter::reg(String::create("Busy"));
                EXPECT_TRUE(SysLogFilter::state(handle));
                EXPECT_EQ(SysLogFilter::id(handle), "Busy");
            }
        });
    }
}

TEST_F(LogRecordTest, IsOneLineWithTimeLevelNamesAndTag) {
    Capture capture;
    LogRecord(3, handle_) << "Could not add " << String::create("/org/x") << ": "
                          << "reason";
    EXPECT_THAT(capture.lines(),
                ElementsAre(MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z "
                                         "\\[3\\] Tests/Main Filter: Could not add /org/x: reason")));
}

TEST_F(LogRecordTest, CarriesTheTimeInUtc) {
    const auto before = std::chrono::system_clock::now();
    Capture capture;
    LogRecord(1, handle_) << "now";
    const std::vector<std::string> lines = capture.lines();
    const auto after = std::chrono::system_clock::now();
    ASSERT_EQ(lines.size(), 1u);
    std::tm utc{};
    ASSERT_NE(strptime(lines[0].c_str(), "%Y-%m-%dT%H:%M:%S.", &utc), nullptr);
    const auto seconds = std::chrono::system_clock::from_time_t(timegm(&utc));
    const auto time = seconds + std::chrono::milliseconds(std::stoi(lines[0].substr(20, 3)));
    EXPECT_GE(time, before - std::chrono::milliseconds(1));  // cut off, not rounded
    EXPECT_LE(time, after);
}

TEST_F(LogRecordTest, WritesNumbersInBothBases) {
    Capture capture;
    (LogRecord(4, handle_) << "Profile ").number(0x110b) << " of";
    LogRecord(4, handle_).number(0);
    LogRecord(4, handle_).number(~std::uint64_t{0});
    EXPECT_THAT(withoutTimes(capture.lines()),
                ElementsAre("[4] Tests/Main Filter: Profile 110bh (4363) of", "[4] Tests/Main Filter: 0h (0)",
                            "[4] Tests/Main Filter: ffffffffffffffffh (18446744073709551615)"));
}

TEST_F(LogRecordTest, WritesNothingBelowTheThreshold) {
    Capture capture;
    SysLogFilter::setLevel(3);
    (LogRecord(1, handle_) << "hidden").number(1);
    LogRecord(3, handle_) << "shown";
    SysLogFilter::setState(handle_, false);
    LogRecord(4, handle_) << "off";
    EXPECT_THAT(withoutTimes(capture.lines()), ElementsAre("[3] Tests/Main Filter: shown"));
}

TEST_F(LogRecordTest, TakesNullTexts) {
    Capture capture;
    LogRecord(4, handle_) << static_cast<const char*>(nullptr) << Ref<String>();
    EXPECT_THAT(withoutTimes(capture.lines()), ElementsAre("[4] Tests/Main Filter: (null)"));
}

TEST_F(LogRecordTest, LeftOpenIsEndedByTheThreadsNext) {
    Capture capture;
    const std::uint64_t other = SysLogFilter::reg(String::create("Other"));
    LogRecord(4, handle_, false) << "ACTIVATE_PROFILE";
    HostTest::Threads threads;
    threads.start([this] {
        SysLog::thdName(String::create("Second"));
        LogRecord(4, handle_) << "not mixed up";
    });
    threads.join();
    LogRecord(3, other) << ": cannot parse UUID "
                        << "x";
    LogRecord(3, other) << "next";
    EXPECT_THAT(
        withoutTimes(capture.lines()),
        ElementsAre("[4] Tests/Second Filter: not mixed up",
                    "[4] Tests/Main Filter: ACTIVATE_PROFILE: cannot parse UUID x", "[3] Tests/Main Other: next"));
}

TEST_F(LogRecordTest, LeftOpenIsEndedAlsoByOneThatIsFilteredOut) {
    Capture capture;
    LogRecord(4, handle_, false) << "first";
    SysLogFilter::setLevel(4);
    LogRecord(3, handle_) << "second";
    LogRecord(4, handle_) << "third";
    EXPECT_THAT(withoutTimes(capture.lines()),
                ElementsAre("[4] Tests/Main Filter: first", "[4] Tests/Main Filter: third"));
}

TEST_F(LogRecordTest, IsALineOfItsOwnWhenTheOneBeforeWasFilteredOut) {
    Capture capture;
    SysLogFilter::setLevel(4);
    LogRecord(3, handle_, false) << "first";
    LogRecord(4, handle_) << "second";
    EXPECT_THAT(withoutTimes(capture.lines()), ElementsAre("[4] Tests/Main Filter: second"));
}

TEST_F(LogRecordTest, GivesValuesThatLogLinesOfTheirOwn) {
    Capture capture;
    const auto value = [this] {
        LogRecord(1, handle_) << "inner";
        return String::create("value");
    };
    LogRecord(3, handle_) << "outer " << value();
    EXPECT_THAT(withoutTimes(capture.lines()),
                ElementsAre("[1] Tests/Main Filter: inner", "[3] Tests/Main Filter: outer value"));
}

TEST_F(LogRecordTest, OfManyThreadsAreWholeLinesInTheOrderOfTheirTimes) {
    constexpr int kThreads = 4;
    constexpr int kEach = 200;
    Capture capture;
    HostTest::Threads threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.start([this] {
            for (int record = 0; record < kEach; ++record) LogRecord(4, handle_) << std::string(100, 'x') << "end";
        });
    }
    threads.join();
    const std::vector<std::string> lines = capture.lines();
    EXPECT_EQ(lines.size(), std::size_t{kThreads} * kEach);
    std::string last;
    for (const std::string& line : lines) {
        EXPECT_TRUE(line.ends_with(std::string(100, 'x') + "end")) << line;
        EXPECT_GE(line.substr(0, 24), last);
        last = line.substr(0, 24);
    }
}

TEST_F(SysLogStreamTest, BuildsARecordStepByStep) {
    Capture capture;
    SysLogStream& printer = SysLogStream::stdOutPrinter();
    printer.begin(1, "Tag").append("count ").appendNumber(31).append(String::create("!"));
    printer.end();
    EXPECT_THAT(withoutTimes(capture.lines()), ElementsAre("[1] Tests/Main Tag: count 1fh (31)!"));
}

TEST_F(SysLogStreamTest, HasNothingToAppendToWithoutARecord) {
    Capture capture;
    SysLogStream::stdOutPrinter().append("lost").appendNumber(1);
    SysLogStream::stdOutPrinter().end();
    EXPECT_THAT(capture.lines(), IsEmpty());
}

TEST(LogLine, EscapesWhatCouldEndTheLineOrDisturbATerminal) {
    const struct {
        std::string_view text;
        std::string_view escaped;
    } cases[] = {
        {"plain text, \\ too", "plain text, \\ too"},
        {"a\nb", "a\\nb"},
        {"\r\t\0"sv, "\\x0d\\x09\\x00"},
        {"\x1b[31mred", "\\x1b[31mred"},
        {"\x7f", "\\x7f"},
        {"\xc2\x80 \xc2\x9b \xc2\x9f", "\\xc2\\x80 \\xc2\\x9b \\xc2\\x9f"},
        {"\xc2\xa0\xc3\xbc\xe2\x82\xac\xf0\x9f\x8e\xa7", "\xc2\xa0\xc3\xbc\xe2\x82\xac\xf0\x9f\x8e\xa7"},
        {"\xe2\x80\xa8\xe2\x80\xa9", "\\xe2\\x80\\xa8\\xe2\\x80\\xa9"},
        {"\xff\xc3(\xe2\x82", "\\xff\\xc3(\\xe2\\x82"},
        {"\x9b", "\\x9b"},
        {"", ""},
    };
    for (const auto& item : cases) EXPECT_EQ(LogLine::escape(item.text), item.escaped);
}

TEST_F(LogRecordTest, EscapesNamesAndTextsOverTheSeamsOfItsParts) {
    SysLog::thdName(String::create("Ma\nin"));
    Capture capture;
    LogRecord(4, handle_) << "\xe2"
                          << "\x82\xac"
                          << "\xe2"
                          << "\n";
    EXPECT_THAT(withoutTimes(capture.lines()), ElementsAre("[4] Tests/Ma\\nin Filter: \xe2\x82\xac\\xe2\\n"));
}

}  // namespace
