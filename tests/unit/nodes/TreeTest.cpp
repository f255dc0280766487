#include <fcntl.h>
#include <grp.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/nodes/Root.h"
#include "tests/unit/nodes/Client.h"
#include "tests/unit/nodes/Fixture.h"
#include "tests/unit/support/LogCapture.h"

namespace NodesTest {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

const std::string kDescribe = nodeCall("Describe");

bool isServed(const std::string& node) {
    return Client(node).call(kDescribe).starts_with(R"({"parameters":{"node":)");
}

mode_t modeOf(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

class Tree : public TreeTest {
protected:
    /// What is in the tree besides the service's own hidden folder.
    Names visible() const {
        Names all = contents();
        std::erase_if(all, [](const std::string& name) { return name.starts_with("."); });
        return all;
    }
    /// Text of the records that leave nodes out.
    Names leftOut() const {
        Names all = log_.records("Nodes");
        std::erase_if(all, [](const std::string& record) { return !record.starts_with("3 Node left out: "); });
        return all;
    }
    void writeFile(const std::string& name, const std::string& text) const { std::ofstream(pathOf(name)) << text; }

    UnitTest::LogCapture log_;
};

TEST_F(Tree, ANodeIsAListeningSocketAtItsPath) {
    TestService service;
    service.add("a/b:1/c", 1);
    EXPECT_EQ(visible(), (Names{"a/", "a/b:1/", "a/b:1/c"}));
    EXPECT_TRUE(fs::is_socket(pathOf("a/b:1/c")));
    EXPECT_TRUE(isServed("a/b:1/c"));
}

TEST_F(Tree, ModesDoNotDependOnTheUmask) {
    const mode_t before = ::umask(0077);
    {
        TestService service;
        Services::Nodes::requestOnTermination(String::create("a/urgent"), String::create("STOP"));
        service.add("a/b/node", 1);
        service.add("a/urgent", 2);
        EXPECT_EQ(modeOf(root()), 0755u);
        EXPECT_EQ(modeOf(pathOf("a")), 0755u);
        EXPECT_EQ(modeOf(pathOf("a/b")), 0755u);
        EXPECT_EQ(modeOf(pathOf("a/b/node")), 0660u);
        EXPECT_EQ(modeOf(pathOf("a/urgent")), 0600u);
        // What goes through the tree meets no folder that it may not read. Nobody else may lock, or read the journal.
        EXPECT_EQ(modeOf(pathOf(".TestServer.new")), 0755u);
        EXPECT_EQ(modeOf(pathOf(".TestServer.new/journal")), 0600u);
        EXPECT_EQ(modeOf(pathOf(".TestServer.lock")), 0600u);
    }
    ::umask(before);
}

TEST_F(Tree, FilesOfItsOwnThatAreThereGetTheirModesToo) {
    fs::create_directories(pathOf(".TestServer.new"));
    writeFile(".TestServer.lock", "");
    ASSERT_EQ(::chmod(pathOf(".TestServer.new").c_str(), 0700), 0);
    ASSERT_EQ(::chmod(pathOf(".TestServer.lock").c_str(), 0644), 0);
    TestService service;
    service.add("a/node", 1);
    EXPECT_EQ(modeOf(pathOf(".TestServer.new")), 0755u);
    EXPECT_EQ(modeOf(pathOf(".TestServer.lock")), 0600u);
}

TEST_F(Tree, NodesBelongToTheGroupThatIsCalledLikeTheirTopFolder) {
    const group* const found = ::getgrnam("games");
    if (::geteuid() != 0 || !found) GTEST_SKIP() << "needs the right to give files to a group";
    TestService service;
    service.add("games/node", 1);
    service.add("no-such-group/node", 2);
    struct stat info {};
    ASSERT_EQ(::lstat(pathOf("games/node").c_str(), &info), 0);
    EXPECT_EQ(info.st_gid, found->gr_gid);
    ASSERT_EQ(::lstat(pathOf("no-such-group/node").c_str(), &info), 0);
    EXPECT_EQ(info.st_gid, ::getegid());
}

TEST_F(Tree, WithdrawingRemovesTheSocketAndTheFoldersThatBecameEmpty) {
    TestService service;
    service.add("a/b/c/one", 1);
    service.add("a/b/two", 2);
    service.add("a/three", 3);
    service.remove("a/b/c/one");
    EXPECT_EQ(visible(), (Names{"a/", "a/b/", "a/b/two", "a/three"}));
    service.remove("a/b/two");
    EXPECT_EQ(visible(), (Names{"a/", "a/three"}));
    service.remove("a/three");
    EXPECT_EQ(visible(), Names{});
}

TEST_F(Tree, ANodeCanBePublishedAgain) {
    TestService service;
    for (std::uint64_t round = 0; round < 50; ++round) {
        service.add("a/node", round);
        ASSERT_EQ(Client("a/node").call(getCall("NAME")), stringReply("NAME", "node " + std::to_string(round)));
        service.remove("a/node");
        ASSERT_EQ(visible(), Names{});
    }
}

TEST_F(Tree, NoClientSeesASocketThatRefusesIt) {
    TestService service;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s/a/node", root().c_str());
    for (std::uint64_t round = 0; round < 300; ++round) {
        std::atomic<int> error{0};
        std::thread client([&] {
            const Services::Nodes::Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
            while (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
                if (errno == ENOENT) continue;
                error = errno;
                break;
            }
        });
        service.add("a/node", round);
        client.join();
        service.remove("a/node");
        ASSERT_EQ(error, 0);
    }
}

TEST_F(Tree, WhatIsForeignIsNeverReplaced) {
    fs::create_directories(pathOf("a/folder"));
    fs::create_directories(pathOf("elsewhere"));
    writeFile("a/file", "mine");
    fs::create_symlink("file", pathOf("a/link"));
    fs::create_symlink("nowhere", pathOf("a/dangling"));
    const Services::Nodes::Fd foreign(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s/a/socket", root().c_str());
    ASSERT_EQ(::bind(foreign.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);

    const Names before = visible();
    TestService service;
    for (const char* name : {"a/folder", "a/file", "a/link", "a/dangling", "a/socket"}) service.add(name, 1);
    EXPECT_EQ(visible(), before);
    EXPECT_EQ(leftOut(), (Names{"3 Node left out: a/folder: File exists", "3 Node left out: a/file: File exists",
                                "3 Node left out: a/link: File exists", "3 Node left out: a/dangling: File exists",
                                "3 Node left out: a/socket: File exists"}));
    service.add("a/node", 2);
    EXPECT_TRUE(isServed("a/node"));
    for (const char* name : {"a/folder", "a/file", "a/link", "a/dangling", "a/socket"}) service.remove(name);
    ASSERT_TRUE(service.stop());
    EXPECT_EQ(visible(), before);
    std::string text;
    std::ifstream(pathOf("a/file")) >> text;
    EXPECT_EQ(text, "mine");
}

TEST_F(Tree, LinksAndFilesOnTheWayAreNotFollowed) {
    fs::create_directories(pathOf("elsewhere/b"));
    fs::create_directory_symlink("elsewhere", pathOf("a"));
    fs::create_directory_symlink("../elsewhere/b", pathOf("elsewhere/link"));
    writeFile("file", "");
    const Names before = visible();
    TestService service;
    service.add("a/node", 1);
    service.add("a/b/node", 1);
    service.add("elsewhere/link/node", 1);
    service.add("file/node", 1);
    service.add("new/../node", 1);
    EXPECT_EQ(visible(), before);
    EXPECT_EQ(leftOut().size(), 5u);
    service.add("elsewhere/b/node", 2);
    EXPECT_TRUE(isServed("elsewhere/b/node"));
}

TEST_F(Tree, FoldersMadeForANodeThatFailsAreRemovedAgain) {
    fs::create_directories(pathOf("a"));
    const std::string tooLong = std::string(256, 'x');
    TestService service;
    service.add("a/b/c/" + tooLong, 1);
    service.add("a/b/c/" + tooLong + "/node", 1);
    EXPECT_EQ(visible(), Names{"a/"});
    service.add("a/b/c/" + std::string(255, 'x'), 2);
    EXPECT_EQ(visible().size(), 4u);
}

TEST_F(Tree, WhatCannotBeAPathIsLeftOut) {
    TestService service;
    const Names wrong{"",
                      "/",
                      ".",
                      "..",
                      "a/",
                      "/a",
                      "a//b",
                      "a/./b",
                      "../a",
                      "a/..",
                      "a\nb/c",
                      "a/\x01",
                      "a\x7f",
                      std::string("a\0b", 3),
                      std::string(256, 'a')};
    for (const std::string& name : wrong) service.add(name, 1);
    EXPECT_EQ(visible(), Names{});
    EXPECT_EQ(leftOut().size(), wrong.size());
    for (const std::string& name :
         {std::string("..."), std::string("-"), std::string("\xC3\xA9"), std::string(255, 'a')}) {
        service.add(name, 1);
        EXPECT_TRUE(isServed(name)) << name;
    }
}

TEST_F(Tree, ComponentsAreOneFoldersName) {
    using Services::Nodes::isComponent;
    EXPECT_TRUE(isComponent("00:11:22:33:44:55"));
    EXPECT_TRUE(isComponent(std::string(255, 'a')));
    EXPECT_TRUE(isComponent("..."));
    EXPECT_TRUE(isComponent(" "));
    EXPECT_TRUE(isComponent("\xFF"));
    EXPECT_FALSE(isComponent(std::string(256, 'a')));
    EXPECT_FALSE(isComponent(""));
    EXPECT_FALSE(isComponent("."));
    EXPECT_FALSE(isComponent(".."));
    EXPECT_FALSE(isComponent("a/b"));
    for (char c = 0; c < 0x20; ++c) EXPECT_FALSE(isComponent(std::string("a") + c)) << int{c};
    EXPECT_FALSE(isComponent("a\x7f"));
}

TEST_F(Tree, OfTwoNodesWithOneNameTheSecondIsLeftOutAndTakesNothingAway) {
    TestService service;
    service.add("a/node", 1);
    Ref<DeviceServer> second = service.publish("a/node", 2);
    EXPECT_EQ(leftOut(), Names{"3 Node left out: a/node: File exists"});
    second.reset();
    EXPECT_EQ(Client("a/node").call(getCall("NAME")), stringReply("NAME", "node 1"));
}

TEST_F(Tree, WithdrawingLeavesWhatSomebodyElsePutInThePlace) {
    TestService service;
    service.add("a/node", 1);
    fs::remove(pathOf("a/node"));
    writeFile("a/node", "mine");
    service.remove("a/node");
    EXPECT_EQ(visible(), (Names{"a/", "a/node"}));
}

TEST_F(Tree, FoldersWithOtherThingsInThemStay) {
    TestService service;
    service.add("a/b/node", 1);
    writeFile("a/note", "");
    service.remove("a/b/node");
    EXPECT_EQ(visible(), (Names{"a/", "a/note"}));
}

TEST_F(Tree, AfterTheEndNothingIsLeftButTheRootAndItsLock) {
    {
        TestService service;
        service.add("a/one", 1);
        service.add("a/b/two", 2);
    }
    EXPECT_EQ(contents(), Names{});
    EXPECT_EQ(Names(1, fs::directory_iterator(root())->path().filename()), Names{".TestServer.lock"});
}

TEST_F(Tree, ARemovedTreeEndsNothing) {
    TestService service;
    service.add("a/node", 1);
    Client client("a/node");
    fs::remove_all(root());
    service.add("a/other", 2);
    EXPECT_EQ(leftOut().size(), 1u);
    EXPECT_EQ(client.call(getCall("NAME")), stringReply("NAME", "node 1"));
    service.remove("a/node");
    EXPECT_TRUE(client.isClosed());
    EXPECT_TRUE(service.stop());
}

TEST_F(Tree, ARenamedTreeGoesOn) {
    TestService service;
    service.add("a/node", 1);
    const std::string moved = folder_.path() + "/moved";
    fs::rename(root(), moved);
    service.add("a/other", 2);
    EXPECT_TRUE(fs::is_socket(moved + "/a/other"));
    ASSERT_TRUE(service.stop());
    EXPECT_FALSE(fs::exists(moved + "/a"));
}

TEST_F(Tree, NodesOfSeveralServersShareFolders) {
    TestService first("First");
    TestService second("Second");
    std::vector<std::thread> threads;
    for (TestService* service : {&first, &second}) {
        threads.emplace_back([service, name = std::string(service == &first ? "a/b/first" : "a/b/second")] {
            for (std::uint64_t round = 0; round < 300; ++round) {
                service->add(name, round);
                if (round < 299) service->remove(name);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(leftOut(), Names{});
    EXPECT_EQ(visible(), (Names{"a/", "a/b/", "a/b/first", "a/b/second"}));
}

TEST_F(Tree, TheJournalDoesNotGrowWithComingAndGoing) {
    TestService service;
    service.add("a/stays", 1);
    for (std::uint64_t round = 0; round < 2000; ++round) {
        service.add("a/node", round);
        service.remove("a/node");
    }
    EXPECT_LT(fs::file_size(pathOf(".TestServer.new/journal")), 20'000u);
}

/// A small file system of its own at the root, for as long as the test.
class SmallTree : public Tree {
protected:
    void SetUp() override {
        fs::create_directories(root());
        mounted_ = ::mount("tmpfs", root().c_str(), "tmpfs", 0, kOptions) == 0;
        if (!mounted_) GTEST_SKIP() << "needs the right to mount";
    }
    ~SmallTree() override {
        if (mounted_) ::umount2(root().c_str(), MNT_DETACH);
    }
    bool remount(unsigned long flags) const {
        return ::mount("", root().c_str(), "", MS_REMOUNT | flags, kOptions) == 0;
    }

private:
    static constexpr const char* kOptions = "size=64k,nr_inodes=16,mode=755";
    bool mounted_ = false;
};

TEST_F(SmallTree, WhenItIsReadOnlyNodesAreLeftOutAndTheServiceGoesOn) {
    TestService service;
    service.add("a/node", 1);
    Client client("a/node");
    ASSERT_TRUE(remount(MS_RDONLY)) << errno;
    service.add("a/other", 2);
    service.remove("a/node");
    EXPECT_EQ(leftOut(), Names{"3 Node left out: a/other: Read-only file system"});
    EXPECT_TRUE(client.isClosed());
    EXPECT_EQ(visible(), (Names{"a/", "a/node"})) << "nothing can be removed";
    ASSERT_TRUE(remount(0));
    service.add("a/third", 3);
    EXPECT_TRUE(isServed("a/third"));
    service.add("a/node", 4);
    EXPECT_EQ(Client("a/node").call(getCall("NAME")), stringReply("NAME", "node 4"));
}

TEST_F(SmallTree, WhatCouldNotBeRemovedGoesAtTheEndOrWithTheNextProcess) {
    {
        TestService service;
        service.add("a/node", 1);
        ASSERT_TRUE(remount(MS_RDONLY));
        service.remove("a/node");
        ASSERT_TRUE(remount(0));
    }
    EXPECT_EQ(contents(), Names{});
    {
        TestService service;
        service.add("a/node", 1);
        ASSERT_TRUE(remount(MS_RDONLY));
    }
    EXPECT_EQ(visible(), (Names{"a/", "a/node"}));
    ASSERT_TRUE(remount(0));
    { TestService service; }
    EXPECT_EQ(contents(), Names{});
}

TEST_F(SmallTree, WhenItIsFullNodesAreLeftOutAndNothingHalfMadeStays) {
    TestService service;
    std::vector<std::string> served;
    for (std::uint64_t id = 0; leftOut().empty() && id < 20; ++id) {
        service.add("a/" + std::to_string(id) + "/node", id);
        if (leftOut().empty()) served.push_back("a/" + std::to_string(id) + "/node");
    }
    EXPECT_GT(served.size(), 1u);
    EXPECT_NE(leftOut().at(0).find("No space left on device"), std::string::npos);
    for (const std::string& node : served) EXPECT_TRUE(isServed(node));
    EXPECT_EQ(visible().size(), 1 + 2 * served.size());
    EXPECT_EQ(contents().size(), visible().size() + 2) << "the service's own folder holds more than the journal";
    service.remove(served.back());
    service.add("a/again", 99);
    EXPECT_TRUE(isServed("a/again"));
}

TEST_F(SmallTree, AServiceThatCannotWriteIntoItsRootDoesNotStart) {
    ASSERT_TRUE(remount(MS_RDONLY));
    TestService service;
    EXPECT_FALSE(service.running());
    const Names records = log_.records("Nodes");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_TRUE(records[0].starts_with("4 Could not ")) << records[0];
    EXPECT_NE(records[0].find(root()), std::string::npos) << records[0];
    EXPECT_NE(records[0].find("Read-only file system"), std::string::npos) << records[0];
}

using Root = Tree;

TEST_F(Root, MissingParentsAreMadeAndStay) {
    const std::string deep = root() + "/x/y/z";
    ::setenv("NODE_ROOT", deep.c_str(), 1);
    { TestService service; }
    EXPECT_EQ(modeOf(root()), 0755u);
    EXPECT_EQ(modeOf(root() + "/x/y"), 0755u);
    EXPECT_EQ(modeOf(deep), 0755u);
}

TEST_F(Root, AnyLengthWorks) {
    std::string deep = root();
    while (deep.size() < 3000) deep += "/" + std::string(200, 'd');
    ::setenv("NODE_ROOT", deep.c_str(), 1);
    TestService service;
    service.add("a/" + std::string(200, 'n') + "/node", 1);
    EXPECT_TRUE(isServed("a/" + std::string(200, 'n') + "/node"));
    ASSERT_TRUE(service.stop());
    EXPECT_FALSE(fs::exists(deep + "/a"));
}

TEST_F(Root, EvenLongerThanAPathTheKernelTakes) {
    std::string deep = root();
    while (deep.size() < 6000) deep += "/" + std::string(200, 'd');
    ::setenv("NODE_ROOT", deep.c_str(), 1);
    TestService service;
    service.add("a/node", 1);
    const Services::Nodes::Fd folder = Services::Nodes::openRoot(deep);
    struct stat info {};
    ASSERT_EQ(::fstatat(folder.get(), "a/node", &info, AT_SYMLINK_NOFOLLOW), 0);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    ASSERT_TRUE(service.stop());
    EXPECT_NE(::fstatat(folder.get(), "a", &info, 0), 0);
}

TEST_F(Root, MayBeRelativeAndHaveLinksAndDoubleSlashes) {
    fs::create_directories(folder_.path() + "/real");
    fs::create_directory_symlink("real", folder_.path() + "/link");
    const fs::path before = fs::current_path();
    fs::current_path(folder_.path());
    ::setenv("NODE_ROOT", "link//./x/", 1);
    {
        TestService service;
        service.add("a/node", 1);
        EXPECT_TRUE(fs::is_socket(folder_.path() + "/real/x/a/node"));
    }
    fs::current_path(before);
    EXPECT_FALSE(fs::exists(folder_.path() + "/real/x/a"));
}

TEST_F(Root, OneThatCannotBeUsedIsLoggedWithItsPath) {
    fs::create_directories(root());
    writeFile("file", "");
    for (const std::string& path : {pathOf("file"), pathOf("file") + "/below", std::string("/proc/nodes")}) {
        log_.forget();
        ::setenv("NODE_ROOT", path.c_str(), 1);
        TestService service;
        EXPECT_FALSE(service.running());
        const Names records = log_.records("Nodes");
        ASSERT_EQ(records.size(), 1u);
        EXPECT_TRUE(records[0].starts_with("4 Could not use the root of the node tree " + path + ": ")) << records[0];
    }
}

TEST_F(Root, WhatIsForeignInPlaceOfItsOwnFilesIsNotUsed) {
    fs::create_directories(root());
    fs::create_symlink("elsewhere", pathOf(".TestServer.lock"));
    EXPECT_FALSE(TestService().running());
    EXPECT_FALSE(fs::exists(pathOf("elsewhere")));
    fs::remove(pathOf(".TestServer.lock"));
    writeFile(".TestServer.new", "mine");
    EXPECT_FALSE(TestService().running());
    EXPECT_EQ(fs::file_size(pathOf(".TestServer.new")), 4u);
    for (const std::string& record : log_.records("Nodes")) {
        EXPECT_TRUE(record.starts_with("4 Could not ")) << record;
        EXPECT_NE(record.find(root()), std::string::npos) << record;
    }
    EXPECT_EQ(log_.records("Nodes").size(), 2u);
}

TEST_F(Root, ComesFromTheEnvironment) {
    using Services::Nodes::rootPath;
    EXPECT_EQ(rootPath(), root());
    ::unsetenv("NODE_ROOT");
    ::setenv("XDG_RUNTIME_DIR", "/some/where", 1);
    const bool superuser = ::geteuid() == 0;
    EXPECT_EQ(rootPath(), superuser ? "/run/nodes" : "/some/where/nodes");
    ::setenv("NODE_ROOT", "", 1);
    EXPECT_EQ(rootPath(), superuser ? "/run/nodes" : "/some/where/nodes");
    if (superuser && ::seteuid(65534) == 0) {
        EXPECT_EQ(rootPath(), "/some/where/nodes");
        ::unsetenv("XDG_RUNTIME_DIR");
        EXPECT_EQ(rootPath(), "");
        ASSERT_EQ(::seteuid(0), 0);
    }
    ::unsetenv("XDG_RUNTIME_DIR");
}

}  // namespace
}  // namespace NodesTest
