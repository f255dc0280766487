#include "client/cli/CommandLine.h"

#include <gtest/gtest.h>

#include "client/cli/Help.h"

namespace btnode::cli {
namespace {

using namespace std::chrono_literals;
using Words = std::vector<std::string>;

Invocation taken(const Words& arguments) {
    const auto parsed = parseCommandLine(arguments);
    if (const Answer* answer = std::get_if<Answer>(&parsed)) {
        ADD_FAILURE() << answer->err;
        return {};
    }
    return std::get<Invocation>(parsed);
}

Answer answered(const Words& arguments) {
    const auto parsed = parseCommandLine(arguments);
    if (std::holds_alternative<Invocation>(parsed)) {
        ADD_FAILURE() << "taken: " << testing::PrintToString(arguments);
        return {ExitCode::Ok, {}, {}};
    }
    return std::get<Answer>(parsed);
}

TEST(CommandLine, TakesOptionsBeforeAndBehindTheVerb) {
    for (const Words& words : {Words{"--root", "/r", "--json", "--timeout", "0.5", "get", "n", "A", "B"},
                               Words{"get", "--root=/r", "n", "A", "--json", "B", "--timeout=.5"}}) {
        const Invocation invocation = taken(words);
        EXPECT_EQ(invocation.verb, "get");
        EXPECT_EQ(invocation.root, "/r");
        EXPECT_EQ(invocation.json, Invocation::Json::Short);
        EXPECT_EQ(invocation.timeout, 500ms);
        EXPECT_EQ(invocation.node, "n");
        EXPECT_EQ(invocation.words, (Words{"A", "B"}));
    }
}

TEST(CommandLine, TakesTheFormsOfJson) {
    EXPECT_EQ(taken({"list"}).json, Invocation::Json::No);
    EXPECT_EQ(taken({"list", "--json=short"}).json, Invocation::Json::Short);
    EXPECT_EQ(taken({"list", "--json=pretty"}).json, Invocation::Json::Pretty);
    EXPECT_EQ(answered({"list", "--json=xml"}).code, ExitCode::Usage);
}

TEST(CommandLine, PassesListsOfDoWhole) {
    EXPECT_EQ(taken({"do", "n", "A", "[1,2]", "[]", "x=[a,b]", "+", "B"}).words,
              (Words{"A", "[1,2]", "[]", "x=[a,b]", "+", "B"}));
    EXPECT_EQ(taken({"do", "n", "A", "--", "-5", "--json"}).words, (Words{"A", "-5", "--json"}));
    EXPECT_EQ(taken({"pair", "[x]"}).node, "[x]");
}

TEST(CommandLine, ReadsSeconds) {
    EXPECT_EQ(parseSeconds("1"), 1000ms);
    EXPECT_EQ(parseSeconds("0.0001"), 1ms);
    EXPECT_EQ(parseSeconds("2147483"), 2147483s);
    for (const char* wrong : {"", "0", "-1", "x", "1s", "2147484", "nan", "inf", "1e3", " 1", "0x10"}) {
        EXPECT_EQ(parseSeconds(wrong), std::nullopt) << wrong;
    }
}

TEST(CommandLine, NamesTheNearestVerb) {
    const Answer answer = answered({"lsit"});
    EXPECT_EQ(answer.code, ExitCode::Usage);
    EXPECT_EQ(answer.out, "");
    EXPECT_NE(answer.err.find("'list'"), std::string::npos);
    EXPECT_EQ(answered({"completely"}).err.find("meant"), std::string::npos);
}

TEST(CommandLine, RefusesWrongUse) {
    for (const Words& words :
         {Words{}, Words{"get"}, Words{"get", "n"}, Words{"do", "n"}, Words{"show", "a", "b"},
          Words{"list", "--nothing"}, Words{"list", "device"}, Words{"list", "adapters", "devices"},
          Words{"watch", "n", "--count", "0"}, Words{"watch", "n", "--count", "-1"}, Words{"scan", "--for", "x"},
          Words{"list", "--timeout"}, Words{"pair", "d", "--timeout", "0"}, Words{"--json"}, Words{"help", "nothing"},
          Words{"activate", "d"}}) {
        const Answer answer = answered(words);
        EXPECT_EQ(answer.code, ExitCode::Usage) << testing::PrintToString(words);
        EXPECT_EQ(answer.out, "");
        EXPECT_NE(answer.err, "");
    }
}

TEST(CommandLine, EveryVerbHasHelpWithExamples) {
    for (const VerbHelp& each : verbs()) {
        const std::string verb(each.verb);
        for (const Words& words : {Words{verb, "--help"}, Words{"help", verb}}) {
            const Answer answer = answered(words);
            EXPECT_EQ(answer.code, ExitCode::Ok);
            EXPECT_EQ(answer.err, "");
            std::size_t examples = 0;
            for (std::size_t at = answer.out.find("\n  btnode "); at != std::string::npos;
                 at = answer.out.find("\n  btnode ", at + 1)) {
                ++examples;
            }
            EXPECT_GE(examples, 2U) << answer.out;
            EXPECT_LE(examples, 3U) << answer.out;
        }
    }
}

TEST(CommandLine, MainHelpListsVerbsAndExitCodes) {
    const Answer answer = answered({"--help"});
    EXPECT_EQ(answer.code, ExitCode::Ok);
    for (const VerbHelp& each : verbs())
        EXPECT_NE(answer.out.find("\n  " + std::string(each.verb) + " "), std::string::npos);
    EXPECT_NE(answer.out.find("130  interrupted"), std::string::npos);
    EXPECT_EQ(answered({"help"}).out, answer.out);
    EXPECT_EQ(answered({"--version"}).out.substr(0, 7), "btnode ");
}

}  // namespace
}  // namespace btnode::cli
