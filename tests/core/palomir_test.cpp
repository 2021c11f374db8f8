#include <gtest/gtest.h>

#include <chrono>

#include "palomir_test/client.hpp"
#include "core/palomir_internal.hpp"
#include "palomir/environment.hpp"
#include "palomir_test/temp_dir.hpp"

namespace palomir {
namespace {

using namespace std::chrono_literals;

// The descriptions of failures the library reports but no run against a
// server provokes: the others are checked where the client meets a server's
// answers.
TEST(ErrorDescriptions, ReadExactly) {
    EXPECT_EQ(APIError::requestFailed(RequestError::noResponse()).localizedDescription(), "Request failed: No response");
    EXPECT_EQ(APIError::encodingFailed("NaN").localizedDescription(), "Encoding failed: NaN");
}

TEST(LongMessages, AreCutAtAThousandCharactersAsAReaderCountsThem) {
    std::string accented;  // "e" and a combining acute accent: one character of three bytes
    for (int i = 0; i < 1000; ++i) accented += "e\xCC\x81";
    const std::vector<std::tuple<std::string, std::size_t, bool>> cases{
        {"", 0, false}, {std::string(1001, 'a'), 1000, true}, {accented, 3000, false}, {accented + "e\xCC\x81", 3000, true},
        // a family emoji: five code points joined by zero-width joiners
        {std::string(999, 'a') + "\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x91\xA7" "b", 1017, true}};
    for (const auto& [message, submittedBytes, wasShortened] : cases) {
        auto [submitted, shortened] = shortenedMessage(message);
        EXPECT_EQ(std::pair(submitted, shortened), std::pair(message.substr(0, submittedBytes), wasShortened));
    }
}

// Every test runs in a process of its own, so the shared client is fresh;
// what it writes goes to a temporary caches directory. How check-ins are
// served from memory and that an undescribed app is refused are proven
// against the sandbox and through the C facade.
class PalomirTest : public ::testing::Test {
protected:
    void SetUp() override { setCachesDirectory(_caches.path()); }

    palomir_test::TempDir _caches;
    std::shared_ptr<DispatchQueue> _queue = DispatchQueue::makeSerial("test.delivery");
};

// A user's credentials set before any app credentials are dropped; new app
// credentials keep them, and going without app credentials drops them.
TEST_F(PalomirTest, UserCredentialsNeedAppCredentialsSurviveNewOnesAndGoWithThem) {
    auto& palomir = Palomir::shared();
    auto user = std::make_shared<StaticUserCredentials>("abc");
    palomir.setUserCredentials(user);
    palomir.setAppCredentials(AppCredentials{"t", "s"});
    EXPECT_EQ(palomir.userCredentials(), nullptr);
    palomir.setUserCredentials(user);
    palomir.setAppCredentials(AppCredentials{"t2", "s2"});
    EXPECT_EQ(palomir.userCredentials(), user);
    palomir.setAppCredentials(std::nullopt);
    palomir.setAppCredentials(AppCredentials{"t", "s"});
    EXPECT_EQ(palomir.userCredentials(), nullptr);
}

TEST_F(PalomirTest, WebRequestIsASignedGetForAPage) {
    Palomir::shared().setAppCredentials(AppCredentials{"token", "secret"});
    Awaited<URLRequest> awaited(_queue);
    Palomir::shared().webRequest("https://backend.example/help?topic=1", _queue, awaited.completion());
    const auto request = awaited.get().value();
    EXPECT_EQ(std::tie(request.method, request.url), std::tuple("GET", "https://backend.example/help?topic=1"));
    EXPECT_EQ(request.value("Content-Type"), "text/html, text/html");
    EXPECT_EQ(request.value("Authorization").value_or("").rfind("OAuth oauth_consumer_key=\"token\"", 0), 0u);
}

// --- the lockdown flow, with screens and a window that record what is asked of them

using Journal = std::vector<std::string>;

struct FakeScreen : LockdownScreen {
    FakeScreen(Journal& journal, std::string name) : journal(journal), name(std::move(name)) {}
    std::optional<Configuration> config() const override { return std::nullopt; }
    void setConfig(std::optional<Configuration> config) override {
        journal.push_back((config ? "config " : "no config ") + name);
    }
    void dismiss(bool animated, std::function<void()>) override {
        journal.push_back("dismiss " + name + (animated ? " animated" : " still"));
    }
    void setDismissCallback(std::function<void(DismissAction)> callback) override { dismissCallback = std::move(callback); }
    Journal& journal;
    std::string name;
    std::function<void(DismissAction)> dismissCallback;
};

// The window is its own root, when it has one.
struct FakeWindow : Window, PresentingViewController, std::enable_shared_from_this<FakeWindow> {
    explicit FakeWindow(Journal& journal, bool hasRoot = true, bool makesScreens = true)
        : journal(journal), hasRoot(hasRoot), makesScreens(makesScreens) {}
    std::shared_ptr<PresentingViewController> rootViewController() override {
        return hasRoot ? shared_from_this() : nullptr;
    }
    std::shared_ptr<LockdownScreen> makeLockdownScreen() override {
        if (!makesScreens) return nullptr;
        return screens.emplace_back(std::make_shared<FakeScreen>(journal, std::to_string(screens.size() + 1)));
    }
    void present(std::shared_ptr<ConfigurableViewController>, bool animated, std::function<void()> completion) override {
        journal.push_back(std::string("present ") + (animated ? "animated" : "still"));
        completion();
    }
    Journal& journal;
    bool hasRoot, makesScreens;
    std::vector<std::shared_ptr<FakeScreen>> screens;
};

class LockdownFlow : public PalomirTest {
protected:
    void hold(bool active, std::optional<LockdownType> type) {
        Configuration c;
        c.lockdown.active = active;
        c.lockdown.type = type;
        Palomir::shared().setConfiguration(c);
    }

    // Runs the flow and drains the main queue as a host's loop would.
    std::optional<LockdownResult> run(const std::shared_ptr<Window>& window) {
        std::optional<LockdownResult> result;
        int calls = 0;
        Palomir::shared().lockdownIfNeeded(
            window, true, [this](DismissAction action) { dismissed.push_back(action); },
            [&](LockdownResult r) {
                EXPECT_TRUE(MainQueue::shared()->isCurrent());
                result = r;
                ++calls;
            });
        MainQueue::shared()->runUntil([&] { return result.has_value(); }, 2000ms);
        // Anything still queued would be a second completion.
        MainQueue::shared()->runUntil([] { return false; }, 50ms);
        EXPECT_LE(calls, 1);
        return result;
    }

    Journal _journal;
    std::vector<DismissAction> dismissed;
};

TEST_F(LockdownFlow, TheFirstLockdownIsAnimatedASecondReplacesItLiftingDismissesEveryScreenAndNowhereToPresentNeverCompletes) {
    auto window = std::make_shared<FakeWindow>(_journal);
    EXPECT_EQ(run(window), LockdownResult::open());  // nothing held: no screen is touched
    EXPECT_TRUE(_journal.empty());

    hold(true, LockdownType::hard);
    EXPECT_EQ(run(window), LockdownResult::lockedDown(LockdownType::hard));
    // The host's dismiss callback reaches the screen.
    window->screens[0]->dismissCallback(DismissAction::close);
    EXPECT_EQ(dismissed, std::vector<DismissAction>{DismissAction::close});
    EXPECT_EQ(run(window), LockdownResult::lockedDown(LockdownType::hard));
    EXPECT_EQ(_journal, (Journal{"config 1", "present animated", "dismiss 1 still", "config 2", "present still"}));
    hold(false, LockdownType::soft);
    EXPECT_EQ(run(window), LockdownResult::open());
    EXPECT_EQ(Journal(_journal.end() - 2, _journal.end()), (Journal{"dismiss 1 animated", "dismiss 2 animated"}));

    // With nowhere to present, the old screens go as for any replacement, a
    // screen that was made is kept, and the completion never runs.
    hold(true, LockdownType::hard);
    const std::vector<std::pair<std::shared_ptr<Window>, Journal>> nowhere{
        {nullptr, {"dismiss 1 still", "dismiss 2 still"}},
        {std::make_shared<FakeWindow>(_journal, true, false), {"dismiss 1 still", "dismiss 2 still"}},
        {std::make_shared<FakeWindow>(_journal, false), {"dismiss 1 still", "dismiss 2 still", "config 1"}}};
    for (const auto& [where, added] : nowhere) {
        _journal.clear();
        EXPECT_EQ(run(where), std::nullopt);
        EXPECT_EQ(_journal, added);
    }
    EXPECT_EQ(Palomir::shared().viewControllers().size(), 3u);
}

}  // namespace
}  // namespace palomir
