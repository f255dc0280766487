#include <boost/json/parse.hpp>

#include "tests/unit/client/DeviceVerbs.h"

namespace btnode::test {
namespace {

class ProfileVerbs : public DeviceVerbs {
protected:
    ProfileVerbs() {
        json::array profiles;
        for (const std::int64_t number : {0x110a, 0x110b, 0x110b, 0xfee0}) {
            profiles.push_back(integerValue("PROFILE", number));
        }
        keyboard().set("PROFILES", listValue("PROFILES", profiles));
        keyboard().set("ACTIVE_PROFILES", listValue("ACTIVE_PROFILES", {integerValue("PROFILE", 0x110b)}));
        answer("ACTIVATE_PROFILE", listValue("ACTIVATE_PROFILE", {integerValue("RESULT", 0)}));
    }

    /// The number that an activation sends, -1 when it sends none.
    std::int64_t sent(const std::string& profile) {
        const std::size_t before = keyboard().executed().size();
        const Ended ended = run({"activate", "Keyboard", profile});
        if (keyboard().executed().size() == before) return -1;
        EXPECT_EQ(ended.exitCode(), ExitCode::Ok) << ended.err;
        json::object action;
        EXPECT_TRUE(keyboard().waitForAction("ACTIVATE_PROFILE", &action));
        EXPECT_EQ(action.at("children").at(0).at("name"), "PROFILE");
        return firstOption(action);
    }
};

TEST_F(ProfileVerbs, ProfilesAreListedWithTheirNames) {
    EXPECT_EQ(run({"profiles", "Keyboard"}).out,
              "0x110a  -       Audio Source\n"
              "0x110b  active  Audio Sink\n"
              "0x110b  -       Audio Sink\n"
              "0xfee0  -       (not assigned)\n");
    const json::value value = json::parse(run({"profiles", "Keyboard", "--json"}).out);
    EXPECT_EQ(value.at("profiles").at(1),
              (json::value{{"number", 0x110b}, {"hex", "0x110b"}, {"name", "Audio Sink"}, {"active", true}}));
    EXPECT_EQ(value.at("profiles").at(3).at("name"), nullptr);
}

TEST_F(ProfileVerbs, NoProfilesAreExplained) {
    keyboard().set("PROFILES", listValue("PROFILES", {}));
    const Ended ended = run({"profiles", "Keyboard"});
    EXPECT_EQ(ended.exitCode(), ExitCode::Ok);
    EXPECT_EQ(ended.out, "");
    EXPECT_TRUE(contains(ended.err, "when a pairing succeeds"));
}

TEST_F(ProfileVerbs, AProfileIsNamedInManyWays) {
    EXPECT_EQ(sent("4362"), 0x110a);
    EXPECT_EQ(sent("0x110A"), 0x110a);
    EXPECT_EQ(sent("0000110b-0000-1000-8000-00805f9b34fb"), 0x110b);
    EXPECT_EQ(sent("audio source"), 0x110a);
    EXPECT_EQ(sent("AudioSink"), 0x110b);
    EXPECT_EQ(sent("audio si"), 0x110b);
    EXPECT_EQ(sent("4294967295"), 4294967295);
}

TEST_F(ProfileVerbs, WhatNamesNoProfileIsNotSent) {
    const std::vector<std::pair<std::string, ExitCode>> wrong = {
        {"audio", ExitCode::NotFound},    {"serial port", ExitCode::NotFound}, {"4294967296", ExitCode::Usage},
        {"0x100000000", ExitCode::Usage}, {"0x", ExitCode::NotFound},          {"0000110b-0000", ExitCode::NotFound}};
    for (const auto& [profile, code] : wrong) {
        EXPECT_EQ(run({"activate", "Keyboard", profile}).exitCode(), code) << profile;
    }
    EXPECT_TRUE(keyboard().executed().empty());
    EXPECT_TRUE(contains(run({"activate", "Keyboard", "audio"}).err, "Audio Source (0x110a), Audio Sink (0x110b)"));
}

TEST_F(ProfileVerbs, ARefusalIsExplained) {
    keyboard().setActions({});
    answer("ACTIVATE_PROFILE", listValue("ACTIVATE_PROFILE", {integerValue("RESULT", kRefused)}));
    for (const auto& [profile, why] : {std::pair<std::string, std::string>{"0x110b", "active already"},
                                       {"0x1101", "no profile Serial Port"},
                                       {"0x110a", "BlueZ could not connect"}}) {
        const Ended ended = run({"activate", "Keyboard", profile});
        EXPECT_EQ(ended.exitCode(), ExitCode::Refused);
        EXPECT_TRUE(contains(ended.err, why)) << ended.err;
    }
}

}  // namespace
}  // namespace btnode::test
