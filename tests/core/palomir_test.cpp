#include <gtest/gtest.h>

#include <chrono>

#include "awaited.hpp"
#include "core/palomir_internal.hpp"
#include "palomir/environment.hpp"
#include "palomir_test/tls.hpp"

namespace palomir {
namespace {

using namespace std::chrono_literals;

Configuration configurationWith(std::optional<Date> automaticallyAt, bool hasNextCheckin = true) {
    Configuration c;
    c.version = "1";
    if (hasNextCheckin) c.nextCheckin = NextCheckin{automaticallyAt, {CheckinEvent::launch}};
    c.lockdown.latestVersion = "1.0";
    return c;
}

Date now() { return std::chrono::time_point_cast<std::chrono::milliseconds>(std::chrono::system_clock::now()); }

// Every test runs in a process of its own, so the shared client is fresh;
// what it writes goes to a temporary caches directory.
class PalomirTest : public ::testing::Test {
protected:
    void SetUp() override {
        setCachesDirectory(_caches.path());
        Bundle::setMain(Bundle(nlohmann::json{{"CFBundleIdentifier", "com.example.host"},
                                              {"CFBundleVersion", "42"},
                                              {"CFBundleShortVersionString", "4.2"}},
                               std::nullopt));
    }

    Result<Configuration, Error> checkin() {
        Awaited<Configuration> awaited(_queue);
        Palomir::shared().checkin(_queue, awaited.completion());
        return awaited.get();
    }

    palomir_test::TempDir _caches;
    std::shared_ptr<DispatchQueue> _queue = DispatchQueue::makeSerial("test.delivery");
};

// Without credentials a check-in that goes to the backend fails locally,
// which tells it apart from one answered from memory.
TEST_F(PalomirTest, CheckinServesFromMemoryOnlyWhileTheDateIsAbsentOrInTheFuture) {
    const auto nothingHeld = checkin();
    ASSERT_TRUE(nothingHeld.hasError());
    EXPECT_EQ(nothingHeld.error().localizedDescription(), "Missing app token and/or secret");
    const std::vector<std::pair<std::optional<std::chrono::milliseconds>, bool>> cases{
        {std::nullopt, true}, {1000ms, true}, {0ms, false}, {-1000ms, false}};
    for (const auto& [offset, fromMemory] : cases) {
        SCOPED_TRACE(offset ? std::to_string(offset->count()) + " ms" : "no date");
        Palomir::shared().setConfiguration(configurationWith(offset ? std::optional(now() + *offset) : std::nullopt));
        auto result = checkin();
        ASSERT_EQ(result.hasValue(), fromMemory);
        if (!fromMemory) {
            EXPECT_EQ(result.error().localizedDescription(), "Missing app token and/or secret");
        }
    }
}

TEST_F(PalomirTest, UserCredentialsSurviveNewAppCredentialsButNeedSome) {
    auto& palomir = Palomir::shared();
    auto user = std::make_shared<StaticUserCredentials>("abc");
    palomir.setUserCredentials(user);
    EXPECT_EQ(palomir.userCredentials(), nullptr);
    EXPECT_EQ(palomir.client(), nullptr);

    palomir.setAppCredentials(AppCredentials{"t1", "s1"});
    palomir.setUserCredentials(user);
    auto first = palomir.client();
    palomir.setAppCredentials(AppCredentials{"t2", "s2"});
    EXPECT_NE(palomir.client(), first);
    EXPECT_EQ(palomir.client()->credentials().token, "t2");
    EXPECT_EQ(palomir.userCredentials(), user);

    palomir.setAppCredentials(std::nullopt);
    EXPECT_EQ(palomir.userCredentials(), nullptr);
    palomir.setAppCredentials(AppCredentials{"t3", "s3"});
    EXPECT_EQ(palomir.userCredentials(), nullptr);
}

TEST_F(PalomirTest, AnUndescribedAppCannotCheckIn) {
    Bundle::setMain(Bundle(nlohmann::json{{"CFBundleIdentifier", "com.example.host"}}, std::nullopt));
    auto& palomir = Palomir::shared();
    EXPECT_FALSE(palomir.appInfo().has_value());
    palomir.setAppCredentials(AppCredentials{"t", "s"});
    auto result = checkin();
    ASSERT_TRUE(result.hasError());
    EXPECT_EQ(result.error().localizedDescription(), "Failed to create app info");

    Awaited<std::string, PalomirError> feedback(_queue);
    palomir.feedback("t", "m", "me", std::vector<Attachment>{}, {}, _queue, feedback.completion());
    EXPECT_EQ(feedback.get().error(), PalomirError::failedToCreateAppInfo());
}

TEST_F(PalomirTest, WebRequestIsASignedGetForAPage) {
    Palomir::shared().setAppCredentials(AppCredentials{"token", "secret"});
    Awaited<URLRequest> awaited(_queue);
    Palomir::shared().webRequest("https://backend.example/help?topic=1", _queue, awaited.completion());
    const auto request = awaited.get().value();
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.url, "https://backend.example/help?topic=1");
    EXPECT_FALSE(request.body.has_value());
    EXPECT_EQ(request.value("Content-Type"), "text/html, text/html");
    EXPECT_EQ(request.value("Authorization").value_or("").rfind("OAuth oauth_consumer_key=\"token\"", 0), 0u);
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

TEST(NotesRendering, ListsQuotedEscapedDescriptions) {
    const Note note{Uuid{std::array<std::uint8_t, 16>{}}, "New", std::nullopt, "Hi", std::nullopt};
    EXPECT_EQ(describeNotes({note, note}),
              "[\"\\tNote\\n\\t\\ttitle: New\\n\\t\\tsubtitle: \\n\\t\\tcontent: Hi\\n\\t\\timage: \\\"\", "
              "\"\\tNote\\n\\t\\ttitle: New\\n\\t\\tsubtitle: \\n\\t\\tcontent: Hi\\n\\t\\timage: \\\"\"]");
}

// --- the lockdown flow, with screens and windows that record what is asked of them

// What the fakes were asked to do, in order.
using Journal = std::vector<std::string>;

struct FakeScreen : LockdownScreen {
    FakeScreen(Journal& journal, int number) : journal(journal), number(number) {}
    std::optional<Configuration> config() const override { return held; }
    void setConfig(std::optional<Configuration> config) override {
        held = std::move(config);
        journal.push_back("config " + std::to_string(number));
    }
    void dismiss(bool animated, std::function<void()>) override {
        journal.push_back("dismiss " + std::to_string(number) + (animated ? " animated" : " still"));
    }
    void setDismissCallback(std::function<void(DismissAction)> callback) override { dismissCallback = std::move(callback); }
    Journal& journal;
    int number;
    std::optional<Configuration> held;
    std::function<void(DismissAction)> dismissCallback;
};

struct FakeRoot : PresentingViewController {
    explicit FakeRoot(Journal& journal) : journal(journal) {}
    void present(std::shared_ptr<ConfigurableViewController>, bool animated, std::function<void()> completion) override {
        journal.push_back(std::string("present ") + (animated ? "animated" : "still"));
        completion();
    }
    Journal& journal;
};

struct FakeWindow : Window {
    explicit FakeWindow(Journal& journal, bool hasRoot = true, bool makesScreens = true)
        : journal(journal), root(hasRoot ? std::make_shared<FakeRoot>(journal) : nullptr), makesScreens(makesScreens) {}
    std::shared_ptr<PresentingViewController> rootViewController() override { return root; }
    std::shared_ptr<LockdownScreen> makeLockdownScreen() override {
        if (!makesScreens) return nullptr;
        screens.push_back(std::make_shared<FakeScreen>(journal, static_cast<int>(screens.size()) + 1));
        return screens.back();
    }
    Journal& journal;
    std::shared_ptr<PresentingViewController> root;
    bool makesScreens;
    std::vector<std::shared_ptr<FakeScreen>> screens;
};

class LockdownFlow : public PalomirTest {
protected:
    void hold(bool active, std::optional<LockdownType> type) {
        auto c = configurationWith(std::nullopt, false);
        c.lockdown.active = active;
        c.lockdown.type = type;
        Palomir::shared().setConfiguration(c);
    }

    // Runs the flow and drains the main queue as a host's loop would.
    std::optional<LockdownResult> run(const std::shared_ptr<Window>& window, bool animated = true) {
        std::optional<LockdownResult> result;
        int calls = 0;
        Palomir::shared().lockdownIfNeeded(
            window, animated, [this](DismissAction action) { dismissed.push_back(action); },
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
    EXPECT_TRUE(window->screens[0]->config().has_value());
    // The host's dismiss callback reaches the screen.
    window->screens[0]->dismissCallback(DismissAction::close);
    EXPECT_EQ(dismissed, std::vector<DismissAction>{DismissAction::close});
    EXPECT_EQ(run(window, false), LockdownResult::lockedDown(LockdownType::hard));
    EXPECT_EQ(_journal, (Journal{"config 1", "present animated", "dismiss 1 still", "config 2", "present still"}));
    hold(false, LockdownType::soft);
    EXPECT_EQ(run(window, false), LockdownResult::open());
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
