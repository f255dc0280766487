#pragma once

#include <gtest/gtest.h>

#include <boost/json/object.hpp>
#include <string>
#include <vector>

#include "tests/unit/client/Btnode.h"
#include "tests/unit/client/FakeTree.h"

namespace btnode::test {

using cli::ExitCode;
using Words = std::vector<std::string>;

inline constexpr std::int64_t kRefused = 4294967295;

inline bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

/// The integer of the first option of an action.
inline std::int64_t firstOption(const json::object& action) {
    const json::object& option = action.at("children").at(0).as_object();
    EXPECT_EQ(option.at("kind"), "integer");
    return option.at("integer").as_int64();
}

/// A tree with one device, a keyboard, whose actions each test scripts.
class DeviceVerbs : public testing::Test {
protected:
    DeviceVerbs() {
        fake_.publishService();
        fake_.publishDevice("00:11:22:33:44:55", "Keyboard");
    }

    Words here(Words words) const {
        words.insert(words.end(), {"--root", fake_.root()});
        return words;
    }
    Ended run(const Words& words) { return btnode(here(words)); }

    FakeNode& keyboard() { return fake_.node(deviceNode("00:11:22:33:44:55")); }
    void setStatus(std::int64_t status) { keyboard().set("STATUS", integerValue("STATUS", status)); }
    void answer(const std::string& action, json::object result) {
        keyboard().setAction(action, [result = std::move(result)](const json::object&) { return result; });
    }
    /// The answer comes once the test opens the tree's gate.
    void answerLater(const std::string& action, json::object result) {
        keyboard().setAction(action, [this, result = std::move(result)](const json::object&) {
            return fake_.gate().wait() ? result : json::object();
        });
    }

    FakeTree fake_;
};

}  // namespace btnode::test
