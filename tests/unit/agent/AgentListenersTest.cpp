#include "tests/unit/agent/AgentFixture.h"

namespace UnitTest {
namespace {

Ref<String> path(const char* text) {
    return String::create(text);
}
Ref<Listener> listener() {
    return Ref<Listener>(new Listener);
}

/// Whether the listener is referenced from elsewhere as well, is to be seen by its weak reference alone.
bool isAlive(const WeakRef<Listener>& weak) {
    return weak.lock() != nullptr;
}

TEST(AgentListeners, ASecondListenerForAPathIsRefusedAndReleased) {
    AuthenticationAgent agent;
    Ref<Listener> first = listener();
    Ref<Listener> second = listener();
    const WeakRef<Listener> weakFirst(first);
    const WeakRef<Listener> weakSecond(second);
    EXPECT_TRUE(agent.addListener(path("/a"), std::move(first)));
    EXPECT_FALSE(agent.addListener(path("/a"), std::move(second)));
    EXPECT_TRUE(isAlive(weakFirst));
    EXPECT_FALSE(isAlive(weakSecond));
}

TEST(AgentListeners, PathsAreComparedExactly) {
    AuthenticationAgent agent;
    EXPECT_TRUE(agent.addListener(path("/a"), listener()));
    EXPECT_TRUE(agent.addListener(path("/A"), listener()));
    EXPECT_TRUE(agent.addListener(path("/a/"), listener()));
    EXPECT_TRUE(agent.addListener(path(""), listener()));
}

TEST(AgentListeners, RemovingReleasesTheListenerAndOnlyOnce) {
    AuthenticationAgent agent;
    Ref<Listener> one = listener();
    const WeakRef<Listener> weak(one);
    EXPECT_TRUE(agent.addListener(path("/a"), std::move(one)));
    EXPECT_TRUE(agent.removeListener(path("/a")));
    EXPECT_FALSE(isAlive(weak));
    EXPECT_FALSE(agent.removeListener(path("/a")));
    EXPECT_TRUE(agent.addListener(path("/a"), listener()));
}

TEST(AgentListeners, RemovingAnUnknownPathIsRefused) {
    AuthenticationAgent agent;
    EXPECT_FALSE(agent.removeListener(path("/a")));
    EXPECT_TRUE(agent.addListener(path("/a"), listener()));
    EXPECT_FALSE(agent.removeListener(path("/b")));
}

TEST(AgentListeners, AListenerMayAddAndRemoveWhenItsLastReferenceGoes) {
    /// Goes back to the agent when it is destroyed.
    class Returning final : public RefCount, public AuthenticationAgent::EventListener {
    public:
        explicit Returning(AuthenticationAgent& agent) : agent_(agent) {}
        void handleEvent(const AuthenticationAgent::Event&) override {}

    private:
        ~Returning() override { EXPECT_TRUE(agent_.addListener(path("/after"), listener())); }
        AuthenticationAgent& agent_;
    };
    AuthenticationAgent agent;
    EXPECT_TRUE(agent.addListener(path("/a"), Ref<Returning>(new Returning(agent))));
    EXPECT_TRUE(agent.removeListener(path("/a")));
    EXPECT_FALSE(agent.addListener(path("/after"), listener()));
}

TEST(AgentListeners, AreReleasedWithTheAgent) {
    Ref<Listener> one = listener();
    const WeakRef<Listener> weak(one);
    {
        AuthenticationAgent agent;
        EXPECT_TRUE(agent.addListener(path("/a"), std::move(one)));
        EXPECT_TRUE(isAlive(weak));
    }
    EXPECT_FALSE(isAlive(weak));
}

}  // namespace
}  // namespace UnitTest
