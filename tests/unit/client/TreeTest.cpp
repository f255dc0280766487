#include "btnode/Tree.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "btnode/Node.h"
#include "btnode/Resolver.h"
#include "tests/unit/client/FakeTree.h"

namespace btnode {
namespace {

using namespace std::chrono_literals;
using test::FakeTree;

Limit soon() {
    return Limit::in(5s);
}

ErrorKind connectError(const Tree& tree, const std::string& node, const Limit& limit = soon()) {
    const auto connected = Node::connect(tree, node, limit);
    return connected ? ErrorKind::Protocol : connected.error().kind;
}

/// Sets a variable of the environment for a test; null unsets it.
class Variable {
public:
    Variable(const char* name, const char* value) : name_(name) {
        if (const char* current = std::getenv(name)) before_ = current;
        value == nullptr ? ::unsetenv(name) : ::setenv(name, value, 1);
    }
    ~Variable() { before_ ? ::setenv(name_, before_->c_str(), 1) : ::unsetenv(name_); }

private:
    const char* name_;
    std::optional<std::string> before_;
};

TEST(Root, IsNamedByNodeRootUnlessThatIsEmpty) {
    const Variable runtime("XDG_RUNTIME_DIR", "/run/user/7");
    const std::string own = ::geteuid() == 0 ? "/run/nodes" : "/run/user/7/nodes";
    const Variable unset("NODE_ROOT", nullptr);
    EXPECT_EQ(*Tree::defaultRoot(), own);
    const Variable empty("NODE_ROOT", "");
    EXPECT_EQ(*Tree::defaultRoot(), own);
    const Variable set("NODE_ROOT", "/some/where");
    EXPECT_EQ(*Tree::defaultRoot(), "/some/where");
}

TEST(Tree, ListsSocketsAndNothingElse) {
    FakeTree fake;
    fake.publishService();
    fake.publishDevice("00:11:22:33:44:55", "Keyboard");
    fake.publishAdapter("00:AA:01:00:00:00", "Adapter");
    std::filesystem::create_directories(fake.pathOf("bluetooth/devices/empty"));
    std::filesystem::create_symlink(fake.pathOf("bluetooth/service"), fake.pathOf("bluetooth/link"));
    ::close(::open(fake.pathOf("bluetooth/file").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    const auto nodes = Tree(fake.root()).list();
    ASSERT_TRUE(nodes);
    std::vector<std::string> names;
    for (const NodeName& each : *nodes) names.push_back(each.full);
    EXPECT_EQ(names, (std::vector<std::string>{"bluetooth/adapters/00:AA:01:00:00:00/adapter",
                                               "bluetooth/devices/00:11:22:33:44:55/device", "bluetooth/master",
                                               "bluetooth/service"}));
    EXPECT_EQ((*nodes)[0].kind, NodeKind::Adapter);
    EXPECT_EQ((*nodes)[1].kind, NodeKind::Device);
    EXPECT_EQ((*nodes)[1].address, "00:11:22:33:44:55");
    EXPECT_EQ((*nodes)[2].kind, NodeKind::Control);
}

TEST(Tree, TellsAMissingServiceFromAMissingNode) {
    FakeTree fake;
    const Tree tree(fake.root());
    EXPECT_EQ(connectError(tree, "bluetooth/service"), ErrorKind::Unreachable);
    EXPECT_EQ(tree.list().error().kind, ErrorKind::Unreachable);
    fake.publishService();
    EXPECT_EQ(connectError(tree, "bluetooth/devices/x/device"), ErrorKind::NotFound);
    EXPECT_EQ(connectError(tree, ""), ErrorKind::Invalid);
}

TEST(Tree, TellsThatAKilledServiceLeftItsSocket) {
    FakeTree fake;
    fake.publishService();
    fake.kill();
    const auto connected = Tree(fake.root()).connect("bluetooth/service", soon());
    ASSERT_FALSE(connected);
    EXPECT_EQ(connected.error().kind, ErrorKind::Unreachable);
    EXPECT_NE(connected.error().message.find(fake.pathOf("bluetooth/service")), std::string::npos);
}

TEST(Tree, ConnectsBelowARootOfAnyLength) {
    FakeTree fake;
    fake.publishService();
    std::string root = fake.root();
    for (int level = 0; level < 12; ++level) {
        root += "/" + std::string(200, 'd');
        std::filesystem::create_directory(root);
    }
    std::filesystem::rename(fake.pathOf("bluetooth"), root + "/bluetooth");
    const Tree tree(root);
    EXPECT_TRUE(tree.list());
    auto node = Node::connect(tree, "bluetooth/service", soon());
    ASSERT_TRUE(node) << node.error().message;
    EXPECT_TRUE(node->describe(soon()));
    std::filesystem::rename(root + "/bluetooth", fake.pathOf("bluetooth"));
}

TEST(Tree, ConnectsBelowARootLongerThanAPathMayBe) {
    FakeTree fake;
    fake.publishService();
    // Beyond 4,095 characters the kernel takes a path only in pieces.
    std::string root = fake.root();
    int folder = ::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    const std::string name(250, 'd');
    for (int level = 0; level < 20; ++level) {
        ASSERT_EQ(::mkdirat(folder, name.c_str(), 0755), 0);
        const int below = ::openat(folder, name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        ::close(folder);
        folder = below;
        root += "/" + name;
    }
    ASSERT_EQ(::renameat(AT_FDCWD, fake.pathOf("bluetooth").c_str(), folder, "bluetooth"), 0);
    const Tree tree(root);
    const auto nodes = tree.list();
    ASSERT_TRUE(nodes) << nodes.error().message;
    EXPECT_EQ(nodes->size(), 2U);
    auto node = Node::connect(tree, "bluetooth/service", soon());
    ASSERT_TRUE(node) << node.error().message;
    EXPECT_TRUE(node->describe(soon()));
    ASSERT_EQ(::renameat(folder, "bluetooth", AT_FDCWD, fake.pathOf("bluetooth").c_str()), 0);
    ::close(folder);
}

TEST(Tree, NamesTheGroupThatMayUseANode) {
    FakeTree fake;
    fake.publishService();
    ASSERT_EQ(::chmod(fake.pathOf("bluetooth/master").c_str(), ::geteuid() == 0 ? 0660 : 0060), 0);
    ASSERT_EQ(::chmod(fake.pathOf("bluetooth/service").c_str(), ::geteuid() == 0 ? 0600 : 0000), 0);
    // Root may use everything; a thread with another user for files, and outside the group, may not.
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(fake.pathOf("bluetooth/master").c_str(), 0, 54321), 0);
        ::setfsuid(65534);
    }
    const auto master = Tree(fake.root()).connect("bluetooth/master", soon());
    const auto service = Tree(fake.root()).connect("bluetooth/service", soon());
    if (::geteuid() == 0) ::setfsuid(0);
    ASSERT_FALSE(master);
    EXPECT_EQ(master.error().kind, ErrorKind::Denied);
    EXPECT_NE(master.error().message.find("group '"), std::string::npos) << master.error().message;
    EXPECT_NE(master.error().hint.find("usermod -aG"), std::string::npos);
    ASSERT_FALSE(service);
    EXPECT_EQ(service.error().kind, ErrorKind::Denied);
    EXPECT_NE(service.error().message.find("only the user '"), std::string::npos) << service.error().message;
}

TEST(Tree, GivesUpOnASocketWhoseQueueIsFull) {
    FakeTree fake;
    std::filesystem::create_directories(fake.pathOf("bluetooth"));
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    fake.pathOf("bluetooth/service").copy(address.sun_path, sizeof address.sun_path - 1);
    const void* raw = &address;
    ASSERT_EQ(::bind(listener, static_cast<const sockaddr*>(raw), sizeof address), 0);
    ASSERT_EQ(::listen(listener, 0), 0);
    const Tree tree(fake.root());
    const auto first = tree.connect("bluetooth/service", soon());
    ASSERT_TRUE(first);
    const auto begin = Limit::Clock::now();
    EXPECT_EQ(connectError(tree, "bluetooth/service", Limit::in(50ms)), ErrorKind::TimedOut);
    EXPECT_GE(Limit::Clock::now() - begin, 50ms);
    const auto cancellation = Cancellation::create();
    cancellation->raise();
    EXPECT_EQ(connectError(tree, "bluetooth/service", Limit::in(5s, cancellation.get())), ErrorKind::Interrupted);
    ::close(*first);
    ::close(listener);
}

TEST(Tree, ReadsManyNodesAtOnce) {
    FakeTree fake;
    fake.publishService();
    for (int number = 10; number < 90; ++number) {
        fake.publishDevice("00:11:22:33:44:" + std::to_string(number), "Device " + std::to_string(number));
    }
    const Tree tree(fake.root());
    const auto all = tree.list();
    ASSERT_TRUE(all);
    std::vector<NodeName> devices;
    for (const NodeName& each : *all) {
        if (each.kind == NodeKind::Device) devices.push_back(each);
    }
    devices.push_back(NodeName::parse("bluetooth/devices/missing/device"));
    const auto answers = tree.readAll(devices, {"NAME", "STATUS", "NOTHING"}, soon());
    ASSERT_EQ(answers.size(), 81U);
    for (std::size_t at = 0; at < 80; ++at) {
        ASSERT_TRUE(answers[at]);
        EXPECT_EQ((*answers[at])[0].front().text, "Device " + std::to_string(at + 10));
        EXPECT_EQ((*answers[at])[1].front().integer, 1);
        EXPECT_TRUE((*answers[at])[2].empty());
    }
    ASSERT_FALSE(answers[80]);
    EXPECT_EQ(answers[80].error().kind, ErrorKind::NotFound);
}

TEST(Node, TellsWhyAnAnswerDoesNotCome) {
    FakeTree fake;
    fake.publishService();
    const Tree tree(fake.root());
    fake.node("bluetooth/master").silent = true;
    auto node = Node::connect(tree, "bluetooth/master", soon());
    ASSERT_TRUE(node);
    EXPECT_EQ(node->describe(Limit::in(20ms)).error().kind, ErrorKind::TimedOut);
    fake.withdraw("bluetooth/master");
    EXPECT_EQ(node->describe(soon()).error().kind, ErrorKind::Gone);
}

TEST(Node, ALimitThatPassesLosesNoAnswer) {
    FakeTree fake;
    auto slow = std::make_shared<test::FakeNode>("Slow");
    slow->setActions({{"SLOW", [&](const test::json::object&) {
                           fake.gate().wait();
                           return test::integerValue("SLOW", 0);
                       }}});
    fake.publish("bluetooth/service", slow);
    auto node = Node::connect(Tree(fake.root()), "bluetooth/service", soon());
    ASSERT_TRUE(node);
    ASSERT_TRUE(node->askToExecute({Value::none("SLOW")}, soon()));
    EXPECT_EQ(node->takeAnswer(Limit::in(20ms)).error().kind, ErrorKind::TimedOut);
    fake.gate().open();
    const auto answer = node->takeAnswer(soon());
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->front(), Value::of("SLOW", std::int64_t{0}));
}

TEST(Node, RefusesARequestLongerThanANodeTakes) {
    FakeTree fake;
    fake.publishService();
    auto node = Node::connect(Tree(fake.root()), "bluetooth/master", soon());
    ASSERT_TRUE(node);
    const auto result = node->execute({Value::of("A", std::string(256 * 1024, 'x'))}, soon());
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().kind, ErrorKind::Invalid);
}

class ResolverTest : public testing::Test {
protected:
    ResolverTest() {
        fake_.publishService();
        fake_.publishAdapter("00:AA:01:00:00:00", "Desk");
        fake_.publishDevice("00:11:22:33:44:55", "Keyboard");
        fake_.publishDevice("00:11:22:33:44:66", "Key ring");
        fake_.publishDevice("00:AA:01:00:00:00", "Other side");
        fake_.publishDevice("77:00:00:00:00:01", "Twin");
        fake_.publishDevice("77:00:00:00:00:02", "Twin");
        fake_.publishDevice("AB:CD:00:00:00:01", "77:00");
        fake_.publishDevice("AC:CD:00:00:00:01", "77");
    }

    std::string found(const std::string& text, Wanted wanted = Wanted::Any) {
        const auto node = resolve(Tree(fake_.root()), text, wanted, soon());
        if (node) return node->full;
        return node.error().kind == ErrorKind::Ambiguous  ? "ambiguous"
               : node.error().kind == ErrorKind::NotFound ? "not found"
                                                          : node.error().message;
    }
    std::string message(const std::string& text, Wanted wanted = Wanted::Any) {
        const auto node = resolve(Tree(fake_.root()), text, wanted, soon());
        return node ? "found " + node->full : node.error().message;
    }

    FakeTree fake_;
    const std::string keyboard_ = test::deviceNode("00:11:22:33:44:55");
};

TEST_F(ResolverTest, TakesFullNames) {
    EXPECT_EQ(found(keyboard_), keyboard_);
    EXPECT_EQ(found("devices/00:11:22:33:44:55/device"), keyboard_);
    EXPECT_EQ(found("devices/00:11:22:33:44:55"), keyboard_);
    EXPECT_EQ(found("bluetooth/devices/00:11:22:33:44:55"), keyboard_);
    EXPECT_EQ(found("service"), "bluetooth/service");
    EXPECT_EQ(found("bluetooth/master"), "bluetooth/master");
    EXPECT_EQ(found(fake_.pathOf("bluetooth/master")), "bluetooth/master");
    EXPECT_EQ(found(fake_.pathOf(keyboard_)), keyboard_);
}

TEST_F(ResolverTest, TakesAddressesInAnyCase) {
    EXPECT_EQ(found("ab:cd:00:00:00:01"), test::deviceNode("AB:CD:00:00:00:01"));
    EXPECT_EQ(found("bluetooth/devices/ab:cd:00:00:00:01/device"), test::deviceNode("AB:CD:00:00:00:01"));
    EXPECT_EQ(found("00:11:22:33:44:56"), "not found");
}

TEST_F(ResolverTest, TakesNamesAndTheirBeginnings) {
    EXPECT_EQ(found("Keyboard"), keyboard_);
    EXPECT_EQ(found("keyb"), keyboard_);
    EXPECT_EQ(found("key ring"), test::deviceNode("00:11:22:33:44:66"));
    EXPECT_EQ(found("Desk"), test::adapterNode("00:AA:01:00:00:00"));
    EXPECT_EQ(found("board"), "not found");
}

TEST_F(ResolverTest, TakesBeginningsOfAddresses) {
    EXPECT_EQ(found("00:11:22:33:44:5"), keyboard_);
    EXPECT_EQ(found("ab"), test::deviceNode("AB:CD:00:00:00:01"));
}

TEST_F(ResolverTest, ListsTheCandidatesOfAnAmbiguousName) {
    EXPECT_EQ(found("key"), "ambiguous");
    EXPECT_EQ(found("Twin"), "ambiguous");
    EXPECT_EQ(found("00:11"), "ambiguous");
    EXPECT_EQ(found("00:AA:01:00:00:00"), "ambiguous");
    const std::string text = message("Twin");
    EXPECT_NE(text.find("bluetooth/devices/77:00:00:00:00:01/device (Twin)"), std::string::npos) << text;
    EXPECT_NE(text.find("bluetooth/devices/77:00:00:00:00:02/device (Twin)"), std::string::npos) << text;
}

TEST_F(ResolverTest, ANameThatPosesAsAnAddressDecidesNothing) {
    EXPECT_EQ(found("77:00"), "ambiguous");
    EXPECT_EQ(found("77"), "ambiguous");
}

TEST_F(ResolverTest, LooksOnlyAmongTheKindThatIsWanted) {
    EXPECT_EQ(found("00:aa:01:00:00:00", Wanted::Device), test::deviceNode("00:AA:01:00:00:00"));
    EXPECT_EQ(found("00:aa:01:00:00:00", Wanted::Adapter), test::adapterNode("00:AA:01:00:00:00"));
    EXPECT_EQ(found("service", Wanted::Device), "not found");
    EXPECT_EQ(found("Desk", Wanted::Device), "not found");
    EXPECT_EQ(found(keyboard_, Wanted::Adapter), "not found");
}

TEST_F(ResolverTest, NamesTheNearestOfWhatThereIs) {
    EXPECT_NE(message("Keybaord").find("'Keyboard'"), std::string::npos);
    EXPECT_EQ(message("something else").find("meant"), std::string::npos);
    EXPECT_EQ(found(""), "a node's name is empty");
}

TEST(Resolver, ReportsNodesThatKeepTheirNamesToThemselves) {
    FakeTree fake;
    fake.publishService();
    fake.publishDevice("00:11:22:33:44:55", "Keyboard").silent = true;
    const Tree tree(fake.root());
    EXPECT_EQ(resolve(tree, "Keyboard", Wanted::Any, Limit::in(50ms)).error().kind, ErrorKind::TimedOut);
    EXPECT_TRUE(resolve(tree, "00:11:22:33:44:55", Wanted::Any, Limit::in(50ms)));
    EXPECT_TRUE(resolve(tree, "00:1", Wanted::Any, Limit::in(50ms)));
}

TEST(Resolver, GuessesTypingMistakesOnly) {
    const std::vector<std::string> choices = {"list", "show", "scan", "stop", "watch"};
    EXPECT_EQ(nearest("lsit", choices), "list");
    EXPECT_EQ(nearest("sotp", choices), "stop");
    EXPECT_EQ(nearest("wacht", choices), "watch");
    EXPECT_EQ(nearest("SCAN", choices), "scan");
    EXPECT_EQ(nearest("scn", choices), "scan");
    EXPECT_EQ(nearest("frobnicate", choices), "");
    EXPECT_EQ(nearest("", choices), "");
    EXPECT_EQ(nearest("x", {}), "");
}

}  // namespace
}  // namespace btnode
