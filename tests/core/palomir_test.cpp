#include <gtest/gtest.h>

#include <chrono>
#include <fstream>

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

struct CacheCase {
    const char* name;
    std::optional<std::optional<std::chrono::milliseconds>> offset;  // nothing: no configuration held
    bool fromMemory;
};

class CheckinCache : public PalomirTest, public ::testing::WithParamInterface<CacheCase> {};

TEST_P(CheckinCache, ServesFromMemoryOnlyWhileTheDateIsAbsentOrInTheFuture) {
    // Without credentials a check-in that goes to the backend fails locally,
    // which tells the two paths apart.
    const auto& offset = GetParam().offset;
    if (offset) {
        Palomir::shared().setConfiguration(configurationWith(*offset ? std::optional(now() + **offset) : std::nullopt));
    }
    auto result = checkin();
    ASSERT_EQ(result.hasValue(), GetParam().fromMemory);
    if (!GetParam().fromMemory) {
        ASSERT_NE(result.error().palomirError(), nullptr);
        EXPECT_EQ(result.error().localizedDescription(), "Missing app token and/or secret");
    }
}

INSTANTIATE_TEST_SUITE_P(Dates, CheckinCache,
                         ::testing::Values(CacheCase{"nothingHeld", std::nullopt, false},
                                           CacheCase{"noDate", std::optional<std::chrono::milliseconds>(), true},
                                           CacheCase{"oneSecondAhead", 1000ms, true},
                                           CacheCase{"reachedNow", 0ms, false},
                                           CacheCase{"oneSecondAgo", -1000ms, false}),
                         [](const auto& info) { return std::string(info.param.name); });

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
    auto result = awaited.get();
    ASSERT_TRUE(result.hasValue());
    const auto& request = result.value();
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.url, "https://backend.example/help?topic=1");
    EXPECT_FALSE(request.body.has_value());
    EXPECT_EQ(request.value("Content-Type"), "text/html, text/html");
    ASSERT_TRUE(request.value("Authorization").has_value());
    EXPECT_EQ(request.value("Authorization")->rfind("OAuth oauth_consumer_key=\"token\"", 0), 0u);
}

TEST_F(PalomirTest, StartingLogsThroughTheDefaultLoggerIntoTheMainLogFile) {
    auto files = Palomir::shared().logFiles();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_NE(files[0].filename().string().find("palomir-main-"), std::string::npos);
    std::ifstream in(files[0]);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("[INFO] Palomir started\n"), std::string::npos) << text;

    auto attachments = Palomir::shared().feedbackAttachments();
    ASSERT_EQ(attachments.size(), 1u);
    EXPECT_EQ(attachments[0].filename, files[0].filename().string());
}

struct MessageCase {
    const char* name;
    std::string message;
    std::size_t submittedBytes;
    bool shortened;
};

class LongMessages : public ::testing::TestWithParam<MessageCase> {};

TEST_P(LongMessages, AreCutAtAThousandCharacters) {
    auto [submitted, shortened] = shortenedMessage(GetParam().message);
    EXPECT_EQ(submitted.size(), GetParam().submittedBytes);
    EXPECT_EQ(shortened, GetParam().shortened);
    EXPECT_EQ(GetParam().message.rfind(submitted, 0), 0u);
}

std::string repeat(const std::string& piece, std::size_t times) {
    std::string text;
    for (std::size_t i = 0; i < times; ++i) text += piece;
    return text;
}

INSTANTIATE_TEST_SUITE_P(Lengths, LongMessages,
                         ::testing::Values(MessageCase{"exactly1000", repeat("a", 1000), 1000, false},
                                           MessageCase{"exactly1001", repeat("a", 1001), 1000, true},
                                           MessageCase{"empty", "", 0, false},
                                           // Two-byte characters are never split.
                                           MessageCase{"umlauts1001", repeat("\xC3\xA4", 1001), 2000, true},
                                           MessageCase{"umlauts1000", repeat("\xC3\xA4", 1000), 2000, false}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(NotesRendering, ListsQuotedEscapedDescriptions) {
    Note note;
    note.title = "New";
    note.content = "Hi";
    EXPECT_EQ(describeNotes({}), "[]");
    EXPECT_EQ(describeNotes({note, note}),
              "[\"\\tNote\\n\\t\\ttitle: New\\n\\t\\tsubtitle: \\n\\t\\tcontent: Hi\\n\\t\\timage: \\\"\", "
              "\"\\tNote\\n\\t\\ttitle: New\\n\\t\\tsubtitle: \\n\\t\\tcontent: Hi\\n\\t\\timage: \\\"\"]");
}

// --- the lockdown flow, with screens and windows that record what is asked of them

// What the fakes were asked to do, in order.
using Journal = std::vector<std::string>;

class FakeScreen : public LockdownScreen {
public:
    FakeScreen(Journal& journal, int number) : _journal(journal), _number(number) {}
    std::optional<Configuration> config() const override { return _config; }
    void setConfig(std::optional<Configuration> config) override {
        _config = std::move(config);
        _journal.push_back("config " + std::to_string(_number));
    }
    void dismiss(bool animated, std::function<void()>) override {
        _journal.push_back("dismiss " + std::to_string(_number) + (animated ? " animated" : " still"));
    }
    void setDismissCallback(std::function<void(DismissAction)> callback) override { dismissCallback = std::move(callback); }
    std::function<void(DismissAction)> dismissCallback;

private:
    Journal& _journal;
    int _number;
    std::optional<Configuration> _config;
};

class FakeRoot : public PresentingViewController {
public:
    explicit FakeRoot(Journal& journal) : _journal(journal) {}
    void present(std::shared_ptr<ConfigurableViewController>, bool animated, std::function<void()> completion) override {
        _journal.push_back(std::string("present ") + (animated ? "animated" : "still"));
        completion();
    }

private:
    Journal& _journal;
};

class FakeWindow : public Window {
public:
    explicit FakeWindow(Journal& journal, bool hasRoot = true)
        : _journal(journal), _root(hasRoot ? std::make_shared<FakeRoot>(journal) : nullptr) {}
    std::shared_ptr<PresentingViewController> rootViewController() override { return _root; }
    std::shared_ptr<LockdownScreen> makeLockdownScreen() override {
        auto screen = std::make_shared<FakeScreen>(_journal, ++_made);
        screens.push_back(screen);
        return screen;
    }
    std::vector<std::shared_ptr<FakeScreen>> screens;

private:
    Journal& _journal;
    std::shared_ptr<PresentingViewController> _root;
    int _made = 0;
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
            window, animated, [](DismissAction) {},
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
};

TEST_F(LockdownFlow, WithoutAConfigurationTheAppIsOpenAndNoScreenIsTouched) {
    auto window = std::make_shared<FakeWindow>(_journal);
    EXPECT_EQ(run(window), LockdownResult::open());
    EXPECT_TRUE(_journal.empty());
}

TEST_F(LockdownFlow, TheFirstLockdownIsAnimatedASecondReplacesItAndLiftingDismissesEveryScreen) {
    hold(true, LockdownType::hard);
    auto window = std::make_shared<FakeWindow>(_journal);
    EXPECT_EQ(run(window), LockdownResult::lockedDown(LockdownType::hard));
    EXPECT_TRUE(window->screens[0]->config().has_value());
    EXPECT_EQ(run(window, false), LockdownResult::lockedDown(LockdownType::hard));
    EXPECT_EQ(_journal, (std::vector<std::string>{"config 1", "present animated", "dismiss 1 still", "config 2",
                                                          "present still"}));
    hold(false, LockdownType::soft);
    EXPECT_EQ(run(window, false), LockdownResult::open());
    EXPECT_EQ(std::vector<std::string>(_journal.end() - 2, _journal.end()),
              (std::vector<std::string>{"dismiss 1 animated", "dismiss 2 animated"}));
    EXPECT_EQ(Palomir::shared().viewControllers().size(), 2u);
}

TEST_F(LockdownFlow, AWindowWithoutRootKeepsTheScreenButNeverCompletes) {
    hold(true, LockdownType::hard);
    auto window = std::make_shared<FakeWindow>(_journal, false);
    EXPECT_EQ(run(window), std::nullopt);
    EXPECT_EQ(Palomir::shared().viewControllers().size(), 1u);
    EXPECT_EQ(_journal, std::vector<std::string>{"config 1"});
}

TEST_F(LockdownFlow, TheHostsDismissCallbackReachesTheScreen) {
    hold(true, LockdownType::soft);
    auto window = std::make_shared<FakeWindow>(_journal);
    std::optional<DismissAction> reported;
    Palomir::shared().lockdownIfNeeded(window, true, [&](DismissAction action) { reported = action; }, {});
    MainQueue::shared()->runUntil([&] { return !window->screens.empty(); }, 2000ms);
    ASSERT_EQ(window->screens.size(), 1u);
    window->screens[0]->dismissCallback(DismissAction::close);
    EXPECT_EQ(reported, DismissAction::close);
}

}  // namespace
}  // namespace palomir
